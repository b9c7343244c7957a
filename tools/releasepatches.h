#pragma once

#include "tasks/patchrecord.h"
#include "tools/mirrornames.h"

#include <QList>
#include <QString>
#include <QStringList>

// Writes the binary patches of one client type's release into VERSION/patches/TYPE/, a folder
// that the product list never names, so updaters that know no patches never see them. Every
// changed file may get one patch from each distinct earlier copy of it, named by the base's
// digest so that patches from different bases never share a path. A patch is kept only when it
// is clearly smaller than the file it saves fetching, and only after it has been applied once
// and made exactly the new file. Patches are made on every core, as many at once as memory
// allows, and, with a cache directory, a patch made once for the same pair of files is reused.
class ReleasePatches
{
public:
    // A patch may take at most this share of the file as the mirror holds it, packed or not:
    // below that, fetching and applying it is not worth a second, less common path.
    static constexpr int maximumPercent = 66;

    // An earlier copy of a file: at path, as installed, or packed as a mirror holds it.
    struct Base
    {
        QString path;
        QString md5;     // of the file as installed
        qint64 size = 0; // as installed
        bool packed = false;
    };

    ReleasePatches(const QString &versionDirectory, const QString &clientType);

    // Patches made before are looked up in, and new ones kept in, this directory, by the
    // SHA-256 of base and new file; it is made when missing.
    void setCacheDirectory(const QString &directory) { cacheDirectory = directory; }

    // Removes what an earlier publication of this type and version left in the folder.
    bool prepare();
    // Asks for a patch from each of bases to newFile, whose MD5 is newMd5, which installs at
    // installPath and which the mirror holds in mirrorSize bytes. Bases equal to the new file
    // or to one another, and bases too large to diff, are passed over.
    void add(const QString &installPath, const QList<Base> &bases, const QString &newFile,
             const QString &newMd5, quint64 mirrorSize);
    // Makes what add() asked for. True unless something failed; which patches were kept shows
    // in records().
    bool make();

    QList<PatchRecord> records() const { return written; }
    QStringList errors() const { return problems; }
    // Of the patches kept, how many came from the cache.
    int cachedCount() const { return cached; }

private:
    struct Job
    {
        QString installPath;
        Base base;
        QString newFile;
        QString newMd5;
        quint64 mirrorSize = 0;
        QString patchPath; // below the version directory
        qint64 memory = 0; // that making the patch takes, about
    };
    struct Outcome;

    Outcome run(const Job &job) const;
    bool keep(const Job &job, const QString &basePath, const QByteArray &patch,
              Outcome *outcome) const;
    QString directory() const;

    QString versionDirectory;
    QString clientType;
    QString cacheDirectory;
    MirrorNames names;
    QList<Job> jobs;
    QList<PatchRecord> written;
    QStringList problems;
    int cached = 0;
};
