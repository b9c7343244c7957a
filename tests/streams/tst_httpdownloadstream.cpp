#include "streamtesting.h"

#include "streams/httpdownloadstream.h"

#include <QPointer>
#include <QSet>
#include <QTcpServer>
#include <QTemporaryDir>

// HTTP and HTTPS streams against nginx, tinyproxy and the scriptable fault server.
class tst_HTTPDownloadStream : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void fetchesFiles_data();
    void fetchesFiles();
    void failsToConnect_data();
    void failsToConnect();
    void environmentProxiesAreIgnored();
    void serverFaults_data();
    void serverFaults();
    void reconnectingMidTransferStartsClean();
    void endingFromOwnSignal_data();
    void endingFromOwnSignal();

private:
    QTemporaryDir root;
    std::unique_ptr<QTemporaryDir> dest;
    TestCertificates certificates;
    std::unique_ptr<LoopbackServer> http;
    std::unique_ptr<LoopbackServer> https;
    std::unique_ptr<LoopbackServer> proxy;
    std::unique_ptr<LoopbackServer> faults;
};

namespace {

const QString wait = QStringLiteral("message Download error. Timeout 2 seconds to repeat.");

QString closedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return QString::number(probe.serverPort());
}

} // namespace

void tst_HTTPDownloadStream::initTestCase()
{
    QVERIFY(root.isValid());
    QVERIFY(writeTestFile(root.filePath("pub/update"), patternBytes(300000, 1)));
    QVERIFY(writeTestFile(root.filePath("pub/lib/libfoo.so"), patternBytes(1234, 2)));
    QVERIFY(writeTestFile(root.filePath("pub/empty.txt"), QByteArray()));
    QVERIFY(makeTestCertificates(root.path(), &certificates));
    http = LoopbackServer::nginx(root.path());
    https = LoopbackServer::nginx(root.path(), &certificates);
    proxy = LoopbackServer::proxy();
    faults = LoopbackServer::faultHttp(root.path());
    QVERIFY(http && https && proxy && faults);
}

void tst_HTTPDownloadStream::init()
{
    dest = std::make_unique<QTemporaryDir>();
    QVERIFY(dest->isValid());
}

void tst_HTTPDownloadStream::fetchesFiles_data()
{
    QTest::addColumn<bool>("secure");
    QTest::addColumn<QString>("userInfo");
    QTest::addColumn<bool>("viaProxy");

    QTest::newRow("http") << false << QString() << false;
    QTest::newRow("https with the test CA") << true << QString() << false;
    QTest::newRow("http with a user") << false << "reader:secret" << false;
    QTest::newRow("http through proxy") << false << QString() << true;
    QTest::newRow("https through proxy") << true << QString() << true;
}

void tst_HTTPDownloadStream::fetchesFiles()
{
    QFETCH(bool, secure);
    QFETCH(QString, userInfo);
    QFETCH(bool, viaProxy);
    LoopbackServer &server = secure ? *https : *http;
    const int logStart = server.logLines().size();

    HTTPDownloadStream stream(dest->path());
    stream.setTrustedCaFile(certificates.caFile);
    StreamEvents events(&stream);
    QUrl url(server.url(secure ? "https" : "http", "/pub"));
    url.setUserInfo(userInfo);
    QVERIFY(connectAndWait(stream, events, url.toString(), viaProxy ? proxy->url("http") : ""));
    QCOMPARE(events.lines, QStringList({"state 1", "state 2", "connected"}));

    const QStringList files = {"update", "lib/libfoo.so", "empty.txt"};
    for (const QString &name : files) {
        const QByteArray content = readTestFile(root.filePath("pub/" + name));
        QVERIFY2(fetchAndWait(stream, events, name, content), qPrintable(events.lines.join('|')));
        QCOMPARE(events.lines, QStringList({"state 3", "state 2", "fileFinished"}));
        QCOMPARE(events.lastDone, qint64(content.size()));
    }

    // The connect step's HEAD and every GET travelled over one connection.
    const QStringList log = server.logLines().mid(logStart);
    QCOMPARE(log.size(), 1 + files.size());
    QVERIFY(log.first().contains(" HEAD /pub "));
    QSet<QString> connections;
    for (const QString &line : log)
        connections.insert(line.section(' ', 0, 0));
    if (!viaProxy) // tinyproxy opens a connection of its own per plain HTTP request
        QCOMPARE(connections.size(), 1);
}

void tst_HTTPDownloadStream::failsToConnect_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<bool>("trustTestCa");

    QTest::newRow("closed port") << "http://127.0.0.1:" + closedPort() + "/pub" << true;
    QTest::newRow("closed port, log-in step dropped")
            << "http://user:pw@127.0.0.1:" + closedPort() + "/pub" << true;
    QTest::newRow("certificate of an unknown CA") << https->url("https", "/pub") << false;
    QTest::newRow("TLS to a plain HTTP server") << http->url("https", "/pub") << true;
}

void tst_HTTPDownloadStream::failsToConnect()
{
    QFETCH(QString, url);
    QFETCH(bool, trustTestCa);

    HTTPDownloadStream stream(dest->path());
    if (trustTestCa)
        stream.setTrustedCaFile(certificates.caFile);
    StreamEvents events(&stream);
    QVERIFY(!connectAndWait(stream, events, url));
    QCOMPARE(events.lines, QStringList({"failedToConnect"}));
    QVERIFY(!events.lastText.isEmpty());
    QCOMPARE(stream.getState(), DownloadStream_Idle);
}

// Proxy variables lead to a closed port, and the exception list would bypass the proxy.
void tst_HTTPDownloadStream::environmentProxiesAreIgnored()
{
    const QByteArray nowhere = "http://127.0.0.1:" + closedPort().toLatin1();
    for (const char *name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
        qputenv(name, nowhere);
    qputenv("no_proxy", "*");
    qputenv("NO_PROXY", "*");
    const qsizetype proxyLog = proxiedRequests(*proxy);

    for (const QString &proxyText : {QString(), proxy->url("http")}) {
        HTTPDownloadStream stream(dest->path());
        StreamEvents events(&stream);
        QVERIFY(connectAndWait(stream, events, http->url("http", "/pub"), proxyText));
        QVERIFY(fetchAndWait(stream, events, "lib/libfoo.so",
                             readTestFile(root.filePath("pub/lib/libfoo.so"))));
        QCOMPARE(proxiedRequests(*proxy) > proxyLog, !proxyText.isEmpty());
    }
    for (const char *name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY",
                             "no_proxy", "NO_PROXY"})
        qunsetenv(name);
}

void tst_HTTPDownloadStream::serverFaults_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QStringList>("behaviours");
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<QString>("errorText");

    const QStringList retried = {"state 3", wait, "state 3", "message Download attempt 2"};
    const QStringList lastRetry = {wait, "state 3", "message Download attempt 3"};
    const QStringList finished = {"state 2", "fileFinished"};
    const QStringList given = {"state 3", "state 2"};

    QTest::newRow("404 is final at once")
            << "a.bin" << QStringList{"status:404"} << given + QStringList{"fileError 4"}
            << "ERROR: Error transferring http://127.0.0.1:%1/pub/a.bin - server replied: 404 "
               "Not Found";
    QTest::newRow("403 is final at once") << "b.bin" << QStringList{"status:403"}
                                          << given + QStringList{"fileError 4"} << "403 Forbidden";
    QTest::newRow("500 then success")
            << "c.bin" << QStringList{"status:500"} << retried + finished << QString();
    QTest::newRow("408 and 429 are repeated") << "d.bin" << QStringList{"status:408", "status:429"}
                                              << retried + lastRetry + finished << QString();
    QTest::newRow("503 until attempts run out")
            << "e.bin" << QStringList{"status:503", "status:503", "status:503"}
            << retried + lastRetry + QStringList{"state 2", "fileError 4"} << "503";
    QTest::newRow("connection cut mid-body")
            << "f.bin" << QStringList{"cut:5000"} << retried + finished << QString();
    QTest::newRow("body without length ends short")
            << "k.bin" << QStringList{"short:5000"} << retried + finished << QString();
    QTest::newRow("stall mid-body")
            << "g.bin" << QStringList{"stall:5000"} << retried + finished << QString();
    QTest::newRow("endless body") << "h.bin" << QStringList{"endless"}
                                  << given + QStringList{"fileError 2"}
                                  << "ERROR: Wrong length of ";
    QTest::newRow("body longer than required")
            << "i.bin" << QStringList{"long:10"} << given + QStringList{"fileError 2"}
            << " while required 20000)";
    QTest::newRow("wrong bytes") << "j.bin" << QStringList{"corrupt"}
                                 << given + QStringList{"fileError 1"}
                                 << "ERROR: Wrong checksum for ";
}

void tst_HTTPDownloadStream::serverFaults()
{
    QFETCH(QString, name);
    QFETCH(QStringList, behaviours);
    QFETCH(QStringList, events);
    QFETCH(QString, errorText);

    const QByteArray content = patternBytes(20000, name.at(0).unicode());
    QVERIFY(writeTestFile(root.filePath("pub/" + name), content));
    faults->setFaults("/pub/" + name, behaviours);

    HTTPDownloadStream stream(dest->path());
    stream.setRepeatTimeUnit(10);
    stream.setStallTimeout(1);
    StreamEvents recorded(&stream);
    QVERIFY(connectAndWait(stream, recorded, faults->url("http", "/pub"), {}, 3));
    recorded.clear();
    stream.getFile(name, md5Of(content), content.size());
    QTRY_VERIFY_WITH_TIMEOUT(recorded.fileEnded(), 30000);

    QCOMPARE(recorded.lines, events);
    errorText.replace("%1", QString::number(faults->port()));
    QVERIFY2(recorded.lastText.contains(errorText), qPrintable(recorded.lastText));
    const bool finished = events.last() == "fileFinished";
    QCOMPARE(readTestFile(dest->filePath(name)), finished ? content : QByteArray());
    QCOMPARE(QFile::exists(dest->filePath(name)), finished);
}

// A stream sent to another mirror in the middle of a file forgets that file entirely.
void tst_HTTPDownloadStream::reconnectingMidTransferStartsClean()
{
    const QByteArray content = patternBytes(50000, 9);
    QVERIFY(writeTestFile(root.filePath("pub/moved.bin"), content));
    faults->setFaults("/pub/moved.bin", {"stall:1000"});

    HTTPDownloadStream stream(dest->path());
    StreamEvents events(&stream);
    QVERIFY(connectAndWait(stream, events, faults->url("http", "/pub")));
    events.clear();
    stream.getFile("moved.bin", md5Of(content), content.size());
    QTRY_VERIFY_WITH_TIMEOUT(events.lastDone > 0, 20000);

    events.clear();
    QVERIFY(connectAndWait(stream, events, http->url("http", "/pub")));
    QCOMPARE(events.lines, QStringList({"state 1", "state 2", "connected"}));
    QVERIFY(!QFile::exists(dest->filePath("moved.bin")));
    QVERIFY(fetchAndWait(stream, events, "moved.bin", content));
}

void tst_HTTPDownloadStream::endingFromOwnSignal_data()
{
    QTest::addColumn<QString>("endAt"); // the recorded line whose signal ends the stream
    QTest::addColumn<bool>("deleteIt");
    QTest::addColumn<QString>("behaviour"); // "closed" for a mirror that cannot be reached

    for (bool deleteIt : {false, true}) {
        const char *how = deleteIt ? "delete on" : "cancel on";
        QTest::addRow("%s Connecting", how) << "state 1" << deleteIt << "ok";
        QTest::addRow("%s connected", how) << "connected" << deleteIt << "ok";
        QTest::addRow("%s failedToConnect", how) << "failedToConnect" << deleteIt << "closed";
        QTest::addRow("%s Downloading", how) << "state 3" << deleteIt << "ok";
        QTest::addRow("%s progress mid-body", how) << "progress" << deleteIt << "stall:5000";
        QTest::addRow("%s retry message", how) << "message" << deleteIt << "status:500";
        QTest::addRow("%s Connected after the check", how) << "state 2" << deleteIt << "ok";
        QTest::addRow("%s fileFinished", how) << "fileFinished" << deleteIt << "ok";
        QTest::addRow("%s fileError", how) << "fileError 4" << deleteIt << "status:404";
    }
}

void tst_HTTPDownloadStream::endingFromOwnSignal()
{
    QFETCH(QString, endAt);
    QFETCH(bool, deleteIt);
    QFETCH(QString, behaviour);

    const QString name = QString(QTest::currentDataTag()).replace(' ', '-') + ".bin";
    const QByteArray content = patternBytes(200000, 7);
    QVERIFY(writeTestFile(root.filePath("pub/" + name), content));
    faults->setFaults("/pub/" + name, {behaviour});

    QPointer<HTTPDownloadStream> stream = new HTTPDownloadStream(dest->path());
    stream->setRepeatTimeUnit(10);
    StreamEvents events(stream);
    const auto endOn = [&](const QString &line) {
        if (!line.startsWith(endAt) || events.lines.contains("ended"))
            return;
        events.lines << "ended";
        if (deleteIt)
            delete stream;
        else
            stream->cancel();
    };
    const bool whileConnecting =
            QStringList{"state 1", "connected", "failedToConnect"}.contains(endAt);
    if (whileConnecting)
        events.onSignal = endOn;
    const QString port = behaviour == "closed" ? closedPort() : QString::number(faults->port());
    stream->initiateConnection(QUrl("http://127.0.0.1:" + port + "/pub"), {}, 3, 2);
    if (!whileConnecting) {
        QTRY_VERIFY_WITH_TIMEOUT(events.lines.contains("connected"), 20000);
        events.onSignal = endOn;
        stream->getFile(name, md5Of(content), content.size());
    }
    QTRY_VERIFY_WITH_TIMEOUT(events.lines.contains("ended"), 20000);
    QCOMPARE(stream.isNull(), deleteIt);

    // A complete transfer elsewhere gives the ended stream every chance to speak up.
    HTTPDownloadStream witness(dest->path() + "/witness");
    StreamEvents witnessEvents(&witness);
    QVERIFY(connectAndWait(witness, witnessEvents, faults->url("http", "/pub")));
    QVERIFY(fetchAndWait(witness, witnessEvents, name, content));

    const QStringList after = events.lines.mid(events.lines.indexOf("ended") + 1);
    QCOMPARE(after, deleteIt ? QStringList() : QStringList({"state 0"}));
    const bool complete = endAt == "state 2" || endAt == "fileFinished";
    QCOMPARE(QFile::exists(dest->filePath(name)), complete);
    delete stream;
}

ORLIVO_STREAMS_TEST_MAIN(tst_HTTPDownloadStream)
#include "tst_httpdownloadstream.moc"
