#include "session/patchplan.h"

#include "tasks/pathsafety.h"
#include "update/binarypatch.h"
#include "update/checksums.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <algorithm>

void PatchPlan::offer(const QList<PatchRecord> &records, const QList<FileSpecification> &files,
                      const QStringList &workingFiles)
{
    offered.clear();
    chosen.clear();
    QSet<QString> taken(workingFiles.cbegin(), workingFiles.cend());
    QSet<QString> directories;
    for (const FileSpecification &file : files) {
        const QStringList paths = pathAndParents(QDir::cleanPath(file.directory + "/" + file.name));
        taken.insert(paths.first());
        for (qsizetype i = 1; i < paths.size(); ++i)
            directories.insert(paths.at(i));
    }
    for (const PatchRecord &record : records) {
        const QStringList paths = pathAndParents(QDir::cleanPath(record.path));
        const bool inTheWay = directories.contains(paths.first())
                              || std::any_of(paths.cbegin(), paths.cend(),
                                             [&](const QString &p) { return taken.contains(p); });
        if (!inTheWay)
            offered.insert(record.installPath, record);
    }
}

void PatchPlan::choose(int index, const FileSpecification &file, const QString &installedMd5)
{
    if (installedMd5.isEmpty())
        return;
    for (auto it = offered.constFind(file.installPath());
         it != offered.cend() && it.key() == file.installPath(); ++it) {
        if (it->baseMd5 == installedMd5) {
            chosen.insert(index, *it);
            return;
        }
    }
}

const PatchRecord *PatchPlan::patchFor(int index) const
{
    const auto it = chosen.constFind(index);
    return it == chosen.cend() ? nullptr : &*it;
}

bool PatchPlan::make(const PatchRecord &patch, const FileSpecification &file,
                     const QString &installed, const QString &workingDirectory)
{
    const QString downloaded = QDir(workingDirectory).filePath(patch.path);
    const QString result = file.patchedPath(workingDirectory);
    QString md5;
    const bool made =
            QDir().mkpath(QFileInfo(result).path())
            && applyBinaryPatch(result, installed, downloaded, &md5, qint64(file.installedSize()))
            && md5 == file.installedMd5();
    QFile::remove(downloaded);
    if (!made)
        QFile::remove(result);
    return made;
}

bool PatchPlan::isMade(const FileSpecification &file, const QString &workingDirectory)
{
    const QString result = file.patchedPath(workingDirectory);
    return QFileInfo(result).isFile() && quint64(QFileInfo(result).size()) == file.installedSize()
           && getFileMD5Ex(result) == file.installedMd5();
}
