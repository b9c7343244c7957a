#include "app/apppaths.h"
#include "ui/mainwindow.h"

#include <QtTest>

// The record of a run in update.ini, beside the user's own "update" settings.
class TestUpdateData : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void existingData_data();
    void existingData();
    void roundTrip();

private:
    QTemporaryDir workDir;
    std::unique_ptr<MainWindow> window;
    QFile dataFile{getAppRootPath() + QStringLiteral("/update.ini")};
};

namespace {

const QByteArray userSettings = "[update]\nproxy=http://127.0.0.1:3128\nstreams=2\n";

} // namespace

void TestUpdateData::init()
{
    QVERIFY(workDir.isValid());
    window = std::make_unique<MainWindow>(
            CommandLineOptions{1, QStringLiteral("client_linux_x86"), 7});
}

void TestUpdateData::cleanup()
{
    window.reset();
    dataFile.remove();
}

void TestUpdateData::existingData_data()
{
    QTest::addColumn<QByteArray>("current");
    QTest::addColumn<bool>("found");
    QTest::addColumn<QString>("type");

    QTest::newRow("complete record") << QByteArray("version=7\ntype=client_linux_x86\ndir=@WORK@\n")
                                     << true << "client_linux_x86";
    QTest::newRow("record without type") << QByteArray("version=7\ndir=@WORK@\n") << true << "";
    QTest::newRow("directory is a file")
            << QByteArray("version=7\ntype=t\ndir=@WORK@/file\n") << true << "t";
    QTest::newRow("directory gone")
            << QByteArray("version=7\ntype=t\ndir=@WORK@/gone\n") << false << "untouched";
    QTest::newRow("version empty")
            << QByteArray("version=\ntype=t\ndir=@WORK@\n") << false << "untouched";
    QTest::newRow("version absent") << QByteArray("type=t\ndir=@WORK@\n") << false << "untouched";
    QTest::newRow("directory empty")
            << QByteArray("version=7\ntype=t\ndir=\n") << false << "untouched";
    QTest::newRow("no record") << QByteArray() << false << "untouched";
}

void TestUpdateData::existingData()
{
    QFETCH(QByteArray, current);
    QFETCH(bool, found);
    QFile file(workDir.filePath(QStringLiteral("file")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    const QByteArray content =
            userSettings + "[current]\n" + current.replace("@WORK@", workDir.path().toUtf8());
    QVERIFY(dataFile.open(QIODevice::WriteOnly));
    QCOMPARE(dataFile.write(content), content.size());
    dataFile.close();

    QString version = QStringLiteral("untouched");
    QString type = QStringLiteral("untouched");
    QString dir = QStringLiteral("untouched");
    QCOMPARE(window->getExistingUpdateData(QString(), &version, &type, &dir), found);

    QTEST(type, "type");
    QCOMPARE(version, found ? QStringLiteral("7") : QStringLiteral("untouched"));
    QCOMPARE(dir.startsWith(workDir.path()), found);
    // Reading never rewrites the file, not even an invalid record.
    QVERIFY(dataFile.open(QIODevice::ReadOnly));
    QCOMPARE(dataFile.readAll(), content);
    dataFile.close();
}

void TestUpdateData::roundTrip()
{
    window->modifyUpdateData(QStringLiteral("7"), workDir.path());
    QString version, type = QStringLiteral("kept"), dir;
    QVERIFY(window->getExistingUpdateData(QString(), &version, nullptr, &dir));
    QCOMPARE(version, QStringLiteral("7"));
    QCOMPARE(dir, workDir.path());
    QCOMPARE(type, QStringLiteral("kept"));

    // The user's settings appear later and survive both the next record and its removal.
    QVERIFY(dataFile.open(QIODevice::Append));
    dataFile.write(userSettings);
    dataFile.close();
    window->modifyUpdateData(QStringLiteral("8"), workDir.path());
    QVERIFY(window->getExistingUpdateData(getAppRootPath(), &version, &type, nullptr));
    QCOMPARE(version, QStringLiteral("8"));
    QCOMPARE(type, QStringLiteral("client_linux_x86"));

    window->cleanupCurrentUpdateDataIniFile();
    QVERIFY(!window->getExistingUpdateData(QString(), nullptr, nullptr, nullptr));
    QSettings settings(dataFile.fileName(), QSettings::IniFormat);
    QCOMPARE(settings.childGroups(), QStringList{QStringLiteral("update")});
    QCOMPARE(settings.value(QStringLiteral("update/proxy")).toString(),
             QStringLiteral("http://127.0.0.1:3128"));
    QCOMPARE(settings.value(QStringLiteral("update/streams")).toString(), QStringLiteral("2"));
}

QTEST_MAIN(TestUpdateData)
#include "tst_updatedata.moc"
