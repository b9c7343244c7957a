#pragma once

#include <QObject>
#include <QString>
#include <QUrl>

#include <memory>

class QIODevice;

// libcurl transfers to one server, run from Qt's event loop on the calling thread. Connect,
// log-in and get are queued commands that run one after another; each ends with
// commandFinished(id, error), and a failed one drops the commands queued behind it. One easy
// handle is reused for all commands, so they share one connection (HTTP keep-alive, one FTP
// log-in); over https, HTTP/2 is offered and the transports to one server then share a single
// connection. Signals are only emitted from the event loop, never from inside a call.
class CurlTransport : public QObject
{
    Q_OBJECT

public:
    // Why the last command failed.
    enum Error {
        NoError,
        TransferFailed, // broken connection, timeout, server error: worth repeating
        RequestRefused, // the server refused the request for good (HTTP 4xx but 408 and 429)
        BodyTooLong,    // more bytes arrived than the get expected
        WriteFailed,    // the received bytes could not be stored (disk full, permissions)
    };

    explicit CurlTransport(QObject *parent = nullptr);
    ~CurlTransport() override;

    // A URL with scheme http, https, socks5 or socks5h (port 3128 when none); an empty URL means
    // a direct connection, whatever the environment says. Anything else makes every command
    // fail: a typo must never send the traffic past the user's proxy.
    void setProxy(const QUrl &proxy);
    // For tests only: every transport made afterwards, a session's included, trusts the
    // certificates in this PEM file instead of the system store.
    static void setDefaultTrustedCaFile(const QString &path);
    // A transfer that receives nothing for this long fails.
    void setStallTimeout(int seconds);

    // The server is reached: for HTTP a HEAD of the URL (its status is ignored); for FTP the
    // greeting. An FTP log-in queued right behind is done on the same connection. Without
    // ownConnection this transport's transfers wait for the others' connections to a server
    // that turns out not to multiplex (where a redirect leads) rather than open one.
    int connectToHost(const QUrl &server, bool ownConnection = true);
    // Makes a connection to an https server ahead of the transports that will use it: the TLS
    // handshake and no request. Where the server chose HTTP/2 the connection stays for them;
    // otherwise it is let go. Not through a proxy, where libcurl 7.88 takes an idle tunnel with
    // the server's first frames unread for dead. Fails unless the server multiplexes.
    int connectAhead(const QUrl &server);
    // Gets go to server without a connect step: another transport of this process has just
    // reached it over a connection they share. ownConnection as for connectToHost().
    void joinHost(const QUrl &server, bool ownConnection);
    // For FTP the log-in itself (empty user: anonymous); for HTTP the credentials of later gets.
    int login(const QString &user, const QString &password);
    // Writes the body of path on the server into device. With offset above 0 only the bytes from
    // there on are asked for (HTTP range, FTP REST) and appended where device stands; a server
    // that sends the whole file instead has device emptied and written from the start. With
    // expectedLength (of the whole file) not negative, a body that grows beyond it is stopped at
    // once (BodyTooLong), and one that ends short of it while the server announced no length
    // counts as broken off. Without an expected length, maxLength (when not negative) still stops
    // a body that grows beyond it. Progress counts from the start of the file.
    int get(const QString &path, QIODevice *device, qint64 expectedLength = -1, qint64 offset = 0,
            qint64 maxLength = -1);

    // Drops the commands that have not started; the running one goes on.
    void clearPendingCommands();
    // Stops the running command and drops all others; no signal is emitted for them.
    void abort();

    // The server spoke HTTP/2 in the last finished command: further requests share one
    // connection with those of every other transport to it, and may run side by side.
    bool isMultiplexed() const;
    Error error() const;
    QString errorString() const;

signals:
    void commandFinished(int id, bool error);
    // done bytes of the running get's body so far; total is 0 while the server has not told.
    void dataTransferProgress(qint64 done, qint64 total);

private:
    class Private;
    std::unique_ptr<Private> d;
};
