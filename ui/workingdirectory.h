#pragma once

#include <QString>

// Where an update run keeps its downloads: a private directory of its own in the system's
// temporary directory, never one that somebody else could have prepared.

// True when path is a directory itself (not a link to one) and belongs to this process's user.
bool isOwnRealDirectory(const QString &path);

// Creates the first free tempPath + "/orlivo_temp_" + N, N from 0 to 999, with mode 0700. An
// existing entry of that name, a link included, is never taken. Empty when none could be made.
QString createWorkingDirectory(const QString &tempPath);
