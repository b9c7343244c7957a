#include "session/directorylisting.h"

#include <QFile>

#include <cerrno>
#include <dirent.h>

bool DirectoryListing::mayHold(const QString &filePath)
{
    const QByteArray path = QFile::encodeName(filePath);
    const qsizetype slash = path.lastIndexOf('/');
    if (slash < 0)
        return true;
    const QByteArray directory = path.left(slash);
    auto names = directories.constFind(directory);
    if (names == directories.cend())
        names = directories.insert(directory, read(directory));
    return !names->has_value() || (*names)->contains(path.mid(slash + 1));
}

// A directory that is there but cannot be read (searchable only) may hold anything.
DirectoryListing::Names DirectoryListing::read(const QByteArray &directory)
{
    DIR *stream = ::opendir(directory.isEmpty() ? "/" : directory.constData());
    if (!stream)
        return errno == ENOENT || errno == ENOTDIR ? Names(QSet<QByteArray>()) : std::nullopt;
    QSet<QByteArray> names;
    while (const dirent *entry = ::readdir(stream))
        names.insert(QByteArray(entry->d_name));
    ::closedir(stream);
    return names;
}
