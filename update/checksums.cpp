#include "update/checksums.h"

#include <QCryptographicHash>
#include <QFile>

namespace {

constexpr qint64 blockSize = 16384;

// A read error gives an empty text rather than the checksum of what happened to be read.
QString hashFromCurrentPosition(QFile &file)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    char buffer[blockSize];
    for (;;) {
        const qint64 n = file.read(buffer, blockSize);
        if (n < 0)
            return QString();
        if (n == 0)
            break;
        hash.addData(QByteArrayView(buffer, n));
    }
    return QString::fromLatin1(hash.result().toHex());
}

} // namespace

QString getFileMD5(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    const QByteArray content = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return QString();
    file.close();
    return QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex());
}

QString getFileMD5Ex(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return hashFromCurrentPosition(file);
}

QString getFileMD5Ex(QFile &file)
{
    if (!file.seek(0))
        return QString();
    return hashFromCurrentPosition(file);
}
