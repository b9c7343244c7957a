#include "update/checksums.h"

#include "update/filedigests.h"
#include "update/md5hash.h"

#include <QFile>

namespace {

// Large enough that the system calls cost little beside the hashing of the block.
constexpr qint64 blockSize = 65536;

// A read error gives false rather than the checksums of what happened to be read.
bool hashFromCurrentPosition(QFile &file, FileDigests *digests)
{
    char buffer[blockSize];
    for (;;) {
        const qint64 n = file.read(buffer, blockSize);
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        digests->addData(buffer, n);
    }
}

QString md5FromCurrentPosition(QFile &file)
{
    FileDigests digests;
    return hashFromCurrentPosition(file, &digests) ? digests.md5() : QString();
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
    return md5FromCurrentPosition(file);
}

QString getFileMD5Ex(QFile &file)
{
    if (!file.seek(0))
        return QString();
    return md5FromCurrentPosition(file);
}

bool getFileDigests(const QString &path, QString *md5, QString *sha256)
{
    QFile file(path);
    FileDigests digests(FileDigests::Both);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)
        || !hashFromCurrentPosition(file, &digests))
        return false;
    *md5 = digests.md5();
    *sha256 = digests.sha256();
    return true;
}

QString getFileSHA256Ex(const QString &path)
{
    QFile file(path);
    FileDigests digests(FileDigests::Sha256);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)
        || !hashFromCurrentPosition(file, &digests))
        return QString();
    return digests.sha256();
}
