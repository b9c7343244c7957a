#include "update/directoryupdate.h"

#include "app/apppaths.h"
#include "tests/support/testfiles.h"
#include "update/cleanup.h"
#include "update/packing.h"
#include "update/updatejournal.h"

#include <QDirIterator>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

// Installing downloaded files into a real directory tree, with the user's answers given
// through the question handler.
class tst_DirectoryUpdate : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void installsPackedPlainAndNestedFiles();
    void refusesHostileList();
    void staleCopyAsksAndFollowsTheAnswer_data();
    void staleCopyAsksAndFollowsTheAnswer();
    void failuresAreLoggedAndAsked_data();
    void failuresAreLoggedAndAsked();
    void recoversInterruptedSwitch_data();
    void recoversInterruptedSwitch();
    void hostileStateStaysInside_data();
    void hostileStateStaysInside();

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
    QSignalSpy finishedSpy(&update, &DirectoryUpdate::updateFinished);
    const bool result = update.updateContent(silent, work->filePath("src"), listPath(),
                                             work->filePath("install"));
    finished = int(finishedSpy.count());
    return result;
}

void tst_DirectoryUpdate::installsPackedPlainAndNestedFiles()
{
    addPlain("bin/readme.txt", "plain text");
    addPacked("data/sound.wav.gz", "sounds/ring tone.wav", patternBytes(100000, 1));
    addPacked("data/voice.bin.zst", "voice.bin", patternBytes(300000, 2), PackFormat::Zstd);
    list("bin/notdownloaded.bin", {"0123", "7"});
    // Made from a patch in the working directory: there as installed, neither packed nor fetched.
    list("lib/made.so.gz", {QString(32, '0'), "9", md5Of("made"), "4", "lib/made.so"});
    QVERIFY(writeTestFile(source(".patched/lib/made.so"), "made"));
    for (const char *path : {"plugins/old.so", "never-there.txt"})
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
    QCOMPARE(readTestFile(target("sounds/ring tone.wav")), patternBytes(100000, 1));
    QCOMPARE(readTestFile(target("voice.bin")), patternBytes(300000, 2));
    QCOMPARE(readTestFile(target("lib/made.so")), "made");
    for (const char *path : {"plugins/old.so", "notdownloaded.bin", ".update-staging"})
        QVERIFY(!QFileInfo::exists(target(path)));
    // A packed download has served once unpacked; a plain one is the installed file itself.
    QVERIFY(!QFileInfo::exists(source("data/sound.wav.gz")));
    QVERIFY(QFileInfo(source("bin/readme.txt")).isFile());
    // The "delete" group goes during the switch, not before anything is staged.
    QCOMPARE(log,
             (QStringList{"Update content", "Copy/unpack files...", "Switch to the new version...",
                          "Remove extra files...", "Switch complete"}));
    QVERIFY(questions.isEmpty());
    QCOMPARE(finished, 1);
    QCOMPARE(progress.last(), listedTotal);
    QCOMPARE(reportedTotal, listedTotal);
}

void tst_DirectoryUpdate::refusesHostileList()
{
    QVERIFY(writeTestFile(work->filePath("victim"), "keep me"));
    addPlain("bin/a", "a");
    list("delete/../victim", {"1"});

    QVERIFY(!run(false));
    QCOMPARE(log, (QStringList{"Update content", QString("Unable to read %1.").arg(listPath())}));
    QCOMPARE(finished, 0);
    QCOMPARE(readTestFile(work->filePath("victim")), "keep me");
    QVERIFY(!QFile::exists(target("a")));
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
}

void tst_DirectoryUpdate::staleCopyAsksAndFollowsTheAnswer()
{
    QFETCH(InstallAnswer, reply);
    QFETCH(QList<quint64>, done);

    addPlain("a/update", "new");
    addPlain("b/later.txt", "later");
    QVERIFY(writeTestFile(target("update"), "running"));
    QVERIFY(writeTestFile(target("_old_update"), "stale"));
    // A retry only helps once the user has dealt with the stale copy.
    answer = [this, reply](const QString &text) {
        questions << text;
        if (reply == InstallAnswer::Retry)
            QFile::remove(target("_old_update"));
        return reply;
    };

    QCOMPARE(run(false), reply != InstallAnswer::Abort);

    QTEST(readTestFile(target("update")), "installed");
    QCOMPARE(QFile::exists(target("later.txt")), done.size() > 1);
    QCOMPARE(finished, 1);
    QCOMPARE(progress, done);
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

    // Skipped files leave holes: the run is no whole new version either way.
    QVERIFY(!run(silent));

    const QString unpacked = target("a.so");
    const QStringList staging{"Update content", "Copy/unpack files...", "Can't unzip a/a.gz!",
                              "Wrong checksum " + unpacked + "!", "Wrong length " + unpacked + "!"};
    const QStringList switching{"FAILED to remove file: " + target("blocked"),
                                "FAILED creating subdirectory: " + work->filePath("install/sub"),
                                "Switch to the new version...", "Switch complete"};
    // Unattended, the first failure stops the update before anything installed changes.
    QCOMPARE(log, staging
                          + (silent ? QStringList{"Update stopped; the previous version was not "
                                                  "changed"}
                                    : switching));
    QCOMPARE(readTestFile(target("sub")), "a file");
    QStringList asked;
    for (const QString &question : std::as_const(questions))
        asked << question.section('\n', 0, 0);
    // The last error of an entry is the one asked about.
    QCOMPARE(asked, (silent ? QStringList()
                            : QStringList{"Wrong length " + unpacked + "!",
                                          "Can't overwrite " + target("blocked") + ".",
                                          "FAILED creating subdirectory: "
                                                  + work->filePath("install/sub")}));
}

void tst_DirectoryUpdate::recoversInterruptedSwitch_data()
{
    QTest::addColumn<bool>("obstacle");
    QTest::addColumn<QString>("line");
    QTest::newRow("killed before the clean-up: completed")
            << false << "Completed an interrupted update: the new version is installed";
    QTest::newRow("stuck half way: rolled back")
            << true << "Rolled back an interrupted update: the previous version is installed";
}

// A switch a run left open, as a kill leaves it: the next start ends it as one whole version.
void tst_DirectoryUpdate::recoversInterruptedSwitch()
{
    QFETCH(bool, obstacle);
    QFETCH(QString, line);
    QVERIFY(writeTestFile(target("a.txt"), "old a"));
    QVERIFY(writeTestFile(target("update"), "old updater"));
    QVERIFY(writeTestFile(target("gone.txt"), "old gone"));
    // A non-empty directory where the last new file goes stops the switch there, for good.
    if (obstacle)
        QVERIFY(writeTestFile(target("b.txt/in the way"), "x"));
    {
        UpdateJournal journal(work->filePath("install"));
        for (const char *name : {"a.txt", "update", "b.txt"})
            QVERIFY(writeTestFile(journal.stagedPath(name), QByteArray("new ") + name));
        journal.planDelete("gone.txt");
        journal.planFile("a.txt", false, true);
        journal.planFile("update", true, true);
        journal.planFile("b.txt", false, obstacle);
        QString error;
        QVERIFY2(journal.begin(&error), qPrintable(error));
        int failed = 0;
        QCOMPARE(journal.apply(&failed, &error), !obstacle);
    }

    const QStringList lines = UpdateJournal::recover(work->filePath("install"));
    QCOMPARE(lines.size(), obstacle ? 2 : 1);
    QCOMPARE(lines.last(), line);

    QCOMPARE(readTestFile(target("a.txt")), obstacle ? "old a" : "new a.txt");
    QCOMPARE(readTestFile(target("update")), obstacle ? "old updater" : "new update");
    QCOMPARE(QFile::exists(target("gone.txt")), obstacle);
    QCOMPARE(QFile::exists(target("b.txt/in the way")), obstacle);
    // The running updater's old file stays beside the new one until the next start.
    QCOMPARE(readTestFile(target("_old_update")), obstacle ? "" : "old updater");
    QVERIFY(!QFileInfo::exists(target(".update-staging")));
    QVERIFY(UpdateJournal::recover(work->filePath("install")).isEmpty());
}

enum class Hostile {
    DotDotPath,
    AbsolutePath,
    StagingLink,
    StagedBelowLink,
    BackupBelowLink,
    StaleBackup,
    StagedMissing
};
Q_DECLARE_METATYPE(Hostile)

// Every file and link below dir, by relative path, as content or link target; the updater's own
// entries aside.
static QMap<QString, QByteArray> snapshot(const QString &dir)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(dir, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        const QString relative = QDir(dir).relativeFilePath(info.filePath());
        if (relative.startsWith(".update-staging") || relative.startsWith(".update-journal"))
            continue;
        if (info.isSymLink())
            files[relative] = "-> " + info.symLinkTarget().toUtf8();
        else if (!info.isDir())
            files[relative] = readTestFile(info.filePath());
    }
    return files;
}

void tst_DirectoryUpdate::hostileStateStaysInside_data()
{
    QTest::addColumn<Hostile>("hostile");
    QTest::addColumn<bool>("completes");
    QTest::newRow("journal path with ..") << Hostile::DotDotPath << false;
    QTest::newRow("absolute journal path") << Hostile::AbsolutePath << false;
    QTest::newRow("staging directory is a link") << Hostile::StagingLink << false;
    QTest::newRow("staged files below a link") << Hostile::StagedBelowLink << false;
    QTest::newRow("backups below a link") << Hostile::BackupBelowLink << true;
    QTest::newRow("backup left from an earlier switch") << Hostile::StaleBackup << false;
    QTest::newRow("staged file missing at the switch") << Hostile::StagedMissing << false;
}

// Whatever lies in the updater's own places, recovery touches nothing beside the installation
// and leaves it exactly one version; an installed link goes aside and comes back as a link.
void tst_DirectoryUpdate::hostileStateStaysInside()
{
    QFETCH(Hostile, hostile);
    QFETCH(bool, completes);
    const QString install = work->filePath("install");
    const QString victim = work->filePath("victim");
    for (const char *name : {"a.txt", "gone.txt", "sub/v"})
        QVERIFY(writeTestFile(victim + '/' + name, QByteArray("victim ") + name));
    const QMap<QString, QByteArray> victimBefore = snapshot(victim);
    QVERIFY(writeTestFile(target("a.txt"), "old a"));
    QVERIFY(writeTestFile(target("gone.txt"), "old gone"));
    QVERIFY(QFile::link("a.txt", target("link.so")));
    const QMap<QString, QByteArray> before = snapshot(install);

    UpdateJournal journal(install);
    for (const char *name : {"a.txt", "link.so", "sub/c.txt"})
        QVERIFY(writeTestFile(journal.stagedPath(name), QByteArray("new ") + name));
    if (hostile == Hostile::StaleBackup)
        QVERIFY(writeTestFile(work->filePath("install/.update-staging/backup/a.txt"), "older a"));
    journal.planDelete("gone.txt");
    for (const char *name : {"a.txt", "link.so", "sub/c.txt"})
        journal.planFile(name, false, QFileInfo::exists(target(name)));
    QString error;
    QVERIFY2(journal.begin(&error), qPrintable(error));
    const QMap<QString, QByteArray> after{
            {"a.txt", "new a.txt"}, {"link.so", "new link.so"}, {"sub/c.txt", "new sub/c.txt"}};

    const QString staging = journal.stagingDir();
    QFile journalFile(work->filePath("install/.update-journal"));
    switch (hostile) {
    case Hostile::DotDotPath:
    case Hostile::AbsolutePath:
        QVERIFY(journalFile.open(QIODevice::Append));
        journalFile.write(hostile == Hostile::DotDotPath
                                  ? "d ../victim/sub\nx ../victim/a.txt\n"
                                  : "x " + QFile::encodeName(victim) + "/a.txt\n");
        journalFile.close();
        break;
    case Hostile::StagingLink:
        QVERIFY(journalFile.remove());
        removeTree(staging);
        QVERIFY(QFile::link(victim, staging));
        break;
    case Hostile::StagedBelowLink:
        removeTree(staging + "/new");
        QVERIFY(QFile::link(victim, staging + "/new"));
        break;
    case Hostile::BackupBelowLink:
        QVERIFY(QFile::link(victim, staging + "/backup"));
        break;
    case Hostile::StaleBackup:
        QVERIFY(!QFileInfo::exists(staging + "/backup/a.txt"));
        Q_FALLTHROUGH();
    case Hostile::StagedMissing:
        QVERIFY(QFile::remove(journal.stagedPath("sub/c.txt")));
        break;
    }
    int failed = 0;
    // A kill half way through: one file switched.
    if (hostile == Hostile::StaleBackup)
        QVERIFY(!journal.apply(&failed, &error));

    UpdateJournal::recover(install);

    QCOMPARE(snapshot(victim), victimBefore);
    QCOMPARE(snapshot(install), completes ? after : before);
    QCOMPARE(QFileInfo(target("link.so")).isSymLink(), !completes);
}

QTEST_MAIN(tst_DirectoryUpdate)
#include "tst_directoryupdate.moc"
