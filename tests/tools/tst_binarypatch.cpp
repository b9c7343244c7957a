#include "tests/support/testfiles.h"
#include "tools/binarydiff.h"
#include "update/binarypatch.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

QByteArray randomBytes(int size, quint32 seed)
{
    QByteArray data(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    for (char &byte : data)
        byte = char(generator.bounded(256));
    return data;
}

// What a rebuilt binary looks like beside its predecessor: code moved by an insertion,
// addresses shifted by a constant, a stretch gone, new data at the end.
QByteArray edited(const QByteArray &old)
{
    QByteArray result = old;
    result.insert(1000, randomBytes(700, 2));
    for (int i = 40000; i < 90000; i += 97)
        result[i] = char(result.at(i) + 4);
    result.remove(120000, 5000);
    return result + randomBytes(3000, 3);
}

bool runTool(const QString &program, const QStringList &arguments)
{
    QProcess tool;
    tool.start(program, arguments);
    return tool.waitForFinished(60000) && tool.exitStatus() == QProcess::NormalExit
           && tool.exitCode() == 0;
}

QByteArray number(qint64 value)
{
    QByteArray bytes(8, '\0');
    quint64 magnitude = value < 0 ? quint64(-value) : quint64(value);
    for (int i = 0; i < 8; ++i, magnitude >>= 8)
        bytes[i] = char(magnitude & 0xff);
    if (value < 0)
        bytes[7] = char(bytes.at(7) | 0x80);
    return bytes;
}

QByteArray bzip2(const QByteArray &data)
{
    QProcess tool;
    tool.start("bzip2", {"-c"});
    tool.write(data);
    tool.closeWriteChannel();
    tool.waitForFinished();
    return tool.readAllStandardOutput();
}

// A patch made by hand, with control triples no diff tool would write.
QByteArray craftedPatch(qint64 newSize, const QList<qint64> &control, const QByteArray &diff,
                        const QByteArray &extra)
{
    QByteArray triples;
    for (qint64 value : control)
        triples += number(value);
    const QByteArray packedControl = bzip2(triples);
    const QByteArray packedDiff = bzip2(diff);
    return "BSDIFF40" + number(packedControl.size()) + number(packedDiff.size()) + number(newSize)
           + packedControl + packedDiff + bzip2(extra);
}

} // namespace

// Binary patches in bsdiff's format, against Debian's bsdiff and bspatch as the reference.
class tst_BinaryPatch : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void interoperates_data();
    void interoperates();
    void refusesBrokenPatches_data();
    void refusesBrokenPatches();

private:
    std::unique_ptr<QTemporaryDir> dir;
    QString oldPath;
    QString newPath;
    QString patchPath;
    QString resultPath;
};

void tst_BinaryPatch::init()
{
    if (QStandardPaths::findExecutable("bsdiff").isEmpty()
        || QStandardPaths::findExecutable("bspatch").isEmpty()
        || QStandardPaths::findExecutable("bzip2").isEmpty())
        QSKIP("Debian's bsdiff and bzip2 are the reference");
    dir = std::make_unique<QTemporaryDir>();
    oldPath = dir->filePath("old");
    newPath = dir->filePath("new");
    patchPath = dir->filePath("patch");
    resultPath = dir->filePath("result");
}

void tst_BinaryPatch::interoperates_data()
{
    QTest::addColumn<QByteArray>("old");
    QTest::addColumn<QByteArray>("now");

    const QByteArray binary = randomBytes(200000, 1);
    QTest::newRow("rebuilt binary") << binary << edited(binary);
    QTest::newRow("unrelated files") << randomBytes(5000, 4) << randomBytes(7000, 5);
    QTest::newRow("from empty") << QByteArray() << randomBytes(3000, 6);
    QTest::newRow("to empty") << randomBytes(3000, 7) << QByteArray();
}

// Our patches are bsdiff's to the byte, so each tool applies the other's; bspatch applies ours
// also where bsdiff refuses to make one.
void tst_BinaryPatch::interoperates()
{
    QFETCH(QByteArray, old);
    QFETCH(QByteArray, now);
    QVERIFY(writeTestFile(oldPath, old));
    QVERIFY(writeTestFile(newPath, now));

    QString error;
    QVERIFY2(writeBinaryPatch(oldPath, newPath, patchPath, &error), qPrintable(error));
    QVERIFY(runTool("bspatch", {oldPath, resultPath, patchPath}));
    QCOMPARE(readTestFile(resultPath), now);
    if (QTest::currentDataTag() == QLatin1String("rebuilt binary"))
        QVERIFY(QFileInfo(patchPath).size() < 10000);
    // Debian's bsdiff refuses empty files.
    if (!old.isEmpty() && !now.isEmpty()) {
        const QString theirs = dir->filePath("theirs");
        QVERIFY(runTool("bsdiff", {oldPath, newPath, theirs}));
        QCOMPARE(readTestFile(patchPath), readTestFile(theirs));
    }

    QVERIFY(writeTestFile(resultPath, "older and longer content than some of the rows"));
    QString md5;
    QVERIFY(applyBinaryPatch(resultPath, oldPath, patchPath, &md5));
    QCOMPARE(readTestFile(resultPath), now);
    QCOMPARE(md5, md5Of(now));
}

void tst_BinaryPatch::refusesBrokenPatches_data()
{
    QTest::addColumn<QByteArray>("patch");

    QByteArray valid = craftedPatch(4, {2, 2, 0}, QByteArray(2, '\0'), "xy");
    const auto damaged = [&valid](int offset, const QByteArray &bytes) {
        return QByteArray(valid).replace(offset, bytes.size(), bytes);
    };
    QTest::newRow("not a patch") << QByteArray("BSDIFF39") + valid.mid(8);
    QTest::newRow("truncated") << valid.left(valid.size() - 10);
    QTest::newRow("damaged bzip2 data") << damaged(48, "\xff\xff");
    QTest::newRow("blocks past the end") << damaged(8, number(valid.size()));
    QTest::newRow("longer than the blocks hold") << damaged(24, number(5));
    QTest::newRow("diff past the new size") << craftedPatch(4, {5, 0, 0}, "abcde", "");
    QTest::newRow("negative extra") << craftedPatch(4, {0, -4, 0}, "", "");
    QTest::newRow("seek before the base") << craftedPatch(4, {2, 2, -3}, "ab", "cd");
    QTest::newRow("seek past the base") << craftedPatch(4, {0, 4, qint64(1) << 62}, "", "abcd");
}

// A damaged or hostile patch fails without reading or writing out of bounds, and leaves nothing.
void tst_BinaryPatch::refusesBrokenPatches()
{
    QFETCH(QByteArray, patch);
    QVERIFY(writeTestFile(oldPath, "base"));
    QVERIFY(writeTestFile(patchPath, patch));
    QVERIFY(writeTestFile(resultPath, "older"));

    QString md5 = "untouched";
    QVERIFY(!applyBinaryPatch(resultPath, oldPath, patchPath, &md5));
    QCOMPARE(md5, QString("untouched"));
    QVERIFY(!QFile::exists(resultPath));
}

QTEST_GUILESS_MAIN(tst_BinaryPatch)
#include "tst_binarypatch.moc"
