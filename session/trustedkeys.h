#pragma once

#include "update/minisign.h"

#include <QList>
#include <QString>

// The keys a release manifest must be signed with: those built into the program and those of
// update-keys.pub in the installation, which a release may replace to rotate them.
QList<MinisignPublicKey> loadTrustedKeys(const QString &appDirectory);
