#pragma once

#include <QString>

// The user's settings, group "update" of update.ini: read here and nowhere else.
struct UpdateSettings
{
    // Reads the file at path; a missing file or key leaves the defaults.
    static UpdateSettings read(const QString &path, int defaultStreams);

    // A proxy URL; empty for a direct connection.
    QString proxy;
    // Parallel streams, 1 to 16.
    int streams = 1;
    // The update server as "host" or "host:port"; empty for the built-in one.
    QString server;
    // Why a value was changed, for the log; empty when all were taken as written.
    QString warning;
};
