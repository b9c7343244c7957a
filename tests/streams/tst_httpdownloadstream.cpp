#include "streamtesting.h"

#include "streams/curltransport.h"
#include "streams/httpdownloadstream.h"

#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QSet>
#include <QTemporaryDir>

// HTTP and HTTPS streams against nginx, tinyproxy and the scriptable fault server, with proxy
// variables in the environment that the streams must ignore.
class tst_HTTPDownloadStream : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void fetchesFiles_data();
    void fetchesFiles();
    void getFile_data();
    void getFile();
    void endingFromOwnSignal_data();
    void endingFromOwnSignal();

private:
    TransportLibrary transportLibrary;
    QTemporaryDir root;
    TestCertificates certificates;
    std::unique_ptr<LoopbackServer> http, https, proxy, faults;
};

void tst_HTTPDownloadStream::initTestCase()
{
    QVERIFY(writeTestFile(root.filePath("pub/update"), patternBytes(300000, 1)));
    QVERIFY(writeTestFile(root.filePath("pub/lib/libfoo.so"), patternBytes(1234, 2)));
    QVERIFY(writeTestFile(root.filePath("pub/empty.txt"), QByteArray()));
    QVERIFY(makeTestCertificates(root.path(), &certificates));
    http = LoopbackServer::nginx(root.path());
    https = LoopbackServer::nginx(root.path(), &certificates);
    proxy = LoopbackServer::proxy();
    faults = LoopbackServer::faultHttp(root.path());
    QVERIFY(http && https && proxy && faults);
    // These lead to a closed port, and the exception list would bypass the proxy asked for.
    for (const char *name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
        qputenv(name, "http://127.0.0.1:" + closedPort().toLatin1());
    qputenv("no_proxy", "*");
    qputenv("NO_PROXY", "*");
}

void tst_HTTPDownloadStream::fetchesFiles_data()
{
    // "http", "https", "closed" (a port nobody listens on), "untrusted" (https without the CA)
    QTest::addColumn<QString>("mirror");
    QTest::addColumn<bool>("viaProxy");
    QTest::addColumn<QString>("userInfo");

    QTest::newRow("http") << "http" << false << QString();
    QTest::newRow("https with the test CA") << "https" << false << QString();
    QTest::newRow("http with a user, through proxy") << "http" << true << "reader:secret";
    QTest::newRow("https through proxy") << "https" << true << QString();
    QTest::newRow("closed port, log-in step dropped") << "closed" << false << "reader:secret";
    QTest::newRow("certificate of an unknown CA") << "untrusted" << false << QString();
}

void tst_HTTPDownloadStream::fetchesFiles()
{
    QFETCH(QString, mirror);
    QFETCH(bool, viaProxy);
    QFETCH(QString, userInfo);
    LoopbackServer &server = mirror == "http" ? *http : *https;
    const qsizetype logStart = server.logLines().size();
    const qsizetype proxyLog = proxiedRequests(*proxy);

    QTemporaryDir dest;
    HTTPDownloadStream stream(dest.path());
    if (mirror != "untrusted")
        stream.setTrustedCaFile(certificates.caFile);
    StreamEvents events(&stream);
    stream.getFile("update", md5Of("x"), 1); // not connected yet
    QVERIFY(events.lines.isEmpty());
    // A base path with and without a slash at its end.
    QUrl url(mirror == "closed" ? "http://127.0.0.1:" + closedPort() + "/pub"
             : mirror == "http" ? server.url("http", "/pub")
                                : server.url("https", "/pub/"));
    url.setUserInfo(userInfo);
    const bool connects = mirror == "http" || mirror == "https";
    QCOMPARE(connectAndWait(stream, events, url.toString(), viaProxy ? proxy->url("http") : ""),
             connects);
    if (!connects) {
        QCOMPARE(events.lines, QStringList({"failedToConnect"}));
        QVERIFY(!events.lastText.isEmpty());
        QCOMPARE(stream.getState(), DownloadStream_Idle);
        return;
    }
    QCOMPARE(events.lines, QStringList({"state 1", "state 2", "connected"}));
    // The session hands out the next file from its fileFinished() slot: that must not run inside
    // the transport's own completion.
    int finishedInside = 0;
    QObject::connect(stream.findChild<CurlTransport *>(), &CurlTransport::commandFinished,
                     &events.context,
                     [&] { finishedInside += events.lines.contains("fileFinished"); });

    const QStringList files = {"update", "lib/libfoo.so", "empty.txt"};
    for (const QString &name : files) {
        const QByteArray content = readTestFile(root.filePath("pub/" + name));
        QVERIFY2(fetchAndWait(stream, events, name, content), qPrintable(events.lines.join('|')));
        QCOMPARE(events.lines, QStringList({"state 3", "state 2", "fileFinished"}));
        QCOMPARE(events.lastDone, qint64(content.size()));
    }
    QCOMPARE(finishedInside, 0);
    QCOMPARE(proxiedRequests(*proxy) > proxyLog, viaProxy);

    // The connect step's HEAD and every GET travelled over one connection.
    const QStringList log = server.logLines().mid(logStart);
    QCOMPARE(log.size(), 1 + files.size());
    QVERIFY(log.first().contains(" HEAD /pub"));
    QSet<QString> connections;
    for (int i = 0; i < log.size(); ++i) {
        QVERIFY2(i == 0 || log.at(i).contains(" GET /pub/" + files.at(i - 1) + " "),
                 qPrintable(log.at(i)));
        connections.insert(log.at(i).section(' ', 0, 0));
    }
    if (!viaProxy) // tinyproxy opens a connection of its own per plain HTTP request
        QCOMPARE(connections.size(), 1);
}

void tst_HTTPDownloadStream::getFile_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QStringList>("behaviours");
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<QString>("errorText"); // %1: the server's port, %2: the destination

    const QString wait = "message Download error. Timeout 2 seconds to repeat.";
    const QStringList retried = {"state 3", wait, "state 3", "message Download attempt 2"};
    const QStringList lastRetry = {wait, "state 3", "message Download attempt 3"};
    const QStringList finished = {"state 2", "fileFinished"};
    const QStringList given = {"state 3", "state 2"};
    const QStringList localError = {"fileError 3"};

    QTest::newRow("404 is final at once")
            << "a.bin" << QStringList{"status:404"} << given + QStringList{"fileError 4"}
            << "ERROR: Error transferring http://127.0.0.1:%1/pub/a.bin - server replied: 404 "
               "Not Found";
    QTest::newRow("5xx, 408 and 429 are repeated until attempts run out")
            << "b.bin" << QStringList{"status:500", "status:408", "status:429"}
            << retried + lastRetry + QStringList{"state 2", "fileError 4"} << "429";
    QTest::newRow("connection cut mid-body")
            << "c.bin" << QStringList{"cut:5000"} << retried + finished << QString();
    QTest::newRow("body without length ends short")
            << "d.bin" << QStringList{"short:5000"} << retried + finished << QString();
    QTest::newRow("stall mid-body")
            << "e.bin" << QStringList{"stall:5000"} << retried + finished << QString();
    QTest::newRow("endless body") << "f.bin" << QStringList{"endless"}
                                  << given + QStringList{"fileError 2"}
                                  << "ERROR: Wrong length of %2/f.bin (";
    QTest::newRow("body longer than required")
            << "g.bin" << QStringList{"long:10"} << given + QStringList{"fileError 2"}
            << " while required 20000)";
    QTest::newRow("wrong bytes") << "h.bin" << QStringList{"corrupt"}
                                 << given + QStringList{"fileError 1"}
                                 << "ERROR: Wrong checksum for %2/h.bin";
    QTest::newRow("path leading out") << "../outside.bin" << QStringList() << localError
                                      << "ERROR: failed to detect local path for ../outside.bin";
    QTest::newRow("subdirectory blocked by a file")
            << "plain/inner.bin" << QStringList() << localError
            << "ERROR: failed creating subdirectory: %2/plain";
    QTest::newRow("directory in the file's place")
            << "folder" << QStringList() << localError << "ERROR: failed creating %2/folder";
}

void tst_HTTPDownloadStream::getFile()
{
    QFETCH(QString, name);
    QFETCH(QStringList, behaviours);
    QFETCH(QStringList, events);
    QFETCH(QString, errorText);

    const QByteArray content = patternBytes(20000, name.at(0).unicode());
    QVERIFY(writeTestFile(root.filePath("pub/" + name), content));
    faults->setFaults("/pub/" + name, behaviours);
    QTemporaryDir dest;
    QVERIFY(writeTestFile(dest.filePath("plain"), "x") && QDir(dest.path()).mkdir("folder"));

    HTTPDownloadStream stream(dest.path());
    stream.setRepeatTimeUnit(10);
    stream.setStallTimeout(1);
    StreamEvents recorded(&stream);
    QVERIFY(connectAndWait(stream, recorded, faults->url("http", "/pub"), {}, 3));
    recorded.clear();
    stream.getFile(name, md5Of(content), content.size());
    QTRY_VERIFY_WITH_TIMEOUT(recorded.fileEnded(), 30000);

    QCOMPARE(recorded.lines, events);
    errorText.replace("%1", QString::number(faults->port())).replace("%2", dest.path());
    QVERIFY2(recorded.lastText.contains(errorText), qPrintable(recorded.lastText));
    const bool finished = events.last() == "fileFinished";
    QCOMPARE(readTestFile(dest.filePath(name)), finished ? content : QByteArray());
    QCOMPARE(QFileInfo(dest.filePath(name)).isFile(), finished);
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

    QTemporaryDir dest;
    QPointer<HTTPDownloadStream> stream = new HTTPDownloadStream(dest.path());
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
    HTTPDownloadStream witness(dest.path() + "/witness");
    StreamEvents witnessEvents(&witness);
    QVERIFY(connectAndWait(witness, witnessEvents, faults->url("http", "/pub")));
    QVERIFY(fetchAndWait(witness, witnessEvents, name, content));

    const QStringList after = events.lines.mid(events.lines.indexOf("ended") + 1);
    QCOMPARE(after, deleteIt ? QStringList() : QStringList({"state 0"}));
    const bool complete = endAt == "state 2" || endAt == "fileFinished";
    QCOMPARE(QFile::exists(dest.filePath(name)), complete);
    delete stream;
}

QTEST_GUILESS_MAIN(tst_HTTPDownloadStream)
#include "tst_httpdownloadstream.moc"
