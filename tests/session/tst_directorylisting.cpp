#include "session/directorylisting.h"

#include "tests/support/testfiles.h"

#include <QTemporaryDir>
#include <QTest>

// A file is passed over only when its directory's listing proves it absent; whatever else the
// path looks like, the answer is "may be there", and the full look decides.
class tst_DirectoryListing : public QObject
{
    Q_OBJECT

private slots:
    void mayHold_data();
    void mayHold();
};

void tst_DirectoryListing::mayHold_data()
{
    QTest::addColumn<QString>("path"); // below the test's root, or absolute when it starts with /
    QTest::addColumn<bool>("mayHold");

    QTest::newRow("listed") << "lib/libcore.so" << true;
    QTest::newRow("listed, the name not ASCII") << "lang/Übersetzung.qm" << true;
    QTest::newRow("listed, a doubled slash before the name") << "lib//libcore.so" << true;
    QTest::newRow("a symbolic link to a directory, followed") << "linked/libcore.so" << true;
    QTest::newRow("listed in the root of the file system") << "/proc" << true;
    QTest::newRow("not listed") << "lib/libgone.so" << false;
    QTest::newRow("its directory not there") << "sounds/notes.txt" << false;
    QTest::newRow("a file where its directory should be") << "lib/libcore.so/x" << false;
}

void tst_DirectoryListing::mayHold()
{
    QFETCH(QString, path);
    QFETCH(bool, mayHold);

    QTemporaryDir root;
    QVERIFY(writeTree(root.path(), {{"lib/libcore.so", "elf"}, {"lang/Übersetzung.qm", "qm"}}));
    QVERIFY(QFile::link(root.filePath("lib"), root.filePath("linked")));
    DirectoryListing listing;
    const QString full = path.startsWith('/') ? path : root.filePath(path);
    // Asked twice: the second answer comes from the listing read for the first.
    QCOMPARE(listing.mayHold(full), mayHold);
    QCOMPARE(listing.mayHold(full), mayHold);
}

QTEST_GUILESS_MAIN(tst_DirectoryListing)
#include "tst_directorylisting.moc"
