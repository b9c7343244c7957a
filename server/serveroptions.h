#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// What update-server's command line asks for.
struct ServerOptions
{
    QByteArray address = "0.0.0.0";
    quint16 port = 17384;
    // A fixed reply, or the mirror tree to take the version from.
    QByteArray reply;
    QString mirrorRoot;
    QString type = QStringLiteral("client_linux_amd64");
    QString keyFile;
    double rate = 5;
    double burst = 20;
    int rescanSeconds = 60;

    // An empty result when the arguments (the program's own name first) hold, else why not.
    QString parse(const QStringList &arguments);
    static QString usage();
};
