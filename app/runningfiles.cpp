#include "app/runningfiles.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <fcntl.h>
#include <sys/stat.h>

const QStringList &getSpecialFileNames()
{
    static const QStringList names = {
            QStringLiteral("libQtNetwork.so.4"),  QStringLiteral("libQtGui.so.4"),
            QStringLiteral("libQtCore.so.4"),     QStringLiteral("update"),
            QStringLiteral("libQt6Core.so.6"),    QStringLiteral("libQt6Gui.so.6"),
            QStringLiteral("libQt6Widgets.so.6"), QStringLiteral("libQt6Network.so.6"),
    };
    return names;
}

const QString &getSpecialFileRenamePrefix()
{
    static const QString prefix = QStringLiteral("_old_");
    return prefix;
}

bool isSpecialFileName(const QString &name)
{
    return getSpecialFileNames().contains(name);
}

void removeOldFiles(const QString &dir)
{
    for (const QString &name : getSpecialFileNames())
        QFile::remove(dir + QLatin1Char('/') + getSpecialFileRenamePrefix() + name);
}

void makeSingleFileExecutable(const QString &path)
{
    static const QStringList executableFiles = {QStringLiteral("update"),
                                                QStringLiteral("orvclient_linux_x86")};
    static const QStringList executableSuffixes = {QStringLiteral("so.4"), QStringLiteral("so"),
                                                   QStringLiteral("so.6")};
    const QFileInfo file(path);
    if (!executableFiles.contains(file.fileName())
        && !executableSuffixes.contains(file.completeSuffix())) {
        return;
    }
    makeFileExecutable(path);
}

void makeFileExecutable(const QString &path)
{
    // Never through a link: the file it names may lie anywhere, outside the installation too.
    ::fchmodat(AT_FDCWD, QFile::encodeName(path).constData(), 0755, AT_SYMLINK_NOFOLLOW);
}

bool createSeparateUpdateProcess(const QString &dir, const QStringList &arguments)
{
    const QString name = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    const QString quotedPath = QLatin1Char('"') + dir + QLatin1Char('/') + name + QLatin1Char('"');
    // The path is quoted as a command line would carry it, but QProcess takes the program
    // name literally and would look for a file whose name has quotes: they come off here.
    const QString program = quotedPath.mid(1, quotedPath.size() - 2);
    return QProcess::startDetached(program, arguments, dir);
}
