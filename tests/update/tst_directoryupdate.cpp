#include "update/directoryupdate.h"

#include "app/apppaths.h"
#include "tasks/taskspecification.h"
#include "tests/support/testfiles.h"
#include "update/cleanup.h"
#include "update/filesync.h"
#include "update/packing.h"
#include "update/updatejournal.h"

#include <QProcess>
#include <QScopeGuard>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

#include <sys/stat.h>

// Installing downloaded files into a real directory tree, with the user's answers given
// through the question handler.
class tst_DirectoryUpdate : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void installsPackedPlainAndNestedFiles_data();
    void installsPackedPlainAndNestedFiles();
    void stagingWhileDownloadingTrustsNothingChanged_data();
    void stagingWhileDownloadingTrustsNothingChanged();
    void largeFilesStagedEarlyOnlyByLink_data();
    void largeFilesStagedEarlyOnlyByLink();
    void staleCopyAsksAndFollowsTheAnswer_data();
    void staleCopyAsksAndFollowsTheAnswer();
    void failuresAreLoggedAndAsked_data();
    void failuresAreLoggedAndAsked();
    void recoversSwitchInsideTheInstallation_data();
    void recoversSwitchInsideTheInstallation();

private:
    QString source(const QString &relative) const { return work->filePath("src/" + relative); }
    QString target(const QString &relative) const { return work->filePath("install/" + relative); }
    QString listPath() const { return work->filePath("src/client.ini"); }
    // Lists key ("directory/name") in the product list; its size counts towards the total.
    void list(const QString &key, const QStringList &fields);
    // Downloads a file into the source tree and lists it, plain or packed.
    void addPlain(const QString &key, const QByteArray &content);
    void addPacked(const QString &key, const QString &unpackedName, const QByteArray &content,
                   PackFormat format = PackFormat::Gzip);
    bool run(bool silent);
    // When set, staging begins before the installation and this is what the download does
    // meanwhile with the listed files.
    std::function<void(DirectoryUpdate &update, const QList<FileSpecification> &files)> downloading;

    std::unique_ptr<QTemporaryDir> work;
    quint64 listedTotal = 0;
    // What the last run did.
    int finished = 0;
    QStringList log;
    QList<quint64> progress; // done, as reported
    quint64 reportedTotal = 0;
    QStringList questions;
    InstallQuestion answer;
};

void tst_DirectoryUpdate::init()
{
    work = std::make_unique<QTemporaryDir>();
    QVERIFY(QDir(work->path()).mkpath("install"));
    listedTotal = 0;
    downloading = {};
    answer = [this](const QString &text) {
        questions << text;
        return InstallAnswer::Ignore;
    };
}

void tst_DirectoryUpdate::list(const QString &key, const QStringList &fields)
{
    QSettings(listPath(), QSettings::IniFormat).setValue(key, fields.join("::"));
    listedTotal += fields.value(1).toULongLong();
}

void tst_DirectoryUpdate::addPlain(const QString &key, const QByteArray &content)
{
    QVERIFY(writeTestFile(source(key), content));
    list(key, {md5Of(content), QString::number(content.size())});
}

void tst_DirectoryUpdate::addPacked(const QString &key, const QString &unpackedName,
                                    const QByteArray &content, PackFormat format)
{
    QVERIFY(writeTestFile(source(key), {}));
    QVERIFY(writeTestFile(work->filePath("plain.tmp"), content));
    QVERIFY(packFile(work->filePath("plain.tmp"), source(key), format));
    const QByteArray packed = readTestFile(source(key));
    list(key, {md5Of(packed), QString::number(packed.size()), md5Of(content),
               QString::number(content.size()), unpackedName});
}

bool tst_DirectoryUpdate::run(bool silent)
{
    log.clear();
    progress.clear();
    questions.clear();
    DirectoryUpdate update;
    update.setQuestion(answer);
    connect(&update, &DirectoryUpdate::message, this, [this](const QString &line) { log << line; });
    connect(&update, &DirectoryUpdate::progress, this, [this](quint64 done, quint64 total) {
        progress << done;
        reportedTotal = total;
    });
    if (downloading) {
        TaskSpecification task;
        update.beginStaging(work->filePath("install"));
        downloading(update, task.initializeByProductIni(listPath()) ? task.files
                                                                    : QList<FileSpecification>());
    }
    QSignalSpy finishedSpy(&update, &DirectoryUpdate::updateFinished);
    const bool result = update.updateContent(silent, work->filePath("src"), listPath(),
                                             work->filePath("install"));
    finished = int(finishedSpy.count());
    return result;
}

void tst_DirectoryUpdate::installsPackedPlainAndNestedFiles_data()
{
    QTest::addColumn<bool>("prestaging");
    QTest::newRow("staged at the installation") << false;
    QTest::newRow("staged as each file arrived") << true;
}

void tst_DirectoryUpdate::installsPackedPlainAndNestedFiles()
{
    QFETCH(bool, prestaging);
    if (prestaging) {
        downloading = [this](DirectoryUpdate &update, const QList<FileSpecification> &files) {
            for (const FileSpecification &file : files)
                update.prestage(file, work->filePath("src"));
            QVERIFY(QFileInfo(target(".update-staging/new/readme.txt")).isFile());
        };
    }
    addPlain("bin/readme.txt", "plain text");
    addPacked("data/sound.wav.gz", "sounds/ring tone.wav", patternBytes(100000, 1));
    addPacked("data/voice.bin.zst", "voice.bin", patternBytes(300000, 2), PackFormat::Zstd);
    list("bin/notdownloaded.bin", {"0123", "7"});
    // Made from a patch in the working directory: there as installed, neither packed nor fetched.
    list("lib/made.so.gz", {QString(32, '0'), "9", md5Of("made"), "4", "lib/made.so"});
    QVERIFY(writeTestFile(source(".patched/lib/made.so"), "made"));
    // Whatever the list installs is never deleted, also when it is installed already.
    list("bin/current.txt", {md5Of("current"), "7"});
    QVERIFY(writeTestFile(target("current.txt"), "current"));
    for (const char *path : {"plugins/old.so", "never-there.txt", "readme.txt", "current.txt"})
        list(QString("delete/") + path, {"1"});
    for (const char *path : {"plugins/old.so", "readme.txt", "tool"})
        QVERIFY(writeTestFile(target(path), "old"));
    // An executable stays one whatever its name, and the client always becomes one.
    addPlain("bin/tool", "new tool");
    addPlain("bin/" + getClientBinaryName(), "client");
    QVERIFY(QFile::setPermissions(target("tool"), QFile::ReadOwner | QFile::ExeOwner));
    // Libraries by their suffix, a world-writable one narrowed; the staged file is the download.
    addPlain("lib/libQtCore.so.4", "core");
    addPlain("lib/libvoice.so.4.5", "voice");
    QVERIFY(QFile::setPermissions(source("lib/libQtCore.so.4"), QFileDevice::Permissions(0x6666))
            && QFile::setPermissions(source("lib/libvoice.so.4.5"),
                                     QFileDevice::Permissions(0x6640)));

    QVERIFY(run(false));
    for (const QString &name : {QString("tool"), getClientBinaryName(), QString("libQtCore.so.4")})
        QCOMPARE(int(QFileInfo(target(name)).permissions() & 0x7777), 0x7755);
    QCOMPARE(int(QFileInfo(target("libvoice.so.4.5")).permissions() & 0x7777), 0x6640);
    QCOMPARE(readTestFile(target("readme.txt")), "plain text");
    QCOMPARE(readTestFile(target("current.txt")), "current");
    QCOMPARE(readTestFile(target("sounds/ring tone.wav")), patternBytes(100000, 1));
    QCOMPARE(readTestFile(target("voice.bin")), patternBytes(300000, 2));
    QCOMPARE(readTestFile(target("lib/made.so")), "made");
    for (const char *path : {"plugins/old.so", "notdownloaded.bin", ".update-staging"})
        QVERIFY(!QFileInfo::exists(target(path)));
    // Downloads stay until the run removes its working directory, so that a failed switch
    // resumes there; a packed one as what it unpacked to, where a file made from a patch lies.
    QVERIFY(QFileInfo(source("bin/readme.txt")).isFile());
    QVERIFY(!QFileInfo::exists(source("data/sound.wav.gz")));
    QCOMPARE(readTestFile(source(".patched/sounds/ring tone.wav")), patternBytes(100000, 1));
    QCOMPARE(readTestFile(source(".patched/voice.bin")), patternBytes(300000, 2));
    // The "delete" group goes during the switch, not before anything is staged.
    QCOMPARE(log,
             (QStringList{"Update content", "Copy/unpack files...", "Switch to the new version...",
                          "Remove extra files...", "Switch complete"}));
    QVERIFY(questions.isEmpty());
    QCOMPARE(finished, 1);
    QCOMPARE(progress.last(), listedTotal);
    QCOMPARE(reportedTotal, listedTotal);
}

void tst_DirectoryUpdate::stagingWhileDownloadingTrustsNothingChanged_data()
{
    QTest::addColumn<bool>("beforeFiles"); // meddled with before any file arrives
    QTest::addColumn<QString>("linked");   // below the staging, made a link into the victim
    QTest::addColumn<bool>("removed");     // the staged readme.txt removed
    QTest::newRow("staged file removed") << false << "" << true;
    QTest::newRow("staged file replaced by a link") << false << "readme.txt" << true;
    QTest::newRow("staged directory replaced by a link") << false << "sub" << false;
    QTest::newRow("link in the staging before the files arrive") << true << "sub" << false;
}

// Whatever stands in the staging when the installation comes was staged by this run and is
// still what it staged, or it is staged again; nothing goes through a link.
void tst_DirectoryUpdate::stagingWhileDownloadingTrustsNothingChanged()
{
    QFETCH(bool, beforeFiles);
    QFETCH(QString, linked);
    QFETCH(bool, removed);
    const QString victim = work->filePath("victim");
    QVERIFY(writeTree(victim, {{"readme.txt", "victim"}, {"sub/y", "victim y"}}));
    const TestTree victimBefore = treeBelow(victim);
    addPlain("bin/readme.txt", "plain text");
    addPlain("bin/sub/x.so", "x");
    const QString staging = target(".update-staging/new/");
    const auto meddle = [&] {
        if (removed)
            QVERIFY(QFile::remove(staging + "readme.txt"));
        if (linked.isEmpty())
            return;
        removeTree(staging + linked);
        QVERIFY(QDir().mkpath(staging) && QFile::link(victim + "/" + linked, staging + linked));
    };
    downloading = [&](DirectoryUpdate &update, const QList<FileSpecification> &files) {
        if (beforeFiles)
            meddle();
        for (const FileSpecification &file : files)
            update.prestage(file, work->filePath("src"));
        if (!beforeFiles)
            meddle();
    };

    QVERIFY(run(true));
    QCOMPARE(readTestFile(target("readme.txt")), "plain text");
    QCOMPARE(readTestFile(target("sub/x.so")), "x");
    QVERIFY(!QFileInfo(target("sub")).isSymLink());
    QCOMPARE(treeBelow(victim), victimBefore);
    QVERIFY(!QFileInfo::exists(target(".update-staging")));
}

void tst_DirectoryUpdate::largeFilesStagedEarlyOnlyByLink_data()
{
    QTest::addColumn<QStringList>("mount"); // what the working directory is made, if anything
    QTest::addColumn<bool>("linked");
    QTest::newRow("one mount") << QStringList() << true;
    QTest::newRow("a bind mount of the same file system") << QStringList{"--bind", "@"} << false;
    QTest::newRow("another file system") << QStringList{"-t", "tmpfs", "tmpfs"} << false;
}

// A copy of a large file would hold up every transfer; where no link can be made it waits for
// the installation.
void tst_DirectoryUpdate::largeFilesStagedEarlyOnlyByLink()
{
    QFETCH(QStringList, mount);
    QFETCH(bool, linked);
    const QString src = work->filePath("src");
    QVERIFY(QDir().mkpath(src));
    if (!mount.isEmpty()) {
        if (QProcess::execute("mount", mount.replaceInStrings("@", src) << src) != 0)
            QSKIP("mounting needs root");
    }
    const auto unmount = qScopeGuard([&] {
        if (!mount.isEmpty())
            QProcess::execute("umount", {"-l", src});
    });
    const QByteArray large = noiseBytes(3 << 20, 5);
    addPlain("bin/large.so", large);
    addPlain("bin/small.txt", "small");
    downloading = [&](DirectoryUpdate &update, const QList<FileSpecification> &files) {
        for (const FileSpecification &file : files)
            update.prestage(file, src);
        const QString staged = target(".update-staging/new/");
        QCOMPARE(isSameFile(source("bin/small.txt"), staged + "small.txt"), linked);
        QVERIFY(QFileInfo(staged + "small.txt").isFile());
        QCOMPARE(isSameFile(source("bin/large.so"), staged + "large.so"), linked);
        QCOMPARE(QFileInfo::exists(staged + "large.so"), linked);
    };

    QVERIFY(run(true));
    QCOMPARE(readTestFile(target("large.so")), large);
    QCOMPARE(readTestFile(target("small.txt")), "small");
}

void tst_DirectoryUpdate::staleCopyAsksAndFollowsTheAnswer_data()
{
    QTest::addColumn<InstallAnswer>("reply");
    QTest::addColumn<QByteArray>("installed");
    QTest::addColumn<QList<quint64>>("done");

    QTest::newRow("abort stops and keeps the old version")
            << InstallAnswer::Abort << QByteArray("running") << QList<quint64>{0};
    // Retrying an entry never counts its bytes twice.
    QTest::newRow("retry after the stale copy went")
            << InstallAnswer::Retry << QByteArray("new") << QList<quint64>{0, 3, 8};
    QTest::newRow("ignore keeps that file old and switches the rest")
            << InstallAnswer::Ignore << QByteArray("running") << QList<quint64>{0, 3, 8};
}

void tst_DirectoryUpdate::staleCopyAsksAndFollowsTheAnswer()
{
    QFETCH(InstallAnswer, reply);
    QFETCH(QList<quint64>, done);

    addPlain("a/update", "new");
    addPlain("b/later.txt", "later");
    QVERIFY(writeTestFile(target("update"), "running"));
    QVERIFY(writeTestFile(target("_old_update"), "stale"));
    // An installed client that is a link stays as it is: it may name a file anywhere.
    const QString outside = work->filePath("outside");
    QVERIFY(writeTestFile(outside, "x")
            && QFile::setPermissions(outside, QFile::ReadOwner | QFile::WriteOwner));
    const QFileDevice::Permissions privateMode = QFile::permissions(outside);
    QVERIFY(QFile::link(outside, target(getClientBinaryName())));
    // A retry only helps once the user has dealt with the stale copy.
    answer = [this, reply](const QString &text) {
        questions << text;
        if (reply == InstallAnswer::Retry)
            QFile::remove(target("_old_update"));
        return reply;
    };

    QCOMPARE(run(false), reply == InstallAnswer::Retry);

    QTEST(readTestFile(target("update")), "installed");
    QCOMPARE(QFile::exists(target("later.txt")), done.size() > 1);
    QCOMPARE(finished, 1);
    QCOMPARE(progress, done);
    QCOMPARE(QFile::permissions(outside), privateMode);
    QCOMPARE(questions.size(), 1);
    QVERIFY(questions.first().startsWith(QString("Can't overwrite %1.\n").arg(target("update"))));
    QVERIFY(questions.first().endsWith("\nDo you wish to stop update?"));
    QVERIFY(log.contains(QString("FAILED to rename file: %1 to %2")
                                 .arg(target("update"), target("_old_update"))));
}

void tst_DirectoryUpdate::failuresAreLoggedAndAsked_data()
{
    QTest::addColumn<bool>("silent");
    QTest::newRow("interactive") << false;
    QTest::newRow("silent") << true;
}

void tst_DirectoryUpdate::failuresAreLoggedAndAsked()
{
    QFETCH(bool, silent);
    addPacked("a/a.gz", "a.so", patternBytes(50000, 1));
    const QByteArray packed = readTestFile(source("a/a.gz"));
    QVERIFY(writeTestFile(source("a/a.gz"), packed.left(packed.size() / 2)));
    // Neither a directory in the file's place nor a file in its directory's place can go.
    addPlain("b/blocked", "b");
    QVERIFY(QDir().mkpath(target("blocked/inside")));
    addPlain("c/sub/x", "x");
    QVERIFY(writeTestFile(target("sub"), "a file"));
    // Nothing goes in, or out, through a directory link that leads out of the installation.
    const QString outside = work->filePath("outside");
    QVERIFY(writeTree(outside, {{"deep/old", "victim"}, {"gone", "victim"}}));
    addPlain("d/linked/deep/x", "x");
    list("delete/linked/gone", {"1"});
    QVERIFY(QFile::link(outside, target("linked")));
    const TestTree victim = treeBelow(outside);

    // Skipped files leave holes: the run is no whole new version either way.
    QVERIFY(!run(silent));

    const QString unpacked = target("a.so");
    const QStringList staging{"Update content", "Copy/unpack files...", "Can't unzip a/a.gz!",
                              "Wrong checksum " + unpacked + "!", "Wrong length " + unpacked + "!"};
    const QStringList switching{
            "FAILED to remove file: " + target("blocked"),
            "FAILED creating subdirectory: " + work->filePath("install/sub"),
            "FAILED creating subdirectory: " + target("linked/deep"),
            target("linked/deep") + ": reached through a link that leads outside the installation",
            "Switch to the new version...",
            "Remove extra files...",
            "Switch complete"};
    // Unattended, the first failure stops the update before anything installed changes.
    QCOMPARE(log, staging
                          + (silent ? QStringList{"Update stopped; the previous version was not "
                                                  "changed"}
                                    : switching));
    QCOMPARE(readTestFile(target("sub")), "a file");
    QCOMPARE(treeBelow(outside), victim);
    QStringList asked;
    for (const QString &question : std::as_const(questions))
        asked << question.section('\n', 0, 0);
    // The last error of an entry is the one asked about.
    QCOMPARE(asked,
             (silent ? QStringList()
                     : QStringList{"Wrong length " + unpacked + "!",
                                   "Can't overwrite " + target("blocked") + ".",
                                   "FAILED creating subdirectory: " + work->filePath("install/sub"),
                                   "FAILED creating subdirectory: " + target("linked/deep")}));
}

void tst_DirectoryUpdate::recoversSwitchInsideTheInstallation_data()
{
    QTest::addColumn<QString>("linked");      // below the installation, made a link to the victim
    QTest::addColumn<QByteArray>("appended"); // to the journal
    // 1: killed once the switch was applied; 0: before; -1: after applying it without a staged file
    QTest::addColumn<int>("killedAfter");
    QTest::addColumn<bool>("completes");
    // Staged where no file is planned: a new directory holding it cannot go into place whole.
    QTest::addColumn<QString>("junk");
    const QByteArray stale = "older a"; // a backup left from an earlier switch
    QTest::newRow("killed before the clean-up: completed")
            << "" << QByteArray() << 1 << true << "junk";
    QTest::newRow("stray link in a new directory, killed before the clean-up")
            << "" << QByteArray() << 1 << true << "sub/junk";
    QTest::newRow("journal path with ..")
            << "" << QByteArray("d ../victim/sub\nx ../victim/a.txt\n") << 0 << false << "junk";
    QTest::newRow("absolute journal path")
            << "" << QByteArray("x @VICTIM@/a.txt\n") << 0 << false << "junk";
    QTest::newRow("journal path through a directory linking out")
            << "out" << QByteArray("x out/gone.txt\n") << 0 << false << "junk";
    QTest::newRow("staging directory is a link, no journal")
            << ".update-staging" << QByteArray() << 0 << false << "junk";
    QTest::newRow("staged files below a link")
            << ".update-staging/new" << QByteArray() << 0 << false << "junk";
    QTest::newRow("backups below a link")
            << ".update-staging/backup" << QByteArray() << 0 << true << "junk";
    QTest::newRow("backup left from an earlier switch, staged file missing")
            << "" << stale << -1 << false << "junk";
    QTest::newRow("staged file missing at the switch")
            << "" << QByteArray() << -1 << false << "junk";
}

// A switch a killed run left open, whatever lies in the updater's own places: the next start
// touches nothing beside the installation and leaves it exactly one version. An installed link
// goes aside and comes back as a link; the running updater's old file stays beside the new one.
void tst_DirectoryUpdate::recoversSwitchInsideTheInstallation()
{
    QFETCH(QString, linked);
    QFETCH(QByteArray, appended);
    QFETCH(int, killedAfter);
    QFETCH(bool, completes);
    QFETCH(QString, junk);
    const QString install = work->filePath("install");
    const QString victim = work->filePath("victim");
    QVERIFY(writeTree(victim,
                      {{"a.txt", "victim a"}, {"gone.txt", "victim gone"}, {"sub/v", "v"}}));
    QVERIFY(writeTree(install,
                      {{"a.txt", "old a"}, {"gone.txt", "old"}, {"update", "old updater"}}));
    QVERIFY(QFile::link("a.txt", target("link.so")));
    const auto state = [](const QString &dir) {
        TestTree tree = treeBelow(dir);
        tree.removeIf([](const auto &entry) { return entry.key().startsWith(".update-"); });
        return tree;
    };
    const TestTree victimBefore = treeBelow(victim), before = state(install);

    UpdateJournal journal(install);
    const QStringList names{"a.txt", "link.so", "update", "sub/c.txt"};
    for (const QString &name : names)
        QVERIFY(writeTestFile(journal.stagedPath(name), "new " + name.toUtf8()));
    const bool stale = appended == "older a";
    QVERIFY(!stale || writeTestFile(journal.stagingDir() + "/backup/a.txt", appended));
    journal.planDelete("gone.txt");
    for (const QString &name : names)
        journal.planFile(name, name == "update", QFileInfo::exists(target(name)));
    QString error;
    QVERIFY2(journal.begin(&error), qPrintable(error));
    QFile journalFile(install + "/.update-journal");
    if (!stale && !appended.isEmpty()) {
        QVERIFY(journalFile.open(QIODevice::Append));
        journalFile.write(appended.replace("@VICTIM@", QFile::encodeName(victim)));
        journalFile.close();
    }
    QVERIFY(killedAfter >= 0 || QFile::remove(journal.stagedPath("sub/c.txt")));
    // A link the clean-up must remove, not follow.
    QVERIFY(QFile::link(victim, journal.stagedPath(junk)));
    const QString stagedSub = journal.stagedPath("sub");
    struct stat subBefore = {};
    QVERIFY(killedAfter < 0 || ::stat(QFile::encodeName(stagedSub).constData(), &subBefore) == 0);
    if (!linked.isEmpty()) {
        QVERIFY(linked != ".update-staging" || journalFile.remove());
        removeTree(target(linked));
        QVERIFY(QFile::link(victim, target(linked)));
    }
    int failed = 0;
    QCOMPARE(killedAfter != 0 && journal.apply(&failed, &error), killedAfter > 0);

    UpdateJournal::recover(install);

    QCOMPARE(treeBelow(victim), victimBefore);
    TestTree after{{"_old_update", "old updater"}};
    for (const QString &name : names)
        after.insert(name, "new " + name.toUtf8());
    QCOMPARE(state(install), completes ? after : before);
    QCOMPARE(QFileInfo(target("link.so")).isSymLink(), !completes);
    // A new directory holding exactly its planned files went into place whole, by one rename.
    struct stat subAfter = {};
    const bool whole = ::stat(QFile::encodeName(target("sub")).constData(), &subAfter) == 0
                       && subAfter.st_ino == subBefore.st_ino;
    QCOMPARE(whole, completes && !junk.startsWith("sub/"));
    QCOMPARE(QFileInfo::exists(target(".update-staging")),
             !completes && !appended.isEmpty() && !stale);
}

QTEST_MAIN(tst_DirectoryUpdate)
#include "tst_directoryupdate.moc"
