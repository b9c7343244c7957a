#pragma once

#include <QString>

// Where an update run keeps its downloads: a private directory of its own in the system's
// temporary directory, never one that somebody else could have prepared.

// True only for a directory this program could have made: tempPath's "orlivo_temp_" + digits,
// a directory itself (not a link to one), belonging to this process's user. Anything else, a
// home directory or the installation named in a tampered record, is never emptied nor written.
bool isOwnWorkingDirectory(const QString &path, const QString &tempPath);

// Creates the first free tempPath + "/orlivo_temp_" + N, N from 0 to 999, with mode 0700. An
// existing entry of that name, a link included, is never taken. Empty when none could be made.
QString createWorkingDirectory(const QString &tempPath);
