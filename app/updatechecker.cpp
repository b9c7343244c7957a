#include "app/updatechecker.h"

#include "app/apppaths.h"

#include <QDir>
#include <QSettings>

#include <memory>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr quint16 versionPort = 17384;
constexpr int replyLimit = 31;
constexpr time_t receiveTimeoutSeconds = 5;

struct ServerAddress
{
    QByteArray host;
    quint16 port = versionPort;
};

// The built-in host, unless update.ini names another one as "host" or "host:port".
bool readServerAddress(ServerAddress *address)
{
    const QSettings settings(QDir(getAppRootPath()).absoluteFilePath(QStringLiteral("update.ini")),
                             QSettings::IniFormat);
    const QString configured = settings.value(QStringLiteral("update/server")).toString();
    if (configured.isEmpty()) {
        address->host = QByteArrayLiteral(ORLIVO_UPDATE_SERVER);
        return true;
    }
    const qsizetype colon = configured.lastIndexOf(QLatin1Char(':'));
    address->host = configured.left(colon).toUtf8();
    if (colon < 0)
        return true;
    bool ok = false;
    const uint port = configured.mid(colon + 1).toUInt(&ok, 10);
    address->port = quint16(port);
    return ok && port > 0 && port <= 65535 && !address->host.isEmpty();
}

// Closes the socket on every way out of the query.
class SocketGuard
{
public:
    explicit SocketGuard(int descriptor)
        : descriptor(descriptor)
    {}
    ~SocketGuard()
    {
        if (descriptor >= 0)
            close(descriptor);
    }
    SocketGuard(const SocketGuard &) = delete;
    SocketGuard &operator=(const SocketGuard &) = delete;

    const int descriptor;
};

bool resolveIPv4(const ServerAddress &server, sockaddr_in *target)
{
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = IPPROTO_UDP;
    addrinfo *found = nullptr;
    if (getaddrinfo(server.host.constData(), nullptr, &hints, &found) != 0 || !found)
        return false;
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> results(found, &freeaddrinfo);
    *target = *reinterpret_cast<const sockaddr_in *>(found->ai_addr);
    target->sin_port = htons(server.port);
    return true;
}

} // namespace

bool UpdateChecker::checkUpdate()
{
    return readFromServer();
}

bool UpdateChecker::readFromServer()
{
    ServerAddress server;
    if (!readServerAddress(&server))
        return false;

    const SocketGuard socket(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
    if (socket.descriptor < 0)
        return false;

    sockaddr_in target = {};
    if (!resolveIPv4(server, &target))
        return false;

    // A connected socket takes datagrams from the server's address and port only: a reply from
    // anyone else on the path cannot choose the version.
    if (::connect(socket.descriptor, reinterpret_cast<const sockaddr *>(&target), sizeof target)
        != 0)
        return false;
    static const char request[] = {'2', '\0'};
    const ssize_t sent = send(socket.descriptor, request, sizeof request, 0);
    if (sent <= 0)
        return false;

    // SO_RCVTIMEO takes a timeval; anything else would leave the wait unbounded.
    timeval timeout = {};
    timeout.tv_sec = receiveTimeoutSeconds;
    setsockopt(socket.descriptor, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    char buffer[replyLimit];
    const ssize_t received = recv(socket.descriptor, buffer, sizeof buffer, 0);
    if (received < 0)
        return false;
    takeReply(QByteArray(buffer, received));
    return true;
}

void UpdateChecker::takeReply(const QByteArray &reply)
{
    // The reply is a C string: it ends at the first zero byte, if any.
    QByteArray text = reply;
    if (const qsizetype end = text.indexOf('\0'); end >= 0)
        text.truncate(end);
    QByteArray *const fields[] = {&clientVersion, &serverVersion, &appsVersion};
    int taken = 0;
    for (const QByteArray &token : text.split(',')) {
        if (token.isEmpty())
            continue;
        *fields[taken] = token;
        if (++taken == 3)
            break;
    }
}
