#include "tests/support/testfiles.h"
#include "tools/binarydiff.h"
#include "update/binarypatch.h"

#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

// bsdiff's signed numbers: magnitude little-endian, sign in the top bit of the last byte.
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

// A patch made by hand, with control triples no diff tool would write.
QByteArray craftedPatch(qint64 newSize, const QList<qint64> &control, const QByteArray &diff,
                        const QByteArray &extra)
{
    QByteArray triples;
    for (qint64 value : control)
        triples += number(value);
    const QByteArray packedControl = runTool("bzip2", {"-c"}, triples);
    const QByteArray packedDiff = runTool("bzip2", {"-c"}, diff);
    return "BSDIFF40" + number(packedControl.size()) + number(packedDiff.size()) + number(newSize)
           + packedControl + packedDiff + runTool("bzip2", {"-c"}, extra);
}

} // namespace

// Binary patches in bsdiff's format, against Debian's bsdiff and bspatch as the reference.
class tst_BinaryPatch : public QObject
{
    Q_OBJECT

private slots:
    void apply_data();
    void apply();
};

void tst_BinaryPatch::apply_data()
{
    QTest::addColumn<QByteArray>("old");
    QTest::addColumn<QByteArray>("now");   // what the patch makes of old
    QTest::addColumn<QByteArray>("patch"); // ours from old to now when empty
    QTest::addColumn<qint64>("expectedSize");

    // A rebuilt binary: code moved by an insertion, addresses shifted, a stretch gone, new data.
    const QByteArray binary = noiseBytes(200000, 1);
    QByteArray rebuilt = binary;
    rebuilt.insert(1000, noiseBytes(700, 2)).remove(120000, 5000).append(noiseBytes(3000, 3));
    for (int i = 40000; i < 90000; i += 97)
        rebuilt[i] = char(rebuilt.at(i) + 4);
    QTest::newRow("rebuilt binary") << binary << rebuilt << QByteArray() << qint64(rebuilt.size());
    QTest::newRow("from empty") << QByteArray() << noiseBytes(3000, 6) << QByteArray() << 3000ll;
    QTest::newRow("to empty") << noiseBytes(3000, 7) << QByteArray() << QByteArray() << 0ll;

    // Damaged or hostile patches of "base", refused.
    const QByteArray valid = craftedPatch(4, {2, 2, 0}, QByteArray(2, '\0'), "xy");
    const auto refused = [&valid](const char *name, const QByteArray &patch, qint64 size = -1) {
        QTest::newRow(name) << QByteArray("base") << QByteArray() << patch << size;
    };
    const auto damaged = [&valid](int offset, const QByteArray &bytes) {
        return QByteArray(valid).replace(offset, bytes.size(), bytes);
    };
    refused("not a patch", QByteArray("BSDIFF39") + valid.mid(8));
    refused("not the size listed", valid, 5);
    // A bomb: a terabyte announced where the list declares 4 bytes; refused before any write.
    refused("far longer than the size listed", damaged(24, number(qint64(1) << 40)), 4);
    refused("truncated", valid.left(valid.size() - 10));
    refused("damaged bzip2 data", damaged(48, "\xff\xff"));
    refused("blocks past the end", damaged(8, number(valid.size())));
    refused("longer than the blocks hold", damaged(24, number(5)));
    refused("diff past the new size", craftedPatch(4, {5, 0, 0}, "abcde", ""));
    refused("negative extra", craftedPatch(4, {0, -4, 0}, "", ""));
    refused("seek before the base", craftedPatch(4, {2, 2, -3}, "ab", "cd"));
    refused("seek past the base", craftedPatch(4, {0, 4, qint64(1) << 62}, "", "abcd"));
}

// Our patches are bsdiff's to the byte, so each tool applies the other's; bspatch applies ours
// also where bsdiff refuses to make one. A damaged or hostile patch fails without reading or
// writing out of bounds, and leaves nothing.
void tst_BinaryPatch::apply()
{
    for (const char *tool : {"bsdiff", "bspatch", "bzip2"}) {
        if (QStandardPaths::findExecutable(tool).isEmpty())
            QSKIP("Debian's bsdiff and bzip2 are the reference");
    }
    QFETCH(QByteArray, old);
    QFETCH(QByteArray, now);
    QFETCH(QByteArray, patch);
    QFETCH(qint64, expectedSize);
    QTemporaryDir dir;
    const auto path = [&dir](const char *name) { return dir.filePath(name); };
    QVERIFY(writeTestFile(path("old"), old));
    QVERIFY(writeTestFile(path("new"), now));
    QVERIFY(writeTestFile(path("patch"), patch));
    const bool ours = patch.isEmpty();
    QString error;
    QVERIFY2(!ours || writeBinaryPatch(path("old"), path("new"), path("patch"), &error),
             qPrintable(error));
    if (ours) {
        QVERIFY(!runTool("bspatch", {path("old"), path("result"), path("patch")}).startsWith('<'));
        QCOMPARE(readTestFile(path("result")), now);
    }
    // Debian's bsdiff refuses empty files.
    if (ours && !old.isEmpty() && !now.isEmpty()) {
        QVERIFY(QFileInfo(path("patch")).size() < 10000);
        QVERIFY(!runTool("bsdiff", {path("old"), path("new"), path("theirs")}).startsWith('<'));
        QCOMPARE(readTestFile(path("patch")), readTestFile(path("theirs")));
    }

    QVERIFY(writeTestFile(path("result"), "older and longer content than some of the rows"));
    QString md5 = "untouched";
    QCOMPARE(applyBinaryPatch(path("result"), path("old"), path("patch"), &md5, expectedSize),
             ours);
    QCOMPARE(md5, ours ? md5Of(now) : QString("untouched"));
    QCOMPARE(QFile::exists(path("result")), ours);
    QVERIFY(!ours || readTestFile(path("result")) == now);
}

QTEST_GUILESS_MAIN(tst_BinaryPatch)
#include "tst_binarypatch.moc"
