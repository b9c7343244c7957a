#include "tasks/pathsafety.h"

#include <QTest>

class tst_PathSafety : public QObject
{
    Q_OBJECT

private slots:
    void paths_data();
    void paths();
};

void tst_PathSafety::paths_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("safe");

    QTest::newRow("plain name") << "update" << true;
    QTest::newRow("nested") << "lib/plugins/libfoo.so" << true;
    QTest::newRow("dot segment") << "./a/./b" << true;
    QTest::newRow("dots inside a name") << "a..b/..c" << true;
    QTest::newRow("space") << "sound files/ring.wav" << true;
    QTest::newRow("empty") << "" << false;
    QTest::newRow("absolute") << "/etc/passwd" << false;
    QTest::newRow("parent at start") << "../x" << false;
    QTest::newRow("parent in middle") << "a/../../x" << false;
    QTest::newRow("parent at end") << "a/.." << false;
    QTest::newRow("backslash") << "a\\b" << false;
    QTest::newRow("newline") << "a\nb" << false;
    QTest::newRow("tab") << "a\tb" << false;
    QTest::newRow("delete char") << QString("a") + QChar(0x7f) << false;
}

void tst_PathSafety::paths()
{
    QFETCH(QString, path);
    QFETCH(bool, safe);
    QCOMPARE(isSafeRelativePath(path), safe);
}

QTEST_GUILESS_MAIN(tst_PathSafety)
#include "tst_pathsafety.moc"
