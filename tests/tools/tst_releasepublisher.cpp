#include "releasefixture.h"

#include "tasks/pathsafety.h"
#include "tasks/taskspecification.h"
#include "tools/mirrorchecker.h"
#include "tools/releasepublisher.h"
#include "update/checksums.h"
#include "update/gzip.h"

#include <QCryptographicHash>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

Q_DECLARE_METATYPE(ReleasePublisher::Packing)

namespace {

const QString clientType = QStringLiteral("client_linux_amd64");

QByteArray gzipBytes(const QByteArray &content)
{
    QTemporaryDir dir;
    writeTestFile(dir.filePath("raw"), content);
    if (!zipFile(dir.filePath("raw"), dir.filePath("raw.gz")))
        qFatal("cannot pack test data");
    return readTestFile(dir.filePath("raw.gz"));
}

// Every shape of file the layout must carry: nested, packable and not, empty, awkward names,
// base names and section names that collide, and content that begins like gzip data.
QHash<QString, QByteArray> sampleRelease()
{
    return {
            {"orlivo", noiseBytes(5000, 1)},
            {"update", textBytes(100)},
            {"empty", QByteArray()},
            {"read me.txt", "hello\n"},
            {".hidden", "x"},
            {"notes.txt", textBytes(200)},
            {"notes.txt.gz", gzipBytes("already packed by its vendor")},
            {"lib/libfoo.so.1", textBytes(500)},
            {"lib/archive.gz", gzipBytes(textBytes(50))},
            {"lib/sub/magic", QByteArray("\x1f\x8b", 2) + noiseBytes(100, 2)},
            {"x.y/f", "one"},
            {"x/y/f", "two"},
            {"Docs/readme", "A"},
            {"docs/readme", "B"},
            {QString::fromUtf8("sounds/klänge.wav"), noiseBytes(100, 3)},
            {"misc/a;b,c=d#e %20 [x].txt", "odd"},
            {".config/settings.ini", "[a]\nb=1\n"},
    };
}

void writeRelease(const QString &root, const QHash<QString, QByteArray> &files)
{
    for (auto it = files.cbegin(); it != files.cend(); ++it)
        writeTestFile(QDir(root).filePath(it.key()), it.value());
}

QString md5Of(const QByteArray &bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

QString installPath(const FileSpecification &entry)
{
    return entry.unpackedName.isEmpty() ? entry.name : entry.unpackedName;
}

QStringList deleteKeys(const QString &listPath)
{
    QTemporaryFile copy;
    QSettings settings(uncachedCopy(listPath, &copy), QSettings::IniFormat);
    settings.beginGroup("delete");
    QStringList keys = settings.allKeys();
    keys.sort();
    return keys;
}

} // namespace

class tst_ReleasePublisher : public QObject
{
    Q_OBJECT

private slots:
    void roundTrip_data();
    void roundTrip();
    void inexpressibleFilesRefused_data();
    void inexpressibleFilesRefused();
    void deleteGroup_data();
    void deleteGroup();
    void replacingNeedsPermission();
};

void tst_ReleasePublisher::roundTrip_data()
{
    QTest::addColumn<ReleasePublisher::Packing>("packing");
    QTest::addColumn<QStringList>("packed");
    QTest::addColumn<QStringList>("twoFields");

    const QStringList mustPack = {"lib/archive.gz", "lib/sub/magic"};
    QTest::newRow("pack none") << ReleasePublisher::Packing::None << mustPack
                               << QStringList{"empty", "notes.txt", "notes.txt.gz", "orlivo",
                                              "update"};
    QTest::newRow("pack auto") << ReleasePublisher::Packing::Auto
                               << mustPack + QStringList{"lib/libfoo.so.1", "notes.txt", "update"}
                               << QStringList{"empty", "notes.txt.gz", "orlivo"};
    QTest::newRow("pack all") << ReleasePublisher::Packing::All << sampleRelease().keys()
                              << QStringList();
}

void tst_ReleasePublisher::roundTrip()
{
    QFETCH(ReleasePublisher::Packing, packing);
    QFETCH(QStringList, packed);
    QFETCH(QStringList, twoFields);

    QTemporaryDir dir;
    const QHash<QString, QByteArray> release = sampleRelease();
    writeRelease(dir.filePath("release"), release);
    ReleasePublisher publisher(dir.filePath("release"), clientType, "12", dir.filePath("mirror"));
    publisher.setPacking(packing);
    QVERIFY2(publisher.publish(), qPrintable(publisher.errors().join('\n')));
    QCOMPARE(publisher.listPath(), dir.filePath("mirror/12/client_linux_amd64.ini"));

    QTemporaryFile list;
    TaskSpecification task;
    QVERIFY(task.initializeByProductIni(uncachedCopy(publisher.listPath(), &list)));
    QCOMPARE(task.getSize(), release.size());
    QStringList installed;
    QStringList packedFound;
    QStringList twoFieldsFound;
    for (const FileSpecification &entry : std::as_const(task.files)) {
        const QString target = installPath(entry);
        const QByteArray expected = release.value(target);
        QVERIFY2(release.contains(target) && !installed.contains(target), qPrintable(target));
        installed.append(target);
        for (const QString &name : {entry.directory, entry.name})
            QVERIFY2(isSafeRelativePath(name) && !name.contains('/'), qPrintable(name));

        if (entry.unpackedName.isEmpty()) {
            twoFieldsFound.append(target);
            QCOMPARE(entry.directory, clientType);
            QCOMPARE(entry.md5, md5Of(expected));
            QCOMPARE(entry.size, quint64(expected.size()));
        } else {
            if (entry.md5 != entry.unpackedMd5)
                packedFound.append(target);
            QCOMPARE(entry.unpackedMd5, md5Of(expected));
            QCOMPARE(entry.unpackedSize, quint64(expected.size()));
        }

        // Fetched as the updater does, then installed as it does.
        const QString source = dir.filePath("mirror/12/" + entry.directory + "/" + entry.name);
        QCOMPARE(getFileMD5Ex(source), entry.md5);
        QCOMPARE(QFileInfo(source).size(), qint64(entry.size));
        const QString destination = dir.filePath("install/" + target);
        QVERIFY(QDir().mkpath(QFileInfo(destination).path()));
        QVERIFY(entry.unpackedName.isEmpty() ? QFile::copy(source, destination)
                                             : unzipFile(destination, source));
        QVERIFY2(readTestFile(destination) == expected, qPrintable(target));
    }
    packedFound.sort();
    twoFieldsFound.sort();
    packed.sort();
    QCOMPARE(packedFound, packed);
    QCOMPARE(twoFieldsFound, twoFields);
    QVERIFY(deleteKeys(publisher.listPath()).isEmpty());

    MirrorChecker checker(publisher.listPath());
    QVERIFY2(checker.check(), qPrintable(checker.problems().join('\n')));
}

void tst_ReleasePublisher::inexpressibleFilesRefused_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<char>("kind");
    QTest::addColumn<QString>("message");

    QTest::newRow("backslash") << QByteArray("a\\b") << 'f' << "backslash";
    QTest::newRow("control character") << QByteArray("lib/bell\a") << 'f' << "control character";
    QTest::newRow("field separator") << QByteArray("lib/a::b") << 'f' << "\"::\"";
    QTest::newRow("not UTF-8") << QByteArray("bad\xff") << 'f' << "not valid UTF-8";
    QTest::newRow("symbolic link") << QByteArray("lib/link") << 'l' << "symbolic link";
    QTest::newRow("pipe") << QByteArray("fifo") << 'p' << "not a regular file";
}

void tst_ReleasePublisher::inexpressibleFilesRefused()
{
    QFETCH(QByteArray, name);
    QFETCH(char, kind);
    QFETCH(QString, message);

    QTemporaryDir dir;
    writeTestFile(dir.filePath("release/orlivo"), "client");
    writeTestFile(dir.filePath("release/lib/libfoo.so"), "library");
    const QByteArray path = QFile::encodeName(dir.filePath("release/")) + name;
    if (kind == 'l')
        QCOMPARE(symlink("../orlivo", path.constData()), 0);
    else if (kind == 'p')
        QCOMPARE(mkfifo(path.constData(), 0600), 0);
    else
        QVERIFY(close(open(path.constData(), O_CREAT | O_WRONLY, 0644)) == 0);

    ReleasePublisher publisher(dir.filePath("release"), clientType, "12", dir.filePath("mirror"));
    const bool published = publisher.publish();
    // QTemporaryDir cannot see a name that does not decode, let alone remove it.
    unlink(path.constData());
    QVERIFY(!published);
    QCOMPARE(publisher.errors().size(), 1);
    QVERIFY2(publisher.errors().first().contains(message), qPrintable(publisher.errors().first()));
    QVERIFY(!QFileInfo::exists(dir.filePath("mirror")));
}

void tst_ReleasePublisher::deleteGroup_data()
{
    QTest::addColumn<bool>("fromList");
    QTest::newRow("previous release directory") << false;
    QTest::newRow("previous product list") << true;
}

void tst_ReleasePublisher::deleteGroup()
{
    QFETCH(bool, fromList);

    QTemporaryDir dir;
    // "plugins" turns from a file into a directory: the file must go before the directory comes.
    writeRelease(dir.filePath("old"), {{"orlivo", "1"},
                                       {"old.txt", "2"},
                                       {"lib/keep.so", "3"},
                                       {"lib/old.so", "4"},
                                       {"gone dir/x y.txt", "5"},
                                       {QString::fromUtf8("gone dir/ünï=;.txt"), "6"},
                                       {"plugins", "7"}});
    writeRelease(dir.filePath("new"),
                 {{"orlivo", "1b"}, {"lib/keep.so", "3"}, {"plugins/p.so", "8"}});
    QString previous = dir.filePath("old");
    if (fromList) {
        ReleasePublisher old(dir.filePath("old"), clientType, "11", dir.filePath("mirror"));
        QVERIFY(old.publish());
        previous = old.listPath();
    }

    ReleasePublisher publisher(dir.filePath("new"), clientType, "12", dir.filePath("mirror"));
    publisher.setPreviousRelease(previous);
    QVERIFY2(publisher.publish(), qPrintable(publisher.errors().join('\n')));
    QStringList expected = {"gone dir/x y.txt", QString::fromUtf8("gone dir/ünï=;.txt"),
                            "lib/old.so", "old.txt", "plugins"};
    expected.sort();
    QCOMPARE(deleteKeys(publisher.listPath()), expected);
    QCOMPARE(publisher.deletedPaths(), expected);

    QTemporaryFile list;
    TaskSpecification task;
    QVERIFY(task.initializeByProductIni(uncachedCopy(publisher.listPath(), &list)));
    QCOMPARE(task.getSize(), 3);
}

void tst_ReleasePublisher::replacingNeedsPermission()
{
    QTemporaryDir dir;
    writeTestFile(dir.filePath("release/orlivo"), "first");
    ReleasePublisher first(dir.filePath("release"), clientType, "12", dir.filePath("mirror"));
    QVERIFY(first.publish());
    const QByteArray published = readTestFile(first.listPath());

    writeTestFile(dir.filePath("release/orlivo"), "second");
    ReleasePublisher second(dir.filePath("release"), clientType, "12", dir.filePath("mirror"));
    QVERIFY(!second.publish());
    QVERIFY(second.errors().first().contains("exists already"));
    QCOMPARE(readTestFile(first.listPath()), published);

    second.setReplaceExisting(true);
    QVERIFY(second.publish());
    QTemporaryFile list;
    TaskSpecification task;
    QVERIFY(task.initializeByProductIni(uncachedCopy(second.listPath(), &list)));
    QCOMPARE(task.files.value(0).md5, md5Of("second"));
    QVERIFY(MirrorChecker(second.listPath()).check());
    QCOMPARE(QFileInfo(second.listPath()).permissions() & QFile::ReadOther, QFile::ReadOther);
}

QTEST_GUILESS_MAIN(tst_ReleasePublisher)
#include "tst_releasepublisher.moc"
