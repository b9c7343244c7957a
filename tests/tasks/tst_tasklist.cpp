#include "tasks/taskstate.h"
#include "tests/support/testfiles.h"

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

// The task list: its product file list, and the marks and counts kept over it.
class tst_TaskList : public QObject
{
    Q_OBJECT

private slots:
    void entries_data();
    void entries();
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
            << QByteArray("[d]\nf=abc::18446744073709551615::def::12kb::")
            << "0 | d | f | abc | 18446744073709551615 | def | 0 | ";
    QTest::newRow("dots inside names") << QByteArray("[d.]\na..b/..c=x::1::y::2::.d/e..")
                                       << "0 | d. | a..b/..c | x | 1 | y | 2 | .d/e..";
    QTest::newRow("three fields") << QByteArray("[d]\nf=abc::1::def") << QString();
    QTest::newRow("directory: control character") << QByteArray("[b%01]\nf=x::1") << QString();
    QTest::newRow("name: parent inside") << QByteArray("[d]\nlib/../../x=x::1") << QString();
    QTest::newRow("unpacked name: backslash")
            << QByteArray("[d]\nf.gz=x::1::y::2::a\\\\b") << QString();
    QTest::newRow("delete: parent at the end") << QByteArray("[delete]\nx%2F..=") << QString();
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
