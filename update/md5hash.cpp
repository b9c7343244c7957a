#include "update/md5hash.h"

#include <QCryptographicHash>

#include <optional>

#include <openssl/evp.h>

class Md5Hash::Private
{
public:
    Private()
        : context(EVP_MD_CTX_new())
    {
        if (!context || EVP_DigestInit_ex(context, EVP_md5(), nullptr) != 1)
            fallback.emplace(QCryptographicHash::Md5);
    }
    ~Private() { EVP_MD_CTX_free(context); }

    EVP_MD_CTX *context;
    std::optional<QCryptographicHash> fallback;
};

Md5Hash::Md5Hash()
    : d(std::make_unique<Private>())
{}

Md5Hash::~Md5Hash() = default;

void Md5Hash::addData(const char *data, qint64 length)
{
    if (d->fallback)
        d->fallback->addData(QByteArrayView(data, length));
    else
        EVP_DigestUpdate(d->context, data, size_t(length));
}

QString Md5Hash::result() const
{
    if (d->fallback)
        return QString::fromLatin1(d->fallback->result().toHex());
    // Finished on a copy, so that the running computation can go on.
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_MD_CTX *copy = EVP_MD_CTX_new();
    const bool done = copy && EVP_MD_CTX_copy_ex(copy, d->context) == 1
                      && EVP_DigestFinal_ex(copy, digest, &length) == 1;
    EVP_MD_CTX_free(copy);
    if (!done)
        return QString();
    return QString::fromLatin1(
            QByteArray::fromRawData(reinterpret_cast<const char *>(digest), int(length)).toHex());
}
