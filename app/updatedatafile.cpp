#include "app/updatedatafile.h"

#include "app/apppaths.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <algorithm>

#include <cstdio>

#include <unistd.h>

namespace {

const QString currentGroup = QStringLiteral("current");
const QString installedVersionKey = QStringLiteral("installed/version");
// Settings and two groups of a few keys: anything far larger is not ours to copy.
constexpr qint64 copyLimit = 1024 * 1024;

} // namespace

UpdateDataFile::UpdateDataFile(const QString &dir)
    : filePath(QDir(dir.isEmpty() ? getAppRootPath() : dir)
                       .absoluteFilePath(QStringLiteral("update.ini")))
{}

bool UpdateDataFile::readable() const
{
    return QFileInfo(filePath).isFile();
}

// QSettings writes through a link into the file it names, wherever that is, waits for ever on a
// pipe, and silently writes nothing into a file it may not write. A link goes, replaced by a copy
// of what it names; so does a file this user may not write (someone else's, in the installation
// this user owns, unless it cannot be read either: its settings would be lost) and anything else
// in the file's place that is neither a regular file nor a directory.
void UpdateDataFile::claimFile() const
{
    const QFileInfo info(filePath);
    if (!info.isSymLink()
        && ((info.isFile() && (info.isWritable() || !info.isReadable())) || info.isDir()
            || !info.exists()))
        return;
    QByteArray content;
    QFile named(filePath);
    if (info.isFile() && named.open(QIODevice::ReadOnly))
        content = named.read(copyLimit);
    const QString temporary = filePath + QStringLiteral(".tmp");
    QFile::remove(temporary);
    QFile copy(temporary);
    const bool copied = copy.open(QIODevice::WriteOnly | QIODevice::NewOnly)
                        && copy.write(content) == content.size() && copy.flush()
                        && ::fsync(copy.handle()) == 0;
    copy.close();
    if (!copied
        || std::rename(QFile::encodeName(temporary).constData(),
                       QFile::encodeName(filePath).constData())
                   != 0) {
        QFile::remove(temporary);
        QFile::remove(filePath);
    }
}

bool UpdateDataFile::getExistingUpdateData(QString *version, QString *type, QString *dir) const
{
    if (!readable())
        return false;
    QSettings settings(filePath, QSettings::IniFormat);
    settings.beginGroup(currentGroup);
    const QString storedVersion = settings.value(QStringLiteral("version")).toString();
    const QString storedDir = settings.value(QStringLiteral("dir")).toString();
    const QString storedType = settings.value(QStringLiteral("type")).toString();
    if (storedVersion.isEmpty() || storedDir.isEmpty() || !QFileInfo::exists(storedDir))
        return false;

    if (version)
        *version = storedVersion;
    if (type)
        *type = storedType;
    if (dir)
        *dir = storedDir;
    return true;
}

bool UpdateDataFile::modifyUpdateData(const QString &version, const QString &dir,
                                      const QString &type)
{
    claimFile();
    QSettings settings(filePath, QSettings::IniFormat);
    settings.beginGroup(currentGroup);
    settings.setValue(QStringLiteral("version"), version);
    settings.setValue(QStringLiteral("dir"), dir);
    settings.setValue(QStringLiteral("type"), type);
    return written(&settings);
}

bool UpdateDataFile::written(QSettings *settings)
{
    settings->sync();
    return settings->status() == QSettings::NoError;
}

void UpdateDataFile::cleanupCurrentUpdateDataIniFile()
{
    claimFile();
    QSettings settings(filePath, QSettings::IniFormat);
    settings.remove(currentGroup);
}

bool UpdateDataFile::installedVersion(std::optional<int> *version) const
{
    *version = std::nullopt;
    if (!QFileInfo::exists(filePath))
        return false;
    if (!readable())
        return true;
    const QSettings settings(filePath, QSettings::IniFormat);
    if (settings.status() != QSettings::NoError)
        return true;
    if (!settings.contains(installedVersionKey))
        return false;
    // A list ("1,2") is no text at all.
    const QVariant value = settings.value(installedVersionKey);
    const QString text = value.typeId() == QMetaType::QString ? value.toString() : QString();
    bool converted = false;
    const int installed = text.toInt(&converted, 10);
    // toInt would take " 12", "+12" and "-1" as well.
    const bool decimal = converted && std::all_of(text.cbegin(), text.cend(), [](QChar c) {
                             return c >= QLatin1Char('0') && c <= QLatin1Char('9');
                         });
    if (decimal)
        *version = installed;
    return true;
}

bool UpdateDataFile::recordInstalledVersion(int version)
{
    claimFile();
    QSettings settings(filePath, QSettings::IniFormat);
    settings.setValue(installedVersionKey, version);
    return written(&settings);
}
