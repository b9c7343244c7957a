#include "streams/curltransport.h"

#include "streams/curlmulti.h"

#include <QFileDevice>
#include <QIODevice>
#include <QPointer>
#include <QTimer>

#include <deque>
#include <optional>

#include <curl/curl.h>
#include <openssl/ssl.h>

namespace {

constexpr long connectTimeoutSeconds = 30;
// A connection made ahead keeps the first transports to its server waiting for it: one that takes
// longer is no help, and a server that does not answer must not cost much more than its timeout.
constexpr long aheadConnectTimeoutSeconds = 3;
constexpr long defaultStallTimeoutSeconds = 60;
constexpr long maximumRedirects = 5;
constexpr int defaultProxyPort = 3128;
constexpr char userAgent[] = "Orlivo Update";
// Large bodies come in fewer, larger blocks than libcurl's 16 KiB; small ones keep the default,
// which costs nothing to set up for each of thousands of files.
constexpr long largeReceiveBuffer = 262144;
// A call into libcurl that runs this long is blocking the event loop, and every other transfer.
constexpr qint64 blockingCallLimitMs = 1000;

// Ids are unique in the process, so an id kept from an earlier transport never matches a new one.
int lastCommandId = 0;
QString defaultCaFile;

bool isSupportedProxyScheme(const QString &scheme)
{
    return scheme == QLatin1String("http") || scheme == QLatin1String("https")
           || scheme == QLatin1String("socks5") || scheme == QLatin1String("socks5h");
}

QUrl serverRoot(const QUrl &server)
{
    return server.adjusted(QUrl::RemoveUserInfo | QUrl::RemoveQuery | QUrl::RemoveFragment);
}

// "bytes 100-199/200" gives 100; anything else, -1.
qint64 firstByteOfRange(const QByteArray &value)
{
    if (!value.startsWith("bytes "))
        return -1;
    const qsizetype dash = value.indexOf('-');
    bool ok = false;
    const qint64 first = value.mid(6, dash - 6).trimmed().toLongLong(&ok);
    return dash > 6 && ok && first >= 0 ? first : -1;
}

// 408 and 429 ask the client to come back later, like a server error does.
bool isFinalRefusal(long status)
{
    return status >= 400 && status < 500 && status != 408 && status != 429;
}

// Sets options of one easy handle; the first that fails is the result.
class EasyOptions
{
public:
    explicit EasyOptions(CURL *easy)
        : easy(easy)
    {}

    template<typename Value>
    void set(CURLoption option, Value value)
    {
        if (result == CURLE_OK)
            result = curl_easy_setopt(easy, option, value);
    }
    void setText(CURLoption option, const QString &value)
    {
        set(option, value.toUtf8().constData());
    }

    CURLcode result = CURLE_OK;

private:
    CURL *easy;
};

} // namespace

class CurlTransport::Private : public CurlMulti::Client
{
public:
    enum class Kind { Connect, Login, Get };

    struct Command
    {
        int id = 0;
        Kind kind = Kind::Connect;
        QUrl server;
        QString user;
        QString password;
        QString path;
        QIODevice *device = nullptr;
        qint64 expectedLength = -1;
        qint64 maxLength = -1;
        qint64 offset = 0;
        bool ownConnection = true;
        // A connect step that never sends its request: a connection made ahead.
        bool handshakeOnly = false;
    };

    explicit Private(CurlTransport *q);
    ~Private();

    int enqueue(Command command);
    int enqueueConnect(const QUrl &server, bool ownConnection, bool handshakeOnly);
    void scheduleStart();
    void startNext();
    void startFtpSession();
    void startTransfer(const QUrl &url, bool headOnly);
    CURLcode configure(const QUrl &url, bool headOnly);
    void setTransferOptions(EasyOptions &options, const QUrl &url, bool headOnly);
    void setConnectionOptions(EasyOptions &options);
    void setFtpOptions(EasyOptions &options);
    void setHttpOptions(EasyOptions &options, bool headOnly);
    void removeTransfer();
    void finish(Error kind, const QString &text = {});

    void transferProgress() override;
    void transferDone(CURLcode result) override;
    void transferBroken(const QString &text) override;
    void reportProgress();
    void endTransfer(CURLcode result);
    void endGet(CURLcode result);
    bool endedEarly() const;
    QUrl currentUrl() const;
    QString curlErrorText(CURLcode result) const;

    // Called by libcurl: they only look and record, never act through libcurl or emit.
    static size_t headerCallback(char *data, size_t size, size_t count, void *userp);
    static size_t writeCallback(char *data, size_t size, size_t count, void *userp);
    static int progressCallback(void *userp, curl_off_t, curl_off_t, curl_off_t, curl_off_t);
    static int connectedCallback(void *userp, char *, char *, int, int);
    bool negotiatedHttp2() const;
    size_t receiveHeader(const char *data, size_t length);
    size_t receiveBody(const char *data, size_t length);
    bool startBody();
    bool emptyDevice();

    bool isFtp() const { return server.scheme() == QLatin1String("ftp"); }
    // HTTP/2 is only ever negotiated over TLS; there the requests share one connection.
    bool mayMultiplex() const { return server.scheme() == QLatin1String("https"); }
    CurlMulti *transferMulti();
    void claimOwnConnection();

    CurlTransport *q;
    std::shared_ptr<CurlMulti> multi;
    CURL *easy = nullptr;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    QTimer startTimer;

    std::deque<Command> pending;
    std::optional<Command> current;
    bool transferRunning = false;

    QUrl server;
    QString user;
    QString password;
    QByteArray proxyAddress;
    QString proxyError;
    QString proxyUser;
    QString proxyPassword;
    QString caFile = defaultCaFile;
    long stallTimeout = defaultStallTimeoutSeconds;

    // An FTP log-in queued right behind the connect is done by the connect's own transfer;
    // its outcome waits here until the log-in command's turn.
    int foldedLoginId = -1;
    Error foldedError = NoError;
    QString foldedErrorText;

    // The running transfer, as seen by the callbacks.
    long status = 0;
    QByteArray reason;
    bool greeted = false;
    bool bodyStarted = false;
    // Where the body's first byte belongs in the file: the offset asked for, or 0 when the
    // server sends the whole file.
    qint64 base = 0;
    qint64 written = 0;
    // The first byte of a 206's Content-Range; -1 without one.
    qint64 rangeStart = -1;
    bool misplacedRange = false;
    // Given up inside a call that blocked: after an FTP transfer, waiting for the server's reply.
    bool blocked = false;
    bool tooLong = false;
    QString writeFailure;
    qint64 reportedDone = 0;
    qint64 reportedTotal = 0;
    bool multiplexed = false;
    // The connect step ended at the TLS handshake that chose HTTP/2: its request was never sent.
    bool reachedOverHttp2 = false;
    // This may have a connection of its own when the server does not multiplex.
    bool ownsConnection = false;

    Error error = NoError;
    QString errorText;
};

CurlTransport::Private::Private(CurlTransport *q)
    : q(q)
    , easy(curl_easy_init())
{
    startTimer.setSingleShot(true);
    startTimer.setInterval(0);
    QObject::connect(&startTimer, &QTimer::timeout, q, [this] { startNext(); });
}

CurlTransport::Private::~Private()
{
    removeTransfer();
    if (ownsConnection)
        multi->removeOwnConnection();
    if (easy)
        curl_easy_cleanup(easy);
}

// Chosen at the first transfer, when the server is known. The transports to one HTTPS server
// share a multi handle, whose connection limit then concerns that server alone. Plain HTTP and
// FTP keep one of their own, which leaves a stalled FTP data connection to be noticed per
// transport.
CurlMulti *CurlTransport::Private::transferMulti()
{
    if (!multi) {
        const QString origin = server.adjusted(QUrl::RemoveUserInfo | QUrl::RemovePath
                                               | QUrl::RemoveQuery | QUrl::RemoveFragment)
                                       .toString();
        multi = mayMultiplex() ? CurlMulti::sharedFor(origin) : CurlMulti::create();
    }
    return multi.get();
}

void CurlTransport::Private::claimOwnConnection()
{
    if (!ownsConnection) {
        ownsConnection = true;
        transferMulti()->addOwnConnection();
    }
}

int CurlTransport::Private::enqueue(Command command)
{
    command.id = ++lastCommandId;
    pending.push_back(command);
    scheduleStart();
    return command.id;
}

int CurlTransport::Private::enqueueConnect(const QUrl &server, bool ownConnection,
                                           bool handshakeOnly)
{
    Command command;
    command.kind = Kind::Connect;
    command.server = serverRoot(server);
    command.ownConnection = ownConnection;
    command.handshakeOnly = handshakeOnly;
    return enqueue(command);
}

void CurlTransport::Private::scheduleStart()
{
    if (!current && !pending.empty())
        startTimer.start();
}

void CurlTransport::Private::startNext()
{
    if (current || pending.empty())
        return;
    current = pending.front();
    pending.pop_front();

    switch (current->kind) {
    case Kind::Connect:
        server = current->server;
        if (current->handshakeOnly && (!mayMultiplex() || !proxyAddress.isEmpty())) {
            finish(TransferFailed, QStringLiteral("No connection is made ahead here"));
            break;
        }
        if (current->ownConnection)
            claimOwnConnection();
        if (isFtp())
            startFtpSession();
        else
            startTransfer(server, true);
        break;
    case Kind::Login:
        user = current->user;
        password = current->password;
        if (!isFtp()) {
            finish(NoError);
        } else if (current->id == foldedLoginId) {
            foldedLoginId = -1;
            finish(foldedError, foldedErrorText);
        } else {
            startFtpSession();
        }
        break;
    case Kind::Get:
        startTransfer(currentUrl(), false);
        break;
    }
}

// An FTP connection is opened together with its log-in: libcurl cannot do one without the other.
void CurlTransport::Private::startFtpSession()
{
    if (current->kind == Kind::Connect) {
        const bool loginFollows = !pending.empty() && pending.front().kind == Kind::Login;
        foldedLoginId = loginFollows ? pending.front().id : -1;
        user = loginFollows ? pending.front().user : QString();
        password = loginFollows ? pending.front().password : QString();
    }
    QUrl root = server;
    root.setPath(QStringLiteral("/"));
    startTransfer(root, true);
}

void CurlTransport::Private::startTransfer(const QUrl &url, bool headOnly)
{
    if (!easy || !transferMulti()->isReady()) {
        finish(TransferFailed, QStringLiteral("libcurl could not be initialised"));
        return;
    }
    if (!proxyError.isEmpty()) {
        finish(TransferFailed, proxyError);
        return;
    }
    status = 0;
    reason.clear();
    greeted = false;
    bodyStarted = false;
    base = 0;
    written = 0;
    rangeStart = -1;
    misplacedRange = false;
    blocked = false;
    tooLong = false;
    reachedOverHttp2 = false;
    writeFailure.clear();
    reportedDone = 0;
    reportedTotal = 0;
    const CURLcode setup = configure(url, headOnly);
    if (setup != CURLE_OK) {
        finish(TransferFailed, curlErrorText(setup));
        return;
    }
    if (!proxyAddress.isEmpty())
        multi->acknowledgeAtOnce();
    const CURLMcode added = multi->add(easy, this);
    if (added != CURLM_OK) {
        finish(TransferFailed, QString::fromUtf8(curl_multi_strerror(added)));
        return;
    }
    transferRunning = true;
}

CURLcode CurlTransport::Private::configure(const QUrl &url, bool headOnly)
{
    curl_easy_reset(easy);
    errorBuffer[0] = 0;
    EasyOptions options(easy);
    setTransferOptions(options, url, headOnly);
    setConnectionOptions(options);
    if (isFtp())
        setFtpOptions(options);
    else
        setHttpOptions(options, headOnly);
    return options.result;
}

void CurlTransport::Private::setTransferOptions(EasyOptions &options, const QUrl &url,
                                                bool headOnly)
{
    options.set(CURLOPT_URL, url.toEncoded().constData());
    options.set(CURLOPT_NOSIGNAL, 1L);
    options.set(CURLOPT_ERRORBUFFER, errorBuffer);
    options.set(CURLOPT_PROTOCOLS_STR, "http,https,ftp");
    options.set(CURLOPT_NOBODY, headOnly ? 1L : 0L);
    options.set(CURLOPT_CONNECTTIMEOUT, current && current->handshakeOnly
                                                ? aheadConnectTimeoutSeconds
                                                : connectTimeoutSeconds);
    options.set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    options.set(CURLOPT_LOW_SPEED_TIME, stallTimeout);
    options.set(CURLOPT_HEADERFUNCTION, headerCallback);
    options.set(CURLOPT_HEADERDATA, this);
    options.set(CURLOPT_WRITEFUNCTION, writeCallback);
    options.set(CURLOPT_WRITEDATA, this);
    // Not over HTTP/2: libcurl 7.88 fails a stream whose buffer differs from its connection's.
    if (!mayMultiplex() && current && current->expectedLength > largeReceiveBuffer)
        options.set(CURLOPT_BUFFERSIZE, largeReceiveBuffer);
    if (headOnly || !current || current->offset <= 0)
        return;
    // HTTP gets a plain range: with RESUME_FROM libcurl fails on a server that sends the whole
    // file instead, which is as good as a fresh start.
    if (isFtp())
        options.set(CURLOPT_RESUME_FROM_LARGE, curl_off_t(current->offset));
    else
        options.set(CURLOPT_RANGE, QByteArray::number(current->offset).append('-').constData());
}

void CurlTransport::Private::setConnectionOptions(EasyOptions &options)
{
    options.set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    // An empty proxy and an empty exception list keep the environment's proxy settings out.
    options.set(CURLOPT_PROXY, proxyAddress.constData());
    options.set(CURLOPT_NOPROXY, "");
    if (!proxyAddress.isEmpty() && !proxyUser.isEmpty()) {
        options.setText(CURLOPT_PROXYUSERNAME, proxyUser);
        options.setText(CURLOPT_PROXYPASSWORD, proxyPassword);
    }
    if (!caFile.isEmpty()) {
        options.setText(CURLOPT_CAINFO, caFile);
        options.setText(CURLOPT_PROXY_CAINFO, caFile);
    }
    if (!user.isEmpty()) {
        options.setText(CURLOPT_USERNAME, user);
        options.setText(CURLOPT_PASSWORD, password);
    }
}

void CurlTransport::Private::setFtpOptions(EasyOptions &options)
{
    // libcurl 7.88 waits for an FTP server's reply to a finished transfer inside the call, up
    // to a minute, while nothing else moves; it asks for progress every second meanwhile.
    options.set(CURLOPT_NOPROGRESS, 0L);
    options.set(CURLOPT_XFERINFOFUNCTION, progressCallback);
    options.set(CURLOPT_XFERINFODATA, this);
    // An HTTP proxy forwards plain HTTP itself; FTP must be tunnelled through it.
    if (proxyAddress.startsWith("http"))
        options.set(CURLOPT_HTTPPROXYTUNNEL, 1L);
    // The directory is only changed when it differs from the previous file's.
    options.set(CURLOPT_FTP_FILEMETHOD, long(CURLFTPMETHOD_SINGLECWD));
    options.set(CURLOPT_SERVER_RESPONSE_TIMEOUT, stallTimeout);
}

void CurlTransport::Private::setHttpOptions(EasyOptions &options, bool headOnly)
{
    options.set(CURLOPT_USERAGENT, userAgent);
    // HTTP/2 only where TLS negotiates it: libcurl 7.88 breaks multiplexed cleartext HTTP/2.
    options.set(CURLOPT_HTTP_VERSION,
                long(mayMultiplex() ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
    // Requests that start together wait for the first connection rather than open their own.
    if (mayMultiplex())
        options.set(CURLOPT_PIPEWAIT, 1L);
    if (!user.isEmpty())
        options.set(CURLOPT_HTTPAUTH, long(CURLAUTH_BASIC));
    // The connect step only has to reach this server, wherever it would send us.
    if (headOnly) {
        if (mayMultiplex() && proxyAddress.isEmpty()) {
            options.set(CURLOPT_PREREQFUNCTION, connectedCallback);
            options.set(CURLOPT_PREREQDATA, this);
        }
        return;
    }
    options.set(CURLOPT_FOLLOWLOCATION, 1L);
    options.set(CURLOPT_MAXREDIRS, maximumRedirects);
    // What came over TLS never leaves it on a server's word.
    options.set(CURLOPT_REDIR_PROTOCOLS_STR, mayMultiplex() ? "https" : "http,https");
    // What is held to no length (the list, the manifest) is text, always fetched whole: a mirror
    // may compress it on the way. maxLength bounds the bytes it unpacks to. A file held to a
    // length is asked for as stored, since ranges count stored bytes.
    if (current && current->expectedLength < 0)
        options.set(CURLOPT_ACCEPT_ENCODING, "");
}

void CurlTransport::Private::removeTransfer()
{
    if (!transferRunning)
        return;
    transferRunning = false;
    multi->remove(easy);
}

void CurlTransport::Private::finish(Error kind, const QString &text)
{
    const int id = current->id;
    current.reset();
    error = kind;
    errorText = text;
    if (kind != NoError)
        pending.clear();
    const QPointer<CurlTransport> alive(q);
    emit q->commandFinished(id, kind != NoError);
    if (alive)
        scheduleStart();
}

void CurlTransport::Private::transferProgress()
{
    reportProgress();
}

void CurlTransport::Private::transferDone(CURLcode result)
{
    const QPointer<CurlTransport> alive(q);
    reportProgress();
    if (alive && transferRunning)
        endTransfer(result);
}

void CurlTransport::Private::transferBroken(const QString &text)
{
    transferRunning = false;
    finish(TransferFailed, text);
}

void CurlTransport::Private::reportProgress()
{
    if (current->kind != Kind::Get || (!isFtp() && (status < 200 || status >= 300)))
        return;
    // Until the body shows where it starts, the bytes already there are all there is.
    if (!bodyStarted && current->offset > 0)
        return;
    curl_off_t length = -1;
    if (curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) != CURLE_OK
        || length < 0) {
        length = 0;
    }
    if (length > 0 && bodyStarted)
        length += base;
    if (base + written == reportedDone && length == reportedTotal)
        return;
    reportedDone = base + written;
    reportedTotal = length;
    emit q->dataTransferProgress(reportedDone, reportedTotal);
}

void CurlTransport::Private::endTransfer(CURLcode result)
{
    long version = 0;
    if (reachedOverHttp2) {
        multiplexed = true;
        multi->noteResponse(true);
    } else if (curl_easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version) == CURLE_OK
               && version != 0) {
        multiplexed = version == CURL_HTTP_VERSION_2_0;
        multi->noteResponse(multiplexed);
    }
    removeTransfer();
    switch (current->kind) {
    case Kind::Connect:
        if (isFtp() && greeted) {
            // The server answered: whatever went wrong after is the log-in's failure.
            foldedError = result == CURLE_OK ? NoError : TransferFailed;
            foldedErrorText = result == CURLE_OK ? QString() : curlErrorText(result);
            finish(NoError);
        } else if (isFtp() || (result != CURLE_OK && !reachedOverHttp2)) {
            finish(TransferFailed, curlErrorText(result));
        } else {
            finish(NoError);
        }
        break;
    case Kind::Login:
        if (result == CURLE_OK)
            finish(NoError);
        else
            finish(TransferFailed, curlErrorText(result));
        break;
    case Kind::Get:
        endGet(result);
        break;
    }
}

void CurlTransport::Private::endGet(CURLcode result)
{
    if (result == CURLE_FTP_COULDNT_USE_REST && current->offset > 0 && emptyDevice()) {
        // A server that cannot resume still has the whole file to give.
        current->offset = 0;
        startTransfer(currentUrl(), false);
    } else if (misplacedRange) {
        // Bytes from elsewhere in the file would land in the wrong place; the whole file is
        // still to be had.
        if (!emptyDevice()) {
            finish(WriteFailed, current->device->errorString());
            return;
        }
        current->offset = 0;
        startTransfer(currentUrl(), false);
    } else if (blocked) {
        finish(TransferFailed, QStringLiteral("No reply from the server after the transfer of %1")
                                       .arg(currentUrl().toDisplayString()));
    } else if (!writeFailure.isEmpty()) {
        finish(WriteFailed, writeFailure);
    } else if (tooLong) {
        finish(BodyTooLong, QStringLiteral("More than %1 bytes received").arg(current->maxLength));
    } else if (!isFtp() && status >= 300 && (status >= 400 || result == CURLE_OK)) {
        const QString reply = QString::number(status)
                              + (reason.isEmpty() ? QString() : ' ' + QString::fromUtf8(reason));
        finish(isFinalRefusal(status) ? RequestRefused : TransferFailed,
               QStringLiteral("Error transferring %1 - server replied: %2")
                       .arg(currentUrl().toDisplayString(), reply));
    } else if (result == CURLE_TOO_MANY_REDIRECTS || result == CURLE_UNSUPPORTED_PROTOCOL) {
        // Only a redirect can lead to another scheme; it will lead there again.
        finish(RequestRefused, QStringLiteral("Error transferring %1 - redirect not followed: %2")
                                       .arg(currentUrl().toDisplayString(), curlErrorText(result)));
    } else if (result != CURLE_OK) {
        // An FTP server's 550: the file is not there, and asking again will not make it appear.
        finish(result == CURLE_REMOTE_FILE_NOT_FOUND ? RequestRefused : TransferFailed,
               curlErrorText(result));
    } else if (endedEarly()) {
        finish(TransferFailed, QStringLiteral("Transfer closed with %1 bytes remaining to read")
                                       .arg(current->expectedLength - base - written));
    } else {
        finish(NoError);
    }
}

QUrl CurlTransport::Private::currentUrl() const
{
    QUrl url = server;
    url.setPath(current->path);
    return url;
}

// A body whose length nobody announced ends when the connection closes, also when it breaks.
bool CurlTransport::Private::endedEarly() const
{
    curl_off_t announced = -1;
    return current->expectedLength >= 0 && base + written < current->expectedLength
           && curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced) == CURLE_OK
           && announced < 0;
}

QString CurlTransport::Private::curlErrorText(CURLcode result) const
{
    if (errorBuffer[0])
        return QString::fromUtf8(errorBuffer);
    return QString::fromUtf8(curl_easy_strerror(result));
}

size_t CurlTransport::Private::headerCallback(char *data, size_t size, size_t count, void *userp)
{
    return static_cast<Private *>(userp)->receiveHeader(data, size * count);
}

size_t CurlTransport::Private::writeCallback(char *data, size_t size, size_t count, void *userp)
{
    return static_cast<Private *>(userp)->receiveBody(data, size * count);
}

int CurlTransport::Private::progressCallback(void *userp, curl_off_t, curl_off_t, curl_off_t,
                                             curl_off_t)
{
    auto *self = static_cast<Private *>(userp);
    self->blocked = self->multi->callMs() > blockingCallLimitMs;
    return self->blocked ? 1 : 0;
}

// The connect step's request costs a round trip before the first file can be asked for. Once a
// TLS handshake has chosen HTTP/2 the server is reached, and the connection outlives a request
// given up before it is sent. Over HTTP/1.1 it would not. Through a proxy's tunnel libcurl 7.88
// takes it for dead when the server's first frames lie unread, and opens another. There the
// request goes.
int CurlTransport::Private::connectedCallback(void *userp, char *, char *, int, int)
{
    auto *self = static_cast<Private *>(userp);
    self->reachedOverHttp2 = self->negotiatedHttp2();
    return self->reachedOverHttp2 || self->current->handshakeOnly ? CURL_PREREQFUNC_ABORT
                                                                  : CURL_PREREQFUNC_OK;
}

bool CurlTransport::Private::negotiatedHttp2() const
{
    curl_tlssessioninfo *session = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_TLS_SSL_PTR, &session) != CURLE_OK || !session
        || session->backend != CURLSSLBACKEND_OPENSSL || !session->internals) {
        return false;
    }
    const unsigned char *protocol = nullptr;
    unsigned int length = 0;
    SSL_get0_alpn_selected(static_cast<const SSL *>(session->internals), &protocol, &length);
    return length == 2 && protocol[0] == 'h' && protocol[1] == '2';
}

size_t CurlTransport::Private::receiveHeader(const char *data, size_t length)
{
    const QByteArray line = QByteArray(data, qsizetype(length)).trimmed();
    if (isFtp()) {
        // libcurl passes the server's replies here; a positive one means an FTP server is there.
        if (line.startsWith('2'))
            greeted = true;
    } else if (line.startsWith("HTTP/")) {
        // Every response of a redirect chain has its status line; the last one counts.
        const qsizetype codeStart = line.indexOf(' ') + 1;
        const qsizetype reasonStart = line.indexOf(' ', codeStart);
        status = line.mid(codeStart, reasonStart < 0 ? -1 : reasonStart - codeStart).toLong();
        reason = reasonStart < 0 ? QByteArray() : line.mid(reasonStart + 1);
        rangeStart = -1;
    } else if (line.toLower().startsWith("content-range:")) {
        rangeStart = firstByteOfRange(line.mid(line.indexOf(':') + 1).trimmed());
    }
    return length;
}

size_t CurlTransport::Private::receiveBody(const char *data, size_t length)
{
    if (current->kind != Kind::Get)
        return length;
    if (!isFtp() && status >= 300) {
        // An error page never becomes the file; a redirect's body is simply skipped.
        return status >= 400 ? 0 : length;
    }
    if (!bodyStarted && !startBody())
        return 0;
    const qint64 size = qint64(length);
    // A file system that fills up takes part of a block first; only the next write tells why.
    for (qint64 done = 0; done < size;) {
        const qint64 n = current->device->write(data + done, size - done);
        if (n <= 0) {
            writeFailure = current->device->errorString();
            return 0;
        }
        done += n;
    }
    written += size;
    if (current->maxLength >= 0 && base + written > current->maxLength) {
        tooLong = true;
        return 0;
    }
    return length;
}

// An FTP server that takes the REST sends the rest; an HTTP server says so with 206, and its
// Content-Range says from which byte.
bool CurlTransport::Private::startBody()
{
    bodyStarted = true;
    if (current->offset <= 0 || isFtp() || (status == 206 && rangeStart == current->offset)) {
        base = current->offset;
        return true;
    }
    if (status == 206 && rangeStart != 0) {
        // Nor is progress reported from it: its bytes are not the file's.
        misplacedRange = true;
        bodyStarted = false;
        return false;
    }
    if (emptyDevice())
        return true;
    writeFailure = current->device->errorString();
    return false;
}

bool CurlTransport::Private::emptyDevice()
{
    auto *file = qobject_cast<QFileDevice *>(current->device);
    return current->device->seek(0) && (!file || file->resize(0));
}

CurlTransport::CurlTransport(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(this))
{}

CurlTransport::~CurlTransport() = default;

void CurlTransport::setProxy(const QUrl &proxy)
{
    d->proxyAddress.clear();
    d->proxyUser.clear();
    d->proxyPassword.clear();
    d->proxyError.clear();
    if (proxy.isEmpty())
        return;
    const QString scheme = proxy.scheme().toLower();
    if (!proxy.isValid() || !isSupportedProxyScheme(scheme) || proxy.host().isEmpty()) {
        d->proxyError = QStringLiteral("Invalid proxy %1").arg(proxy.toDisplayString());
        return;
    }
    QUrl address;
    address.setScheme(scheme);
    address.setHost(proxy.host());
    address.setPort(proxy.port() > 0 ? proxy.port() : defaultProxyPort);
    d->proxyAddress = address.toEncoded();
    d->proxyUser = proxy.userName();
    d->proxyPassword = proxy.password();
}

void CurlTransport::setDefaultTrustedCaFile(const QString &path)
{
    defaultCaFile = path;
}

void CurlTransport::setStallTimeout(int seconds)
{
    d->stallTimeout = seconds;
}

int CurlTransport::connectToHost(const QUrl &server, bool ownConnection)
{
    return d->enqueueConnect(server, ownConnection, false);
}

int CurlTransport::connectAhead(const QUrl &server)
{
    return d->enqueueConnect(server, false, true);
}

void CurlTransport::joinHost(const QUrl &server, bool ownConnection)
{
    d->server = serverRoot(server);
    if (ownConnection)
        d->claimOwnConnection();
}

int CurlTransport::login(const QString &user, const QString &password)
{
    Private::Command command;
    command.kind = Private::Kind::Login;
    command.user = user;
    command.password = password;
    return d->enqueue(command);
}

int CurlTransport::get(const QString &path, QIODevice *device, qint64 expectedLength, qint64 offset,
                       qint64 maxLength)
{
    Q_ASSERT(device);
    Private::Command command;
    command.kind = Private::Kind::Get;
    command.path = path;
    command.device = device;
    command.expectedLength = expectedLength;
    command.maxLength = expectedLength >= 0 ? expectedLength : maxLength;
    command.offset = offset;
    return d->enqueue(command);
}

void CurlTransport::clearPendingCommands()
{
    d->pending.clear();
}

void CurlTransport::abort()
{
    d->pending.clear();
    d->removeTransfer();
    d->current.reset();
    d->foldedLoginId = -1;
}

bool CurlTransport::isMultiplexed() const
{
    return d->multiplexed;
}

CurlTransport::Error CurlTransport::error() const
{
    return d->error;
}

QString CurlTransport::errorString() const
{
    return d->errorText;
}
