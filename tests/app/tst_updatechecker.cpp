#include "app/updatechecker.h"
#include "tests/app/updateserversetting.h"
#include "tests/support/loopbackserver.h"

#include <QtTest>

// The version query over a real UDP socket; no way out of it may leave a descriptor behind.
class TestUpdateChecker : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { removeUpdateData(); }
    void reply_data();
    void reply();
    void failedQuery_data();
    void failedQuery();
};

namespace {

qsizetype openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size();
}

} // namespace

void TestUpdateChecker::reply_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<bool>("answered");
    QTest::addColumn<QByteArrayList>("versions");

    QTest::newRow("three fields") << QByteArray("3061,3060,100") << true
                                  << QByteArrayList{"3061", "3060", "100"};
    QTest::newRow("client version only")
            << QByteArray("3061") << true << QByteArrayList{"3061", "", ""};
    QTest::newRow("fields after the third ignored")
            << QByteArray("1,2,3,4,5") << true << QByteArrayList{"1", "2", "3"};
    QTest::newRow("empty fields skipped")
            << QByteArray(",,7,,8,") << true << QByteArrayList{"7", "8", ""};
    QTest::newRow("empty reply") << QByteArray() << true << QByteArrayList{"", "", ""};
    QTest::newRow("only 31 bytes read") << QByteArray("1234567890,1234567890,123456789XYZ") << true
                                        << QByteArrayList{"1234567890", "1234567890", "123456789"};
    QTest::newRow("a zero byte ends the text")
            << QByteArray("12\0,34", 6) << true << QByteArrayList{"12", "", ""};
    QTest::newRow("white space kept")
            << QByteArray("12\n, 3") << true << QByteArrayList{"12\n", " 3", ""};
    QTest::newRow("silent server") << QByteArray("1,2,3") << false << QByteArrayList{"", "", ""};
}

void TestUpdateChecker::reply()
{
    QFETCH(QByteArray, reply);
    QFETCH(bool, answered);
    const auto server = LoopbackServer::versionServer(reply, answered);
    QVERIFY(server);
    setUpdateServer(QStringLiteral("127.0.0.1:%1").arg(server->port()));
    const qsizetype descriptors = openDescriptors();

    UpdateChecker checker;
    QCOMPARE(checker.checkUpdate(), answered);

    QTEST((QByteArrayList{checker.getClientVersion(), checker.getServerVersion(),
                          checker.getAppsVersion()}),
          "versions");
    QCOMPARE(server->logLines(), QStringList{QStringLiteral("3200")});
    QCOMPARE(openDescriptors(), descriptors);
}

void TestUpdateChecker::failedQuery_data()
{
    QTest::addColumn<QString>("setting");

    QTest::newRow("port not a number") << QStringLiteral("127.0.0.1:port");
    QTest::newRow("port 0") << QStringLiteral("127.0.0.1:0");
    QTest::newRow("port too large") << QStringLiteral("127.0.0.1:65536");
    QTest::newRow("port without host") << QStringLiteral(":17384");
    // Refused by sendto without SO_BROADCAST: a failure after the socket exists.
    QTest::newRow("broadcast address") << QStringLiteral("255.255.255.255:17384");
}

void TestUpdateChecker::failedQuery()
{
    QFETCH(QString, setting);
    setUpdateServer(setting);
    const qsizetype descriptors = openDescriptors();

    UpdateChecker checker;
    QVERIFY(!checker.checkUpdate());
    QCOMPARE(openDescriptors(), descriptors);
}

QTEST_GUILESS_MAIN(TestUpdateChecker)
#include "tst_updatechecker.moc"
