#include "streamtesting.h"

#include "streams/ftpdownloadstream.h"

#include <QElapsedTimer>
#include <QSet>
#include <QTemporaryDir>

// FTP streams against pyftpdlib (anonymous and with a user) and tinyproxy.
class tst_FTPDownloadStream : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void fetchesFiles_data();
    void fetchesFiles();
    void refusedLoginFailsToConnect();
    void missingFileIsRepeatedThenGivenUp();
    void manySmallFilesShareOneLogin();
    void cancelDuringTransferStopsEverything();

private:
    QString mirror(const QString &userInfo = {}) const;

    QTemporaryDir root;
    std::unique_ptr<QTemporaryDir> dest;
    std::unique_ptr<LoopbackServer> server;
    std::unique_ptr<LoopbackServer> proxy;
    QByteArray big;
};

void tst_FTPDownloadStream::initTestCase()
{
    QVERIFY(root.isValid());
    QVERIFY(writeTestFile(root.filePath("pub/orlivo/update"), patternBytes(70000, 1)));
    QVERIFY(writeTestFile(root.filePath("pub/orlivo/lib/libfoo.so"), patternBytes(1234, 2)));
    QVERIFY(writeTestFile(root.filePath("pub/orlivo/empty.txt"), QByteArray()));
    for (int i = 0; i < 60; ++i) {
        QVERIFY(writeTestFile(root.filePath(QStringLiteral("pub/orlivo/many/%1.dat").arg(i)),
                              patternBytes(100 + i * 7, i)));
    }
    big = patternBytes(32 * 1024 * 1024, 3);
    QVERIFY(writeTestFile(root.filePath("pub/orlivo/big.bin"), big));

    server = LoopbackServer::ftp(root.path(), "orlivo", "s3cret:/@");
    proxy = LoopbackServer::proxy();
    QVERIFY(server && proxy);
}

void tst_FTPDownloadStream::init()
{
    dest = std::make_unique<QTemporaryDir>();
    QVERIFY(dest->isValid());
}

QString tst_FTPDownloadStream::mirror(const QString &userInfo) const
{
    QUrl url(server->url("ftp", "/pub/orlivo"));
    url.setUserInfo(userInfo);
    return url.toString();
}

void tst_FTPDownloadStream::fetchesFiles_data()
{
    QTest::addColumn<QString>("userInfo");
    QTest::addColumn<bool>("viaProxy");
    QTest::addColumn<QString>("loggedInAs");

    QTest::newRow("anonymous") << QString() << false << "anonymous";
    QTest::newRow("user and password") << "orlivo:s3cret%3A%2F%40" << false << "orlivo";
    QTest::newRow("anonymous through proxy") << QString() << true << "anonymous";
}

void tst_FTPDownloadStream::fetchesFiles()
{
    QFETCH(QString, userInfo);
    QFETCH(bool, viaProxy);
    QFETCH(QString, loggedInAs);

    const qsizetype proxyLog = proxiedRequests(*proxy);
    FTPDownloadStream stream(dest->path());
    StreamEvents events(&stream);
    QVERIFY(connectAndWait(stream, events, mirror(userInfo), viaProxy ? proxy->url("http") : ""));
    QCOMPARE(events.lines, QStringList({"state 1", "state 2", "connected"}));

    for (const QString name : {"update", "lib/libfoo.so", "empty.txt"}) {
        const QByteArray content = readTestFile(root.filePath("pub/orlivo/" + name));
        QVERIFY2(fetchAndWait(stream, events, name, content), qPrintable(events.lines.join('|')));
        QCOMPARE(events.lines, QStringList({"state 3", "state 2", "fileFinished"}));
        QCOMPARE(stream.getDestFilePath(), dest->filePath(name));
    }
    QVERIFY(server->logLines().join('\n').contains("USER '" + loggedInAs + "' logged in"));
    QCOMPARE(proxiedRequests(*proxy) > proxyLog, viaProxy);
}

void tst_FTPDownloadStream::refusedLoginFailsToConnect()
{
    FTPDownloadStream stream(dest->path());
    StreamEvents events(&stream);
    QVERIFY(!connectAndWait(stream, events, mirror("orlivo:wrong")));
    QCOMPARE(events.lines, QStringList({"state 1", "failedToConnect"}));
    QVERIFY(!events.lastText.isEmpty());
    QCOMPARE(stream.getState(), DownloadStream_Connecting);
}

void tst_FTPDownloadStream::missingFileIsRepeatedThenGivenUp()
{
    FTPDownloadStream stream(dest->path());
    stream.setRepeatTimeUnit(10);
    StreamEvents events(&stream);
    QVERIFY(connectAndWait(stream, events, mirror(), {}, 3));

    events.clear();
    stream.getFile("nothere.bin", md5Of("x"), 1);
    QTRY_VERIFY_WITH_TIMEOUT(events.fileEnded(), 20000);
    const QString wait = "message Download error. Timeout 2 seconds to repeat.";
    QCOMPARE(events.lines,
             QStringList({"state 3", wait, "state 3", "message Download attempt 2", wait, "state 3",
                          "message Download attempt 3", "state 2", "fileError 4"}));
    QVERIFY(events.lastText.startsWith("ERROR: "));
    QVERIFY(!QFile::exists(dest->filePath("nothere.bin")));
}

// Every file after the first reuses the control connection, and none waits for something the
// event loop was not told about (libcurl's connect timeout, if it did).
void tst_FTPDownloadStream::manySmallFilesShareOneLogin()
{
    const int logStart = server->logLines().size();
    FTPDownloadStream stream(dest->path());
    StreamEvents events(&stream);
    QElapsedTimer clock;
    clock.start();
    QVERIFY(connectAndWait(stream, events, mirror()));
    for (int i = 0; i < 60; ++i) {
        const QString name = QStringLiteral("many/%1.dat").arg(i);
        QVERIFY(fetchAndWait(stream, events, name,
                             readTestFile(root.filePath("pub/orlivo/" + name))));
    }
    QVERIFY2(clock.elapsed() < 30000, "files wait on something: a second or more each");

    const QStringList log = server->logLines().mid(logStart);
    QCOMPARE(log.filter("<- USER").size(), 1);
    const QStringList retrieved = log.filter("<- RETR");
    QCOMPARE(retrieved.size(), 60);
    QSet<QString> clients; // "127.0.0.1:<control connection's port>-[user] ..."
    for (const QString &line : retrieved)
        clients.insert(line.section('-', 0, 0));
    QCOMPARE(clients.size(), 1);
}

void tst_FTPDownloadStream::cancelDuringTransferStopsEverything()
{
    FTPDownloadStream stream(dest->path());
    StreamEvents events(&stream);
    QVERIFY(connectAndWait(stream, events, mirror()));
    events.clear();
    events.onSignal = [&](const QString &line) {
        if (line == "progress" && stream.getState() == DownloadStream_Downloading)
            stream.cancel();
    };
    stream.getFile("big.bin", md5Of(big), big.size());
    QTRY_COMPARE_WITH_TIMEOUT(stream.getState(), DownloadStream_Idle, 20000);
    QVERIFY(!QFile::exists(dest->filePath("big.bin")));

    // A complete transfer elsewhere gives the cancelled one every chance to speak up.
    FTPDownloadStream witness(dest->path() + "/witness");
    StreamEvents witnessEvents(&witness);
    QVERIFY(connectAndWait(witness, witnessEvents, mirror()));
    QVERIFY(fetchAndWait(witness, witnessEvents, "big.bin", big));
    QCOMPARE(events.lines, QStringList({"state 3", "state 0"}));
    QVERIFY(!QFile::exists(dest->filePath("big.bin")));
}

ORLIVO_STREAMS_TEST_MAIN(tst_FTPDownloadStream)
#include "tst_ftpdownloadstream.moc"
