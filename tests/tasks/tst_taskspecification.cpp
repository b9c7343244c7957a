#include "tasks/pathsafety.h"
#include "tasks/taskspecification.h"

#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

namespace {

// All eight fields in order, so a mismatch shows which one differs.
QString fields(const FileSpecification &f)
{
    return QStringList{QString::number(f.flags),
                       f.directory,
                       f.name,
                       f.md5,
                       QString::number(f.size),
                       f.unpackedMd5,
                       QString::number(f.unpackedSize),
                       f.unpackedName}
            .join(" | ");
}

} // namespace

class tst_TaskSpecification : public QObject
{
    Q_OBJECT

private slots:
    void readsSectionsInNameOrder();
    void values_data();
    void values();
    void badValueKeepsEarlierEntries();
    void hostilePathsRefused_data();
    void hostilePathsRefused();
    void getTotalSize_data();
    void getTotalSize();
    void copiesShareUntilWritten();
    void saveAndLoadRoundTrip();
    void loadShortValues_data();
    void loadShortValues();

private:
    QString writeIni(const QByteArray &text);
    QTemporaryDir dir;
    int fileCount = 0;
};

QString tst_TaskSpecification::writeIni(const QByteArray &text)
{
    const QString path = dir.filePath(QString::number(++fileCount) + ".ini");
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        qFatal("cannot write %s", qPrintable(path));
    return path;
}

void tst_TaskSpecification::readsSectionsInNameOrder()
{
    const QString path = writeIni("top=aa::1\n"
                                  "[zeta]\nb.gz=bb::20::cc::25::b\na=dd::10\n"
                                  "[delete]\nold1=\nold2=\nold3=\nold4=\nold5=\n"
                                  "[alpha]\nlib/x.so=ee::300\n");
    TaskSpecification list;
    QVERIFY(list.initializeByProductIni(path));
    QCOMPARE(list.getSize(), 3);
    QCOMPARE(fields(list.files.at(0)), "0 | alpha | lib/x.so | ee | 300 |  | 0 | ");
    QCOMPARE(fields(list.files.at(1)), "0 | zeta | a | dd | 10 |  | 0 | ");
    QCOMPARE(fields(list.files.at(2)), "0 | zeta | b.gz | bb | 20 | cc | 25 | b");
    QCOMPARE(list.totalSize, 330u);
    // One slot per key of the file, the five "delete" keys and the general key included.
    QVERIFY(list.files.capacity() >= 9);

    QVERIFY(list.initializeByProductIni(path));
    QCOMPARE(list.getSize(), 6);
    QCOMPARE(list.files.at(3).name, "lib/x.so");
    QCOMPARE(list.totalSize, 660u);

    FileSpecification untouched;
    untouched.name = "kept";
    QVERIFY(!list.get(6, &untouched));
    QCOMPARE(untouched.name, "kept");
    QString name = "kept";
    QVERIFY(!list.get(6, nullptr, &name, nullptr, nullptr));
    QCOMPARE(name, "kept");
    QVERIFY(list.get(5, nullptr));
    quint64 size = 0;
    QVERIFY(list.get(5, nullptr, &name, nullptr, &size));
    QCOMPARE(name, "b.gz");
    QCOMPARE(size, 20u);
}

void tst_TaskSpecification::values_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QString>("entry");

    QTest::newRow("two fields") << QByteArray("abc::42") << true
                                << "0 | d | f | abc | 42 |  | 0 | ";
    QTest::newRow("five fields") << QByteArray("abc::42::def::99::x.dll") << true
                                 << "0 | d | f | abc | 42 | def | 99 | x.dll";
    QTest::newRow("only the separator") << QByteArray("::") << true << "0 | d | f |  | 0 |  | 0 | ";
    QTest::newRow("size not a number")
            << QByteArray("abc::12kb") << true << "0 | d | f | abc | 0 |  | 0 | ";
    QTest::newRow("negative size")
            << QByteArray("abc::-1") << true << "0 | d | f | abc | 0 |  | 0 | ";
    QTest::newRow("largest size") << QByteArray("abc::18446744073709551615") << true
                                  << "0 | d | f | abc | 18446744073709551615 |  | 0 | ";
    QTest::newRow("five fields, no name")
            << QByteArray("abc::1::def::2::") << true << "0 | d | f | abc | 1 | def | 2 | ";
    QTest::newRow("empty") << QByteArray() << false << QString();
    QTest::newRow("one field") << QByteArray("abc") << false << QString();
    QTest::newRow("three fields") << QByteArray("abc::1::def") << false << QString();
    QTest::newRow("six fields") << QByteArray("a::1::b::2::c::d") << false << QString();
    QTest::newRow("single colons") << QByteArray("abc:1") << false << QString();
}

void tst_TaskSpecification::values()
{
    QFETCH(QByteArray, value);
    QFETCH(bool, ok);
    QFETCH(QString, entry);

    TaskSpecification list;
    QCOMPARE(list.initializeByProductIni(writeIni("[d]\nf=" + value + "\n")), ok);
    QCOMPARE(list.getSize(), ok ? 1 : 0);
    if (ok)
        QCOMPARE(fields(list.files.at(0)), entry);
}

void tst_TaskSpecification::badValueKeepsEarlierEntries()
{
    TaskSpecification list;
    QVERIFY(!list.initializeByProductIni(
            writeIni("[a]\n1=x::5\n2=x::7\n3=x::1::y\n4=x::100\n[b]\n1=x::1000\n")));
    QCOMPARE(list.getSize(), 2);
    QCOMPARE(list.files.at(1).name, "2");
    QCOMPARE(list.totalSize, 12u);
}

void tst_TaskSpecification::hostilePathsRefused_data()
{
    QTest::addColumn<QByteArray>("ini");

    QTest::newRow("directory parent") << QByteArray("[..]\nf=x::1\n");
    QTest::newRow("directory absolute") << QByteArray("[/etc]\nf=x::1\n");
    QTest::newRow("directory control char") << QByteArray("[a%01b]\nf=x::1\n");
    QTest::newRow("name parent") << QByteArray("[d]\n..%2F..%2Fbin=x::1\n");
    QTest::newRow("name parent inside") << QByteArray("[d]\nlib/../../x=x::1\n");
    QTest::newRow("name absolute") << QByteArray("[d]\n%2Fetc%2Fpasswd=x::1\n");
    QTest::newRow("name newline") << QByteArray("[d]\na%0Ab=x::1\n");
    QTest::newRow("unpacked absolute") << QByteArray("[d]\nf.gz=x::1::y::2::/etc/passwd\n");
    QTest::newRow("unpacked parent") << QByteArray("[d]\nf.gz=x::1::y::2::a/../../b\n");
    QTest::newRow("unpacked backslash") << QByteArray("[d]\nf.gz=x::1::y::2::a\\\\b\n");
    QTest::newRow("unpacked tab") << QByteArray("[d]\nf.gz=x::1::y::2::a\\tb\n");
    QTest::newRow("delete absolute") << QByteArray("[delete]\n%2Fhome%2Fuser=\n[e]\nf=x::1\n");
    QTest::newRow("delete parent") << QByteArray("[delete]\n..%2F..%2Fx=\n[e]\nf=x::1\n");
    QTest::newRow("delete control char") << QByteArray("[delete]\na%7Fb=\n[e]\nf=x::1\n");
}

void tst_TaskSpecification::hostilePathsRefused()
{
    QFETCH(QByteArray, ini);

    TaskSpecification list;
    QVERIFY(!list.initializeByProductIni(writeIni("[a]\nfirst=x::1\n" + ini)));
    for (const FileSpecification &f : std::as_const(list.files)) {
        QVERIFY(isSafeRelativePath(f.directory));
        QVERIFY(isSafeRelativePath(f.name));
        QVERIFY(f.unpackedName.isEmpty() || isSafeRelativePath(f.unpackedName));
    }
}

void tst_TaskSpecification::getTotalSize_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("last");
    QTest::addColumn<quint64>("total");

    QTest::newRow("to -1 leaves the last out") << 3 << 0 << -1 << quint64(30);
    QTest::newRow("whole list") << 3 << 0 << 3 << quint64(60);
    QTest::newRow("empty range") << 3 << 2 << 2 << quint64(0);
    QTest::newRow("reversed range") << 3 << 2 << 1 << quint64(0);
    QTest::newRow("negative first") << 3 << -4 << 2 << quint64(30);
    QTest::newRow("middle to -1") << 3 << 1 << -1 << quint64(20);
    QTest::newRow("last past the end") << 3 << 1 << 50 << quint64(50);
    QTest::newRow("empty list") << 0 << 0 << -1 << quint64(0);
}

void tst_TaskSpecification::getTotalSize()
{
    QFETCH(int, count);
    QFETCH(int, first);
    QFETCH(int, last);
    QFETCH(quint64, total);

    TaskSpecification list;
    for (int i = 1; i <= count; ++i) {
        FileSpecification f;
        f.size = 10 * i;
        list.files.append(f);
    }
    QCOMPARE(list.getTotalSize(first, last), total);
}

void tst_TaskSpecification::copiesShareUntilWritten()
{
    TaskSpecification list;
    QVERIFY(list.initializeByProductIni(writeIni("[a]\n1=x::1\n2=x::2\n")));
    TaskSpecification copy = list;
    QCOMPARE(copy.files.constData(), list.files.constData());
    copy.setFlags(1, 6);
    copy.resetFlags(2);
    QCOMPARE(copy.getFlags(1), 4u);
    QCOMPARE(list.getFlags(1), 0u);
}

void tst_TaskSpecification::saveAndLoadRoundTrip()
{
    TaskSpecification list;
    QVERIFY(list.initializeByProductIni(writeIni("[bin]\nupdate=aa::7\n"
                                                 "[lib]\nlibq.so.gz=bb::20::cc::64::libq.so\n")));
    list.setFlags(0, 5);
    list.setFlags(1, 2 | 16);
    FileSpecification orphan;
    orphan.directory = "d";
    orphan.name = "n";
    orphan.unpackedSize = 9;
    orphan.unpackedMd5 = "ee";
    list.files.append(orphan);

    const QString path = dir.filePath("saved.ini");
    {
        QSettings settings(path, QSettings::IniFormat);
        settings.beginGroup("task");
        list.save(&settings);
    }
    QSettings settings(path, QSettings::IniFormat);
    settings.beginGroup("task");
    QCOMPARE(settings.value("file/size").toInt(), 3);
    QCOMPARE(settings.value("file/1/v").toString(), "5::bin::update::aa::7");
    QCOMPARE(settings.value("file/2/v").toString(), "18::lib::libq.so.gz::bb::20::cc::64::libq.so");

    TaskSpecification loaded;
    QVERIFY(loaded.load(&settings));
    QCOMPARE(loaded.getSize(), 3);
    QCOMPARE(fields(loaded.files.at(0)), fields(list.files.at(0)));
    QCOMPARE(fields(loaded.files.at(1)), fields(list.files.at(1)));
    QCOMPARE(fields(loaded.files.at(2)), "0 | d | n |  | 0 |  | 0 | ");
    QCOMPARE(loaded.totalSize, 27u);

    QVERIFY(loaded.load(&settings));
    QCOMPARE(loaded.getSize(), 3);
    QCOMPARE(loaded.totalSize, 54u);

    settings.endGroup();
    QVERIFY(loaded.load(&settings));
    QCOMPARE(loaded.getSize(), 0);
}

void tst_TaskSpecification::loadShortValues_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QString>("entry");

    QTest::newRow("empty") << QByteArray() << "0 |  |  |  | 0 |  | 0 | ";
    QTest::newRow("two parts") << QByteArray("3::dir") << "3 | dir |  |  | 0 |  | 0 | ";
    QTest::newRow("four parts") << QByteArray("1::d::n::m") << "1 | d | n | m | 0 |  | 0 | ";
    QTest::newRow("seven parts") << QByteArray("1::d::n::m::5::u::6")
                                 << "1 | d | n | m | 5 |  | 0 | ";
    QTest::newRow("bad numbers") << QByteArray("x::d::n::m::y::u::z::p")
                                 << "0 | d | n | m | 0 | u | 0 | p";
}

void tst_TaskSpecification::loadShortValues()
{
    QFETCH(QByteArray, value);
    QFETCH(QString, entry);

    QSettings settings(writeIni("[file]\nsize=1\n1\\v=" + value + "\n"), QSettings::IniFormat);
    TaskSpecification list;
    QVERIFY(list.load(&settings));
    QCOMPARE(list.getSize(), 1);
    QCOMPARE(fields(list.files.at(0)), entry);
}

QTEST_GUILESS_MAIN(tst_TaskSpecification)
#include "tst_taskspecification.moc"
