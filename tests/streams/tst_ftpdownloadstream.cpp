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
    void fetchesFiles_data();
    void fetchesFiles();

private:
    QString mirror(const QString &userInfo = {}) const;

    TransportLibrary transportLibrary;
    QTemporaryDir root;
    std::unique_ptr<LoopbackServer> server;
    std::unique_ptr<LoopbackServer> proxy;
    const QByteArray big = patternBytes(32 * 1024 * 1024, 3);
};

void tst_FTPDownloadStream::initTestCase()
{
    for (int i = 0; i < 60; ++i) { // the first one empty
        QVERIFY(writeTestFile(root.filePath(QStringLiteral("pub/orlivo/many/%1.dat").arg(i)),
                              patternBytes(i * 7, i)));
    }
    QVERIFY(writeTestFile(root.filePath("pub/orlivo/big.bin"), big));
    server = LoopbackServer::ftp(root.path(), "orlivo", "s3cret:/@");
    proxy = LoopbackServer::proxy();
    QVERIFY(server && proxy);
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
    QTest::addColumn<int>("count"); // of files to fetch; -1: the log-in fails

    QTest::newRow("anonymous") << QString() << false << 5;
    QTest::newRow("user and password, many small files") << "orlivo:s3cret%3A%2F%40" << false << 60;
    QTest::newRow("anonymous through proxy") << QString() << true << 5;
    QTest::newRow("refused log-in") << "orlivo:wrong" << false << -1;
}

// Every file after the first reuses the control connection, none waits for something the event
// loop was not told about (a second or more each, if it did), a missing one is repeated, and a
// cancelled one leaves nothing behind.
void tst_FTPDownloadStream::fetchesFiles()
{
    QFETCH(QString, userInfo);
    QFETCH(bool, viaProxy);
    QFETCH(int, count);
    const qsizetype logStart = server->logLines().size();
    const qsizetype proxyLog = proxiedRequests(*proxy);

    QTemporaryDir dest;
    FTPDownloadStream stream(dest.path());
    stream.setRepeatTimeUnit(10);
    StreamEvents events(&stream);
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(
            connectAndWait(stream, events, mirror(userInfo), viaProxy ? proxy->url("http") : "", 2),
            count >= 0);
    if (count < 0) {
        QCOMPARE(events.lines, QStringList({"state 1", "failedToConnect"}));
        QVERIFY(!events.lastText.isEmpty());
        QCOMPARE(stream.getState(), DownloadStream_Connecting);
        return;
    }
    QCOMPARE(events.lines, QStringList({"state 1", "state 2", "connected"}));
    for (int i = 0; i < count; ++i) {
        const QString name = QStringLiteral("many/%1.dat").arg(i);
        const QByteArray content = readTestFile(root.filePath("pub/orlivo/" + name));
        QVERIFY2(fetchAndWait(stream, events, name, content), qPrintable(events.lines.join('|')));
        QCOMPARE(events.lines, QStringList({"state 3", "state 2", "fileFinished"}));
    }
    QVERIFY2(clock.elapsed() < 10000 + 250 * count, "files wait on something");
    QCOMPARE(proxiedRequests(*proxy) > proxyLog, viaProxy);
    const QStringList log = server->logLines().mid(logStart);
    const QString user = userInfo.isEmpty() ? "anonymous" : "orlivo";
    QCOMPARE(log.filter("USER '" + user + "' logged in").size(), 1);
    QSet<QString> clients; // "127.0.0.1:<control connection's port>-[user] ..."
    for (const QString &line : log.filter("<- RETR"))
        clients.insert(line.section('-', 0, 0));
    QCOMPARE(clients.size(), 1);

    events.clear();
    stream.getFile("nothere.bin", md5Of("x"), 1);
    QTRY_VERIFY_WITH_TIMEOUT(events.fileEnded(), 20000);
    QCOMPARE(events.lines,
             QStringList({"state 3", "message Download error. Timeout 2 seconds to repeat.",
                          "state 3", "message Download attempt 2", "state 2", "fileError 4"}));
    QVERIFY(events.lastText.startsWith("ERROR: "));
    QVERIFY(!QFile::exists(dest.filePath("nothere.bin")));

    // Nothing more from a transfer cancelled mid-file: no partial file, and no signal while the
    // stream connects again and fetches the file in full.
    events.clear();
    events.onSignal = [&](const QString &line) {
        if (line == "progress" && stream.getState() == DownloadStream_Downloading)
            stream.cancel();
    };
    stream.getFile("big.bin", md5Of(big), big.size());
    QTRY_COMPARE_WITH_TIMEOUT(stream.getState(), DownloadStream_Idle, 20000);
    QVERIFY(!QFile::exists(dest.filePath("big.bin")));
    events.onSignal = nullptr;
    QVERIFY(connectAndWait(stream, events, mirror(userInfo), viaProxy ? proxy->url("http") : ""));
    QCOMPARE(events.lines, QStringList({"state 3", "state 0", "state 1", "state 2", "connected"}));
    QVERIFY(fetchAndWait(stream, events, "big.bin", big));
    QCOMPARE(events.lines, QStringList({"state 3", "state 2", "fileFinished"}));
}

QTEST_GUILESS_MAIN(tst_FTPDownloadStream)
#include "tst_ftpdownloadstream.moc"
