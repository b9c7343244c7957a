#pragma once

#include <QString>

// The suffix array of the old file takes four bytes per byte of it, with 32-bit indexes.
constexpr qint64 binaryPatchBaseLimit = 0x7ffffffe;

// Writes a binary patch from oldPath to newPath in the BSDIFF40 format of bsdiff 4.3, which
// Debian's bspatch applies as well as the updater. Both files are mapped; the old file must not
// be larger than binaryPatchBaseLimit. Nothing is left at patchPath after a failure, whose
// reason goes to error.
bool writeBinaryPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                      QString *error);
