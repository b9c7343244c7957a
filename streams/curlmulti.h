#pragma once

#include <QElapsedTimer>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>

#include <map>
#include <memory>
#include <set>

#include <curl/curl.h>

// A libcurl multi handle driven from Qt's event loop: socket notifiers, one timer, and the
// hand-over of finished transfers to their owners once libcurl has returned. Transfers of one
// multi handle share its connections; over HTTP/2 they are streams of one connection. Held by
// shared pointer by every transport using it; it outlives any call it is making.
class CurlMulti : public std::enable_shared_from_this<CurlMulti>
{
public:
    // One transfer's owner. Calls come from the event loop, never from inside libcurl.
    class Client
    {
    public:
        virtual void transferProgress() = 0;
        virtual void transferDone(CURLcode result) = 0;
        virtual void transferBroken(const QString &text) = 0;

    protected:
        ~Client() = default;
    };

    // The multi handle that the multiplexing transports to one server (scheme, host and port)
    // share, so that their requests ride one connection.
    static std::shared_ptr<CurlMulti> sharedFor(const QString &origin);
    // A multi handle for one transport alone.
    static std::shared_ptr<CurlMulti> create();
    ~CurlMulti();

    bool isReady() const { return ready; }
    // How many connections a server gets. While every response came over HTTP/2, one: its
    // transfers wait for it also when it goes away (a GOAWAY after so many requests, a reset),
    // where libcurl 7.88 would open a connection, with a TLS handshake, for every transfer then
    // in flight. libcurl's limit holds for every server the transfers reach, and once one of them
    // does not multiplex (where a redirect led) one connection would carry them all one after
    // the other: from then on, one for each transport that may have a connection of its own,
    // while the others' transfers wait for these.
    void noteResponse(bool overHttp2);
    void addOwnConnection();
    void removeOwnConnection();
    // The transfers go through a proxy. A proxy that relays without TCP_NODELAY holds the last
    // small segment of a response until the ones before are acknowledged, which Linux delays by
    // up to 40 ms: over a kept-alive HTTP/1.1 connection, a wait for every file. The replies are
    // then acknowledged as they are read.
    void acknowledgeAtOnce() { quickAcks = true; }
    CURLMcode add(CURL *easy, Client *client);
    void remove(CURL *easy);
    // How long the call into libcurl now running has taken; 0 outside one. libcurl 7.88 waits
    // inside a call, blocking the event loop, up to a minute for an FTP server's last reply.
    qint64 callMs() const { return callClock.isValid() ? callClock.elapsed() : 0; }

private:
    struct SocketWatch
    {
        std::unique_ptr<QSocketNotifier> read;
        std::unique_ptr<QSocketNotifier> write;
    };
    struct Transfer
    {
        Client *client = nullptr;
        quint64 generation = 0;
    };

    CurlMulti();

    void socketAction(curl_socket_t socket, int events);
    void kick();
    // Runs call, one call into libcurl, timed for callMs().
    template<typename Call>
    CURLMcode timed(Call call);
    void afterAction(CURLMcode result, bool mayKick);
    bool isWatchingSockets() const;
    // The transfer still runs as the one that generation started.
    Client *clientOf(CURL *easy, quint64 generation) const;

    static int socketCallback(CURL *, curl_socket_t socket, int what, void *userp, void *);
    static int timerCallback(CURLM *, long timeoutMs, void *userp);
    static curl_socket_t openSocketCallback(void *userp, curlsocktype, curl_sockaddr *address);
    static int closeSocketCallback(void *userp, curl_socket_t socket);
    void watchSocket(curl_socket_t socket, int what);
    void watchDirection(std::unique_ptr<QSocketNotifier> &notifier, curl_socket_t socket,
                        QSocketNotifier::Type type, bool wanted, int events);
    void scheduleCurlTimer(long timeoutMs);
    static void acknowledgeNow(curl_socket_t socket);
    void applyConnectionLimit();

    CURLM *multi = nullptr;
    bool ready = false;
    bool seenHttp1 = false;
    bool seenHttp2 = false;
    int ownConnections = 0;
    long connectionLimit = 0;
    bool quickAcks = false;
    std::map<curl_socket_t, SocketWatch> sockets;
    // Every connection's socket, watched or idle, until libcurl closes it.
    std::set<curl_socket_t> openSockets;
    std::map<CURL *, Transfer> transfers;
    quint64 lastGeneration = 0;
    QTimer curlTimer;
    QTimer kickTimer;
    QElapsedTimer callClock;
};
