#include "ui/updatedatafile.h"

#include "app/apppaths.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>

#include <algorithm>

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

bool UpdateDataFile::installedVersion(std::optional<int> *version) const
{
    const QSettings settings(filePath, QSettings::IniFormat);
    const bool readable = settings.status() == QSettings::NoError;
    if (readable && !settings.contains(installedVersionKey))
        return false;
    // A list ("1,2") is no text at all.
    const QVariant value = settings.value(installedVersionKey);
    const QString text = value.typeId() == QMetaType::QString ? value.toString() : QString();
    bool converted = false;
    const int installed = text.toInt(&converted, 10);
    // toInt would take " 12", "+12" and "-1" as well.
    const bool decimal =
            readable && converted && std::all_of(text.cbegin(), text.cend(), [](QChar c) {
                return c >= QLatin1Char('0') && c <= QLatin1Char('9');
            });
    *version = decimal ? std::optional<int>(installed) : std::nullopt;
    return true;
}

void UpdateDataFile::recordInstalledVersion(int version)
{
    QSettings(filePath, QSettings::IniFormat).setValue(installedVersionKey, version);
}
