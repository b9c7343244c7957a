#include "session/ftpproductdownloadsession.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

// How a session reads its mirror list and the update settings from real ini files.
class tst_SessionInitialize : public QObject
{
    Q_OBJECT

private slots:
    void initialize_data();
    void initialize();

private:
    QTemporaryDir dir;
};

void tst_SessionInitialize::initialize_data()
{
    QTest::addColumn<QString>("mirrorList");
    QTest::addColumn<QString>("updateData"); // no update data file when null
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("mirrors"); // "name|url|retries|timeout"
    QTest::addColumn<int>("streams");
    QTest::addColumn<QString>("proxy");

    const QString one = "[mirrors]\nsize=1\n1\\mirror=main\n[main]\nurl=ftp://h\n";
    const QString none;
    QTest::newRow("defaults, no update data file")
            << one << none << true << QStringList{"main|ftp://h/3.0.1|5|15"} << 4 << none;
    QTest::newRow("url already ending in a slash")
            << "[mirrors]\nsize=1\n1\\mirror=main\n[main]\nurl=http://h/pub/\n"
            << none << true << QStringList{"main|http://h/pub/3.0.1|5|15"} << 4 << none;
    QTest::newRow("values taken") << one + "retries=2\ntimeout=40\n"
                                  << none << true << QStringList{"main|ftp://h/3.0.1|2|40"} << 4
                                  << none;
    QTest::newRow("zero: retries corrected, timeout kept")
            << one + "retries=0\ntimeout=0\n"
            << none << true << QStringList{"main|ftp://h/3.0.1|5|0"} << 4 << none;
    QTest::newRow("negative values fall back")
            << one + "retries=-3\ntimeout=-1\n"
            << none << true << QStringList{"main|ftp://h/3.0.1|5|15"} << 4 << none;
    QTest::newRow("values wrapping round to negative fall back")
            << one + "retries=4294967295\ntimeout=4294967295\n"
            << none << true << QStringList{"main|ftp://h/3.0.1|5|15"} << 4 << none;
    QTest::newRow("text reads as zero")
            << one + "retries=many\ntimeout=soon\n"
            << none << true << QStringList{"main|ftp://h/3.0.1|5|0"} << 4 << none;
    QTest::newRow("mirror without url kept")
            << "[mirrors]\nsize=1\n1\\mirror=main\n"
            << none << true << QStringList{"main|/3.0.1|5|15"} << 4 << none;
    QTest::newRow("order of the array, not of the sections")
            << "[b]\nurl=ftp://b\n[a]\nurl=http://a\n[mirrors]\nsize=2\n1\\mirror=b\n2\\mirror=a\n"
            << none << true << QStringList{"b|ftp://b/3.0.1|5|15", "a|http://a/3.0.1|5|15"} << 4
            << none;
    QTest::newRow("element without a mirror key reads the top level")
            << "[General]\nurl=ftp://top\nretries=3\n[mirrors]\nsize=3\n1\\mirror=one\n"
               "3\\mirror=three\n[one]\nurl=ftp://one\n[three]\nurl=ftp://three\n"
            << none << true
            << QStringList{"one|ftp://one/3.0.1|5|15", "|ftp://top/3.0.1|3|15",
                           "three|ftp://three/3.0.1|5|15"}
            << 4 << none;
    QTest::newRow("empty array") << "[mirrors]\nsize=0\n"
                                 << none << false << QStringList() << 4 << none;
    QTest::newRow("no mirrors section") << "[main]\nurl=ftp://h\n"
                                        << none << false << QStringList() << 4 << none;

    const QStringList main{"main|ftp://h/3.0.1|5|15"};
    QTest::newRow("missing update data file") << one << "" << true << main << 4 << none;
    QTest::newRow("proxy, no streams key") << one << "[update]\nproxy=http://p:8080\n"
                                           << true << main << 4 << "http://p:8080";
    QTest::newRow("streams taken") << one << "[update]\nstreams=2\n" << true << main << 2 << none;
    QTest::newRow("zero streams") << one << "[update]\nstreams=0\n" << true << main << 1 << none;
    QTest::newRow("negative streams") << one << "[update]\nstreams=-2\n"
                                      << true << main << 1 << none;
    QTest::newRow("keys outside the update group ignored")
            << one << "[current]\nstreams=7\nproxy=x\n"
            << true << main << 4 << none;
}

void tst_SessionInitialize::initialize()
{
    QFETCH(QString, mirrorList);
    QFETCH(QString, updateData);
    QFETCH(bool, result);
    QFETCH(QStringList, mirrors);
    QFETCH(int, streams);
    QFETCH(QString, proxy);

    // Files of its own for every row: the settings cache might not notice a file rewritten
    // within the same second with the same length.
    const QString prefix = dir.filePath(QString::fromLatin1(QTest::currentDataTag()));
    InitialParameters parameters;
    parameters.mirrorsFile = prefix + "-mirrors.ini";
    parameters.versionPath = "3.0.1";
    parameters.defaultStreams = 4;
    QFile mirrorFile(parameters.mirrorsFile);
    QVERIFY(mirrorFile.open(QIODevice::WriteOnly));
    mirrorFile.write(mirrorList.toUtf8());
    mirrorFile.close();
    if (!updateData.isNull()) {
        parameters.updateDataFile = prefix + "-update.ini";
        QFile updateFile(parameters.updateDataFile);
        if (!updateData.isEmpty()) {
            QVERIFY(updateFile.open(QIODevice::WriteOnly));
            updateFile.write(updateData.toUtf8());
        }
    }

    FTPProductDownloadSession session;
    QCOMPARE(session.initialize(parameters), result);
    QStringList read;
    for (const MarkedSiteData &mirror : session.getMirrors()) {
        QVERIFY(!mirror.failed);
        read << QString("%1|%2|%3|%4")
                        .arg(mirror.name, mirror.url)
                        .arg(mirror.retries)
                        .arg(mirror.timeout);
    }
    QCOMPARE(read, mirrors);
    QCOMPARE(session.getStreamCount(), streams);
    QCOMPARE(session.getProxy(), proxy);
}

QTEST_GUILESS_MAIN(tst_SessionInitialize)
#include "tst_sessioninitialize.moc"
