#pragma once

#include <QByteArray>

// Asks the update server by one UDP datagram which versions are current and keeps the three
// texts of its answer. The query blocks its caller for at most the receive timeout.
class UpdateChecker
{
public:
    // True when the server answered.
    bool checkUpdate();
    bool readFromServer();

    const QByteArray &getClientVersion() const { return clientVersion; }
    const QByteArray &getServerVersion() const { return serverVersion; }
    const QByteArray &getAppsVersion() const { return appsVersion; }

private:
    void takeReply(const QByteArray &reply);

    QByteArray clientVersion;
    QByteArray serverVersion;
    QByteArray appsVersion;
};
