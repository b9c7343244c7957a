#pragma once

#include <QByteArray>

class QFile;

// Our patch format for ELF x86-64 files: magic and version; the log2 of the LZMA2 dictionary
// size; six varints: base size, new size, unpacked and packed size of the address map, packed
// sizes of the control and diff streams; then the map, control, diff and extra streams, each
// raw LZMA2, the diff bytes in zero runs (update/zerorunstream.h). The base's references are first
// moved under the map, then the streams apply to that projected base as bsdiff's do.
constexpr int executablePatchMagicSize = 8;
extern const char executablePatchMagic[executablePatchMagicSize + 1];
// Bounds of the dictionary, so of the applier's memory.
constexpr int executablePatchMinDictionaryBits = 12;
constexpr int executablePatchMaxDictionaryBits = 24;
// Larger maps come only from a hostile patch.
constexpr qint64 executablePatchMapLimit = qint64(64) << 20;

bool isExecutablePatch(const QByteArray &start);

// Applies patch to base, writing output and its MD5 as applyBinaryPatch does, with the same
// checks: a patch not made for a base of this size, or for another size than expectedSize (when
// not negative), fails before anything is written.
bool applyExecutablePatch(QFile &output, QFile &base, QFile &patch, QString *md5,
                          qint64 expectedSize);
