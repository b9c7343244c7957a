#pragma once

#include "tasks/filespecification.h"
#include "update/minisign.h"
#include "tools/releasepatches.h"
#include "update/packing.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

class MirrorNames;
class QTemporaryFile;

// Publishes one release directory as a mirror tree: every file, gzip-packed or raw, under
// ROOT/VERSION/<section>/<name>, the release manifest ROOT/VERSION/TYPE.manifest (the SHA-256 of
// the list and of every file) with, when a key is given, its signature TYPE.manifest.minisig,
// and the product list ROOT/VERSION/TYPE.ini, written last and atomically, so that a mirror never
// serves a list whose files and manifest are not all in place.
//
// Layout: the sections of one client type are named TYPE (the release's top directory) and
// TYPE.<subdirectory with '/' as '.'>, so client types share a version directory without
// clashing. Section and file names on the mirror are made safe and unique by MirrorNames; an
// entry whose mirror name is not its install path carries the install path as its unpacked
// name (the five-field form), which the updater unpacks, passing raw files through unchanged,
// except those that begin with the gzip or zstd magic bytes, which are therefore always packed.
// Packed files are gzip unless zstd is asked for: updaters before zstd read only gzip.
class ReleasePublisher
{
public:
    enum class Packing { None, Auto, All };

    // With Auto a file is packed when that saves at least this share and this many bytes.
    static constexpr int minimumSavingPercent = 10;
    static constexpr qint64 minimumSavingBytes = 1024;

    ReleasePublisher(const QString &releaseDirectory, const QString &clientType,
                     const QString &version, const QString &outputRoot);

    void setPacking(Packing packing) { this->packing = packing; }
    void setPackFormat(PackFormat format) { packFormat = format; }
    // Publishes what a symbolic link points to under the link's name; without it a link is an
    // error, since the list has no form for one.
    void setDereference(bool dereference) { this->dereference = dereference; }
    // A previous release directory, or the product list it was published with, one call for
    // each earlier release that users may still run: the install paths they had and this
    // release lacks make up the list's "delete" group, and their files that this release
    // changes get binary patches (ReleasePatches) where those pay.
    void addPreviousRelease(const QString &path) { previousReleases.append({path, {}}); }
    // Where patches made once are kept for the next publication; none when empty.
    void setPatchCache(const QString &directory) { patchCache = directory; }
    // Allows replacing a list that was published before for this type and version.
    void setReplaceExisting(bool replace) { replaceExisting = replace; }
    // An unencrypted minisign secret key file to sign the manifest with.
    void setSigningKey(const QString &path) { signingKeyPath = path; }

    // Nothing is written unless every input is valid and every file name can be expressed.
    bool publish();

    // One line per problem found by the last publish().
    QStringList errors() const { return problems; }
    QString listPath() const;
    QString manifestPath() const;
    QString signaturePath() const;
    // What the last successful publish() listed, one entry per release file in path order.
    QList<FileSpecification> entries() const;
    QStringList deletedPaths() const { return deleted; }
    // The patches that the last successful publish() wrote, for the release manifest.
    QList<PatchRecord> patches() const { return patchRecords; }
    // How many of the patches the last publish() wrote came from the patch cache.
    int cachedPatchCount() const { return cachedPatches; }
    int packedCount() const;

private:
    struct ReleaseFile
    {
        QString installPath;
        bool ownsPlainName = false;
        bool packed = false;
        FileSpecification entry;
        QString sha256;
    };

    bool validateArguments();
    bool loadSigningKey();
    void validateNames();
    void validateLocations();
    bool collectFiles();
    bool collectDeletedPaths();
    bool writeFiles();
    bool writeFile(ReleaseFile &file, const QString &sectionPath, MirrorNames &names);
    QString packedSuffix() const;
    bool packFile(const QString &source, QTemporaryFile *scratch, bool mayKeepRaw, bool *packed);
    bool describe(ReleaseFile &file, const QString &source, const QString &destination, bool plain);
    struct PreviousRelease
    {
        QString path;
        // By install path, when the release is a product list.
        QHash<QString, FileSpecification> entries;
    };

    bool collectPreviousPaths(PreviousRelease &previous, QStringList *paths);
    bool writePatches();
    // The previous release's file at installPath as a patch base; false when it had none.
    bool previousBase(const PreviousRelease &previous, const QString &installPath,
                      ReleasePatches::Base *base);
    bool writeList();
    bool writeManifest(const QString &list);
    bool writeServedFile(const QString &path, const QByteArray &content);
    bool listReadsBack(const QString &written);
    bool entriesReadBack(const QString &path);
    bool deletionsReadBack(const QString &path);
    void assignSections();
    QStringList pathsToMake() const;
    bool fail(const QString &problem);

    QString releaseDirectory;
    QString clientType;
    QString version;
    QString outputRoot;
    QList<PreviousRelease> previousReleases;
    QString patchCache;
    Packing packing = Packing::Auto;
    PackFormat packFormat = PackFormat::Gzip;
    bool replaceExisting = false;
    QString signingKeyPath;
    MinisignSecretKey signingKey;
    bool dereference = false;

    QList<ReleaseFile> files;
    QStringList deleted;
    QList<PatchRecord> patchRecords;
    int cachedPatches = 0;
    QStringList problems;
};
