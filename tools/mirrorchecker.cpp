#include "tools/mirrorchecker.h"

#include "tasks/pathsafety.h"
#include "tasks/productlist.h"
#include "tasks/taskspecification.h"
#include "update/checksums.h"
#include "update/packing.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryFile>

namespace {

bool isChecksumText(const QString &text)
{
    static const QRegularExpression pattern(QStringLiteral("^[0-9a-f]{32}$"));
    return pattern.match(text).hasMatch();
}

} // namespace

MirrorChecker::MirrorChecker(const QString &listPath)
    : listPath(listPath)
{}

void MirrorChecker::report(const QString &problem)
{
    found.append(listPath + QLatin1String(": ") + problem);
}

void MirrorChecker::report(const FileSpecification &entry, const QString &problem)
{
    report(entry.directory + QLatin1Char('/') + entry.name + QLatin1String(": ") + problem);
}

bool MirrorChecker::check()
{
    found.clear();
    checked = 0;
    const QFileInfo info(listPath);
    if (!info.isFile() || !info.isReadable()) {
        report(QStringLiteral("cannot be read"));
        return false;
    }
    QSettings settings(listPath, QSettings::IniFormat);
    const QStringList topKeys = settings.childKeys();
    // Updaters read what Qt can of a malformed list and skip the rest without a word. Qt also
    // calls a list with a byte order mark malformed, and reads it whole.
    if (settings.status() != QSettings::NoError)
        reportSkippedLines();
    for (const QString &key : topKeys)
        report(QStringLiteral("%1: outside any section, which the updater never reads").arg(key));

    TaskSpecification task;
    const bool read = task.initializeByProductIni(&settings);
    // As an updater reads it, beside its own files.
    const QString conflict =
            task.installPathConflict(ProductList::workingFileNames(info.completeBaseName()));
    if (!read || !conflict.isEmpty()) {
        if (!conflict.isEmpty())
            report(conflict);
        else
            reportUnreadableList(settings);
        return false;
    }
    if (task.getSize() == 0)
        report(QStringLiteral("lists no files"));
    checkManifest();

    for (const FileSpecification &entry : std::as_const(task.files)) {
        // A malformed checksum is reported once, not again as a mismatch.
        if (checkNames(entry))
            checkFile(entry);
        ++checked;
    }
    checkManifestCovers(task.files);
    checkPatches(task.files);
    return found.isEmpty();
}

void MirrorChecker::checkManifest()
{
    const QFileInfo list(listPath);
    const QString type = list.completeBaseName();
    const QString path = list.dir().filePath(ReleaseManifest::fileName(type));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        report(QStringLiteral("no release manifest %1; publish the release again").arg(path));
        return;
    }
    const QByteArray text = file.readAll();
    haveManifest = manifest.parse(text);
    if (!haveManifest) {
        report(QStringLiteral("%1 is not a valid release manifest").arg(path));
        return;
    }
    const QString version = list.dir().dirName();
    if (manifest.type() != type || manifest.version() != version)
        report(QStringLiteral("%1 is the manifest of %2 %3, not of %4 %5")
                       .arg(path, manifest.type(), manifest.version(), type, version));
    QString md5;
    QString sha256;
    if (!getFileDigests(listPath, &md5, &sha256) || sha256 != manifest.listSha256())
        report(QStringLiteral("SHA-256 %1, the manifest lists %2")
                       .arg(sha256, manifest.listSha256()));
    if (!trustedKeys.isEmpty())
        checkSignature(text, list.dir().filePath(ReleaseManifest::signatureName(type)));
}

void MirrorChecker::checkSignature(const QByteArray &text, const QString &path)
{
    QFile file(path);
    MinisignSignature signature;
    if (!file.open(QIODevice::ReadOnly) || !parseMinisignSignature(file.read(4096), &signature)) {
        report(QStringLiteral("%1 is missing or not a minisign signature").arg(path));
        return;
    }
    const QByteArray expected =
            ReleaseManifest::trustedComment(manifest.type(), manifest.version());
    if (!verifyMinisign(text, signature, trustedKeys))
        report(QStringLiteral("%1 is not a valid signature by the key %2 of the manifest")
                       .arg(path, QString::fromLatin1(minisignKeyIdText(signature.keyId))));
    else if (signature.trustedComment != expected)
        report(QStringLiteral("%1: trusted comment \"%2\", expected \"%3\"")
                       .arg(path, QString::fromUtf8(signature.trustedComment),
                            QString::fromUtf8(expected)));
}

void MirrorChecker::checkManifestCovers(const QList<FileSpecification> &entries)
{
    if (!haveManifest)
        return;
    QStringList unlisted = manifest.keys(ReleaseManifest::sha256Group);
    for (const FileSpecification &entry : entries)
        unlisted.removeAll(entry.directory + QLatin1Char('/') + entry.name);
    for (const QString &path : std::as_const(unlisted))
        report(QStringLiteral("the manifest names %1, which the list does not").arg(path));
}

void MirrorChecker::checkPatches(const QList<FileSpecification> &entries)
{
    if (!haveManifest)
        return;
    const QStringList keys = manifest.keys(ReleaseManifest::patchesGroup);
    if (manifest.patches().size() != keys.size())
        report(QStringLiteral("the manifest holds malformed patch records"));
    QSet<QString> installPaths;
    for (const FileSpecification &entry : entries)
        installPaths.insert(entry.installPath());
    for (const PatchRecord &patch : manifest.patches()) {
        const QString path = QFileInfo(listPath).dir().filePath(patch.path);
        QString md5;
        QString sha256;
        if (!installPaths.contains(patch.installPath))
            report(QStringLiteral("patch %1 is for %2, which the list does not install")
                           .arg(patch.path, patch.installPath));
        else if (quint64(QFileInfo(path).size()) != patch.size
                 || !getFileDigests(path, &md5, &sha256) || sha256 != patch.sha256)
            report(QStringLiteral("patch %1 is missing or not as the manifest lists it")
                           .arg(patch.path));
    }
}

void MirrorChecker::reportSkippedLines()
{
    QFile file(listPath);
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (qsizetype i = 0; i < lines.size(); ++i) {
        QByteArray line = lines.at(i).trimmed();
        if (i == 0 && line.startsWith("\xef\xbb\xbf"))
            line = line.mid(3).trimmed();
        const bool section = line.startsWith('[') && line.endsWith(']');
        if (!line.isEmpty() && !line.startsWith(';') && !line.startsWith('#') && !section
            && !line.contains('=')) {
            report(QStringLiteral("line %1 is neither a [section] nor a key=value, and updaters "
                                  "skip it: %2")
                           .arg(i + 1)
                           .arg(QString::fromUtf8(line)));
        }
    }
}

// The list's parser refuses the whole list; say which names made it, where that is the cause.
void MirrorChecker::reportUnreadableList(QSettings &settings)
{
    const qsizetype before = found.size();
    while (!settings.group().isEmpty())
        settings.endGroup();
    const QStringList groups = settings.childGroups();
    for (const QString &group : groups) {
        if (group != ProductList::deleteGroup && !isSafeRelativePath(group))
            report(QStringLiteral("section \"%1\": unsafe directory name").arg(group));
        settings.beginGroup(group);
        const QStringList keys = settings.allKeys();
        for (const QString &key : keys) {
            if (!isSafeRelativePath(key) || isUpdaterOwnPath(key))
                report(QStringLiteral("%1/%2: unsafe path").arg(group, key));
        }
        settings.endGroup();
    }
    if (found.size() == before)
        report(QStringLiteral("a value is not of the form md5::size or "
                              "md5::size::unpackedMd5::unpackedSize::unpackedName, or an "
                              "unpacked name is not a safe relative path or is the updater's "
                              "own"));
}

bool MirrorChecker::checkNames(const FileSpecification &entry)
{
    const qsizetype before = found.size();
    // Nested groups and keys are not what the updater walks.
    if (entry.name.contains(QLatin1Char('/')))
        report(entry, QStringLiteral("a key holding '/' lies in a nested section"));
    if (!isChecksumText(entry.md5))
        report(entry, QStringLiteral("checksum \"%1\" is not 32 lower-case hexadecimal digits")
                              .arg(entry.md5));
    if (entry.isPacked() && !isChecksumText(entry.unpackedMd5))
        report(entry, QStringLiteral("unpacked checksum \"%1\" is not 32 lower-case hexadecimal "
                                     "digits")
                              .arg(entry.unpackedMd5));
    return found.size() == before;
}

void MirrorChecker::checkFile(const FileSpecification &entry)
{
    const QString path =
            QFileInfo(listPath).dir().filePath(entry.directory + QLatin1Char('/') + entry.name);
    const QFileInfo info(path);
    if (!info.exists()) {
        report(entry, QStringLiteral("missing"));
        return;
    }
    if (!info.isFile()) {
        report(entry, QStringLiteral("not a regular file"));
        return;
    }
    if (quint64(info.size()) != entry.size) {
        report(entry, QStringLiteral("length %1, listed %2").arg(info.size()).arg(entry.size));
        return;
    }
    QString md5;
    QString sha256;
    getFileDigests(path, &md5, &sha256);
    if (md5 != entry.md5) {
        report(entry, md5.isEmpty() ? QStringLiteral("cannot be read")
                                    : QStringLiteral("checksum %1, listed %2").arg(md5, entry.md5));
        return;
    }
    const QString listed = manifest.sha256(entry.directory + QLatin1Char('/') + entry.name);
    if (haveManifest && sha256 != listed)
        report(entry,
               listed.isEmpty()
                       ? QStringLiteral("not in the manifest")
                       : QStringLiteral("SHA-256 %1, the manifest lists %2").arg(sha256, listed));
    if (entry.isPacked())
        checkUnpacked(entry, path);
}

void MirrorChecker::checkUnpacked(const FileSpecification &entry, const QString &path)
{
    QTemporaryFile unpacked;
    if (!unpacked.open()) {
        report(entry,
               QStringLiteral("no temporary file to unpack into: %1").arg(unpacked.errorString()));
        return;
    }
    unpacked.close();
    QString md5;
    if (!unpackFileWithMD5(unpacked.fileName(), path, &md5)) {
        report(entry, QStringLiteral("does not unpack"));
        return;
    }
    const qint64 size = QFileInfo(unpacked.fileName()).size();
    if (quint64(size) != entry.unpackedSize)
        report(entry,
               QStringLiteral("unpacks to length %1, listed %2").arg(size).arg(entry.unpackedSize));
    else if (md5 != entry.unpackedMd5)
        report(entry,
               QStringLiteral("unpacks to checksum %1, listed %2").arg(md5, entry.unpackedMd5));
}
