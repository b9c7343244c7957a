#include "app/apppaths.h"
#include "app/commandlineoptions.h"
#include "app/messageboxes.h"
#include "app/runningfiles.h"
#include "app/startup.h"
#include "tests/support/loopbackserver.h"
#include "tests/support/testfiles.h"
#include "ui/mainwindow.h"

#include <QtTest>

// Program entry up to the event loop: the command line and the version query behind its
// defaults (against a real UDP version server on loopback), translations, refusal, the renamed
// copies of files in use cleared away, the window, and a copy of the program started elsewhere. Run
// under a German locale as well, where the texts come from the catalogues. The unattended run is
// left to the end-to-end runs.
class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { boxes.clear(); }
    void parse_data();
    void parse();
    void start_data();
    void start();
    void separateProcess();

private:
    bool german = false;
    QTranslator programTranslator;
    QTranslator toolkitTranslator;
    QStringList boxes;
};

void TestStartup::initTestCase()
{
    german = QLocale::system().name().startsWith("de");
    installTranslators(&programTranslator, &toolkitTranslator);
    // The toolkit's catalogue lies below the working directory, not beside the program.
    QCOMPARE(QCoreApplication::translate("QPlatformTheme", "Cancel"),
             german ? "Abbrechen" : "Cancel");
    setMessageBoxHandler([this](const MessageBoxRequest &box) {
        boxes << box.title + ": " + box.text;
        return QMessageBox::Ok;
    });
}

void TestStartup::parse_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("server");   // update.ini's setting; empty: the test server
    QTest::addColumn<QByteArray>("reply"); // empty: the server stays silent
    QTest::addColumn<QString>("result");
    QTest::addColumn<QString>("options"); // runMode clientType clientVersion
    QTest::addColumn<int>("queries");     // seen by the test server
    QTest::addColumn<int>("warnings");    // one box for each query without an answer

    const QString failed = german ? "Die Standardparameter konnten nicht ermittelt werden"
                                  : "Can't detect default parameters";
    const QString none = "0 client_linux_amd64 0";
    const QByteArray answer = "12,3,4";
    // Bounded by the receive timeout; an unbounded wait would hang here.
    QTest::newRow("--nouser, server silent: tried twice")
            << QStringList{"--nouser"} << "" << QByteArray() << failed << none << 2 << 2;
    QTest::newRow("type and version: no query")
            << QStringList{"client_linux_x86", "7"} << "" << answer << ""
            << "1 client_linux_x86 7" << 0 << 0;
    QTest::newRow("switch in capitals: defaults")
            << QStringList{"--NOUSER", "client_linux_x86", "7"} << "" << answer << ""
            << "1 client_linux_amd64 12" << 1 << 0;
    QTest::newRow("five arguments: defaults, server version with a newline")
            << QStringList{"--nouser", "client_linux_x86", "7", "a", "8"} << ""
            << QByteArray("12\n,3") << failed << none << 1 << 0;
    QTest::newRow("empty fields skipped, fields after the third ignored")
            << QStringList() << "" << QByteArray(",,7,,8,9,10") << ""
            << "1 client_linux_amd64 7" << 1 << 0;
    QTest::newRow("only 31 bytes read, all of them commas")
            << QStringList() << "" << QByteArray(31, ',') + "7" << failed << none << 1 << 0;
    QTest::newRow("port too large")
            << QStringList() << "127.0.0.1:65536" << answer << failed << none << 0 << 1;
    // Refused by sendto without SO_BROADCAST: a failure after the socket exists.
    QTest::newRow("broadcast address")
            << QStringList() << "255.255.255.255:17384" << answer << failed << none << 0 << 1;
}

void TestStartup::parse()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, server);
    QFETCH(QByteArray, reply);
    QFETCH(int, queries);
    QFETCH(int, warnings);
    const auto versionServer = LoopbackServer::versionServer(reply, !reply.isEmpty());
    QVERIFY(versionServer);
    const QString settings = getAppRootPath() + "/update.ini";
    QSettings(settings, QSettings::IniFormat)
            .setValue("update/server", server.isEmpty()
                                               ? QString("127.0.0.1:%1").arg(versionServer->port())
                                               : server);
    const auto descriptors = [] {
        return QDir("/proc/self/fd").entryList(QDir::Files | QDir::System).size();
    };
    const qsizetype descriptorsBefore = descriptors();

    CommandLineOptions options;
    QTEST(parseCommandLineOptions(&options, QString(), QStringList{"update"} + arguments),
          "result");

    QFile::remove(settings);
    QTEST(QString("%1 %2 %3")
                  .arg(options.runMode)
                  .arg(options.clientType)
                  .arg(options.clientVersion),
          "options");
    QCOMPARE(versionServer->logLines(), QStringList(queries, "3200"));
    QCOMPARE(descriptors(), descriptorsBefore);
    QCOMPARE(boxes, QStringList(warnings, german ? "Fehler: Die neueste Client-Version konnte "
                                                   "nicht\nvom Update-Server abgefragt werden."
                                                 : "Error: Failed to query latest client\n"
                                                   "version from update server."));
}

void TestStartup::start_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("autoStarts"); // -1: refused

    QTest::newRow("bad version") << QStringList{"update", "client_linux_amd64", "x7"} << -1;
    QTest::newRow("interactive") << QStringList{"update", "client_linux_x86", "7"} << 0;
    QTest::newRow("unattended") << QStringList{"update", "--nouser", "client_linux_x86", "7"} << 1;
}

void TestStartup::start()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, autoStarts);
    const QDir root(getAppRootPath());
    const QStringList lookalikes{"_old_UPDATE", "_old_readme.txt", "old_update", "update"};
    QStringList oldCopies;
    for (const QString &name : getSpecialFileNames())
        oldCopies << "_old_" + name;
    const QStringList all = oldCopies + lookalikes;
    for (const QString &name : all)
        QVERIFY(writeTestFile(root.filePath(name), "x"));

    const auto window = startMainWindow(arguments);

    // Only the renamed copies go, and nothing before the parameters are known.
    QStringList left = lookalikes + (autoStarts < 0 ? oldCopies : QStringList());
    left.sort();
    QCOMPARE(root.entryList(all, QDir::Files | QDir::CaseSensitive, QDir::Name), left);
    for (const QString &name : all)
        QFile::remove(root.filePath(name));
    if (autoStarts < 0) {
        QVERIFY(!window && QApplication::topLevelWidgets().isEmpty());
        QCOMPARE(boxes, QStringList{german ? "Fehler: Ungültige Versionsnummer"
                                           : "Error: Wrong version code"});
        return;
    }
    QVERIFY(window && window->isVisible());
    QCOMPARE(window->windowTitle(),
             german ? "Orlivo Client-Aktualisierung" : "Orlivo Client Update");
    QVERIFY(boxes.isEmpty());
    // An interactive window waits for the user; only the unattended one has a timer to start it.
    QTEST(int(window->findChildren<QTimer *>(Qt::FindDirectChildrenOnly).size()), "autoStarts");
}

// The copy of this program in another directory starts there, detached, with the arguments as
// they are; without such a copy nothing starts.
void TestStartup::separateProcess()
{
    QTemporaryDir dir;
    const QString name = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    QVERIFY(!createSeparateUpdateProcess(dir.path(), {}));
    QVERIFY(writeTestFile(dir.filePath(name), "#!/bin/sh\n{ pwd; printf '%s|' \"$@\"; } > ran.tmp\n"
                                              "mv ran.tmp ran\n"));
    QVERIFY(QFile::setPermissions(dir.filePath(name), QFile::ReadOwner | QFile::ExeOwner));
    QVERIFY(createSeparateUpdateProcess(dir.path(), {"--nouser", "a b", ""}));
    QTRY_VERIFY(QFile::exists(dir.filePath("ran")));
    QCOMPARE(readTestFile(dir.filePath("ran")),
             QFileInfo(dir.path()).canonicalFilePath().toUtf8() + "\n--nouser|a b||");
}

QTEST_MAIN(TestStartup)
#include "tst_startup.moc"
