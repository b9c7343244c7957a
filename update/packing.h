#pragma once

#include <QString>

// Packed files of a release, gzip or zstd, told apart by their first bytes so that the product
// list needs no field for the format: older updaters only know gzip and never see zstd unless a
// publisher asks for it.
enum class PackFormat { Gzip, Zstd };

// Unpacks source into destination by its format and gives the MD5 of what it wrote. Data that
// is neither gzip nor zstd is copied unchanged, as zlib's transparent reading does. With limit
// not negative, no more than limit bytes are ever written, whatever the source holds.
bool unpackFileWithMD5(const QString &destination, const QString &source, QString *md5,
                       qint64 limit = -1);
// What unpackInPlace did with its source.
enum class InPlaceUnpacking { Unpacked, Refused, Lost };
// Unpacks a file small enough to unpack in memory into its own inode, renamed to destination,
// so that no file is made and none deleted (ext4 without a journal scans past every inode freed
// in the last minutes each time it makes a file). Refused: it does not unpack to md5 and size,
// and source stays as it was. Lost: writing failed after the rename; neither file is usable.
InPlaceUnpacking unpackInPlace(const QString &source, const QString &destination,
                               const QString &md5, quint64 size);
bool packFile(const QString &source, const QString &destination, PackFormat format);
// Whether the file begins like gzip or zstd data, which the updater would unpack rather than
// copy; ok tells whether it could be read.
bool startsLikePackedData(const QString &path, bool *ok);
