#include "update/cleanup.h"

#include <QDir>
#include <QFileInfo>
#include <QFileInfoList>

void cleanupDirectory(const QString &path)
{
    // QDir would take an empty path for the current directory.
    if (path.isEmpty())
        return;
    QDir dir(path);
    // The links are filtered here rather than by QDir::NoSymLinks, which still lists a dangling
    // link when system files are asked for.
    const QFileInfoList entries = dir.entryInfoList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QFileInfo &entry : entries) {
        if (!entry.isSymLink() && !entry.isDir())
            dir.remove(entry.fileName());
    }
    for (const QFileInfo &entry : entries) {
        if (!entry.isSymLink() && entry.isDir()) {
            cleanupDirectory(entry.filePath());
            dir.rmdir(entry.fileName());
        }
    }
}
