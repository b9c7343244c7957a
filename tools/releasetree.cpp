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

QString classify(const QFileInfo &info)
{
    if (info.isSymLink())
        return QStringLiteral("is a symbolic link; put the file itself into the release");
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

void walk(const QDir &root, const QString &directory, QStringList *paths, QStringList *problems)
{
    const QDir dir(root.filePath(directory));
    const QStringList undecodable = undecodableNames(dir.path());
    for (const QString &name : undecodable)
        problems->append(dir.filePath(name) + QLatin1String(": name is not valid UTF-8"));
    const QFileInfoList entries = dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System
                                                    | QDir::NoDotAndDotDot);
    for (const QFileInfo &info : entries) {
        const QString relative = directory.isEmpty()
                                         ? info.fileName()
                                         : directory + QLatin1Char('/') + info.fileName();
        const QString problem = classify(info);
        if (!problem.isEmpty())
            problems->append(root.filePath(relative) + QLatin1String(": ") + problem);
        else if (info.isDir())
            walk(root, relative, paths, problems);
        else
            paths->append(relative);
    }
}

} // namespace

bool listReleaseFiles(const QString &root, QStringList *paths, QStringList *problems)
{
    const qsizetype problemsBefore = problems->size();
    walk(QDir(root), QString(), paths, problems);
    std::sort(paths->begin(), paths->end());
    return problems->size() == problemsBefore;
}
