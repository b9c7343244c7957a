#pragma once

#include <QString>

// Unpacking and packing of single gzip files, streamed in fixed blocks so memory stays flat
// whatever the size. Neither reports anything itself; after a failure that came once data was
// written, no partial output file is left behind.

// Unpacks source into destination; a source that is not gzip data at all is copied unchanged.
// A truncated or corrupt source fails. When the source cannot be opened, the destination stays,
// empty.
bool unzipFile(const QString &destination, const QString &source);
// unzipFile() that also gives the MD5 of what it wrote, which then needs not be read again.
bool unzipFileWithMD5(const QString &destination, const QString &source, QString *md5);
// Packs source into destination at the highest compression level.
bool zipFile(const QString &source, const QString &destination);
