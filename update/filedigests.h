#pragma once

#include "update/digest.h"
#include "update/md5hash.h"

#include <QString>

#include <optional>

// The MD5 and, when asked for, the SHA-256 of one stream of bytes, taken in the same pass, so
// that every byte of a file is read or written once whatever is checked.
class FileDigests
{
public:
    explicit FileDigests(bool withSha256 = false);

    void addData(const char *data, qint64 length);
    // 32 and 64 lower-case hexadecimal characters; the SHA-256 is empty unless asked for.
    QString md5() const;
    QString sha256() const;

private:
    Md5Hash md5Hash;
    std::optional<Digest> sha256Hash;
};
