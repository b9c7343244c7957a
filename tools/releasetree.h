#pragma once

#include <QString>
#include <QStringList>

// Lists the regular files below root, subdirectories included, as sorted relative paths with
// "/" between the parts. The list can only carry regular files, so a symbolic link, a special
// file, an unreadable entry or a name that is not valid UTF-8 (which Qt would not even list) is a
// problem, one line each in problems. Empty directories are not listed. True when there was no
// problem.
bool listReleaseFiles(const QString &root, QStringList *paths, QStringList *problems);
