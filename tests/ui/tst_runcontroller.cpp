#include "app/apppaths.h"
#include "app/messageboxes.h"
#include "app/startup.h"
#include "streams/transportlibrary.h"
#include "tests/support/loopbackserver.h"
#include "tests/support/testfiles.h"
#include "tools/releasepublisher.h"
#include "ui/mainwindow.h"

#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QSettings>
#include <QTcpServer>
#include <QTcpSocket>
#include <QRandomGenerator>
#include <QtTest>

#include <sys/stat.h>

// One update run driven through the window in this process, against real servers on loopback:
// the start sequence, the working directory, earlier sessions, progress and speed, closing, and
// the ends of a run (cancelled, restarted, finished). Message boxes are answered through the
// seam.
class TestRunController : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void mirrorsMissing();
    void workingDirectory_data();
    void workingDirectory();
    void earlierSession_data();
    void earlierSession();
    void progressDisplay_data();
    void progressDisplay();
    void speedTicks();
    void closeWindow_data();
    void closeWindow();
    void cancelThenRestart();

private:
    void createWindow();
    void pressStart();
    QStringList logLines() const;
    QString recorded(const QString &key) const;
    QString temp(const QString &name) const { return tempPath + QLatin1Char('/') + name; }
    QPushButton *startButton() const
    {
        return window->findChild<QPushButton *>(QStringLiteral("startButton"));
    }

    QTemporaryDir scratch;
    QString tempPath;
    QString deadUrl;
    QTemporaryDir mirrorRoot;
    std::unique_ptr<LoopbackServer> mirror;
    std::unique_ptr<MainWindow> window;
    QList<MessageBoxRequest> boxes;
    QMessageBox::StandardButton answer = QMessageBox::Ok;
    int testNumber = 0;
};

namespace {

// Bytes that gzip cannot shrink, the same on every run.
QByteArray noiseBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &c : bytes)
        c = char(generator.bounded(256));
    return bytes;
}

// Lines of text, which gzip shrinks to a small share.
QByteArray textBytes(int lines)
{
    QByteArray bytes;
    for (int i = 0; i < lines; ++i)
        bytes += "line " + QByteArray::number(i) + " of a release file\n";
    return bytes;
}

const QString clientType = QStringLiteral("client_linux_amd64");
constexpr int version = 7;
const QString storedType = QStringLiteral("client_stored");
const QString cancelledText =
        QStringLiteral("Download cancelled. Push \"Details\" to check reasons.");
const QString questionText =
        QStringLiteral("<p>Update in progress.</p><p>Are you sure you want to abort?</p>");
constexpr int runTimeoutMs = 60000;

// Install path -> content of the release published as version 7.
const QMap<QString, QByteArray> &releaseFiles()
{
    static const QMap<QString, QByteArray> files = {
            {QStringLiteral("orlivo-demo.txt"), textBytes(300)},
            {QStringLiteral("orlivo-lib/libvoice.so"), noiseBytes(40000, 7)},
            {QStringLiteral("orlivo-sounds/ring.wav"), noiseBytes(9000, 8)},
    };
    return files;
}

QString appFile(const QString &name)
{
    return getAppRootPath() + QLatin1Char('/') + name;
}

void writeMirrors(const QStringList &urls)
{
    QByteArray ini = "[mirrors]\nsize=" + QByteArray::number(urls.size()) + "\n";
    for (int i = 0; i < urls.size(); ++i)
        ini += QByteArray::number(i + 1) + "\\mirror=m" + QByteArray::number(i) + "\n";
    for (int i = 0; i < urls.size(); ++i)
        ini += "[m" + QByteArray::number(i) + "]\nurl=" + urls.at(i).toUtf8()
               + "\nretries=1\ntimeout=0\n";
    QVERIFY(writeTestFile(appFile(QStringLiteral("mirrors.ini")), ini));
}

void recordRun(const QString &version, const QString &dir)
{
    QSettings settings(appFile(QStringLiteral("update.ini")), QSettings::IniFormat);
    settings.setValue(QStringLiteral("current/version"), version);
    settings.setValue(QStringLiteral("current/dir"), dir);
    settings.setValue(QStringLiteral("current/type"), storedType);
}

// Stands in for the client: started from the installation, it leaves a mark there.
void installClientStandIn()
{
    const QString path = appFile(QStringLiteral("orvclient_linux_amd64"));
    QVERIFY(writeTestFile(path, "#!/bin/sh\necho started > \"$(dirname \"$0\")/marker\"\n"));
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

int modeBits(const QString &path)
{
    struct stat status = {};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 ? int(status.st_mode & 07777)
                                                                      : -1;
}

// A server that takes connections and never says a word: a run against it stays running
// until release() hangs up.
class SilentServer
{
public:
    SilentServer()
    {
        server.listen(QHostAddress::LocalHost);
        QObject::connect(&server, &QTcpServer::newConnection, &server, [this] {
            while (QTcpSocket *socket = server.nextPendingConnection())
                held.append(socket);
        });
    }
    QString url() const { return QStringLiteral("http://127.0.0.1:%1/").arg(server.serverPort()); }
    bool hasConnection() const { return !held.isEmpty(); }
    void release()
    {
        server.close();
        qDeleteAll(held);
        held.clear();
    }

private:
    QTcpServer server;
    QList<QTcpSocket *> held;
};

// The one 1000 ms timer the window runs for its speed display, or 0.
int speedTimerOf(QObject *window)
{
    int id = 0;
    for (const auto &timer : QAbstractEventDispatcher::instance()->registeredTimers(window)) {
        if (timer.interval == 1000)
            id = id == 0 ? timer.timerId : -1;
    }
    return id;
}

} // namespace

void TestRunController::initTestCase()
{
    QVERIFY(scratch.isValid());
    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost));
    deadUrl = QStringLiteral("http://127.0.0.1:%1/").arg(probe.serverPort());
    probe.close();

    QTemporaryDir release;
    for (auto file = releaseFiles().begin(); file != releaseFiles().end(); ++file)
        QVERIFY(writeTestFile(release.filePath(file.key()), file.value()));
    ReleasePublisher publisher(release.path(), clientType, QString::number(version),
                               mirrorRoot.path());
    QVERIFY2(publisher.publish(), qPrintable(publisher.errors().join(QLatin1Char('\n'))));
    QCOMPARE(publisher.packedCount(), 1);
    mirror = LoopbackServer::nginx(mirrorRoot.path());
    QVERIFY(mirror);

    setMessageBoxHandler([this](const MessageBoxRequest &request) {
        boxes.append(request);
        return answer;
    });
}

void TestRunController::init()
{
    // Every test gets a system temporary directory of its own.
    tempPath = scratch.filePath(QStringLiteral("tmp%1").arg(++testNumber));
    QVERIFY(QDir().mkpath(tempPath));
    qputenv("TMPDIR", QFile::encodeName(tempPath));
    boxes.clear();
    answer = QMessageBox::Ok;
}

void TestRunController::cleanup()
{
    window.reset();
    for (const char *name :
         {"mirrors.ini", "update.ini", "session_6.ini", "marker", "orvclient_linux_amd64"}) {
        QFile::remove(appFile(QLatin1String(name)));
    }
    for (auto file = releaseFiles().begin(); file != releaseFiles().end(); ++file) {
        QFile::remove(appFile(file.key()));
        if (file.key().contains(QLatin1Char('/')))
            QDir(getAppRootPath()).rmpath(QFileInfo(file.key()).path());
    }
}

void TestRunController::createWindow()
{
    window = std::make_unique<MainWindow>(CommandLineOptions{1, clientType, version});
    window->show();
    QVERIFY(QTest::qWaitForWindowExposed(window.get()));
}

void TestRunController::pressStart()
{
    QTest::mouseClick(startButton(), Qt::LeftButton);
}

QStringList TestRunController::logLines() const
{
    return window->findChild<QTextEdit *>(QStringLiteral("outputTextEdit"))
            ->toPlainText()
            .split(QLatin1Char('\n'));
}

QString TestRunController::recorded(const QString &key) const
{
    return QSettings(appFile(QStringLiteral("update.ini")), QSettings::IniFormat)
            .value(QStringLiteral("current/") + key)
            .toString();
}

void TestRunController::mirrorsMissing()
{
    createWindow();
    pressStart();

    QCOMPARE(boxes.size(), 1);
    QCOMPARE(boxes[0].icon, QMessageBox::Critical);
    QCOMPARE(boxes[0].title, QStringLiteral("Error"));
    QCOMPARE(boxes[0].text, QStringLiteral("mirrors.ini is missing, cannot proceed."));
    QCOMPARE(boxes[0].buttons, QMessageBox::Ok);
    QVERIFY(startButton()->isEnabled());
    QCOMPARE(startButton()->text(), QStringLiteral("Start Update"));
    QVERIFY(!QFile::exists(appFile(QStringLiteral("update.ini"))));
    QVERIFY(QDir(tempPath).isEmpty());
}

void TestRunController::workingDirectory_data()
{
    QTest::addColumn<QStringList>("present"); // "dir N", "file N", "link N", "dangling N"
    QTest::addColumn<bool>("tempMissing");
    QTest::addColumn<int>("chosen"); // -1: none, the warning instead

    QStringList all;
    for (int n = 0; n < 1000; ++n)
        all << QStringLiteral("dir %1").arg(n);
    QTest::newRow("nothing there") << QStringList() << false << 0;
    QTest::newRow("0 and 1 taken") << QStringList{"dir 0", "dir 1"} << false << 2;
    QTest::newRow("a gap is used") << QStringList{"dir 0", "dir 2"} << false << 1;
    QTest::newRow("a file is in the way") << QStringList{"file 0"} << false << 1;
    QTest::newRow("a link to a directory is never taken") << QStringList{"link 0"} << false << 1;
    QTest::newRow("a dangling link is never taken") << QStringList{"dangling 0"} << false << 1;
    QTest::newRow("all 1000 taken") << all << false << -1;
    QTest::newRow("temporary directory missing") << QStringList() << true << -1;
}

void TestRunController::workingDirectory()
{
    QFETCH(QStringList, present);
    QFETCH(bool, tempMissing);
    QFETCH(int, chosen);
    const QString target = scratch.filePath(QStringLiteral("target%1").arg(testNumber));
    QVERIFY(writeTestFile(target + QStringLiteral("/keep"), "not yours"));
    for (const QString &entry : present) {
        const QStringList words = entry.split(QLatin1Char(' '));
        const QString path = temp(QStringLiteral("orlivo_temp_") + words[1]);
        if (words[0] == QLatin1String("dir"))
            QVERIFY(QDir().mkdir(path));
        else if (words[0] == QLatin1String("file"))
            QVERIFY(writeTestFile(path, "x"));
        else
            QVERIFY(QFile::link(words[0] == QLatin1String("link") ? target : target + "/gone",
                                path));
    }
    if (tempMissing) {
        tempPath += QStringLiteral("/not/yet");
        qputenv("TMPDIR", QFile::encodeName(tempPath));
    }
    writeMirrors({deadUrl});
    createWindow();

    pressStart();
    QCOMPARE(QDir(target).entryList(QDir::Files), QStringList{"keep"});
    if (chosen < 0) {
        QCOMPARE(boxes.size(), 1);
        QCOMPARE(boxes[0].icon, QMessageBox::Warning);
        QCOMPARE(boxes[0].title, QStringLiteral("Error"));
        QCOMPARE(boxes[0].text, QStringLiteral("Unable to get temp directory."));
        QVERIFY(startButton()->isEnabled());
        QVERIFY(!QFile::exists(appFile(QStringLiteral("update.ini"))));
        return;
    }
    QTRY_VERIFY_WITH_TIMEOUT(startButton()->isEnabled(), runTimeoutMs);

    const QString expected = temp(QStringLiteral("orlivo_temp_%1").arg(chosen));
    QCOMPARE(recorded(QStringLiteral("dir")), expected);
    QCOMPARE(recorded(QStringLiteral("version")), QString::number(version));
    QCOMPARE(modeBits(expected), 0700);
    QVERIFY(QFileInfo(expected).isDir() && !QFileInfo(expected).isSymLink());
}

void TestRunController::earlierSession_data()
{
    QTest::addColumn<QString>("storedVersion");
    QTest::addColumn<QString>("storedDir"); // "own", "holds link", "link", "gone"
    QTest::addColumn<QStringList>("log");
    QTest::addColumn<bool>("reused");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QStringList>("leftInStored"); // what stays in the recorded directory

    const QString cleanup = QStringLiteral("Cleanup previous session (v. 6, @DIR@) files...");
    QTest::newRow("same version is resumed")
            << "7"
            << "own" << QStringList{"Previous update session for v. 7 found"} << true << storedType
            << QStringList{"part.bin", "sub"};
    QTest::newRow("other version is cleaned away")
            << "6"
            << "own" << QStringList{cleanup, "Ok"} << false << storedType << QStringList{"<gone>"};
    QTest::newRow("other version, directory cannot be removed")
            << "6"
            << "holds link" << QStringList{cleanup, "Failed to remove directory"} << false
            << storedType << QStringList{"link"};
    QTest::newRow("same version in a linked directory is not resumed")
            << "7"
            << "link" << QStringList() << false << clientType << QStringList{"part.bin"};
    QTest::newRow("other version in a linked directory is left alone")
            << "6"
            << "link" << QStringList() << false << clientType << QStringList{"part.bin"};
    QTest::newRow("recorded directory gone")
            << "7"
            << "gone" << QStringList() << false << clientType << QStringList{"<gone>"};
}

void TestRunController::earlierSession()
{
    QFETCH(QString, storedVersion);
    QFETCH(QString, storedDir);
    QFETCH(QStringList, log);
    QFETCH(bool, reused);
    QFETCH(QString, type);
    QFETCH(QStringList, leftInStored);

    // An earlier run's directory, as the updater made it, or a link to somebody else's.
    const QString dir = scratch.filePath(QStringLiteral("earlier%1").arg(testNumber));
    const QString elsewhere = scratch.filePath(QStringLiteral("elsewhere%1").arg(testNumber));
    QVERIFY(writeTestFile(elsewhere + QStringLiteral("/part.bin"), "partial download"));
    if (storedDir == QLatin1String("link")) {
        QVERIFY(QFile::link(elsewhere, dir));
    } else if (storedDir != QLatin1String("gone")) {
        QVERIFY(writeTestFile(dir + QStringLiteral("/part.bin"), "partial download"));
        QVERIFY(writeTestFile(dir + QStringLiteral("/sub/.hidden"), "x"));
        if (storedDir == QLatin1String("holds link"))
            QVERIFY(QFile::link(elsewhere, dir + QStringLiteral("/link")));
    }
    recordRun(storedVersion, dir);
    QVERIFY(writeTestFile(appFile(QStringLiteral("session_6.ini")), "[s]\n"));
    writeMirrors({deadUrl});
    createWindow();

    pressStart();
    QTRY_VERIFY_WITH_TIMEOUT(startButton()->isEnabled(), runTimeoutMs);

    for (QString &line : log)
        line.replace(QStringLiteral("@DIR@"), dir);
    const QStringList lines = logLines();
    QCOMPARE(lines.mid(0, log.size()), log);
    QVERIFY(!lines.contains(QStringLiteral("Previous update session for v. 7 found")) || reused);

    const QString newDir = temp(QStringLiteral("orlivo_temp_0"));
    QCOMPARE(recorded(QStringLiteral("dir")), reused ? dir : newDir);
    QCOMPARE(recorded(QStringLiteral("version")), QString::number(version));
    QCOMPARE(recorded(QStringLiteral("type")), type);
    QCOMPARE(QFileInfo::exists(newDir), !reused);

    QStringList left = QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System
                                           | QDir::NoDotAndDotDot);
    if (!QFileInfo::exists(dir) && !QFileInfo(dir).isSymLink())
        left = QStringList{"<gone>"};
    QCOMPARE(left, leftInStored);
    QCOMPARE(QDir(elsewhere).entryList(QDir::Files), QStringList{"part.bin"});
    QCOMPARE(QFileInfo::exists(appFile(QStringLiteral("session_6.ini"))),
             storedVersion == QLatin1String("7") || storedDir == QLatin1String("link")
                     || storedDir == QLatin1String("gone"));
}

void TestRunController::progressDisplay_data()
{
    QTest::addColumn<quint64>("current");
    QTest::addColumn<quint64>("total");
    QTest::addColumn<int>("barMaximum");
    QTest::addColumn<int>("barValue");
    QTest::addColumn<QString>("done");
    QTest::addColumn<QString>("all");

    QTest::newRow("0 of 1 is the busy bar") << Q_UINT64_C(0) << Q_UINT64_C(1) << 0 << 0 << "0 KB"
                                            << "0 KB";
    QTest::newRow("150 bytes") << Q_UINT64_C(0) << Q_UINT64_C(150) << 1 << 0 << "0 KB"
                               << "0 KB";
    QTest::newRow("99 bytes is still busy") << Q_UINT64_C(99) << Q_UINT64_C(99) << 0 << 0 << "0 KB"
                                            << "0 KB";
    QTest::newRow("kilobytes round down")
            << Q_UINT64_C(1999) << Q_UINT64_C(2999) << 29 << 19 << "1 KB"
            << "2 KB";
    QTest::newRow("half of a megabyte")
            << Q_UINT64_C(500000) << Q_UINT64_C(1000000) << 10000 << 5000 << "500 KB"
            << "1000 KB";
    QTest::newRow("beyond 4 GB") << Q_UINT64_C(5000000000) << Q_UINT64_C(10000000000) << 100000000
                                 << 50000000 << "5000000 KB"
                                 << "10000000 KB";
}

void TestRunController::progressDisplay()
{
    QFETCH(quint64, current);
    QFETCH(quint64, total);
    createWindow();

    window->onProgressCount(current, total);

    const auto *bar = window->findChild<QProgressBar *>(QStringLiteral("totalProgressBar"));
    QTEST(bar->maximum(), "barMaximum");
    QTEST(bar->value(), "barValue");
    QTEST(window->findChild<QLabel *>(QStringLiteral("totalSizeLabel"))->text(), "done");
    QTEST(window->findChild<QLabel *>(QStringLiteral("totalTotalSizeLabel"))->text(), "all");
}

void TestRunController::speedTicks()
{
    SilentServer silent;
    writeMirrors({silent.url()});
    createWindow();
    auto *speed = window->findChild<QLabel *>(QStringLiteral("downloadSpeedLabel"));
    QCOMPARE(speedTimerOf(window.get()), 0);

    pressStart();
    const int timer = speedTimerOf(window.get());
    QVERIFY(timer > 0);
    QTRY_VERIFY(silent.hasConnection());
    auto tick = [this](int id, int count) {
        for (int i = 0; i < count; ++i) {
            QTimerEvent event(id);
            QCoreApplication::sendEvent(window.get(), &event);
        }
    };
    tick(timer, 1);
    QCOMPARE(speed->text(), QStringLiteral("0 KB/s"));
    window->onProgressCount(500000, 1000000);
    tick(timer, 9);
    QCOMPARE(speed->text(), QStringLiteral("50 KB/s"));
    tick(timer + 1000, 5); // some other timer: not a speed tick
    QCOMPARE(speed->text(), QStringLiteral("50 KB/s"));
    tick(timer, 5);
    QCOMPARE(speed->text(), QStringLiteral("33 KB/s"));

    silent.release();
    QTRY_VERIFY_WITH_TIMEOUT(startButton()->isEnabled(), runTimeoutMs);
    QCOMPARE(speedTimerOf(window.get()), 0);
    // The average stays on screen after the run.
    QCOMPARE(speed->text(), QStringLiteral("33 KB/s"));
}

void TestRunController::closeWindow_data()
{
    QTest::addColumn<bool>("running");
    QTest::addColumn<QMessageBox::StandardButton>("reply");
    QTest::addColumn<bool>("closed");

    QTest::newRow("no run: closes without asking") << false << QMessageBox::No << true;
    QTest::newRow("running, answered No: stays") << true << QMessageBox::No << false;
    QTest::newRow("running, answered Yes: closes") << true << QMessageBox::Yes << true;
}

void TestRunController::closeWindow()
{
    QFETCH(bool, running);
    QFETCH(QMessageBox::StandardButton, reply);
    QFETCH(bool, closed);
    SilentServer silent;
    writeMirrors({silent.url()});
    createWindow();
    if (running) {
        pressStart();
        QTRY_VERIFY(silent.hasConnection());
    }

    answer = reply;
    QCOMPARE(window->close(), closed);

    QCOMPARE(window->isVisible(), !closed);
    if (!running) {
        QVERIFY(boxes.isEmpty());
        return;
    }
    QCOMPARE(boxes.size(), 1);
    QCOMPARE(boxes[0].icon, QMessageBox::Question);
    QCOMPARE(boxes[0].title, QStringLiteral("Question"));
    QCOMPARE(boxes[0].text, questionText);
    QCOMPARE(boxes[0].buttons, QMessageBox::Yes | QMessageBox::No);
    QCOMPARE(boxes[0].defaultButton, QMessageBox::NoButton);
    // Closing leaves the run and its record alone; a later start resumes it.
    const QString dir = recorded(QStringLiteral("dir"));
    QVERIFY(QFileInfo(dir).isDir());
    QVERIFY(silent.hasConnection());

    answer = QMessageBox::Ok;
    silent.release();
    QTRY_VERIFY_WITH_TIMEOUT(startButton()->isEnabled(), runTimeoutMs);
    QVERIFY(QFileInfo(dir).isDir());
}

void TestRunController::cancelThenRestart()
{
    writeMirrors({deadUrl});
    installClientStandIn();
    createWindow();
    QPushButton *start = startButton();
    const auto *bar = window->findChild<QProgressBar *>(QStringLiteral("totalProgressBar"));

    pressStart();
    QVERIFY(!start->isEnabled());
    QTRY_VERIFY_WITH_TIMEOUT(start->isEnabled(), runTimeoutMs);

    QCOMPARE(start->text(), QStringLiteral("Restart"));
    QCOMPARE(boxes.size(), 1);
    QCOMPARE(boxes[0].icon, QMessageBox::Critical);
    QCOMPARE(boxes[0].title, QStringLiteral("Update"));
    QCOMPARE(boxes[0].text, cancelledText);
    QCOMPARE(bar->maximum(), 1);
    QCOMPARE(bar->value(), 0);
    QCOMPARE(logLines().last(), QStringLiteral("Download cancelled"));
    const QString dir = recorded(QStringLiteral("dir"));
    QVERIFY(QFileInfo(dir).isDir());

    // The mirror is back: "Restart" resumes in the same directory and installs the release.
    writeMirrors({deadUrl, mirror->url(QStringLiteral("http"), QStringLiteral("/"))});
    pressStart();
    QVERIFY(!start->isEnabled());
    QTRY_VERIFY_WITH_TIMEOUT(start->isEnabled(), runTimeoutMs);

    const QStringList lines = logLines();
    QVERIFY(lines.contains(QStringLiteral("Previous update session for v. 7 found")));
    QCOMPARE(lines.mid(lines.size() - 3),
             (QStringList{"Remove temporary files...", "Temporary files removed.",
                          "Update finished, version: 7"}));
    QCOMPARE(start->text(), QStringLiteral("Start Orlivo"));
    QCOMPARE(boxes.size(), 1);
    for (auto file = releaseFiles().begin(); file != releaseFiles().end(); ++file)
        QCOMPARE(readTestFile(appFile(file.key())), file.value());
    QVERIFY(!QFileInfo::exists(dir));
    QCOMPARE(recorded(QStringLiteral("dir")), QString());
    QCOMPARE(bar->maximum(), bar->value());

    pressStart();
    QVERIFY(!window->isVisible());
    QTRY_COMPARE_WITH_TIMEOUT(readTestFile(appFile(QStringLiteral("marker"))),
                              QByteArray("started\n"), runTimeoutMs);
}

int main(int argc, char *argv[])
{
    TransportLibrary transportLibrary;
    registerMetaTypes();
    QApplication application(argc, argv);
    TestRunController test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_runcontroller.moc"
