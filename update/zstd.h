#pragma once

#include <QString>

class Md5Hash;
class QFile;

// Unpacking and packing of single zstd files, streamed through fixed buffers so that memory
// stays flat whatever the size. Neither reports anything itself; a failure leaves no output file.

// Unpacks the zstd frames of source into destination, adding what it writes to hash when there
// is one. A source that is not zstd data, cut short or damaged fails. With limit not negative,
// no more than limit bytes are written: the rest is never unpacked.
bool unzstdFile(const QString &destination, const QString &source, Md5Hash *hash,
                qint64 limit = -1);
// The same from a file open for reading.
bool unzstdFile(const QString &destination, QFile &source, Md5Hash *hash, qint64 limit = -1);
// Packs source into destination as one frame that carries its content size and checksum.
bool zstdFile(const QString &source, const QString &destination, int level);
