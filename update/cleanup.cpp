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

// The listing tells the kind of an entry on most file systems; a working directory of thousands
// of files is then emptied without asking about each.
bool isDirectory(int directory, const dirent &entry)
{
    if (entry.d_type != DT_UNKNOWN)
        return entry.d_type == DT_DIR;
    struct stat status = {};
    return ::fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0
           && S_ISDIR(status.st_mode);
}

// Works through descriptors only: a directory swapped for a link while it is emptied is reached
// through the descriptor it was opened as, never through the link.
void emptyDirectory(int directory)
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
        if (isDirectory(directory, *entry))
            subdirectories.push_back(name);
        else
            ::unlinkat(directory, name.c_str(), 0);
    }
    ::closedir(entries);
    for (const std::string &name : subdirectories) {
        const int subdirectory = ::openat(directory, name.c_str(), directoryFlags);
        if (subdirectory < 0)
            continue;
        emptyDirectory(subdirectory);
        ::close(subdirectory);
        ::unlinkat(directory, name.c_str(), AT_REMOVEDIR);
    }
}

} // namespace

void cleanupDirectory(const QString &path)
{
    // An empty path would be taken for the current directory.
    if (path.isEmpty())
        return;
    const int directory = ::open(QFile::encodeName(path).constData(), directoryFlags);
    if (directory < 0)
        return;
    emptyDirectory(directory);
    ::close(directory);
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
