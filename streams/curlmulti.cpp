#include "streams/curlmulti.h"

#include <algorithm>
#include <climits>
#include <utility>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

std::shared_ptr<CurlMulti> CurlMulti::sharedFor(const QString &origin)
{
    static std::map<QString, std::weak_ptr<CurlMulti>> instances;
    for (auto it = instances.begin(); it != instances.end();)
        it = it->second.expired() ? instances.erase(it) : std::next(it);
    std::weak_ptr<CurlMulti> &instance = instances[origin];
    std::shared_ptr<CurlMulti> multi = instance.lock();
    if (!multi) {
        multi = create();
        instance = multi;
    }
    return multi;
}

std::shared_ptr<CurlMulti> CurlMulti::create()
{
    return std::shared_ptr<CurlMulti>(new CurlMulti);
}

namespace {

// As many requests as the session keeps in flight on one mirror, and nginx's own limit. libcurl's
// default, 100, held the rest back: on a 100 ms link small files then came a fifth slower.
constexpr long streamsPerConnection = 128;
// libcurl keeps four idle connections for each transfer under way, and closed those of streams
// between two files when few were: each came back with a TLS handshake and a read of the
// system's certificates. Room for every stream's own to a few servers.
constexpr long connectionsKept = 64;

} // namespace

CurlMulti::CurlMulti()
    : multi(curl_multi_init())
{
    curlTimer.setSingleShot(true);
    curlTimer.setTimerType(Qt::PreciseTimer);
    kickTimer.setSingleShot(true);
    kickTimer.setInterval(0);
    QObject::connect(&curlTimer, &QTimer::timeout, &curlTimer,
                     [this] { socketAction(CURL_SOCKET_TIMEOUT, 0); });
    QObject::connect(&kickTimer, &QTimer::timeout, &kickTimer, [this] { kick(); });

    ready = multi && curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, socketCallback) == CURLM_OK
            && curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, this) == CURLM_OK
            && curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, timerCallback) == CURLM_OK
            && curl_multi_setopt(multi, CURLMOPT_TIMERDATA, this) == CURLM_OK
            && curl_multi_setopt(multi, CURLMOPT_PIPELINING, long(CURLPIPE_MULTIPLEX)) == CURLM_OK
            && curl_multi_setopt(multi, CURLMOPT_MAX_CONCURRENT_STREAMS, streamsPerConnection)
                       == CURLM_OK
            && curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, connectionsKept) == CURLM_OK;
}

void CurlMulti::noteResponse(bool overHttp2)
{
    seenHttp1 = seenHttp1 || !overHttp2;
    seenHttp2 = seenHttp2 || overHttp2;
    applyConnectionLimit();
}

void CurlMulti::addOwnConnection()
{
    ++ownConnections;
    applyConnectionLimit();
}

void CurlMulti::removeOwnConnection()
{
    --ownConnections;
    applyConnectionLimit();
}

void CurlMulti::applyConnectionLimit()
{
    const long limit = seenHttp1 ? std::max(1, ownConnections) : seenHttp2 ? 1 : 0;
    if (multi && limit != connectionLimit
        && curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, limit) == CURLM_OK) {
        connectionLimit = limit;
    }
}

CurlMulti::~CurlMulti()
{
    // Closing an FTP connection, libcurl sends QUIT and waits inside its call, up to a minute,
    // for a reply that a hung server or a control connection that died while idle never sends.
    // There is nothing left to say to any server here.
    for (const curl_socket_t socket : openSockets)
        shutdown(socket, SHUT_RDWR);
    // Closing cached connections still calls watchSocket(), so the notifiers must outlive this.
    const CURLMcode cleaned = multi ? curl_multi_cleanup(multi) : CURLM_OK;
    if (cleaned != CURLM_OK)
        qWarning("Closing the transfers failed: %s", curl_multi_strerror(cleaned));
}

CURLMcode CurlMulti::add(CURL *easy, Client *client)
{
    // A socket this does not know of could not be shut down before the cleanup.
    const bool tracked =
            curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, openSocketCallback) == CURLE_OK
            && curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this) == CURLE_OK
            && curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, closeSocketCallback) == CURLE_OK
            && curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this) == CURLE_OK;
    if (!tracked)
        return CURLM_BAD_EASY_HANDLE;
    const CURLMcode added = curl_multi_add_handle(multi, easy);
    if (added == CURLM_OK)
        transfers[easy] = Transfer{client, ++lastGeneration};
    return added;
}

void CurlMulti::remove(CURL *easy)
{
    if (transfers.erase(easy) == 0)
        return;
    const CURLMcode removed = curl_multi_remove_handle(multi, easy);
    if (removed != CURLM_OK)
        qWarning("Stopping a transfer failed: %s", curl_multi_strerror(removed));
}

template<typename Call>
CURLMcode CurlMulti::timed(Call call)
{
    callClock.start();
    const CURLMcode result = call();
    callClock.invalidate();
    return result;
}

void CurlMulti::socketAction(curl_socket_t socket, int events)
{
    int running = 0;
    afterAction(timed([&] { return curl_multi_socket_action(multi, socket, events, &running); }),
                true);
}

// libcurl 7.88 can leave a transfer with nothing to wait on but its connect timeout: when a
// passive-mode reply arrives together with the request, the data connection is only opened on
// the transfer's next run. Running all transfers once more opens it and announces its socket.
void CurlMulti::kick()
{
    if (transfers.empty())
        return;
    int running = 0;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const CURLMcode result = timed([&] { return curl_multi_socket_all(multi, &running); });
#pragma GCC diagnostic pop
    afterAction(result, false);
}

void CurlMulti::afterAction(CURLMcode result, bool mayKick)
{
    // An owner may drop its transport, and with it the last hold on this, while it is told.
    const std::shared_ptr<CurlMulti> keep = shared_from_this();
    std::vector<std::pair<CURL *, quint64>> running;
    running.reserve(transfers.size());
    for (const auto &[easy, transfer] : transfers)
        running.emplace_back(easy, transfer.generation);

    if (result != CURLM_OK) {
        const QString text = QString::fromUtf8(curl_multi_strerror(result));
        for (const auto &[easy, generation] : running) {
            if (Client *client = clientOf(easy, generation)) {
                remove(easy);
                client->transferBroken(text);
            }
        }
        return;
    }
    // Drained before anyone is told: owners may remove their handles or add new ones.
    std::vector<std::pair<CURL *, CURLcode>> finished;
    int left = 0;
    while (CURLMsg *message = curl_multi_info_read(multi, &left)) {
        if (message->msg == CURLMSG_DONE)
            finished.emplace_back(message->easy_handle, message->data.result);
    }
    // Once per event at most, so that a transfer that only waits for its timer is not spun.
    if (finished.empty() && mayKick && !transfers.empty() && !isWatchingSockets())
        kickTimer.start();
    for (const auto &[easy, generation] : running) {
        if (Client *client = clientOf(easy, generation))
            client->transferProgress();
    }
    for (const auto &[easy, code] : finished) {
        for (const auto &[runningEasy, generation] : running) {
            if (runningEasy != easy)
                continue;
            if (Client *client = clientOf(easy, generation))
                client->transferDone(code);
        }
    }
}

bool CurlMulti::isWatchingSockets() const
{
    for (const auto &[socket, watch] : sockets) {
        if ((watch.read && watch.read->isEnabled()) || (watch.write && watch.write->isEnabled()))
            return true;
    }
    return false;
}

CurlMulti::Client *CurlMulti::clientOf(CURL *easy, quint64 generation) const
{
    const auto found = transfers.find(easy);
    return found != transfers.end() && found->second.generation == generation ? found->second.client
                                                                              : nullptr;
}

int CurlMulti::socketCallback(CURL *, curl_socket_t socket, int what, void *userp, void *)
{
    static_cast<CurlMulti *>(userp)->watchSocket(socket, what);
    return 0;
}

int CurlMulti::timerCallback(CURLM *, long timeoutMs, void *userp)
{
    static_cast<CurlMulti *>(userp)->scheduleCurlTimer(timeoutMs);
    return 0;
}

curl_socket_t CurlMulti::openSocketCallback(void *userp, curlsocktype, curl_sockaddr *address)
{
    const int socket =
            ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (socket < 0)
        return CURL_SOCKET_BAD;
    static_cast<CurlMulti *>(userp)->openSockets.insert(socket);
    return socket;
}

int CurlMulti::closeSocketCallback(void *userp, curl_socket_t socket)
{
    static_cast<CurlMulti *>(userp)->openSockets.erase(socket);
    return close(socket);
}

void CurlMulti::watchSocket(curl_socket_t socket, int what)
{
    // Deleted at once: libcurl may hand out the same descriptor again before control returns.
    if (what == CURL_POLL_REMOVE) {
        sockets.erase(socket);
        return;
    }
    SocketWatch &watch = sockets[socket];
    watchDirection(watch.read, socket, QSocketNotifier::Read, what & CURL_POLL_IN, CURL_CSELECT_IN);
    watchDirection(watch.write, socket, QSocketNotifier::Write, what & CURL_POLL_OUT,
                   CURL_CSELECT_OUT);
}

void CurlMulti::watchDirection(std::unique_ptr<QSocketNotifier> &notifier, curl_socket_t socket,
                               QSocketNotifier::Type type, bool wanted, int events)
{
    if (notifier) {
        notifier->setEnabled(wanted);
        return;
    }
    if (!wanted)
        return;
    notifier = std::make_unique<QSocketNotifier>(socket, type);
    QObject::connect(notifier.get(), &QSocketNotifier::activated, notifier.get(),
                     [this, socket, events] {
                         if (quickAcks && events == CURL_CSELECT_IN)
                             acknowledgeNow(socket);
                         socketAction(socket, events);
                     });
}

// Sends the acknowledgement of what has arrived now rather than up to 40 ms later, and keeps
// acknowledging at once for a while.
void CurlMulti::acknowledgeNow(curl_socket_t socket)
{
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

void CurlMulti::scheduleCurlTimer(long timeoutMs)
{
    if (timeoutMs < 0)
        curlTimer.stop();
    else
        curlTimer.start(int(qMin(timeoutMs, long(INT_MAX))));
}
