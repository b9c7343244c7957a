#include "update/directoryupdate.h"

#include "app/messageboxes.h"
#include "update/checksums.h"
#include "update/gzip.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

// Installing downloaded files into a real directory tree, with the user's answers given
// through the message-box seam.
class tst_DirectoryUpdate : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void installsPackedPlainAndNestedFiles();
    void refusesUnreadableOrHostileLists_data();
    void refusesUnreadableOrHostileLists();
    void fileInUseIsRenamedAside();
    void staleCopyAsksAndFollowsTheAnswer_data();
    void staleCopyAsksAndFollowsTheAnswer();
    void badUnpackedFileIsReportedOrSkippedSilently();

private:
    QString source(const QString &relative) const { return work->filePath("src/" + relative); }
    QString target(const QString &relative) const { return work->filePath("install/" + relative); }
    QString listPath() const { return work->filePath("src/client.ini"); }
    // Downloads a plain file into the source tree and lists it as "md5::size".
    void addPlain(const QString &directory, const QString &name, const QByteArray &content);
    // Downloads a packed file and lists it with its unpacked form.
    void addPacked(const QString &directory, const QString &name, const QString &unpackedName,
                   const QByteArray &content);
    bool run(bool silent);

    std::unique_ptr<QTemporaryDir> work;
    QStringList log;
    QList<quint64> progress;
    QList<MessageBoxRequest> questions;
    QList<QMessageBox::StandardButton> answers;
};

static void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
}

static QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

void tst_DirectoryUpdate::init()
{
    work = std::make_unique<QTemporaryDir>();
    QDir(work->path()).mkpath("install");
    QDir(work->path()).mkpath("src");
    log.clear();
    progress.clear();
    questions.clear();
    answers.clear();
    setMessageBoxHandler([this](const MessageBoxRequest &request) {
        questions << request;
        return answers.isEmpty() ? QMessageBox::Ignore : answers.takeFirst();
    });
}

void tst_DirectoryUpdate::cleanup()
{
    setMessageBoxHandler({});
}

void tst_DirectoryUpdate::addPlain(const QString &directory, const QString &name,
                                   const QByteArray &content)
{
    const QString path = source(directory + "/" + name);
    writeFile(path, content);
    QSettings list(listPath(), QSettings::IniFormat);
    list.setValue(directory + "/" + name,
                  getFileMD5Ex(path) + "::" + QString::number(content.size()));
}

void tst_DirectoryUpdate::addPacked(const QString &directory, const QString &name,
                                    const QString &unpackedName, const QByteArray &content)
{
    const QString plain = work->filePath("plain.tmp");
    writeFile(plain, content);
    const QString packed = source(directory + "/" + name);
    QDir().mkpath(QFileInfo(packed).path());
    QVERIFY(zipFile(plain, packed));
    QSettings list(listPath(), QSettings::IniFormat);
    list.setValue(directory + "/" + name,
                  QStringList{getFileMD5Ex(packed), QString::number(QFileInfo(packed).size()),
                              getFileMD5Ex(plain), QString::number(content.size()), unpackedName}
                          .join("::"));
}

bool tst_DirectoryUpdate::run(bool silent)
{
    DirectoryUpdate update;
    connect(&update, &DirectoryUpdate::message, this, [this](const QString &line) { log << line; });
    connect(&update, &DirectoryUpdate::progress, this,
            [this](quint64 done, quint64) { progress << done; });
    QSignalSpy finished(&update, &DirectoryUpdate::updateFinished);
    const bool result = update.updateContent(silent, work->filePath("src"), listPath(),
                                             work->filePath("install"));
    if (result != (finished.count() == 1))
        qWarning("updateFinished does not match the result");
    return result;
}

void tst_DirectoryUpdate::installsPackedPlainAndNestedFiles()
{
    addPlain("bin", "update", "new updater");
    addPlain("bin", "readme.txt", "plain text");
    addPacked("lib", "libcore.so.gz", "libcore.so", QByteArray(100000, 'c'));
    addPacked("data", "sound.wav.gz", "sounds/ring tone.wav", "ring");
    {
        QSettings list(listPath(), QSettings::IniFormat);
        list.setValue("bin/notdownloaded.bin", "0123::7");
        list.setValue("delete/obsolete.dat", "1");
        list.setValue("delete/plugins/old.so", "1");
        list.setValue("delete/never-there.txt", "1");
    }
    writeFile(target("obsolete.dat"), "old");
    writeFile(target("plugins/old.so"), "old");
    writeFile(target("readme.txt"), "previous version");

    QVERIFY(run(false));

    QCOMPARE(readFile(target("update")), QByteArray("new updater"));
    QCOMPARE(readFile(target("readme.txt")), QByteArray("plain text"));
    QCOMPARE(readFile(target("libcore.so")), QByteArray(100000, 'c'));
    QCOMPARE(readFile(target("sounds/ring tone.wav")), QByteArray("ring"));
    QVERIFY(!QFile::exists(target("obsolete.dat")));
    QVERIFY(!QFile::exists(target("plugins/old.so")));
    QVERIFY(!QFile::exists(target("notdownloaded.bin")));
    // The running updater is moved aside, never overwritten.
    QVERIFY(!QFile::exists(target("_old_update")));
    QCOMPARE(QFile::permissions(target("update")) & 0x7777, QFileDevice::Permissions(0x7755));
    QCOMPARE(QFile::permissions(target("libcore.so")) & 0x7777, QFileDevice::Permissions(0x7755));
    QVERIFY(!(QFile::permissions(target("readme.txt")) & QFileDevice::ExeOwner));

    QCOMPARE(log, (QStringList{"Update content", "Remove extra files...", "Copy/unpack files..."}));
    QVERIFY(questions.isEmpty());
    QCOMPARE(progress.size(), 6);
    QCOMPARE(progress.first(), 0u);
    QVERIFY(std::is_sorted(progress.cbegin(), progress.cend()));
    QSettings list(listPath(), QSettings::IniFormat);
    quint64 total = 0;
    for (const QString &key : list.allKeys()) {
        if (!key.startsWith("delete/"))
            total += list.value(key).toString().split("::").value(1).toULongLong();
    }
    QCOMPARE(progress.last(), total);
}

void tst_DirectoryUpdate::refusesUnreadableOrHostileLists_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");

    QTest::newRow("three fields") << "bin/a" << "x::1::y";
    QTest::newRow("delete outside") << "delete/../victim" << "1";
    QTest::newRow("unpacked outside") << "bin/a.gz" << "x::1::y::1::../victim";
}

void tst_DirectoryUpdate::refusesUnreadableOrHostileLists()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    writeFile(work->filePath("victim"), "keep me");
    addPlain("bin", "a", "a");
    {
        QSettings list(listPath(), QSettings::IniFormat);
        list.setValue(key, value);
    }

    QVERIFY(!run(false));
    QCOMPARE(log, (QStringList{"Update content", QString("Unable to read %1.").arg(listPath())}));
    QCOMPARE(readFile(work->filePath("victim")), QByteArray("keep me"));
    QVERIFY(!QFile::exists(target("a")));
}

void tst_DirectoryUpdate::fileInUseIsRenamedAside()
{
    addPlain("bin", "update", "new");
    writeFile(target("update"), "running");

    QVERIFY(run(true));
    QCOMPARE(readFile(target("update")), QByteArray("new"));
    QCOMPARE(readFile(target("_old_update")), QByteArray("running"));
}

void tst_DirectoryUpdate::staleCopyAsksAndFollowsTheAnswer_data()
{
    QTest::addColumn<QList<QMessageBox::StandardButton>>("replies");
    QTest::addColumn<QByteArray>("installed");
    QTest::addColumn<bool>("laterFileInstalled");

    using B = QMessageBox;
    QTest::newRow("abort stops the loop")
            << QList<B::StandardButton>{B::Abort} << QByteArray("running") << false;
    QTest::newRow("retry after the stale copy went")
            << QList<B::StandardButton>{B::Retry} << QByteArray("new") << true;
    QTest::newRow("ignore goes on and fails to copy")
            << QList<B::StandardButton>{B::Ignore, B::Ignore} << QByteArray("running") << true;
}

void tst_DirectoryUpdate::staleCopyAsksAndFollowsTheAnswer()
{
    QFETCH(QList<QMessageBox::StandardButton>, replies);
    QFETCH(QByteArray, installed);
    QFETCH(bool, laterFileInstalled);

    addPlain("a", "update", "new");
    addPlain("b", "later.txt", "later");
    writeFile(target("update"), "running");
    writeFile(target("_old_update"), "stale");
    answers = replies;
    // A retry only helps once the user has dealt with the stale copy.
    setMessageBoxHandler([this](const MessageBoxRequest &request) {
        questions << request;
        const QMessageBox::StandardButton answer = answers.takeFirst();
        if (answer == QMessageBox::Retry)
            QFile::remove(target("_old_update"));
        return answer;
    });

    QVERIFY(run(false));

    QCOMPARE(readFile(target("update")), installed);
    QCOMPARE(QFile::exists(target("later.txt")), laterFileInstalled);
    QVERIFY(answers.isEmpty());
    const MessageBoxRequest &first = questions.first();
    QCOMPARE(first.title, QString("Question"));
    QVERIFY(first.text.startsWith(QString("Can't overwrite %1.\n").arg(target("update"))));
    QVERIFY(first.text.endsWith("\nDo you wish to stop update?"));
    QCOMPARE(first.defaultButton, QMessageBox::Retry);
    QCOMPARE(first.buttons, QMessageBox::Abort | QMessageBox::Retry | QMessageBox::Ignore);
    QVERIFY(log.contains(QString("FAILED to rename file: %1 to %2")
                                 .arg(target("update"), target("_old_update"))));
    // Retrying an entry never counts its bytes twice.
    QVERIFY(progress.last() <= 3 + 5);
    if (laterFileInstalled)
        QCOMPARE(progress.last(), quint64(3 + 5));
}

void tst_DirectoryUpdate::badUnpackedFileIsReportedOrSkippedSilently()
{
    for (const bool silent : {false, true}) {
        init();
        addPacked("lib", "a.gz", "a.so", "payload");
        {
            QSettings list(listPath(), QSettings::IniFormat);
            QStringList fields = list.value("lib/a.gz").toString().split("::");
            fields[2] = QString(32, '0');
            fields[3] = "999";
            list.setValue("lib/a.gz", fields.join("::"));
        }
        answers = {QMessageBox::Ignore};

        QVERIFY(run(silent));
        QVERIFY(log.contains(QString("Wrong checksum %1!").arg(target("a.so"))));
        QVERIFY(log.contains(QString("Wrong length %1!").arg(target("a.so"))));
        if (silent) {
            QVERIFY(questions.isEmpty());
        } else {
            QCOMPARE(questions.size(), 1);
            QCOMPARE(questions.first().text, QString("Wrong length %1!").arg(target("a.so")));
        }
    }
}

QTEST_MAIN(tst_DirectoryUpdate)
#include "tst_directoryupdate.moc"
