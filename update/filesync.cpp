#include "update/filesync.h"

#include <QFile>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray name(const QString &path)
{
    return QFile::encodeName(path);
}

// Runs call on a descriptor of path opened with flags; errno survives the close.
template<typename Call>
bool withDescriptor(const QString &path, int flags, Call call)
{
    const int fd = ::open(name(path).constData(), flags | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    const bool done = call(fd);
    const int error = errno;
    ::close(fd);
    errno = error;
    return done;
}

bool writeAll(int fd, const QByteArray &data)
{
    for (qsizetype done = 0; done < data.size();) {
        const ssize_t n = ::write(fd, data.constData() + done, size_t(data.size() - done));
        if (n < 0 && errno != EINTR)
            return false;
        done += qMax<ssize_t>(n, 0);
    }
    return true;
}

} // namespace

bool startWriteback(const QString &path)
{
    return withDescriptor(path, O_RDONLY, [](int fd) {
        return ::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE) == 0;
    });
}

bool syncFileSystem(const QString &path)
{
    return withDescriptor(path, O_RDONLY, [](int fd) { return ::syncfs(fd) == 0; });
}

bool syncDirectory(const QString &path)
{
    return withDescriptor(path, O_RDONLY | O_DIRECTORY, [](int fd) { return ::fsync(fd) == 0; });
}

bool writeSyncedFile(const QString &path, const QByteArray &data)
{
    const bool written =
            withDescriptor(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW,
                           [&](int fd) { return writeAll(fd, data) && ::fsync(fd) == 0; });
    if (!written) {
        const int error = errno;
        ::unlink(name(path).constData());
        errno = error;
    }
    return written;
}

// Not truncated first: blocks freed and taken again cost a discard each on some disks.
bool overwriteFile(const QString &path, const QByteArray &data)
{
    return withDescriptor(path, O_WRONLY | O_NOFOLLOW, [&](int fd) {
        return writeAll(fd, data) && ::ftruncate(fd, data.size()) == 0;
    });
}

bool readRegularFile(const QString &path, qint64 limit, QByteArray *data)
{
    return withDescriptor(path, O_RDONLY | O_NONBLOCK, [&](int fd) {
        struct stat status = {};
        if (::fstat(fd, &status) != 0)
            return false;
        if (!S_ISREG(status.st_mode) || status.st_size > limit) {
            errno = S_ISDIR(status.st_mode) ? EISDIR : S_ISREG(status.st_mode) ? EFBIG : EINVAL;
            return false;
        }
        data->resize(qsizetype(status.st_size));
        qsizetype have = 0;
        while (have < data->size()) {
            const ssize_t n = ::read(fd, data->data() + have, size_t(data->size() - have));
            if (n == 0 || (n < 0 && errno != EINTR))
                return false;
            have += qMax<ssize_t>(n, 0);
        }
        return true;
    });
}

QString parentPath(const QString &path)
{
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    return slash < 0 ? QString() : path.left(slash);
}

PathStatus pathStatus(const QString &path)
{
    PathStatus result;
    const QByteArray encoded = name(path);
    struct stat status = {};
    if (::lstat(encoded.constData(), &status) != 0)
        return result;
    result.exists = true;
    result.link = S_ISLNK(status.st_mode);
    result.directory = S_ISDIR(status.st_mode);
    result.regular = S_ISREG(status.st_mode);
    if (result.link && ::stat(encoded.constData(), &status) != 0)
        return result;
    result.executable = S_ISREG(status.st_mode) && (status.st_mode & 0111) != 0;
    result.size = status.st_size;
    return result;
}

bool pathExists(const QString &path)
{
    struct stat status = {};
    return ::lstat(name(path).constData(), &status) == 0;
}

bool onSameMount(const QString &a, const QString &b)
{
    struct statx first = {};
    struct statx second = {};
    // The device comes whatever is asked for.
    if (::statx(AT_FDCWD, name(a).constData(), 0, STATX_MNT_ID, &first) != 0
        || ::statx(AT_FDCWD, name(b).constData(), 0, STATX_MNT_ID, &second) != 0
        || first.stx_dev_major != second.stx_dev_major
        || first.stx_dev_minor != second.stx_dev_minor) {
        return false;
    }
    // A kernel before 5.8 tells no mount; the device is all there is to go by.
    const bool mountsKnown = (first.stx_mask & second.stx_mask & STATX_MNT_ID) != 0;
    return !mountsKnown || first.stx_mnt_id == second.stx_mnt_id;
}

bool isSameFile(const QString &a, const QString &b)
{
    struct stat first = {};
    struct stat second = {};
    return ::lstat(name(a).constData(), &first) == 0 && ::lstat(name(b).constData(), &second) == 0
           && first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

bool linkFile(const QString &existing, const QString &link)
{
    return ::link(name(existing).constData(), name(link).constData()) == 0;
}

bool renameFile(const QString &from, const QString &to)
{
    return ::rename(name(from).constData(), name(to).constData()) == 0;
}

bool renameToNewPath(const QString &from, const QString &to)
{
    return ::renameat2(AT_FDCWD, name(from).constData(), AT_FDCWD, name(to).constData(),
                       RENAME_NOREPLACE)
           == 0;
}

bool removeFile(const QString &path)
{
    return ::unlink(name(path).constData()) == 0 || errno == ENOENT;
}

QString systemError()
{
    return qt_error_string(errno);
}
