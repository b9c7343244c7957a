#include "releasefixture.h"

#include <QDirIterator>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

struct Run
{
    int exitCode = -1;
    QStringList out;
    QStringList err;
};

Run runTool(const QStringList &arguments)
{
    QProcess tool;
    tool.start(UPDATE_PUBLISH, arguments);
    Run run;
    if (!tool.waitForFinished() || tool.exitStatus() != QProcess::NormalExit)
        return run;
    run.exitCode = tool.exitCode();
    run.out = QString::fromUtf8(tool.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    run.err = QString::fromUtf8(tool.readAllStandardError()).split('\n', Qt::SkipEmptyParts);
    return run;
}

// Lists and their temporary forms anywhere below root.
QStringList listsBelow(const QString &root)
{
    QStringList found;
    QDirIterator it(root, {"*.ini*", ".*.ini*"}, QDir::Files | QDir::Hidden,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        found.append(it.next());
    return found;
}

} // namespace

class tst_UpdatePublish : public QObject
{
    Q_OBJECT

private slots:
    void publishes();
    void help();
    void errors_data();
    void errors();
};

void tst_UpdatePublish::publishes()
{
    QTemporaryDir dir;
    writeTestFile(dir.filePath("release/orlivo"), "client");
    writeTestFile(dir.filePath("release/lib/libfoo.so"), textBytes(200));
    const Run run = runTool({"--pack", "all", dir.filePath("release"), "client_linux_amd64", "7",
                             dir.filePath("mirror")});
    QCOMPARE(run.exitCode, 0);
    QVERIFY(run.err.isEmpty());
    QCOMPARE(run.out.size(), 1);
    QVERIFY2(run.out.first().startsWith(dir.filePath("mirror/7/client_linux_amd64.ini")
                                        + ": 2 files (2 packed"),
             qPrintable(run.out.first()));
    QCOMPARE(listsBelow(dir.filePath("mirror")),
             QStringList{dir.filePath("mirror/7/client_linux_amd64.ini")});
}

void tst_UpdatePublish::help()
{
    const Run run = runTool({"--help"});
    QCOMPARE(run.exitCode, 0);
    const QString text = run.out.join('\n');
    QVERIFY(text.startsWith("Usage: "));
    for (const char *option : {"--pack <mode>", "--previous <path>", "--force", "--check"})
        QVERIFY2(text.contains(option), option);
}

void tst_UpdatePublish::errors_data()
{
    QTest::addColumn<QString>("setup");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("message");

    const QString release = "%R/release";
    const QString root = "%R/mirror";
    QTest::newRow("missing release") << "" << QStringList{"%R/none", "client", "12", root}
                                     << "release directory %R/none does not exist";
    QTest::newRow("release is a file")
            << "file" << QStringList{"%R/file", "client", "12", root} << "is not a directory";
    QTest::newRow("version with a letter") << "" << QStringList{release, "client", "12a", root}
                                           << "version \"12a\" is not a decimal number";
    QTest::newRow("version with a leading zero")
            << "" << QStringList{release, "client", "012", root} << "is not a decimal number";
    QTest::newRow("version too large") << "" << QStringList{release, "client", "99999999999", root}
                                       << "is not a decimal number";
    QTest::newRow("client type with a slash")
            << "" << QStringList{release, "a/b", "12", root} << "client type \"a/b\" must";
    QTest::newRow("client type with a dot")
            << "" << QStringList{release, "a.b", "12", root} << "client type \"a.b\" must";
    QTest::newRow("reserved client type")
            << "" << QStringList{release, "Delete", "12", root} << "reserved";
    QTest::newRow("output root is a file")
            << "file" << QStringList{release, "client", "12", "%R/file"} << "is not a directory";
    QTest::newRow("version directory blocked")
            << "blocked" << QStringList{release, "client", "12", root}
            << "cannot create directory %R/mirror/12/client";
    QTest::newRow("output inside the release")
            << "" << QStringList{release, "client", "12", "%R/release/out"} << "overlap";
    QTest::newRow("name with a backslash")
            << "backslash" << QStringList{release, "client", "12", root}
            << "%R/release/lib/a\\b: cannot be published: its name holds a backslash";
    QTest::newRow("already published") << "published" << QStringList{release, "client", "12", root}
                                       << "exists already; use --force";
    QTest::newRow("unknown packing")
            << "" << QStringList{"--pack", "some", release, "client", "12", root} << "--pack";
    QTest::newRow("missing previous release")
            << "" << QStringList{"--previous", "%R/none", release, "client", "12", root}
            << "previous release %R/none is neither";
    QTest::newRow("too few arguments")
            << "" << QStringList{release, "client"} << "expected RELEASE TYPE VERSION ROOT";
    QTest::newRow("check without a list")
            << "" << QStringList{"--check", "%R/mirror/12/client.ini"} << "cannot be read";
}

void tst_UpdatePublish::errors()
{
    QFETCH(QString, setup);
    QFETCH(QStringList, arguments);
    QFETCH(QString, message);

    QTemporaryDir dir;
    writeTestFile(dir.filePath("release/orlivo"), "client");
    writeTestFile(dir.filePath("release/lib/libfoo.so"), textBytes(200));
    if (setup == "file")
        writeTestFile(dir.filePath("file"), "not a directory");
    else if (setup == "blocked")
        writeTestFile(dir.filePath("mirror/12"), "in the way");
    else if (setup == "backslash")
        writeTestFile(dir.filePath("release/lib/a\\b"), "");
    else if (setup == "published")
        QCOMPARE(
                runTool({dir.filePath("release"), "client", "12", dir.filePath("mirror")}).exitCode,
                0);
    const QStringList listsBefore = listsBelow(dir.path());
    const QByteArray listBefore = readTestFile(dir.filePath("mirror/12/client.ini"));

    arguments.replaceInStrings("%R", dir.path());
    const Run run = runTool(arguments);
    QCOMPARE(run.exitCode, 1);
    QVERIFY(run.out.isEmpty());
    QCOMPARE(run.err.size(), 1);
    QVERIFY2(run.err.first().startsWith("update-publish: "), qPrintable(run.err.first()));
    QVERIFY2(run.err.first().contains(message.replace("%R", dir.path())),
             qPrintable(run.err.first()));
    QCOMPARE(listsBelow(dir.path()), listsBefore);
    QCOMPARE(readTestFile(dir.filePath("mirror/12/client.ini")), listBefore);
}

QTEST_GUILESS_MAIN(tst_UpdatePublish)
#include "tst_updatepublish.moc"
