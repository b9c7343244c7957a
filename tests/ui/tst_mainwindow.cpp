#include "app/apppaths.h"
#include "app/messageboxes.h"
#include "app/startup.h"
#include "streams/transportlibrary.h"
#include "tests/support/loopbackserver.h"
#include "tests/support/testfiles.h"
#include "tools/releasepublisher.h"
#include "ui/mainwindow.h"
#include "ui/workingdirectory.h"

#include <QApplication>
#include <QtTest>

#include <sys/stat.h>

// The window and its runs, in this process against servers on loopback, up to the install and its
// questions. Message boxes are answered through the seam.
class TestMainWindow : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void workingDirectory();
    void progress();
    void germanCatalogue();
    void wholeRun();
    void installQuestion_data();
    void installQuestion();

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
    QTemporaryDir mirrorRoot;
    std::unique_ptr<MainWindow> window;
    QStringList boxes;
    QMessageBox::StandardButton answer = QMessageBox::Ok;
    std::function<void()> beforeAnswer;
    int testNumber = 0;
};

namespace {

const QString clientType = "client_linux_amd64";
constexpr int runTimeoutMs = 60000;
// Nothing listens on port 1: connections are refused at once.
const QString deadUrl = "http://127.0.0.1:1/";

QString appFile(const QString &name)
{
    return getAppRootPath() + '/' + name;
}

void writeMirror(const QString &url)
{
    QVERIFY(writeTestFile(appFile("mirrors.ini"),
                          "[mirrors]\nsize=1\n1\\mirror=m\n[m]\nurl=" + url.toUtf8()
                                  + "\nretries=1\ntimeout=0\n"));
}

} // namespace

void TestMainWindow::initTestCase()
{
    QVERIFY(scratch.isValid());
    QTemporaryDir release;
    // The one file of the release published as version 7.
    QVERIFY(writeTestFile(release.filePath("libvoice.so"), patternBytes(40000, 7)));
    ReleasePublisher publisher(release.path(), clientType, "7", mirrorRoot.path());
    QVERIFY2(publisher.publish(), qPrintable(publisher.errors().join('\n')));

    // Each box as "Title: text [buttons]".
    setMessageBoxHandler([this](const MessageBoxRequest &box) {
        const QMetaEnum buttons = QMetaEnum::fromType<QMessageBox::StandardButtons>();
        // Ok is also known as FirstButton.
        boxes << QString("%1: %2 [%3]")
                         .arg(box.title, box.text,
                              QString(buttons.valueToKeys(int(box.buttons)))
                                      .remove("|FirstButton"));
        if (beforeAnswer)
            beforeAnswer();
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
    window = std::make_unique<MainWindow>(
            CommandLineOptions{CommandLineOptions::Interactive, clientType, 7});
}

void TestMainWindow::cleanup()
{
    window.reset();
    for (const char *name : {"mirrors.ini", "update.ini", "session_6.ini", "session_7.ini",
                             "marker", "orvclient_linux_amd64", "libvoice.so"}) {
        QFile::remove(appFile(name));
    }
}

// Names held by links are never taken, whatever they point to, up to the last of the thousand
// candidates; then there is none and the run is refused. Nor is a link so named taken for one,
// as a record naming it would have it emptied (that record's fate: the end-to-end test).
void TestMainWindow::workingDirectory()
{
    const QString target = scratch.filePath("somebody-else");
    QVERIFY(writeTestFile(target + "/keep", "not yours"));
    const QString prefix = tempPath + "/orlivo_temp_";
    QVERIFY(QFile::link(target, prefix + "0") && QFile::link(target + "/gone", prefix + "1"));
    for (int n = 2; n < 999; ++n)
        QVERIFY(QDir().mkdir(prefix + QString::number(n)));

    QCOMPARE(createWorkingDirectory(tempPath), prefix + "999");
    QCOMPARE(createWorkingDirectory(tempPath), QString());
    QVERIFY(!isOwnWorkingDirectory(prefix + "0", tempPath));
    QVERIFY(isOwnWorkingDirectory(prefix + "999", tempPath));
    QCOMPARE(QDir(target).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList{"keep"});
    // A private directory of its own, not a link to one.
    struct stat status = {};
    QCOMPARE(::lstat(QFile::encodeName(prefix + "999").constData(), &status), 0);
    QCOMPARE(status.st_mode, mode_t(S_IFDIR | 0700));
}

// The bar counts so that sizes beyond 4 GB fit its range. Thousands of small files send progress
// faster than the bar is redrawn: the last values of a burst still reach the widgets, and a
// cancellation's reset is not undone by them.
void TestMainWindow::progress()
{
    const auto *bar = child<QProgressBar>("totalProgressBar");
    const auto *size = child<QLabel>("totalSizeLabel");
    // Nor does the window widen as the counts grow.
    window->show();
    const int width = window->width();
    window->onProgressCount(Q_UINT64_C(4000000000), Q_UINT64_C(8000000000));
    QCOMPARE(QList<int>({bar->maximum(), bar->value()}), QList<int>({80000000, 40000000}));
    QCOMPARE(size->text() + '/' + child<QLabel>("totalTotalSizeLabel")->text(),
             "4000000 KB/8000000 KB");
    QCoreApplication::processEvents();
    QCOMPARE(window->width(), width);

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
    QCOMPARE(QList<int>({bar->maximum(), bar->value()}), QList<int>({1, 0}));
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
    const QRegularExpressionMatch match = problem.match(catalogue);
    QVERIFY2(!match.hasMatch(), qPrintable(match.captured()));
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

    // No mirror list: nothing starts, nothing is written, and the window closes without asking.
    start->click();
    QCOMPARE(boxes, QStringList{"Error: mirrors.ini is missing, cannot proceed. [Ok]"});
    QVERIFY(start->isEnabled() && !QFile::exists(appFile("update.ini"))
            && QDir(tempPath).isEmpty());
    QVERIFY(window->close());
    window->show();

    // A mirror that sends the product list's headers and then nothing keeps the run going.
    std::unique_ptr<LoopbackServer> stalling = LoopbackServer::faultHttp(mirrorRoot.path());
    QVERIFY(stalling);
    const QString listPath = "/7/" + clientType + ".ini";
    stalling->setFaults(listPath, {"stall:0"});
    writeMirror(stalling->url("http", "/"));
    start->click();
    QVERIFY(!start->isEnabled());
    QTRY_VERIFY(stalling->logLines().join('\n').contains(listPath + " stall:0"));

    // Closing asks first: No keeps the window, Yes lets it go but leaves the run alone.
    answer = QMessageBox::No;
    QVERIFY(!window->close() && window->isVisible());
    answer = QMessageBox::Yes;
    QVERIFY(window->close());
    QCOMPARE(boxes.mid(1), QStringList(2, "Question: <p>Update in progress.</p><p>Are you sure "
                                          "you want to abort?</p> [Yes|No]"));
    QVERIFY(!start->isEnabled());
    window->show();

    // The mirror goes: the run is cancelled, its directory and record kept for the restart.
    answer = QMessageBox::Ok;
    stalling.reset();
    QTRY_VERIFY_WITH_TIMEOUT(start->isEnabled(), runTimeoutMs);
    QCOMPARE(start->text(), "Restart");
    QCOMPARE(boxes.mid(3), QStringList{"Update: Download cancelled. Push \"Details\" to "
                                       "check reasons. [Ok]"});
    QCOMPARE(QList<int>({bar->maximum(), bar->value()}), QList<int>({1, 0}));
    // "Details", as the box says, shows the log with the reasons.
    child<QPushButton>("detailsButton")->click();
    QVERIFY(child<QTextEdit>("outputTextEdit")->isVisible());
    QCOMPARE(logLines().last(), "Download cancelled");

    // "Restart" takes the same run up again in its directory, and gives up once more.
    start->click();
    QTRY_VERIFY_WITH_TIMEOUT(start->isEnabled(), runTimeoutMs);
    QVERIFY(logLines().contains("Previous update session for v. 7 found"));
    QCOMPARE(boxes.size(), 5);

    // After an update the button starts the client from the program's directory and closes.
    window->onUpdateFinished(true);
    QCOMPARE(start->text(), "Start Orlivo");
    start->click();
    QVERIFY(!window->isVisible());
    QTRY_COMPARE_WITH_TIMEOUT(readTestFile(appFile("marker")), QByteArray("started\n"),
                              runTimeoutMs);
}

void TestMainWindow::installQuestion_data()
{
    QTest::addColumn<QMessageBox::StandardButton>("reply");
    QTest::addColumn<QString>("logLine");
    QTest::newRow("abort") << QMessageBox::Abort
                           << "Update stopped; the previous version was not changed";
    QTest::newRow("retry, the cause gone") << QMessageBox::Retry << "Update finished, version: 7";
    // The rest switched, but with a file left out the update is no success.
    QTest::newRow("ignore") << QMessageBox::Ignore << "Switch complete";
}

// A file that the install cannot replace is asked about in a box, whose answer is followed.
void TestMainWindow::installQuestion()
{
    QFETCH(QMessageBox::StandardButton, reply);
    std::unique_ptr<LoopbackServer> mirror = LoopbackServer::nginx(mirrorRoot.path());
    QVERIFY(mirror);
    writeMirror(mirror->url("http", "/"));
    const QString inTheWay = appFile("libvoice.so");
    QVERIFY(writeTestFile(inTheWay + "/inside", "x"));
    answer = reply;
    if (reply == QMessageBox::Retry)
        beforeAnswer = [&] { QDir(inTheWay).removeRecursively(); };
    window->show();
    child<QPushButton>("startButton")->click();
    QTRY_VERIFY_WITH_TIMEOUT(child<QPushButton>("startButton")->isEnabled(), runTimeoutMs);
    beforeAnswer = nullptr;
    QCOMPARE(boxes.first(), "Question: Can't overwrite " + inTheWay
                                    + ".\nIs a directory\nDo you wish to stop update? "
                                      "[Abort|Retry|Ignore]");
    QFETCH(QString, logLine);
    QVERIFY(logLines().contains(logLine));
    QCOMPARE(logLines().last().startsWith("Update finished"), reply == QMessageBox::Retry);
    QCOMPARE(QFileInfo(inTheWay).isDir(), reply != QMessageBox::Retry);
    QDir(inTheWay).removeRecursively();
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
