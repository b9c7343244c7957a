#pragma once

#include "update/minisign.h"

#include <QList>
#include <QString>

// The keys a release manifest must be signed with: those built into the program and those of
// update-keys.pub in the installation, which a release may replace to rotate them.
QList<MinisignPublicKey> loadTrustedKeys(const QString &appDirectory);

// Why the run must not start with these keys, as the line to show: update-keys.pub exists but
// cannot be read or holds a line that is no key, or there is no key at all in a build that
// installs signed releases only. Empty when the keys may be used, none included.
QString trustedKeysProblem(const QString &appDirectory);
