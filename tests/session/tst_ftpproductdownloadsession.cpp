#include "session/ftpproductdownloadsession.h"

#include "app/apppaths.h"
#include "app/randomgenerator.h"
#include "session/connectionwarmup.h"
#include "streams/curltransport.h"
#include "streams/transportlibrary.h"
#include "tests/support/loopbackserver.h"
#include "tests/support/testfiles.h"
#include "tools/releasepublisher.h"

#include <QDir>
#include <QHash>
#include <QRegularExpression>
#include <QSettings>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>

namespace {

const QString productName = "orlivo";
const QString version = "3061";
const QString listPath = "/" + version + "/" + productName + ".ini";

// By install path. Random bytes stay raw on the mirror; text compresses, so it is packed.
const QHash<QString, QByteArray> &releaseFiles()
{
    static const QByteArray text = QByteArray("Orlivo voice chat, all rights reserved.\n");
    static const QHash<QString, QByteArray> files = {
            {"orlivo", noiseBytes(180000, 1)},        {"empty.dat", {}},
            {"lib/libcore.so", noiseBytes(70000, 2)}, {"README", text.repeated(200)},
            {"data/tiny.txt", noiseBytes(4, 3)},      {"lang/de.qm", noiseBytes(40000, 4)},
            {"lang/en.qm", noiseBytes(30000, 5)},     {"sounds/notes.txt", text.repeated(600)},
    };
    return files;
}

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

// Paths the server delivered in full, one per delivery, from its request log; those of which
// only the rest was asked for end with "+".
QStringList deliveredPaths(const LoopbackServer &server)
{
    QStringList paths;
    for (const QString &line : server.logLines()) {
        const QStringList fields = line.split(' ');
        const QString status = fields.value(3);
        if (fields.value(1) == "GET"
            && (status == "200" || status == "ok" || status.startsWith("trickle")
                || status.startsWith("delay")))
            paths << fields.value(2);
        else if (fields.value(1) == "GET" && status == "206")
            paths << fields.value(2) + "+";
    }
    return paths;
}

// The connections of an nginx request log.
qsizetype connectionCount(const QStringList &requests)
{
    QStringList connections;
    for (const QString &request : requests)
        connections << request.section(' ', 0, 0);
    connections.removeDuplicates();
    return connections.size();
}

// Connections of this machine to a loopback port that are open at both ends.
int establishedConnectionsTo(int port)
{
    QFile table("/proc/net/tcp");
    if (!table.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray remote =
            "0100007F:" + QByteArray::number(port, 16).toUpper().rightJustified(4, '0');
    int count = 0;
    for (const QByteArray &line : table.readAll().split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        count += fields.size() > 3 && fields.at(2) == remote && fields.at(3) == "01";
    }
    return count;
}

} // namespace

// How a session reads its mirror list and settings, and whole sessions against real mirrors on
// loopback as their owner sees them: what they log, which final signal they end with, what the
// mirrors delivered, and what lies in the working directory.
class tst_FTPProductDownloadSession : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void initialize_data();
    void initialize();
    void cleanup();
    void download_data();
    void download();

private:
    std::unique_ptr<LoopbackServer> startMirror(const QString &kind, QStringList *urls);
    QString mirrorPath(const QString &installPath) const;

    TransportLibrary transportLibrary;
    QTemporaryDir published;
    TestCertificates certificates;
    QString root;
    QHash<QString, FileSpecification> entries; // by install path
    // Takes connections and never answers: an upstream that has gone quiet.
    QTcpServer silent;
    // The proxy of an "https-proxied" mirror, for the row that has one.
    std::unique_ptr<LoopbackServer> proxy;
    // Where an "https-redirected" mirror sends every request: HTTPS without HTTP/2, each
    // response at 200 kB/s, so that the streams' transfers there overlap.
    std::unique_ptr<LoopbackServer> redirectTarget;
};

void tst_FTPProductDownloadSession::initialize_data()
{
    QTest::addColumn<QString>("mirrorList");
    QTest::addColumn<QString>("updateData");  // no update data file when null
    QTest::addColumn<QStringList>("mirrors"); // the first ones read, "name|url|retries|timeout"
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("streams");
    QTest::addColumn<QString>("proxy");

    // Too many streams are bounded in the end-to-end runs.
    QTest::newRow("zero, text, negative and wrapped fall back; too many and too large bounded")
            << "[mirrors]\nsize=101\n1\\mirror=m\n2\\mirror=n\n3\\mirror=o\n[m]\nurl=ftp://h/pub\n"
               "retries=0\ntimeout=soon\n[n]\nurl=ftp://h\nretries=-3\ntimeout=4294967295\n[o]\n"
               "url=ftp://h\nretries=101\ntimeout=3601\n"
            << "[current]\nproxy=x\n[update]\nproxy=http://p:8080\nstreams=0\n"
            << QStringList{"m|ftp://h/pub/3.0.1|5|0", "n|ftp://h/3.0.1|5|15",
                           "o|ftp://h/3.0.1|100|3600"}
            << 100 << 1 << "http://p:8080";
    QTest::newRow("defaults; array order; no mirror key reads the top level; no url kept")
            << "[General]\nurl=ftp://top\nretries=3\n[a]\nurl=http://a\n[mirrors]\nsize=3\n"
               "1\\mirror=b\n3\\mirror=a\n"
            << QString()
            << QStringList{"b|/3.0.1|5|15", "|ftp://top/3.0.1|3|15", "a|http://a/3.0.1|5|15"} << 3
            << 4 << QString();
}

void tst_FTPProductDownloadSession::initialize()
{
    QFETCH(QString, mirrorList);
    QFETCH(QString, updateData);
    QFETCH(QStringList, mirrors);

    QTemporaryDir config;
    InitialParameters parameters;
    parameters.mirrorsFile = config.filePath("mirrors.ini");
    parameters.versionPath = "3.0.1";
    parameters.defaultStreams = 4;
    QVERIFY(writeTestFile(parameters.mirrorsFile, mirrorList.toUtf8()));
    if (!updateData.isNull()) {
        parameters.updateDataFile = config.filePath("update.ini");
        QVERIFY(writeTestFile(parameters.updateDataFile, updateData.toUtf8()));
    }

    FTPProductDownloadSession session;
    QVERIFY(session.initialize(parameters));
    QStringList read;
    for (const MarkedSiteData &m : session.getMirrors())
        read << QString("%1|%2|%3|%4").arg(m.name, m.url).arg(m.retries).arg(m.timeout);
    QTEST(int(read.size()), "count");
    QCOMPARE(read.mid(0, mirrors.size()), mirrors);
    QTEST(session.getStreamCount(), "streams");
    QTEST(session.getProxy(), "proxy");
}

void tst_FTPProductDownloadSession::initTestCase()
{
    seedRandomGenerator();
    QVERIFY(silent.listen(QHostAddress::LocalHost));
    QVERIFY(makeTestCertificates(published.path(), &certificates));
    CurlTransport::setDefaultTrustedCaFile(certificates.caFile);
    QTemporaryDir release;
    for (auto file = releaseFiles().begin(); file != releaseFiles().end(); ++file)
        QVERIFY(writeTestFile(release.filePath(file.key()), file.value()));
    // nginx and pyftpdlib report canonical paths.
    root = QFileInfo(published.path()).canonicalFilePath();
    ReleasePublisher publisher(release.path(), productName, version, root);
    QVERIFY2(publisher.publish(), qPrintable(publisher.errors().join('\n')));
    for (const FileSpecification &entry : publisher.entries())
        entries.insert(entry.unpackedName.isEmpty() ? entry.name : entry.unpackedName, entry);
    QCOMPARE(entries.size(), releaseFiles().size());
    QVERIFY(entries.value("README").unpackedMd5 != entries.value("README").md5);
}

void tst_FTPProductDownloadSession::cleanup()
{
    proxy.reset();
    redirectTarget.reset();
    const QDir installation(getAppRootPath());
    for (const QString &path : releaseFiles().keys()) {
        QFile::remove(installation.filePath(path));
        if (path.contains('/'))
            installation.rmpath(QFileInfo(path).path());
    }
}

QString tst_FTPProductDownloadSession::mirrorPath(const QString &installPath) const
{
    const FileSpecification &entry = entries[installPath];
    return "/" + version + "/" + entry.directory + "/" + entry.name;
}

// "http", "https" (HTTP/2), "unsupported" (a scheme no stream speaks), or
// "fault:WHAT=B1+B2...;WHAT=..." (the fault server scripting the next requests of the file
// installed as WHAT, of the list for "list", its manifest for "manifest", every file for "*").
// "@SECONDS" at the end makes the mirror's wait before a repeated attempt that long.
std::unique_ptr<LoopbackServer> tst_FTPProductDownloadSession::startMirror(const QString &kind,
                                                                           QStringList *urls)
{
    std::unique_ptr<LoopbackServer> server;
    if (kind == "unsupported") {
        *urls << "file:///nowhere/";
    } else if (kind.startsWith("fault:")) {
        server = LoopbackServer::faultHttp(root);
        for (const QString &script : kind.mid(6).split(';')) {
            const QString what = script.section('=', 0, 0);
            const QStringList behaviours = script.section('=', 1).split('+');
            for (const QString &target : what == "*" ? entries.keys() : QStringList{what}) {
                server->setFaults(target == "list" ? listPath
                                  : target == "manifest"
                                          ? QString(listPath).replace(".ini", ".manifest")
                                          : mirrorPath(target),
                                  behaviours);
            }
        }
        *urls << server->url("http", "/");
    } else {
        // "https-slow": each response at 30 kB/s; "https-goaway": every connection ended after
        // three requests; for the two .qm files "https-qm-unavailable" answers 503 and
        // "https-qm-silent" nothing at all; "https-proxied" is reached through tinyproxy.
        const bool tls = kind.startsWith("https");
        if (kind == "https-proxied")
            proxy = LoopbackServer::proxy();
        if (kind == "https-redirected")
            redirectTarget =
                    LoopbackServer::nginx(root, &certificates, "limit_rate 200000;", false);
        QHash<QString, QString> directives{
                {"https-slow", "limit_rate 30000;"},
                {"https-goaway", "keepalive_requests 3;"},
                {"https-qm-unavailable", "location ~ \\.qm$ { return 503; }"},
                {"https-qm-missing", "location ~ \\.qm$ { return 404; }"},
                {"https-list-missing", "location ~ \\.ini$ { return 404; }"},
                {"https-list-forged",
                 "location ~ \\.ini$ { return 200 '[orlivo]\\norlivo=0::1\\n'; }"},
                {"https-qm-silent", QString("location ~ \\.qm$ { proxy_pass http://127.0.0.1:%1; }")
                                            .arg(silent.serverPort())}};
        if (redirectTarget)
            directives["https-redirected"] =
                    "return 302 " + redirectTarget->url("https") + "$request_uri;";
        server = LoopbackServer::nginx(root, tls ? &certificates : nullptr, directives.value(kind));
        *urls << server->url(tls ? "https" : "http", "/");
    }
    return server;
}

void tst_FTPProductDownloadSession::download_data()
{
    QTest::addColumn<QString>("mirrors"); // kinds of startMirror(), joined by ' '
    QTest::addColumn<int>("streams");
    // Install path = "installed" (right bytes in the installation), "stale" (wrong bytes
    // there), "complete", "truncated" (continued) or "corrupt" (in the working directory), or
    // what another list left there: "blocked" (a file in place of the download's directory),
    // "occupied" (a directory in place of the download).
    QTest::addColumn<QString>("before"); // joined by ' '

    QTest::addColumn<bool>("finishes"); // with downloadFinished(), else processCancelled()
    // Each the start of a logged line; after "!", of a line that must not be logged.
    QTest::addColumn<QStringList>("lines");
    // Install paths delivered by all mirrors together, each exactly once.
    QTest::addColumn<QStringList>("fetched");

    const QStringList all = releaseFiles().keys();
    const QStringList fresh{"Verification of 8 file(s) complete. Ready: 0, Downloaded: 0."};
    const QString corrupt = "fault:*=" + QStringList(8, "corrupt").join('+');

    // A mirror nobody listens on, an FTP mirror, a list of garbage without a manifest, no
    // mirror listed, and a run with nothing left to fetch are driven by the end-to-end runs.
    QTest::newRow("mirror 0 of a scheme no stream speaks")
            << "unsupported http" << 1 << "" << true
            << QStringList{"Stream 0 got error Unsupported mirror URL file:///nowhere/3061",
                           "Stream 0 change mirror to 1"}
            << all;
    QTest::newRow("mirror 0 fails a file beyond its retries")
            << "fault:README=status:500+status:503 http" << 1 << "" << true
            << QStringList{"Stream 0: Download error. Timeout 0 seconds to repeat.",
                           "Stream 0: Download attempt 2", "Stream 0 change mirror to 1"}
            << all;
    QTest::newRow("list missing on mirror 0, 4 streams")
            << "fault:list=status:404 http" << 4 << "" << true
            << QStringList{"Stream 0 change mirror to 1"} + fresh << all;
    QTest::newRow("list unlike its manifest on mirror 0, nothing of it acted on")
            << "fault:list=corrupt http" << 2 << "" << true
            << QStringList{"Stream 0 change mirror to 1"} << all;

    QTest::newRow("https: HTTP/2, many requests on one connection")
            << "https" << 2 << "" << true << fresh << all;
    QTest::newRow("https through a proxy, one tunnel") << "https-proxied" << 2 << "" << true
                                                       << fresh << all;
    // Asked for beside the manifest, the list's failure is the chain's when it comes to it.
    QTest::newRow("list missing on an HTTP/2 mirror 0")
            << "https-list-missing http" << 2 << "" << true
            << QStringList{"Stream 0 reported error: ERROR: ", "Stream 0 change mirror to 1"} + fresh
            << all;
    QTest::newRow("list unlike its manifest on an HTTP/2 mirror 0, nothing of it acted on")
            << "https-list-forged http" << 2 << "" << true
            << QStringList{"Stream 0 change mirror to 1"} + fresh << all;
    QTest::newRow("a slow mirror's file taken over, continued from its byte")
            << "fault:*=trickle:4000 http" << 2 << "" << true << QStringList{"Stream 1 takes over "}
            << all;
    // Over HTTP/2 the first mirror's streams claim every file before the other's stream is
    // connected: that one must still be tried, and then take over.
    QTest::newRow("a slow HTTP/2 mirror that claimed everything, taken over")
            << "https-slow https" << 2 << "" << true
            << QStringList{"Stream 1 takes over orlivo from stream "} << all;
    QTest::newRow("an HTTP/2 mirror sending every request on to HTTP/1.1")
            << "https-redirected" << 4 << "" << true << fresh << all;
    // The transfers under way when the server ends its connection wait for the next one, rather
    // than each open a connection of its own.
    QTest::newRow("HTTP/2 connection ended every 3 requests")
            << "https-goaway" << 2 << "" << true << fresh << all;
    // The first mirror claims every file, delivers all but two and is the faster; its streams
    // then wait an hour to repeat those two. Both must be taken over, not only the first, which
    // the other mirror tries before it is measured.
    QTest::newRow("files waiting to repeat on a faster mirror, taken over")
            << "https-qm-unavailable@3600 http" << 2 << "" << true
            << QStringList{"Stream 1 takes over de.qm ", "Stream 1 takes over en.qm "} << all;
    // The same for two files of which the faster mirror sends nothing: not even the stall
    // timeout's minute passes.
    QTest::newRow("files on a faster mirror gone silent, taken over")
            << "https-qm-silent http" << 2 << "" << true
            << QStringList{"Stream 1 takes over de.qm ", "Stream 1 takes over en.qm "} << all;
    // With no stream elsewhere to take them over, the stream leaves the silent mirror within
    // seconds, where the stall timeout and the retries would hold it for minutes.
    QTest::newRow("a mirror gone silent, left for the other")
            << "https-qm-silent http" << 1 << "" << true
            << QStringList{"Mirror https://", "Stream 0 change mirror to 1"} << all;
    // The first mirror sends a part of each file and then nothing: it is neither where the
    // other mirror's stream goes for new work, however fast that part came, nor kept.
    QString burstThenSilent = "fault:";
    for (const QString &large : QStringList{"orlivo", "lib/libcore.so", "lang/de.qm", "lang/en.qm"})
        burstThenSilent += large + "=stall:20000;";
    burstThenSilent.chop(1);
    QTest::newRow("a mirror silent after a burst, no place for new work")
            << burstThenSilent + " fault:*=trickle:3000" << 2 << "" << true
            << QStringList{"!Stream 1 change mirror to 0", "Stream 0 change mirror to 1"} << all;
    // Left for its silence, the first mirror is tried again between two files, and is back.
    QTest::newRow("a mirror left for silence, tried again")
            << "fault:orlivo=stall:20000 fault:*=trickle:4000" << 1 << "" << true
            << QStringList{"Stream 0 change mirror to 1", "Stream 0 change mirror to 0"} << all;
    // Without HTTP/2 each small file waits a round trip however fast its mirror: the first
    // mirror's streams, which only get small files, must not leave it for one that trickles the
    // large file.
    QTest::newRow("small files a round trip each, their mirror not left for a slower one")
            << "fault:*=delay:400 fault:orlivo=trickle:4000" << 2 << "" << true
            << QStringList{"!Stream 0 change mirror to 1"} << all;
    QTest::newRow("the slow mirror left when the other failed")
            << "fault:*=status:404 fault:*=trickle:300" << 2 << "" << true
            << QStringList{"Stream 0 change mirror to 1"} << all;

    QTest::newRow("an HTTP/2 mirror failing its last files, the other mirror left to them")
            << "https-qm-missing http" << 1 << "" << true
            << QStringList{"Stream 0 change mirror to 1"} << all;

    QTest::newRow("every file corrupt everywhere")
            << corrupt + " " + corrupt << 4 << "" << false << QStringList() << QStringList();

    QTest::newRow("resumed")
            << "http" << 2
            << "orlivo=installed README=installed lib/libcore.so=complete empty.dat=complete "
               "data/tiny.txt=truncated lang/de.qm=corrupt lang/en.qm=stale"
            << true << QStringList{"Verification of 8 file(s) complete. Ready: 2, Downloaded: 2."}
            << QStringList{"data/tiny.txt", "lang/de.qm", "lang/en.qm", "sounds/notes.txt"};
    QTest::newRow("resumed where another list left its files")
            << "http" << 2 << "sounds/notes.txt=blocked README=occupied" << true << fresh << all;
}

// The owner deletes the session inside the slot of its final signal, as the window does.
void tst_FTPProductDownloadSession::download()
{
    QFETCH(QString, mirrors);
    QFETCH(int, streams);
    QFETCH(QString, before);
    QFETCH(bool, finishes);
    QFETCH(QStringList, lines);
    QFETCH(QStringList, fetched);

    QTemporaryDir work;
    const QDir installation(getAppRootPath());
    QStringList upToDate;
    QStringList kept;
    QStringList truncated;
    for (const QString &item : before.split(' ', Qt::SkipEmptyParts)) {
        const QString path = item.section('=', 0, 0);
        const QString state = item.section('=', 1);
        const FileSpecification &entry = entries[path];
        const QString download = work.filePath(entry.directory + "/" + entry.name);
        if (state == "blocked" || state == "occupied") {
            QVERIFY(writeTestFile(state == "blocked" ? QFileInfo(download).path()
                                                     : download + "/left",
                                  "another list's"));
            continue;
        }
        const bool inInstallation = state == "installed" || state == "stale";
        QByteArray bytes = state == "installed" ? releaseFiles()[path]
                           : state == "stale"   ? QByteArray("old version")
                                                : readTestFile(root + mirrorPath(path));
        if (state == "truncated") {
            bytes.chop(bytes.size() / 2 + 1);
            truncated << path;
        }
        if (state == "corrupt")
            bytes[bytes.size() / 2] = char(~bytes.at(bytes.size() / 2));
        if (state == "installed")
            upToDate << "File " + installation.filePath(path) + " up to date";
        if (state == "complete")
            kept << path;
        QVERIFY(writeTestFile(inInstallation ? installation.filePath(path) : download, bytes));
    }

    QStringList urls;
    std::vector<std::unique_ptr<LoopbackServer>> servers;
    QHash<int, int> waits;
    QList<int> listlessPorts;
    for (const QString &kind : mirrors.split(' ', Qt::SkipEmptyParts)) {
        if (kind.contains('@'))
            waits[int(servers.size())] = kind.section('@', 1).toInt();
        servers.push_back(startMirror(kind.section('@', 0, 0), &urls));
        QVERIFY(kind == "unsupported" || servers.back());
        if (kind == "https-list-missing")
            listlessPorts << QUrl(urls.last()).port();
    }
    InitialParameters parameters;
    parameters.productListName = productName;
    parameters.versionPath = version;
    parameters.mirrorsFile = work.filePath("config/mirrors.ini");
    parameters.updateDataFile = work.filePath("config/update.ini");
    parameters.tempDirectory = work.path();
    parameters.resumeSession = !before.isEmpty();
    QVERIFY(writeTestFile(parameters.mirrorsFile, mirrorsIni(urls)));
    for (auto wait = waits.cbegin(); wait != waits.cend(); ++wait)
        QSettings(parameters.mirrorsFile, QSettings::IniFormat)
                .setValue(QString("m%1/timeout").arg(wait.key() + 1), wait.value());
    QString updateData = QString("[update]\nstreams=%1\n").arg(streams);
    if (proxy) {
        QUrl proxyUrl(proxy->url("http"));
        proxyUrl.setUserName(LoopbackServer::proxyUser);
        proxyUrl.setPassword(LoopbackServer::proxyPassword);
        updateData += "proxy=" + proxyUrl.toString() + "\n";
    }
    QVERIFY(writeTestFile(parameters.updateDataFile, updateData.toUtf8()));

    using Session = FTPProductDownloadSession;
    auto session = std::make_unique<Session>();
    QObject owner;
    QStringList log; // messages, and the final signals by name
    QPair<quint64, quint64> progress;
    connect(session.get(), &Session::message, &owner, [&](const QString &text) { log << text; });
    connect(session.get(), &Session::progressCount, &owner,
            [&](quint64 done, quint64 total) { progress = qMakePair(done, total); });
    // A mirror left for its list keeps none of the session's connections, the one made ahead
    // of its start included: its server would go on sending what nobody reads.
    int openToListless = 0;
    const auto end = [&](const QString &signal) {
        log << signal;
        for (const int port : std::as_const(listlessPorts))
            openToListless += establishedConnectionsTo(port);
        session.reset();
    };
    connect(session.get(), &Session::downloadFinished, &owner, [&] { end("downloadFinished"); });
    connect(session.get(), &Session::processCancelled, &owner, [&] { end("processCancelled"); });
    session->initialize(parameters);
    session->holdWarmConnection(
            std::make_unique<ConnectionWarmup>(parameters.mirrorsFile, parameters.updateDataFile));
    session->startUpdate();
    QTRY_VERIFY_WITH_TIMEOUT(!session, 60000);
    // Whatever the streams still had queued must go nowhere.
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();

    QCOMPARE(log.last(), QString(finishes ? "downloadFinished" : "processCancelled"));
    QCOMPARE(openToListless, 0);
    QCOMPARE(log.count("downloadFinished") + log.count("processCancelled"), 1);
    for (const QString &line : lines) {
        const bool absent = line.startsWith('!');
        const bool found = std::any_of(log.cbegin(), log.cend(), [&](const QString &logged) {
            return logged.startsWith(line.mid(absent ? 1 : 0));
        });
        QVERIFY2(found != absent, qPrintable(line + "\n" + log.join('\n')));
    }
    const QString lastMessage = log.at(log.size() - 2);
    if (!finishes) {
        QVERIFY(lastMessage.endsWith("can't continue - all mirrors reported error"));
        return;
    }
    QCOMPARE(lastMessage, QString("Download finished."));
    QCOMPARE(sorted(log.filter(" up to date")), sorted(upToDate));
    quint64 total = 0;
    for (const FileSpecification &entry : std::as_const(entries))
        total += entry.size;
    QCOMPARE(progress, qMakePair(total, total));

    QStringList expected{listPath};
    // The forged list came whole, and was refused.
    if (mirrors.startsWith("https-list-forged"))
        expected << listPath;
    QStringList delivered;
    for (const QString &path : fetched)
        expected << mirrorPath(path) + (truncated.contains(path) ? "+" : "");
    // A file taken over from a slower mirror went on there from the byte it had reached; one that
    // got an error status instead of bytes there is fetched whole.
    const bool takenWhole = mirrors.contains("https-qm-");
    for (const QString &line : log.filter(QRegularExpression("^Stream \\d+ takes over "))) {
        const QString name = line.section(' ', 4, 4);
        for (const FileSpecification &entry : std::as_const(entries)) {
            if (entry.name == name && !takenWhole)
                expected << "/" + version + "/" + entry.directory + "/" + name + "+";
        }
    }
    for (const auto &server : servers)
        delivered << (server ? deliveredPaths(*server) : QStringList());
    if (redirectTarget)
        delivered << deliveredPaths(*redirectTarget);
    // With no key trusted the manifest is still fetched, for its checksums, from every mirror
    // whose list is asked for.
    QVERIFY(delivered.removeAll(QString(listPath).replace(".ini", ".manifest")) > 0);
    QCOMPARE(sorted(delivered), sorted(expected));
    for (const auto &server : servers) {
        const QStringList requests = server ? server->logLines() : QStringList();
        // A mirror that failed is asked nothing more.
        const qsizetype failed = requests.indexOf(QRegularExpression(".* status:404$"));
        QVERIFY2(failed < 0 || failed == requests.size() - 1, qPrintable(requests.join('\n')));
        // Over HTTP/2 every stream's requests share one connection, which only the first
        // stream's connect step opened, with its TLS handshake and no request: nginx's second,
        // after the probe that saw it ready.
        if (mirrors == "https") {
            for (const QString &request : requests)
                QCOMPARE(request.section(' ', 0, 0), QString("2"));
            QCOMPARE(requests.filter(QRegularExpression("^\\S+ HEAD ")).size(), 0);
            // The list was asked for by a stream of its own while the manifest came.
            QVERIFY(log.indexOf(QRegularExpression("^Stream [1-9]\\d* connected$"))
                    < log.indexOf("Download file list retrieved."));
        }
        if (mirrors == "https-goaway") {
            QVERIFY2(connectionCount(requests) <= requests.size() / 3 + 1,
                     qPrintable(requests.join('\n')));
            QVERIFY2(log.filter("Download error").isEmpty(), qPrintable(log.join('\n')));
        }
    }
    // Sent on to a server that does not multiplex, the files go over a connection per stream
    // there: not all over one, nor over one for each of the many requests once in flight.
    if (redirectTarget) {
        const QStringList requests = redirectTarget->logLines();
        const qsizetype connections = connectionCount(requests);
        QVERIFY2(connections > 1 && connections <= streams, qPrintable(requests.join('\n')));
    }
    // Through a proxy too the connect step's connection carries everything.
    if (proxy)
        QCOMPARE(proxy->logLines().filter("): CONNECT ").size(), 1);
    // A packed file fetched now is kept as what it unpacks to, the packed download gone.
    for (const QString &path : fetched + kept) {
        const FileSpecification &entry = entries[path];
        const QString local = work.filePath(entry.directory + "/" + entry.name);
        if (entry.isPacked() && fetched.contains(path)) {
            QVERIFY2(!QFile::exists(local), qPrintable(path));
            QCOMPARE(md5Of(readTestFile(entry.patchedPath(work.path()))), entry.unpackedMd5);
        } else {
            QCOMPARE(readTestFile(local), readTestFile(root + mirrorPath(path)));
        }
    }
    // A stream relayed twice would report each of its connections twice.
    for (int s = 0; s < streams; ++s) {
        const QString stream = QString("Stream %1 ").arg(s);
        const qsizetype connections = 1 + log.filter(stream + "change mirror to").size()
                                      - log.filter(stream + "got error").size();
        QCOMPARE(log.count(stream + "connected"), connections);
    }
}

QTEST_GUILESS_MAIN(tst_FTPProductDownloadSession)
#include "tst_ftpproductdownloadsession.moc"
