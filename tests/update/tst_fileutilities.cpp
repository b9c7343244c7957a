#include "tests/support/testfiles.h"
#include "update/checksums.h"
#include "update/cleanup.h"
#include "update/filecopy.h"
#include "update/filesync.h"
#include "update/idlewriteback.h"
#include "update/packing.h"

#include <QElapsedTimer>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <ctime>

#include <sys/stat.h>
#include <unistd.h>

Q_DECLARE_METATYPE(PackFormat)

namespace {

// Compressible, so that a damaged byte breaks the packed data itself, not only the checksum.
QByteArray text(int lines)
{
    QByteArray result;
    for (int i = 0; i < lines; ++i)
        result += "line " + QByteArray::number(i * 7919 % 1000) + " of the test text\n";
    return result;
}

qint64 threadCpuMs()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

} // namespace

// Copying, packing and the clean-up of working directories, on real files. The short
// cuts (hashing while writing, copying inside the kernel) must give what the plain way gives.
class tst_FileUtilities : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void copies();
    void packRoundTrip_data();
    void packRoundTrip();
    void brokenPacked_data();
    void brokenPacked();
    void cleanupRemovesLinksWithoutFollowing();
    void writebackWaitsForSpareTime();

private:
    std::unique_ptr<QTemporaryDir> dir;
    QString original;
    QString packed;
    QString unpacked;
};

void tst_FileUtilities::init()
{
    dir = std::make_unique<QTemporaryDir>();
    original = dir->filePath("original");
    packed = dir->filePath("packed.gz");
    unpacked = dir->filePath("unpacked");
}

void tst_FileUtilities::copies()
{
    // Several megabytes, and the source's mode bits, not what the umask would leave of them.
    const QByteArray content = patternBytes(3 * 1024 * 1024 + 5, 2);
    QVERIFY(writeTestFile(original, content));
    QVERIFY(::chmod(QFile::encodeName(original).constData(), 0664) == 0);
    const mode_t previousMask = ::umask(022);
    const bool copied = copyFile(original, unpacked);
    ::umask(previousMask);
    QVERIFY(copied);
    QCOMPARE(readTestFile(unpacked), content);
    QCOMPARE(int(QFileInfo(unpacked).permissions() & 0x7777), 0x6664);
    // Whole, streamed, or from an open file, the checksum is the same; a missing file has none.
    QFile copy(unpacked);
    QVERIFY(copy.open(QIODevice::ReadOnly) && copy.seek(7));
    QCOMPARE(QStringList({getFileMD5(unpacked), getFileMD5Ex(unpacked), getFileMD5Ex(copy)}),
             QStringList(3, md5Of(content)));
    QVERIFY(getFileMD5(packed).isEmpty() && getFileMD5Ex(packed).isEmpty());
    // Nor has what would keep a reader waiting or reading for ever.
    const QString pipe = dir->filePath("pipe");
    QVERIFY(::mkfifo(QFile::encodeName(pipe).constData(), 0600) == 0);
    for (const QString &path : {pipe, QString("/dev/zero")})
        QVERIFY(getFileMD5(path).isEmpty() && getFileMD5Ex(path).isEmpty());
    copy.close();

    // An existing target is kept as it was; a missing or non-regular source makes nothing, and
    // neither copying nor packing makes a file in a directory that is not there.
    QVERIFY(writeTestFile(original, "other"));
    QVERIFY(!copyFile(original, unpacked));
    QCOMPARE(readTestFile(unpacked), content);
    for (const QString &source : {dir->filePath("missing"), dir->path()}) {
        QVERIFY(!copyFile(source, packed) && !packFile(source, packed, PackFormat::Gzip));
        QVERIFY(!QFileInfo::exists(packed));
    }
    const QString noDirectory = dir->filePath("no/such/file");
    QVERIFY(!copyFile(original, noDirectory) && !packFile(original, noDirectory, PackFormat::Gzip));
    QVERIFY(packFile(original, packed, PackFormat::Gzip));
    QString md5;
    QVERIFY(!unpackFileWithMD5(noDirectory, packed, &md5)
            && !unpackFileWithMD5(unpacked, dir->filePath("missing"), &md5));
    // Data that is not packed is copied through; the checksum check after it catches a wrong file.
    QVERIFY(unpackFileWithMD5(unpacked, original, &md5));
    QCOMPARE(readTestFile(unpacked), "other");
}

void tst_FileUtilities::packRoundTrip_data()
{
    QTest::addColumn<PackFormat>("format");
    QTest::addColumn<QByteArray>("content");
    for (const PackFormat format : {PackFormat::Gzip, PackFormat::Zstd}) {
        const char *name = format == PackFormat::Gzip ? "gzip" : "zstd";
        QTest::addRow("%s empty", name) << format << QByteArray();
        QTest::addRow("%s over many blocks", name) << format << text(100000);
    }
}

// The system's tool reads what we pack, and we read what it packs.
void tst_FileUtilities::packRoundTrip()
{
    QFETCH(PackFormat, format);
    QFETCH(QByteArray, content);
    const QString tool = format == PackFormat::Gzip ? "gzip" : "zstd";
    if (QStandardPaths::findExecutable(tool).isEmpty())
        QSKIP("the packing tool is needed to check the packed form");

    QVERIFY(writeTestFile(original, content));
    QVERIFY(packFile(original, packed, format));
    QCOMPARE(runTool(tool, {"-dc"}, readTestFile(packed)), content);
    // Two frames, as the tool writes for two inputs, unpack to both contents, over a longer file.
    const QByteArray fromTool = runTool(tool, {"-c"}, content);
    QVERIFY(writeTestFile(packed, fromTool + fromTool));
    QVERIFY(writeTestFile(unpacked, "older and longer content than some of the rows"));
    QString md5;
    QVERIFY(unpackFileWithMD5(unpacked, packed, &md5));
    QCOMPARE(readTestFile(unpacked), content + content);
    QCOMPARE(md5, md5Of(content + content));
    // Declared as one copy: a bomb stops one byte past that, so the length check catches it.
    const QByteArray bounded = (content + content).left(content.size() + 1);
    QVERIFY(unpackFileWithMD5(unpacked, packed, &md5, content.size() + 1));
    QCOMPARE(readTestFile(unpacked), bounded);
    QCOMPARE(md5, md5Of(bounded));

    // In place: what is not the declared file leaves the packed file alone; what is moves the
    // packed file's own inode to the destination.
    QVERIFY(QFile::remove(unpacked));
    QCOMPARE(unpackInPlace(packed, unpacked, md5Of("other"), quint64(content.size()) * 2),
             InPlaceUnpacking::Refused);
    QCOMPARE(unpackInPlace(packed, unpacked, md5Of(content + content),
                           quint64(content.size()) * 2 + 1),
             InPlaceUnpacking::Refused);
    QCOMPARE(readTestFile(packed), fromTool + fromTool);
    const auto inodeOf = [](const QString &path) {
        struct stat status = {};
        return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_ino : 0;
    };
    const ino_t inode = inodeOf(packed);
    QCOMPARE(unpackInPlace(packed, unpacked, md5Of(content + content), quint64(content.size()) * 2),
             InPlaceUnpacking::Unpacked);
    QVERIFY(!QFile::exists(packed));
    QCOMPARE(readTestFile(unpacked), content + content);
    QCOMPARE(inodeOf(unpacked), inode);
}

void tst_FileUtilities::brokenPacked_data()
{
    QTest::addColumn<PackFormat>("format");
    QTest::addColumn<int>("keep");    // bytes kept from the start, or 0
    QTest::addColumn<int>("damaged"); // offset from the end of a byte to invert, or 0

    QTest::newRow("gzip cut in the middle") << PackFormat::Gzip << 2000 << 0;
    QTest::newRow("gzip wrong checksum") << PackFormat::Gzip << 0 << 8;
    QTest::newRow("zstd cut in the middle") << PackFormat::Zstd << 200 << 0;
    QTest::newRow("zstd wrong checksum") << PackFormat::Zstd << 0 << 2;
}

void tst_FileUtilities::brokenPacked()
{
    QFETCH(PackFormat, format);
    QFETCH(int, keep);
    QFETCH(int, damaged);

    QVERIFY(writeTestFile(original, text(20000)));
    QVERIFY(packFile(original, packed, format));
    QByteArray data = readTestFile(packed);
    if (keep != 0)
        data = data.left(keep);
    if (damaged > 0)
        data[data.size() - damaged] = ~data.at(data.size() - damaged);
    QVERIFY(writeTestFile(packed, data));

    QString md5 = "untouched";
    QVERIFY(!unpackFileWithMD5(unpacked, packed, &md5));
    QCOMPARE(md5, QString("untouched"));
    QVERIFY(!QFile::exists(unpacked));
    QCOMPARE(unpackInPlace(packed, unpacked, md5Of(text(20000)), 20000), InPlaceUnpacking::Refused);
    QCOMPARE(readTestFile(packed), data);
}

void tst_FileUtilities::cleanupRemovesLinksWithoutFollowing()
{
    const QString root = dir->filePath("work");
    const QString outside = dir->filePath("outside");
    for (const char *path : {"a", ".hidden", "sub/deeper/c", ".dir/d", "linked/e",
                             "../outside/target", "../outside/inner/f"}) {
        QVERIFY(writeTestFile(root + '/' + path, "content"));
    }
    QVERIFY(QDir().mkpath(root + "/empty/empty"));
    QVERIFY(QFile::link(outside + "/target", root + "/linked/to-file"));
    QVERIFY(QFile::link(outside + "/inner", root + "/sub/deeper/to-dir"));
    QVERIFY(QFile::link(outside + "/gone", root + "/dangling"));
    QCOMPARE(mkfifo(QFile::encodeName(root + "/sub/fifo").constData(), 0600), 0);
    // A download that a switch installed under a second name.
    QCOMPARE(::link(QFile::encodeName(outside + "/target").constData(),
                    QFile::encodeName(root + "/sub/installed").constData()),
             0);
    const auto all = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;

    removeAllButDownloadsBelow(root);
    QCOMPARE(QDir(root).entryList(all, QDir::Name),
             QStringList({".dir", ".hidden", "a", "empty", "linked", "sub"}));
    QCOMPARE(treeBelow(root).keys(),
             QStringList({".dir/d", ".hidden", "a", "linked/e", "sub/deeper/c"}));

    cleanupDirectory(root);
    QCOMPARE(QDir(root).entryList(all), QStringList());
    QCOMPARE(QDir(outside).entryList(all, QDir::Name), QStringList({"inner", "target"}));
    QVERIFY(QFile::exists(outside + "/inner/f"));

    // Nothing to clean is no error, and an empty path must not be taken for the current directory.
    cleanupDirectory(dir->filePath("missing"));
    QVERIFY(!QFileInfo::exists(dir->filePath("missing")));
    const QString current = QDir::currentPath();
    QVERIFY(QDir::setCurrent(outside));
    cleanupDirectory(QString());
    QVERIFY(QDir::setCurrent(current));
    QVERIFY(QFile::exists(outside + "/target"));
}

// Over a link the thread mostly waits, and every file starts for the disk as it arrives; while
// the thread is busy a small file waits for a quieter moment, and a large one never does. Those
// held back go a few at a time, never all at once.
void tst_FileUtilities::writebackWaitsForSpareTime()
{
    QVERIFY(writeTestFile(original, text(10)));
    IdleWriteback writeback;
    writeback.add(original, 100);
    QCOMPARE(writeback.heldBack(), 1);

    QElapsedTimer busy;
    busy.start();
    const qint64 cpuAtStart = threadCpuMs();
    while (busy.elapsed() < 100) {}
    if ((threadCpuMs() - cpuAtStart) * 10 < busy.elapsed() * 7)
        QSKIP("the machine gave this thread too little of a processor to be busy");
    for (int i = 0; i < 99; ++i)
        writeback.add(original, 100);
    QCOMPARE(writeback.heldBack(), 100);
    writeback.add(original, writebackSize);
    QCOMPARE(writeback.heldBack(), 100);

    QThread::msleep(100);
    writeback.add(original, 100);
    QCOMPARE(writeback.heldBack(), 37);
    writeback.add(original, 100);
    QCOMPARE(writeback.heldBack(), 0);
}

QTEST_GUILESS_MAIN(tst_FileUtilities)
#include "tst_fileutilities.moc"
