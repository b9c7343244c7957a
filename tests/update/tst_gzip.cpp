#include "update/gzip.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

QByteArray randomBytes(qsizetype size)
{
    QList<quint32> words((size + 3) / 4);
    QRandomGenerator(quint32(size)).fillRange(words.data(), words.size());
    return QByteArray(reinterpret_cast<const char *>(words.constData()), size);
}

// Compressible, so that a damaged byte breaks the deflate data itself, not only the checksum.
QByteArray text(int lines)
{
    QByteArray result;
    for (int i = 0; i < lines; ++i)
        result += "line " + QByteArray::number(i * 7919 % 1000) + " of the test text\n";
    return result;
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

bool writeAll(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

// Runs gzip with input on standard input and returns its standard output.
QByteArray runGzip(const QStringList &arguments, const QByteArray &input)
{
    QProcess gzip;
    gzip.start("gzip", arguments);
    gzip.write(input);
    gzip.closeWriteChannel();
    if (!gzip.waitForFinished(60000) || gzip.exitCode() != 0)
        return "<gzip failed>";
    return gzip.readAllStandardOutput();
}

} // namespace

class tst_Gzip : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void roundTrip_data();
    void roundTrip();
    void brokenInput_data();
    void brokenInput();
    void plainFileCopiedThrough();
    void openFailures();

private:
    QTemporaryDir dir;
    QString original;
    QString packed;
    QString unpacked;
};

void tst_Gzip::init()
{
    original = dir.filePath("original");
    packed = dir.filePath("packed.gz");
    unpacked = dir.filePath("unpacked");
    for (const QString &path : {original, packed, unpacked})
        QFile::remove(path);
}

void tst_Gzip::roundTrip_data()
{
    QTest::addColumn<QByteArray>("content");

    QTest::newRow("empty") << QByteArray();
    QTest::newRow("one byte") << QByteArray("x");
    for (qsizetype size : {16383, 16384, 16385, 3 * 16384})
        QTest::addRow("random %lld", qint64(size)) << randomBytes(size);
    QTest::newRow("random 3 MB") << randomBytes(3 * 1024 * 1024 + 11);
    QTest::newRow("text") << text(100000);
}

void tst_Gzip::roundTrip()
{
    QFETCH(QByteArray, content);
    if (QStandardPaths::findExecutable("gzip").isEmpty())
        QSKIP("the gzip tool is needed to check the packed form");

    QVERIFY(writeAll(original, content));
    QVERIFY(zipFile(original, packed));
    QCOMPARE(runGzip({"-dc"}, readAll(packed)), content);
    QVERIFY(writeAll(unpacked, "older and longer content than some of the rows"));
    QVERIFY(unzipFile(unpacked, packed));
    QCOMPARE(readAll(unpacked), content);

    QVERIFY(writeAll(packed, runGzip({"-c"}, content)));
    QVERIFY(unzipFile(unpacked, packed));
    QCOMPARE(readAll(unpacked), content);
}

void tst_Gzip::brokenInput_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("keep");    // bytes kept from the start, or cut off the end if negative
    QTest::addColumn<int>("damaged"); // offset from the end of a byte to invert, or 0

    const QByteArray random = randomBytes(100000);
    QTest::newRow("header only") << random << 10 << 0;
    QTest::newRow("half a header") << random << 5 << 0;
    QTest::newRow("cut in the middle") << random << 50000 << 0;
    QTest::newRow("cut in the middle of text") << text(20000) << 2000 << 0;
    QTest::newRow("trailer missing") << random << -8 << 0;
    QTest::newRow("last byte missing") << random << -1 << 0;
    QTest::newRow("damaged text data") << text(20000) << 0 << 1000;
    QTest::newRow("damaged random data") << random << 0 << 30000;
    QTest::newRow("wrong checksum") << random << 0 << 8;
    QTest::newRow("wrong length") << random << 0 << 1;
}

void tst_Gzip::brokenInput()
{
    QFETCH(QByteArray, content);
    QFETCH(int, keep);
    QFETCH(int, damaged);

    QVERIFY(writeAll(original, content));
    QVERIFY(zipFile(original, packed));
    QByteArray data = readAll(packed);
    QVERIFY(data.size() > qMax(keep, damaged));
    if (keep != 0)
        data = keep > 0 ? data.left(keep) : data.chopped(-keep);
    if (damaged > 0)
        data[data.size() - damaged] = ~data.at(data.size() - damaged);
    QVERIFY(writeAll(packed, data));

    QVERIFY(!unzipFile(unpacked, packed));
    QVERIFY(!QFile::exists(unpacked));
}

void tst_Gzip::plainFileCopiedThrough()
{
    const QByteArray content = text(5000);
    QVERIFY(writeAll(original, content));
    QVERIFY(unzipFile(unpacked, original));
    QCOMPARE(readAll(unpacked), content);
}

void tst_Gzip::openFailures()
{
    const QString missing = dir.filePath("missing");
    const QString noDirectory = dir.filePath("no/such/file");
    QVERIFY(!unzipFile(unpacked, missing));
    QVERIFY(QFile::exists(unpacked));
    QCOMPARE(readAll(unpacked), QByteArray());

    QVERIFY(writeAll(original, "abc"));
    QVERIFY(zipFile(original, packed));
    QVERIFY(!unzipFile(noDirectory, packed));
    QVERIFY(!zipFile(missing, packed + "2"));
    QVERIFY(!QFile::exists(packed + "2"));
    QVERIFY(!zipFile(original, noDirectory));
}

QTEST_GUILESS_MAIN(tst_Gzip)
#include "tst_gzip.moc"
