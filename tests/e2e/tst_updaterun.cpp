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
    void failedInstallationKeepsOldVersion();
    void fullDiskWhileStaging();
    void hostileInput_data();
    void hostileInput();
    void answersWithoutWindow_data();
    void answersWithoutWindow();
    void signedRelease_data();
    void signedRelease();
    void keysRotate();

private:
    bool publish(const QString &releaseDir, const QString &version, const QString &root,
                 const QString &secretKey);
    void installPreviousRelease();
    void writeMirrors(const QStringList &kinds);
    void startUpdater(QProcess *process, const QStringList &arguments, bool onDisplay = false);
    bool runUnattended(QByteArray *log, int *exitCode, const QStringList &arguments = {});
    void verifyUntouched();
    void verifyNextRunInstalls(const QByteArray &verification, bool oldUpdaterAside);
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
    std::unique_ptr<LoopbackServer> hostile;
    QString deadPort;
    QString publisherKeys; // the trusted key pair, made by minisign
    QString unknownKeys;   // one no installation trusts, made by update-publish

    std::unique_ptr<QTemporaryDir> installation;
    std::unique_ptr<QTemporaryDir> tempDir;
    QString workingParent; // TMPDIR of the runs
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
    // The changed updater gets a patch, which this updater does not fetch.
    QVERIFY(output.contains(", 1 patches ("));
    for (const QString &file : filesBelow(mirrorRoot + QStringLiteral("/12"))) {
        // The files of the release lie in sections; the list, its manifest and the patches,
        // which this updater does not fetch, beside them.
        if (file.contains(QLatin1Char('/')) && !file.startsWith(QLatin1String("patches/")))
            mirrorFiles << QStringLiteral("/12/") + file;
    }
    QCOMPARE(mirrorFiles.size(), 4);

    // The mirrors serve a release signed with minisign; an installation trusts it only when the
    // test puts its key into update-keys.pub.
    publisherKeys = work.filePath(QStringLiteral("keys"));
    unknownKeys = work.filePath(QStringLiteral("unknown"));
    QVERIFY(QDir().mkpath(publisherKeys));
    QCOMPARE(QProcess::execute(QStringLiteral("minisign"),
                               {"-G", "-W", "-p", publisherKeys + "/update-keys.pub", "-s",
                                publisherKeys + "/update-secret.key"}),
             0);
    QCOMPARE(QProcess::execute(QStringLiteral(UPDATE_PUBLISH), {"--keygen", unknownKeys}), 0);
    QCOMPARE(QProcess::execute(QStringLiteral("minisign"),
                               {"-S", "-s", publisherKeys + "/update-secret.key", "-t",
                                "orlivo " + clientType + " 12", "-m",
                                mirrorRoot + "/12/" + clientType + ".manifest"}),
             0);

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
    workingParent = tempDir->path();
    installPreviousRelease();
}

// Version 11 as installed, with the update server named.
void TestUpdateRun::installPreviousRelease()
{
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
    hostile.reset();
    display.reset();
}

// "http", "ftp", "fault", "hostile", "dead http", "dead ftp"; written to mirrors.ini in this order.
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
        else if (kind == QLatin1String("fault") || kind == QLatin1String("hostile"))
            url = (kind == QLatin1String("fault") ? fault : hostile)
                          ->url(QStringLiteral("http"), QStringLiteral("/"));
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
    // Unattended runs are started as on a server: no display, no platform chosen for them.
    if (!onDisplay) {
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            environment.remove(QString::fromLatin1(name));
    }
    environment.insert(QStringLiteral("TMPDIR"), workingParent);
    process->setProcessEnvironment(environment);
    process->setWorkingDirectory(installation->path());
    process->setProcessChannelMode(QProcess::ForwardedOutputChannel);
    process->setReadChannel(QProcess::StandardError);
    process->start(installation->filePath(QStringLiteral("update")), arguments);
}

// False when the run crashed, hung, or let the platform's chatter into its log.
bool TestUpdateRun::runUnattended(QByteArray *log, int *exitCode, const QStringList &arguments)
{
    QProcess process;
    startUpdater(&process, QStringList{QStringLiteral("--nouser")} + arguments);
    const bool finished = process.waitForFinished(runTimeoutMs);
    *log = process.readAll();
    *exitCode = process.exitCode();
    if (!finished)
        process.kill();
    static const QRegularExpression chatter(QStringLiteral("propagateSizeHints|XDG_RUNTIME|qt\\."));
    if (QString::fromLocal8Bit(*log).contains(chatter))
        qWarning("chatter in the log:\n%s", log->constData());
    return finished && process.exitStatus() == QProcess::NormalExit
           && !QString::fromLocal8Bit(*log).contains(chatter);
}

// Another unattended start ends with the release installed, after this verification.
void TestUpdateRun::verifyNextRunInstalls(const QByteArray &verification, bool oldUpdaterAside)
{
    QByteArray log;
    int exitCode = -1;
    QVERIFY(runUnattended(&log, &exitCode));
    QVERIFY2(exitCode == 0, log.constData());
    QVERIFY2(log.contains("Verification of 4 file(s) complete. " + verification), log.constData());
    verifyInstalled(oldUpdaterAside);
}

// The previous release as it was: nothing installed, nothing deleted, nothing added but the
// updater's own settings.
void TestUpdateRun::verifyUntouched()
{
    QStringList expected = filesBelow(previousRelease);
    for (const char *name : {"mirrors.ini", "update.ini", "session_12.ini", "update-keys.pub"}) {
        if (QFile::exists(installation->filePath(QString::fromLatin1(name))))
            expected << QString::fromLatin1(name);
    }
    expected.sort();
    QCOMPARE(filesBelow(installation->path()), expected);
    for (const QString &name : filesBelow(previousRelease))
        QVERIFY2(readTestFile(installation->filePath(name))
                         == readTestFile(previousRelease + '/' + name),
                 qPrintable(name));
}

// The installation is the release byte for byte, executables 0755, the deleted file gone, and
// the run has left no trace but the renamed old updater.
void TestUpdateRun::verifyInstalled(bool oldUpdaterAside)
{
    const QDir root(installation->path());
    QStringList expected = filesBelow(release);
    expected << QStringLiteral("mirrors.ini") << QStringLiteral("update.ini");
    if (root.exists(QStringLiteral("update-keys.pub")))
        expected << QStringLiteral("update-keys.pub");
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
    const QByteArray settings = readTestFile(root.filePath(QStringLiteral("update.ini")));
    QVERIFY(!settings.contains("[current]"));
    QVERIFY(settings.contains("[installed]\nversion=12\n"));
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
    verifyNextRunInstalls("Ready: 4, Downloaded: 0.", false);
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
    // Killed once the stalled file's first bytes are on disk.
    const QString partial = tempDir->filePath(QStringLiteral("orlivo_temp_0")) + stalled.mid(3);
    QTRY_COMPARE(QFileInfo(partial).size(), 1000);
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
    // Only the list and the rest of the file that never arrived are fetched again.
    const QStringList requests = fault->logLines().mid(firstRequests.size());
    QCOMPARE(fetched(requests, mirrorFiles), (QStringList{listPath, stalled}));
    QCOMPARE(requests.filter(stalled + QStringLiteral(" ok bytes=1000-")).size(), 1);
    verifyInstalled(true);
}

// A file in the place of a new directory stops the installation before anything changes: status
// 3, the old version whole, the downloads kept; once it is gone the next run installs them.
void TestUpdateRun::failedInstallationKeepsOldVersion()
{
    writeMirrors({QStringLiteral("http")});
    const QString blocker = installation->filePath(QStringLiteral("sounds"));
    QVERIFY(writeTestFile(blocker, "in the way"));
    const qsizetype requestsBefore = http->logLines().size();

    QByteArray log;
    int exitCode = -1;
    QVERIFY(runUnattended(&log, &exitCode));
    QVERIFY2(exitCode == 3, log.constData());
    QVERIFY2(log.contains("FAILED creating subdirectory: " + blocker.toUtf8()), log.constData());
    QVERIFY2(!log.contains("Update finished"), log.constData());
    QVERIFY(QFile::remove(blocker));
    verifyUntouched();
    const qsizetype requestsFirst = http->logLines().size();

    verifyNextRunInstalls("Ready: 0, Downloaded: 4.", true);
    // Only the connect step, the manifest and the list again.
    QCOMPARE(http->logLines().size() - requestsFirst, 3);
    QVERIFY(requestsFirst > requestsBefore + 1);
}

// The installation's file system fills up while the new version is staged: status 3, the old
// version byte for byte; once there is room the next run installs what it downloaded.
void TestUpdateRun::fullDiskWhileStaging()
{
    const QString root = installation->path();
    qint64 pages = 64; // the settings and some slack, in KiB
    for (const QString &name : filesBelow(previousRelease))
        pages += (QFileInfo(previousRelease + '/' + name).size() + 4095) / 4096 * 4;
    const auto mountWithRoom = [&](const QString &options) {
        return QProcess::execute(QStringLiteral("mount"),
                                 {"-t", "tmpfs", "-o", options, "tmpfs", root}) == 0;
    };
    if (!mountWithRoom(QStringLiteral("size=%1k").arg(pages)))
        QSKIP("mounting a small tmpfs is not permitted here");
    const auto unmount = qScopeGuard([&] { QProcess::execute(QStringLiteral("umount"), {root}); });
    installPreviousRelease();
    writeMirrors({QStringLiteral("http")});

    QByteArray log;
    int exitCode = -1;
    const bool ran = runUnattended(&log, &exitCode);
    const bool remounted = mountWithRoom(QStringLiteral("remount,size=%1k").arg(pages * 4));
    QVERIFY2(ran && exitCode == 3, log.constData());
    QVERIFY2(log.contains("No space left on device"), log.constData());
    verifyUntouched();
    QVERIFY(remounted);
    verifyNextRunInstalls("Ready: 0, Downloaded: 4.", true);
}

// Broken settings, hostile mirrors and bad command lines, each through the real binary without
// a display: no crash, no hang, the right status, a line saying what was wrong, nothing touched
// outside the installation and the working directory, and the old version kept unless the run
// finished.
void TestUpdateRun::hostileInput_data()
{
    QTest::addColumn<QStringList>("mirrors"); // writeMirrors() kinds, "hostile", or "garbage"
    QTest::addColumn<QByteArray>("list");     // the hostile mirror's product list
    QTest::addColumn<QByteArray>("settings"); // lines of the [update] group
    QTest::addColumn<QByteArray>("current");  // the [current] group; @ELSEWHERE@, @INSTALL@, @OWN@
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("versionReply");
    QTest::addColumn<QString>("workingParent"); // "" the usual, "under a file", "full disk"
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("logLine");

    const QStringList hostile{"hostile"};
    const QString refused = "Stream 0 reported error: Unable to initialize session";
    const QString none;
    QTest::newRow("list of garbage") << hostile << noiseBytes(4000, 7) << QByteArray()
                                     << QByteArray() << QStringList() << QByteArray() << none
                                     << 2 << refused;
    QTest::newRow("list unpacking to an absolute path")
            << hostile
            << QByteArray("[client_linux_amd64]\nreadme.txt=60b725f10c9c85c70d97880dfe8191b3::2::"
                          "60b725f10c9c85c70d97880dfe8191b3::2::/tmp/evil\n")
            << QByteArray() << QByteArray() << QStringList() << QByteArray() << none << 2
            << refused;
    const QByteArray emptyWithDelete = "[client_linux_amd64]\n[client_linux_amd64.lib]\n"
                                       "[delete]\nreadme.txt=1\nlib/libvoice.so=1\n";
    QTest::newRow("list of empty sections deleting files")
            << hostile << emptyWithDelete << QByteArray() << QByteArray() << QStringList()
            << QByteArray() << none << 2 << refused;
    QTest::newRow("list of empty sections, an honest mirror next")
            << QStringList{"hostile", "http"} << emptyWithDelete << QByteArray() << QByteArray()
            << QStringList() << QByteArray() << none << 0 << "Stream 0 change mirror to 1";
    QTest::newRow("mirrors.ini missing")
            << QStringList() << QByteArray() << QByteArray() << QByteArray() << QStringList()
            << QByteArray() << none << 1 << "mirrors.ini is missing, cannot proceed.";
    QTest::newRow("mirrors.ini of garbage")
            << QStringList{"garbage"} << QByteArray() << QByteArray() << QByteArray()
            << QStringList() << QByteArray() << none << 2 << "No mirror is listed";
    QTest::newRow("mirrors.ini claiming endless mirrors")
            << QStringList{"endless"} << QByteArray() << QByteArray() << QByteArray()
            << QStringList() << QByteArray() << none << 2 << "the first 100 are used";
    const QString dropped = "was not made by the updater, record dropped";
    QTest::newRow("remembered directory elsewhere")
            << QStringList{"http"} << QByteArray() << QByteArray()
            << QByteArray("version=11\ndir=@ELSEWHERE@\ntype=client_linux_amd64\n")
            << QStringList() << QByteArray() << none << 0 << dropped;
    QTest::newRow("remembered directory is the installation")
            << QStringList{"http"} << QByteArray() << QByteArray()
            << QByteArray("version=11\ndir=@INSTALL@\ntype=client_linux_amd64\n")
            << QStringList() << QByteArray() << none << 0 << dropped;
    QTest::newRow("remembered client type climbing out")
            << QStringList{"http"} << QByteArray() << QByteArray()
            << QByteArray("version=12\ndir=@OWN@\ntype=../../client_linux_amd64\n")
            << QStringList() << QByteArray() << none << 1 << "Wrong client type";
    QTest::newRow("client type climbing out")
            << QStringList{"http"} << QByteArray() << QByteArray() << QByteArray()
            << QStringList{"../client_linux_amd64", "12"} << QByteArray() << none << 1
            << "Wrong client type";
    QTest::newRow("update server answering garbage")
            << QStringList{"http"} << QByteArray() << QByteArray() << QByteArray()
            << QStringList() << QByteArray("\xff\x00garbage") << none << 1
            << "Can't detect default parameters";
    QTest::newRow("working directory cannot be made")
            << QStringList{"http"} << QByteArray() << QByteArray() << QByteArray()
            << QStringList() << QByteArray() << "under a file" << 1
            << "Unable to get temp directory.";
    QTest::newRow("working directory on a full disk")
            << QStringList{"http"} << QByteArray() << QByteArray() << QByteArray()
            << QStringList() << QByteArray() << "full disk" << 2 << "No space left on device";
    QTest::newRow("streams=100000")
            << QStringList{"http"} << QByteArray() << QByteArray("streams=100000\n")
            << QByteArray() << QStringList() << QByteArray() << none << 0
            << "streams=100000 is too many, 16 are used";
    QTest::newRow("update server announcing a downgrade")
            << QStringList{"http"} << QByteArray() << QByteArray("[installed]\nversion=13\n")
            << QByteArray() << QStringList() << QByteArray() << none << 1
            << "lower than the installed version 13: not installed";
    QTest::newRow("downgrade named on the command line")
            << QStringList{"http"} << QByteArray() << QByteArray("[installed]\nversion=13\n")
            << QByteArray() << QStringList{clientType, "12"} << QByteArray() << none << 0
            << "Update finished, version: 12";
    QTest::newRow("proxy with a typo")
            << QStringList{"http"} << QByteArray() << QByteArray("proxy=htp//127.0.0.1:3128\n")
            << QByteArray() << QStringList() << QByteArray() << none << 2
            << "Invalid proxy htp//127.0.0.1:3128";
}

void TestUpdateRun::hostileInput()
{
    QFETCH(QStringList, mirrors);
    QFETCH(QByteArray, list);
    QFETCH(QByteArray, settings);
    QFETCH(QByteArray, current);
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, versionReply);
    QFETCH(QString, workingParent);
    QFETCH(int, exitCode);
    QFETCH(QString, logLine);

    QTemporaryDir outside;
    const QString elsewhere = outside.filePath(QStringLiteral("home"));
    QVERIFY(writeTestFile(elsewhere + QStringLiteral("/notes.txt"), "mine"));
    const QString own = tempDir->filePath(QStringLiteral("orlivo_temp_3"));
    QVERIFY(!current.contains("@OWN@") || QDir().mkdir(own));
    current.replace("@ELSEWHERE@", elsewhere.toUtf8())
            .replace("@INSTALL@", installation->path().toUtf8())
            .replace("@OWN@", own.toUtf8());

    if (mirrors.contains(QStringLiteral("hostile"))) {
        QVERIFY(writeTestFile(outside.filePath(QStringLiteral("mirror") + listPath), list));
        hostile = LoopbackServer::nginx(outside.filePath(QStringLiteral("mirror")));
        QVERIFY(hostile);
        writeMirrors(mirrors);
    } else if (mirrors == QStringList{QStringLiteral("garbage")}) {
        QVERIFY(writeTestFile(installation->filePath(QStringLiteral("mirrors.ini")),
                              noiseBytes(400, 9)));
    } else if (mirrors == QStringList{QStringLiteral("endless")}) {
        QVERIFY(writeTestFile(installation->filePath(QStringLiteral("mirrors.ini")),
                              "[mirrors]\nsize=100000000\n"));
    } else if (!mirrors.isEmpty()) {
        writeMirrors(mirrors);
    }

    std::unique_ptr<LoopbackServer> garbageServer;
    quint16 versionPort = versionServer->port();
    if (!versionReply.isEmpty()) {
        garbageServer = LoopbackServer::versionServer(versionReply);
        QVERIFY(garbageServer);
        versionPort = garbageServer->port();
    }
    QVERIFY(writeTestFile(installation->filePath(QStringLiteral("update.ini")),
                          "[update]\nserver=127.0.0.1:" + QByteArray::number(versionPort) + "\n"
                                  + settings
                                  + (current.isEmpty() ? QByteArray() : "[current]\n" + current)));

    const QString fullDisk = tempDir->filePath(QStringLiteral("full"));
    if (workingParent == QLatin1String("under a file")) {
        this->workingParent = installation->filePath(QStringLiteral("readme.txt/tmp"));
    } else if (workingParent == QLatin1String("full disk")) {
        QVERIFY(QDir().mkdir(fullDisk));
        // Room for the list and a little more, not for the release.
        if (QProcess::execute(QStringLiteral("mount"), {"-t", "tmpfs", "-o", "size=24k", "tmpfs",
                                                         fullDisk})
            != 0) {
            QSKIP("mounting a small tmpfs is not permitted here");
        }
        this->workingParent = fullDisk;
    }
    const qsizetype requestsBefore = http->logLines().size();

    QByteArray log;
    int status = -1;
    const bool ran = runUnattended(&log, &status, arguments);
    if (workingParent == QLatin1String("full disk"))
        QProcess::execute(QStringLiteral("umount"), {fullDisk});
    QVERIFY2(ran, log.constData());
    QVERIFY2(status == exitCode, log.constData());
    QVERIFY2(log.contains(logLine.toUtf8()), log.constData());
    QCOMPARE(filesBelow(elsewhere), QStringList{"notes.txt"});
    if (exitCode == 0) {
        QVERIFY2(log.contains("Update finished, version: 12"), log.constData());
        verifyInstalled(true);
        return;
    }
    QVERIFY2(!log.contains("Update finished"), log.constData());
    verifyUntouched();
    // A proxy that cannot be used is never bypassed.
    if (settings.startsWith("proxy="))
        QCOMPARE(http->logLines().size(), requestsBefore);
}

// Questions answered and a window refused on a machine without a display, before any query.
void TestUpdateRun::answersWithoutWindow_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("output");

    QTest::newRow("--help") << "--help" << 0 << "Exit status";
    QTest::newRow("-h") << "-h" << 0 << "--nouser";
    QTest::newRow("--version") << "--version" << 0 << "update 1.0";
    QTest::newRow("a window without a display") << QString() << 1 << "runs with --nouser";
}

void TestUpdateRun::answersWithoutWindow()
{
    QFETCH(QString, argument);
    QFETCH(int, exitCode);
    QFETCH(QString, output);

    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        environment.remove(QString::fromLatin1(name));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    const qsizetype queriesBefore = versionServer->logLines().size();
    process.start(installation->filePath(QStringLiteral("update")),
                  argument.isEmpty() ? QStringList() : QStringList{argument});
    QVERIFY(process.waitForFinished(runTimeoutMs));
    QCOMPARE(process.exitCode(), exitCode);
    QVERIFY2(process.readAll().contains(output.toUtf8()), qPrintable(output));
    QCOMPARE(versionServer->logLines().size(), queriesBefore);
}

bool TestUpdateRun::publish(const QString &releaseDir, const QString &version,
                            const QString &root, const QString &secretKey)
{
    return QProcess::execute(QStringLiteral(UPDATE_PUBLISH),
                             {"--sign", secretKey, releaseDir, clientType, version, root})
           == 0;
}

// An installation that trusts the publisher's key meets one honest and one dishonest mirror, or
// the dishonest one alone: nothing of a list is used before the key verified its manifest.
void TestUpdateRun::signedRelease_data()
{
    QTest::addColumn<QString>("tampering");
    QTest::addColumn<QStringList>("mirrors");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("logLine");

    const QStringList both{"hostile", "http"};
    const QString refused = "/12/client_linux_amd64.manifest is not valid.";
    QTest::newRow("signed by minisign") << "" << QStringList{"hostile"} << 0 << "Update finished";
    QTest::newRow("list changed after signing") << "list" << both << 0 << refused;
    QTest::newRow("signed by an unknown key") << "unknown key" << both << 0 << refused;
    QTest::newRow("version 11 replayed as 12") << "replay" << both << 0 << refused;
    QTest::newRow("signature missing") << "no signature" << both << 0 << refused;
    QTest::newRow("only a dishonest mirror")
            << "list" << QStringList{"hostile"} << 2 << "all mirrors reported error";
    QTest::newRow("a file matching its MD5, not its SHA-256")
            << "sha256" << QStringList{"hostile"} << 2 << "ERROR: Wrong checksum for";
}

void TestUpdateRun::signedRelease()
{
    QFETCH(QString, tampering);
    QFETCH(QStringList, mirrors);
    QFETCH(int, exitCode);
    QFETCH(QString, logLine);

    QTemporaryDir outside;
    const QString root = outside.filePath(QStringLiteral("mirror"));
    const QString version = root + QStringLiteral("/12/");
    const QString list = version + clientType + QStringLiteral(".ini");
    const QString manifest = version + clientType + QStringLiteral(".manifest");
    QCOMPARE(QProcess::execute(QStringLiteral("cp"), {"-a", mirrorRoot, root}), 0);
    const QString secretKey = publisherKeys + QStringLiteral("/update-secret.key");
    if (tampering == QLatin1String("list")) {
        QVERIFY(writeTestFile(list, readTestFile(list) + "\n"));
    } else if (tampering == QLatin1String("unknown key")) {
        QVERIFY(publish(release, QStringLiteral("12"), root + QStringLiteral("/unknown"),
                        unknownKeys + QStringLiteral("/update-secret.key")));
        QVERIFY(QFile::remove(manifest + ".minisig"));
        QVERIFY(QFile::rename(root + "/unknown/12/" + clientType + ".manifest.minisig",
                              manifest + ".minisig"));
    } else if (tampering == QLatin1String("replay")) {
        QVERIFY(publish(previousRelease, QStringLiteral("11"), root, secretKey));
        for (const QString &name : QDir(root + "/11").entryList(QDir::Files)) {
            QFile::remove(version + name);
            QVERIFY(QFile::rename(root + "/11/" + name, version + name));
        }
    } else if (tampering == QLatin1String("no signature")) {
        QVERIFY(QFile::remove(manifest + ".minisig"));
    } else if (tampering == QLatin1String("sha256")) {
        // As if the mirror held another file of the same MD5: the signed SHA-256 differs.
        const QString entry = mirrorFiles.first().mid(4);
        QByteArray text = readTestFile(manifest);
        const qsizetype at = text.indexOf(entry.toUtf8() + '=') + entry.size() + 1;
        text[at] = text.at(at) == '0' ? '1' : '0';
        QVERIFY(writeTestFile(manifest, text));
        QVERIFY(QFile::remove(manifest + ".minisig"));
        QCOMPARE(QProcess::execute(QStringLiteral("minisign"),
                                   {"-S", "-s", secretKey, "-t", "orlivo " + clientType + " 12",
                                    "-m", manifest}),
                 0);
    }
    hostile = LoopbackServer::nginx(root);
    QVERIFY(hostile);
    writeMirrors(mirrors);
    QVERIFY(QFile::copy(publisherKeys + QStringLiteral("/update-keys.pub"),
                        installation->filePath(QStringLiteral("update-keys.pub"))));

    QByteArray log;
    int status = -1;
    QVERIFY(runUnattended(&log, &status));
    QVERIFY2(status == exitCode, log.constData());
    QVERIFY2(log.contains(logLine.toUtf8()), log.constData());
    QVERIFY2(!log.contains("signatures of releases are not checked"), log.constData());
    if (exitCode == 0)
        verifyInstalled(true);
    else
        verifyUntouched();
}

// Release 13, signed with the old key, brings the new one in update-keys.pub; release 14 is
// signed with the new key, and the old key no longer counts.
void TestUpdateRun::keysRotate()
{
    const QString root = work.filePath(QStringLiteral("rotation"));
    const QString newKeys = work.filePath(QStringLiteral("new-keys"));
    const QString next = work.filePath(QStringLiteral("release-13"));
    QCOMPARE(QProcess::execute(QStringLiteral("cp"), {"-a", release, next}), 0);
    QCOMPARE(QProcess::execute(QStringLiteral(UPDATE_PUBLISH), {"--keygen", newKeys}), 0);
    QVERIFY(QFile::copy(newKeys + "/update-keys.pub", next + "/update-keys.pub"));
    QVERIFY(publish(next, QStringLiteral("13"), root, publisherKeys + "/update-secret.key"));
    QVERIFY(publish(next, QStringLiteral("14"), root, newKeys + "/update-secret.key"));
    QVERIFY(publish(next, QStringLiteral("15"), root, publisherKeys + "/update-secret.key"));
    hostile = LoopbackServer::nginx(root);
    QVERIFY(hostile);
    writeMirrors({QStringLiteral("hostile")});
    QVERIFY(QFile::copy(publisherKeys + QStringLiteral("/update-keys.pub"),
                        installation->filePath(QStringLiteral("update-keys.pub"))));

    for (const auto &[version, exitCode] : {std::pair{"13", 0}, {"14", 0}, {"15", 2}}) {
        QByteArray log;
        int status = -1;
        QVERIFY(runUnattended(&log, &status, {clientType, QString::fromLatin1(version)}));
        QVERIFY2(status == exitCode, log.constData());
        QCOMPARE(readTestFile(installation->filePath(QStringLiteral("update-keys.pub"))),
                 readTestFile(newKeys + "/update-keys.pub"));
    }
}

QTEST_GUILESS_MAIN(TestUpdateRun)
#include "tst_updaterun.moc"
