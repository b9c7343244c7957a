#include "tasks/pathsafety.h"

#include <QList>
#include <QStringView>

bool isSafeRelativePath(const QString &path)
{
    if (path.isEmpty() || path.startsWith(QLatin1Char('/')))
        return false;
    for (const QChar c : path) {
        if (c == QLatin1Char('\\') || c.category() == QChar::Other_Control)
            return false;
    }
    for (const QStringView segment : QStringView(path).split(QLatin1Char('/'))) {
        if (segment == QLatin1String(".."))
            return false;
    }
    return true;
}

bool isUpdaterOwnPath(const QString &path)
{
    // "./x" and "a//b" name what "x" and "a/b" do.
    for (const QStringView segment : QStringView(path).split(QLatin1Char('/'))) {
        if (!segment.isEmpty() && segment != QLatin1String("."))
            return segment.startsWith(QLatin1String(".update-"))
                   || segment == QLatin1String("update.ini");
    }
    return false;
}

QStringList pathAndParents(const QString &path)
{
    QStringList paths{path};
    for (qsizetype slash = path.lastIndexOf(QLatin1Char('/')); slash > 0;
         slash = path.lastIndexOf(QLatin1Char('/'), slash - 1))
        paths << path.left(slash);
    return paths;
}
