#pragma once

#include <QString>
#include <QStringList>

// Files that are in use while the updater runs (its own executable and the toolkit's
// libraries): they are renamed aside instead of overwritten, and the copies go at the next start.

// The names of the files in use, compared case-sensitively with a bare file name.
const QStringList &getSpecialFileNames();

// "_old_": what a file in use is renamed to, prefixed to its name.
const QString &getSpecialFileRenamePrefix();

bool isSpecialFileName(const QString &name);

// Deletes the renamed-aside copies of the special files in dir; failures are ignored.
void removeOldFiles(const QString &dir);

// Gives executables and shared libraries mode 0755; other files stay as they are.
void makeSingleFileExecutable(const QString &path);
// Gives the file mode 0755, whatever its name; a link, and what it names, stay as they are.
void makeFileExecutable(const QString &path);

// Starts, detached, the program of the running program's file name that lies in dir, with dir
// as its working directory; false when it could not be started.
bool createSeparateUpdateProcess(const QString &dir, const QStringList &arguments);
