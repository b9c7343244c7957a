#include "update/checksums.h"

#include "update/filedigests.h"
#include "update/md5hash.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Large enough that the system calls cost little beside the hashing of the block.
constexpr qint64 blockSize = 65536;

// A regular file, or a link to one: a pipe or a device in a file's place would keep a reader
// waiting, or reading, for ever.
bool openRegularFile(QFile &file, const QString &path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct stat status = {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)
        || !file.open(fd, QIODevice::ReadOnly | QIODevice::Unbuffered,
                      QFileDevice::AutoCloseHandle)) {
        ::close(fd);
        return false;
    }
    return true;
}

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
    QFile file;
    if (!openRegularFile(file, path))
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
    QFile file;
    if (!openRegularFile(file, path))
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
    QFile file;
    FileDigests digests(FileDigests::Both);
    if (!openRegularFile(file, path) || !hashFromCurrentPosition(file, &digests))
        return false;
    *md5 = digests.md5();
    *sha256 = digests.sha256();
    return true;
}

QString getFileSHA256Ex(const QString &path)
{
    QFile file;
    FileDigests digests(FileDigests::Sha256);
    if (!openRegularFile(file, path) || !hashFromCurrentPosition(file, &digests))
        return QString();
    return digests.sha256();
}
