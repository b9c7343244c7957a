#include "loopbackserver.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

namespace {

const QString supportDir = QStringLiteral(ORLIVO_TEST_SUPPORT_DIR);
// Debian's interpreter: the one that sees python3-pyftpdlib.
const QString python = QStringLiteral("/usr/bin/python3");
constexpr int startTimeoutMs = 15000;
constexpr int portAttempts = 5;

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate)
            && file.write(content) == content.size();
}

// A port that was free a moment ago; servers that cannot bind port 0 themselves retry on clash.
quint16 freeLoopbackPort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    return probe.serverPort();
}

bool runTool(const QString &program, const QStringList &arguments, const QString &workDir)
{
    QProcess tool;
    tool.setWorkingDirectory(workDir);
    tool.setProcessChannelMode(QProcess::MergedChannels);
    tool.start(program, arguments);
    if (!tool.waitForFinished(60000) || tool.exitStatus() != QProcess::NormalExit
        || tool.exitCode() != 0) {
        qWarning("%s failed: %s", qPrintable(program), tool.readAll().constData());
        return false;
    }
    return true;
}

QByteArray nginxConfig(const QString &work, const QString &root, quint16 port,
                       const TestCertificates *tls)
{
    QString listen = QStringLiteral("127.0.0.1:%1").arg(port);
    QString tlsLines;
    if (tls) {
        listen += QStringLiteral(" ssl");
        tlsLines = QStringLiteral("        ssl_certificate %1;\n        ssl_certificate_key %2;\n")
                           .arg(tls->certFile, tls->keyFile);
    }
    return QStringLiteral(
                   "daemon off;\n"
                   "master_process off;\n"
                   "worker_processes 1;\n"
                   "pid %1/nginx.pid;\n"
                   "error_log %1/error.log warn;\n"
                   "events { worker_connections 512; }\n"
                   "http {\n"
                   "    default_type application/octet-stream;\n"
                   "    log_format serial '$connection $request_method $uri $status "
                   "$body_bytes_sent';\n"
                   "    access_log %1/access.log serial;\n"
                   "    client_body_temp_path %1/body;\n"
                   "    proxy_temp_path %1/proxy;\n"
                   "    fastcgi_temp_path %1/fastcgi;\n"
                   "    uwsgi_temp_path %1/uwsgi;\n"
                   "    scgi_temp_path %1/scgi;\n"
                   "    sendfile on;\n"
                   "    keepalive_requests 100000;\n"
                   "    keepalive_timeout 120s;\n"
                   "    server {\n"
                   "        listen %2;\n"
                   "        root %3;\n"
                   "%4"
                   "    }\n"
                   "}\n")
            .arg(work, listen, root, tlsLines)
            .toUtf8();
}

QByteArray proxyConfig(const QString &work, quint16 port)
{
    return QStringLiteral("Port %1\n"
                          "Listen 127.0.0.1\n"
                          "Timeout 120\n"
                          "LogFile \"%2/proxy.log\"\n"
                          "LogLevel Connect\n"
                          "MaxClients 64\n"
                          "Allow 127.0.0.1\n"
                          "DisableViaHeader Yes\n")
            .arg(port)
            .arg(work)
            .toUtf8();
}

} // namespace

bool makeTestCertificates(const QString &dir, TestCertificates *out)
{
    const QString ext = QStringLiteral("subjectAltName=IP:127.0.0.1,DNS:localhost\n"
                                       "basicConstraints=CA:FALSE\n"
                                       "keyUsage=digitalSignature,keyEncipherment\n"
                                       "extendedKeyUsage=serverAuth\n");
    if (!writeFile(dir + QStringLiteral("/server.ext"), ext.toUtf8()))
        return false;
    const QString openssl = QStringLiteral("openssl");
    const QStringList ecKey = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                               "-nodes"};
    const bool made
            = runTool(openssl,
                      QStringList{"req", "-x509"} + ecKey
                              + QStringList{"-keyout", "ca.key", "-out", "ca.pem", "-days", "3",
                                            "-subj", "/CN=Orlivo Test CA", "-addext",
                                            "basicConstraints=critical,CA:TRUE", "-addext",
                                            "keyUsage=critical,keyCertSign,cRLSign"},
                      dir)
            && runTool(openssl,
                       QStringList{"req"} + ecKey
                               + QStringList{"-keyout", "server.key", "-out", "server.csr",
                                             "-subj", "/CN=127.0.0.1"},
                       dir)
            && runTool(openssl,
                       {"x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
                        "-CAcreateserial", "-out", "server.pem", "-days", "3", "-extfile",
                        "server.ext"},
                       dir);
    if (!made)
        return false;
    out->caFile = dir + QStringLiteral("/ca.pem");
    out->certFile = dir + QStringLiteral("/server.pem");
    out->keyFile = dir + QStringLiteral("/server.key");
    return true;
}

LoopbackServer::~LoopbackServer()
{
    stop();
}

std::unique_ptr<LoopbackServer> LoopbackServer::nginx(const QString &root,
                                                      const TestCertificates *tls)
{
    for (int attempt = 0; attempt < portAttempts; ++attempt) {
        std::unique_ptr<LoopbackServer> server(new LoopbackServer);
        server->listenPort = freeLoopbackPort();
        server->requestLog = server->workDir() + QStringLiteral("/access.log");
        const QString config = server->workDir() + QStringLiteral("/nginx.conf");
        if (!writeFile(config, nginxConfig(server->workDir(), QDir(root).absolutePath(),
                                           server->listenPort, tls)))
            return nullptr;
        if (server->launch(QStringLiteral("/usr/sbin/nginx"),
                           {"-p", server->workDir(), "-c", config, "-e", "stderr"}, false))
            return server;
    }
    return nullptr;
}

std::unique_ptr<LoopbackServer> LoopbackServer::ftp(const QString &root, const QString &user,
                                                    const QString &password, bool resumes)
{
    std::unique_ptr<LoopbackServer> server(new LoopbackServer);
    server->requestLog = server->workDir() + QStringLiteral("/ftp.log");
    QStringList arguments = {supportDir + QStringLiteral("/ftp_server.py")};
    if (!resumes)
        arguments << QStringLiteral("--no-rest");
    arguments << server->requestLog << QDir(root).absolutePath();
    if (!user.isEmpty())
        arguments << user << password;
    return server->launch(python, arguments, true) ? std::move(server) : nullptr;
}

std::unique_ptr<LoopbackServer> LoopbackServer::proxy()
{
    for (int attempt = 0; attempt < portAttempts; ++attempt) {
        std::unique_ptr<LoopbackServer> server(new LoopbackServer);
        server->listenPort = freeLoopbackPort();
        server->requestLog = server->workDir() + QStringLiteral("/proxy.log");
        const QString config = server->workDir() + QStringLiteral("/tinyproxy.conf");
        if (!writeFile(config, proxyConfig(server->workDir(), server->listenPort)))
            return nullptr;
        if (server->launch(QStringLiteral("/usr/bin/tinyproxy"), {"-d", "-c", config}, false))
            return server;
    }
    return nullptr;
}

std::unique_ptr<LoopbackServer> LoopbackServer::faultHttp(const QString &root)
{
    std::unique_ptr<LoopbackServer> server(new LoopbackServer);
    server->requestLog = server->workDir() + QStringLiteral("/fault.log");
    const QString script = server->workDir() + QStringLiteral("/script.json");
    if (!writeFile(script, "{}"))
        return nullptr;
    const QStringList arguments = {supportDir + QStringLiteral("/fault_http_server.py"),
                                   server->requestLog, QDir(root).absolutePath(), script};
    return server->launch(python, arguments, true) ? std::move(server) : nullptr;
}

std::unique_ptr<LoopbackServer> LoopbackServer::versionServer(const QByteArray &reply,
                                                              bool answer)
{
    std::unique_ptr<LoopbackServer> server(new LoopbackServer);
    server->requestLog = server->workDir() + QStringLiteral("/version.log");
    const QStringList arguments = {supportDir + QStringLiteral("/udp_version_server.py"),
                                   server->requestLog,
                                   answer ? QString::fromLatin1(reply.toHex())
                                          : QStringLiteral("-")};
    return server->launch(python, arguments, true) ? std::move(server) : nullptr;
}

QString LoopbackServer::url(const QString &scheme, const QString &path) const
{
    return QStringLiteral("%1://127.0.0.1:%2%3").arg(scheme).arg(listenPort).arg(path);
}

QString LoopbackServer::logPath() const
{
    return requestLog;
}

QStringList LoopbackServer::logLines() const
{
    QFile file(requestLog);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

bool LoopbackServer::isRunning() const
{
    return process.state() != QProcess::NotRunning;
}

void LoopbackServer::stop()
{
    if (!isRunning())
        return;
    process.terminate();
    if (!process.waitForFinished(5000)) {
        process.kill();
        process.waitForFinished(5000);
    }
}

void LoopbackServer::setFaults(const QString &path, const QStringList &behaviours)
{
    const QString scriptPath = workDir() + QStringLiteral("/script.json");
    QFile in(scriptPath);
    QJsonObject script;
    if (in.open(QIODevice::ReadOnly))
        script = QJsonDocument::fromJson(in.readAll()).object();
    in.close();
    script.insert(path, QJsonArray::fromStringList(behaviours));
    const QString temporary = scriptPath + QStringLiteral(".new");
    // Replaced by rename, so the server never reads a half-written script.
    if (!writeFile(temporary, QJsonDocument(script).toJson()))
        qFatal("cannot write the fault script");
    QFile::remove(scriptPath);
    QFile::rename(temporary, scriptPath);
}

bool LoopbackServer::launch(const QString &program, const QStringList &arguments,
                            bool announcesPort)
{
    if (!dir.isValid())
        return false;
    process.setWorkingDirectory(dir.path());
    if (!announcesPort)
        process.setStandardOutputFile(dir.path() + QStringLiteral("/server.out"));
    process.setStandardErrorFile(dir.path() + QStringLiteral("/server.err"));
    process.start(program, arguments);
    if (!process.waitForStarted(startTimeoutMs)) {
        qWarning("cannot start %s", qPrintable(program));
        return false;
    }
    if (!announcesPort)
        return waitForTcp();

    // The scripts bind port 0 and announce "ready <port>" on standard output.
    QDeadlineTimer deadline(startTimeoutMs);
    while (!process.canReadLine()) {
        if (!process.waitForReadyRead(int(deadline.remainingTime())) || deadline.hasExpired())
            break;
    }
    const QList<QByteArray> words = process.readLine().trimmed().split(' ');
    if (words.size() != 2 || words.first() != "ready") {
        qWarning("%s did not start: %s", qPrintable(program),
                 qPrintable(dir.path() + QStringLiteral("/server.err")));
        stop();
        return false;
    }
    listenPort = quint16(words.last().toUInt());
    return listenPort != 0;
}

bool LoopbackServer::waitForTcp()
{
    QDeadlineTimer deadline(startTimeoutMs);
    while (!deadline.hasExpired()) {
        if (!isRunning()) {
            qWarning("server exited early; see %s", qPrintable(dir.path()));
            return false;
        }
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, listenPort);
        if (probe.waitForConnected(500))
            return true;
        QTest::qWait(50);
    }
    stop();
    return false;
}
