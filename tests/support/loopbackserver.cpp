#include "loopbackserver.h"

#include "testfiles.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

namespace {

const QString supportDir = QStringLiteral(ORLIVO_TEST_SUPPORT_DIR "/");
// Debian's interpreter: the one that sees python3-pyftpdlib.
const QString python = QStringLiteral("/usr/bin/python3");

bool openssl(const QString &arguments, const QString &dir)
{
    QProcess tool;
    tool.setWorkingDirectory(dir);
    tool.setProcessChannelMode(QProcess::MergedChannels);
    tool.start(QStringLiteral("openssl"),
               QStringLiteral("%1 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 3")
                       .arg(arguments)
                       .split(QLatin1Char(' ')));
    const bool made = tool.waitForFinished(60000) && tool.exitStatus() == QProcess::NormalExit
                      && tool.exitCode() == 0;
    if (!made)
        qWarning("openssl failed: %s", tool.readAll().constData());
    return made;
}

} // namespace

bool makeTestCertificates(const QString &dir, TestCertificates *out)
{
    out->caFile = dir + QStringLiteral("/ca.pem");
    out->certFile = dir + QStringLiteral("/server.pem");
    out->keyFile = dir + QStringLiteral("/server.key");
    return openssl(QStringLiteral("req -x509 -keyout ca.key -out ca.pem -subj /CN=Orlivo-Test-CA "
                                  "-addext basicConstraints=critical,CA:TRUE "
                                  "-addext keyUsage=critical,keyCertSign,cRLSign"),
                   dir)
           && openssl(QStringLiteral("req -x509 -CA ca.pem -CAkey ca.key -keyout server.key "
                                     "-out server.pem -subj /CN=127.0.0.1 "
                                     "-addext subjectAltName=IP:127.0.0.1,DNS:localhost "
                                     "-addext basicConstraints=CA:FALSE "
                                     "-addext extendedKeyUsage=serverAuth"),
                      dir);
}

LoopbackServer::~LoopbackServer()
{
    // Gently first; the process's own destructor kills what is left.
    process.terminate();
    process.waitForFinished(5000);
}

std::unique_ptr<LoopbackServer> LoopbackServer::nginx(const QString &root,
                                                      const TestCertificates *tls)
{
    const QString ssl = tls ? QStringLiteral(" ssl; ssl_certificate %1; ssl_certificate_key %2")
                                        .arg(tls->certFile, tls->keyFile)
                            : QString();
    // The temporary paths would otherwise be the system's.
    const QString config =
            QStringLiteral(
                    "daemon off; master_process off; worker_processes 1; pid @work@/nginx.pid;\n"
                    "error_log @work@/error.log warn; events { worker_connections 512; }\n"
                    "http {\n"
                    "  default_type application/octet-stream; sendfile on;\n"
                    "  keepalive_requests 100000; keepalive_timeout 120s;\n"
                    "  log_format serial '$connection $request_method $uri $status "
                    "$body_bytes_sent';\n"
                    "  access_log @work@/access.log serial;\n"
                    "  client_body_temp_path @work@/body; proxy_temp_path @work@/proxy;\n"
                    "  fastcgi_temp_path @work@/fcgi; uwsgi_temp_path @work@/uwsgi;\n"
                    "  scgi_temp_path @work@/scgi;\n"
                    "  server { listen 127.0.0.1:@port@%1; root %2; }\n"
                    "}\n")
                    .arg(ssl, QDir(root).absolutePath());
    return start(QStringLiteral("/usr/sbin/nginx"), {"-e", "stderr", "-c", "@work@/server.conf"},
                 QStringLiteral("@work@/access.log"), config);
}

std::unique_ptr<LoopbackServer> LoopbackServer::ftp(const QString &root, const QString &user,
                                                    const QString &password, bool resumes)
{
    QStringList arguments = {supportDir + "ftp_server.py", "@work@/ftp.log",
                             QDir(root).absolutePath()};
    if (!user.isEmpty())
        arguments << user << password;
    if (!resumes)
        arguments << QStringLiteral("--no-rest");
    return start(python, arguments, QStringLiteral("@work@/ftp.log"));
}

std::unique_ptr<LoopbackServer> LoopbackServer::proxy()
{
    return start(QStringLiteral("/usr/bin/tinyproxy"), {"-d", "-c", "@work@/server.conf"},
                 QStringLiteral("@work@/proxy.log"),
                 QStringLiteral("Port @port@\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 120\n"
                                "LogFile \"@work@/proxy.log\"\nLogLevel Connect\n"
                                "MaxClients 64\nDisableViaHeader Yes\n"));
}

std::unique_ptr<LoopbackServer> LoopbackServer::faultHttp(const QString &root)
{
    return start(python,
                 {supportDir + "fault_http_server.py", "@work@/fault.log",
                  QDir(root).absolutePath(), "@work@/script.json"},
                 QStringLiteral("@work@/fault.log"));
}

std::unique_ptr<LoopbackServer> LoopbackServer::versionServer(const QByteArray &reply, bool answer)
{
    return start(python,
                 {supportDir + "udp_version_server.py", "@work@/version.log",
                  answer ? QString::fromLatin1(reply.toHex()) : QStringLiteral("-")},
                 QStringLiteral("@work@/version.log"));
}

QString LoopbackServer::url(const QString &scheme, const QString &path) const
{
    return QStringLiteral("%1://127.0.0.1:%2%3").arg(scheme).arg(listenPort).arg(path);
}

QStringList LoopbackServer::logLines() const
{
    return QString::fromUtf8(readTestFile(requestLog)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

void LoopbackServer::setFaults(const QString &path, const QStringList &behaviours)
{
    faults.insert(path, QJsonArray::fromStringList(behaviours));
    // Replaced whole by a rename, so the server never reads half a script.
    QSaveFile script(dir.filePath(QStringLiteral("script.json")));
    if (!script.open(QIODevice::WriteOnly) || script.write(QJsonDocument(faults).toJson()) < 0
        || !script.commit())
        qFatal("cannot write the fault script");
}

std::unique_ptr<LoopbackServer> LoopbackServer::start(const QString &program, QStringList arguments,
                                                      const QString &log, const QString &config)
{
    // A program given a port takes one that was free a moment ago, and another on a clash.
    for (int attempt = 0; attempt < 5; ++attempt) {
        std::unique_ptr<LoopbackServer> server(new LoopbackServer);
        if (!config.isEmpty()) {
            QTcpServer probe;
            probe.listen(QHostAddress::LocalHost, 0);
            server->listenPort = probe.serverPort();
        }
        const auto fill = [&](QString text) {
            return text.replace(QStringLiteral("@work@"), server->dir.path())
                    .replace(QStringLiteral("@port@"), QString::number(server->listenPort));
        };
        server->requestLog = fill(log);
        if (!config.isEmpty()
            && !writeTestFile(server->dir.filePath(QStringLiteral("server.conf")),
                              fill(config).toUtf8()))
            return nullptr;
        QStringList filled;
        for (const QString &argument : arguments)
            filled << fill(argument);
        if (server->launch(program, filled))
            return server;
    }
    return nullptr;
}

bool LoopbackServer::launch(const QString &program, const QStringList &arguments)
{
    process.setWorkingDirectory(dir.path());
    if (listenPort)
        process.setStandardOutputFile(dir.filePath(QStringLiteral("server.out")));
    process.setStandardErrorFile(dir.filePath(QStringLiteral("server.err")));
    process.start(program, arguments);
    QDeadlineTimer deadline(15000);
    if (!listenPort) {
        while (!process.canReadLine() && process.waitForReadyRead(int(deadline.remainingTime()))) {
        }
        const QList<QByteArray> words = process.readLine().trimmed().split(' ');
        if (words.size() == 2 && words.first() == "ready")
            listenPort = quint16(words.last().toUInt());
        if (listenPort)
            return true;
    }
    while (listenPort && !deadline.hasExpired() && process.state() != QProcess::NotRunning) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, listenPort);
        if (probe.waitForConnected(500))
            return true;
        QTest::qWait(50);
    }
    qWarning("%s did not start: %s", qPrintable(program),
             readTestFile(dir.filePath(QStringLiteral("server.err"))).constData());
    return false;
}
