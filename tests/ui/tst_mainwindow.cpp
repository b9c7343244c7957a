#include "app/apppaths.h"
#include "app/messageboxes.h"
#include "app/startup.h"
#include "streams/transportlibrary.h"
#include "tests/support/loopbackserver.h"
#include "tests/support/testfiles.h"
#include "tools/releasepublisher.h"
#include "ui/mainwindow.h"
#include "ui/updatedatafile.h"
#include "ui/workingdirectory.h"

#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QDesktopServices>
#include <QTcpServer>
#include <QtTest>

#include <sys/stat.h>

// The window and the runs it controls, in this process against real servers on loopback, up to
// one window's life from the start button's refusals through a cancelled run and its resumption
// to starting the client. Message boxes are answered through the seam.
class TestMainWindow : public QObject
{
    Q_OBJECT

public slots:
    void openUrl(const QUrl &url) { opened.append(url); }

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void widgets();
    void workingDirectory_data();
    void workingDirectory();
    void invalidRecord_data();
    void invalidRecord();
    void progress_data();
    void progress();
    void progressBurst();
    void germanCatalogue();
    void earlierSession_data();
    void earlierSession();
    void wholeRun();

private:
    template<typename T>
    T *child(const char *name) const
    {
        return window->findChild<T *>(name);
    }
    QStringList logLines() const
    {
        return child<QTextEdit>("outputTextEdit")->toPlainText().split('\n');
    }

    QTemporaryDir scratch;
    QString tempPath;
    QString deadUrl;
    QTemporaryDir mirrorRoot;
    std::unique_ptr<LoopbackServer> mirror;
    std::unique_ptr<MainWindow> window;
    QStringList boxes;
    QMessageBox::StandardButton answer = QMessageBox::Ok;
    QList<QUrl> opened;
    int testNumber = 0;
};

namespace {

const QString clientType = "client_linux_amd64";
// The one file of the release published as version 7.
const QString releaseFile = "libvoice.so";
const QByteArray releaseBytes = patternBytes(40000, 7);
constexpr int runTimeoutMs = 60000;

QString appFile(const QString &name)
{
    return getAppRootPath() + '/' + name;
}

QString recorded(const QString &key)
{
    return QSettings(appFile("update.ini"), QSettings::IniFormat)
            .value("current/" + key)
            .toString();
}

void writeMirrors(const QStringList &urls)
{
    QByteArray list = "[mirrors]\nsize=" + QByteArray::number(urls.size()) + "\n";
    QByteArray sections;
    for (int i = 0; i < urls.size(); ++i) {
        list += QByteArray::number(i + 1) + "\\mirror=m" + QByteArray::number(i) + "\n";
        sections += "[m" + QByteArray::number(i) + "]\nurl=" + urls.at(i).toUtf8()
                    + "\nretries=1\ntimeout=0\n";
    }
    QVERIFY(writeTestFile(appFile("mirrors.ini"), list + sections));
}

// The one 1000 ms timer the window runs for its speed display, or 0.
int speedTimerOf(QObject *window)
{
    for (const auto &timer : QAbstractEventDispatcher::instance()->registeredTimers(window)) {
        if (timer.interval == 1000)
            return timer.timerId;
    }
    return 0;
}

} // namespace

void TestMainWindow::initTestCase()
{
    QVERIFY(scratch.isValid());
    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost));
    deadUrl = QString("http://127.0.0.1:%1/").arg(probe.serverPort());
    probe.close();

    QTemporaryDir release;
    QVERIFY(writeTestFile(release.filePath(releaseFile), releaseBytes));
    ReleasePublisher publisher(release.path(), clientType, "7", mirrorRoot.path());
    QVERIFY2(publisher.publish(), qPrintable(publisher.errors().join('\n')));
    mirror = LoopbackServer::nginx(mirrorRoot.path());
    QVERIFY(mirror);

    // Each box as "Icon Title: text [buttons]"; none of the program's boxes has a default.
    setMessageBoxHandler([this](const MessageBoxRequest &box) {
        const QMetaEnum icons = QMetaEnum::fromType<QMessageBox::Icon>();
        const QMetaEnum buttons = QMetaEnum::fromType<QMessageBox::StandardButtons>();
        // Ok is also known as FirstButton.
        boxes << QString("%1 %2: %3 [%4]")
                         .arg(icons.valueToKey(box.icon), box.title, box.text,
                              QString(buttons.valueToKeys(int(box.buttons)))
                                      .remove("|FirstButton"));
        if (box.defaultButton != QMessageBox::NoButton)
            boxes.last() += " with a default";
        return answer;
    });
}

void TestMainWindow::init()
{
    tempPath = scratch.filePath(QString("tmp%1").arg(++testNumber));
    QVERIFY(QDir().mkpath(tempPath));
    qputenv("TMPDIR", QFile::encodeName(tempPath));
    boxes.clear();
    answer = QMessageBox::Ok;
    window = std::make_unique<MainWindow>(CommandLineOptions{1, clientType, 7});
}

void TestMainWindow::cleanup()
{
    window.reset();
    for (const char *name : {"mirrors.ini", "update.ini", "session_6.ini", "session_7.ini",
                             "marker", "orvclient_linux_amd64", "libvoice.so"}) {
        QFile::remove(appFile(name));
    }
}

void TestMainWindow::widgets()
{
    QCOMPARE(child<QLabel>("revnoLabel")->text(), "7");
    QVERIFY(!child<QLabel>("orlivoLabel")->pixmap().isNull());
    auto *log = child<QTextEdit>("outputTextEdit");
    QVERIFY(log->isHidden());
    window->show();
    QVERIFY(QTest::qWaitForWindowExposed(window.get()));
    const QSize collapsed = window->size();

    // "Details" shows and hides the log; the window follows its contents and cannot be resized.
    auto *details = child<QPushButton>("detailsButton");
    QTest::mouseClick(details, Qt::LeftButton);
    QVERIFY(log->isVisible());
    QTRY_VERIFY(window->height() > collapsed.height());
    QCOMPARE(window->minimumSize(), window->maximumSize());
    QTest::mouseClick(details, Qt::LeftButton);
    QVERIFY(!log->isVisible());
    QTRY_COMPARE(window->size(), collapsed);

    // Any mouse button on the logo opens the maker's site.
    QDesktopServices::setUrlHandler("https", this, "openUrl");
    QTest::mousePress(child<QLabel>("orlivoLabel"), Qt::LeftButton);
    QTest::mousePress(child<QLabel>("orlivoLabel"), Qt::RightButton);
    QDesktopServices::unsetUrlHandler("https");
    const QUrl site("https://www.orlivo.com/");
    QCOMPARE(opened, (QList<QUrl>{site, site}));
}

void TestMainWindow::workingDirectory_data()
{
    QTest::addColumn<QStringList>("present"); // "dir N", "link N", "dangling N"
    QTest::addColumn<int>("chosen");          // -1: none

    QStringList taken;
    for (int n = 0; n < 999; ++n)
        taken << QString("dir %1").arg(n);
    QTest::newRow("links are never taken") << QStringList{"link 0", "dangling 1"} << 2;
    QTest::newRow("999 is the last candidate") << taken << 999;
    QTest::newRow("all 1000 taken") << (taken << "dir 999") << -1;
}

void TestMainWindow::workingDirectory()
{
    QFETCH(QStringList, present);
    QFETCH(int, chosen);
    const QString target = scratch.filePath("somebody-else");
    QVERIFY(writeTestFile(target + "/keep", "not yours"));
    for (const QString &entry : present) {
        const QString path = tempPath + "/orlivo_temp_" + entry.section(' ', 1);
        if (entry.startsWith("dir"))
            QVERIFY(QDir().mkdir(path));
        else
            QVERIFY(QFile::link(entry.startsWith("link") ? target : target + "/gone", path));
    }

    const QString made = createWorkingDirectory(tempPath);

    QCOMPARE(made, chosen < 0 ? QString() : tempPath + QString("/orlivo_temp_%1").arg(chosen));
    QCOMPARE(QDir(target).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList{"keep"});
    // A private directory of its own, not a link to one.
    struct stat status = {};
    QCOMPARE(::lstat(QFile::encodeName(made).constData(), &status) == 0 ? status.st_mode : 0,
             chosen < 0 ? 0 : S_IFDIR | 0700);
}

// A valid record is read back on every resumption (wholeRun(), the end-to-end test).
void TestMainWindow::invalidRecord_data()
{
    QTest::addColumn<QByteArray>("current");

    QTest::newRow("version empty") << QByteArray("version=\ntype=t\ndir=@TEMP@\n");
    QTest::newRow("directory gone") << QByteArray("version=7\ntype=t\ndir=@TEMP@/gone\n");
}

void TestMainWindow::invalidRecord()
{
    QFETCH(QByteArray, current);
    const QByteArray content =
            "[update]\nstreams=2\n[current]\n" + current.replace("@TEMP@", tempPath.toUtf8());
    QVERIFY(writeTestFile(appFile("update.ini"), content));

    QString version = "untouched", type = version, dir = version;
    QVERIFY(!UpdateDataFile().getExistingUpdateData(&version, &type, &dir));

    QCOMPARE((QStringList{version, type, dir}), QStringList(3, "untouched"));
    // Reading never rewrites the file.
    QCOMPARE(readTestFile(appFile("update.ini")), content);
}

void TestMainWindow::progress_data()
{
    QTest::addColumn<quint64>("current");
    QTest::addColumn<quint64>("total");
    QTest::addColumn<int>("barMaximum");
    QTest::addColumn<int>("barValue");
    QTest::addColumn<QString>("sizes");

    QTest::newRow("0 of 1 is the busy bar")
            << Q_UINT64_C(0) << Q_UINT64_C(1) << 0 << 0 << "0 KB/0 KB";
    QTest::newRow("kilobytes round down")
            << Q_UINT64_C(1999) << Q_UINT64_C(2999) << 29 << 19 << "1 KB/2 KB";
    QTest::newRow("beyond 4 GB") << Q_UINT64_C(5000000000) << Q_UINT64_C(10000000000) << 100000000
                                 << 50000000 << "5000000 KB/10000000 KB";
}

void TestMainWindow::progress()
{
    QFETCH(quint64, current);
    QFETCH(quint64, total);

    window->onProgressCount(current, total);

    QTEST(child<QProgressBar>("totalProgressBar")->maximum(), "barMaximum");
    QTEST(child<QProgressBar>("totalProgressBar")->value(), "barValue");
    QTEST(child<QLabel>("totalSizeLabel")->text() + '/'
                  + child<QLabel>("totalTotalSizeLabel")->text(),
          "sizes");
}

// Thousands of small files send progress faster than the bar is redrawn: the last values
// of a burst still reach the widgets, and a cancellation's reset is not undone by them.
void TestMainWindow::progressBurst()
{
    const auto *bar = child<QProgressBar>("totalProgressBar");
    const auto *size = child<QLabel>("totalSizeLabel");
    for (quint64 done = 0; done <= 300000; done += 1000)
        window->onProgressCount(done, 600000);
    QTRY_COMPARE(bar->value(), 3000);
    QCOMPARE(size->text(), QStringLiteral("300 KB"));

    window->onProgressCount(400000, 600000);
    window->onProgressCount(500000, 600000);
    window->onProcessCancelled();
    QCOMPARE(size->text(), QStringLiteral("500 KB"));
    // Proving that nothing comes later takes waiting out the refresh interval.
    QTest::qWait(100);
    QCOMPARE(bar->maximum(), 1);
    QCOMPARE(bar->value(), 0);
}

void TestMainWindow::germanCatalogue()
{
    // lupdate brings a copy of the catalogue up to date with the sources: whatever it has to
    // add is untranslated, whatever it has to retire matches no tr() call any more.
    const QString copy = tempPath + "/update_de.ts";
    QVERIFY(QFile::copy(SOURCE_DIR "/resources/update_de.ts", copy));
    QStringList arguments{"-locations", "none"};
    for (const char *folder : {"app", "ui", "session", "streams", "update"})
        arguments << QString(SOURCE_DIR "/") + folder;
    QProcess lupdate;
    lupdate.setProcessChannelMode(QProcess::MergedChannels);
    lupdate.start(LUPDATE, arguments << "-ts" << copy);
    QVERIFY(lupdate.waitForFinished(120000));
    QVERIFY2(lupdate.exitCode() == 0, lupdate.readAll().constData());
    // Messages marked so (unfinished, vanished, obsolete), and those without a translation.
    static const QRegularExpression problem(
            "<source>[^<]*</source>\\s*<translation(?: type=\"\\w+\">|></translation>)");
    const QString catalogue = QString::fromUtf8(readTestFile(copy));
    QVERIFY(catalogue.count("<source>") > 30);
    QStringList problems;
    for (const QRegularExpressionMatch &match : problem.globalMatch(catalogue))
        problems << match.captured();
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join('\n')));
}

void TestMainWindow::earlierSession_data()
{
    QTest::addColumn<QString>("kind"); // what the record points to
    QTest::addColumn<QStringList>("log");

    QTest::newRow("other version, directory cannot be removed")
            << "stale"
            << QStringList{"Cleanup previous session (v. 6, @DIR@) files...",
                           "Failed to remove directory"};
    const QStringList dropped{"Recorded directory @DIR@ was not made by the updater, "
                              "record dropped"};
    QTest::newRow("a linked directory is not resumed") << "link" << dropped;
    QTest::newRow("the installation itself is not emptied") << "installation" << dropped;
}

// A same-version session in a directory of the updater's own is resumed in wholeRun(), one of
// another version cleaned away in the end-to-end test; a record whose directory is gone is no
// session at all (invalidRecord()).
void TestMainWindow::earlierSession()
{
    QFETCH(QString, kind);
    QFETCH(QStringList, log);
    const bool stale = kind == "stale";
    const QString storedVersion = stale ? "6" : "7";
    const QString storedType = "client_stored";

    // A stale run's directory holding a link (which emptying leaves, so it cannot be removed), a
    // working directory's name linked to somebody else's directory, or a directory that merely
    // belongs to the user.
    const QString elsewhere = scratch.filePath(QString("elsewhere%1").arg(testNumber));
    QVERIFY(writeTestFile(elsewhere + "/part.bin", "partial download"));
    QString dir = tempPath + "/orlivo_temp_5";
    if (stale) {
        QVERIFY(writeTestFile(dir + "/part.bin", "partial download"));
        QVERIFY(QFile::link(elsewhere, dir + "/link"));
    } else if (kind == "link") {
        QVERIFY(QFile::link(elsewhere, dir));
    } else {
        dir = getAppRootPath();
    }
    QVERIFY(writeTestFile(appFile("update.ini"), "[current]\nversion=" + storedVersion.toUtf8()
                                                         + "\ndir=" + dir.toUtf8()
                                                         + "\ntype=" + storedType.toUtf8() + "\n"));
    const QString sessionFile = appFile(QString("session_%1.ini").arg(storedVersion));
    QVERIFY(writeTestFile(sessionFile, "[s]\n"));
    writeMirrors({deadUrl});
    const QStringList before = QDir(dir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);

    child<QPushButton>("startButton")->click();
    QTRY_VERIFY_WITH_TIMEOUT(child<QPushButton>("startButton")->isEnabled(), runTimeoutMs);

    for (QString &line : log)
        line.replace("@DIR@", dir);
    // The start sequence's own lines, whatever the session logs after them.
    static const QRegularExpression ownLines(
            "^(Previous update session|Cleanup previous session|Ok$|Failed to remove|Recorded)");
    QCOMPARE(logLines().filter(ownLines), log);
    QCOMPARE(recorded("dir"), tempPath + "/orlivo_temp_0");
    QCOMPARE(recorded("version"), "7");
    // The stale session's type is taken over, though the session is gone.
    QCOMPARE(recorded("type"), stale ? storedType : clientType);
    QCOMPARE(QDir(dir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             stale ? QStringList{"link"} : before);
    QCOMPARE(QDir(elsewhere).entryList(QDir::Files), QStringList{"part.bin"});
    QCOMPARE(QFileInfo::exists(sessionFile), !stale);
}

void TestMainWindow::wholeRun()
{
    // Stands in for the client: started from the installation, it leaves a mark there.
    const QString client = appFile("orvclient_linux_amd64");
    QVERIFY(writeTestFile(client, "#!/bin/sh\necho started > \"$(dirname \"$0\")/marker\"\n"));
    QFile::setPermissions(client, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    window->show();
    auto *start = child<QPushButton>("startButton");
    const auto *bar = child<QProgressBar>("totalProgressBar");
    const auto *speed = child<QLabel>("downloadSpeedLabel");

    // No mirror list, then no temporary directory: nothing starts and nothing is written.
    start->click();
    writeMirrors({deadUrl});
    qputenv("TMPDIR", QFile::encodeName(tempPath + "/missing"));
    start->click();
    qputenv("TMPDIR", QFile::encodeName(tempPath));
    QCOMPARE(boxes, (QStringList{"Critical Error: mirrors.ini is missing, cannot proceed. [Ok]",
                                 "Warning Error: Unable to get temp directory. [Ok]"}));
    QVERIFY(start->isEnabled());
    QCOMPARE(start->text(), "Start Update");
    QVERIFY(!QFile::exists(appFile("update.ini")));
    QVERIFY(QDir(tempPath).isEmpty());
    // Without a run the window closes without asking.
    QVERIFY(window->close());
    window->show();

    // A mirror that sends the product list's headers and then nothing keeps the run going.
    std::unique_ptr<LoopbackServer> stalling = LoopbackServer::faultHttp(mirrorRoot.path());
    QVERIFY(stalling);
    const QString listPath = "/7/" + clientType + ".ini";
    stalling->setFaults(listPath, {"stall:0"});
    writeMirrors({stalling->url("http", "/")});
    start->click();
    QVERIFY(!start->isEnabled());
    QTRY_VERIFY(stalling->logLines().join('\n').contains(listPath + " stall:0"));

    // The speed is the average since the press, one tick a second.
    QTimerEvent tick(speedTimerOf(window.get()));
    QVERIFY(tick.timerId() > 0);
    QCoreApplication::sendEvent(window.get(), &tick);
    QCOMPARE(speed->text(), "0 KB/s");
    window->onProgressCount(500000, 1000000);
    for (int i = 0; i < 9; ++i)
        QCoreApplication::sendEvent(window.get(), &tick);
    QCOMPARE(speed->text(), "50 KB/s");

    // Closing asks first: No keeps the window, Yes lets it go but leaves the run alone.
    answer = QMessageBox::No;
    QVERIFY(!window->close());
    QVERIFY(window->isVisible());
    answer = QMessageBox::Yes;
    QVERIFY(window->close());
    const QString question = "Question Question: <p>Update in progress.</p><p>Are you sure you "
                             "want to abort?</p> [Yes|No]";
    QCOMPARE(boxes.mid(2), (QStringList{question, question}));
    QVERIFY(!start->isEnabled());
    window->show();

    // The mirror goes: the run is cancelled, its directory and record kept for the restart.
    answer = QMessageBox::Ok;
    stalling.reset();
    QTRY_VERIFY_WITH_TIMEOUT(start->isEnabled(), runTimeoutMs);
    QCOMPARE(start->text(), "Restart");
    QCOMPARE(boxes.mid(4), QStringList{"Critical Update: Download cancelled. Push \"Details\" to "
                                       "check reasons. [Ok]"});
    QCOMPARE(bar->maximum(), 1);
    QCOMPARE(bar->value(), 0);
    QCOMPARE(logLines().last(), "Download cancelled");
    QCOMPARE(speedTimerOf(window.get()), 0);
    QCOMPARE(speed->text(), "50 KB/s");

    // A mirror is back: "Restart" resumes in the same directory and installs the release.
    writeMirrors({deadUrl, mirror->url("http", "/")});
    start->click();
    QTRY_VERIFY_WITH_TIMEOUT(start->isEnabled(), runTimeoutMs);
    const QStringList lines = logLines();
    QVERIFY(lines.contains("Previous update session for v. 7 found"));
    QCOMPARE(lines.mid(lines.size() - 3),
             (QStringList{"Remove temporary files...", "Temporary files removed.",
                          "Update finished, version: 7"}));
    QCOMPARE(start->text(), "Start Orlivo");
    QCOMPARE(boxes.size(), 5);
    QCOMPARE(readTestFile(appFile(releaseFile)), releaseBytes);
    QCOMPARE(bar->maximum(), bar->value());

    // "Start Orlivo" starts the client from the program's directory and closes the window.
    start->click();
    QVERIFY(!window->isVisible());
    QTRY_COMPARE_WITH_TIMEOUT(readTestFile(appFile("marker")), QByteArray("started\n"),
                              runTimeoutMs);
}

int main(int argc, char *argv[])
{
    TransportLibrary transportLibrary;
    registerMetaTypes();
    QApplication application(argc, argv);
    TestMainWindow test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_mainwindow.moc"
