#include "app/commandlineoptions.h"
#include "app/messageboxes.h"
#include "tests/support/loopbackserver.h"
#include "tests/app/updateserversetting.h"

#include <QtTest>

// The command line against a real version server on the loopback interface.
class TestCommandLineOptions : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void parse_data();
    void parse();
    void clientTypeVersion();

private:
    QList<MessageBoxRequest> boxes;
};

namespace {

const QString defaultsFailed = QStringLiteral("Can't detect default parameters");
const QString queryFailed = QStringLiteral("Failed to query latest client\n"
                                           "version from update server.");

enum ServerBehaviour { Answers12, AnswersNonNumber, Silent };

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
    removeUpdateData();
}

void TestCommandLineOptions::parse_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("server");
    QTest::addColumn<QString>("fallbackVersion");
    QTest::addColumn<QString>("result");
    QTest::addColumn<int>("runMode");
    QTest::addColumn<QString>("clientType");
    QTest::addColumn<int>("clientVersion");
    QTest::addColumn<int>("warnings");
    QTest::addColumn<int>("queries");

    const QString amd64 = QStringLiteral("client_linux_amd64");
    const QString x86 = QStringLiteral("client_linux_x86");
    const QString none;

    QTest::newRow("no arguments, server answers 12")
            << QStringList() << int(Answers12) << none << none << 1 << amd64 << 12 << 0 << 1;
    QTest::newRow("no arguments, server answers a non-number")
            << QStringList() << int(AnswersNonNumber) << none << defaultsFailed << 0 << amd64 << 0
            << 0 << 1;
    QTest::newRow("no arguments, server silent")
            << QStringList() << int(Silent) << none << defaultsFailed << 0 << amd64 << 0 << 1 << 1;
    QTest::newRow("no arguments, server silent, fallback version")
            << QStringList() << int(Silent) << QStringLiteral("33") << none << 1 << amd64 << 33 << 1
            << 1;
    QTest::newRow("--nouser, server answers 12") << QStringList{"--nouser"} << int(Answers12)
                                                 << none << none << 2 << amd64 << 12 << 0 << 1;
    QTest::newRow("--nouser, server silent: asked twice")
            << QStringList{"--nouser"} << int(Silent) << none << defaultsFailed << 0 << amd64 << 0
            << 2 << 2;
    QTest::newRow("type and version: no query")
            << QStringList{x86, "7"} << int(Answers12) << none << none << 1 << x86 << 7 << 0 << 0;
    QTest::newRow("--nouser, type and version: no query")
            << QStringList{"--nouser", x86, "7"} << int(Answers12) << none << none << 2 << x86 << 7
            << 0 << 0;
    QTest::newRow("--nouser, type and bad version")
            << QStringList{"--nouser", amd64, "x7"} << int(Answers12) << none
            << QStringLiteral("Wrong version code") << 2 << amd64 << 0 << 0 << 0;
    QTest::newRow("version with a trailing space")
            << QStringList{x86, "7 "} << int(Answers12) << none
            << QStringLiteral("Wrong version code") << 1 << x86 << 0 << 0 << 0;
    QTest::newRow("switch in capitals falls back to the defaults")
            << QStringList{"--NOUSER", x86, "7"} << int(Answers12) << none << none << 1 << amd64
            << 12 << 0 << 1;
    QTest::newRow("one unknown word falls back to the defaults")
            << QStringList{"hello"} << int(Answers12) << none << none << 1 << amd64 << 12 << 0 << 1;
    QTest::newRow("five arguments are ignored")
            << QStringList{"--nouser", x86, "7", x86, "8"} << int(Answers12) << none << none << 1
            << amd64 << 12 << 0 << 1;
}

void TestCommandLineOptions::parse()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, server);
    QFETCH(QString, fallbackVersion);

    const auto versionServer = LoopbackServer::versionServer(
            server == AnswersNonNumber ? QByteArray("12\n,3,4") : QByteArray("12,3,4"),
            server != Silent);
    QVERIFY(versionServer);
    setUpdateServer(QStringLiteral("127.0.0.1:%1").arg(versionServer->port()));

    CommandLineOptions options;
    arguments.prepend(QStringLiteral("/opt/orlivo/update"));
    const QString result = parseCommandLineOptions(&options, fallbackVersion, arguments);

    QTEST(result, "result");
    QTEST(options.runMode, "runMode");
    QTEST(options.clientType, "clientType");
    QTEST(options.clientVersion, "clientVersion");
    QFETCH(int, warnings);
    QCOMPARE(boxes.size(), warnings);
    for (const MessageBoxRequest &box : std::as_const(boxes)) {
        QCOMPARE(box.icon, QMessageBox::Warning);
        QCOMPARE(box.title, QStringLiteral("Error"));
        QCOMPARE(box.text, queryFailed);
        QCOMPARE(box.buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
    }
    QFETCH(int, queries);
    QCOMPARE(versionServer->logLines(), QStringList(queries, QStringLiteral("3200")));
}

void TestCommandLineOptions::clientTypeVersion()
{
    // The two texts that the command line itself cannot reach.
    const QStringList arguments{"update", "client_linux_x86"};
    CommandLineOptions options;
    QCOMPARE(getClientTypeVersion(&options, arguments, 2), "No client type specified");
    QCOMPARE(options.clientType, QString());
    QCOMPARE(getClientTypeVersion(&options, arguments, 1), "No client version specified");
    QCOMPARE(options.clientType, QStringLiteral("client_linux_x86"));
    QCOMPARE(options.runMode, 0);
}

QTEST_MAIN(TestCommandLineOptions)
#include "tst_commandlineoptions.moc"
