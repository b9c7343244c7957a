#include "tools/releasepublisher.h"

#include "tasks/pathsafety.h"
#include "tasks/productlist.h"
#include "tasks/taskspecification.h"
#include "tools/mirrornames.h"
#include "tasks/releasemanifest.h"
#include "tools/releasetree.h"
#include "update/checksums.h"
#include "update/packing.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>
#include <QSettings>
#include <QTemporaryFile>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace {

using ProductList::deleteGroup;

// Served files must be readable by whatever account the HTTP or FTP server runs as.
constexpr QFileDevice::Permissions servedPermissions =
        QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup
        | QFileDevice::ReadOther;

QString baseName(const QString &path)
{
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

QString parentPath(const QString &path)
{
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    return slash < 0 ? QString() : path.left(slash);
}

// Why an install path cannot stand in the list, or an empty text when it can.
QString inexpressible(const QString &installPath)
{
    if (!isSafeRelativePath(installPath))
        return QStringLiteral("holds a backslash or a control character");
    if (installPath.contains(ProductList::separator))
        return QStringLiteral("holds \"::\", which separates the fields of the list");
    if (QDir::cleanPath(installPath) == QLatin1String("update.ini"))
        return QStringLiteral("is update.ini, which holds each installation's own settings and "
                              "state");
    if (isUpdaterOwnPath(installPath))
        return QStringLiteral(
                "starts with \".update-\", which the updater keeps for its own files");
    return QString();
}

bool isInside(const QString &path, const QString &directory)
{
    return path == directory || path.startsWith(directory + QLatin1Char('/'));
}

QString resolvedPath(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() ? info.canonicalFilePath() : QDir::cleanPath(info.absoluteFilePath());
}

bool sameEntry(const FileSpecification &a, const FileSpecification &b)
{
    return a.directory == b.directory && a.name == b.name && a.md5 == b.md5 && a.size == b.size
           && a.unpackedMd5 == b.unpackedMd5 && a.unpackedSize == b.unpackedSize
           && a.unpackedName == b.unpackedName;
}

} // namespace

ReleasePublisher::ReleasePublisher(const QString &releaseDirectory, const QString &clientType,
                                   const QString &version, const QString &outputRoot)
    : releaseDirectory(releaseDirectory)
    , clientType(clientType)
    , version(version)
    , outputRoot(outputRoot)
{}

QString ReleasePublisher::listPath() const
{
    return QDir(outputRoot)
            .filePath(version + QLatin1Char('/') + ProductList::fileName(clientType));
}

QString ReleasePublisher::manifestPath() const
{
    return QDir(outputRoot)
            .filePath(version + QLatin1Char('/') + ReleaseManifest::fileName(clientType));
}

QString ReleasePublisher::signaturePath() const
{
    return QDir(outputRoot)
            .filePath(version + QLatin1Char('/') + ReleaseManifest::signatureName(clientType));
}

QList<FileSpecification> ReleasePublisher::entries() const
{
    QList<FileSpecification> result;
    for (const ReleaseFile &file : files)
        result.append(file.entry);
    return result;
}

int ReleasePublisher::packedCount() const
{
    return int(std::count_if(files.cbegin(), files.cend(),
                             [](const ReleaseFile &file) { return file.packed; }));
}

bool ReleasePublisher::publish()
{
    problems.clear();
    files.clear();
    deleted.clear();
    patchRecords.clear();
    cachedPatches = 0;
    if (!validateArguments())
        return false;
    const bool filesOk = collectFiles();
    if (!collectDeletedPaths() || !filesOk)
        return false;
    assignSections();
    const QStringList made = pathsToMake();
    if (writeFiles() && writePatches() && writeList())
        return true;
    for (const QString &path : made) {
        if (!QFile::remove(path))
            QDir(path).removeRecursively();
    }
    return false;
}

// What a publication makes that is not there yet, to be taken away again when it fails: a tree
// synced to the mirrors never carries files without their list. Files it replaces (--force)
// cannot be given back.
QStringList ReleasePublisher::pathsToMake() const
{
    // A link, even to nothing, is there already.
    const auto present = [](const QString &path) {
        const QFileInfo info(path);
        return info.exists() || info.isSymLink();
    };
    const QDir versionDirectory(QDir(outputRoot).filePath(version));
    if (!present(versionDirectory.path()))
        return {versionDirectory.path()};
    const QString patches = versionDirectory.filePath(QStringLiteral("patches"));
    QStringList paths{manifestPath(), signaturePath(), patches, QDir(patches).filePath(clientType)};
    for (const ReleaseFile &file : files)
        paths << versionDirectory.filePath(file.entry.directory);
    paths.removeDuplicates();
    paths.removeIf(present);
    return paths;
}

bool ReleasePublisher::fail(const QString &problem)
{
    problems.append(problem);
    return false;
}

bool ReleasePublisher::validateArguments()
{
    validateNames();
    validateLocations();
    if (!signingKeyPath.isEmpty())
        loadSigningKey();
    if (!problems.isEmpty())
        return false;

    const QString versionDirectory = resolvedPath(QDir(outputRoot).filePath(version));
    const QString releasePath = QFileInfo(releaseDirectory).canonicalFilePath();
    if (isInside(versionDirectory, releasePath) || isInside(releasePath, versionDirectory))
        return fail(QStringLiteral("the output %1 and the release directory %2 overlap")
                            .arg(versionDirectory, releasePath));
    if (QFileInfo::exists(listPath()) && !replaceExisting)
        return fail(QStringLiteral("%1 exists already; use --force to replace it").arg(listPath()));
    return true;
}

bool ReleasePublisher::loadSigningKey()
{
    QFile file(signingKeyPath);
    if (!file.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("secret key %1 cannot be read: %2")
                            .arg(signingKeyPath, file.errorString()));
    if (!parseMinisignSecretKey(file.read(4096), &signingKey))
        return fail(QStringLiteral("%1 is not an unencrypted minisign secret key (make one with "
                                   "--keygen or minisign -G -W)")
                            .arg(signingKeyPath));
    return true;
}

void ReleasePublisher::validateNames()
{
    static const QRegularExpression typePattern(QStringLiteral("^[A-Za-z0-9_-]+$"));
    static const QRegularExpression versionPattern(QStringLiteral("^(0|[1-9][0-9]*)$"));

    // The type names the list and, with a dot, every section, so it must not hold a dot
    // itself; "delete" and "General" have a meaning of their own in the list.
    if (!typePattern.match(clientType).hasMatch())
        fail(QStringLiteral("client type \"%1\" must consist of letters, digits, '_' and '-'")
                     .arg(clientType));
    else if (clientType.compare(deleteGroup, Qt::CaseInsensitive) == 0
             || clientType.compare(QLatin1String("general"), Qt::CaseInsensitive) == 0
             || clientType.compare(QLatin1String("patches"), Qt::CaseInsensitive) == 0)
        fail(QStringLiteral("client type \"%1\" is reserved in the product list").arg(clientType));

    bool fitsInt = false;
    version.toInt(&fitsInt, 10);
    if (!versionPattern.match(version).hasMatch() || !fitsInt)
        fail(QStringLiteral("version \"%1\" is not a decimal number (digits only, no leading "
                            "zeros)")
                     .arg(version));
}

void ReleasePublisher::validateLocations()
{
    const QFileInfo release(releaseDirectory);
    if (!release.exists())
        fail(QStringLiteral("release directory %1 does not exist").arg(releaseDirectory));
    else if (!release.isDir())
        fail(QStringLiteral("release directory %1 is not a directory").arg(releaseDirectory));
    else if (!release.isReadable() || !release.isExecutable())
        fail(QStringLiteral("release directory %1 cannot be read").arg(releaseDirectory));

    const QFileInfo root(outputRoot);
    if (root.exists() && !root.isDir())
        fail(QStringLiteral("output root %1 is not a directory").arg(outputRoot));
    const QFileInfo cache(patchCache);
    if (!patchCache.isEmpty() && cache.exists() && !cache.isDir())
        fail(QStringLiteral("patch cache %1 is not a directory").arg(patchCache));
}

bool ReleasePublisher::collectFiles()
{
    QStringList paths;
    bool ok = listReleaseFiles(releaseDirectory, dereference, &paths, &problems);
    for (const QString &path : std::as_const(paths)) {
        const QString reason = inexpressible(path);
        if (!reason.isEmpty()) {
            ok = fail(QStringLiteral("%1: cannot be published: its name %2")
                              .arg(QDir(releaseDirectory).filePath(path), reason));
            continue;
        }
        ReleaseFile file;
        file.installPath = path;
        files.append(file);
    }
    if (ok && files.isEmpty())
        return fail(QStringLiteral("release directory %1 holds no files").arg(releaseDirectory));
    return ok;
}

bool ReleasePublisher::collectPreviousPaths(PreviousRelease &previous, QStringList *paths)
{
    previous.entries.clear();
    const QFileInfo info(previous.path);
    if (info.isDir())
        return listReleaseFiles(previous.path, dereference, paths, &problems);
    if (!info.isFile() || !info.isReadable())
        return fail(QStringLiteral("previous release %1 is neither a directory nor a readable "
                                   "product list")
                            .arg(previous.path));
    // A product list published before: its install paths are what the previous release had.
    QSettings settings(previous.path, QSettings::IniFormat);
    TaskSpecification task;
    settings.childGroups();
    if (settings.status() != QSettings::NoError || !task.initializeByProductIni(&settings))
        return fail(QStringLiteral("previous product list %1 cannot be read").arg(previous.path));
    for (const FileSpecification &entry : std::as_const(task.files)) {
        paths->append(entry.installPath());
        previous.entries.insert(entry.installPath(), entry);
    }
    return true;
}

bool ReleasePublisher::collectDeletedPaths()
{
    // What any of the previous releases had and this one lacks.
    QStringList previous;
    bool read = true;
    for (PreviousRelease &release : previousReleases)
        read = collectPreviousPaths(release, &previous) && read;
    if (!read)
        return false;

    QSet<QString> seen;
    for (const ReleaseFile &file : std::as_const(files))
        seen.insert(file.installPath);
    bool ok = true;
    for (const QString &path : std::as_const(previous)) {
        if (seen.contains(path))
            continue;
        seen.insert(path);
        if (!isSafeRelativePath(path))
            ok = fail(QStringLiteral("%1: the previous release's file cannot be listed for "
                                     "deletion: its name holds a backslash or a control character")
                              .arg(path));
        else
            deleted.append(path);
    }
    std::sort(deleted.begin(), deleted.end());
    return ok;
}

void ReleasePublisher::assignSections()
{
    MirrorNames sections;
    sections.claim(clientType);
    // The list and the manifest lie beside the sections.
    for (const QString &name : ProductList::releaseFileNames(clientType))
        sections.claim(name);
    QHash<QString, QString> sectionOf;
    sectionOf.insert(QString(), clientType);
    for (ReleaseFile &file : files) {
        const QString directory = parentPath(file.installPath);
        auto it = sectionOf.find(directory);
        if (it == sectionOf.end()) {
            const QString wanted = clientType + QLatin1Char('.')
                                   + QString(directory).replace(QLatin1Char('/'), QLatin1Char('.'));
            it = sectionOf.insert(directory, sections.take(wanted));
        }
        file.entry.directory = it.value();
    }
}

bool ReleasePublisher::writeFiles()
{
    const QString versionDirectory = QDir(outputRoot).filePath(version);
    QHash<QString, MirrorNames> names;
    // A top-level file whose name needs no change keeps it on the mirror before any other file
    // can take it, so that it can be listed in the plain two-field form.
    for (ReleaseFile &file : files) {
        const QString &path = file.installPath;
        if (!path.contains(QLatin1Char('/')) && MirrorNames::sanitized(path) == path)
            file.ownsPlainName = names[file.entry.directory].claim(path);
    }
    for (ReleaseFile &file : files) {
        const QString sectionPath = QDir(versionDirectory).filePath(file.entry.directory);
        if (!QDir().mkpath(sectionPath))
            return fail(QStringLiteral("cannot create directory %1").arg(sectionPath));
        if (!writeFile(file, sectionPath, names[file.entry.directory]))
            return false;
    }
    return true;
}

bool ReleasePublisher::writeFile(ReleaseFile &file, const QString &sectionPath, MirrorNames &names)
{
    const QString source = QDir(releaseDirectory).filePath(file.installPath);
    bool readable = true;
    // The updater would unpack such a file on the way in, so it cannot travel raw in the
    // five-field form.
    const bool mustPack = !file.ownsPlainName && startsLikePackedData(source, &readable);
    if (!readable)
        return fail(QStringLiteral("cannot read %1").arg(source));

    QTemporaryFile scratch(QDir(sectionPath).filePath(QStringLiteral(".publish-XXXXXX")));
    file.packed = packing == Packing::All || mustPack;
    if ((file.packed || packing == Packing::Auto)
        && !packFile(source, &scratch, !file.packed, &file.packed))
        return false;

    const QString name = baseName(file.installPath);
    const bool plain = file.ownsPlainName && !file.packed;
    file.entry.name = plain ? name : names.take(name, file.packed ? packedSuffix() : QString());
    const QString destination = QDir(sectionPath).filePath(file.entry.name);
    QFile::remove(destination);
    if (file.packed) {
        if (!QFile::rename(scratch.fileName(), destination))
            return fail(QStringLiteral("cannot write %1").arg(destination));
        scratch.setAutoRemove(false);
    } else {
        QFile input(source);
        if (!input.copy(destination))
            return fail(QStringLiteral("cannot copy %1 to %2: %3")
                                .arg(source, destination, input.errorString()));
    }
    QFile::setPermissions(destination, servedPermissions);
    return describe(file, source, destination, plain);
}

QString ReleasePublisher::packedSuffix() const
{
    return packFormat == PackFormat::Zstd ? QStringLiteral(".zst") : QStringLiteral(".gz");
}

bool ReleasePublisher::packFile(const QString &source, QTemporaryFile *scratch, bool mayKeepRaw,
                                bool *packed)
{
    if (!scratch->open())
        return fail(QStringLiteral("cannot write %1: %2")
                            .arg(scratch->fileTemplate(), scratch->errorString()));
    scratch->close();
    errno = 0;
    if (!::packFile(source, scratch->fileName(), packFormat)) {
        const QString reason =
                errno != 0 ? QStringLiteral(": ") + qt_error_string(errno) : QString();
        return fail(QStringLiteral("cannot pack %1 into %2%3")
                            .arg(source, QFileInfo(scratch->fileName()).path(), reason));
    }
    if (!mayKeepRaw) {
        *packed = true;
        return true;
    }
    const qint64 rawSize = QFileInfo(source).size();
    const qint64 saving = rawSize - scratch->size();
    *packed = saving >= minimumSavingBytes && saving * 100 >= rawSize * minimumSavingPercent;
    return true;
}

// The list describes what the mirror serves, so the checksums are taken from there.
bool ReleasePublisher::describe(ReleaseFile &file, const QString &source,
                                const QString &destination, bool plain)
{
    FileSpecification &entry = file.entry;
    if (!getFileDigests(destination, &entry.md5, &file.sha256))
        return fail(QStringLiteral("cannot read %1 back").arg(destination));
    entry.size = quint64(QFileInfo(destination).size());
    if (!plain) {
        entry.unpackedMd5 = file.packed ? getFileMD5Ex(source) : entry.md5;
        entry.unpackedSize = file.packed ? quint64(QFileInfo(source).size()) : entry.size;
        entry.unpackedName = file.installPath;
    }
    if (entry.md5.isEmpty() || (!plain && entry.unpackedMd5.isEmpty()))
        return fail(QStringLiteral("cannot read %1 back").arg(destination));
    return true;
}

bool ReleasePublisher::writePatches()
{
    ReleasePatches patches(QDir(outputRoot).filePath(version), clientType);
    patches.setCacheDirectory(patchCache);
    // Without a previous release, this only clears what an earlier publication left.
    bool ok = patches.prepare();
    for (const ReleaseFile &file : std::as_const(files)) {
        QList<ReleasePatches::Base> bases;
        for (const PreviousRelease &previous : std::as_const(previousReleases)) {
            ReleasePatches::Base base;
            if (previousBase(previous, file.installPath, &base))
                bases.append(base);
        }
        patches.add(file.installPath, bases, QDir(releaseDirectory).filePath(file.installPath),
                    file.entry.installedMd5(), file.entry.size);
    }
    ok = ok && problems.isEmpty() && patches.make();
    problems += patches.errors();
    patchRecords = patches.records();
    cachedPatches = patches.cachedCount();
    return ok && problems.isEmpty();
}

// A previous product list stands for the mirror tree beside it, which holds its files.
bool ReleasePublisher::previousBase(const PreviousRelease &previous, const QString &installPath,
                                    ReleasePatches::Base *base)
{
    if (QFileInfo(previous.path).isDir()) {
        base->path = QDir(previous.path).filePath(installPath);
        if (!QFileInfo(base->path).isFile())
            return false;
        base->md5 = getFileMD5Ex(base->path);
        base->size = QFileInfo(base->path).size();
        return !base->md5.isEmpty() || fail(QStringLiteral("cannot read %1").arg(base->path));
    }
    const auto it = previous.entries.constFind(installPath);
    if (it == previous.entries.cend())
        return false;
    base->path =
            QFileInfo(previous.path).dir().filePath(it->directory + QLatin1Char('/') + it->name);
    base->md5 = it->installedMd5();
    base->size = qint64(it->installedSize());
    base->packed = it->md5 != it->unpackedMd5 && it->isPacked();
    return QFileInfo(base->path).isFile();
}

bool ReleasePublisher::writeList()
{
    const QString path = listPath();
    const QString temporary = QFileInfo(path).dir().filePath("." + clientType + ".ini.new");
    QFile::remove(temporary);
    {
        QSettings settings(temporary, QSettings::IniFormat);
        for (const ReleaseFile &file : std::as_const(files)) {
            const FileSpecification &entry = file.entry;
            settings.setValue(entry.directory + QLatin1Char('/') + entry.name,
                              ProductList::entryValue(entry));
        }
        ProductList::writeDeletedPaths(&settings, deleted);
        settings.sync();
        if (settings.status() != QSettings::NoError) {
            QFile::remove(temporary);
            return fail(QStringLiteral("cannot write %1").arg(temporary));
        }
    }
    if (!listReadsBack(temporary)) {
        QFile::remove(temporary);
        return false;
    }
    QFile::setPermissions(temporary, servedPermissions);
    if (!writeManifest(temporary)) {
        QFile::remove(temporary);
        return false;
    }
    // rename(2) replaces an earlier list in one step; QFile::rename would refuse to.
    if (std::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(path).constData())
        != 0) {
        QFile::remove(temporary);
        return fail(QStringLiteral("cannot rename %1 to %2").arg(temporary, path));
    }
    return true;
}

// Written before the list is put in place: an updater that trusts a key finds the manifest as
// soon as it finds the list.
bool ReleasePublisher::writeManifest(const QString &list)
{
    QString listMd5;
    QString listSha256;
    if (!getFileDigests(list, &listMd5, &listSha256))
        return fail(QStringLiteral("cannot read %1 back").arg(list));
    ReleaseManifest manifest;
    manifest.setValue(ReleaseManifest::releaseGroup, QStringLiteral("type"), clientType);
    manifest.setValue(ReleaseManifest::releaseGroup, QStringLiteral("version"), version);
    manifest.setValue(ReleaseManifest::releaseGroup, QStringLiteral("list"), listSha256);
    for (const ReleaseFile &file : std::as_const(files)) {
        manifest.setValue(ReleaseManifest::sha256Group,
                          file.entry.directory + QLatin1Char('/') + file.entry.name, file.sha256);
    }
    for (const PatchRecord &patch : std::as_const(patchRecords))
        manifest.addPatch(patch);
    const QByteArray text = manifest.toText();
    if (signingKeyPath.isEmpty()) {
        // A signature of an earlier publication would not match this manifest.
        QFile::remove(signaturePath());
        return writeServedFile(manifestPath(), text);
    }
    const QByteArray signature =
            signMinisign(text, ReleaseManifest::trustedComment(clientType, version), signingKey);
    if (signature.isEmpty())
        return fail(QStringLiteral("cannot sign %1").arg(manifestPath()));
    return writeServedFile(manifestPath(), text) && writeServedFile(signaturePath(), signature);
}

bool ReleasePublisher::writeServedFile(const QString &path, const QByteArray &content)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size() || !file.commit())
        return fail(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
    QFile::setPermissions(path, servedPermissions);
    return true;
}

// The updater reads the list with its own parser; whatever that parser does not read back
// exactly as meant must not be published. QSettings would answer from the cache it filled while
// writing, so the bytes are read back under a name it has never seen.
bool ReleasePublisher::listReadsBack(const QString &written)
{
    QFile source(written);
    QTemporaryFile copy(written + QStringLiteral(".XXXXXX"));
    if (!source.open(QIODevice::ReadOnly) || !copy.open() || copy.write(source.readAll()) < 0
        || !copy.flush())
        return fail(QStringLiteral("cannot read %1 back").arg(written));
    const bool entriesOk = entriesReadBack(copy.fileName());
    return deletionsReadBack(copy.fileName()) && entriesOk;
}

bool ReleasePublisher::entriesReadBack(const QString &path)
{
    TaskSpecification task;
    if (!task.initializeByProductIni(path) || task.getSize() != files.size()) {
        // Updaters would refuse such a list, for this reason.
        const QString conflict = task.installPathConflict();
        return fail(conflict.isEmpty() ? QStringLiteral("the list does not read back as written")
                                       : QStringLiteral("cannot be published: ") + conflict);
    }
    QHash<QString, FileSpecification> read;
    for (const FileSpecification &entry : std::as_const(task.files))
        read.insert(entry.directory + QLatin1Char('/') + entry.name, entry);
    bool ok = true;
    for (const ReleaseFile &file : std::as_const(files)) {
        const FileSpecification &entry = file.entry;
        if (!sameEntry(read.value(entry.directory + QLatin1Char('/') + entry.name), entry))
            ok = fail(QStringLiteral("%1: cannot be published: the list does not read its name "
                                     "back unchanged")
                              .arg(file.installPath));
    }
    return ok;
}

bool ReleasePublisher::deletionsReadBack(const QString &path)
{
    QSettings settings(path, QSettings::IniFormat);
    settings.beginGroup(deleteGroup);
    const QStringList keys = settings.allKeys();
    const QSet<QString> read(keys.cbegin(), keys.cend());
    bool ok = read.size() == deleted.size()
              || fail(QStringLiteral("the delete group does not read back as written"));
    for (const QString &installPath : std::as_const(deleted)) {
        if (!read.contains(installPath))
            ok = fail(QStringLiteral("%1: cannot be listed for deletion: the list does not read "
                                     "its name back unchanged")
                              .arg(installPath));
    }
    return ok;
}
