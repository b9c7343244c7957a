#include "tests/support/loopbackserver.h"
#include "tests/support/testfiles.h"
#include "tests/support/virtualdisplay.h"

#include <QDirIterator>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTcpServer>
#include <QtTest>

#include <sys/stat.h>

// The real updater, copied into an installation of the previous release, updates it from mirrors
// that update-publish made and real servers on loopback serve. Unattended runs go offscreen; the
// run started without arguments waits for a key press on a virtual X display, where a start with
// bad arguments is refused first. The updater's log is read from its standard error.
class TestUpdateRun : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void update_data();
    void update();
    void interruptedRunResumes();

private:
    void writeMirrors(const QStringList &kinds);
    void startUpdater(QProcess *process, const QStringList &arguments, bool onDisplay = false);
    bool runUnattended(QByteArray *log, int *exitCode);
    void runInWindow(QByteArray *log, int *exitCode);
    void verifyInstalled(bool oldUpdaterAside);

    QTemporaryDir work;
    QString previousRelease;
    QString release;
    QString mirrorRoot;
    QStringList mirrorFiles; // "/12/<section>/<name>" of every file of the release
    std::unique_ptr<LoopbackServer> http;
    std::unique_ptr<LoopbackServer> ftp;
    std::unique_ptr<LoopbackServer> versionServer;
    std::unique_ptr<LoopbackServer> fault;
    QString deadPort;

    std::unique_ptr<QTemporaryDir> installation;
    std::unique_ptr<QTemporaryDir> tempDir;
    std::unique_ptr<VirtualDisplay> display;
};

namespace {

const QString clientType = QStringLiteral("client_linux_amd64");
const QString listPath = QStringLiteral("/12/client_linux_amd64.ini");
constexpr int runTimeoutMs = 120000;

// Bytes that gzip cannot shrink, the same on every run; size is a multiple of 4.
QByteArray noiseBytes(int size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    return bytes;
}

int modeBits(const QString &file)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(file).constData(), &status) == 0 ? int(status.st_mode & 07777)
                                                                     : -1;
}

// Relative paths of the files below dir, sorted.
QStringList filesBelow(const QString &dir)
{
    QStringList files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << QDir(dir).relativeFilePath(it.next());
    files.sort();
    return files;
}

// The paths of the release files the server sent in full, request by request.
QStringList fetched(const QStringList &faultLog, const QStringList &files)
{
    QStringList paths;
    for (const QString &line : faultLog) {
        const QStringList fields = line.split(QLatin1Char(' '));
        if (fields.value(3) == QLatin1String("ok")
            && (files.contains(fields.value(2)) || fields.value(2) == listPath)) {
            paths << fields.value(2);
        }
    }
    return paths;
}

} // namespace

void TestUpdateRun::initTestCase()
{
    QVERIFY(work.isValid());
    // Version 11 as installed, and version 12 with a changed, a new and a packed file, one file
    // fewer, and a new updater, which differs from the running one and so is renamed aside.
    previousRelease = work.filePath(QStringLiteral("release-11"));
    release = work.filePath(QStringLiteral("release-12"));
    const QByteArray updater = readTestFile(QStringLiteral(UPDATE_BINARY));
    QVERIFY(!updater.isEmpty());
    const QList<QPair<QString, QByteArray>> files = {
            {previousRelease + "/update", updater},
            {previousRelease + "/readme.txt", "Orlivo 11\n"},
            {previousRelease + "/codec-old.dat", patternBytes(3000, 1)},
            {previousRelease + "/lib/libvoice.so", noiseBytes(20000, 2)},
            {release + "/update", updater + "\nOrlivo update 12\n"},
            {release + "/readme.txt", patternBytes(20000, 3)},
            {release + "/lib/libvoice.so", noiseBytes(30000, 3)},
            {release + "/sounds/ring tone.wav", noiseBytes(9000, 4)},
    };
    for (const auto &[file, data] : files)
        QVERIFY(writeTestFile(file, data));
    QVERIFY(QFile::setPermissions(previousRelease + "/update",
                                  QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));

    // nginx and pyftpdlib report canonical paths.
    mirrorRoot = QFileInfo(work.path()).canonicalFilePath() + QStringLiteral("/mirror");
    QProcess publish;
    publish.setProcessChannelMode(QProcess::MergedChannels);
    publish.start(QStringLiteral(UPDATE_PUBLISH),
                  {release, clientType, QStringLiteral("12"), mirrorRoot,
                   QStringLiteral("--previous"), previousRelease});
    QVERIFY(publish.waitForFinished(runTimeoutMs));
    const QByteArray output = publish.readAll();
    QVERIFY2(publish.exitCode() == 0 && output.contains("4 files (2 packed")
                     && output.contains("1 to delete"),
             output.constData());
    for (const QString &file : filesBelow(mirrorRoot + QStringLiteral("/12"))) {
        if (!file.endsWith(QLatin1String(".ini")))
            mirrorFiles << QStringLiteral("/12/") + file;
    }
    QCOMPARE(mirrorFiles.size(), 4);

    http = LoopbackServer::nginx(mirrorRoot);
    ftp = LoopbackServer::ftp(mirrorRoot);
    versionServer = LoopbackServer::versionServer("12,1,1");
    QVERIFY(http && ftp && versionServer);
    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost));
    deadPort = QString::number(probe.serverPort());
}

void TestUpdateRun::init()
{
    installation = std::make_unique<QTemporaryDir>();
    tempDir = std::make_unique<QTemporaryDir>();
    QVERIFY(installation->isValid() && tempDir->isValid());
    for (const QString &name : filesBelow(previousRelease)) {
        QDir().mkpath(QFileInfo(installation->filePath(name)).path());
        QVERIFY(QFile::copy(previousRelease + '/' + name, installation->filePath(name)));
    }
    QVERIFY(writeTestFile(installation->filePath(QStringLiteral("update.ini")),
                          "[update]\nserver=127.0.0.1:" + QByteArray::number(versionServer->port())
                                  + "\n"));
}

void TestUpdateRun::cleanup()
{
    fault.reset();
    display.reset();
}

// "http", "ftp", "fault", "dead http", "dead ftp"; written to mirrors.ini in this order.
void TestUpdateRun::writeMirrors(const QStringList &kinds)
{
    QByteArray list = "[mirrors]\nsize=" + QByteArray::number(kinds.size()) + "\n";
    QByteArray sections;
    for (int i = 0; i < kinds.size(); ++i) {
        const QString &kind = kinds.at(i);
        QString url;
        if (kind == QLatin1String("http"))
            url = http->url(kind, QStringLiteral("/"));
        else if (kind == QLatin1String("ftp"))
            url = ftp->url(kind, QStringLiteral("/"));
        else if (kind == QLatin1String("fault"))
            url = fault->url(QStringLiteral("http"), QStringLiteral("/"));
        else
            url = kind.section(' ', 1) + QStringLiteral("://127.0.0.1:") + deadPort + '/';
        list += QByteArray::number(i + 1) + "\\mirror=m" + QByteArray::number(i) + "\n";
        sections += "[m" + QByteArray::number(i) + "]\nurl=" + url.toUtf8()
                    + "\nretries=2\ntimeout=0\n";
    }
    QVERIFY(writeTestFile(installation->filePath(QStringLiteral("mirrors.ini")), list + sections));
}

void TestUpdateRun::startUpdater(QProcess *process, const QStringList &arguments, bool onDisplay)
{
    QProcessEnvironment environment =
            onDisplay ? display->environment() : QProcessEnvironment::systemEnvironment();
    if (!onDisplay)
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    environment.insert(QStringLiteral("TMPDIR"), tempDir->path());
    process->setProcessEnvironment(environment);
    process->setWorkingDirectory(installation->path());
    process->setProcessChannelMode(QProcess::ForwardedOutputChannel);
    process->setReadChannel(QProcess::StandardError);
    process->start(installation->filePath(QStringLiteral("update")), arguments);
}

bool TestUpdateRun::runUnattended(QByteArray *log, int *exitCode)
{
    QProcess process;
    startUpdater(&process, {QStringLiteral("--nouser")});
    const bool finished = process.waitForFinished(runTimeoutMs);
    *log = process.readAll();
    *exitCode = process.exitCode();
    if (!finished)
        process.kill();
    return finished && process.exitStatus() == QProcess::NormalExit;
}

// The installation is the release byte for byte, executables 0755, the deleted file gone, and
// the run has left no trace but the renamed old updater.
void TestUpdateRun::verifyInstalled(bool oldUpdaterAside)
{
    const QDir root(installation->path());
    QStringList expected = filesBelow(release);
    expected << QStringLiteral("mirrors.ini") << QStringLiteral("update.ini");
    if (oldUpdaterAside)
        expected << QStringLiteral("_old_update");
    expected.sort();
    QCOMPARE(filesBelow(root.path()), expected);
    for (const QString &name : filesBelow(release))
        QVERIFY2(readTestFile(root.filePath(name)) == readTestFile(release + '/' + name),
                 qPrintable(name));
    QCOMPARE(modeBits(root.filePath(QStringLiteral("update"))), 0755);
    QCOMPARE(modeBits(root.filePath(QStringLiteral("lib/libvoice.so"))), 0755);
    if (oldUpdaterAside)
        QCOMPARE(readTestFile(root.filePath(QStringLiteral("_old_update"))),
                 readTestFile(previousRelease + QStringLiteral("/update")));
    QVERIFY(!readTestFile(root.filePath(QStringLiteral("update.ini"))).contains("[current]"));
    QCOMPARE(QDir(tempDir->path()).entryList({QStringLiteral("orlivo_temp_*")}, QDir::AllEntries),
             QStringList());
}

// On a virtual display: a start with a bad version only shows the error box and ends with status
// 1 once it is answered; then a start without arguments is worked with the keyboard.
void TestUpdateRun::runInWindow(QByteArray *log, int *exitCode)
{
    display = std::make_unique<VirtualDisplay>();
    QVERIFY(display->start());

    QProcess refused;
    startUpdater(&refused, {clientType, QStringLiteral("x7")}, true);
    QByteArray box;
    QVERIFY(display->xdotool({"search", "--sync", "--onlyvisible", "--name", "^Error$"}, &box));
    QVERIFY(!display->xdotool({"search", "--onlyvisible", "--name", "Orlivo"}));
    QVERIFY(display->xdotool(
            {"windowfocus", "--sync", QString::fromLatin1(box.trimmed()), "key", "Return"}));
    QVERIFY(refused.waitForFinished(runTimeoutMs));
    QCOMPARE(refused.exitStatus(), QProcess::NormalExit);
    QCOMPARE(refused.exitCode(), 1);

    QProcess updater;
    startUpdater(&updater, {}, true);
    // Nothing happens until the user presses "Start Update", which has the focus.
    QVERIFY(display->xdotool({"search", "--sync", "--onlyvisible", "--name",
                              "^Orlivo Client Update$", "windowfocus", "--sync", "key", "space"}));
    QTRY_VERIFY_WITH_TIMEOUT((*log += updater.readAll()).contains("Update finished, version: 12"),
                             runTimeoutMs);
    // The finished window's button starts the client and closes the window. It lost the focus
    // to "Details" while it was disabled; Shift+Tab gives it back.
    QVERIFY(display->xdotool({"key", "shift+Tab", "space"}));
    QVERIFY(updater.waitForFinished(runTimeoutMs));
    *log += updater.readAll();
    *exitCode = updater.exitCode();
}

void TestUpdateRun::update_data()
{
    QTest::addColumn<QStringList>("mirrors");
    QTest::addColumn<bool>("onDisplay");
    QTest::addColumn<bool>("staleRun");

    QTest::newRow("--nouser over HTTP, a recorded run of another version cleaned first")
            << QStringList{"http"} << false << true;
    QTest::newRow("--nouser over FTP, mirror 0 dead")
            << QStringList{"dead http", "ftp"} << false << false;
    QTest::newRow("no arguments, a key press in the window")
            << QStringList{"http", "ftp"} << true << false;
}

void TestUpdateRun::update()
{
    QFETCH(QStringList, mirrors);
    QFETCH(bool, onDisplay);
    QFETCH(bool, staleRun);
    if (onDisplay && !VirtualDisplay::isAvailable())
        QSKIP("needs Xvfb and xdotool");
    writeMirrors(mirrors);
    const QString staleDir = tempDir->filePath(QStringLiteral("orlivo_temp_0"));
    if (staleRun) {
        const QString data = installation->filePath(QStringLiteral("update.ini"));
        QVERIFY(writeTestFile(staleDir + QStringLiteral("/client_linux_amd64/update"), "old"));
        QVERIFY(writeTestFile(installation->filePath(QStringLiteral("session_11.ini")), "[s]\n"));
        QVERIFY(writeTestFile(data, readTestFile(data)
                                            + "[current]\nversion=11\ntype=" + clientType.toUtf8()
                                            + "\ndir=" + staleDir.toUtf8() + "\n"));
    }

    QByteArray log;
    int exitCode = -1;
    if (onDisplay) {
        runInWindow(&log, &exitCode);
        if (QTest::currentTestFailed())
            return;
    } else {
        QVERIFY(runUnattended(&log, &exitCode));
    }

    QVERIFY2(exitCode == 0, log.constData());
    QVERIFY2(log.contains("Update finished, version: 12"), log.constData());
    if (staleRun) {
        QVERIFY2(log.contains("Cleanup previous session (v. 11, " + staleDir.toUtf8()
                              + ") files...\nOk\n"),
                 log.constData());
        QVERIFY(!QFile::exists(installation->filePath(QStringLiteral("session_11.ini"))));
    }
    verifyInstalled(true);

    // The next start clears the old updater away and finds everything up to date.
    QVERIFY(runUnattended(&log, &exitCode));
    QVERIFY2(exitCode == 0, log.constData());
    QVERIFY2(log.contains("Verification of 4 file(s) complete. Ready: 4, Downloaded: 0."),
             log.constData());
    verifyInstalled(false);
}

void TestUpdateRun::interruptedRunResumes()
{
    fault = LoopbackServer::faultHttp(mirrorRoot);
    QVERIFY(fault);
    const QString stalled = mirrorFiles.filter(QStringLiteral("libvoice.so")).value(0);
    fault->setFaults(stalled, {QStringLiteral("stall:1000")});
    writeMirrors({QStringLiteral("fault")});

    QProcess first;
    startUpdater(&first, {QStringLiteral("--nouser")});
    QByteArray log;
    // Every other file arrives while the one stalls; then the updater is killed.
    static const QRegularExpression fileOk(QStringLiteral("^Stream \\d+, .* OK$"),
                                           QRegularExpression::MultilineOption);
    QTRY_COMPARE_WITH_TIMEOUT(QString::fromLocal8Bit(log += first.readAll()).count(fileOk),
                              mirrorFiles.size() - 1, runTimeoutMs);
    QTRY_VERIFY(fault->logLines().join('\n').contains(stalled + QStringLiteral(" stall:1000")));
    first.kill();
    QVERIFY(first.waitForFinished());
    const QStringList firstRequests = fault->logLines();

    // With every mirror dead the next start gives up with status 2, installs nothing and keeps
    // the run recorded.
    writeMirrors({QStringLiteral("dead http"), QStringLiteral("dead ftp")});
    int exitCode = -1;
    QVERIFY(runUnattended(&log, &exitCode));
    QVERIFY2(exitCode == 2, log.constData());
    QVERIFY2(log.contains("can't continue - all mirrors reported error\nDownload cancelled\n"),
             log.constData());
    QCOMPARE(filesBelow(installation->path()),
             (QStringList{"codec-old.dat", "lib/libvoice.so", "mirrors.ini", "readme.txt", "update",
                          "update.ini"}));
    QVERIFY(readTestFile(installation->filePath(QStringLiteral("update.ini")))
                    .contains("\nversion=12\n"));

    // A mirror is back: the run resumes in the same directory.
    writeMirrors({QStringLiteral("fault")});
    QVERIFY(runUnattended(&log, &exitCode));
    QVERIFY2(exitCode == 0, log.constData());
    QVERIFY2(log.contains("Previous update session for v. 12 found\n"), log.constData());
    QVERIFY2(log.contains("Verification of 4 file(s) complete. Ready: 0, Downloaded: 3."),
             log.constData());
    QVERIFY(!QFileInfo::exists(tempDir->filePath(QStringLiteral("orlivo_temp_1"))));
    // Only the list and the file that never arrived are fetched again.
    QCOMPARE(fetched(fault->logLines().mid(firstRequests.size()), mirrorFiles),
             (QStringList{listPath, stalled}));
    verifyInstalled(true);
}

QTEST_GUILESS_MAIN(TestUpdateRun)
#include "tst_updaterun.moc"
