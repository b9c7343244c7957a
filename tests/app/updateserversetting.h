#pragma once

#include "app/apppaths.h"

#include <QFile>
#include <QSettings>

// Points the version query at a test server through the installation's update.ini.
inline void setUpdateServer(const QString &server)
{
    QSettings(getAppRootPath() + QStringLiteral("/update.ini"), QSettings::IniFormat)
            .setValue(QStringLiteral("update/server"), server);
}

inline void removeUpdateData()
{
    QFile::remove(getAppRootPath() + QStringLiteral("/update.ini"));
}
