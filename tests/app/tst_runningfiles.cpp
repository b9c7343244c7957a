#include "app/runningfiles.h"
#include "tests/support/testfiles.h"

#include <QtTest>

#include <sys/stat.h>

// Files in use: the renamed copies, permissions and the detached relaunch.
class TestRunningFiles : public QObject
{
    Q_OBJECT

private slots:
    void oldCopies();
    void makeExecutable_data();
    void makeExecutable();
    void separateProcess();

private:
    QTemporaryDir dir{QDir::tempPath() + "/running files-XXXXXX"};
};

namespace {

bool writeFile(const QString &path, const QByteArray &content, int mode)
{
    return writeTestFile(path, content) && chmod(QFile::encodeName(path).constData(), mode) == 0;
}

} // namespace

// Only the renamed copies of files in use go; names that merely look alike stay.
void TestRunningFiles::oldCopies()
{
    const QStringList kept{"_old_UPDATE", "_old_readme.txt", "old_update", "update"};
    QTemporaryDir installation;
    for (const QString &name : getSpecialFileNames())
        QVERIFY(writeTestFile(installation.filePath("_old_" + name), "x"));
    for (const QString &name : kept)
        QVERIFY(writeTestFile(installation.filePath(name), "x"));

    removeOldFiles(installation.path());
    QCOMPARE(QDir(installation.path()).entryList(QDir::Files, QDir::Name), kept);
}

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
    const QString path = dir.filePath(name);
    QVERIFY(writeFile(path, "content", before));

    makeSingleFileExecutable(path);

    struct stat status = {};
    QCOMPARE(stat(QFile::encodeName(path).constData(), &status), 0);
    QTEST(int(status.st_mode & 07777), "after");
}

void TestRunningFiles::separateProcess()
{
    QVERIFY(!createSeparateUpdateProcess(dir.path(), {}));

    // A stand-in for the updater under the running program's own name, in a path with a space.
    const QString name = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    QVERIFY(writeFile(dir.filePath(name),
                      "#!/bin/sh\n{ pwd; printf '%s\\n' \"$@\"; } > started.tmp\n"
                      "mv started.tmp started.txt\n",
                      0755));
    QVERIFY(createSeparateUpdateProcess(dir.path(), {"--nouser", "two words"}));

    const QString started = dir.filePath("started.txt");
    QTRY_VERIFY(QFile::exists(started));
    QCOMPARE(QString::fromLocal8Bit(readTestFile(started)), dir.path() + "\n--nouser\ntwo words\n");
}

QTEST_GUILESS_MAIN(TestRunningFiles)
#include "tst_runningfiles.moc"
