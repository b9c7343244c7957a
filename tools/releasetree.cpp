#include "tools/releasetree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>

#include <dirent.h>

namespace {

// Qt leaves names that do not decode out of its listings, so such a file would quietly be
// missing from the published release; only the raw listing shows it.
QStringList undecodableNames(const QString &directory)
{
    QStringList names;
    DIR *dir = opendir(QFile::encodeName(directory).constData());
    if (!dir)
        return names;
    while (const dirent *entry = readdir(dir)) {
        const QByteArray raw(entry->d_name);
        if (QFile::encodeName(QFile::decodeName(raw)) != raw)
            names.append(QFile::decodeName(raw));
    }
    closedir(dir);
    return names;
}

struct Walk
{
    QDir root;
    bool dereference = false;
    // Canonical paths of the directories being walked, to stop at a link that leads back.
    QStringList ancestors;
    QStringList *paths = nullptr;
    QStringList *problems = nullptr;
};

QString classify(const QFileInfo &info, const Walk &walk)
{
    if (info.isSymLink() && !walk.dereference)
        return QStringLiteral("is a symbolic link; put the file itself into the release, or "
                              "publish with --dereference");
    if (info.isSymLink() && !info.exists())
        return QStringLiteral("is a symbolic link to nothing");
    if (info.isDir() && walk.ancestors.contains(info.canonicalFilePath()))
        return QStringLiteral("is a symbolic link into a directory that holds it");
    if (info.isDir()) {
        if (!info.isReadable() || !info.isExecutable())
            return QStringLiteral("directory cannot be read");
        return QString();
    }
    if (!info.isFile())
        return QStringLiteral("is not a regular file");
    if (!info.isReadable())
        return QStringLiteral("cannot be read");
    return QString();
}

void walkDirectory(Walk &walk, const QString &directory)
{
    const QDir dir(walk.root.filePath(directory));
    walk.ancestors.append(QFileInfo(dir.path()).canonicalFilePath());
    const QStringList undecodable = undecodableNames(dir.path());
    for (const QString &name : undecodable)
        walk.problems->append(dir.filePath(name) + QLatin1String(": name is not valid UTF-8"));
    const QFileInfoList entries = dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System
                                                    | QDir::NoDotAndDotDot);
    for (const QFileInfo &info : entries) {
        const QString relative = directory.isEmpty()
                                         ? info.fileName()
                                         : directory + QLatin1Char('/') + info.fileName();
        const QString problem = classify(info, walk);
        if (!problem.isEmpty())
            walk.problems->append(walk.root.filePath(relative) + QLatin1String(": ") + problem);
        else if (info.isDir())
            walkDirectory(walk, relative);
        else
            walk.paths->append(relative);
    }
    walk.ancestors.removeLast();
}

} // namespace

bool listReleaseFiles(const QString &root, bool dereference, QStringList *paths,
                      QStringList *problems)
{
    const qsizetype problemsBefore = problems->size();
    Walk walk{QDir(root), dereference, {}, paths, problems};
    walkDirectory(walk, QString());
    std::sort(paths->begin(), paths->end());
    return problems->size() == problemsBefore;
}
