#include "releasefixture.h"

#include "tools/mirrorchecker.h"
#include "tools/releasepublisher.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

namespace {

// One raw file in the plain form, one packed, one raw in the five-field form.
const QString rawPath = QStringLiteral("mirror/12/client/orlivo");
const QString packedPath = QStringLiteral("mirror/12/client.lib/big.txt.gz");
const QString renamedPath = QStringLiteral("mirror/12/client.doc/read_me");
const QString listPath = QStringLiteral("mirror/12/client.ini");

void flipByte(const QString &path, qint64 position)
{
    QByteArray bytes = readTestFile(path);
    bytes[position] = char(bytes.at(position) ^ 0x40);
    writeTestFile(path, bytes);
}

// Replaces a listed value, as a hand-edited or stale list would carry it.
void editList(const QString &path, const QString &key, int field, const QString &text)
{
    QSettings settings(path, QSettings::IniFormat);
    QStringList fields = settings.value(key).toString().split("::");
    fields[field] = text;
    settings.setValue(key, fields.join("::"));
}

} // namespace

class tst_MirrorChecker : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void problemsFound_data();
    void problemsFound();
    void commandLineReportsEachProblem();

private:
    std::unique_ptr<QTemporaryDir> dir;
};

void tst_MirrorChecker::init()
{
    dir = std::make_unique<QTemporaryDir>();
    writeTestFile(dir->filePath("release/orlivo"), noiseBytes(3000, 7));
    writeTestFile(dir->filePath("release/lib/big.txt"), textBytes(400));
    writeTestFile(dir->filePath("release/doc/read me"), "read me");
    ReleasePublisher publisher(dir->filePath("release"), "client", "12", dir->filePath("mirror"));
    QVERIFY2(publisher.publish(), qPrintable(publisher.errors().join('\n')));
    QVERIFY(QFileInfo::exists(dir->filePath(packedPath)));
    QVERIFY(QFileInfo::exists(dir->filePath(renamedPath)));
}

void tst_MirrorChecker::problemsFound_data()
{
    QTest::addColumn<QString>("damage");
    QTest::addColumn<QString>("problem");

    QTest::newRow("flipped byte, raw") << "flip raw"
                                       << "client/orlivo: checksum";
    QTest::newRow("flipped byte, packed") << "flip packed"
                                          << "client.lib/big.txt.gz: checksum";
    QTest::newRow("truncated") << "truncate"
                               << "client.doc/read_me: length 4, listed 7";
    QTest::newRow("missing") << "remove"
                             << "client.lib/big.txt.gz: missing";
    QTest::newRow("listed unpacked checksum wrong") << "edit unpacked md5"
                                                    << "client.lib/big.txt.gz: unpacks to checksum";
    QTest::newRow("listed unpacked size wrong")
            << "edit unpacked size"
            << "client.doc/read_me: unpacks to length 7, listed 8";
    QTest::newRow("upper-case checksum") << "upper case"
                                         << "not 32 lower-case";
    QTest::newRow("unsafe unpacked name") << "unsafe name"
                                          << "not a safe relative path";
}

void tst_MirrorChecker::problemsFound()
{
    QFETCH(QString, damage);
    QFETCH(QString, problem);

    const QString list = dir->filePath(listPath);
    if (damage == "flip raw")
        flipByte(dir->filePath(rawPath), 1000);
    else if (damage == "flip packed")
        flipByte(dir->filePath(packedPath), 40);
    else if (damage == "truncate")
        QVERIFY(QFile::resize(dir->filePath(renamedPath), 4));
    else if (damage == "remove")
        QVERIFY(QFile::remove(dir->filePath(packedPath)));
    else if (damage == "edit unpacked md5")
        editList(list, "client.lib/big.txt.gz", 2, QString(32, '0'));
    else if (damage == "edit unpacked size")
        editList(list, "client.doc/read_me", 3, "8");
    else if (damage == "upper case")
        editList(list, "client/orlivo", 0,
                 QCryptographicHash::hash(noiseBytes(3000, 7), QCryptographicHash::Md5)
                         .toHex()
                         .toUpper());
    else if (damage == "unsafe name")
        editList(list, "client.doc/read_me", 4, "../outside");

    MirrorChecker checker(list);
    QVERIFY(!checker.check());
    QCOMPARE(checker.problems().size(), 1);
    QVERIFY2(checker.problems().first().startsWith(list + ": "),
             qPrintable(checker.problems().first()));
    QVERIFY2(checker.problems().first().contains(problem), qPrintable(checker.problems().first()));
}

void tst_MirrorChecker::commandLineReportsEachProblem()
{
    QProcess tool;
    tool.start(UPDATE_PUBLISH, {"--check", dir->filePath(listPath)});
    QVERIFY(tool.waitForFinished());
    QCOMPARE(tool.exitCode(), 0);

    flipByte(dir->filePath(rawPath), 0);
    QVERIFY(QFile::resize(dir->filePath(packedPath), 30));
    QVERIFY(QFile::remove(dir->filePath(renamedPath)));
    tool.start(UPDATE_PUBLISH, {"--check", dir->filePath(listPath)});
    QVERIFY(tool.waitForFinished());
    QCOMPARE(tool.exitStatus(), QProcess::NormalExit);
    QCOMPARE(tool.exitCode(), 1);
    const QStringList lines =
            QString::fromUtf8(tool.readAllStandardError()).split('\n', Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 3);
    QVERIFY(lines.filter("client/orlivo: checksum").size() == 1);
    QVERIFY(lines.filter("client.lib/big.txt.gz: length 30").size() == 1);
    QVERIFY(lines.filter("client.doc/read_me: missing").size() == 1);
}

QTEST_GUILESS_MAIN(tst_MirrorChecker)
#include "tst_mirrorchecker.moc"
