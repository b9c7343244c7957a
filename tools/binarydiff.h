#pragma once

#include <QString>

// Writes a binary patch from oldPath to newPath in the BSDIFF40 format of bsdiff 4.3, which
// Debian's bspatch applies as well as the updater. Both files are mapped; the suffix array of
// the old file takes four bytes per byte of it, so the old file must stay below 2 GiB. Nothing
// is left at patchPath after a failure, whose reason goes to error.
bool writeBinaryPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                      QString *error);
