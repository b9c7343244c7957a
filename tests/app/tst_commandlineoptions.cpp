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
    void parse_data();
    void parse();
};

void TestCommandLineOptions::parse_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("server");   // update.ini's setting; empty: the test server
    QTest::addColumn<QByteArray>("reply"); // empty: the server stays silent
    QTest::addColumn<QString>("result");
    QTest::addColumn<QString>("options"); // runMode clientType clientVersion
    QTest::addColumn<int>("queries");     // seen by the test server
    QTest::addColumn<int>("boxes");       // one warning for each query without an answer

    const QString failed = "Can't detect default parameters";
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

void TestCommandLineOptions::parse()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, server);
    QFETCH(QByteArray, reply);
    QFETCH(int, queries);
    QFETCH(int, boxes);
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
    QStringList texts;
    setMessageBoxHandler([&texts](const MessageBoxRequest &box) {
        texts << box.title + ": " + box.text;
        return QMessageBox::Ok;
    });

    CommandLineOptions options;
    QTEST(parseCommandLineOptions(&options, QString(), QStringList{"update"} + arguments),
          "result");

    setMessageBoxHandler({});
    QFile::remove(settings);
    QTEST(QString("%1 %2 %3")
                  .arg(options.runMode)
                  .arg(options.clientType)
                  .arg(options.clientVersion),
          "options");
    QCOMPARE(versionServer->logLines(), QStringList(queries, "3200"));
    QCOMPARE(descriptors(), descriptorsBefore);
    QCOMPARE(texts,
             QStringList(boxes,
                         "Error: Failed to query latest client\nversion from update server."));
}

QTEST_MAIN(TestCommandLineOptions)
#include "tst_commandlineoptions.moc"
