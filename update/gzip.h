#pragma once

#include <QString>

class Md5Hash;
class QIODevice;

// Unpacking and packing of single gzip files, streamed in fixed blocks so memory stays flat
// whatever the size. Neither reports anything itself.

// Unpacks the data at a descriptor open for reading, which it closes, into output, adding what
// it writes to hash; data that is not gzip at all is copied unchanged. Truncated or corrupt data
// fails. With limit not negative, no more than limit bytes are written: the rest is never
// unpacked.
bool unzipDescriptor(QIODevice &output, int source, Md5Hash *hash, qint64 limit = -1);
// Packs source into destination at the highest compression level; a failure leaves no file.
bool zipFile(const QString &source, const QString &destination);
