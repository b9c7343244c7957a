#include "app/apppaths.h"
#include "app/commandlineoptions.h"
#include "app/messageboxes.h"
#include "app/updatechecker.h"
#include "tests/support/loopbackserver.h"

#include <QtTest>

// The command line and the version query behind its defaults, against a real UDP version server
// on the loopback interface.
class TestCommandLineOptions : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void parse_data();
    void parse();
    void clientTypeVersion();
    void reply_data();
    void reply();

private:
    QList<MessageBoxRequest> boxes;
};

namespace {

// Points the version query at a test server through the installation's update.ini.
void setUpdateServer(const QString &server)
{
    QSettings(getAppRootPath() + QStringLiteral("/update.ini"), QSettings::IniFormat)
            .setValue(QStringLiteral("update/server"), server);
}

qsizetype openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size();
}

} // namespace

void TestCommandLineOptions::init()
{
    boxes.clear();
    setMessageBoxHandler([this](const MessageBoxRequest &request) {
        boxes.append(request);
        return QMessageBox::Ok;
    });
}

void TestCommandLineOptions::cleanup()
{
    setMessageBoxHandler({});
    QFile::remove(getAppRootPath() + QStringLiteral("/update.ini"));
}

void TestCommandLineOptions::parse_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("reply"); // empty: the server stays silent
    QTest::addColumn<QString>("result");
    QTest::addColumn<QString>("options"); // runMode clientType clientVersion
    QTest::addColumn<int>("queries");     // each failed one shows a warning box

    const QString failed = QStringLiteral("Can't detect default parameters");
    const QByteArray answer = "12,3,4";
    QTest::newRow("no arguments: the server's version") << QStringList() << answer << ""
                                                        << "1 client_linux_amd64 12" << 1;
    QTest::newRow("server version with a newline")
            << QStringList() << QByteArray("12\n,3") << failed << "0 client_linux_amd64 0" << 1;
    QTest::newRow("--nouser, server silent: tried twice")
            << QStringList{"--nouser"} << QByteArray() << failed << "0 client_linux_amd64 0" << 2;
    QTest::newRow("--nouser: defaults, unattended") << QStringList{"--nouser"} << answer << ""
                                                    << "2 client_linux_amd64 12" << 1;
    QTest::newRow("type and version: no query")
            << QStringList{"client_linux_x86", "7"} << answer << ""
            << "1 client_linux_x86 7" << 0;
    QTest::newRow("--nouser, type and bad version")
            << QStringList{"--nouser", "client_linux_amd64", "x7"} << answer << "Wrong version code"
            << "2 client_linux_amd64 0" << 0;
    QTest::newRow("switch in capitals: defaults")
            << QStringList{"--NOUSER", "client_linux_x86", "7"} << answer << ""
            << "1 client_linux_amd64 12" << 1;
    QTest::newRow("five arguments: defaults")
            << QStringList{"--nouser", "client_linux_x86", "7", "a", "8"} << answer << ""
            << "1 client_linux_amd64 12" << 1;
}

void TestCommandLineOptions::parse()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, reply);
    QFETCH(int, queries);
    const auto server = LoopbackServer::versionServer(reply, !reply.isEmpty());
    QVERIFY(server);
    setUpdateServer(QStringLiteral("127.0.0.1:%1").arg(server->port()));

    CommandLineOptions options;
    arguments.prepend(QStringLiteral("/opt/orlivo/update"));
    QTEST(parseCommandLineOptions(&options, QString(), arguments), "result");

    QTEST(QStringLiteral("%1 %2 %3")
                  .arg(options.runMode)
                  .arg(options.clientType)
                  .arg(options.clientVersion),
          "options");
    QCOMPARE(server->logLines(), QStringList(queries, QStringLiteral("3200")));
    QCOMPARE(boxes.size(), reply.isEmpty() ? queries : 0);
    for (const MessageBoxRequest &box : std::as_const(boxes)) {
        QCOMPARE(box.icon, QMessageBox::Warning);
        QCOMPARE(box.title, QStringLiteral("Error"));
        QCOMPARE(box.text, QStringLiteral("Failed to query latest client\n"
                                          "version from update server."));
        QCOMPARE(box.buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
    }
}

void TestCommandLineOptions::clientTypeVersion()
{
    // The two texts that the command line itself cannot reach.
    const QStringList arguments{"update", "client_linux_x86"};
    CommandLineOptions options;
    QCOMPARE(getClientTypeVersion(&options, arguments, 2), "No client type specified");
    QCOMPARE(getClientTypeVersion(&options, arguments, 1), "No client version specified");
    QCOMPARE(options.clientType, QStringLiteral("client_linux_x86"));
}

void TestCommandLineOptions::reply_data()
{
    QTest::addColumn<QString>("setting"); // empty: the test server
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<QByteArrayList>("versions"); // empty: no answer

    QTest::newRow("fields after the third ignored")
            << "" << QByteArray("1,2,3,4,5") << QByteArrayList{"1", "2", "3"};
    QTest::newRow("empty fields skipped")
            << "" << QByteArray(",,7,,8,") << QByteArrayList{"7", "8", ""};
    QTest::newRow("empty reply") << "" << QByteArray() << QByteArrayList{"", "", ""};
    QTest::newRow("only 31 bytes read") << "" << QByteArray("1234567890,1234567890,123456789XYZ")
                                        << QByteArrayList{"1234567890", "1234567890", "123456789"};
    // Bounded by the receive timeout; an unbounded wait would hang here.
    QTest::newRow("silent server") << "" << QByteArray("1") << QByteArrayList();
    QTest::newRow("port too large") << "127.0.0.1:65536" << QByteArray("1") << QByteArrayList();
    // Refused by sendto without SO_BROADCAST: a failure after the socket exists.
    QTest::newRow("broadcast address")
            << "255.255.255.255:17384" << QByteArray("1") << QByteArrayList();
}

void TestCommandLineOptions::reply()
{
    QFETCH(QString, setting);
    QFETCH(QByteArray, reply);
    QFETCH(QByteArrayList, versions);
    const auto server = LoopbackServer::versionServer(reply, !versions.isEmpty());
    QVERIFY(server);
    setUpdateServer(setting.isEmpty() ? QStringLiteral("127.0.0.1:%1").arg(server->port())
                                      : setting);
    const qsizetype descriptors = openDescriptors();

    UpdateChecker checker;
    QCOMPARE(checker.checkUpdate(), !versions.isEmpty());

    if (!versions.isEmpty()) {
        QCOMPARE((QByteArrayList{checker.getClientVersion(), checker.getServerVersion(),
                                 checker.getAppsVersion()}),
                 versions);
    }
    QCOMPARE(server->logLines().size(), setting.isEmpty() ? 1 : 0);
    QCOMPARE(openDescriptors(), descriptors);
}

QTEST_MAIN(TestCommandLineOptions)
#include "tst_commandlineoptions.moc"
