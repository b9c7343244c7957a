#include "update/md5hash.h"

#include "update/digest.h"

#include <QCryptographicHash>

#include <optional>

class Md5Hash::Private
{
public:
    Digest digest{Digest::Md5};
    std::optional<QCryptographicHash> fallback;
};

Md5Hash::Md5Hash()
    : d(std::make_unique<Private>())
{
    if (!d->digest.isValid())
        d->fallback.emplace(QCryptographicHash::Md5);
}

Md5Hash::~Md5Hash() = default;

void Md5Hash::addData(const char *data, qint64 length)
{
    if (d->fallback)
        d->fallback->addData(QByteArrayView(data, length));
    else
        d->digest.addData(data, length);
}

QString Md5Hash::result() const
{
    const QByteArray digest = d->fallback ? d->fallback->result() : d->digest.result();
    return digest.isEmpty() ? QString() : QString::fromLatin1(digest.toHex());
}
