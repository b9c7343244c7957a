#include "app/installationlock.h"

#include <QDir>
#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

int openLockFile(const QByteArray &path)
{
    // Never through a link, and never waiting on a pipe someone put in its place.
    constexpr int flags = O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int fd = ::open(path.constData(), flags, 0644);
    // A link is one of the updater's own files gone astray: it goes as the link.
    if (fd < 0 && errno == ELOOP && ::unlink(path.constData()) == 0)
        fd = ::open(path.constData(), flags, 0644);
    return fd;
}

} // namespace

bool lockInstallation(const QString &dir, bool *busy, QString *error)
{
    *busy = false;
    // Found out now, not after a download that could never be installed.
    if (::faccessat(AT_FDCWD, QFile::encodeName(dir).constData(), W_OK, AT_EACCESS) != 0) {
        *error = QStringLiteral("The installation %1 cannot be changed: %2")
                         .arg(dir, qt_error_string(errno));
        return false;
    }
    const QString path = QDir(dir).absoluteFilePath(QStringLiteral(".update-lock"));
    const int fd = openLockFile(QFile::encodeName(path));
    if (fd < 0) {
        *error = QStringLiteral("%1: %2").arg(path, qt_error_string(errno));
        return false;
    }
    int locked = -1;
    do {
        locked = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (locked != 0 && errno == EINTR);
    if (locked != 0) {
        *busy = errno == EWOULDBLOCK;
        *error = QStringLiteral("%1: %2").arg(path, qt_error_string(errno));
        ::close(fd);
        return false;
    }
    // Deliberately left open: the lock lives as long as the process.
    return true;
}
