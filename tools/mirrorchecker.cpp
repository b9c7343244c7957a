#include "tools/mirrorchecker.h"

#include "tasks/pathsafety.h"
#include "tasks/taskspecification.h"
#include "update/checksums.h"
#include "update/packing.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryFile>

namespace {

bool isChecksumText(const QString &text)
{
    static const QRegularExpression pattern(QStringLiteral("^[0-9a-f]{32}$"));
    return pattern.match(text).hasMatch();
}

QString installPath(const FileSpecification &entry)
{
    return entry.unpackedName.isEmpty() ? entry.name : entry.unpackedName;
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
    if (settings.status() != QSettings::NoError) {
        report(QStringLiteral("is not a valid ini file"));
        return false;
    }
    for (const QString &key : topKeys)
        report(QStringLiteral("%1: outside any section, which the updater never reads").arg(key));

    TaskSpecification task;
    if (!task.initializeByProductIni(&settings)) {
        reportUnreadableList(settings);
        return false;
    }
    if (task.getSize() == 0)
        report(QStringLiteral("lists no files"));

    QHash<QString, QString> installedBy;
    for (const FileSpecification &entry : std::as_const(task.files)) {
        const QString where = entry.directory + QLatin1Char('/') + entry.name;
        const QString earlier = installedBy.value(installPath(entry));
        if (!earlier.isEmpty())
            report(entry,
                   QStringLiteral("installs at %1, as %2 does").arg(installPath(entry), earlier));
        installedBy.insert(installPath(entry), where);
        // A malformed checksum is reported once, not again as a mismatch.
        if (checkNames(entry))
            checkFile(entry);
        ++checked;
    }
    return found.isEmpty();
}

// The list's parser refuses the whole list; say which names made it, where that is the cause.
void MirrorChecker::reportUnreadableList(QSettings &settings)
{
    const qsizetype before = found.size();
    while (!settings.group().isEmpty())
        settings.endGroup();
    const QStringList groups = settings.childGroups();
    for (const QString &group : groups) {
        if (group != QLatin1String("delete") && !isSafeRelativePath(group))
            report(QStringLiteral("section \"%1\": unsafe directory name").arg(group));
        settings.beginGroup(group);
        const QStringList keys = settings.allKeys();
        for (const QString &key : keys) {
            if (!isSafeRelativePath(key))
                report(QStringLiteral("%1/%2: unsafe path").arg(group, key));
        }
        settings.endGroup();
    }
    if (found.size() == before)
        report(QStringLiteral("a value is not of the form md5::size or "
                              "md5::size::unpackedMd5::unpackedSize::unpackedName, or an "
                              "unpacked name is not a safe relative path"));
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
    if (!entry.unpackedName.isEmpty() && !isChecksumText(entry.unpackedMd5))
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
    const QString md5 = getFileMD5Ex(path);
    if (md5 != entry.md5) {
        report(entry, md5.isEmpty() ? QStringLiteral("cannot be read")
                                    : QStringLiteral("checksum %1, listed %2").arg(md5, entry.md5));
        return;
    }
    if (!entry.unpackedName.isEmpty())
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
