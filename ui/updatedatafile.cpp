#include "ui/updatedatafile.h"

#include "app/apppaths.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>

namespace {

const QString currentGroup = QStringLiteral("current");
const QString installedVersionKey = QStringLiteral("installed/version");

} // namespace

UpdateDataFile::UpdateDataFile(const QString &dir)
    : filePath(QDir(dir.isEmpty() ? getAppRootPath() : dir)
                       .absoluteFilePath(QStringLiteral("update.ini")))
{}

bool UpdateDataFile::getExistingUpdateData(QString *version, QString *type, QString *dir) const
{
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

void UpdateDataFile::modifyUpdateData(const QString &version, const QString &dir,
                                      const QString &type)
{
    QSettings settings(filePath, QSettings::IniFormat);
    settings.beginGroup(currentGroup);
    settings.setValue(QStringLiteral("version"), version);
    settings.setValue(QStringLiteral("dir"), dir);
    settings.setValue(QStringLiteral("type"), type);
}

void UpdateDataFile::cleanupCurrentUpdateDataIniFile()
{
    QSettings settings(filePath, QSettings::IniFormat);
    settings.remove(currentGroup);
}

int UpdateDataFile::installedVersion() const
{
    return QSettings(filePath, QSettings::IniFormat).value(installedVersionKey, 0).toInt();
}

void UpdateDataFile::recordInstalledVersion(int version)
{
    QSettings(filePath, QSettings::IniFormat).setValue(installedVersionKey, version);
}
