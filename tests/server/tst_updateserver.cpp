#include "server/sourcelimiter.h"
#include "tests/support/loopbackserver.h"
#include "tests/support/testfiles.h"

#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpServer>
#include <QNetworkDatagram>
#include <QUdpSocket>
#include <QtTest>

#include <csignal>

#include <sys/stat.h>

namespace {

const QString clientType = QStringLiteral("client_linux_amd64");

bool execute(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    return process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit
           && process.exitCode() == 0;
}

// update-server on a free loopback port, stopped by SIGTERM as systemd stops it.
class VersionServer
{
public:
    explicit VersionServer(const QStringList &arguments)
    {
        process.setReadChannel(QProcess::StandardError);
        process.start(UPDATE_SERVER,
                      QStringList{"--listen", "127.0.0.1", "--port", "0"} + arguments);
        static const QRegularExpression listening("Listening on 127.0.0.1:(\\d+)");
        QRegularExpressionMatch match;
        while (process.waitForReadyRead(5000)) {
            output += process.readAllStandardError();
            match = listening.match(QString::fromUtf8(output));
            if (match.hasMatch())
                break;
        }
        port = quint16(match.captured(1).toUInt());
    }
    // Ends cleanly on SIGTERM, saying so.
    bool stop()
    {
        ::kill(pid_t(process.processId()), SIGTERM);
        const bool ended = process.waitForFinished(5000);
        output += process.readAllStandardError();
        return ended && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0
               && output.contains("Stopping on signal 15");
    }
    ~VersionServer()
    {
        process.kill();
        process.waitForFinished();
    }

    QProcess process;
    QByteArray output;
    quint16 port = 0;
};

} // namespace

class TestUpdateServer : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString mirrorRoot, keys, unknownKeys;
    std::unique_ptr<LoopbackServer> ftp;
    QString deadPort;
    std::unique_ptr<QTemporaryDir> installation;

    QString at(const QString &name) const { return installation->filePath(name); }

    bool publish(const QString &version, const QString &root, const QString &keyDir)
    {
        return execute(UPDATE_PUBLISH, {"--sign", keyDir + "/update-secret.key",
                                        work.filePath("release"), clientType, version, root});
    }

    // The real updater asks as a run would: status, standard output and error.
    int check(const QByteArray &settings, bool trusted, QByteArray *out, QByteArray *err = nullptr)
    {
        installation = std::make_unique<QTemporaryDir>();
        if (!QFile::copy(UPDATE_BINARY, at("update"))
            || !writeTestFile(at("mirrors.ini"), mirrorsIni({"http://127.0.0.1:" + deadPort + '/',
                                                             ftp->url("ftp", "/")}))
            || !writeTestFile(at("update.ini"), settings)
            || (trusted && !QFile::copy(keys + "/update-keys.pub", at("update-keys.pub"))))
            return -1;
        QProcess updater;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            environment.remove(QString::fromLatin1(name));
        updater.setProcessEnvironment(environment);
        updater.start(at("update"), {"--check"});
        if (!updater.waitForFinished(60000))
            return -1;
        *out = updater.readAllStandardOutput();
        if (err)
            *err = updater.readAllStandardError();
        return updater.exitStatus() == QProcess::NormalExit ? updater.exitCode() : -1;
    }

    // Asks with the real updater until it reports version and status.
    bool announces(quint16 port, const QByteArray &line, int status = 10)
    {
        QByteArray out;
        const QByteArray settings = "[update]\nserver=127.0.0.1:" + QByteArray::number(port)
                                    + "\n[installed]\nversion=11\n";
        for (int attempt = 0; attempt < 50; ++attempt) {
            if (check(settings, false, &out) == status && out == line + '\n')
                return true;
            QTest::qWait(100);
        }
        qWarning("last answer: %s", out.constData());
        return false;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        QVERIFY(writeTree(work.path(), {{"release/readme.txt", "Orlivo\n"},
                                        {"release/lib/libvoice.so", noiseBytes(5000, 1)}}));
        keys = work.filePath("keys");
        unknownKeys = work.filePath("unknown");
        QVERIFY(makeSigningKeys(keys, unknownKeys, UPDATE_PUBLISH));
        mirrorRoot = QFileInfo(work.path()).canonicalFilePath() + "/mirror";
        QVERIFY(publish("12", mirrorRoot, keys));
        ftp = LoopbackServer::ftp(mirrorRoot);
        QVERIFY(ftp);
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        deadPort = QString::number(probe.serverPort());
    }

    // "update --check": the server's answer, else the pointer on the first mirror that has one
    // (after a dead one, over FTP); with a trusted key only a signed, current pointer not below
    // the installed version counts, and it beats a lower (frozen) server answer.
    void check_data()
    {
        QTest::addColumn<QByteArray>("reply"); // empty: nobody answers
        QTest::addColumn<QString>("pointer");
        QTest::addColumn<bool>("trusted");
        QTest::addColumn<QByteArray>("installed");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("server newer")
                << QByteArray("12,3060,100") << "none" << false << QByteArray("11") << 10
                << QByteArray("12 available, 11 installed");
        QTest::newRow("server same") << QByteArray("12") << "none" << false << QByteArray("12") << 0
                                     << QByteArray("up to date (12)");
        QTest::newRow("server frozen, signed pointer newer")
                << QByteArray("11") << "signed" << true << QByteArray("11") << 10
                << QByteArray("12 available, 11 installed");
        QTest::newRow("no server, signed pointer")
                << QByteArray() << "signed" << true << QByteArray("12") << 0
                << QByteArray("up to date (12)");
        QTest::newRow("no server, unsigned pointer, no key")
                << QByteArray() << "unsigned" << false << QByteArray("11") << 10
                << QByteArray("12 available, 11 installed");
        QTest::newRow("no server, unsigned pointer")
                << QByteArray() << "unsigned" << true << QByteArray("11") << 1 << QByteArray();
        QTest::newRow("no server, pointer signed by an unknown key")
                << QByteArray() << "unknown key" << true << QByteArray("11") << 1 << QByteArray();
        QTest::newRow("no server, pointer naming another client type")
                << QByteArray() << "other type" << true << QByteArray("11") << 1 << QByteArray();
        QTest::newRow("no server, expired pointer")
                << QByteArray() << "expired" << true << QByteArray("11") << 1 << QByteArray();
        QTest::newRow("no server, pointer below installed")
                << QByteArray() << "signed" << true << QByteArray("13") << 1 << QByteArray();
        QTest::newRow("no server, no pointer")
                << QByteArray() << "none" << true << QByteArray("11") << 1 << QByteArray();
        QTest::newRow("installed version not a number")
                << QByteArray("12") << "none" << false << QByteArray("12a") << 1 << QByteArray();
    }

    void check()
    {
        QFETCH(QByteArray, reply);
        QFETCH(QString, pointer);
        QFETCH(bool, trusted);
        QFETCH(QByteArray, installed);
        QFETCH(int, status);
        QFETCH(QByteArray, line);
        const QString latest = mirrorRoot + '/' + clientType + ".latest";
        QFile::remove(latest);
        QFile::remove(latest + ".minisig");
        if (pointer == "expired") {
            QVERIFY(writeTestFile(latest, "[latest]\ntype=" + clientType.toUtf8()
                                                  + "\nversion=12\nexpires=1000\n"));
            QVERIFY(execute("minisign",
                            {"-S", "-s", keys + "/update-secret.key", "-t",
                             "orlivo-latest " + clientType + " 12 1000", "-m", latest}));
        } else if (pointer != "none") {
            QStringList arguments{"--latest", clientType, "12", mirrorRoot};
            if (pointer != "unsigned")
                arguments << "--sign"
                          << (pointer == "unknown key" ? unknownKeys : keys) + "/update-secret.key";
            QVERIFY(execute(UPDATE_PUBLISH, arguments));
            if (pointer == "other type")
                QVERIFY(writeTestFile(latest,
                                      readTestFile(latest).replace("type=client", "type=x")));
        }
        std::unique_ptr<VersionServer> server;
        QByteArray port = deadPort.toUtf8();
        if (!reply.isEmpty()) {
            server = std::make_unique<VersionServer>(QStringList{"--reply", reply});
            QVERIFY(server->port);
            port = QByteArray::number(server->port);
        }
        QByteArray out, err;
        QCOMPARE(check("[update]\nserver=127.0.0.1:" + port + "\n[installed]\nversion=" + installed
                               + '\n',
                       trusted, &out, &err),
                 status);
        QCOMPARE(out, line.isEmpty() ? line : line + '\n');
        QVERIFY(!pointer.contains(' ')
                || err.contains(pointer == "unknown key"
                                        ? QByteArray("its signature is not valid")
                                        : "it is not a pointer to " + clientType.toUtf8()));
        QVERIFY(pointer != "signed" || reply.isEmpty() || err.contains("lower than the signed"));
        // Nothing fetched beyond the pointer, nothing written.
        QCOMPARE(treeBelow(installation->path()).keys().filter("orlivo_temp").size(), 0);
        QVERIFY(!readTestFile(at("update.ini")).contains("[current]"));
        QVERIFY(!server || server->stop());
    }

    // A version has no place in a check: said so, and nothing else done.
    void checkWithVersion()
    {
        QProcess updater;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove("DISPLAY");
        updater.setProcessEnvironment(environment);
        updater.start(UPDATE_BINARY, {"--check", clientType, "12"});
        QVERIFY(updater.waitForFinished(60000));
        QCOMPARE(updater.exitCode(), 1);
        QCOMPARE(updater.readAllStandardError(), "update: --check takes at most a client type\n");
    }

    // A release is announced once it is complete and signed by a trusted key, and then without
    // a restart.
    void mirrorTree()
    {
        const QString root = work.filePath("tree");
        QVERIFY(publish("12", root, keys) && publish("13", root, keys)
                && publish("14", root, unknownKeys));
        // 13 as halfway through publishing: its list, written last, not yet in place.
        const QString list13 = root + "/13/" + clientType + ".ini";
        QVERIFY(QFile::rename(list13, list13 + ".tmp"));
        // A pipe where a manifest goes is no release, and never keeps the server waiting.
        QVERIFY(QDir().mkpath(root + "/15"));
        QVERIFY(::mkfifo(QFile::encodeName(root + "/15/" + clientType + ".manifest").constData(),
                         0600)
                == 0);
        VersionServer server(
                {"--mirror", root, "--type", clientType, "--key", keys + "/update-keys.pub"});
        QVERIFY(server.port);
        QVERIFY(announces(server.port, "12 available, 11 installed"));
        QVERIFY(QFile::rename(list13 + ".tmp", list13));
        QVERIFY(announces(server.port, "13 available, 11 installed"));
        QVERIFY(server.stop());
        QVERIFY(server.output.contains("Announcing version 13"));
    }

    // One source flooding gets no more than its budget, in datagrams no larger than its own
    // would allow; other datagrams get nothing; another source keeps its answers.
    void flood()
    {
        VersionServer server({"--reply", "12", "--rate", "5", "--burst", "10"});
        QVERIFY(server.port);
        QUdpSocket flooder, stranger;
        QVERIFY(flooder.bind(QHostAddress("127.0.0.2"), 0));
        QVERIFY(stranger.bind(QHostAddress("127.0.0.3"), 0));
        QElapsedTimer elapsed;
        elapsed.start();
        for (int i = 0; i < 3000; ++i)
            flooder.writeDatagram(QByteArray("2\0", 2), QHostAddress::LocalHost, server.port);
        for (const QByteArray &other :
             {QByteArray("2"), QByteArray("2\0x", 3), QByteArray("3\0", 2), QByteArray(64, '2')})
            stranger.writeDatagram(other, QHostAddress::LocalHost, server.port);
        QVERIFY(announces(server.port, "12 available, 11 installed"));
        QTest::qWait(200);
        int answers = 0;
        while (flooder.hasPendingDatagrams()) {
            QCOMPARE(flooder.receiveDatagram().data(), QByteArray("12"));
            ++answers;
        }
        QVERIFY2(answers >= 10 && answers <= 10 + 5 * (elapsed.elapsed() / 1000 + 1),
                 QByteArray::number(answers));
        QVERIFY(!stranger.hasPendingDatagrams());
        QVERIFY(server.stop());
        // The count line written at the stop. A loaded machine may drop some of the flood
        // before the server reads it, and the updater may ask more than once.
        static const QRegularExpression line(
                "since the last count: (\\d+) answered, (\\d+) over the per-source limit, 0 "
                "without a version to announce, ([1-4]) other datagrams ignored; ");
        const QRegularExpressionMatch counts = line.match(QString::fromUtf8(server.output));
        QVERIFY2(counts.hasMatch(), server.output.constData());
        QVERIFY(counts.captured(1).toInt() > answers);
        QVERIFY(counts.captured(2).toInt() > 0 && counts.captured(2).toInt() <= 3000 - answers);
    }

    // Spoofed addresses fill the table; a full table is looked through at most once a second,
    // and what a look frees goes to the next new sources.
    void limiterFullOfSources()
    {
        constexpr qint64 second = 1000000000;
        SourceLimiter limiter(10, 1, 2);
        QVERIFY(limiter.admit(1, 0) && limiter.admit(2, 0));
        QVERIFY(!limiter.admit(1, 0));
        QVERIFY(!limiter.admit(3, 0));          // looked: nothing idle
        QVERIFY(!limiter.admit(4, second / 2)); // idle by now, but looked too recently
        QVERIFY(limiter.admit(4, second) && limiter.admit(5, second));
        QVERIFY(!limiter.admit(6, second));
        QCOMPARE(limiter.sources(), size_t(2));
    }

    // The units load as systemd reads them, with no complaint.
    void packaging()
    {
        const QString analyze = QStandardPaths::findExecutable("systemd-analyze");
        if (analyze.isEmpty())
            QSKIP("systemd-analyze is not installed");
        QStringList units;
        for (const QString &name : QDir(PACKAGING_DIR).entryList(QDir::Files)) {
            QByteArray text = readTestFile(QString(PACKAGING_DIR) + '/' + name);
            text.replace("/usr/local/bin/update-server", UPDATE_SERVER)
                    .replace("/opt/orlivo/update", UPDATE_BINARY);
            QVERIFY(writeTestFile(work.filePath("units/" + name), text));
            units << work.filePath("units/" + name);
        }
        QCOMPARE(units.size(), 3);
        QProcess verify;
        verify.setProcessChannelMode(QProcess::MergedChannels);
        verify.start(analyze, QStringList{"verify"} + units);
        QVERIFY(verify.waitForFinished(60000));
        const QByteArray complaints = verify.readAll();
        QVERIFY2(verify.exitCode() == 0 && complaints.isEmpty(), complaints.constData());
    }
};

QTEST_GUILESS_MAIN(TestUpdateServer)
#include "tst_updateserver.moc"
