#include "tests/support/testfiles.h"
#include "tools/binarydiff.h"
#include "tools/executablediff.h"
#include "tools/patchmaker.h"
#include "update/binarypatch.h"

#include <QTemporaryDir>
#include <QTest>

namespace {

// Many small functions that call one another, print strings and sit in a table of pointers;
// the second version adds a function in the middle, which moves all code and data after it.
QByteArray programSource(bool added)
{
    QByteArray source = "#include <stdio.h>\nstatic int table[64];\n";
    for (int i = 0; i < 120; ++i) {
        if (added && i == 60)
            source += "__attribute__((noinline)) int added(int x) { return x * 7 - table[x & 63]; "
                      "}\n";
        source += QStringLiteral("__attribute__((noinline)) int f%1(int x) { table[(x + %1) & 63] "
                                 "^= x; printf(\"f%1 %d\\n\", x); return %2 * %3%4; }\n")
                          .arg(i)
                          .arg(i == 0 ? QString("x")
                                      : QStringLiteral("f%1(x + %2)").arg(i - 1).arg(i))
                          .arg(i + 3)
                          .arg(added && i == 61 ? " + added(x)" : "")
                          .toUtf8();
    }
    source += "int (*const functions[])(int) = {";
    for (int i = 0; i < 120; ++i)
        source += QByteArray("f") + QByteArray::number(i) + ", ";
    return source
           + "};\nint main(int argc, char **argv) { (void)argv; int s = 0; for (int i = 0; "
             "i < 120; ++i) s += functions[i](argc + i); return s & 1; }\n";
}

// Both versions built with gcc and stripped, as distributions ship them; empty without gcc.
QPair<QByteArray, QByteArray> builtPair(const QStringList &flags)
{
    QTemporaryDir dir;
    QByteArray built[2];
    for (int version = 0; version < 2; ++version) {
        const QString source = dir.filePath(QStringLiteral("v%1.c").arg(version));
        const QString output = dir.filePath(QStringLiteral("v%1").arg(version));
        writeTestFile(source, programSource(version == 1));
        runTool("gcc", QStringList{"-O2", "-s", "-o", output, source} + flags);
        built[version] = readTestFile(output);
    }
    return {built[0], built[1]};
}

// The shared library of the two newest versions of Debian's libxml2 in the archive; empty when
// the archive cannot be reached.
QPair<QByteArray, QByteArray> debianPair()
{
    QTemporaryDir dir;
    QStringList versions;
    for (const QByteArray &line : runTool("apt-cache", {"madison", "libxml2"}).split('\n')) {
        const QString version = QString::fromUtf8(line.split('|').value(1).trimmed());
        if (!version.isEmpty() && !versions.contains(version))
            versions += version;
    }
    if (versions.size() < 2)
        return {};
    QProcess download;
    download.setWorkingDirectory(dir.path());
    download.start("apt-get",
                   {"download", "-q", "libxml2=" + versions[1], "libxml2=" + versions[0]});
    download.waitForFinished(120000);
    QByteArray library[2];
    const QStringList debs = QDir(dir.path()).entryList({"*.deb"}, QDir::Files, QDir::Name);
    for (int i = 0; i < debs.size() && i < 2; ++i) {
        const QString tree = dir.filePath(QString::number(i));
        runTool("dpkg-deb", {"-x", dir.filePath(debs[i]), tree});
        QDirIterator it(tree, {"libxml2.so.2.*"}, QDir::Files, QDirIterator::Subdirectories);
        library[i] = it.hasNext() ? readTestFile(it.next()) : QByteArray();
    }
    return {library[0], library[1]};
}

} // namespace

// Executable-aware patches, made from real compiled pairs and applied where the updater applies
// every patch.
class tst_ExecutablePatch : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void roundTrip_data();
    void roundTrip();
    void hostile_data();
    void hostile();

private:
    QPair<QByteArray, QByteArray> library;
};

void tst_ExecutablePatch::initTestCase()
{
    library = builtPair({"-fPIC", "-shared"});
    if (library.first.isEmpty())
        QSKIP("gcc builds the files to patch");
}

void tst_ExecutablePatch::roundTrip_data()
{
    QTest::addColumn<QByteArray>("old");
    QTest::addColumn<QByteArray>("now");
    QTest::addColumn<bool>("executable"); // whether the format applies

    QTest::newRow("shared library, function inserted") << library.first << library.second << true;
    const auto program = builtPair({"-pie"});
    QTest::newRow("program, function inserted") << program.first << program.second << true;
    const auto debian = debianPair();
    QTest::newRow("Debian's libxml2 across a security update")
            << debian.first << debian.second << true;
    QTest::newRow("not ELF") << noiseBytes(4000, 1) << noiseBytes(4000, 2) << false;
    QTest::newRow("ELF to something else") << library.first << noiseBytes(4000, 2) << false;
}

// The patch makes the new file exactly and is smaller than bsdiff's, so the publisher takes it;
// anything but ELF x86-64 on both sides gets bsdiff's.
void tst_ExecutablePatch::roundTrip()
{
    QFETCH(QByteArray, old);
    QFETCH(QByteArray, now);
    QFETCH(bool, executable);
    if (old.isEmpty() || now.isEmpty())
        QSKIP("the pair could not be built or downloaded");
    QTemporaryDir dir;
    const auto path = [&dir](const char *name) { return dir.filePath(name); };
    const QByteArray patch = makeExecutablePatch(old, now);
    QCOMPARE(!patch.isEmpty(), executable);
    // The publisher's choice: the smaller format, bsdiff's where ours does not apply.
    QCOMPARE(makePatch(old, now).left(8), executable ? patch.left(8) : QByteArray("BSDIFF40"));
    if (!executable)
        return;
    QVERIFY(writeTestFile(path("old"), old) && writeTestFile(path("new"), now)
            && writeTestFile(path("patch"), patch));
    QString md5;
    QVERIFY(writeBinaryPatch(path("old"), path("new"), path("bsdiff"), &md5));
    QVERIFY2(patch.size() < QFileInfo(path("bsdiff")).size(),
             qPrintable(QStringLiteral("%1 bytes against bsdiff's %2")
                                .arg(patch.size())
                                .arg(QFileInfo(path("bsdiff")).size())));
    QVERIFY(applyBinaryPatch(path("result"), path("old"), path("patch"), &md5, now.size()));
    QCOMPARE(md5, md5Of(now));
    QVERIFY(readTestFile(path("result")) == now);
}

void tst_ExecutablePatch::hostile_data()
{
    QTest::addColumn<QByteArray>("patch");
    QTest::addColumn<qint64>("expectedSize");

    // The patch's header taken apart: magic and version, dictionary, six varints, streams.
    const QByteArray valid = makeExecutablePatch(library.first, library.second);
    QList<qint64> fields;
    int at = 9;
    while (fields.size() < 6) {
        qint64 value = 0;
        for (int shift = 0;; shift += 7) {
            const auto byte = uchar(valid.at(at++));
            value |= qint64(byte & 0x7f) << shift;
            if (byte < 0x80)
                break;
        }
        fields += value;
    }
    const QByteArray streams = valid.mid(at);
    const auto with = [&](int field, qint64 value) {
        QByteArray patch = valid.left(9);
        for (int i = 0; i < 6; ++i) {
            for (quint64 v = quint64(i == field ? value : fields[i]);; v >>= 7) {
                patch += char(v < 0x80 ? v : (v & 0x7f) | 0x80);
                if (v < 0x80)
                    break;
            }
        }
        return patch + streams;
    };
    const qint64 newSize = fields[1];
    enum { Base, New, Map, MapPacked, ControlPacked, DiffPacked };
    QTest::newRow("valid") << with(-1, 0) << newSize;
    QTest::newRow("unknown version") << QByteArray(valid).replace(7, 1, "\x02") << newSize;
    QTest::newRow("dictionary too large") << QByteArray(valid).replace(8, 1, "\x1f") << newSize;
    QTest::newRow("made for another base") << with(Base, fields[Base] + 1) << newSize;
    QTest::newRow("not the size listed") << valid << newSize + 1;
    QTest::newRow("output longer than declared") << with(New, newSize - 100) << newSize - 100;
    QTest::newRow("output shorter than declared") << with(New, newSize + 100) << newSize + 100;
    QTest::newRow("map of another size") << with(Map, fields[Map] + 1) << newSize;
    QTest::newRow("map beyond its bound") << with(Map, qint64(1) << 40) << newSize;
    QTest::newRow("streams past the end") << with(DiffPacked, streams.size()) << newSize;
    QTest::newRow("streams shifted") << with(ControlPacked, fields[ControlPacked] + 3) << newSize;
    QTest::newRow("truncated") << valid.left(valid.size() - 20) << newSize;
    QTest::newRow("header cut") << valid.left(12) << newSize;
    QByteArray damaged = valid;
    for (int i = at + 10; i < damaged.size(); i += 37)
        damaged[i] = char(~damaged.at(i));
    QTest::newRow("damaged streams") << damaged << newSize;
}

// Refused before or while writing, never past the declared size, and nothing is left.
void tst_ExecutablePatch::hostile()
{
    QFETCH(QByteArray, patch);
    QFETCH(qint64, expectedSize);
    QTemporaryDir dir;
    QVERIFY(writeTestFile(dir.filePath("old"), library.first)
            && writeTestFile(dir.filePath("patch"), patch));
    const bool valid = QByteArray(QTest::currentDataTag()) == "valid";
    QString md5 = "untouched";
    QCOMPARE(applyBinaryPatch(dir.filePath("result"), dir.filePath("old"), dir.filePath("patch"),
                              &md5, expectedSize),
             valid);
    QCOMPARE(md5, valid ? md5Of(library.second) : QString("untouched"));
    QCOMPARE(QFile::exists(dir.filePath("result")), valid);
}

QTEST_GUILESS_MAIN(tst_ExecutablePatch)
#include "tst_executablepatch.moc"
