#pragma once

#include <QString>

// Deletes every entry below path, hidden ones included, and removes its sub-directories, keeping
// path itself. Symbolic links are deleted as links and never followed, at any depth; a path that
// is itself a link is left alone. Whatever cannot be deleted stays, silently. An empty path names
// nothing.
void cleanupDirectory(const QString &path);
// Deletes, the same way, every symbolic link, pipe, socket and device below path, and every
// regular file that has another name as well, keeping directories and the other regular files:
// what a working directory taken up again holds that is not a download of its own.
void removeAllButDownloadsBelow(const QString &path);
// Removes path and everything below it the same way; a link at path goes as the link.
void removeTree(const QString &path);
