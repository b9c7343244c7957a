#include "update/checksums.h"

#include "update/md5hash.h"

#include <QFile>

namespace {

// Large enough that the system calls cost little beside the hashing of the block.
constexpr qint64 blockSize = 65536;

// A read error gives an empty text rather than the checksum of what happened to be read.
QString hashFromCurrentPosition(QFile &file)
{
    Md5Hash hash;
    char buffer[blockSize];
    for (;;) {
        const qint64 n = file.read(buffer, blockSize);
        if (n < 0)
            return QString();
        if (n == 0)
            break;
        hash.addData(buffer, n);
    }
    return hash.result();
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
    Md5Hash hash;
    hash.addData(content.constData(), content.size());
    return hash.result();
}

QString getFileMD5Ex(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return QString();
    return hashFromCurrentPosition(file);
}

QString getFileMD5Ex(QFile &file)
{
    if (!file.seek(0))
        return QString();
    return hashFromCurrentPosition(file);
}
