#pragma once

#include <QString>

// Deletes every file below path, hidden ones included, and removes its sub-directories, keeping
// path itself. Symbolic links are neither deleted nor followed, so a directory holding one stays.
// Whatever cannot be deleted stays, silently. An empty path names nothing.
void cleanupDirectory(const QString &path);
