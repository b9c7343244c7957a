#include "update/cleanup.h"

#include <QFile>

#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int directoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// What to remove: everything, or all but what a download is, a regular file of one name. Links,
// pipes, sockets and devices no download makes; a file with another name as well is installed
// already (a run stopped between its switch and its clean-up) or linked from elsewhere, and
// writing it again would write the other name too.
enum class Sweep { Everything, AllButDownloads };

bool isDownload(int directory, const char *name)
{
    struct stat status = {};
    return ::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode)
           && status.st_nlink == 1;
}

// The listing tells the kind of an entry on most file systems; a working directory of thousands
// of files is then swept without asking about each.
unsigned char entryType(int directory, const dirent &entry)
{
    if (entry.d_type != DT_UNKNOWN)
        return entry.d_type;
    struct stat status = {};
    if (::fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return DT_UNKNOWN;
    return IFTODT(status.st_mode);
}

// Works through descriptors only: a directory swapped for a link while it is swept is reached
// through the descriptor it was opened as, never through the link.
void sweepDirectory(int directory, Sweep what)
{
    const int listing = ::dup(directory);
    DIR *entries = listing < 0 ? nullptr : ::fdopendir(listing);
    if (!entries) {
        if (listing >= 0)
            ::close(listing);
        return;
    }
    std::vector<std::string> subdirectories;
    while (const dirent *entry = ::readdir(entries)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        const unsigned char type = entryType(directory, *entry);
        if (type == DT_DIR)
            subdirectories.push_back(name);
        else if (what == Sweep::Everything || type != DT_REG
                 || !isDownload(directory, entry->d_name))
            ::unlinkat(directory, name.c_str(), 0);
    }
    ::closedir(entries);
    for (const std::string &name : subdirectories) {
        const int subdirectory = ::openat(directory, name.c_str(), directoryFlags);
        if (subdirectory < 0)
            continue;
        sweepDirectory(subdirectory, what);
        ::close(subdirectory);
        if (what == Sweep::Everything)
            ::unlinkat(directory, name.c_str(), AT_REMOVEDIR);
    }
}

void sweep(const QString &path, Sweep what)
{
    // An empty path would be taken for the current directory.
    if (path.isEmpty())
        return;
    const int directory = ::open(QFile::encodeName(path).constData(), directoryFlags);
    if (directory < 0)
        return;
    sweepDirectory(directory, what);
    ::close(directory);
}

} // namespace

void cleanupDirectory(const QString &path)
{
    sweep(path, Sweep::Everything);
}

void removeAllButDownloadsBelow(const QString &path)
{
    sweep(path, Sweep::AllButDownloads);
}

void removeTree(const QString &path)
{
    if (path.isEmpty())
        return;
    const QByteArray name = QFile::encodeName(path);
    struct stat status = {};
    if (::lstat(name.constData(), &status) != 0)
        return;
    if (!S_ISDIR(status.st_mode)) {
        ::unlink(name.constData());
        return;
    }
    cleanupDirectory(path);
    ::rmdir(name.constData());
}
