#pragma once

#include <QByteArray>
#include <QString>

class QFile;

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

// The same for whole files, old at most binaryPatchBaseLimit bytes; false after a failure, whose
// reason goes to error.
bool diffBinary(const QByteArray &old, const QByteArray &now, BinaryDiff *streams, QString *error);

// The streams packed as a BSDIFF40 patch to a new file of newSize bytes; empty after a failure,
// whose reason goes to error.
QByteArray encodeBinaryPatch(const BinaryDiff &streams, qint64 newSize, QString *error);

// A binary patch from old to now in the BSDIFF40 format of bsdiff 4.3, which Debian's bspatch
// applies as well as the updater; old must not be larger than binaryPatchBaseLimit. Empty after
// a failure, whose reason goes to error.
QByteArray makeBinaryPatch(const QByteArray &old, const QByteArray &now, QString *error);

// The same from oldPath to newPath, written to patchPath. Both files are mapped. Nothing is left
// at patchPath after a failure.
bool writeBinaryPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                      QString *error);

// The whole of file, opened here, as a view of its mapping that lives as long as file stays
// open: large files are read as they are used, never copied.
bool mapFile(QFile &file, QByteArray *bytes, QString *error);
