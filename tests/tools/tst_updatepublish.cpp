#include "tasks/taskspecification.h"
#include "tests/support/testfiles.h"
#include "tools/mirrorchecker.h"
#include "tools/releasepublisher.h"
#include "update/binarypatch.h"
#include "update/directoryupdate.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSet>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

Q_DECLARE_METATYPE(ReleasePublisher::Packing)
Q_DECLARE_METATYPE(PackFormat)

namespace {

const QByteArray gzipMagic("\x1f\x8b", 2);
const QByteArray packable = QByteArray("a line that packs well\n").repeated(300);
// A library that neither packs nor changes much between the releases: it gets a patch.
const QByteArray oldLibrary = noiseBytes(50000, 1);
const QByteArray newLibrary = QByteArray(oldLibrary).insert(20000, "new code").append("more");
// The same library a release before: users who skipped a release patch from it too.
const QByteArray olderLibrary = QByteArray(oldLibrary).remove(30000, 100);

const TestTree oldRelease = {{"orlivo", "old client"},
                             {"gone dir/x y.txt", "3"},
                             {QString::fromUtf8("gone dir/ünï=;.txt"), "4"},
                             // Turns into a directory: the file must go before the directory comes.
                             {"plugins", "5"},
                             {"lib/libbig.so", oldLibrary}};
// Nested, packable and not, empty, awkward names, section and mirror names that collide, raw
// content that begins like gzip data, and content that shrinks by less than "auto" asks for.
const TestTree newRelease = {{"orlivo", QByteArray("client ").repeated(20)},
                             {"empty", QByteArray()},
                             {"notes.txt", packable},
                             {"notes.txt.gz", gzipMagic + "packed by its vendor"},
                             {QString::fromUtf8("read më;b,c=d#e %20 [x].txt"), "odd"},
                             {".config/.hidden", "x"},
                             {"lib/libfoo.so.1", packable},
                             {"lib/libbig.so", newLibrary},
                             {"lib/sub/magic", gzipMagic + "raw"},
                             {"x.y/f", "one"},
                             {"x/y/f", "two"},
                             {"X/y/f", "three"},
                             {"plugins/p.so", "plugin"}};
// Symbolic links in the new release, published as what they point to.
const QMap<QString, QString> links = {{"lib/libfoo.so", "libfoo.so.1"}, {"docs", "x"}};
const TestTree linked = {{"lib/libfoo.so", packable}, {"docs/y/f", "two"}};

struct Run
{
    int exitCode = -1;
    QStringList out;
    QStringList err;
};

Run runPublish(const QStringList &arguments)
{
    QProcess tool;
    tool.start(UPDATE_PUBLISH, arguments);
    Run run;
    if (!tool.waitForFinished() || tool.exitStatus() != QProcess::NormalExit)
        return run;
    run.exitCode = tool.exitCode();
    run.out = QString::fromUtf8(tool.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    run.err = QString::fromUtf8(tool.readAllStandardError()).split('\n', Qt::SkipEmptyParts);
    return run;
}

// Installs the list's version into install with the updater's own code.
void installAndCompare(const QString &list, const QString &install, const TestTree &expected)
{
    // From a copy, as the updater installs from its working directory, which it may change.
    QTemporaryDir downloaded;
    QVERIFY(QProcess::execute("cp", {"-a", QFileInfo(list).path() + "/.", downloaded.path()}) == 0);
    DirectoryUpdate update;
    QVERIFY(update.updateContent(true, downloaded.path(), list, install));
    const TestTree installed = treeBelow(install, QDir::Files);
    QCOMPARE(installed.keys(), expected.keys());
    QVERIFY(installed == expected);
}

// What a check of the list finds, without the list's name before each problem.
QStringList problemsOf(const QString &list)
{
    MirrorChecker checker(list);
    const bool correct = checker.check();
    QStringList problems = checker.problems().replaceInStrings(list + ": ", QString());
    return correct == problems.isEmpty() ? problems : QStringList("check() disagrees");
}

// Replaces one field of a listed value, as a hand-edited or stale list would carry it.
void editList(const QString &list, const QString &key, int field, const QString &text)
{
    QSettings settings(list, QSettings::IniFormat);
    QStringList fields = settings.value(key).toString().split("::");
    fields[field] = text;
    settings.setValue(key, fields.join("::"));
}

} // namespace

class tst_UpdatePublish : public QObject
{
    Q_OBJECT

private slots:
    void roundTrip_data();
    void roundTrip();
    void signatures();
    void errors_data();
    void errors();
    void pathTooLong();
};

void tst_UpdatePublish::roundTrip_data()
{
    QTest::addColumn<ReleasePublisher::Packing>("packing");
    QTest::addColumn<PackFormat>("format");
    QTest::addColumn<bool>("previousAsList");
    QTest::addColumn<QStringList>("packed");

    TestTree all = newRelease;
    all.insert(linked);
    QTest::newRow("pack none, previous release directory")
            << ReleasePublisher::Packing::None << PackFormat::Gzip << false
            << QStringList{"lib/sub/magic"};
    QTest::newRow("pack auto, previous product list")
            << ReleasePublisher::Packing::Auto << PackFormat::Gzip << true
            << QStringList{"lib/libfoo.so", "lib/libfoo.so.1", "lib/sub/magic", "notes.txt"};
    QTest::newRow("pack all with zstd, previous product list")
            << ReleasePublisher::Packing::All << PackFormat::Zstd << true << all.keys();
}

void tst_UpdatePublish::roundTrip()
{
    QFETCH(ReleasePublisher::Packing, packing);
    QFETCH(PackFormat, format);
    QFETCH(bool, previousAsList);
    QFETCH(QStringList, packed);

    QTemporaryDir dir;
    QVERIFY(writeTree(dir.filePath("old"), oldRelease));
    QVERIFY(writeTree(dir.filePath("new"), newRelease));
    for (auto it = links.cbegin(); it != links.cend(); ++it)
        QVERIFY(QFile::link(it.value(), dir.filePath("new/" + it.key())));
    ReleasePublisher old(dir.filePath("old"), "client_linux_amd64", "11", dir.filePath("mirror"));
    old.setPacking(packing);
    old.setPackFormat(format);
    QVERIFY2(old.publish(), qPrintable(old.errors().join('\n')));
    installAndCompare(old.listPath(), dir.filePath("install"), oldRelease);
    if (QTest::currentTestFailed())
        return;

    ReleasePublisher publisher(dir.filePath("new"), "client_linux_amd64", "12",
                               dir.filePath("mirror"));
    publisher.setPacking(packing);
    publisher.setPackFormat(format);
    publisher.setDereference(true);
    publisher.addPreviousRelease(previousAsList ? old.listPath() : dir.filePath("old"));
    // Its unchanged client is no base, and its library is one patch however often it comes.
    const TestTree olderRelease = {{"orlivo", QByteArray("client ").repeated(20)},
                                   {"lib/libbig.so", olderLibrary}};
    QVERIFY(writeTree(dir.filePath("older"), olderRelease));
    publisher.addPreviousRelease(dir.filePath("older"));
    publisher.addPreviousRelease(dir.filePath("older"));
    publisher.setPatchCache(dir.filePath("cache"));
    QVERIFY2(publisher.publish(), qPrintable(publisher.errors().join('\n')));
    QCOMPARE(publisher.cachedPatchCount(), 0);
    QCOMPARE(publisher.deletedPaths(),
             QStringList({"gone dir/x y.txt", QString::fromUtf8("gone dir/ünï=;.txt"), "plugins"}));
    QCOMPARE(problemsOf(publisher.listPath()), QStringList());

    // Names any server on any file system serves as they are, distinct regardless of case.
    static const QRegularExpression mirrorName("^[A-Za-z0-9_-][A-Za-z0-9._-]*$");
    TaskSpecification task;
    QVERIFY(task.initializeByProductIni(publisher.listPath()));
    QSet<QString> mirrorPaths;
    QStringList packedFound;
    QHash<QString, FileSpecification> listed; // by install path
    for (const FileSpecification &entry : std::as_const(task.files)) {
        for (const QString &name : {entry.directory, entry.name})
            QVERIFY2(mirrorName.match(name).hasMatch(), qPrintable(name));
        mirrorPaths.insert((entry.directory + '/' + entry.name).toLower());
        listed.insert(entry.installPath(), entry);
        if (!entry.unpackedName.isEmpty() && entry.md5 != entry.unpackedMd5)
            packedFound.append(entry.unpackedName);
    }
    TestTree expected = newRelease;
    expected.insert(linked);
    QCOMPARE(mirrorPaths.size(), expected.size());
    packedFound.sort();
    QCOMPARE(packedFound, packed);

    // The changed library gets a patch from each of its previous versions, on paths of their
    // own, which the list never names.
    QList<PatchRecord> patches = publisher.patches();
    std::sort(patches.begin(), patches.end(),
              [](const PatchRecord &a, const PatchRecord &b) { return a.baseMd5 < b.baseMd5; });
    QCOMPARE(patches.size(), 2);
    QVERIFY(patches[0].path != patches[1].path);
    for (const PatchRecord &record : std::as_const(patches)) {
        QCOMPARE(record.installPath, QString("lib/libbig.so"));
        const QString base = record.baseMd5 == md5Of(oldLibrary) ? "old" : "older";
        QCOMPARE(record.baseMd5, md5Of(base == "old" ? oldLibrary : olderLibrary));
        QString md5;
        QVERIFY(applyBinaryPatch(dir.filePath("patched"), dir.filePath(base + "/lib/libbig.so"),
                                 dir.filePath("mirror/12/" + record.path), &md5));
        QCOMPARE(readTestFile(dir.filePath("patched")), newLibrary);
    }
    const QString patch = dir.filePath("mirror/12/" + patches[0].path);
    installAndCompare(publisher.listPath(), dir.filePath("install"), expected);

    // The check finds damage on the mirror; publishing again replaces whatever it finds.
    const QString list = publisher.listPath();
    const auto key = [&](const char *path) {
        return listed[path].directory + '/' + listed[path].name;
    };
    const auto onMirror = [&](const char *path) { return dir.filePath("mirror/12/" + key(path)); };
    QByteArray client = readTestFile(onMirror("orlivo"));
    client[0] = char(~client.at(0));
    QVERIFY(writeTestFile(onMirror("orlivo"), client));
    QVERIFY(QFile::resize(onMirror("lib/sub/magic"), 3));
    QVERIFY(QFile::remove(onMirror("x/y/f")));
    QVERIFY(writeTestFile(patch, "damaged"));
    QStringList found = problemsOf(list);
    found.sort();
    QStringList damage(
            {key("lib/sub/magic") + ": length 3, listed "
                     + QString::number(listed["lib/sub/magic"].size),
             key("orlivo") + ": checksum " + md5Of(client) + ", listed " + listed["orlivo"].md5,
             "patch " + patches[0].path + " is missing or not as the manifest lists it",
             key("x/y/f") + ": missing"});
    damage.sort();
    QCOMPARE(found, damage);
    // The patches are not made again, but one the cache holds damaged is.
    const QStringList cached =
            treeBelow(dir.filePath("cache"))
                    .keys()
                    .filter(QCryptographicHash::hash(newLibrary, QCryptographicHash::Sha256)
                                    .toHex());
    QCOMPARE(cached.size(), 2);
    QVERIFY(writeTestFile(dir.filePath("cache/" + cached[0]), "damaged"));
    // A patch taken from the cache is touched, so that pruning by age keeps what is used.
    const QDateTime longAgo = QDateTime::currentDateTimeUtc().addDays(-400);
    QFile used(dir.filePath("cache/" + cached[1]));
    QVERIFY(used.open(QIODevice::ReadWrite)
            && used.setFileTime(longAgo, QFileDevice::FileModificationTime));
    used.close();
    publisher.setReplaceExisting(true);
    QVERIFY(publisher.publish());
    QCOMPARE(publisher.cachedPatchCount(), 1);
    QVERIFY(QFileInfo(used).lastModified().daysTo(QDateTime::currentDateTime()) < 1);
    QCOMPARE(problemsOf(list), QStringList());
    QVERIFY(publisher.publish());
    QCOMPARE(publisher.cachedPatchCount(), 2);

    const QString upperCase = listed["orlivo"].md5.toUpper();
    editList(list, key("orlivo"), 0, upperCase);
    editList(list, key("lib/sub/magic"), 3, "8");
    editList(list, key("lib/libbig.so"), 2, QString(32, '0'));
    found = problemsOf(list);
    // The manifest was made for the list before it was edited.
    QVERIFY(found.takeFirst().contains(
            QRegularExpression("^SHA-256 [0-9a-f]{64}, the manifest lists [0-9a-f]{64}$")));
    QCOMPARE(found, QStringList({key("orlivo") + ": checksum \"" + upperCase
                                         + "\" is not 32 lower-case hexadecimal digits",
                                 key("lib/libbig.so") + ": unpacks to checksum " + md5Of(newLibrary)
                                         + ", listed " + QString(32, '0'),
                                 key("lib/sub/magic") + ": unpacks to length 5, listed 8"}));

    editList(list, key("x/y/f"), 4, "../outside");
    QCOMPARE(problemsOf(list),
             QStringList("a value is not of the form md5::size or "
                         "md5::size::unpackedMd5::unpackedSize::unpackedName, or an unpacked "
                         "name is not a safe relative path or is the updater's own"));
    editList(list, key("x/y/f"), 4, "orlivo/f");
    QCOMPARE(problemsOf(list), QStringList(key("x/y/f") + " installs at orlivo/f, below the file "
                                           + key("orlivo") + " installs"));
    // Where an updater keeps the list it fetched.
    const QString listName = QFileInfo(list).fileName();
    QSettings(list, QSettings::IniFormat).setValue(listName + "/stray", QString(32, '0') + "::1");
    const QString stray = listName + "/stray is fetched into a file of the updater's own";
    QCOMPARE(problemsOf(list), QStringList(stray));
    // A line that updaters skip is named; an editor's byte order mark they read past.
    const QByteArray text = readTestFile(list);
    QVERIFY(writeTestFile(list, "\xef\xbb\xbf" + text + "orlivo 0123\n"));
    found = problemsOf(list);
    QCOMPARE(found.filter(QRegularExpression("^line |^" + QRegularExpression::escape(stray))),
             QStringList({QString("line %1 is neither a [section] nor a key=value, and updaters "
                                  "skip it: orlivo 0123")
                                  .arg(text.count('\n') + 1),
                          stray}));
}

// Keys and signatures of update-publish and of Debian's minisign work with each other.
void tst_UpdatePublish::signatures()
{
    if (QStandardPaths::findExecutable("minisign").isEmpty())
        QSKIP("needs minisign");
    QTemporaryDir dir;
    const QString secret = dir.filePath("keys/update-secret.key");
    const QString pub = dir.filePath("keys/update-keys.pub");
    const QString theirs = dir.filePath("m.pub");
    const QString list = dir.filePath("mirror/12/client.ini");
    const QStringList publish = {dir.filePath("release"), "client", "12", dir.filePath("mirror")};
    QVERIFY(writeTestFile(dir.filePath("release/orlivo"), "client"));
    QCOMPARE(runPublish({"--keygen", dir.filePath("keys")}).exitCode, 0);
    QCOMPARE(QFile::permissions(secret) & 0x7077, QFile::ReadOwner | QFile::WriteOwner);
    QCOMPARE(runPublish({"--keygen", dir.filePath("keys")}).exitCode, 1);
    QCOMPARE(QProcess::execute("minisign", {"-G", "-W", "-p", theirs, "-s", dir.filePath("m.key")}),
             0);

    QCOMPARE(runPublish(QStringList{"--sign", secret} + publish).exitCode, 0);
    QVERIFY(runTool("minisign", {"-V", "-p", pub, "-m", dir.filePath("mirror/12/client.manifest")})
                    .contains("Trusted comment: orlivo client 12"));
    QCOMPARE(runPublish({"--check", list, "--key", pub}).exitCode, 0);
    const Run run = runPublish({"--check", list, "--key", theirs});
    QCOMPARE(run.exitCode, 1);
    QVERIFY(run.err.value(0).contains(".minisig is not a valid signature by the key"));

    QCOMPARE(runPublish(QStringList{"--force", "--sign", dir.filePath("m.key")} + publish).exitCode,
             0);
    QCOMPARE(runPublish({"--check", list, "--key", theirs}).exitCode, 0);

    // Another release's list, manifest and signature, replayed in this one's place; then
    // without the signature.
    QStringList next = publish;
    next[2] = "13";
    QCOMPARE(runPublish(QStringList{"--sign", dir.filePath("m.key")} + next).exitCode, 0);
    for (const QString suffix : {".ini", ".manifest", ".manifest.minisig"}) {
        QFile::remove(dir.filePath("mirror/12/client" + suffix));
        QVERIFY(QFile::copy(dir.filePath("mirror/13/client" + suffix),
                            dir.filePath("mirror/12/client" + suffix)));
    }
    QVERIFY(runPublish({"--check", list, "--key", theirs})
                    .err.join('\n')
                    .contains("client.manifest is the manifest of client 13, not of client 12"));
    QVERIFY(QFile::remove(list.chopped(4) + ".manifest.minisig"));
    QVERIFY(runPublish({"--check", list, "--key", theirs})
                    .err.join('\n')
                    .contains("client.manifest.minisig is missing or not a minisign signature"));
}

void tst_UpdatePublish::errors_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QByteArray>("setup");
    const auto row = [](const char *name, const QStringList &arguments, const QStringList &messages,
                        const QByteArray &setup = QByteArray()) {
        QTest::newRow(name) << arguments << messages << setup;
    };

    const QString release = "%R/release";
    const QString root = "%R/mirror";
    const QStringList publish = {release, "client", "12", root};
    row("bad names and locations", {"%R/none", "a.b", "012", "%R/file", "--patch-cache", "%R/file"},
        {"client type \"a.b\" must consist of letters, digits, '_' and '-'",
         "version \"012\" is not a decimal number (digits only, no leading zeros)",
         "release directory %R/none does not exist", "output root %R/file is not a directory",
         "patch cache %R/file is not a directory"},
        "file");
    row("reserved type, release not a directory", {"%R/file", "Delete", "12", root},
        {"client type \"Delete\" is reserved in the product list",
         "release directory %R/file is not a directory"},
        "file");
    row("empty release, missing previous release",
        {"--previous", "%R/none", "%R/empty", "client", "12", root},
        {"release directory %R/empty holds no files",
         "previous release %R/none is neither a directory nor a readable product list"},
        "empty");
    row("version directory blocked", publish, {"cannot create directory %R/mirror/12/client.lib"},
        "blocked");
    row("output inside the release", {release, "client", "12", "%R/release/out"},
        {"the output %R/release/out/12 and the release directory %R/release overlap"});
    row("files the list cannot carry", publish,
        {"%R/release/bad\uFFFD: name is not valid UTF-8", "%R/release/fifo: is not a regular file",
         "%R/release/lib/link: is a symbolic link; put the file itself into the release, or "
         "publish with --dereference",
         "%R/release/.update-lock: cannot be published: its name starts with \".update-\", which "
         "the updater keeps for its own files",
         "%R/release/a::b: cannot be published: its name holds \"::\", which separates the "
         "fields of the list",
         "%R/release/lib/a\\b: cannot be published: its name holds a backslash or a control "
         "character",
         "%R/release/update.ini: cannot be published: its name is update.ini, which holds each "
         "installation's own settings and state"},
        "inexpressible");
    row("links that lead nowhere or back", QStringList("--dereference") + publish,
        {"%R/release/lib/gone: is a symbolic link to nothing",
         "%R/release/lib/up: is a symbolic link into a directory that holds it"},
        "bad links");
    // What a failed publication made goes again; the mirror tree is as it was.
    row("mirror full", publish,
        {"cannot pack %R/release/z/noise.bin into %R/mirror/12/client.z: No space left on device"},
        "full");
    row("already published", publish,
        {"%R/mirror/12/client.ini exists already; use --force to replace it"}, "published");
    row("unknown packing", QStringList{"--pack", "some"} + publish,
        {"--pack takes all, none or auto, not \"some\""});
    row("too few arguments", {release, "client"},
        {"expected RELEASE TYPE VERSION ROOT, got 2 arguments (see --help)"});
    row("check without a list", {"--check", "%R/mirror/12/client.ini"},
        {"%R/mirror/12/client.ini: cannot be read"});
}

void tst_UpdatePublish::errors()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, messages);
    QFETCH(QByteArray, setup);

    QTemporaryDir dir;
    // The canonical form, because the overlap is reported between resolved paths.
    const QString base = QFileInfo(dir.path()).canonicalFilePath();
    const QString release = base + "/release";
    QVERIFY(writeTree(release, {{"orlivo", "client"}, {"lib/libfoo.so", "library"}}));
    const QByteArray undecodable = QFile::encodeName(release) + "/bad\xff";
    bool mounted = false;
    const auto unmount = qScopeGuard([&] {
        if (mounted)
            QProcess::execute("umount", {base + "/mirror"});
    });
    if (setup == "file") {
        QVERIFY(writeTestFile(base + "/file", "not a directory"));
    } else if (setup == "empty") {
        QVERIFY(QDir().mkpath(base + "/empty"));
    } else if (setup == "blocked") {
        QVERIFY(writeTestFile(base + "/mirror/12", "in the way"));
    } else if (setup == "published") {
        QCOMPARE(runPublish({release, "client", "12", base + "/mirror"}).exitCode, 0);
    } else if (setup == "inexpressible") {
        QVERIFY(writeTree(
                release,
                {{"lib/a\\b", ""}, {"a::b", ""}, {".update-lock", ""}, {"update.ini", ""}}));
        QCOMPARE(close(open(undecodable.constData(), O_CREAT | O_WRONLY, 0644)), 0);
        QCOMPARE(symlink("../orlivo", QFile::encodeName(release + "/lib/link").constData()), 0);
        QCOMPARE(mkfifo(QFile::encodeName(release + "/fifo").constData(), 0600), 0);
    } else if (setup == "full") {
        QByteArray noise(2 << 20, Qt::Uninitialized);
        QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(noise.data()), noise.size() / 4);
        QVERIFY(writeTestFile(release + "/z/noise.bin", noise) && QDir().mkpath(base + "/mirror"));
        mounted = QProcess::execute("mount",
                                    {"-t", "tmpfs", "-o", "size=1m", "tmpfs", base + "/mirror"})
                  == 0;
        if (!mounted)
            QSKIP("mounting a small tmpfs is not permitted here");
    } else if (setup == "bad links") {
        QVERIFY(QFile::link("missing", release + "/lib/gone"));
        QVERIFY(QFile::link("..", release + "/lib/up"));
    }
    const auto all = QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot;
    const TestTree before = treeBelow(base, all);

    const Run run = runPublish(arguments.replaceInStrings("%R", base));
    const TestTree after = treeBelow(base, all);
    // QTemporaryDir cannot remove a name that does not decode.
    unlink(undecodable.constData());
    QCOMPARE(run.exitCode, 1);
    QVERIFY(run.out.isEmpty());
    for (QString &line : messages)
        line = "update-publish: " + line.replace("%R", base);
    QCOMPARE(run.err, messages);
    QCOMPARE(after.keys(), before.keys());
    QVERIFY(after == before);
}

// A path that updaters would refuse in the list is refused in the release, for the same reason,
// and the version directory goes again.
void tst_UpdatePublish::pathTooLong()
{
    QTemporaryDir dir;
    const QString deep = QString(16, 'd').append('/').repeated(190) + "x.h";
    QVERIFY(writeTree(dir.filePath("release"), {{"top", "y"}, {deep, "x"}}));
    const Run run = runPublish({dir.filePath("release"), "client", "12", dir.filePath("mirror")});
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.err.size(), 1);
    QVERIFY(run.err.at(0).startsWith("update-publish: cannot be published: client."));
    QVERIFY(run.err.at(0).endsWith(": the path " + deep + " is longer than 3072 bytes"));
    QVERIFY(!QFileInfo::exists(dir.filePath("mirror/12")));
}

QTEST_GUILESS_MAIN(tst_UpdatePublish)
#include "tst_updatepublish.moc"
