#include "session/ftpproductdownloadsession.h"

#include "app/apppaths.h"
#include "app/randomgenerator.h"
#include "streams/transportlibrary.h"
#include "tests/support/loopbackserver.h"
#include "tools/releasepublisher.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

const QString productName = "orlivo";
const QString version = "3061";
const QString listPath = "/" + version + "/" + productName + ".ini";

QByteArray makeBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = char(generator.bounded(256));
    return bytes;
}

// By install path. Text compresses, so the publisher packs those files.
const QHash<QString, QByteArray> &releaseFiles()
{
    static const QByteArray text = QByteArray("Orlivo voice chat, all rights reserved.\n");
    static const QHash<QString, QByteArray> files = {
            {"orlivo", makeBytes(180000, 1)},        {"empty.dat", {}},
            {"lib/libcore.so", makeBytes(70000, 2)}, {"README", text.repeated(200)},
            {"data/tiny.txt", makeBytes(1, 3)},      {"lang/de.qm", makeBytes(40000, 4)},
            {"lang/en.qm", makeBytes(30000, 5)},     {"sounds/notes.txt", text.repeated(600)},
    };
    return files;
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate)
           && file.write(content) == content.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

// Paths the server delivered in full, one per delivery, from its request log.
QStringList deliveredPaths(const LoopbackServer &server, const QString &ftpRoot)
{
    QStringList paths;
    for (const QString &line : server.logLines()) {
        const QStringList fields = line.split(' ');
        const int retr = int(fields.indexOf("RETR"));
        if (retr > 0 && line.contains("completed=1"))
            paths << fields.value(retr + 1).mid(ftpRoot.size());
        else if (fields.value(1) == "GET" && (fields.value(3) == "200" || fields.value(3) == "ok"))
            paths << fields.value(2);
    }
    return paths;
}

} // namespace

// Whole sessions against real mirrors on loopback, as their owner sees them: what they log, which
// final signal they end with, what the mirrors delivered, and what lies in the working directory.
class tst_SessionDownload : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void download_data();
    void download();

private:
    std::unique_ptr<LoopbackServer> startMirror(const QString &kind, QStringList *urls);
    QString mirrorPath(const QString &installPath) const;

    TransportLibrary transportLibrary;
    QTemporaryDir published;
    QString root;
    QHash<QString, FileSpecification> entries; // by install path
    QStringList installed;
};

void tst_SessionDownload::initTestCase()
{
    seedRandomGenerator();
    QTemporaryDir release;
    for (auto file = releaseFiles().begin(); file != releaseFiles().end(); ++file)
        QVERIFY(writeFile(release.filePath(file.key()), file.value()));
    // nginx and pyftpdlib report canonical paths.
    root = QFileInfo(published.path()).canonicalFilePath();
    ReleasePublisher publisher(release.path(), productName, version, root);
    QVERIFY2(publisher.publish(), qPrintable(publisher.errors().join('\n')));
    for (const FileSpecification &entry : publisher.entries())
        entries.insert(entry.unpackedName.isEmpty() ? entry.name : entry.unpackedName, entry);
    QCOMPARE(entries.size(), releaseFiles().size());
    QVERIFY(entries.value("README").unpackedMd5 != entries.value("README").md5);
}

void tst_SessionDownload::cleanup()
{
    const QDir installation(getAppRootPath());
    for (const QString &name : std::as_const(installed)) {
        QFile::remove(installation.filePath(name));
        if (name.contains('/'))
            installation.rmpath(QFileInfo(name).path());
    }
    installed.clear();
}

QString tst_SessionDownload::mirrorPath(const QString &installPath) const
{
    const FileSpecification &entry = entries[installPath];
    return "/" + version + "/" + entry.directory + "/" + entry.name;
}

// "http", "ftp", "unsupported" (a scheme no stream speaks), "closed" (nobody listens), "nolist" (an
// empty tree), "badlist" (a list that does not parse), or "fault:WHAT=B1+B2..." (the fault server
// scripting the next requests of the file installed as WHAT, of the list for "list", of every file
// for "*").
std::unique_ptr<LoopbackServer> tst_SessionDownload::startMirror(const QString &kind,
                                                                 QStringList *urls)
{
    static QTemporaryDir emptyRoot;
    static QTemporaryDir badRoot;
    std::unique_ptr<LoopbackServer> server;
    if (kind == "unsupported") {
        *urls << "file:///nowhere/";
        return server;
    }
    if (kind == "closed") {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        *urls << QString("http://127.0.0.1:%1/").arg(probe.serverPort());
        return server;
    }
    if (kind == "ftp") {
        server = LoopbackServer::ftp(root);
    } else if (kind == "nolist") {
        server = LoopbackServer::nginx(emptyRoot.path());
    } else if (kind == "badlist") {
        writeFile(badRoot.path() + listPath, "[orlivo]\norlivo=not::a::valid::entry\n");
        server = LoopbackServer::nginx(badRoot.path());
    } else if (kind.startsWith("fault:")) {
        server = LoopbackServer::faultHttp(root);
        const QString what = kind.section(':', 1).section('=', 0, 0);
        const QStringList behaviours = kind.section('=', 1).split('+');
        const QStringList targets = what == "*" ? QStringList(entries.keys()) : QStringList{what};
        for (const QString &target : targets)
            server->setFaults(target == "list" ? listPath : mirrorPath(target), behaviours);
    } else {
        server = LoopbackServer::nginx(root);
    }
    if (server)
        *urls << server->url(kind == "ftp" ? "ftp" : "http", "/");
    return server;
}

void tst_SessionDownload::download_data()
{
    QTest::addColumn<QStringList>("mirrors");
    QTest::addColumn<int>("streams");
    // Install path = "installed" (right bytes in the installation), "stale" (wrong bytes
    // there), "mirrorCopy" (the mirror's bytes under the mirror's name there), "complete",
    // "truncated" or "corrupt" (in the working directory).
    QTest::addColumn<QStringList>("before");
    QTest::addColumn<bool>("deleteAtEnd");
    QTest::addColumn<bool>("finishes");
    QTest::addColumn<QStringList>("lines");
    // Install paths delivered by all mirrors together, each exactly once; "*" for every file.
    QTest::addColumn<QStringList>("fetched");

    const QStringList none;
    const QStringList all{"*"};
    const QString fresh = "Verification of 8 file(s) complete. Ready: 0, Downloaded: 0.";
    QTest::newRow("http, 1 stream")
            << QStringList{"http"} << 1 << none << false << true << QStringList{fresh} << all;
    QTest::newRow("http, 4 streams")
            << QStringList{"http"} << 4 << none << false << true << QStringList{fresh} << all;
    // An empty file is known empty from its SIZE reply and never retrieved over FTP.
    QStringList allButEmpty = QStringList(releaseFiles().keys());
    allButEmpty.removeAll("empty.dat");
    QTest::newRow("ftp, 1 stream") << QStringList{"ftp"} << 1 << none << false << true
                                   << QStringList{fresh} << allButEmpty;
    QTest::newRow("ftp, 4 streams, deleted in downloadFinished")
            << QStringList{"ftp"} << 4 << none << true << true << QStringList{fresh} << allButEmpty;

    QTest::newRow("mirror 0 unreachable")
            << QStringList{"closed", "http"} << 2 << none << false << true
            << QStringList{"Stream 0 change mirror to 1", "Stream 1 change mirror to 1"} << all;
    QTest::newRow("mirror 0 of a scheme no stream speaks")
            << QStringList{"unsupported", "http"} << 1 << none << false << true
            << QStringList{"Stream 0 got error Unsupported mirror URL file:///nowhere/3061",
                           "Stream 0 change mirror to 1"}
            << all;
    QTest::newRow("mirror 0 serves a corrupt file")
            << QStringList{"fault:lib/libcore.so=corrupt", "http"} << 1 << none << false << true
            << QStringList{"Stream 0 change mirror to 1"} << all;
    QTest::newRow("mirror 0 fails a file beyond its retries")
            << QStringList{"fault:README=status:500+status:503", "http"} << 1 << none << false
            << true
            << QStringList{"Stream 0: Download error. Timeout 0 seconds to repeat.",
                           "Stream 0: Download attempt 2", "Stream 0 change mirror to 1"}
            << all;
    QTest::newRow("list missing on mirror 0")
            << QStringList{"fault:list=status:404", "http"} << 2 << none << false << true
            << QStringList{"Stream 0 change mirror to 1"} << all;

    QTest::newRow("every mirror closed") << QStringList{"closed", "closed"} << 1 << none << false
                                         << false << QStringList() << none;
    QTest::newRow("every mirror closed, 4 streams, deleted in processCancelled")
            << QStringList{"closed", "closed"} << 4 << none << true << false << QStringList()
            << none;
    QTest::newRow("list missing everywhere") << QStringList{"nolist", "nolist"} << 2 << none
                                             << false << false << QStringList() << none;
    QTest::newRow("every file corrupt everywhere, deleted in processCancelled")
            << QStringList{"fault:*=" + QStringList(8, "corrupt").join('+'),
                           "fault:*=" + QStringList(8, "corrupt").join('+')}
            << 4 << none << true << false << QStringList() << none;
    QTest::newRow("no mirror listed, deleted in processCancelled")
            << QStringList() << 2 << none << true << false << QStringList() << none;
    QTest::newRow("unusable list, deleted in downloadFinished")
            << QStringList{"badlist"} << 2 << none << true << true << QStringList{"Can't continue."}
            << none;

    QTest::newRow("resumed")
            << QStringList{"http"} << 2
            << QStringList{"orlivo=installed",        "README=installed",
                           "lib/libcore.so=complete", "empty.dat=complete",
                           "data/tiny.txt=truncated", "lang/de.qm=corrupt",
                           "lang/en.qm=stale"}
            << false << true
            << QStringList{"Verification of 8 file(s) complete. Ready: 2, Downloaded: 2."}
            << QStringList{"data/tiny.txt", "lang/de.qm", "lang/en.qm", "sounds/notes.txt"};
    QTest::newRow("resumed with nothing left to fetch")
            << QStringList{"http"} << 2
            << QStringList{"orlivo=installed",       "README=installed",
                           "empty.dat=installed",    "sounds/notes.txt=installed",
                           "lang/de.qm=complete",    "lang/en.qm=complete",
                           "data/tiny.txt=complete", "lib/libcore.so=complete"}
            << false << true
            << QStringList{"Verification of 8 file(s) complete. Ready: 4, Downloaded: 4."} << none;
    QTest::newRow("packed file installed in its packed form")
            << QStringList{"http"} << 1 << QStringList{"README=mirrorCopy"} << false << true
            << QStringList{fresh} << all;
}

void tst_SessionDownload::download()
{
    QFETCH(QStringList, mirrors);
    QFETCH(int, streams);
    QFETCH(QStringList, before);
    QFETCH(bool, deleteAtEnd);
    QFETCH(bool, finishes);
    QFETCH(QStringList, lines);
    QFETCH(QStringList, fetched);
    if (fetched == QStringList{"*"})
        fetched = releaseFiles().keys();

    QTemporaryDir work;
    QTemporaryDir config;
    const QDir installation(getAppRootPath());
    QStringList upToDate;
    QStringList kept;
    for (const QString &item : before) {
        const QString path = item.section('=', 0, 0);
        const QString state = item.section('=', 1);
        const FileSpecification &entry = entries[path];
        const QByteArray mirrored = readFile(root + mirrorPath(path));
        const QString temp = work.filePath(entry.directory + "/" + entry.name);
        if (state == "complete")
            kept << path;
        if (state == "installed")
            upToDate << "File " + installation.filePath(path) + " up to date";
        const QString target = state == "installed" || state == "stale" ? path
                               : state == "mirrorCopy"                  ? entry.name
                                                                        : QString();
        if (!target.isEmpty()) {
            installed << target;
            QVERIFY(writeFile(installation.filePath(target),
                              state == "installed" ? releaseFiles()[path]
                              : state == "stale"   ? QByteArray("old version")
                                                   : mirrored));
        } else {
            QByteArray bytes = mirrored;
            if (state == "truncated")
                bytes.chop(bytes.size() / 2 + 1);
            if (state == "corrupt")
                bytes[bytes.size() / 2] = char(~bytes.at(bytes.size() / 2));
            QVERIFY(writeFile(temp, bytes));
        }
    }

    QStringList urls;
    std::vector<std::unique_ptr<LoopbackServer>> servers;
    for (const QString &kind : mirrors) {
        servers.push_back(startMirror(kind, &urls));
        QVERIFY(kind == "closed" || kind == "unsupported" || servers.back());
    }
    // No wait before a repeated attempt, and one repeat: failing mirrors are left quickly.
    QString mirrorList = QString("[mirrors]\nsize=%1\n").arg(urls.size());
    QString sections;
    for (int i = 0; i < urls.size(); ++i) {
        mirrorList += QString("%1\\mirror=m%1\n").arg(i + 1);
        sections += QString("[m%1]\nurl=%2\nretries=2\ntimeout=0\n").arg(i + 1).arg(urls.at(i));
    }
    mirrorList += sections;
    QVERIFY(writeFile(config.filePath("mirrors.ini"), mirrorList.toUtf8()));
    QVERIFY(writeFile(config.filePath("update.ini"),
                      QString("[update]\nstreams=%1\n").arg(streams).toUtf8()));

    InitialParameters parameters;
    parameters.productListName = productName;
    parameters.versionPath = version;
    parameters.mirrorsFile = config.filePath("mirrors.ini");
    parameters.updateDataFile = config.filePath("update.ini");
    parameters.tempDirectory = work.path();
    parameters.resumeSession = !before.isEmpty();
    auto session = std::make_unique<FTPProductDownloadSession>();
    QObject owner;
    QStringList log;
    QPair<quint64, quint64> progress;
    int finished = 0;
    int cancelled = 0;
    using Session = FTPProductDownloadSession;
    connect(session.get(), &Session::message, &owner, [&](const QString &text) { log << text; });
    connect(session.get(), &Session::progressCount, &owner,
            [&](quint64 done, quint64 total) { progress = qMakePair(done, total); });
    // The owner deletes the session inside the slot of its final signal.
    const auto end = [&](int *counter) {
        ++*counter;
        if (deleteAtEnd)
            session.reset();
    };
    connect(session.get(), &Session::downloadFinished, &owner, [&] { end(&finished); });
    connect(session.get(), &Session::processCancelled, &owner, [&] { end(&cancelled); });
    session->initialize(parameters);
    session->startUpdate();
    QTRY_VERIFY_WITH_TIMEOUT(finished + cancelled > 0, 60000);
    // Whatever the streams still had queued must go nowhere.
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();

    QCOMPARE(finished, finishes ? 1 : 0);
    QCOMPARE(cancelled, finishes ? 0 : 1);
    QCOMPARE(!session, deleteAtEnd);
    for (const QString &line : lines)
        QVERIFY2(log.contains(line), qPrintable(line + "\n" + log.join('\n')));
    if (!finishes) {
        QVERIFY(log.last().endsWith("can't continue - all mirrors reported error")
                || log.last().startsWith("No mirror is listed in"));
        return;
    }
    if (lines.contains("Can't continue."))
        return;
    QCOMPARE(log.last(), QString("Download finished."));
    QCOMPARE(sorted(log.filter(" up to date")), sorted(upToDate));
    quint64 total = 0;
    for (const FileSpecification &entry : std::as_const(entries))
        total += entry.size;
    QCOMPARE(progress, qMakePair(total, total));

    QStringList expected{listPath};
    QStringList delivered;
    for (const QString &path : fetched)
        expected << mirrorPath(path);
    for (int i = 0; i < int(servers.size()); ++i) {
        if (servers.at(i))
            delivered << deliveredPaths(*servers.at(i), mirrors.at(i) == "ftp" ? root : "");
    }
    QCOMPARE(sorted(delivered), sorted(expected));
    for (const QString &path : fetched + kept) {
        const FileSpecification &entry = entries[path];
        QVERIFY2(readFile(work.filePath(entry.directory + "/" + entry.name))
                         == readFile(root + mirrorPath(path)),
                 qPrintable(path));
    }
    // A stream relayed twice would report each of its connections twice. Every stream connects
    // once there is anything to fetch.
    for (int s = 0; !fetched.isEmpty() && s < streams; ++s) {
        const QString stream = QString("Stream %1 ").arg(s);
        const qsizetype connections = 1 + log.filter(stream + "change mirror to").size()
                                      - log.filter(stream + "got error").size();
        QCOMPARE(log.count(stream + "connected"), connections);
    }
}

QTEST_GUILESS_MAIN(tst_SessionDownload)
#include "tst_sessiondownload.moc"
