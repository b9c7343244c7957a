#pragma once

#include <QString>

// Unpacking and packing of single gzip files, streamed in fixed blocks so memory stays flat
// whatever the size. Neither reports anything itself; after a failure that came once data was
// written, no partial output file is left behind.

// Unpacks source into destination and gives the MD5 of what it wrote, which then needs not be
// read again; a source that is not gzip data at all is copied unchanged. A truncated or corrupt
// source fails, and one that cannot be opened leaves the destination as it was. With limit not
// negative, no more than limit bytes are written: the rest is never unpacked.
bool unzipFileWithMD5(const QString &destination, const QString &source, QString *md5,
                      qint64 limit = -1);
// The same from a descriptor open for reading at the start of the data, which it closes.
bool unzipDescriptorWithMD5(const QString &destination, int source, QString *md5,
                            qint64 limit = -1);
// Packs source into destination at the highest compression level.
bool zipFile(const QString &source, const QString &destination);
