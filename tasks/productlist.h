#pragma once

#include "tasks/filespecification.h"

#include <QString>
#include <QStringList>

class QSettings;

// The product file list's format, which updaters in the field read too: one group per mirror
// directory, one key per file whose value is "md5::size" or, for a packed file,
// "md5::size::unpackedMd5::unpackedSize::unpackedName"; and the group "delete" naming installed
// paths that the version drops. TaskSpecification reads entries; the publisher writes them.
namespace ProductList {

inline const QString separator = QStringLiteral("::");
inline const QString deleteGroup = QStringLiteral("delete");

// The list of type, in its version directory.
QString fileName(const QString &type);
// The files a release of type keeps beside its sections, in the order an updater fetches them:
// the release manifest, its signature and the list. Older updaters fetch the list alone.
QStringList releaseFileNames(const QString &type);
// The names at the top of an updater's working directory that no section may take: the release's
// own files beside the downloads, and the folder where patches and unpacking make files.
QStringList workingFileNames(const QString &type);
// The value of an entry's key: two fields, or five when the file is packed.
QString entryValue(const FileSpecification &entry);
// The installed paths named by the "delete" group of the list at path.
QStringList deletedPaths(const QString &path);
// Writes the "delete" group into settings.
void writeDeletedPaths(QSettings *settings, const QStringList &paths);

} // namespace ProductList
