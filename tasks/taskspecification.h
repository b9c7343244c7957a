#pragma once

#include "tasks/filespecification.h"

#include <QString>
#include <QStringList>
#include <QVector>

class QSettings;

// The files of one update in list order, read from a product file list or a saved copy.
// Entries are only ever appended, so an index names the same file for the life of the list.
// A plain value: copies share the entries until one of them writes.
class TaskSpecification
{
public:
    QVector<FileSpecification> files;
    quint64 totalSize = 0;

    int getSize() const { return int(files.size()); }
    bool get(int index, FileSpecification *out) const;
    bool get(int index, QString *directory, QString *name, QString *md5, quint64 *size) const;
    unsigned int getFlags(int index) const { return files.at(index).flags; }
    void setFlags(int index, unsigned int flags) { files[index].flags = flags; }
    void resetFlags(unsigned int mask);

    // Sum of the sizes from first up to but not including last; a negative first counts as 0,
    // a negative last as the final index (which is then left out). Indexes past the end are
    // ignored.
    quint64 getTotalSize(int first, int last) const;

    // Appends the entries of a product file list. False on a value that is neither two nor five
    // "::"-separated fields or on a path that could leave its directory; the entries read before
    // it stay, and the settings are then left inside the section being read. False as well, with
    // every entry read, when installPathConflict() finds one.
    bool initializeByProductIni(const QString &path);
    bool initializeByProductIni(QSettings *settings);

    // Why the entries cannot all be fetched and installed: one names no file ("x/", "."), has a
    // name or a path longer than a file system takes or a size no file can have, two install or
    // are fetched at one path, one lies below another's file, or one is fetched into
    // workingFiles, the names that the download directory keeps for the updater. Empty when
    // each has a file of its own.
    QString installPathConflict(const QStringList &workingFiles = {}) const;

    // The saved form: an array "file" of one "::"-joined value per entry, marks included.
    void save(QSettings *settings) const;
    // Replaces the entries by the saved ones; totalSize is added to, not reset.
    bool load(QSettings *settings);
};
