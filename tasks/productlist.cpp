#include "tasks/productlist.h"

#include "tasks/releasemanifest.h"

#include <QSettings>

namespace ProductList {

QString fileName(const QString &type)
{
    return type + QStringLiteral(".ini");
}

QStringList releaseFileNames(const QString &type)
{
    return {ReleaseManifest::fileName(type), ReleaseManifest::signatureName(type), fileName(type)};
}

QStringList workingFileNames(const QString &type)
{
    return releaseFileNames(type) << FileSpecification::patchedFolder();
}

QString entryValue(const FileSpecification &entry)
{
    QString value = entry.md5 + separator + QString::number(entry.size);
    if (entry.isPacked()) {
        value += separator + entry.unpackedMd5 + separator + QString::number(entry.unpackedSize)
                 + separator + entry.unpackedName;
    }
    return value;
}

QStringList deletedPaths(const QString &path)
{
    QSettings list(path, QSettings::IniFormat);
    list.beginGroup(deleteGroup);
    // allKeys, not childKeys: a path with "/" is stored as a nested key.
    return list.allKeys();
}

void writeDeletedPaths(QSettings *settings, const QStringList &paths)
{
    settings->beginGroup(deleteGroup);
    for (const QString &path : paths)
        settings->setValue(path, QStringLiteral("1"));
    settings->endGroup();
}

} // namespace ProductList
