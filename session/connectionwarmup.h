#pragma once

#include <QString>

#include <memory>

class CurlTransport;

// While an unattended run waits to start, the first mirror's server is reached, so that the
// session's first stream finds the connection made: on a far link a TCP and TLS handshake are
// two round trips. Only for an https mirror reached directly, and nothing is asked of the server;
// whatever fails here the session finds out for itself. The session holds it until its first
// stream has reached a mirror.
class ConnectionWarmup
{
public:
    ConnectionWarmup(const QString &mirrorsFile, const QString &updateDataFile);
    ~ConnectionWarmup();

private:
    std::unique_ptr<CurlTransport> transport;
};
