#include "update/checksums.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

namespace {

QByteArray randomBytes(qsizetype size)
{
    QList<quint32> words((size + 3) / 4);
    QRandomGenerator(quint32(size)).fillRange(words.data(), words.size());
    return QByteArray(reinterpret_cast<const char *>(words.constData()), size);
}

} // namespace

class tst_Checksums : public QObject
{
    Q_OBJECT

private slots:
    void digests_data();
    void digests();
    void unreadable();

private:
    QTemporaryDir dir;
};

void tst_Checksums::digests_data()
{
    QTest::addColumn<qsizetype>("size");
    QTest::addColumn<QString>("expected");

    QTest::newRow("empty") << qsizetype(0) << "d41d8cd98f00b204e9800998ecf8427e";
    QTest::newRow("one block") << qsizetype(16384) << "";
    QTest::newRow("one block and a byte") << qsizetype(16385) << "";
    QTest::newRow("five megabytes") << qsizetype(5 * 1024 * 1024 + 3) << "";
}

void tst_Checksums::digests()
{
    QFETCH(qsizetype, size);
    QFETCH(QString, expected);

    const QByteArray content = randomBytes(size);
    const QString path = dir.filePath(QString::number(size));
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadWrite));
    QCOMPARE(file.write(content), size);
    QVERIFY(file.flush());
    if (expected.isEmpty()) {
        QProcess md5sum;
        md5sum.start("md5sum", {path});
        QVERIFY(md5sum.waitForFinished());
        expected = QString::fromLatin1(md5sum.readAllStandardOutput().left(32));
        QCOMPARE(expected.size(), 32);
    }

    QCOMPARE(getFileMD5(path), expected);
    QCOMPARE(getFileMD5Ex(path), expected);
    QVERIFY(file.seek(size / 2));
    QCOMPARE(getFileMD5Ex(file), expected);
    QCOMPARE(file.pos(), size);
    QVERIFY(file.isOpen());
}

void tst_Checksums::unreadable()
{
    const QString missing = dir.filePath("missing");
    QCOMPARE(getFileMD5(missing), QString());
    QCOMPARE(getFileMD5Ex(missing), QString());
    QCOMPARE(getFileMD5Ex(dir.path()), QString());

    QFile writeOnly(dir.filePath("write-only"));
    QVERIFY(writeOnly.open(QIODevice::WriteOnly));
    writeOnly.write("abc");
    QCOMPARE(getFileMD5Ex(writeOnly), QString());
    writeOnly.close();
    QCOMPARE(getFileMD5(writeOnly.fileName()), "900150983cd24fb0d6963f7d28e17f72");
    QCOMPARE(getFileMD5Ex(writeOnly), QString());
}

QTEST_GUILESS_MAIN(tst_Checksums)
#include "tst_checksums.moc"
