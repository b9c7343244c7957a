#include "tools/releasepatches.h"

#include "tools/binarydiff.h"
#include "tools/patchmaker.h"
#include "update/binarypatch.h"
#include "update/checksums.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QTemporaryFile>

namespace {

const QString patchesFolder = QStringLiteral("patches");

} // namespace

ReleasePatches::ReleasePatches(const QString &versionDirectory, const QString &clientType)
    : versionDirectory(versionDirectory)
    , clientType(clientType)
{}

QString ReleasePatches::directory() const
{
    return QDir(versionDirectory).filePath(patchesFolder + QLatin1Char('/') + clientType);
}

bool ReleasePatches::fail(const QString &problem)
{
    problems.append(problem);
    return false;
}

bool ReleasePatches::prepare()
{
    QDir folder(directory());
    if (folder.exists() && !folder.removeRecursively())
        return fail(QStringLiteral("cannot remove directory %1").arg(folder.path()));
    // The shared folder goes too once no client type has patches left in it.
    QDir(versionDirectory).rmdir(patchesFolder);
    return true;
}

bool ReleasePatches::add(const QString &installPath, const QString &previousFile,
                         const QString &newFile, quint64 mirrorSize)
{
    const QString baseMd5 = getFileMD5Ex(previousFile);
    const QString newMd5 = getFileMD5Ex(newFile);
    if (baseMd5.isEmpty() || newMd5.isEmpty())
        return fail(QStringLiteral("cannot read %1 or %2").arg(previousFile, newFile));
    // An unchanged file needs nothing, and a huge one is fetched whole.
    if (baseMd5 == newMd5 || QFileInfo(previousFile).size() > binaryPatchBaseLimit)
        return true;

    PatchRecord record;
    record.path = patchesFolder + QLatin1Char('/') + clientType + QLatin1Char('/')
                  + names.take(QString(installPath).replace(QLatin1Char('/'), QLatin1Char('.')),
                               QStringLiteral(".bsdiff"));
    const QString destination = QDir(versionDirectory).filePath(record.path);
    if (!QDir().mkpath(directory()))
        return fail(QStringLiteral("cannot create directory %1").arg(directory()));
    QFile base(previousFile);
    QFile target(newFile);
    QByteArray baseBytes;
    QByteArray targetBytes;
    QString error;
    if (!mapFile(base, &baseBytes, &error) || !mapFile(target, &targetBytes, &error))
        return fail(QStringLiteral("%1: no patch: %2").arg(installPath, error));
    const QByteArray patch = makePatch(baseBytes, targetBytes);
    if (patch.isEmpty())
        return fail(QStringLiteral("%1: no patch could be made").arg(installPath));
    record.size = quint64(patch.size());
    if (record.size * 100 > mirrorSize * maximumPercent)
        return true;
    QSaveFile output(destination);
    if (!output.open(QIODevice::WriteOnly) || output.write(patch) != patch.size()
        || !output.commit())
        return fail(QStringLiteral("cannot write %1: %2").arg(destination, output.errorString()));

    QTemporaryFile check(directory() + QStringLiteral("/.check-XXXXXX"));
    QString madeMd5;
    if (!check.open() || !applyBinaryPatch(check.fileName(), previousFile, destination, &madeMd5)
        || madeMd5 != newMd5) {
        QFile::remove(destination);
        return fail(QStringLiteral("%1: the patch does not make the new file").arg(installPath));
    }
    QString patchMd5;
    record.baseMd5 = baseMd5;
    record.installPath = installPath;
    if (!getFileDigests(destination, &patchMd5, &record.sha256))
        return fail(QStringLiteral("cannot read %1 back").arg(destination));
    QFile::setPermissions(destination, QFileDevice::ReadOwner | QFileDevice::WriteOwner
                                               | QFileDevice::ReadGroup | QFileDevice::ReadOther);
    written.append(record);
    return true;
}
