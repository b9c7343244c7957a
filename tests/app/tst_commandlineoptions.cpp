#include "app/apppaths.h"
#include "app/commandlineoptions.h"
#include "app/messageboxes.h"
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
    QTest::addColumn<QString>("server");   // update.ini's setting; empty: the test server
    QTest::addColumn<QByteArray>("reply"); // empty: the server stays silent
    QTest::addColumn<QString>("result");
    QTest::addColumn<QString>("options"); // runMode clientType clientVersion
    QTest::addColumn<int>("queries");     // seen by the test server
    QTest::addColumn<int>("boxes");       // one warning for each query without an answer

    const QString failed = QStringLiteral("Can't detect default parameters");
    const QString none = QStringLiteral("0 client_linux_amd64 0");
    const QByteArray answer = "12,3,4";
    QTest::newRow("no arguments, server version with a newline")
            << QStringList() << "" << QByteArray("12\n,3") << failed << none << 1 << 0;
    // Bounded by the receive timeout; an unbounded wait would hang here.
    QTest::newRow("--nouser, server silent: tried twice")
            << QStringList{"--nouser"} << "" << QByteArray() << failed << none << 2 << 2;
    QTest::newRow("--nouser: defaults, unattended") << QStringList{"--nouser"} << "" << answer << ""
                                                    << "2 client_linux_amd64 12" << 1 << 0;
    QTest::newRow("type and version: no query")
            << QStringList{"client_linux_x86", "7"} << "" << answer << ""
            << "1 client_linux_x86 7" << 0 << 0;
    QTest::newRow("--nouser, type and bad version")
            << QStringList{"--nouser", "client_linux_amd64", "x7"} << "" << answer
            << "Wrong version code"
            << "2 client_linux_amd64 0" << 0 << 0;
    QTest::newRow("switch in capitals: defaults")
            << QStringList{"--NOUSER", "client_linux_x86", "7"} << "" << answer << ""
            << "1 client_linux_amd64 12" << 1 << 0;
    QTest::newRow("five arguments: the server's version")
            << QStringList{"--nouser", "client_linux_x86", "7", "a", "8"} << "" << answer << ""
            << "1 client_linux_amd64 12" << 1 << 0;
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

void TestCommandLineOptions::parse()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, server);
    QFETCH(QByteArray, reply);
    QFETCH(int, queries);
    const auto versionServer = LoopbackServer::versionServer(reply, !reply.isEmpty());
    QVERIFY(versionServer);
    setUpdateServer(server.isEmpty() ? QStringLiteral("127.0.0.1:%1").arg(versionServer->port())
                                     : server);
    const qsizetype descriptors = openDescriptors();

    CommandLineOptions options;
    arguments.prepend(QStringLiteral("/opt/orlivo/update"));
    QTEST(parseCommandLineOptions(&options, QString(), arguments), "result");

    QTEST(QStringLiteral("%1 %2 %3")
                  .arg(options.runMode)
                  .arg(options.clientType)
                  .arg(options.clientVersion),
          "options");
    QCOMPARE(versionServer->logLines(), QStringList(queries, QStringLiteral("3200")));
    QCOMPARE(openDescriptors(), descriptors);
    QTEST(int(boxes.size()), "boxes");
    for (const MessageBoxRequest &box : std::as_const(boxes)) {
        QCOMPARE(box.icon, QMessageBox::Warning);
        QCOMPARE(box.title, QStringLiteral("Error"));
        QCOMPARE(box.text, QStringLiteral("Failed to query latest client\n"
                                          "version from update server."));
        QCOMPARE(box.buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
    }
}

QTEST_MAIN(TestCommandLineOptions)
#include "tst_commandlineoptions.moc"
