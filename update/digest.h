#pragma once

#include <QByteArray>

#include <memory>

// One running digest computed by OpenSSL, fed piece by piece. Invalid when OpenSSL refuses the
// algorithm (MD5 in a FIPS-only configuration); an invalid digest ignores its data and has an
// empty result.
class Digest
{
public:
    enum Algorithm { Md5, Sha256, Blake2b512 };

    explicit Digest(Algorithm algorithm);
    ~Digest();
    Digest(const Digest &) = delete;
    Digest &operator=(const Digest &) = delete;

    bool isValid() const;
    void addData(const char *data, qint64 length);
    // The raw digest of everything added so far; more data may follow.
    QByteArray result() const;

private:
    struct Context;
    std::unique_ptr<Context> d;
};
