#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

// Files of a test certificate authority and a server certificate for 127.0.0.1 and localhost.
struct TestCertificates
{
    QString caFile;
    QString certFile;
    QString keyFile;
};

// Makes a fresh CA and server certificate with openssl in dir; false when openssl fails.
bool makeTestCertificates(const QString &dir, TestCertificates *out);

// One helper server process on 127.0.0.1 for a test, with a private directory for its
// configuration and logs. It is listening when a factory returns it and stops when destroyed.
class LoopbackServer
{
public:
    ~LoopbackServer();

    // nginx serving root over HTTP, or over HTTPS when certificates are given.
    static std::unique_ptr<LoopbackServer> nginx(const QString &root,
                                                 const TestCertificates *tls = nullptr);
    // pyftpdlib serving root read-only to anonymous and, when user is not empty, to that user;
    // without resumes it refuses REST.
    static std::unique_ptr<LoopbackServer> ftp(const QString &root, const QString &user = {},
                                               const QString &password = {}, bool resumes = true);
    // tinyproxy, an HTTP proxy that also tunnels (CONNECT) to any loopback port.
    static std::unique_ptr<LoopbackServer> proxy();
    // A scriptable HTTP/1.1 server with keep-alive serving root; see setFaults().
    static std::unique_ptr<LoopbackServer> faultHttp(const QString &root);
    // A UDP server answering every datagram with reply; with answer false it stays silent.
    static std::unique_ptr<LoopbackServer> versionServer(const QByteArray &reply,
                                                         bool answer = true);

    quint16 port() const { return listenPort; }
    // "scheme://127.0.0.1:port" + path (path should start with "/").
    QString url(const QString &scheme, const QString &path = {}) const;
    // The server's own request log, one line per request (see each server's format below).
    QString logPath() const;
    QStringList logLines() const;
    QString workDir() const { return dir.path(); }
    bool isRunning() const;
    void stop();

    // Fault server only: the next requests of path (decoded, e.g. "/3/a b.bin") behave as
    // listed, one entry per request, then the path is served normally again. Behaviours:
    //   "ok"          serve the file
    //   "status:N"    reply with status N and a short body
    //   "cut:N"       announce the full length, send N bytes, close the connection
    //   "short:N"     announce no length, send N bytes, close the connection
    //   "stall:N"     send headers and N bytes, then send nothing more (connection kept open)
    //   "endless"     send bytes without end (no length announced)
    //   "corrupt"     the file's length with every byte inverted
    //   "long:N"      the file followed by N extra bytes, length announced truthfully
    //   "full"        the whole file with status 200, whatever range was asked for
    // A range "bytes=N-" is otherwise answered with 206, the behaviour applying to the rest.
    void setFaults(const QString &path, const QStringList &behaviours);

    // Log formats:
    //   nginx:     "<connection serial> <method> <uri> <status> <body bytes>"
    //   ftp:       pyftpdlib's log lines, "<client ip>:<client port>-[<user>] <command> ..."
    //   fault:     "<client port> <method> <path> <behaviour>", then " bytes=N-" for a range
    //   version:   "<hex of each datagram received>"
    //   proxy:     tinyproxy's own log

private:
    LoopbackServer() = default;
    bool launch(const QString &program, const QStringList &arguments, bool announcesPort);
    bool waitForTcp();

    QTemporaryDir dir;
    QProcess process;
    quint16 listenPort = 0;
    QString requestLog;
};
