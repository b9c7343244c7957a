#include "ui/workingdirectory.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int candidateCount = 1000;

} // namespace

bool isOwnWorkingDirectory(const QString &path, const QString &tempPath)
{
    static const QRegularExpression ownName(QStringLiteral("^orlivo_temp_[0-9]+$"));
    const QFileInfo info(path);
    if (QDir::cleanPath(info.absolutePath()) != QDir::cleanPath(QDir(tempPath).absolutePath())
        || !ownName.match(info.fileName()).hasMatch()) {
        return false;
    }
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return false;
    return S_ISDIR(status.st_mode) && status.st_uid == ::geteuid();
}

QString createWorkingDirectory(const QString &tempPath)
{
    QString prefix = tempPath;
    if (!prefix.endsWith(QLatin1Char('/')))
        prefix += QLatin1Char('/');
    // Missing parents are made as anybody would make them; only the candidate itself must be new.
    QDir().mkpath(prefix);
    prefix += QLatin1String("orlivo_temp_");
    for (int n = 0; n < candidateCount; ++n) {
        const QString candidate = prefix + QString::number(n);
        // An exclusive mkdir: it fails on any existing entry, so nobody can slip in a directory
        // or a link of their own under the name between a check and the creation.
        if (::mkdir(QFile::encodeName(candidate).constData(), 0700) == 0)
            return candidate;
    }
    return {};
}
