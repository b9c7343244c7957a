#include "streams/curltransport.h"
#include "streams/ftpdownloadstream.h"
#include "streams/hashingfile.h"
#include "streams/httpdownloadstream.h"
#include "streams/transportlibrary.h"
#include "tests/support/loopbackserver.h"
#include "tests/support/testfiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QPointer>
#include <QSet>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

namespace {

// Records what a stream says, in order, as short lines: "state 3", "message <text>",
// "failedToConnect", "connected", "fileFinished", "fileError 4". Progress only sets lastDone.
struct StreamEvents
{
    explicit StreamEvents(SingleFileDownloadStream *stream)
    {
        using S = SingleFileDownloadStream;
        QObject::connect(stream, &S::stateChanged, &context,
                         [this](int state) { record("state " + QString::number(state)); });
        QObject::connect(stream, &S::message, &context,
                         [this](const QString &text) { record("message " + text); });
        QObject::connect(stream, &S::failedToConnect, &context,
                         [this](const QString &text) { record("failedToConnect", text); });
        QObject::connect(stream, &S::connected, &context, [this] { record("connected"); });
        QObject::connect(stream, &S::progressCount, &context, [this](qint64 done) {
            lastDone = done;
            if (onSignal)
                onSignal("progress");
        });
        QObject::connect(stream, &S::fileFinished, &context, [this] { record("fileFinished"); });
        QObject::connect(stream, &S::fileError, &context, [this](int error, const QString &text) {
            record("fileError " + QString::number(error), text);
        });
    }

    void record(const QString &line, const QString &text = {})
    {
        lines << line;
        if (!text.isNull())
            lastText = text;
        if (onSignal)
            onSignal(line);
    }
    // True once the current file ended, one way or the other.
    bool fileEnded() const
    {
        return !lines.isEmpty()
               && (lines.last() == "fileFinished" || lines.last().startsWith("fileError"));
    }
    void clear()
    {
        lines.clear();
        lastText.clear();
        lastDone = 0;
    }

    // Runs inside the stream's emission, after the line was recorded.
    std::function<void(const QString &line)> onSignal;
    QObject context;
    QStringList lines;
    QString lastText; // of the last failedToConnect or fileError
    qint64 lastDone = 0;
};

// Connects and waits for the outcome; true when the stream reports connected().
bool connectAndWait(SingleFileDownloadStream &stream, StreamEvents &events, const QString &url,
                    const QString &proxy = {}, int retries = 5)
{
    stream.initiateConnection(QUrl(url), proxy, retries, 2);
    const auto settled = [&] {
        return events.lines.contains("connected") || events.lines.contains("failedToConnect");
    };
    return QTest::qWaitFor(settled, 20000) && events.lines.last() == "connected";
}

// Fetches one file and waits until it ends; true when it finished and holds content. The
// checksum is given in upper case, as a product list may carry it.
bool fetchAndWait(SingleFileDownloadStream &stream, StreamEvents &events, const QString &remotePath,
                  const QByteArray &content)
{
    events.clear();
    stream.getFile(remotePath, md5Of(content).toUpper(), content.size());
    return QTest::qWaitFor([&] { return events.fileEnded(); }, 30000)
           && events.lines.last() == "fileFinished"
           && readTestFile(stream.getDestFilePath()) == content;
}

// Requests tinyproxy has taken, as its log tells.
qsizetype proxiedRequests(const LoopbackServer &proxy)
{
    return proxy.logLines().filter(QStringLiteral("Request (file descriptor")).size();
}

// A loopback port nobody listens on.
quint16 closedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

} // namespace

// HTTP, HTTPS and FTP streams against nginx, pyftpdlib, tinyproxy and the scriptable fault
// server, with proxy variables in the environment that the streams must ignore; and the local
// file that checksums what a download writes.
class tst_DownloadStreams : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void hashingFileAfterSeek();
    void fetchesFiles_data();
    void fetchesFiles();
    void httpFileOutcomes_data();
    void httpFileOutcomes();
    void endingFromOwnSignal_data();
    void endingFromOwnSignal();

private:
    TransportLibrary transportLibrary;
    QTemporaryDir root;
    TestCertificates certificates;
    std::unique_ptr<LoopbackServer> http, https, ftp, ftpWithoutRest, proxy, faults;
    const QByteArray big = patternBytes(32 * 1024 * 1024, 3);
};

void tst_DownloadStreams::initTestCase()
{
    for (int i = 0; i < 60; ++i) {
        QVERIFY(writeTestFile(root.filePath(QStringLiteral("pub/many/%1.dat").arg(i)),
                              patternBytes(i * 7, i)));
    }
    QVERIFY(writeTestFile(root.filePath("pub/big.bin"), big));
    QVERIFY(makeTestCertificates(root.path(), &certificates));
    http = LoopbackServer::nginx(root.path());
    https = LoopbackServer::nginx(root.path(), &certificates);
    ftp = LoopbackServer::ftp(root.path(), "orlivo", "s3cret:/@");
    ftpWithoutRest = LoopbackServer::ftp(root.path(), {}, {}, false);
    proxy = LoopbackServer::proxy();
    faults = LoopbackServer::faultHttp(root.path());
    QVERIFY(http && https && ftp && ftpWithoutRest && proxy && faults);
    // These lead to a closed port, and the exception list would bypass the proxy asked for.
    for (const char *name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
        qputenv(name, "http://127.0.0.1:" + QByteArray::number(closedPort()));
    qputenv("no_proxy", "*");
    qputenv("NO_PROXY", "*");
}

// Bytes written over others are not what a running checksum saw: the file must say so (an empty
// text) rather than give that checksum.
void tst_DownloadStreams::hashingFileAfterSeek()
{
    QTemporaryDir dir;
    HashingFile file(dir.filePath("download"), true);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    const QByteArray content = patternBytes(100000, 5);
    for (qsizetype at = 0; at < content.size(); at += 16384)
        QVERIFY(file.write(content.mid(at, 16384)) > 0);
    QCOMPARE(file.writtenMD5(), md5Of(content));
    QCOMPARE(file.writtenSHA256(),
             QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
    QVERIFY(file.seek(10) && file.write("changed") == 7);
    QCOMPARE(file.writtenMD5(), QString());
    QCOMPARE(file.writtenSHA256(), QString());
}

void tst_DownloadStreams::fetchesFiles_data()
{
    // "http", "https", "ftp", "old ftp" (refusing REST), "closed" (http to a port nobody listens
    // on), "untrusted" (https without the test CA)
    QTest::addColumn<QString>("mirror");
    QTest::addColumn<bool>("viaProxy");
    QTest::addColumn<QString>("userInfo");
    QTest::addColumn<int>("count"); // of small files to fetch; -1: the connection fails

    QTest::newRow("http") << "http" << false << QString() << 5;
    QTest::newRow("https with a user, through proxy") << "https" << true << "reader:secret" << 5;
    QTest::newRow("ftp with a user, many small files")
            << "ftp" << false << "orlivo:s3cret%3A%2F%40" << 60;
    QTest::newRow("ftp anonymous, through proxy, no REST") << "old ftp" << true << QString() << 5;
    QTest::newRow("closed port, log-in step dropped") << "closed" << false << "reader:secret" << -1;
    QTest::newRow("certificate of an unknown CA") << "untrusted" << false << QString() << -1;
    QTest::newRow("ftp log-in refused") << "ftp" << false << "orlivo:wrong" << -1;
}

// Every file after the first travels over the first one's connection, none waits for something
// the event loop was not told about (a second or more each, if it did), a missing one fails, and
// a cancelled one leaves nothing behind.
void tst_DownloadStreams::fetchesFiles()
{
    QFETCH(QString, mirror);
    QFETCH(bool, viaProxy);
    QFETCH(QString, userInfo);
    QFETCH(int, count);
    const QString scheme = mirror == "closed"      ? "http"
                           : mirror == "untrusted" ? "https"
                           : mirror == "old ftp"   ? "ftp"
                                                   : mirror;
    const bool isFtp = scheme == "ftp";
    LoopbackServer &server = mirror == "old ftp" ? *ftpWithoutRest
                             : isFtp             ? *ftp
                             : scheme == "http"  ? *http
                                                 : *https;
    const qsizetype logStart = server.logLines().size();
    const qsizetype proxyLog = proxiedRequests(*proxy);

    QTemporaryDir dest;
    std::unique_ptr<SingleFileDownloadStream> stream;
    if (isFtp)
        stream = std::make_unique<FTPDownloadStream>(dest.path());
    else
        stream = std::make_unique<HTTPDownloadStream>(dest.path());
    stream->setRepeatTimeUnit(10);
    if (mirror != "untrusted")
        stream->setTrustedCaFile(certificates.caFile);
    StreamEvents events(stream.get());
    stream->getFile("big.bin", md5Of("x"), 1); // not connected yet
    QVERIFY(events.lines.isEmpty());
    // A base path with and without a slash at its end.
    QUrl url(server.url(scheme, scheme == "https" ? "/pub/" : "/pub"));
    if (mirror == "closed")
        url.setPort(closedPort());
    url.setUserInfo(userInfo);
    const QString proxyUrl = viaProxy ? proxy->url("http") : "";
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(connectAndWait(*stream, events, url.toString(), proxyUrl, 2), count >= 0);
    if (count < 0) {
        // An FTP server is reached before the log-in fails.
        QCOMPARE(events.lines, isFtp ? QStringList({"state 1", "failedToConnect"})
                                     : QStringList({"failedToConnect"}));
        QVERIFY(!events.lastText.isEmpty());
        return;
    }
    QCOMPARE(events.lines, QStringList({"state 1", "state 2", "connected"}));
    // The session hands out the next file from its fileFinished() slot: that must not run inside
    // the transport's own completion.
    int finishedInside = 0;
    QObject::connect(stream->findChild<CurlTransport *>(), &CurlTransport::commandFinished,
                     &events.context,
                     [&] { finishedInside += events.lines.contains("fileFinished"); });
    for (int i = 0; i < count; ++i) { // the first one empty
        const QString name = QStringLiteral("many/%1.dat").arg(i);
        const QByteArray content = readTestFile(root.filePath("pub/" + name));
        QVERIFY2(fetchAndWait(*stream, events, name, content), qPrintable(events.lines.join('|')));
        QCOMPARE(events.lines, QStringList({"state 3", "state 2", "fileFinished"}));
        QCOMPARE(events.lastDone, qint64(content.size()));
    }
    QVERIFY2(clock.elapsed() < 10000 + 250 * count, "files wait on something");
    QCOMPARE(finishedInside, 0);
    QCOMPARE(proxiedRequests(*proxy) > proxyLog, viaProxy);

    const QStringList log = server.logLines().mid(logStart);
    QSet<QString> connections;
    if (isFtp) {
        const QString user = userInfo.isEmpty() ? "anonymous" : "orlivo";
        QCOMPARE(log.filter("USER '" + user + "' logged in").size(), 1);
        // "127.0.0.1:<control connection's port>-[user] ..."
        for (const QString &line : log.filter("<- RETR"))
            connections.insert(line.section('-', 0, 0));
    } else {
        // The connect step's HEAD, then every GET.
        QCOMPARE(log.size(), 1 + count);
        QVERIFY(log.first().contains(" HEAD /pub"));
        for (int i = 0; i < log.size(); ++i) {
            const QString get = QStringLiteral(" GET /pub/many/%1.dat ").arg(i - 1);
            QVERIFY2(i == 0 || log.at(i).contains(get), qPrintable(log.at(i)));
            connections.insert(log.at(i).section(' ', 0, 0));
        }
    }
    QCOMPARE(connections.size(), 1);

    // A file the server does not have is final at once, over FTP (550) as over HTTP (404).
    events.clear();
    stream->getFile("nothere.bin", md5Of("x"), 1);
    QTRY_VERIFY_WITH_TIMEOUT(events.fileEnded(), 20000);
    QCOMPARE(events.lines, QStringList({"state 3", "state 2", "fileError 4"}));
    QVERIFY(events.lastText.startsWith("ERROR: "));
    QVERIFY(!QFile::exists(dest.filePath("nothere.bin")));

    // Nothing more from a transfer cancelled mid-file, no signal while the stream connects
    // again, and only the rest of the file travels, unless the server cannot resume.
    events.clear();
    events.onSignal = [&](const QString &line) {
        if (line == "progress" && events.lastDone > 0
            && stream->getState() == DownloadStream_Downloading) {
            stream->cancel();
        }
    };
    stream->getFile("big.bin", md5Of(big), big.size());
    QTRY_COMPARE_WITH_TIMEOUT(stream->getState(), DownloadStream_Idle, 20000);
    const qsizetype kept = readTestFile(dest.filePath("big.bin")).size();
    QVERIFY(kept > 0 && kept < big.size());
    events.onSignal = nullptr;
    QVERIFY(connectAndWait(*stream, events, url.toString(), proxyUrl));
    QCOMPARE(events.lines, QStringList({"state 3", "state 0", "state 1", "state 2", "connected"}));
    const qsizetype requests = server.logLines().size();
    QVERIFY(fetchAndWait(*stream, events, "big.bin", big));
    QCOMPARE(events.lines, QStringList({"state 3", "state 2", "fileFinished"}));
    const qsizetype rest = mirror == "old ftp" ? big.size() : big.size() - kept;
    const QString delivery = isFtp ? QStringLiteral("big.bin completed=1 bytes=%1").arg(rest)
                                   : QStringLiteral(" GET /pub/big.bin 206 %1").arg(rest);
    QCOMPARE(server.logLines().mid(requests).filter(delivery).size(), 1);
}

void tst_DownloadStreams::httpFileOutcomes_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("partial"); // bytes left before: > 0 the file's first, < 0 wrong ones
    QTest::addColumn<QStringList>("behaviours");
    QTest::addColumn<int>("attempts");       // 0: the file is given up before any request
    QTest::addColumn<QStringList>("ranges"); // each request's, "" for none
    QTest::addColumn<QString>("end");
    QTest::addColumn<QString>("errorText"); // %1: the server's port, %2: the destination

    const QString refused = "ERROR: Error transferring http://127.0.0.1:%1/pub/";
    const QStringList whole{""};
    QTest::newRow("404 is final at once")
            << "a.bin" << 0 << QStringList{"status:404"} << 1 << whole << "fileError 4"
            << refused + "a.bin - server replied: 404 Not Found";
    QTest::newRow("408, 429 and 5xx are repeated until attempts run out")
            << "b.bin" << 0 << QStringList{"status:408", "status:429", "status:500", "status:503"}
            << 4 << QStringList(4, "") << "fileError 4"
            << refused + "b.bin - server replied: 503 Service Unavailable";
    QTest::newRow("bodies cut, short of their length or stalled are continued")
            << "c.bin" << 0 << QStringList{"cut:5000", "short:5000", "stall:5000"} << 4
            << QStringList{"", "bytes=5000-", "bytes=10000-", "bytes=15000-"} << "fileFinished"
            << QString();
    QTest::newRow("endless body") << "d.bin" << 0 << QStringList{"endless"} << 1 << whole
                                  << "fileError 2"
                                  << "ERROR: Wrong length of %2/d.bin (";
    QTest::newRow("endless list, which has no checksum")
            << "d.ini" << 0 << QStringList{"endless"} << 1 << whole << "fileError 2"
            << "ERROR: %2/d.ini is longer than 67108864 bytes";
    QTest::newRow("body longer than required")
            << "e.bin" << 0 << QStringList{"long:10"} << 1 << whole << "fileError 2"
            << " while required 20000)";
    QTest::newRow("wrong bytes") << "f.bin" << 0 << QStringList{"corrupt"} << 1 << whole
                                 << "fileError 1"
                                 << "ERROR: Wrong checksum for %2/f.bin";
    QTest::newRow("wrong bytes left before: fetched again from the start")
            << "g.bin" << -8000 << QStringList() << 1 << QStringList{"bytes=8000-", ""}
            << "fileFinished" << QString();
    QTest::newRow("server ignoring the range")
            << "h.bin" << 8000 << QStringList{"full"} << 1 << QStringList{"bytes=8000-"}
            << "fileFinished" << QString();
    QTest::newRow("path leading out")
            << "../outside.bin" << 0 << QStringList() << 0 << QStringList() << "fileError 3"
            << "ERROR: failed to detect local path for ../outside.bin";
    QTest::newRow("subdirectory blocked by a file")
            << "plain/inner.bin" << 0 << QStringList() << 0 << QStringList() << "fileError 3"
            << "ERROR: failed creating subdirectory: %2/plain";
    QTest::newRow("directory in the file's place")
            << "folder" << 0 << QStringList() << 0 << QStringList() << "fileError 3"
            << "ERROR: failed creating %2/folder";
}

void tst_DownloadStreams::httpFileOutcomes()
{
    QFETCH(QString, name);
    QFETCH(int, partial);
    QFETCH(QStringList, behaviours);
    QFETCH(int, attempts);
    QFETCH(QStringList, ranges);
    QFETCH(QString, end);
    QFETCH(QString, errorText);

    const QByteArray content = patternBytes(20000, name.at(0).unicode());
    QVERIFY(writeTestFile(root.filePath("pub/" + name), content));
    faults->setFaults("/pub/" + name, behaviours);
    const qsizetype requests = faults->logLines().size();
    QTemporaryDir dest;
    QVERIFY(writeTestFile(dest.filePath("plain"), "x") && QDir(dest.path()).mkdir("folder"));
    QByteArray left = content.left(qAbs(partial));
    for (char &byte : left)
        byte = partial < 0 ? char(~byte) : byte;
    QVERIFY(partial == 0 || writeTestFile(dest.filePath(name), left));

    HTTPDownloadStream stream(dest.path());
    stream.setRepeatTimeUnit(10);
    stream.setStallTimeout(1);
    StreamEvents recorded(&stream);
    QVERIFY(connectAndWait(stream, recorded, faults->url("http", "/pub"), {}, 4));
    recorded.clear();
    // A product list is fetched without a checksum.
    stream.getFile(name, name.endsWith(".ini") ? QString() : md5Of(content), content.size());
    QTRY_VERIFY_WITH_TIMEOUT(recorded.fileEnded(), 30000);

    // Each attempt but the first after a wait.
    QStringList events = attempts ? QStringList{"state 3"} : QStringList();
    if (partial < 0)
        events << "state 3"
               << "message %2/" + name + " is damaged, downloading it again from the start";
    for (int a = 2; a <= attempts; ++a) {
        events << "message Download error. Timeout 2 seconds to repeat."
               << "state 3" << QStringLiteral("message Download attempt %1").arg(a);
    }
    if (attempts)
        events << "state 2";
    events.replaceInStrings("%2", dest.path());
    QCOMPARE(recorded.lines, events << end);
    QStringList asked;
    for (const QString &line : faults->logLines().mid(requests).filter(" GET /pub/" + name + " "))
        asked << line.section(' ', 4);
    QCOMPARE(asked, ranges);
    errorText.replace("%1", QString::number(faults->port())).replace("%2", dest.path());
    QVERIFY2(recorded.lastText.contains(errorText), qPrintable(recorded.lastText));
    const bool finished = end == "fileFinished";
    QCOMPARE(readTestFile(dest.filePath(name)), finished ? content : QByteArray());
    QCOMPARE(QFileInfo(dest.filePath(name)).isFile(), finished);
}

void tst_DownloadStreams::endingFromOwnSignal_data()
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

void tst_DownloadStreams::endingFromOwnSignal()
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
    QUrl url(faults->url("http", "/pub"));
    if (behaviour == "closed")
        url.setPort(closedPort());
    stream->initiateConnection(url, {}, 3, 2);
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
    // What is left is never a complete-looking file but the file's first bytes, to continue.
    const bool complete = endAt == "state 2" || endAt == "fileFinished";
    const QByteArray left = readTestFile(dest.filePath(name));
    QVERIFY(complete ? left == content : left.size() < content.size() && content.startsWith(left));
    delete stream;
}

QTEST_GUILESS_MAIN(tst_DownloadStreams)
#include "tst_downloadstreams.moc"
