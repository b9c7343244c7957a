#pragma once

#include <QString>

class Md5Hash;
class QFile;
class QIODevice;

// Unpacking and packing of single zstd files, streamed through fixed buffers so that memory
// stays flat whatever the size. Neither reports anything itself.

// Unpacks the zstd frames of source, open for reading, into output, adding what it writes to
// hash when there is one. A source that is not zstd data, cut short or damaged fails. With limit
// not negative, no more than limit bytes are written: the rest is never unpacked.
bool unzstdDevice(QIODevice &output, QFile &source, Md5Hash *hash, qint64 limit = -1);
// Packs source into destination as one frame that carries its content size and checksum.
bool zstdFile(const QString &source, const QString &destination, int level);
