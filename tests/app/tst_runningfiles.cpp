#include "app/runningfiles.h"
#include "tests/support/testfiles.h"

#include <QtTest>

#include <sys/stat.h>

// Which installed files are made executable, and how.
class TestRunningFiles : public QObject
{
    Q_OBJECT

private slots:
    void makeExecutable_data();
    void makeExecutable();
};

void TestRunningFiles::makeExecutable_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("before");
    QTest::addColumn<int>("after");

    QTest::newRow("world-writable library narrowed") << "libQtCore.so.4" << 0666 << 0755;
    QTest::newRow("longer library suffix untouched") << "libvoice.so.4.5" << 0640 << 0640;
}

void TestRunningFiles::makeExecutable()
{
    QFETCH(QString, name);
    QFETCH(int, before);
    QTemporaryDir dir;
    const QString path = dir.filePath(name);
    QVERIFY(writeTestFile(path, "content") && chmod(QFile::encodeName(path), before) == 0);

    makeSingleFileExecutable(path);

    struct stat status = {};
    QCOMPARE(stat(QFile::encodeName(path), &status), 0);
    QTEST(int(status.st_mode & 07777), "after");
}

QTEST_GUILESS_MAIN(TestRunningFiles)
#include "tst_runningfiles.moc"
