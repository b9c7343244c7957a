#pragma once

#include <QString>

#include <memory>

// MD5 of data handed over piece by piece. OpenSSL's assembly code does the work, a good deal
// faster than the toolkit's portable one on the large files of an update; the toolkit's hash
// stands in where OpenSSL refuses MD5 (a FIPS-only configuration).
class Md5Hash
{
public:
    Md5Hash();
    ~Md5Hash();
    Md5Hash(const Md5Hash &) = delete;
    Md5Hash &operator=(const Md5Hash &) = delete;

    void addData(const char *data, qint64 length);
    // The digest of everything added so far, as 32 lower-case hexadecimal characters; more data
    // may follow.
    QString result() const;

private:
    class Private;
    std::unique_ptr<Private> d;
};
