#pragma once

#include <QString>

class QFile;

// MD5 checksums as 32 lower-case hexadecimal characters; empty when the file cannot be read.
// Only regular files are read, through a link too: a pipe or a device has no checksum.

// Reads the whole file at once; for small files only.
QString getFileMD5(const QString &path);
// Streams the file in fixed blocks, so memory stays flat whatever its size.
QString getFileMD5Ex(const QString &path);
// Checksums an already open file from its start; the file stays open, positioned at its end.
QString getFileMD5Ex(QFile &file);
// MD5 and SHA-256 of the file in one pass; false when it cannot be read.
bool getFileDigests(const QString &path, QString *md5, QString *sha256);
// The SHA-256 alone, streamed; empty when the file cannot be read.
QString getFileSHA256Ex(const QString &path);
