#pragma once

#include <QByteArray>
#include <QString>

// The suffix array of the old file takes four bytes per byte of it, with 32-bit indexes.
constexpr qint64 binaryPatchBaseLimit = 0x7ffffffe;

// The three streams of a bsdiff patch before packing: control triples in bsdiff's numbers, diff
// bytes to add to the old file, extra bytes to insert.
struct BinaryDiff
{
    QByteArray control;
    QByteArray diff;
    QByteArray extra;
};

// bsdiff's matching of now against old (at most binaryPatchBaseLimit bytes); false when the
// suffixes could not be sorted.
bool diffBinary(const uchar *old, qint64 oldSize, const uchar *now, qint64 newSize,
                BinaryDiff *streams);

// Writes a binary patch from oldPath to newPath in the BSDIFF40 format of bsdiff 4.3, which
// Debian's bspatch applies as well as the updater. Both files are mapped; the old file must not
// be larger than binaryPatchBaseLimit. Nothing is left at patchPath after a failure, whose
// reason goes to error.
bool writeBinaryPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                      QString *error);
