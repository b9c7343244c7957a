#include "app/apppaths.h"

#include <QCoreApplication>

QString getAppRootPath()
{
    return QCoreApplication::applicationDirPath();
}

QString getClientBinaryName()
{
    return QStringLiteral("orvclient_linux_amd64");
}
