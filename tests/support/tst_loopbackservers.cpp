#include "loopbackserver.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkDatagram>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

// The servers every network test relies on start, answer on loopback and log what they saw.
class tst_LoopbackServers : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void nginxOverHttpAndHttps();
    void faultServerFollowsItsScript();
    void proxyForwards();
    void ftpGreets();
    void versionServerAnswersAndLogs();

private:
    QByteArray get(const QString &url, int *status, const QNetworkProxy &proxy = {},
                   const QString &caFile = {});

    QTemporaryDir root;
};

void tst_LoopbackServers::initTestCase()
{
    QVERIFY(root.isValid());
    QFile file(root.filePath("hello.txt"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("hello\n");
}

QByteArray tst_LoopbackServers::get(const QString &url, int *status, const QNetworkProxy &proxy,
                                    const QString &caFile)
{
    QNetworkAccessManager manager;
    manager.setProxy(proxy);
    QNetworkRequest request{QUrl(url)};
    if (!caFile.isEmpty()) {
        QSslConfiguration ssl = QSslConfiguration::defaultConfiguration();
        ssl.setCaCertificates(QSslCertificate::fromPath(caFile));
        request.setSslConfiguration(ssl);
    }
    std::unique_ptr<QNetworkReply> reply(manager.get(request));
    if (!QTest::qWaitFor([&] { return reply->isFinished(); }, 20000))
        return {};
    *status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    return reply->readAll();
}

void tst_LoopbackServers::nginxOverHttpAndHttps()
{
    auto http = LoopbackServer::nginx(root.path());
    QVERIFY(http);
    int status = 0;
    QCOMPARE(get(http->url("http", "/hello.txt"), &status), QByteArray("hello\n"));
    QCOMPARE(status, 200);
    QTRY_VERIFY(http->logLines().value(0).endsWith("GET /hello.txt 200 6"));

    QTemporaryDir certDir;
    TestCertificates certificates;
    QVERIFY(makeTestCertificates(certDir.path(), &certificates));
    auto https = LoopbackServer::nginx(root.path(), &certificates);
    QVERIFY(https);
    QCOMPARE(get(https->url("https", "/hello.txt"), &status, {}, certificates.caFile),
             QByteArray("hello\n"));
}

void tst_LoopbackServers::faultServerFollowsItsScript()
{
    auto server = LoopbackServer::faultHttp(root.path());
    QVERIFY(server);
    server->setFaults("/hello.txt", {"status:503", "corrupt"});
    int status = 0;
    get(server->url("http", "/hello.txt"), &status);
    QCOMPARE(status, 503);
    QCOMPARE(get(server->url("http", "/hello.txt"), &status).size(), 6);
    QCOMPARE(get(server->url("http", "/hello.txt"), &status), QByteArray("hello\n"));
    get(server->url("http", "/missing"), &status);
    QCOMPARE(status, 404);
    QCOMPARE(server->logLines().size(), 4);
    QVERIFY(server->logLines().first().endsWith("GET /hello.txt status:503"));
}

void tst_LoopbackServers::proxyForwards()
{
    auto http = LoopbackServer::nginx(root.path());
    auto proxy = LoopbackServer::proxy();
    QVERIFY(http && proxy);
    int status = 0;
    const QNetworkProxy viaProxy(QNetworkProxy::HttpProxy, "127.0.0.1", proxy->port());
    QCOMPARE(get(http->url("http", "/hello.txt"), &status, viaProxy), QByteArray("hello\n"));
    QTRY_VERIFY(!proxy->logLines().filter("GET http://127.0.0.1").isEmpty());
}

void tst_LoopbackServers::ftpGreets()
{
    auto ftp = LoopbackServer::ftp(root.path(), "alice", "secret");
    QVERIFY(ftp);
    QTcpSocket control;
    control.connectToHost(QHostAddress::LocalHost, ftp->port());
    QVERIFY(control.waitForConnected(5000));
    QTRY_VERIFY(control.canReadLine());
    QVERIFY(control.readLine().startsWith("220"));
}

void tst_LoopbackServers::versionServerAnswersAndLogs()
{
    auto server = LoopbackServer::versionServer("3061,3060,100");
    QVERIFY(server);
    QUdpSocket socket;
    socket.writeDatagram(QByteArray("2\0", 2), QHostAddress::LocalHost, server->port());
    QTRY_VERIFY(socket.hasPendingDatagrams());
    QCOMPARE(socket.receiveDatagram().data(), QByteArray("3061,3060,100"));
    QTRY_COMPARE(server->logLines(), QStringList{"3200"});
}

QTEST_GUILESS_MAIN(tst_LoopbackServers)
#include "tst_loopbackservers.moc"
