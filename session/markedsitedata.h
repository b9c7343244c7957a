#pragma once

#include <QString>
#include <QUrl>

// One mirror of the mirror list. A mirror marked failed stays so for the life of the session.
struct MarkedSiteData
{
    bool failed = false;
    QString name;
    // The base URL as listed, with "/" ensured and the version directory appended.
    QString url;
    int retries = 5;
    int timeout = 15;

    // The URL as the log shows it: a password in it stays out of logs and journals.
    QString shownUrl() const { return QUrl(url).toDisplayString(); }
};
