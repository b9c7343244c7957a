#include "update/cleanup.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

class tst_Cleanup : public QObject
{
    Q_OBJECT

private slots:
    void emptiesTreeButLeavesLinks();
    void missingOrEmptyPath();
};

void tst_Cleanup::emptiesTreeButLeavesLinks()
{
    QTemporaryDir temp;
    const QString root = temp.filePath("work");
    const QString outside = temp.filePath("outside");
    const QStringList files = {"a", ".hidden", "sub/b", "sub/deeper/c", ".dir/d", "linked/e"};
    QVERIFY(QDir().mkpath(root + "/empty/empty"));
    QVERIFY(QDir().mkpath(outside + "/inner"));
    for (const QString &path : files + QStringList{"../outside/target", "../outside/inner/f"}) {
        QVERIFY(QDir().mkpath(QFileInfo(root + '/' + path).path()));
        QFile file(root + '/' + path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("content");
    }
    QVERIFY(QFile::link(outside + "/target", root + "/linked/to-file"));
    QVERIFY(QFile::link(outside + "/inner", root + "/sub/deeper/to-dir"));
    QVERIFY(QFile::link(outside + "/gone", root + "/dangling"));
    QCOMPARE(mkfifo(QFile::encodeName(root + "/sub/fifo").constData(), 0600), 0);

    cleanupDirectory(root);

    QDir dir(root);
    const auto all = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
    QCOMPARE(dir.entryList(all, QDir::Name), QStringList({"dangling", "linked", "sub"}));
    QCOMPARE(QDir(root + "/sub").entryList(all), QStringList({"deeper"}));
    QCOMPARE(QDir(root + "/sub/deeper").entryList(all), QStringList({"to-dir"}));
    QCOMPARE(QDir(root + "/linked").entryList(all), QStringList({"to-file"}));
    QVERIFY(QFile::exists(outside + "/target"));
    QVERIFY(QFile::exists(outside + "/inner/f"));
}

void tst_Cleanup::missingOrEmptyPath()
{
    QTemporaryDir temp;
    QFile file(temp.filePath("kept"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    cleanupDirectory(temp.filePath("missing"));
    QVERIFY(!QFileInfo::exists(temp.filePath("missing")));

    const QString current = QDir::currentPath();
    QVERIFY(QDir::setCurrent(temp.path()));
    cleanupDirectory(QString());
    QVERIFY(QDir::setCurrent(current));
    QVERIFY(file.exists());
}

QTEST_GUILESS_MAIN(tst_Cleanup)
#include "tst_cleanup.moc"
