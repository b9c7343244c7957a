#include "tests/support/loopbackserver.h"
#include "tests/support/testfiles.h"
#include "tests/support/virtualdisplay.h"

#include <QDirIterator>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTcpServer>
#include <QtTest>

#include <sys/stat.h>

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

bool publish(const QString &releaseDir, const QString &version, const QString &root,
             const QString &secretKey)
{
    return QProcess::execute(QStringLiteral(UPDATE_PUBLISH),
                             {"--sign", secretKey, releaseDir, clientType, version, root})
           == 0;
}

// Signs a manifest of version 12 with minisign itself, as a publisher without our tool would.
bool minisign(const QString &secretKey, const QString &manifest)
{
    return QProcess::execute(
                   QStringLiteral("minisign"),
                   {"-S", "-s", secretKey, "-t", "orlivo " + clientType + " 12", "-m", manifest})
           == 0;
}

} // namespace

// The real updater, copied into an installation of the previous release, updates it from mirrors
// that update-publish made and real servers on loopback serve. Unattended runs go offscreen; the
// run without arguments is worked with the keyboard on a virtual X display. The updater's log is
// read from its standard error.
class TestUpdateRun : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString previousRelease;
    QString release;
    QString mirrorRoot;
    QStringList mirrorFiles; // "/12/<section>/<name>" of every file of the release
    std::unique_ptr<LoopbackServer> http, ftp, versionServer, garbageServer, fault, hostile;
    QString deadPort;
    QString publisherKeys; // the trusted key pair, made by minisign
    QString unknownKeys;   // one no installation trusts, made by update-publish
    std::unique_ptr<QTemporaryDir> installation;
    std::unique_ptr<QTemporaryDir> tempDir;
    QString workingParent; // TMPDIR of the runs
    std::unique_ptr<VirtualDisplay> display;

    // Version 11 as installed.
    void installPreviousRelease()
    {
        for (const QString &name : filesBelow(previousRelease)) {
            QDir().mkpath(QFileInfo(installation->filePath(name)).path());
            QVERIFY(QFile::copy(previousRelease + '/' + name, installation->filePath(name)));
        }
        writeSettings({});
    }

    // update.ini: the update server, unless extra names one, then extra.
    void writeSettings(const QByteArray &extra)
    {
        const QByteArray server = "server=127.0.0.1:" + QByteArray::number(versionServer->port());
        QVERIFY(writeTestFile(installation->filePath(QStringLiteral("update.ini")),
                              "[update]\n" + (extra.contains("server=") ? "" : server + '\n')
                                      + extra));
    }

    // "http", "ftp", "fault", "hostile", "dead http", "dead ftp"; in this order in mirrors.ini.
    void writeMirrors(const QStringList &kinds)
    {
        QByteArray list = "[mirrors]\nsize=" + QByteArray::number(kinds.size()) + "\n";
        QByteArray sections;
        for (int i = 0; i < kinds.size(); ++i) {
            const QString &kind = kinds.at(i);
            QString url = kind.section(' ', 1) + QStringLiteral("://127.0.0.1:") + deadPort + '/';
            if (kind == QLatin1String("http") || kind == QLatin1String("ftp"))
                url = (kind == QLatin1String("http") ? http : ftp)->url(kind, QStringLiteral("/"));
            else if (kind == QLatin1String("fault") || kind == QLatin1String("hostile"))
                url = (kind == QLatin1String("fault") ? fault : hostile)->url("http", "/");
            const QByteArray n = QByteArray::number(i);
            list += QByteArray::number(i + 1) + "\\mirror=m" + n + "\n";
            sections += "[m" + n + "]\nurl=" + url.toUtf8() + "\nretries=2\ntimeout=0\n";
        }
        QVERIFY(writeTestFile(installation->filePath(QStringLiteral("mirrors.ini")),
                              list + sections));
    }

    void startUpdater(QProcess *process, const QStringList &arguments, bool onDisplay = false)
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
        process->setProcessChannelMode(QProcess::MergedChannels);
        process->start(installation->filePath(QStringLiteral("update")), arguments);
    }

    // An unattended run ended with exitCode and logged logLine, without crashing, hanging or
    // letting the platform's chatter into its log.
    bool runs(const QStringList &arguments, int exitCode, const QByteArray &logLine,
              QByteArray *log = nullptr)
    {
        QProcess process;
        startUpdater(&process, QStringList{QStringLiteral("--nouser")} + arguments);
        const bool finished = process.waitForFinished(runTimeoutMs);
        const QByteArray text = process.readAll();
        if (log)
            *log = text;
        static const QRegularExpression chatter("propagateSizeHints|XDG_RUNTIME|qt\\.");
        const bool ok = finished && process.exitStatus() == QProcess::NormalExit
                        && process.exitCode() == exitCode && text.contains(logLine)
                        && !QString::fromLocal8Bit(text).contains(chatter);
        if (!ok)
            qWarning("status %d, expected %d and \"%s\":\n%s", process.exitCode(), exitCode,
                     logLine.constData(), text.constData());
        return ok;
    }

    // The previous release as it was: nothing installed, nothing deleted, nothing added but the
    // updater's own settings.
    void verifyUntouched()
    {
        QStringList expected = filesBelow(previousRelease);
        for (const char *name :
             {"mirrors.ini", "update.ini", "session_12.ini", "update-keys.pub"}) {
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
    void verifyInstalled(bool oldUpdaterAside)
    {
        const QDir root(installation->path());
        QStringList expected = filesBelow(release) << "mirrors.ini"
                                                   << "update.ini";
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
        QVERIFY(!settings.contains("[current]") && settings.contains("[installed]\nversion=12\n"));
        QCOMPARE(QDir(tempDir->path()).entryList({"orlivo_temp_*"}, QDir::AllEntries),
                 QStringList());
    }

    // On a virtual display: a start with a bad version only shows the error box and ends with
    // status 1 once it is answered; then a start without arguments is worked with the keyboard.
    void runInWindow(QByteArray *log, int *exitCode)
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
                                  "^Orlivo Client Update$", "windowfocus", "--sync", "key",
                                  "space"}));
        QTRY_VERIFY_WITH_TIMEOUT(
                (*log += updater.readAll()).contains("Update finished, version: 12"), runTimeoutMs);
        // The finished window's button starts the client and closes the window. It lost the
        // focus to "Details" while it was disabled; Shift+Tab gives it back.
        QVERIFY(display->xdotool({"key", "shift+Tab", "space"}));
        QVERIFY(updater.waitForFinished(runTimeoutMs));
        *log += updater.readAll();
        *exitCode = updater.exitCode();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        // Version 11 as installed, and version 12 with a changed, a new and a packed file, one
        // file fewer, and a new updater, which differs from the running one and so is renamed
        // aside.
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
        QCOMPARE(QProcess::execute(
                         QStringLiteral(UPDATE_PUBLISH),
                         {release, clientType, "12", mirrorRoot, "--previous", previousRelease}),
                 0);
        // The files of the release lie in sections; the list and its manifest beside them.
        for (const QString &file : filesBelow(mirrorRoot + QStringLiteral("/12")))
            if (file.contains(QLatin1Char('/')))
                mirrorFiles << QStringLiteral("/12/") + file;

        // The release is signed with minisign; an installation trusts it only when the test
        // puts the key into update-keys.pub.
        publisherKeys = work.filePath(QStringLiteral("keys"));
        unknownKeys = work.filePath(QStringLiteral("unknown"));
        QVERIFY(QDir().mkpath(publisherKeys));
        QCOMPARE(QProcess::execute(QStringLiteral("minisign"),
                                   {"-G", "-W", "-p", publisherKeys + "/update-keys.pub", "-s",
                                    publisherKeys + "/update-secret.key"}),
                 0);
        QCOMPARE(QProcess::execute(QStringLiteral(UPDATE_PUBLISH), {"--keygen", unknownKeys}), 0);
        QVERIFY(minisign(publisherKeys + "/update-secret.key",
                         mirrorRoot + "/12/" + clientType + ".manifest"));

        http = LoopbackServer::nginx(mirrorRoot);
        ftp = LoopbackServer::ftp(mirrorRoot);
        versionServer = LoopbackServer::versionServer("12,1,1");
        garbageServer = LoopbackServer::versionServer(QByteArray("\xff\x00garbage", 9));
        QVERIFY(http && ftp && versionServer && garbageServer);
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        deadPort = QString::number(probe.serverPort());
    }

    void init()
    {
        installation = std::make_unique<QTemporaryDir>();
        tempDir = std::make_unique<QTemporaryDir>();
        QVERIFY(installation->isValid() && tempDir->isValid());
        workingParent = tempDir->path();
        installPreviousRelease();
    }

    void cleanup()
    {
        fault.reset();
        hostile.reset();
        display.reset();
    }

    void update_data()
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

    void update()
    {
        QFETCH(QStringList, mirrors);
        QFETCH(bool, onDisplay);
        QFETCH(bool, staleRun);
        if (onDisplay && !VirtualDisplay::isAvailable())
            QSKIP("needs Xvfb and xdotool");
        writeMirrors(mirrors);
        const QString staleDir = tempDir->filePath(QStringLiteral("orlivo_temp_0"));
        if (staleRun) {
            QVERIFY(writeTestFile(staleDir + QStringLiteral("/client_linux_amd64/update"), "old"));
            QVERIFY(writeTestFile(installation->filePath("session_11.ini"), "[s]\n"));
            writeSettings("[current]\nversion=11\ntype=" + clientType.toUtf8()
                          + "\ndir=" + staleDir.toUtf8() + "\n");
        }

        QByteArray log;
        int exitCode = -1;
        if (onDisplay) {
            runInWindow(&log, &exitCode);
            if (QTest::currentTestFailed())
                return;
            QVERIFY2(exitCode == 0 && log.contains("Update finished, version: 12"),
                     log.constData());
        } else {
            QVERIFY(runs({}, 0, "Update finished, version: 12", &log));
        }
        if (staleRun) {
            QVERIFY2(log.contains("Cleanup previous session (v. 11, " + staleDir.toUtf8()
                                  + ") files...\nOk\n"),
                     log.constData());
            QVERIFY(!QFile::exists(installation->filePath(QStringLiteral("session_11.ini"))));
        }
        verifyInstalled(true);

        // The next start clears the old updater away and finds everything up to date.
        QVERIFY(runs({}, 0, "Verification of 4 file(s) complete. Ready: 4, Downloaded: 0."));
        verifyInstalled(false);
    }

    void interruptedRunResumes()
    {
        fault = LoopbackServer::faultHttp(mirrorRoot);
        QVERIFY(fault);
        const QString stalled = mirrorFiles.filter(QStringLiteral("libvoice.so")).value(0);
        fault->setFaults(stalled, {QStringLiteral("stall:1000")});
        writeMirrors({QStringLiteral("fault")});

        QProcess first;
        startUpdater(&first, {QStringLiteral("--nouser")});
        QByteArray log;
        // Every other file arrives while the one stalls; the updater is killed once the stalled
        // file's first bytes are on disk.
        static const QRegularExpression fileOk(QStringLiteral("^Stream \\d+, .* OK$"),
                                               QRegularExpression::MultilineOption);
        QTRY_COMPARE_WITH_TIMEOUT(QString::fromLocal8Bit(log += first.readAll()).count(fileOk),
                                  mirrorFiles.size() - 1, runTimeoutMs);
        QTRY_COMPARE(QFileInfo(tempDir->filePath("orlivo_temp_0") + stalled.mid(3)).size(), 1000);
        first.kill();
        QVERIFY(first.waitForFinished());
        const qsizetype requestsBefore = fault->logLines().size();

        // With every mirror dead the next start gives up with status 2, installs nothing and
        // keeps the run recorded.
        writeMirrors({QStringLiteral("dead http"), QStringLiteral("dead ftp")});
        QVERIFY(runs({}, 2, "can't continue - all mirrors reported error\nDownload cancelled\n"));
        verifyUntouched();
        QVERIFY(readTestFile(installation->filePath("update.ini")).contains("\nversion=12\n"));

        // A mirror is back: the run resumes in the same directory and fetches only the rest of
        // the file that never arrived.
        writeMirrors({QStringLiteral("fault")});
        QVERIFY(runs({}, 0, "Previous update session for v. 12 found\n", &log));
        QVERIFY2(log.contains("Verification of 4 file(s) complete. Ready: 0, Downloaded: 3."),
                 log.constData());
        QVERIFY(!QFileInfo::exists(tempDir->filePath(QStringLiteral("orlivo_temp_1"))));
        const QStringList requests = fault->logLines().mid(requestsBefore);
        for (const QString &file : mirrorFiles)
            QCOMPARE(requests.filter(' ' + file + ' ').size(), file == stalled ? 1 : 0);
        QCOMPARE(requests.filter(stalled + QStringLiteral(" ok bytes=1000-")).size(), 1);
        verifyInstalled(true);
    }

    // The installation cannot be completed: status 3, the old version byte for byte, the
    // downloads kept; once the cause is gone the next run installs them.
    void installationFails_data()
    {
        QTest::addColumn<bool>("fullDisk");
        QTest::newRow("a file where a new directory goes") << false;
        QTest::newRow("the file system full while staging") << true;
    }

    void installationFails()
    {
        QFETCH(bool, fullDisk);
        const QString root = installation->path();
        const QString blocker = installation->filePath(QStringLiteral("sounds"));
        qint64 room = 64; // KiB: the settings and some slack
        for (const QString &name : filesBelow(previousRelease))
            room += (QFileInfo(previousRelease + '/' + name).size() + 4095) / 4096 * 4;
        const auto mount = [&](const QString &options, qint64 kib) {
            return QProcess::execute("mount", {"-t", "tmpfs", "-o",
                                               options + QString::number(kib) + 'k', "tmpfs", root})
                   == 0;
        };
        if (fullDisk && !mount("size=", room))
            QSKIP("mounting a small tmpfs is not permitted here");
        const auto unmount = qScopeGuard([&] {
            if (fullDisk)
                QProcess::execute(QStringLiteral("umount"), {root});
        });
        if (fullDisk)
            installPreviousRelease();
        else
            QVERIFY(writeTestFile(blocker, "in the way"));
        writeMirrors({QStringLiteral("http")});

        QVERIFY(runs({}, 3,
                     fullDisk ? QByteArray("No space left on device")
                              : "FAILED creating subdirectory: " + blocker.toUtf8()));
        QVERIFY(fullDisk ? mount("remount,size=", room * 4) : QFile::remove(blocker));
        verifyUntouched();
        QVERIFY(runs({}, 0, "Verification of 4 file(s) complete. Ready: 0, Downloaded: 4."));
        verifyInstalled(true);
    }

    // Broken settings, hostile mirrors and bad command lines, each through the real binary
    // without a display: the right status, a line saying what was wrong, nothing touched outside
    // the installation and the working directory, and the old version kept unless the run
    // finished.
    void hostileInput_data()
    {
        QTest::addColumn<QStringList>("mirrors"); // writeMirrors() kinds, "garbage" or "endless"
        QTest::addColumn<QByteArray>("list");     // the hostile mirror's product list
        QTest::addColumn<QByteArray>("ini");      // after [update]; @ELSEWHERE@, @OWN@, @GARBAGE@
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("workingParent"); // "" the usual, "under a file", "full disk"
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QByteArray>("logLine");
        const auto row = [](const char *name, const QStringList &mirrors, const QByteArray &ini,
                            int exitCode, const QByteArray &logLine, const QByteArray &list = {},
                            const QStringList &arguments = {}, const QString &workingParent = {}) {
            QTest::newRow(name) << mirrors << list << ini << arguments << workingParent << exitCode
                                << logLine;
        };

        const QStringList hostile{"hostile"}, http{"http"};
        const QByteArray refused = "Stream 0 reported error: Unable to initialize session";
        row("list of garbage, an honest mirror next", {"hostile", "http"}, {}, 0,
            "Stream 0 change mirror to 1", noiseBytes(4000, 7));
        row("list unpacking to an absolute path", hostile, {}, 2, refused,
            "[client_linux_amd64]\nreadme.txt=60b725f10c9c85c70d97880dfe8191b3::2::"
            "60b725f10c9c85c70d97880dfe8191b3::2::/tmp/evil\n");
        row("list of empty sections deleting files", hostile, {}, 2, refused,
            "[client_linux_amd64]\n[client_linux_amd64.lib]\n"
            "[delete]\nreadme.txt=1\nlib/libvoice.so=1\n");
        row("mirrors.ini missing", {}, {}, 1, "mirrors.ini is missing, cannot proceed.");
        row("mirrors.ini of garbage", {"garbage"}, {}, 2, "No mirror is listed");
        row("mirrors.ini claiming endless mirrors", {"endless"}, {}, 2, "the first 100 are used");
        row("remembered directory not made by the updater", http,
            "[current]\nversion=11\ndir=@ELSEWHERE@\ntype=client_linux_amd64\n", 0,
            "was not made by the updater, record dropped");
        row("remembered client type climbing out", http,
            "[current]\nversion=12\ndir=@OWN@\ntype=../../client_linux_amd64\n", 1,
            "Wrong client type");
        row("client type climbing out", http, {}, 1, "Wrong client type", {},
            {"../client_linux_amd64", "12"});
        row("update server answering garbage", http, "server=127.0.0.1:@GARBAGE@\n", 1,
            "Can't detect default parameters");
        row("working directory cannot be made", http, {}, 1, "Unable to get temp directory.", {},
            {}, "under a file");
        row("working directory on a full disk", http, {}, 2, "No space left on device", {}, {},
            "full disk");
        row("update server announcing a downgrade", http, "[installed]\nversion=13\n", 1,
            "lower than the installed version 13: not installed");
        row("downgrade named on the command line, streams=100000", http,
            "streams=100000\n[installed]\nversion=13\n", 0,
            "streams=100000 is too many, 16 are used", {}, {clientType, "12"});
        row("proxy with a typo", http, "proxy=htp//127.0.0.1:3128\n", 2,
            "Invalid proxy htp//127.0.0.1:3128");
    }

    void hostileInput()
    {
        QFETCH(QStringList, mirrors);
        QFETCH(QByteArray, list);
        QFETCH(QByteArray, ini);
        QFETCH(QStringList, arguments);
        QFETCH(QString, workingParent);
        QFETCH(int, exitCode);
        QFETCH(QByteArray, logLine);

        QTemporaryDir outside;
        const QString elsewhere = outside.filePath(QStringLiteral("home"));
        QVERIFY(writeTestFile(elsewhere + QStringLiteral("/notes.txt"), "mine"));
        const QString own = tempDir->filePath(QStringLiteral("orlivo_temp_3"));
        QVERIFY(!ini.contains("@OWN@") || QDir().mkdir(own));
        writeSettings(ini.replace("@ELSEWHERE@", elsewhere.toUtf8())
                              .replace("@OWN@", own.toUtf8())
                              .replace("@GARBAGE@", QByteArray::number(garbageServer->port())));
        const QString mirrorsFile = installation->filePath(QStringLiteral("mirrors.ini"));
        if (mirrors == QStringList{"garbage"}) {
            QVERIFY(writeTestFile(mirrorsFile, noiseBytes(400, 9)));
        } else if (mirrors == QStringList{"endless"}) {
            QVERIFY(writeTestFile(mirrorsFile, "[mirrors]\nsize=100000000\n"));
        } else if (!mirrors.isEmpty()) {
            if (!list.isEmpty()) {
                QVERIFY(writeTestFile(outside.filePath(QStringLiteral("mirror") + listPath), list));
                hostile = LoopbackServer::nginx(outside.filePath(QStringLiteral("mirror")));
                QVERIFY(hostile);
            }
            writeMirrors(mirrors);
        }

        const QString fullDisk = tempDir->filePath(QStringLiteral("full"));
        if (workingParent == QLatin1String("under a file")) {
            this->workingParent = installation->filePath(QStringLiteral("readme.txt/tmp"));
        } else if (workingParent == QLatin1String("full disk")) {
            // Room for the list and a little more, not for the release.
            QVERIFY(QDir().mkdir(fullDisk));
            if (QProcess::execute("mount", {"-t", "tmpfs", "-o", "size=24k", "tmpfs", fullDisk}))
                QSKIP("mounting a small tmpfs is not permitted here");
            this->workingParent = fullDisk;
        }
        const qsizetype requestsBefore = http->logLines().size();
        const bool ran = runs(arguments, exitCode, logLine);
        if (workingParent == QLatin1String("full disk"))
            QProcess::execute(QStringLiteral("umount"), {fullDisk});
        QVERIFY(ran);
        QCOMPARE(filesBelow(elsewhere), QStringList{"notes.txt"});
        if (exitCode == 0)
            return verifyInstalled(true);
        verifyUntouched();
        // A proxy that cannot be used is never bypassed.
        if (ini.startsWith("proxy="))
            QCOMPARE(http->logLines().size(), requestsBefore);
    }

    // Questions answered and a window refused on a machine without a display, before any query.
    void answersWithoutWindow_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QByteArray>("output");
        QTest::newRow("--help") << QStringList{"--help"} << 0 << QByteArray("Exit status");
        QTest::newRow("-h") << QStringList{"-h"} << 0 << QByteArray("--nouser");
        QTest::newRow("--version") << QStringList{"--version"} << 0 << QByteArray("update 1.0");
        QTest::newRow("a window without a display")
                << QStringList() << 1 << QByteArray("runs with --nouser");
    }

    void answersWithoutWindow()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QByteArray, output);
        const qsizetype queriesBefore = versionServer->logLines().size();
        QProcess process;
        startUpdater(&process, arguments);
        QVERIFY(process.waitForFinished(runTimeoutMs));
        QCOMPARE(process.exitCode(), exitCode);
        QVERIFY(process.readAll().contains(output));
        QCOMPARE(versionServer->logLines().size(), queriesBefore);
    }

    // An installation that trusts the publisher's key meets one honest and one dishonest mirror,
    // or the dishonest one alone: nothing of a list is used before the key verified its manifest.
    void signedRelease_data()
    {
        QTest::addColumn<QString>("tampering");
        QTest::addColumn<QStringList>("mirrors");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QByteArray>("logLine");
        const QStringList both{"hostile", "http"}, alone{"hostile"};
        const QByteArray refused = "/12/client_linux_amd64.manifest is not valid.";
        QTest::newRow("signed by minisign") << "" << alone << 0 << QByteArray("Update finished");
        QTest::newRow("list changed after signing") << "list" << both << 0 << refused;
        QTest::newRow("signed by an unknown key") << "unknown key" << both << 0 << refused;
        QTest::newRow("version 11 replayed as 12") << "replay" << both << 0 << refused;
        QTest::newRow("signature missing") << "no signature" << both << 0 << refused;
        QTest::newRow("only a dishonest mirror")
                << "list" << alone << 2 << QByteArray("all mirrors reported error");
        QTest::newRow("a file matching its MD5, not its SHA-256")
                << "sha256" << alone << 2 << QByteArray("ERROR: Wrong checksum for");
    }

    void signedRelease()
    {
        QFETCH(QString, tampering);
        QFETCH(QStringList, mirrors);
        QFETCH(int, exitCode);
        QFETCH(QByteArray, logLine);

        QTemporaryDir outside;
        const QString root = outside.filePath(QStringLiteral("mirror"));
        const QString version = root + QStringLiteral("/12/");
        const QString manifest = version + clientType + QStringLiteral(".manifest");
        const QString secretKey = publisherKeys + QStringLiteral("/update-secret.key");
        QCOMPARE(QProcess::execute(QStringLiteral("cp"), {"-a", mirrorRoot, root}), 0);
        if (tampering == QLatin1String("list")) {
            QVERIFY(writeTestFile(root + listPath, readTestFile(root + listPath) + "\n"));
        } else if (tampering == QLatin1String("unknown key") || tampering == "replay") {
            // The list, manifest and signature of a release published apart take the place of
            // version 12's.
            const bool replay = tampering == QLatin1String("replay");
            const QString side = outside.filePath(replay ? "side/11/" : "side/12/");
            QVERIFY(publish(replay ? previousRelease : release, replay ? "11" : "12",
                            outside.filePath("side"),
                            replay ? secretKey : unknownKeys + "/update-secret.key"));
            for (const QString &name : QDir(side).entryList(QDir::Files)) {
                QFile::remove(version + name);
                QVERIFY(QFile::rename(side + name, version + name));
            }
        } else if (tampering == QLatin1String("no signature")) {
            QVERIFY(QFile::remove(manifest + ".minisig"));
        } else if (tampering == QLatin1String("sha256")) {
            // As if the mirror held another file of the same MD5: the signed SHA-256 differs.
            const QString entry = mirrorFiles.first().mid(4);
            QByteArray text = readTestFile(manifest);
            const qsizetype at = text.indexOf(entry.toUtf8() + '=') + entry.size() + 1;
            text[at] = text.at(at) == '0' ? '1' : '0';
            QVERIFY(writeTestFile(manifest, text) && QFile::remove(manifest + ".minisig"));
            QVERIFY(minisign(secretKey, manifest));
        }
        hostile = LoopbackServer::nginx(root);
        QVERIFY(hostile);
        writeMirrors(mirrors);
        QVERIFY(QFile::copy(publisherKeys + "/update-keys.pub",
                            installation->filePath(QStringLiteral("update-keys.pub"))));

        QByteArray log;
        QVERIFY(runs({}, exitCode, logLine, &log));
        QVERIFY(!log.contains("signatures of releases are not checked"));
        if (exitCode == 0)
            verifyInstalled(true);
        else
            verifyUntouched();
    }

    // Release 13, signed with the old key, brings the new one in update-keys.pub; release 14 is
    // signed with the new key, and the old key no longer counts.
    void keysRotate()
    {
        const QString root = work.filePath(QStringLiteral("rotation"));
        const QString newKeys = work.filePath(QStringLiteral("new-keys"));
        const QString next = work.filePath(QStringLiteral("release-13"));
        const QString oldKey = publisherKeys + "/update-secret.key";
        QCOMPARE(QProcess::execute(QStringLiteral("cp"), {"-a", release, next}), 0);
        QCOMPARE(QProcess::execute(QStringLiteral(UPDATE_PUBLISH), {"--keygen", newKeys}), 0);
        QVERIFY(QFile::copy(newKeys + "/update-keys.pub", next + "/update-keys.pub"));
        QVERIFY(publish(next, "13", root, oldKey)
                && publish(next, "14", root, newKeys + "/update-secret.key")
                && publish(next, "15", root, oldKey));
        hostile = LoopbackServer::nginx(root);
        QVERIFY(hostile);
        writeMirrors({QStringLiteral("hostile")});
        QVERIFY(QFile::copy(publisherKeys + "/update-keys.pub",
                            installation->filePath(QStringLiteral("update-keys.pub"))));

        for (const auto &[version, exitCode] : {std::pair{"13", 0}, {"14", 0}, {"15", 2}}) {
            QVERIFY(runs({clientType, QString::fromLatin1(version)}, exitCode, {}));
            QCOMPARE(readTestFile(installation->filePath(QStringLiteral("update-keys.pub"))),
                     readTestFile(newKeys + "/update-keys.pub"));
        }
    }
};

QTEST_GUILESS_MAIN(TestUpdateRun)
#include "tst_updaterun.moc"
