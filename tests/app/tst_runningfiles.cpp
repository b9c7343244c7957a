#include "app/runningfiles.h"

#include <QtTest>

#include <sys/stat.h>

// Files in use: their names, the renamed copies, permissions and the detached relaunch.
class TestRunningFiles : public QObject
{
    Q_OBJECT

private slots:
    void specialName_data();
    void specialName();
    void removeOldFiles();
    void makeExecutable_data();
    void makeExecutable();
    void separateProcess();

private:
    QTemporaryDir dir{QDir::tempPath() + QStringLiteral("/running files-XXXXXX")};
};

namespace {

bool writeFile(const QString &path, const QByteArray &content, int mode)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size()
           && chmod(QFile::encodeName(path).constData(), mode_t(mode)) == 0;
}

} // namespace

void TestRunningFiles::specialName_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("special");

    QTest::newRow("Qt 4 library") << QStringLiteral("libQtCore.so.4") << true;
    QTest::newRow("Qt 6 library") << QStringLiteral("libQt6Widgets.so.6") << true;
    QTest::newRow("updater") << QStringLiteral("update") << true;
    QTest::newRow("capitals") << QStringLiteral("LIBQTCORE.SO.4") << false;
    QTest::newRow("with a directory") << QStringLiteral("lib/libQtCore.so.4") << false;
    QTest::newRow("renamed copy") << QStringLiteral("_old_update") << false;
    QTest::newRow("client") << QStringLiteral("orvclient_linux_amd64") << false;
}

void TestRunningFiles::specialName()
{
    QFETCH(QString, name);
    QTEST(isSpecialFileName(name), "special");
    QCOMPARE(getSpecialFileRenamePrefix(), QStringLiteral("_old_"));
}

void TestRunningFiles::removeOldFiles()
{
    const QStringList renamed{
            "libQtNetwork.so.4", "libQtGui.so.4",  "libQtCore.so.4",     "update",
            "libQt6Core.so.6",   "libQt6Gui.so.6", "libQt6Widgets.so.6", "libQt6Network.so.6"};
    const QStringList kept{"_old_UPDATE", "_old_readme.txt", "old_update", "update"};
    QTemporaryDir dir;
    for (const QString &name : renamed)
        QVERIFY(writeFile(dir.filePath("_old_" + name), "x", 0644));
    for (const QString &name : kept)
        QVERIFY(writeFile(dir.filePath(name), "x", 0644));

    ::removeOldFiles(dir.path());
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files, QDir::Name), kept);
    ::removeOldFiles(dir.path());
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files, QDir::Name), kept);
}

void TestRunningFiles::makeExecutable_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("before");
    QTest::addColumn<int>("after");

    QTest::newRow("updater") << QStringLiteral("update") << 0600 << 0755;
    QTest::newRow("32-bit client") << QStringLiteral("orvclient_linux_x86") << 0644 << 0755;
    QTest::newRow("world-writable library narrowed")
            << QStringLiteral("libQtCore.so.4") << 0666 << 0755;
    QTest::newRow("plain shared library") << QStringLiteral("libvoice.so") << 0644 << 0755;
    QTest::newRow("Qt 6 library") << QStringLiteral("libQt6Widgets.so.6") << 0644 << 0755;
    QTest::newRow("64-bit client untouched")
            << QStringLiteral("orvclient_linux_amd64") << 0644 << 0644;
    QTest::newRow("longer library suffix untouched")
            << QStringLiteral("libvoice.so.4.5") << 0644 << 0644;
    QTest::newRow("text file untouched") << QStringLiteral("readme.txt") << 0640 << 0640;
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

    QFile started(dir.filePath(QStringLiteral("started.txt")));
    QTRY_VERIFY(started.exists());
    QVERIFY(started.open(QIODevice::ReadOnly));
    QCOMPARE(QString::fromLocal8Bit(started.readAll()),
             dir.path() + QStringLiteral("\n--nouser\ntwo words\n"));
}

QTEST_GUILESS_MAIN(TestRunningFiles)
#include "tst_runningfiles.moc"
