#include "tasks/taskstate.h"
#include "tests/support/testfiles.h"

#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <map>

namespace {

using Flags = QList<unsigned int>;
using Counters = QList<qint64>;

// All eight fields in order, so a mismatch shows which one differs.
QString fields(const FileSpecification &f)
{
    return QString("%1 | %2 | %3 | %4 | %5 | %6 | %7 | %8")
            .arg(QString::number(f.flags), f.directory, f.name, f.md5, QString::number(f.size),
                 f.unpackedMd5, QString::number(f.unpackedSize), f.unpackedName);
}

// One letter per operation, then the index: "R1" is markReady(1). "S" sets the pending bit as
// the session does when it hands a file to a stream.
const std::map<QChar, std::function<void(TaskState &, int)>> operations = {
        {'R', [](TaskState &s, int i) { s.markReady(i); }},
        {'D', [](TaskState &s, int i) { s.markDownloaded(i); }},
        {'P', [](TaskState &s, int i) { s.resetPendingMark(i); }},
        {'S',
         [](TaskState &s, int i) { s.setFlags(i, s.getFlags(i) | FileSpecification::Pending); }},
};

// readyCount, readyBound, readySize, downloadedCount, downloadedBound, downloadedSize
Counters counters(const TaskState &s)
{
    return {s.readyCount,      s.readyBound,      qint64(s.readySize),
            s.downloadedCount, s.downloadedBound, qint64(s.downloadedSize)};
}

} // namespace

// The task list: its product file list, its saved form, and the marks and counts kept over it.
class tst_TaskList : public QObject
{
    Q_OBJECT

private slots:
    void entries_data();
    void entries();
    void installPathConflicts_data();
    void installPathConflicts();
    void saveAndLoad();
    void marks_data();
    void marks();

private:
    QString writeIni(const QByteArray &text)
    {
        const QString path = dir.filePath(QString::number(++fileCount) + ".ini");
        return writeTestFile(path, text) ? path : QString();
    }
    QTemporaryDir dir;
    int fileCount = 0;
};

void tst_TaskList::entries_data()
{
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<QString>("entry"); // empty when the entry must fail the whole read

    QTest::newRow("five fields, no name, sizes at both ends")
            << QByteArray("[d]\nf=abc::9223372036854775807::def::12kb::")
            << "0 | d | f | abc | 9223372036854775807 | def | 0 | ";
    QTest::newRow("dots inside names") << QByteArray("[d.]\na..b/..c=x::1::y::2::.d/e..")
                                       << "0 | d. | a..b/..c | x | 1 | y | 2 | .d/e..";
    QTest::newRow("three fields") << QByteArray("[d]\nf=abc::1::def") << QString();
    QTest::newRow("directory: control character") << QByteArray("[b%01]\nf=x::1") << QString();
    QTest::newRow("name: parent inside") << QByteArray("[d]\nlib/../../x=x::1") << QString();
    QTest::newRow("unpacked name: backslash")
            << QByteArray("[d]\nf.gz=x::1::y::2::a\\\\b") << QString();
    QTest::newRow("delete: parent at the end") << QByteArray("[delete]\nx%2F..=") << QString();
    // The updater's own files at the root, however the path is spelt.
    QTest::newRow("name: the updater's journal")
            << QByteArray("[d]\n.update-journal=x::1") << QString();
    QTest::newRow("unpacked name: below the staging")
            << QByteArray("[d]\nf.gz=x::1::y::2::./.update-staging/new/f") << QString();
    QTest::newRow("delete: the lock") << QByteArray("[delete]\n.update-lock=") << QString();
    QTest::newRow("unpacked name: the settings")
            << QByteArray("[d]\nf.gz=x::1::y::2::.//update.ini") << QString();
}

void tst_TaskList::entries()
{
    QFETCH(QByteArray, ini);
    QFETCH(QString, entry);

    // Sections are read in the order of their names; neither a key outside a section nor the
    // delete group is an entry. A bad entry stops the read there; what came before it stays.
    TaskSpecification list;
    const bool ok = !entry.isEmpty();
    QCOMPARE(list.initializeByProductIni(writeIni("top=x::9\n[z]\nlast=x::7\n[delete]\nold=\n" + ini
                                                  + "\n[a]\nfirst=x::5\n")),
             ok);
    QCOMPARE(list.getSize(), ok ? 3 : 1);
    QCOMPARE(list.files.at(0).name, "first");
    if (ok)
        QCOMPARE(fields(list.files.at(1)), entry);
    else
        QCOMPARE(list.totalSize, 5u);
}

void tst_TaskList::installPathConflicts_data()
{
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<QString>("conflict"); // empty: the list is read

    QTest::newRow("names sharing a beginning, files side by side")
            << QByteArray("[d]\na=x::1\na.d/b=x::1\na-b=x::1::y::1::a-c\nc/d/e=x::1\nc/d/f=x::1")
            << "";
    QTest::newRow("one path spelt two ways")
            << QByteArray("[d]\nlib/x=x::1\n[e]\nx.gz=x::1::y::1::./lib//x")
            << "e/x.gz installs at ./lib//x, as d/lib/x does";
    QTest::newRow("one download spelt two ways")
            << QByteArray("[d]\nx/y=x::1::y::1::one\n.%2Fx%2Fy=x::1::y::1::two")
            << "d/x/y is fetched where d/./x/y is";
    QTest::newRow("a download below another's")
            << QByteArray("[d]\na=x::1::y::1::one\n[d/a]\nb=x::1::y::1::two")
            << "d/a/b is fetched below the file d/a";
    QTest::newRow("a file below another's file")
            << QByteArray("[d]\nlib=x::1\n[e]\nx.gz=x::1::y::1::lib/sub/x")
            << "e/x.gz installs at lib/sub/x, below the file d/lib installs";
    const QByteArray longest(255, 'n');
    QTest::newRow("names of 255 bytes, and longer")
            << "[d]\n" + longest + "=x::1\nx.gz=x::1::y::1::lib/" + longest + 'n'
            << QString("d/x.gz: a name in lib/" + longest + "n is longer than a file system holds");
    // 3060 bytes; "d/" and the first key make 3072.
    const QByteArray deep = QByteArray(16, 'd').append('/').repeated(180);
    QTest::newRow("paths of 3072 bytes, and longer")
            << "[d]\n" + deep + QByteArray(10, 'f') + "=x::1\nx.gz=x::1::y::1::" + deep
                       + QByteArray(13, 'x')
            << QString("d/x.gz: the path " + deep + QByteArray(13, 'x')
                       + " is longer than 3072 bytes");
    // Beyond what a download's length can be told apart from "unknown".
    QTest::newRow("a size of 2^63 bytes")
            << QByteArray("[d]\nx.gz=x::1::y::9223372036854775808::x")
            << "d/x.gz: a size of 9223372036854775808 bytes is more than a file system holds";
    for (const char *path : {".", "lib/", "lib/."}) {
        QTest::addRow("the directory %s", path)
                << "[d]\nx.gz=x::1::y::1::" + QByteArray(path)
                << QStringLiteral("d/x.gz installs at %1, which names no file").arg(path);
    }
}

// Each entry needs a file of its own; staging could not give them one, so such a list is
// refused whole, as an unsafe path is.
void tst_TaskList::installPathConflicts()
{
    QFETCH(QByteArray, ini);
    QFETCH(QString, conflict);

    TaskSpecification list;
    QCOMPARE(list.initializeByProductIni(writeIni(ini)), conflict.isEmpty());
    QCOMPARE(list.installPathConflict(), conflict);
}

// The saved form is read by whoever kept it, perhaps another version: its values are fixed.
void tst_TaskList::saveAndLoad()
{
    TaskState list;
    QVERIFY(list.initializeByProductIni(writeIni("[bin]\nupdate=aa::7\n"
                                                 "[lib]\nlibq.so.gz=bb::20::cc::64::libq.so\n")));
    list.markReady(0);
    list.setFlags(1, 2 | 16);
    // Unpacked fields without an unpacked name are not saved.
    list.files.append(FileSpecification{0, "d", "n", {}, 0, "ee", 9, {}});
    QSettings settings(dir.filePath("saved.ini"), QSettings::IniFormat);
    settings.beginGroup("task");
    list.save(&settings);
    // Short values, which save never writes, are read without running past their end.
    settings.setValue("short/file/size", 2);
    settings.setValue("short/file/1/v", "3::dir");
    settings.setValue("short/file/2/v", "1::d::n::m::5::u::6");
    settings.sync();
    QCOMPARE(settings.value("file/size").toInt(), 3);
    QCOMPARE(settings.value("file/1/v").toString(), "5::bin::update::aa::7");
    QCOMPARE(settings.value("file/2/v").toString(), "18::lib::libq.so.gz::bb::20::cc::64::libq.so");

    TaskState loaded;
    QVERIFY(loaded.load(&settings));
    QCOMPARE(loaded.getSize(), 3);
    QCOMPARE(fields(loaded.files.at(0)), fields(list.files.at(0)));
    QCOMPARE(fields(loaded.files.at(1)), fields(list.files.at(1)));
    QCOMPARE(fields(loaded.files.at(2)), "0 | d | n |  | 0 |  | 0 | ");
    loaded.updateCompletionInfo();
    QCOMPARE(counters(loaded), (Counters{1, 0, 7, 1, 0, 7}));
    // Loading again replaces the entries but adds to the total.
    QVERIFY(loaded.load(&settings));
    QCOMPARE(loaded.getSize(), 3);
    QCOMPARE(loaded.totalSize, 54u);

    settings.beginGroup("short");
    QVERIFY(loaded.load(&settings));
    QCOMPARE(fields(loaded.files.at(0)), "3 | dir |  |  | 0 |  | 0 | ");
    QCOMPARE(fields(loaded.files.at(1)), "1 | d | n | m | 5 |  | 0 | ");
}

void tst_TaskList::marks_data()
{
    QTest::addColumn<QString>("ops");
    QTest::addColumn<Flags>("flags");
    QTest::addColumn<Counters>("counters");

    // The rest (no file, reset) the verification lines of the end-to-end resumption prove.
    QTest::newRow("run reaches past later marks, marked twice counts once")
            << "D2 R0 R2 R3 R2 R1" << Flags{5, 5, 5, 5} << Counters{4, 3, 1111, 4, 3, 1111};
    QTest::newRow("marks clear pending, pending given back")
            << "S0 S1 S2 S3 D0 R1 P2" << Flags{4, 5, 0, 2} << Counters{1, -1, 10, 2, 1, 11};
}

void tst_TaskList::marks()
{
    QFETCH(QString, ops);
    QFETCH(Flags, flags);

    // Four entries of sizes 1, 10, 100 and 1000.
    TaskState state;
    for (quint64 size : {1, 10, 100, 1000})
        state.files.append(FileSpecification{0, {}, {}, {}, size, {}, 0, {}});
    for (const QString &op : ops.split(' '))
        operations.at(op.at(0))(state, op.mid(1).toInt());

    Flags actualFlags;
    for (const FileSpecification &f : std::as_const(state.files))
        actualFlags.append(f.flags);
    QCOMPARE(actualFlags, flags);
    QTEST(counters(state), "counters");
}

QTEST_GUILESS_MAIN(tst_TaskList)
#include "tst_tasklist.moc"
