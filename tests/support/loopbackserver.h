#pragma once

#include <QProcess>
#include <QTemporaryDir>

#include <memory>

struct TestCertificates
{
    QString caFile;
    QString certFile;
    QString keyFile;
};

// Makes a self-signed certificate for 127.0.0.1 and localhost in dir, its own CA.
bool makeTestCertificates(const QString &dir, TestCertificates *out);

// One server process on 127.0.0.1, listening once a factory returns it, stopped when destroyed.
// Its request log, one line per request:
//   nginx:   "<connection serial> <method> <uri> <status> <body bytes>"
//   ftp:     pyftpdlib's, "<client ip>:<client port>-[<user>] <command> ..."
//   fault:   "<client port> <method> <path> <behaviour>", then " bytes=N-" for a range
//   version: the hex of each datagram
//   socks:   "client[N] 127.0.0.1: connected to <host>:<port>"
class LoopbackServer
{
public:
    ~LoopbackServer();

    // nginx serving root over HTTP, or HTTPS (HTTP/2 unless http2 is false) when certificates
    // are given; directives go into its server block ("limit_rate 30000;").
    static std::unique_ptr<LoopbackServer> nginx(const QString &root,
                                                 const TestCertificates *tls = nullptr,
                                                 const QString &directives = {}, bool http2 = true);
    // pyftpdlib, root read-only to anonymous and user; options as ftp_server.py's
    // ("--no-rest", "--unconfirmed-once").
    static std::unique_ptr<LoopbackServer> ftp(const QString &root, const QString &user = {},
                                               const QString &password = {},
                                               const QStringList &options = {});
    // tinyproxy, which also tunnels (CONNECT) to loopback ports, for proxyUser and proxyPassword
    // only.
    static std::unique_ptr<LoopbackServer> proxy();
    static constexpr const char *proxyUser = "relay";
    static constexpr const char *proxyPassword = "pa.ss-1";
    // microsocks, a SOCKS5 proxy for the same user and password.
    static std::unique_ptr<LoopbackServer> socksProxy();
    // An HTTP/1.1 server with keep-alive serving root; see setFaults().
    static std::unique_ptr<LoopbackServer> faultHttp(const QString &root);
    // A UDP server answering every datagram with reply, or never when answer is false; with
    // fromOtherPort, the reply comes from another port, as a forged one would.
    static std::unique_ptr<LoopbackServer>
    versionServer(const QByteArray &reply, bool answer = true, bool fromOtherPort = false);

    quint16 port() const { return listenPort; }
    QString url(const QString &scheme, const QString &path = {}) const;
    QStringList logLines() const;

    // Fault server only: the next requests of path (decoded) take these behaviours in turn, then
    // it is served normally. "ok"; "status:N"; "cut:N" (full length announced, N bytes sent,
    // closed); "short:N" (no length, N bytes, closed); "stall:N" (N bytes, then silence);
    // "endless"; "trickle:N" (the body in ten parts over N ms); "delay:N" (the whole answer
    // after N ms, as from a far server); "corrupt" (every byte inverted);
    // "full" (200 and the whole file whatever range was asked); "misrange:N" (206 from byte N
    // whatever range was asked); "redirect:LOCATION" (301).
    // Otherwise a range "bytes=N-" gets 206 and the behaviour applies to the rest.
    void setFaults(const QString &path, const QStringList &behaviours);

private:
    LoopbackServer() = default;
    // "@work@" stands for the server's directory, "@port@" in config or arguments for its port;
    // the request log is @work@/server.log (a program's standard error when its port is in its
    // arguments). Without either the program binds port 0 and prints it. readyFile, in
    // @work@, is made by the program once it holds its port: until then an answer on the port
    // may come from another program that took it first.
    static std::unique_ptr<LoopbackServer> start(const QString &program,
                                                 const QStringList &arguments,
                                                 const QString &config = {},
                                                 const QString &readyFile = {});

    QTemporaryDir dir;
    QProcess process;
    quint16 listenPort = 0;
};
