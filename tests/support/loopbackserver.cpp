#include "loopbackserver.h"

#include "testfiles.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

namespace {

const QString supportDir = QStringLiteral(ORLIVO_TEST_SUPPORT_DIR "/");
// Debian's interpreter: the one that sees python3-pyftpdlib.
const QString python = QStringLiteral("/usr/bin/python3");
// The temporary paths would otherwise be the system's.
const char nginxConfig[] =
        "daemon off; master_process off; pid @work@/nginx.pid; events {}\n"
        "error_log @work@/error.log; http {\n"
        "  log_format serial '$connection $request_method $uri $status $body_bytes_sent';\n"
        "  access_log @work@/server.log serial; server { listen 127.0.0.1:@port@%1; root %2;%3 }\n"
        "  client_body_temp_path @work@/b; proxy_temp_path @work@/p; uwsgi_temp_path @work@/u;\n"
        "  fastcgi_temp_path @work@/f; scgi_temp_path @work@/s;\n"
        "}\n";

} // namespace

bool makeTestCertificates(const QString &dir, TestCertificates *out)
{
    out->caFile = out->certFile = dir + QStringLiteral("/server.pem");
    out->keyFile = dir + QStringLiteral("/server.key");
    return QProcess::execute(QStringLiteral("openssl"),
                             {"req", "-x509", "-newkey", "ec", "-pkeyopt",
                              "ec_paramgen_curve:prime256v1", "-nodes", "-days", "3", "-subj",
                              "/CN=127.0.0.1", "-addext",
                              "subjectAltName=IP:127.0.0.1,DNS:localhost", "-keyout", out->keyFile,
                              "-out", out->certFile})
           == 0;
}

LoopbackServer::~LoopbackServer()
{
    // Gently first; the process's own destructor kills what is left.
    process.terminate();
    process.waitForFinished(5000);
}

std::unique_ptr<LoopbackServer> LoopbackServer::nginx(const QString &root,
                                                      const TestCertificates *tls,
                                                      const QString &directives, bool http2)
{
    // TLS 1.3 as mirrors speak it: nginx 1.22's compiled default stops at 1.2.
    const QString ssl = tls ? QStringLiteral(" ssl%1; ssl_certificate %2; ssl_certificate_key %3;"
                                             " ssl_protocols TLSv1.2 TLSv1.3")
                                        .arg(http2 ? " http2" : "", tls->certFile, tls->keyFile)
                            : QString();
    // nginx writes its pid once its port is bound; one that finds the port taken retries for
    // seconds while the other program answers there.
    return start(
            QStringLiteral("/usr/sbin/nginx"), {"-e", "stderr", "-c", "@work@/server.conf"},
            QString::fromLatin1(nginxConfig).arg(ssl, QDir(root).absolutePath(), " " + directives),
            QStringLiteral("nginx.pid"));
}

std::unique_ptr<LoopbackServer> LoopbackServer::ftp(const QString &root, const QString &user,
                                                    const QString &password,
                                                    const QStringList &options)
{
    QStringList arguments = {supportDir + "ftp_server.py", "@work@/server.log",
                             QDir(root).absolutePath()};
    if (!user.isEmpty())
        arguments << user << password;
    return start(python, arguments + options);
}

std::unique_ptr<LoopbackServer> LoopbackServer::proxy()
{
    return start(QStringLiteral("/usr/bin/tinyproxy"), {"-d", "-c", "@work@/server.conf"},
                 QStringLiteral("Port @port@\nListen 127.0.0.1\nAllow 127.0.0.1\n"
                                "BasicAuth %1 %2\n"
                                "LogFile \"@work@/server.log\"\nLogLevel Connect\n")
                         .arg(proxyUser, proxyPassword));
}

std::unique_ptr<LoopbackServer> LoopbackServer::socksProxy()
{
    return start(QStringLiteral("/usr/bin/microsocks"),
                 {"-i", "127.0.0.1", "-p", "@port@", "-u", proxyUser, "-P", proxyPassword});
}

std::unique_ptr<LoopbackServer> LoopbackServer::faultHttp(const QString &root)
{
    return start(python, {supportDir + "fault_http_server.py", "@work@/server.log",
                          QDir(root).absolutePath()});
}

std::unique_ptr<LoopbackServer> LoopbackServer::versionServer(const QByteArray &reply, bool answer,
                                                              bool fromOtherPort)
{
    const QString hex = QString::fromLatin1(reply.toHex());
    return start(python, {supportDir + "udp_version_server.py", "@work@/server.log",
                          !answer         ? QStringLiteral("-")
                          : fromOtherPort ? "+" + hex
                                          : hex});
}

QString LoopbackServer::url(const QString &scheme, const QString &path) const
{
    return QStringLiteral("%1://127.0.0.1:%2%3").arg(scheme).arg(listenPort).arg(path);
}

QStringList LoopbackServer::logLines() const
{
    return QString::fromUtf8(readTestFile(dir.filePath(QStringLiteral("server.log"))))
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

void LoopbackServer::setFaults(const QString &path, const QStringList &behaviours)
{
    const QJsonObject script{{path, QJsonArray::fromStringList(behaviours)}};
    process.write(QJsonDocument(script).toJson(QJsonDocument::Compact) + '\n');
    // In force once answered.
    while (!process.canReadLine() && process.waitForReadyRead(15000)) {
    }
    if (process.readLine() != "ok\n")
        qFatal("the fault server did not take its script");
}

std::unique_ptr<LoopbackServer> LoopbackServer::start(const QString &program,
                                                      const QStringList &arguments,
                                                      const QString &config,
                                                      const QString &readyFile)
{
    // A port that was free a moment ago may be taken when the program binds it: then another.
    for (int attempt = 0; attempt < 5; ++attempt) {
        std::unique_ptr<LoopbackServer> server(new LoopbackServer);
        QProcess &process = server->process;
        const QString work = server->dir.path();
        const bool portInArguments = !arguments.filter("@port@").isEmpty();
        if (!config.isEmpty() || portInArguments) {
            QTcpServer probe;
            probe.listen(QHostAddress::LocalHost, 0);
            server->listenPort = probe.serverPort();
        }
        const QString port = QString::number(server->listenPort);
        if (!config.isEmpty()) {
            QString filled = config;
            filled.replace("@work@", work).replace("@port@", port);
            if (!writeTestFile(work + "/server.conf", filled.toUtf8()))
                return nullptr;
        }
        process.setWorkingDirectory(work);
        // A program told everything by its arguments logs to its standard error.
        process.setStandardErrorFile(work + (portInArguments ? "/server.log" : "/server.err"));
        process.start(program, QStringList(arguments)
                                       .replaceInStrings("@work@", work)
                                       .replaceInStrings("@port@", port));
        const QDeadlineTimer deadline(15000);
        if (!server->listenPort) {
            while (!process.canReadLine()
                   && process.waitForReadyRead(int(deadline.remainingTime()))) {
            }
            const QByteArray line = process.readLine();
            server->listenPort = line.startsWith("ready ") ? line.mid(6).trimmed().toUShort() : 0;
            if (server->listenPort)
                return server;
        }
        while (server->listenPort && !deadline.hasExpired()
               && process.state() != QProcess::NotRunning) {
            if (!readyFile.isEmpty() && !QFileInfo::exists(work + "/" + readyFile)) {
                QTest::qWait(20);
                continue;
            }
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, server->listenPort);
            if (probe.waitForConnected(500))
                return server;
            QTest::qWait(50);
        }
        qWarning("%s did not start: %s", qPrintable(program),
                 readTestFile(work + "/server.err").constData());
    }
    return nullptr;
}
