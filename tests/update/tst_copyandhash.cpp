#include "tests/support/testfiles.h"
#include "update/filecopy.h"
#include "update/gzip.h"
#include "update/md5hash.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

namespace {

int modeOf(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? int(status.st_mode & 07777)
                                                                     : -1;
}

QByteArray text(int lines)
{
    QByteArray result;
    for (int i = 0; i < lines; ++i)
        result += "entry " + QByteArray::number(i * 7919 % 977) + " of the packed list\n";
    return result;
}

} // namespace

// The short cuts of the install and download paths: copying inside the kernel, checksumming
// while writing. Each must give exactly what the plain way gives.
class tst_CopyAndHash : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void md5InPieces_data();
    void md5InPieces();
    void copiesContentAndMode_data();
    void copiesContentAndMode();
    void copyRefusals_data();
    void copyRefusals();
    void unzipGivesChecksumOfWhatItWrote_data();
    void unzipGivesChecksumOfWhatItWrote();
    void failedUnzipGivesNoChecksum();

private:
    std::unique_ptr<QTemporaryDir> dir;
};

void tst_CopyAndHash::init()
{
    dir = std::make_unique<QTemporaryDir>();
}

void tst_CopyAndHash::md5InPieces_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<int>("piece");

    QTest::newRow("nothing") << QByteArray() << 1;
    QTest::newRow("abc") << QByteArray("abc") << 1;
    QTest::newRow("one byte at a time") << patternBytes(1000, 3) << 1;
    QTest::newRow("pieces across block boundaries") << patternBytes(200001, 4) << 7001;
}

void tst_CopyAndHash::md5InPieces()
{
    QFETCH(QByteArray, data);
    QFETCH(int, piece);

    Md5Hash hash;
    const qsizetype half = data.size() / 2;
    hash.addData(data.constData(), half);
    // Asking midway must not end the computation.
    QCOMPARE(hash.result(), md5Of(data.left(half)));
    for (qsizetype at = half; at < data.size(); at += piece)
        hash.addData(data.constData() + at, qMin<qsizetype>(piece, data.size() - at));
    QCOMPARE(hash.result(), md5Of(data));
}

void tst_CopyAndHash::copiesContentAndMode_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("mode");

    QTest::newRow("empty, owner only") << QByteArray() << 0600;
    QTest::newRow("small executable") << patternBytes(100, 1) << 0755;
    QTest::newRow("several megabytes") << patternBytes(3 * 1024 * 1024 + 5, 2) << 0640;
    // As QFile::copy: the source's bits, not what the umask would leave of them.
    QTest::newRow("group-writable despite the umask") << patternBytes(10, 3) << 0664;
}

void tst_CopyAndHash::copiesContentAndMode()
{
    QFETCH(QByteArray, content);
    QFETCH(int, mode);

    const QString source = dir->filePath("source");
    const QString target = dir->filePath("target");
    QVERIFY(writeTestFile(source, content));
    QVERIFY(::chmod(QFile::encodeName(source).constData(), mode_t(mode)) == 0);
    const mode_t previousMask = ::umask(022);
    const bool copied = copyFile(source, target);
    ::umask(previousMask);

    QVERIFY(copied);
    QCOMPARE(readTestFile(target), content);
    QCOMPARE(modeOf(target), mode);
    QCOMPARE(readTestFile(source), content);
}

void tst_CopyAndHash::copyRefusals_data()
{
    QTest::addColumn<QStringList>("paths");      // source, target
    QTest::addColumn<QByteArray>("targetAfter"); // what stands at target afterwards, if anything

    QTest::newRow("target exists")
            << QStringList{"plain", "existing"} << QByteArray("kept as it was");
    QTest::newRow("source missing") << QStringList{"missing", "new"} << QByteArray();
    QTest::newRow("source is a directory") << QStringList{"folder", "new"} << QByteArray();
    QTest::newRow("target directory missing")
            << QStringList{"plain", "no/such/dir/new"} << QByteArray();
}

void tst_CopyAndHash::copyRefusals()
{
    QFETCH(QStringList, paths);
    QFETCH(QByteArray, targetAfter);

    QVERIFY(writeTestFile(dir->filePath("plain"), "plain content"));
    QVERIFY(writeTestFile(dir->filePath("existing"), "kept as it was"));
    QVERIFY(QDir(dir->path()).mkdir("folder"));

    const QString target = dir->filePath(paths.at(1));
    QVERIFY(!copyFile(dir->filePath(paths.at(0)), target));
    QCOMPARE(QFileInfo::exists(target), !targetAfter.isEmpty());
    QCOMPARE(readTestFile(target), targetAfter);
}

void tst_CopyAndHash::unzipGivesChecksumOfWhatItWrote_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("packed");

    QTest::newRow("empty") << QByteArray() << true;
    QTest::newRow("text over many blocks") << text(40000) << true;
    QTest::newRow("binary") << patternBytes(70000, 9) << true;
    QTest::newRow("plain data copied through") << text(100) << false;
}

void tst_CopyAndHash::unzipGivesChecksumOfWhatItWrote()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, packed);

    const QString original = dir->filePath("original");
    const QString gzip = dir->filePath("original.gz");
    const QString unpacked = dir->filePath("unpacked");
    QVERIFY(writeTestFile(original, content));
    QVERIFY(!packed || zipFile(original, gzip));

    QString md5;
    QVERIFY(unzipFileWithMD5(unpacked, packed ? gzip : original, &md5));
    QCOMPARE(readTestFile(unpacked), content);
    QCOMPARE(md5, md5Of(content));
}

void tst_CopyAndHash::failedUnzipGivesNoChecksum()
{
    const QString original = dir->filePath("original");
    const QString gzip = dir->filePath("original.gz");
    const QString unpacked = dir->filePath("unpacked");
    QVERIFY(writeTestFile(original, text(20000)));
    QVERIFY(zipFile(original, gzip));
    QVERIFY(writeTestFile(gzip, readTestFile(gzip).chopped(100)));

    QString md5 = "untouched";
    QVERIFY(!unzipFileWithMD5(unpacked, gzip, &md5));
    QCOMPARE(md5, QString("untouched"));
    QVERIFY(!QFileInfo::exists(unpacked));
}

QTEST_GUILESS_MAIN(tst_CopyAndHash)
#include "tst_copyandhash.moc"
