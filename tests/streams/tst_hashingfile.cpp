#include "streams/hashingfile.h"

#include "tests/support/testfiles.h"

#include <QTemporaryDir>
#include <QTest>

// The download's local file checksums what it writes; whenever that might not be the file's
// content it must say so (an empty text) rather than give a checksum.
class tst_HashingFile : public QObject
{
    Q_OBJECT

private slots:
    void checksumOfWrittenContent_data();
    void checksumOfWrittenContent();
};

void tst_HashingFile::checksumOfWrittenContent_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<bool>("unbuffered");
    QTest::addColumn<bool>("known");

    QTest::newRow("in pieces, unbuffered") << "pieces" << true << true;
    QTest::newRow("in pieces, buffered") << "pieces" << false << true;
    QTest::newRow("nothing written") << "nothing" << true << true;
    QTest::newRow("part rewritten after a seek") << "rewrite" << true << false;
    QTest::newRow("appended to an existing file") << "append" << true << false;
}

void tst_HashingFile::checksumOfWrittenContent()
{
    QFETCH(QString, how);
    QFETCH(bool, unbuffered);
    QFETCH(bool, known);

    QTemporaryDir dir;
    const QString path = dir.filePath("download");
    const QByteArray content = patternBytes(100000, 5);
    QVERIFY(writeTestFile(path, "earlier content"));

    HashingFile file(path);
    QIODevice::OpenMode mode = QIODevice::WriteOnly;
    mode |= how == "append" ? QIODevice::Append : QIODevice::Truncate;
    if (unbuffered)
        mode |= QIODevice::Unbuffered;
    QVERIFY(file.open(mode));
    if (how != "nothing") {
        for (qsizetype at = 0; at < content.size(); at += 16384)
            QVERIFY(file.write(content.mid(at, 16384)) > 0);
    }
    if (how == "rewrite") {
        QVERIFY(file.seek(10));
        QCOMPARE(file.write("changed"), qint64(7));
    }

    const QString md5 = file.writtenMD5();
    file.close();
    QCOMPARE(md5.isEmpty(), !known);
    if (known)
        QCOMPARE(md5, md5Of(readTestFile(path)));
}

QTEST_GUILESS_MAIN(tst_HashingFile)
#include "tst_hashingfile.moc"
