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

} // namespace

bool makeTestCertificates(const QString &dir, TestCertificates *out)
{
    out->caFile = out->certFile = dir + QStringLiteral("/server.pem");
    out->keyFile = dir + QStringLiteral("/server.key");
    QProcess openssl;
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"),
                  {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                   "-nodes", "-days", "3", "-subj", "/CN=127.0.0.1", "-addext",
                   "subjectAltName=IP:127.0.0.1,DNS:localhost", "-keyout", out->keyFile, "-out",
                   out->certFile});
    if (openssl.waitForFinished(60000) && openssl.exitStatus() == QProcess::NormalExit
        && openssl.exitCode() == 0)
        return true;
    qWarning("openssl failed: %s", openssl.readAll().constData());
    return false;
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
            QStringLiteral("daemon off; master_process off; pid @work@/nginx.pid; events {}\n"
                           "error_log @work@/error.log warn;\n"
                           "http {\n"
                           "  log_format serial '$connection $request_method $uri $status "
                           "$body_bytes_sent';\n"
                           "  access_log @work@/server.log serial; default_type "
                           "application/octet-stream;\n"
                           "  client_body_temp_path @work@/body; proxy_temp_path @work@/proxy;\n"
                           "  fastcgi_temp_path @work@/fcgi; uwsgi_temp_path @work@/uwsgi;\n"
                           "  scgi_temp_path @work@/scgi;\n"
                           "  server { listen 127.0.0.1:@port@%1; root %2; }\n"
                           "}\n")
                    .arg(ssl, QDir(root).absolutePath());
    return start(QStringLiteral("/usr/sbin/nginx"), {"-e", "stderr", "-c", "@work@/server.conf"},
                 config);
}

std::unique_ptr<LoopbackServer> LoopbackServer::ftp(const QString &root, const QString &user,
                                                    const QString &password, bool resumes)
{
    QStringList arguments = {supportDir + "ftp_server.py", "@work@/server.log",
                             QDir(root).absolutePath()};
    if (!user.isEmpty())
        arguments << user << password;
    if (!resumes)
        arguments << QStringLiteral("--no-rest");
    return start(python, arguments);
}

std::unique_ptr<LoopbackServer> LoopbackServer::proxy()
{
    return start(QStringLiteral("/usr/bin/tinyproxy"), {"-d", "-c", "@work@/server.conf"},
                 QStringLiteral("Port @port@\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 120\n"
                                "LogFile \"@work@/server.log\"\nLogLevel Connect\n"
                                "MaxClients 64\nDisableViaHeader Yes\n"));
}

std::unique_ptr<LoopbackServer> LoopbackServer::faultHttp(const QString &root)
{
    return start(python, {supportDir + "fault_http_server.py", "@work@/server.log",
                          QDir(root).absolutePath(), "@work@/script.json"});
}

std::unique_ptr<LoopbackServer> LoopbackServer::versionServer(const QByteArray &reply, bool answer)
{
    return start(python, {supportDir + "udp_version_server.py", "@work@/server.log",
                          answer ? QString::fromLatin1(reply.toHex()) : QStringLiteral("-")});
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

std::unique_ptr<LoopbackServer>
LoopbackServer::start(const QString &program, const QStringList &arguments, const QString &config)
{
    // A program given a port takes one that was free a moment ago, and another on a clash.
    for (int attempt = 0; attempt < 5; ++attempt) {
        std::unique_ptr<LoopbackServer> server(new LoopbackServer);
        if (!config.isEmpty()) {
            QTcpServer probe;
            probe.listen(QHostAddress::LocalHost, 0);
            server->listenPort = probe.serverPort();
        }
        const QString work = server->dir.path(), port = QString::number(server->listenPort);
        const QString filled = QString(config).replace("@work@", work).replace("@port@", port);
        server->requestLog = server->dir.filePath(QStringLiteral("server.log"));
        if (!config.isEmpty() && !writeTestFile(work + "/server.conf", filled.toUtf8()))
            return nullptr;
        if (server->launch(program, QStringList(arguments).replaceInStrings("@work@", work)))
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
