#pragma once

#include <QString>
#include <QStringList>

// Lists the regular files below root, subdirectories included, as sorted relative paths with
// "/" between the parts. The list can only carry regular files, so a special file, an unreadable
// entry or a name that is not valid UTF-8 (which Qt would not even list) is a problem, one line
// each in problems, and so is a symbolic link unless dereference is set: then it stands for what
// it points to, under its own name. Empty directories are not listed. True when there was no
// problem.
bool listReleaseFiles(const QString &root, bool dereference, QStringList *paths,
                      QStringList *problems);
