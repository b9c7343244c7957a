#include "update/digest.h"

#include <openssl/evp.h>

struct Digest::Context
{
    EVP_MD_CTX *context = nullptr;
};

namespace {

const EVP_MD *algorithmOf(Digest::Algorithm algorithm)
{
    switch (algorithm) {
    case Digest::Md5:
        return EVP_md5();
    case Digest::Sha256:
        return EVP_sha256();
    case Digest::Blake2b512:
        return EVP_blake2b512();
    }
    return nullptr;
}

} // namespace

Digest::Digest(Algorithm algorithm)
    : d(std::make_unique<Context>())
{
    d->context = EVP_MD_CTX_new();
    if (d->context && EVP_DigestInit_ex(d->context, algorithmOf(algorithm), nullptr) != 1) {
        EVP_MD_CTX_free(d->context);
        d->context = nullptr;
    }
}

Digest::~Digest()
{
    EVP_MD_CTX_free(d->context);
}

bool Digest::isValid() const
{
    return d->context != nullptr;
}

void Digest::addData(const char *data, qint64 length)
{
    if (d->context && length > 0)
        EVP_DigestUpdate(d->context, data, size_t(length));
}

QByteArray Digest::result() const
{
    if (!d->context)
        return QByteArray();
    // Finished on a copy, so that the running computation can go on.
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_MD_CTX *copy = EVP_MD_CTX_new();
    const bool done = copy && EVP_MD_CTX_copy_ex(copy, d->context) == 1
                      && EVP_DigestFinal_ex(copy, digest, &length) == 1;
    EVP_MD_CTX_free(copy);
    return done ? QByteArray(reinterpret_cast<const char *>(digest), int(length)) : QByteArray();
}
