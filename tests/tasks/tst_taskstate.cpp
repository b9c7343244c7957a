#include "tasks/taskstate.h"

#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <map>

namespace {

using Flags = QList<unsigned int>;
using Counters = QList<qint64>;

// Entries of sizes 1, 10, 100, ... carrying the given flags.
TaskState makeState(const Flags &flags)
{
    TaskState state;
    quint64 size = 1;
    for (unsigned int f : flags) {
        FileSpecification entry;
        entry.flags = f;
        entry.size = size;
        size *= 10;
        state.files.append(entry);
    }
    return state;
}

// One letter per operation, then the index: "R1" is markReady(1). "S" sets the pending bit as
// the session does when it hands a file to a stream, "B" a bit no mark uses.
const std::map<QChar, std::function<void(TaskState &, int)>> operations = {
        {'R', [](TaskState &s, int i) { s.markReady(i); }},
        {'D', [](TaskState &s, int i) { s.markDownloaded(i); }},
        {'N', [](TaskState &s, int i) { s.markNoFile(i, false); }},
        {'n', [](TaskState &s, int i) { s.markNoFile(i, true); }},
        {'P', [](TaskState &s, int i) { s.resetPendingMark(i); }},
        {'S',
         [](TaskState &s, int i) { s.setFlags(i, s.getFlags(i) | FileSpecification::Pending); }},
        {'B', [](TaskState &s, int i) { s.setFlags(i, s.getFlags(i) | 8); }},
        {'X', [](TaskState &s, int) { s.resetMarks(); }},
        {'U', [](TaskState &s, int) { s.updateCompletionInfo(); }},
};

} // namespace

class tst_TaskState : public QObject
{
    Q_OBJECT

private slots:
    void marks_data();
    void marks();
    void minimumBound_data();
    void minimumBound();
    void readingStartsCountsAfresh();
    void savedMarksGiveTheSameCounts();
};

void tst_TaskState::marks_data()
{
    QTest::addColumn<QString>("ops");
    QTest::addColumn<Flags>("flags");
    // readyCount, readyBound, readySize, downloadedCount, downloadedBound, downloadedSize
    QTest::addColumn<Counters>("counters");

    QTest::newRow("ready after a gap")
            << "R1" << Flags{0, 5, 0, 0} << Counters{1, -1, 10, 1, -1, 10};
    QTest::newRow("gap closed") << "R1 R0" << Flags{5, 5, 0, 0} << Counters{2, 1, 11, 2, 1, 11};
    QTest::newRow("run reaches past later marks")
            << "R0 R2 R3 R1" << Flags{5, 5, 5, 5} << Counters{4, 3, 1111, 4, 3, 1111};
    QTest::newRow("marked twice counts once")
            << "R2 R2 D2" << Flags{0, 0, 5, 0} << Counters{1, -1, 100, 1, -1, 100};
    QTest::newRow("downloaded then ready")
            << "D0 R0" << Flags{5, 0, 0, 0} << Counters{1, 0, 1, 1, 0, 1};
    QTest::newRow("marks clear pending")
            << "S0 S1 S2 D0 R1" << Flags{4, 5, 2, 0} << Counters{1, -1, 10, 2, 1, 11};
    QTest::newRow("other bits kept")
            << "B0 S0 R0" << Flags{13, 0, 0, 0} << Counters{1, 0, 1, 1, 0, 1};
    QTest::newRow("no file keeps counts and bound")
            << "R0 R1 N0" << Flags{4, 5, 0, 0} << Counters{2, 1, 11, 2, 1, 11};
    QTest::newRow("stale bound still extends")
            << "R0 N0 R1" << Flags{4, 5, 0, 0} << Counters{2, 1, 11, 2, 1, 11};
    QTest::newRow("no file recomputes")
            << "R0 R2 R3 n0" << Flags{4, 0, 5, 5} << Counters{2, -1, 1100, 3, 0, 1101};
    QTest::newRow("no file on pending")
            << "S3 N3" << Flags{0, 0, 0, 0} << Counters{0, -1, 0, 0, -1, 0};
    QTest::newRow("pending given back")
            << "D0 S1 P1 P0" << Flags{4, 0, 0, 0} << Counters{0, -1, 0, 1, 0, 1};
    QTest::newRow("reset keeps counts")
            << "R0 D1 S2 X" << Flags{0, 0, 0, 0} << Counters{1, 0, 1, 2, 1, 11};
    QTest::newRow("reset then recompute")
            << "R0 D1 X U" << Flags{0, 0, 0, 0} << Counters{0, -1, 0, 0, -1, 0};
}

void tst_TaskState::marks()
{
    QFETCH(QString, ops);
    QFETCH(Flags, flags);
    QFETCH(Counters, counters);

    TaskState state = makeState({0, 0, 0, 0});
    for (const QString &op : ops.split(' '))
        operations.at(op.at(0))(state, op.mid(1).toInt());

    Flags actualFlags;
    for (int i = 0; i < state.getSize(); ++i) {
        actualFlags.append(state.getFlags(i));
        QCOMPARE(state.isReady(i), bool(flags.at(i) & 1));
        QCOMPARE(state.isDownloaded(i), bool(flags.at(i) & 4));
    }
    QCOMPARE(actualFlags, flags);
    QCOMPARE(Counters({state.readyCount, state.readyBound, qint64(state.readySize),
                       state.downloadedCount, state.downloadedBound, qint64(state.downloadedSize)}),
             counters);
}

void tst_TaskState::minimumBound_data()
{
    QTest::addColumn<Flags>("flags");
    QTest::addColumn<unsigned int>("mask");
    QTest::addColumn<int>("start");
    QTest::addColumn<int>("bound");

    QTest::newRow("first entry unmarked") << Flags{0, 4, 4} << 4u << -1 << -1;
    QTest::newRow("run from the start") << Flags{5, 4, 0, 4} << 4u << -1 << 1;
    QTest::newRow("any bit of the mask") << Flags{1, 4, 2} << 5u << -1 << 1;
    QTest::newRow("from the middle") << Flags{0, 0, 4, 4} << 4u << 1 << 3;
    QTest::newRow("start at the end") << Flags{0, 0, 0} << 1u << 2 << 2;
    QTest::newRow("start before -1") << Flags{4, 4} << 4u << -3 << -3;
    QTest::newRow("empty list") << Flags{} << 4u << -1 << -1;
}

void tst_TaskState::minimumBound()
{
    QFETCH(Flags, flags);
    QFETCH(unsigned int, mask);
    QFETCH(int, start);
    QFETCH(int, bound);

    QCOMPARE(makeState(flags).getTaskListMinimumBound(mask, start), bound);
}

void tst_TaskState::readingStartsCountsAfresh()
{
    QTemporaryDir dir;
    QFile good(dir.filePath("good.ini"));
    QFile bad(dir.filePath("bad.ini"));
    QVERIFY(good.open(QIODevice::WriteOnly) && bad.open(QIODevice::WriteOnly));
    good.write("[d]\na=x::5\nb=x::6\n");
    bad.write("[d]\nc=x::7::y\n");
    good.close();
    bad.close();

    TaskState state = makeState({0, 0});
    state.markReady(0);
    const TaskState copy = state;
    QVERIFY(!state.initializeByProductIni(bad.fileName()));
    QCOMPARE(Counters({state.readyCount, state.readyBound, state.downloadedCount}),
             Counters({1, 0, 1}));

    QVERIFY(state.initializeByProductIni(good.fileName()));
    QCOMPARE(state.getSize(), 4);
    QCOMPARE(state.totalSize, 11u);
    QCOMPARE(Counters({state.readyCount, state.readyBound, qint64(state.readySize),
                       state.downloadedCount, state.downloadedBound, qint64(state.downloadedSize)}),
             Counters({0, -1, 0, 0, -1, 0}));

    state.markReady(2);
    QCOMPARE(copy.getSize(), 2);
    QCOMPARE(copy.getFlags(0), 5u);
    QCOMPARE(copy.readyCount, 1);
}

void tst_TaskState::savedMarksGiveTheSameCounts()
{
    TaskState state = makeState({0, 0, 0, 0, 0});
    for (const QString &op : QStringList{"R0", "D1", "S2", "R3"})
        operations.at(op.at(0))(state, op.mid(1).toInt());
    QTemporaryDir dir;
    QSettings settings(dir.filePath("saved.ini"), QSettings::IniFormat);
    state.save(&settings);
    settings.sync();

    QSettings reread(settings.fileName(), QSettings::IniFormat);
    TaskState loaded;
    QVERIFY(loaded.load(&reread));
    loaded.updateCompletionInfo();
    QCOMPARE(loaded.getFlags(2), 2u);
    QCOMPARE(Counters({loaded.readyCount, loaded.readyBound, qint64(loaded.readySize),
                       loaded.downloadedCount, loaded.downloadedBound,
                       qint64(loaded.downloadedSize)}),
             Counters({2, 0, 1001, 3, 1, 1011}));
}

QTEST_GUILESS_MAIN(tst_TaskState)
#include "tst_taskstate.moc"
