#include "update/directoryupdate.h"

#include "app/messageboxes.h"
#include "app/runningfiles.h"
#include "tasks/taskspecification.h"
#include "update/checksums.h"
#include "update/filecopy.h"
#include "update/gzip.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

DirectoryUpdate::DirectoryUpdate(QObject *parent)
    : QObject(parent)
{
}

bool DirectoryUpdate::updateContent(bool silent, const QString &sourceDir,
                                    const QString &productIni, const QString &targetDir)
{
    emit message(QStringLiteral("Update content"));
    TaskSpecification task;
    if (!task.initializeByProductIni(productIni)) {
        emit message(QStringLiteral("Unable to read %1.").arg(productIni));
        return false;
    }
    removeExtraFiles(productIni, targetDir);

    emit message(QStringLiteral("Copy/unpack files..."));
    const quint64 total = task.totalSize;
    quint64 done = 0;
    emit progress(done, total);

    const QDir source(sourceDir);
    const QDir target(targetDir);
    for (int i = 0; i < task.getSize();) {
        FileSpecification entry;
        task.get(i, &entry);
        const QString relativeSource = entry.directory + QLatin1Char('/') + entry.name;
        const QString sourcePath = source.absoluteFilePath(relativeSource);
        const QString targetPath = target.absoluteFilePath(
                entry.unpackedName.isEmpty() ? entry.name : entry.unpackedName);

        QMessageBox::StandardButton answer = QMessageBox::Ignore;
        if (QFileInfo::exists(sourcePath)) {
            answer = ensureFileRemoved(silent, targetPath);
            if (answer == QMessageBox::Ignore) {
                const QString error = installFile(entry, sourcePath, targetPath);
                answer = error.isEmpty() || silent ? QMessageBox::Ignore : askAbout(error);
            } else if (answer != QMessageBox::Abort && answer != QMessageBox::Retry) {
                answer = QMessageBox::Ignore;
            }
        }
        if (answer == QMessageBox::Abort)
            break;
        if (answer == QMessageBox::Retry)
            continue;
        done += entry.size;
        emit progress(done, total);
        ++i;
    }
    emit updateFinished();
    return true;
}

void DirectoryUpdate::removeExtraFiles(const QString &productIni, const QString &targetDir)
{
    QSettings list(productIni, QSettings::IniFormat);
    list.beginGroup(QStringLiteral("delete"));
    // allKeys, not childKeys: a path with "/" is stored as a nested key.
    const QStringList paths = list.allKeys();
    list.endGroup();
    if (paths.isEmpty())
        return;
    emit message(QStringLiteral("Remove extra files..."));
    const QDir target(targetDir);
    for (const QString &path : paths)
        QFile::remove(target.absoluteFilePath(path));
}

QString DirectoryUpdate::installFile(const FileSpecification &entry, const QString &source,
                                     const QString &target)
{
    QString error;
    const auto fail = [&](const QString &line) {
        emit message(line);
        error = line;
    };

    const QString directory = target.left(target.lastIndexOf(QLatin1Char('/')));
    if (!QDir().mkpath(directory))
        fail(QStringLiteral("FAILED creating subdirectory: %1").arg(directory));

    const QString relativeSource = entry.directory + QLatin1Char('/') + entry.name;
    if (!entry.unpackedName.isEmpty()) {
        // What a successful unpacking wrote is the file: its checksum needs no second reading.
        QString unpackedMd5;
        if (!unzipFileWithMD5(target, source, &unpackedMd5)) {
            fail(QStringLiteral("Can't unzip %1!").arg(relativeSource));
            unpackedMd5 = getFileMD5Ex(target);
        }
        if (unpackedMd5 != entry.unpackedMd5)
            fail(QStringLiteral("Wrong checksum %1!").arg(target));
        if (quint64(QFileInfo(target).size()) != entry.unpackedSize)
            fail(QStringLiteral("Wrong length %1!").arg(target));
    } else if (!copyFile(source, target)) {
        fail(QStringLiteral("Can't copy %1!").arg(relativeSource));
    }
    makeSingleFileExecutable(target);
    return error;
}

QMessageBox::StandardButton DirectoryUpdate::ensureFileRemoved(bool silent, const QString &path)
{
    QFileInfo info(path);
    if (!info.exists() && !info.isSymLink())
        return QMessageBox::Ignore;

    const int slash = path.lastIndexOf(QLatin1Char('/'));
    const QString directory = path.left(slash);
    const QString name = QDir(directory).relativeFilePath(path);
    QFile file(path);
    if (isSpecialFileName(name)) {
        const QString aside = directory + QLatin1Char('/') + getSpecialFileRenamePrefix() + name;
        if (file.rename(aside))
            return QMessageBox::Ignore;
        emit message(QStringLiteral("FAILED to rename file: %1 to %2").arg(path, aside));
    } else {
        if (file.remove())
            return QMessageBox::Ignore;
        emit message(QStringLiteral("FAILED to remove file: %1").arg(path));
    }
    if (silent)
        return QMessageBox::Ignore;
    return showMessageBox(nullptr, QMessageBox::Question, tr("Question"),
                          tr("Can't overwrite %1.\n%2\nDo you wish to stop update?")
                                  .arg(path, file.errorString()),
                          QMessageBox::Abort | QMessageBox::Retry | QMessageBox::Ignore,
                          QMessageBox::Retry);
}

QMessageBox::StandardButton DirectoryUpdate::askAbout(const QString &text)
{
    return showMessageBox(nullptr, QMessageBox::Question, tr("Question"), text,
                          QMessageBox::Abort | QMessageBox::Retry | QMessageBox::Ignore,
                          QMessageBox::Retry);
}

void DirectoryUpdate::emitUpdateFinished()
{
    emit updateFinished();
}
