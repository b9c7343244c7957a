#include "update/filecopy.h"

#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t chunkSize = size_t(1) << 30;
constexpr size_t bufferSize = 65536;

// For file systems that cannot copy by themselves.
bool copyThroughBuffer(int in, int out)
{
    char buffer[bufferSize];
    for (;;) {
        const ssize_t n = ::read(in, buffer, bufferSize);
        if (n == 0)
            return true;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        for (ssize_t written = 0; written < n;) {
            const ssize_t w = ::write(out, buffer + written, size_t(n - written));
            if (w < 0 && errno != EINTR)
                return false;
            written += qMax<ssize_t>(w, 0);
        }
    }
}

bool copyContent(int in, int out)
{
    bool first = true;
    for (;;) {
        const ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, chunkSize, 0);
        if (n == 0)
            return true;
        if (n > 0) {
            first = false;
            continue;
        }
        if (errno == EINTR)
            continue;
        // Not supported here, or not between these two file systems: nothing has been copied.
        if (first
            && (errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP || errno == EINVAL)) {
            return copyThroughBuffer(in, out);
        }
        return false;
    }
}

} // namespace

bool copyFile(const QString &source, const QString &target)
{
    const int in = ::open(QFile::encodeName(source).constData(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return false;
    struct stat status = {};
    if (::fstat(in, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(in);
        return false;
    }
    const QByteArray targetName = QFile::encodeName(target);
    const int out = ::open(targetName.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (out < 0) {
        ::close(in);
        return false;
    }
    const bool copied = copyContent(in, out) && ::fchmod(out, status.st_mode & 0777) == 0;
    const bool closed = ::close(out) == 0;
    ::close(in);
    if (copied && closed)
        return true;
    ::unlink(targetName.constData());
    return false;
}
