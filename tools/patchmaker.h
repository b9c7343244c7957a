#pragma once

#include <QByteArray>

// The patch a release publishes to turn base into target, in whichever format the updater
// applies best for this pair; empty when none can be made. The one place where patch bytes are
// made, so that a better format changes only this.
QByteArray makePatch(const QByteArray &base, const QByteArray &target);

// Names what makePatch makes: it changes whenever makePatch would make other bytes for the same
// pair, so that patches kept from an earlier maker are not taken for this one's.
inline constexpr char patchMakerName[] = "smaller-of-bsdiff40-and-elf1";
