#pragma once

#include <QByteArray>

// The patch a release publishes to turn base into target, in whichever format the updater
// applies best for this pair; empty when none can be made. The one place where patch bytes are
// made, so that a better format changes only this.
QByteArray makePatch(const QByteArray &base, const QByteArray &target);
