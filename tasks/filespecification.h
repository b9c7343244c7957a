#pragma once

#include <QString>

#include <algorithm>
#include <limits>

// One file of a task list: where it lies on the mirror, its length and checksum, its unpacked
// form when the mirror holds it gzip-packed, and the marks the task state keeps for it.
struct FileSpecification
{
    // Mark bits of flags; their values are written out by the saved form of a task list.
    enum Flag : unsigned int { Ready = 1, Pending = 2, Downloaded = 4 };

    unsigned int flags = 0;
    QString directory;
    QString name;
    QString md5;
    quint64 size = 0;
    QString unpackedMd5;
    quint64 unpackedSize = 0;
    // Not empty exactly when the file is packed.
    QString unpackedName;

    bool isPacked() const { return !unpackedName.isEmpty(); }
    // Where the file lies in the installation, below its root.
    QString installPath() const { return isPacked() ? unpackedName : name; }
    // The checksum and the length of the file as installed.
    QString installedMd5() const { return isPacked() ? unpackedMd5 : md5; }
    quint64 installedSize() const { return isPacked() ? unpackedSize : size; }
    // How much unpacking may write: one byte over the declared size tells a longer file, and a
    // bomb writes no more than that.
    qint64 unpackLimit() const
    {
        return qint64(std::min<quint64>(unpackedSize, std::numeric_limits<qint64>::max() - 1)) + 1;
    }
    // Where a run keeps the file it made from a patch instead of downloading it: below its
    // working directory, by install path, apart from the downloads.
    QString patchedPath(const QString &workingDirectory) const
    {
        return workingDirectory + QLatin1Char('/') + patchedFolder() + QLatin1Char('/')
               + installPath();
    }
    static QString patchedFolder() { return QStringLiteral(".patched"); }
};
