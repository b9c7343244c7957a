#pragma once

#include <QString>

// Deletes every entry below path, hidden ones included, and removes its sub-directories, keeping
// path itself. Symbolic links are deleted as links and never followed, at any depth; a path that
// is itself a link is left alone. Whatever cannot be deleted stays, silently. An empty path names
// nothing.
void cleanupDirectory(const QString &path);
// Deletes, the same way, every symbolic link, pipe, socket and device below path, keeping regular
// files and directories: what a working directory may hold that no download made.
void removeNonFilesBelow(const QString &path);
// Removes path and everything below it the same way; a link at path goes as the link.
void removeTree(const QString &path);
