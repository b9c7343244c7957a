#pragma once

#include "update/digest.h"
#include "update/md5hash.h"

#include <QString>

#include <optional>

// The MD5, the SHA-256 or both of one stream of bytes, taken in the same pass, so that every
// byte of a file is read or written once whatever is checked.
class FileDigests
{
public:
    enum Kind { Md5 = 1, Sha256 = 2, Both = Md5 | Sha256 };

    explicit FileDigests(Kind kinds = Md5);

    void addData(const char *data, qint64 length);
    // 32 and 64 lower-case hexadecimal characters; empty for a digest not asked for.
    QString md5() const;
    QString sha256() const;

private:
    std::optional<Md5Hash> md5Hash;
    std::optional<Digest> sha256Hash;
};
