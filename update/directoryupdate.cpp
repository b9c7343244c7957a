#include "update/directoryupdate.h"

#include "app/apppaths.h"
#include "app/runningfiles.h"
#include "tasks/productlist.h"
#include "tasks/taskspecification.h"
#include "update/checksums.h"
#include "update/filecopy.h"
#include "update/filesync.h"
#include "update/packing.h"
#include "update/terminationhold.h"
#include "update/updatejournal.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QSignalBlocker>

#include <cerrno>

namespace {

// Larger files are copied into a staging on another file system only at the installation: a
// copy while the download runs would hold up every transfer meanwhile.
constexpr qint64 prestageCopyLimit = 1 << 20;

} // namespace

DirectoryUpdate::DirectoryUpdate(QObject *parent)
    : QObject(parent)
{}

DirectoryUpdate::~DirectoryUpdate() = default;

// Where a listed file's content is: its download, or the file as it is installed when the
// download made it from a patch or unpacked it on arrival.
struct DirectoryUpdate::Source
{
    QString path;
    PathStatus status;
    // The entry as that file is: neither packed nor downloaded for a file kept as installed.
    FileSpecification form;
};

DirectoryUpdate::Source DirectoryUpdate::sourceOf(const FileSpecification &entry,
                                                  const QString &sourceDir)
{
    Source source{QDir(sourceDir).absoluteFilePath(entry.directory + QLatin1Char('/') + entry.name),
                  {},
                  entry};
    source.status = pathStatus(source.path);
    if (source.status.size >= 0)
        return source;
    const QString patched = entry.patchedPath(sourceDir);
    if (const PathStatus patchedStatus = pathStatus(patched); patchedStatus.size >= 0) {
        source.path = patched;
        source.status = patchedStatus;
        source.form.md5 = entry.installedMd5();
        source.form.size = entry.installedSize();
        source.form.unpackedName.clear();
        source.form.name = entry.installPath();
    }
    return source;
}

void DirectoryUpdate::beginStaging(const QString &targetDir)
{
    for (const QString &line : UpdateJournal::recover(targetDir))
        emit message(line);
    prestaged.clear();
    linksToStaging.reset();
    staging = std::make_unique<UpdateJournal>(targetDir);
    // A journal that could not be finished keeps the only copies of some files.
    if (staging->isOpen())
        staging.reset();
}

void DirectoryUpdate::prestage(const FileSpecification &entry, const QString &sourceDir)
{
    if (!staging)
        return;
    const QString relative = entry.installPath();
    const QString staged = staging->stagedPath(relative);
    staging->clearWayToStaged(relative);
    const Source source = sourceOf(entry, sourceDir);
    // A packed download is unpacked at the installation, which keeps what it unpacked.
    if (source.status.size < 0 || source.form.isPacked())
        return;
    if (!linksToStaging)
        linksToStaging = onSameMount(sourceDir, staging->installDir());
    if (!*linksToStaging && source.status.size > prestageCopyLimit)
        return;
    // Whatever fails here is done again, and told, at the installation.
    const QSignalBlocker quiet(this);
    const QString target = staging->installedPath(relative);
    if (stageFile(source.form, source.path, source.status, staged, target, pathStatus(target))
                .isEmpty()) {
        prestaged.insert(staged);
    }
}

void DirectoryUpdate::abandonStaging()
{
    if (staging)
        staging->discardStaging();
    staging.reset();
    prestaged.clear();
}

// Still what was staged: nothing installs between the download and the switch but this run.
bool DirectoryUpdate::isPrestaged(const QString &staged, const FileSpecification &entry) const
{
    const PathStatus status = pathStatus(staged);
    return status.regular && quint64(status.size) == entry.installedSize();
}

bool DirectoryUpdate::updateContent(bool silent, const QString &sourceDir,
                                    const QString &productIni, const QString &targetDir)
{
    emit message(QStringLiteral("Update content"));
    TaskSpecification task;
    if (!task.initializeByProductIni(productIni)) {
        emit message(QStringLiteral("Unable to read %1.").arg(productIni));
        return false;
    }
    // A switch a killed run left is finished first: staging starts from one whole version. So
    // did staging while the download ran.
    if (!staging || staging->installDir() != targetDir) {
        for (const QString &line : UpdateJournal::recover(targetDir))
            emit message(line);
    }
    UpdateJournal journal(targetDir);
    // A journal that could not be finished keeps the only copies of some files; it is left for
    // whoever looks into it.
    if (journal.isOpen())
        return false;
    // Planned first: a file that goes may stand where a new directory must be made. A path the
    // list installs stays, also when it is installed already and so not staged.
    QSet<QString> installs;
    for (const FileSpecification &entry : task.files)
        installs.insert(QDir::cleanPath(entry.installPath()));
    const QStringList deletions = ProductList::deletedPaths(productIni);
    for (const QString &path : deletions) {
        if (!installs.contains(QDir::cleanPath(path)))
            journal.planDelete(path);
    }
    Outcome outcome = stageFiles(silent, sourceDir, task, &journal);
    if (outcome != Outcome::Failed) {
        const Outcome switched = switchFiles(silent, !deletions.isEmpty(), &journal);
        outcome = switched == Outcome::Whole ? outcome : switched;
    } else {
        journal.discardStaging();
        emit message(QStringLiteral("Update stopped; the previous version was not changed"));
    }
    staging.reset();
    prestaged.clear();
    emit updateFinished();
    return outcome == Outcome::Whole;
}

DirectoryUpdate::Outcome DirectoryUpdate::stageFiles(bool silent, const QString &sourceDir,
                                                     const TaskSpecification &task,
                                                     UpdateJournal *journal)
{
    emit message(QStringLiteral("Copy/unpack files..."));
    const quint64 total = task.totalSize;
    quint64 done = 0;
    emit progress(done, total);

    madeDirectories.clear();
    stagedFiles.clear();
    bool partial = false;
    for (int i = 0; i < task.getSize();) {
        FileSpecification entry;
        task.get(i, &entry);
        const QString relative = entry.installPath();
        const PathStatus targetStatus = pathStatus(journal->installedPath(relative));
        Source source;
        bool downloaded = false;
        const QString problem =
                stageListed(entry, sourceDir, targetStatus, journal, &source, &downloaded);
        const bool stagedWell = downloaded && problem.isEmpty();
        // A file that was not downloaded is installed already.
        const InstallAnswer answer =
                stagedWell || !downloaded ? InstallAnswer::Ignore : ask(silent, problem);
        if (answer == InstallAnswer::Abort)
            return Outcome::Failed;
        if (answer == InstallAnswer::Retry)
            continue;
        if (stagedWell) {
            if (source.form.isPacked())
                keepUnpacked(entry, sourceDir, source.path, journal->stagedPath(relative));
            journal->planFile(relative, isSpecialFileName(QFileInfo(relative).fileName()),
                              targetStatus.exists);
        } else if (downloaded) {
            // Skipped by the user: the installed file stays, and so the version has a hole.
            partial = true;
        }
        done += entry.size;
        emit progress(done, total);
        ++i;
    }
    return partial ? Outcome::Partial : Outcome::Whole;
}

QString DirectoryUpdate::stageListed(const FileSpecification &entry, const QString &sourceDir,
                                     const PathStatus &targetStatus, UpdateJournal *journal,
                                     Source *source, bool *downloaded)
{
    const QString relative = entry.installPath();
    const QString staged = journal->stagedPath(relative);
    // Staged while the download ran, from a source looked at then.
    const bool early = prestaged.contains(staged);
    *source = early ? Source() : sourceOf(entry, sourceDir);
    *downloaded = early || source->status.size >= 0;
    if (!*downloaded)
        return {};
    QString problem;
    const bool replaceable = replaceProblem(relative, targetStatus, *journal, &problem).isEmpty();
    if (replaceable && early && isPrestaged(staged, entry)) {
        stagedFiles.insert(staged);
        return {};
    }
    // Not switched, or no longer what was staged: never written through.
    journal->clearWayToStaged(relative);
    if (early) {
        removeFile(staged);
        prestaged.remove(staged);
        *source = sourceOf(entry, sourceDir);
    }
    if (!replaceable)
        return problem;
    return stageFile(source->form, source->path, source->status, staged,
                     journal->installedPath(relative), targetStatus);
}

QString DirectoryUpdate::replaceProblem(const QString &relative, const PathStatus &installed,
                                        const UpdateJournal &journal, QString *question)
{
    const QString path = journal.installedPath(relative);
    const auto problem = [&](const QString &line, int error) {
        emit message(line);
        *question = tr("Can't overwrite %1.\n%2\nDo you wish to stop update?")
                            .arg(path, qt_error_string(error));
        return line;
    };
    if (installed.directory)
        return problem(QStringLiteral("FAILED to remove file: %1").arg(path), EISDIR);
    const QString name = QFileInfo(relative).fileName();
    const QString aside = journal.asidePath(relative);
    if (isSpecialFileName(name) && installed.exists && pathExists(aside))
        return problem(QStringLiteral("FAILED to rename file: %1 to %2").arg(path, aside), EEXIST);
    using Place = UpdateJournal::Place;
    for (QString dir = parentPath(relative);
         !dir.isEmpty() && journal.place(dir) != Place::Directory; dir = parentPath(dir)) {
        const Place place = journal.place(dir);
        if (place == Place::Outside
            || (place == Place::Other && !journal.deletes(journal.installedPath(dir)))) {
            *question = QStringLiteral("FAILED creating subdirectory: %1").arg(parentPath(path));
            emit message(*question);
            if (place == Place::Outside) {
                emit message(
                        QStringLiteral(
                                "%1: reached through a link that leads outside the installation")
                                .arg(journal.installedPath(dir)));
            }
            return *question;
        }
    }
    return {};
}

QString DirectoryUpdate::stageFile(const FileSpecification &entry, const QString &source,
                                   const PathStatus &sourceStatus, const QString &staged,
                                   const QString &target, const PathStatus &installed)
{
    QString error;
    // The system's reason is told where a call of the system failed, not for a bad checksum.
    const auto fail = [&](const QString &line, bool systemFailure = false) {
        const QString reason = systemFailure && errno != 0 ? systemError() : QString();
        emit message(line);
        if (!reason.isEmpty())
            emit message(QStringLiteral("%1: %2").arg(staged, reason));
        error = line;
    };

    errno = 0;
    if (!makeDirectory(parentPath(staged))) {
        fail(QStringLiteral("FAILED creating subdirectory: %1").arg(parentPath(staged)), true);
        return error;
    }
    // Unpacking into a link of a download would overwrite the download.
    if (stagedFiles.contains(staged))
        removeFile(staged);
    stagedFiles.insert(staged);
    const QString relativeSource = entry.directory + QLatin1Char('/') + entry.name;
    errno = 0;
    quint64 size = entry.installedSize();
    if (entry.isPacked()) {
        // What a successful unpacking wrote is the file: its checksum needs no second reading.
        QString unpackedMd5;
        if (!unpackFileWithMD5(staged, source, &unpackedMd5, entry.unpackLimit())) {
            fail(QStringLiteral("Can't unzip %1!").arg(relativeSource), true);
            unpackedMd5 = getFileMD5Ex(staged);
        }
        if (unpackedMd5 != entry.unpackedMd5)
            fail(QStringLiteral("Wrong checksum %1!").arg(target));
        if (quint64(QFileInfo(staged).size()) != entry.unpackedSize)
            fail(QStringLiteral("Wrong length %1!").arg(target));
    } else if (sourceStatus.regular && linkFile(source, staged)) {
        // The very file whose checksum the download verified; nothing is copied.
        if (quint64(sourceStatus.size) != entry.size)
            fail(QStringLiteral("Wrong length %1!").arg(target));
    } else if (errno = 0; !copyFile(source, staged)) {
        fail(QStringLiteral("Can't copy %1!").arg(relativeSource), true);
    } else if (getFileMD5Ex(staged) != entry.md5) {
        fail(QStringLiteral("Wrong checksum %1!").arg(target));
    } else if (quint64(QFileInfo(staged).size()) != entry.size) {
        fail(QStringLiteral("Wrong length %1!").arg(target));
    }
    if (!error.isEmpty()) {
        removeFile(staged);
        return error;
    }

    if (installed.executable || entry.installPath() == getClientBinaryName())
        makeFileExecutable(staged);
    makeSingleFileExecutable(staged);
    // The flush before the switch then finds most of a large file's data on the disk already;
    // for a small one the extra calls would cost more than the flush saves.
    if (size >= writebackSize)
        startWriteback(staged);
    return error;
}

bool DirectoryUpdate::makeDirectory(const QString &path)
{
    if (madeDirectories.contains(path))
        return true;
    if (!QDir().mkpath(path))
        return false;
    madeDirectories.insert(path);
    return true;
}

// The working directory keeps a staged packed file as what it unpacked to: a link to the staged
// file, where a file made from a patch is kept. A switch that fails still resumes without
// fetching it, and the packed download, gone before the flush, never reaches the disk, so
// removing the working directory frees no blocks (with online discard each freed extent costs
// a round trip to the disk). Across file systems the download stays as it is.
void DirectoryUpdate::keepUnpacked(const FileSpecification &entry, const QString &sourceDir,
                                   const QString &download, const QString &staged)
{
    const QString kept = entry.patchedPath(sourceDir);
    if (!makeDirectory(parentPath(kept)) || !removeFile(kept))
        return;
    if (linkFile(staged, kept))
        removeFile(download);
}

DirectoryUpdate::Outcome DirectoryUpdate::switchFiles(bool silent, bool removesFiles,
                                                      UpdateJournal *journal)
{
    emit message(QStringLiteral("Switch to the new version..."));
    if (removesFiles)
        emit message(QStringLiteral("Remove extra files..."));

    QString error;
    // Stopped between two versions, the installation would wait for the next start to be whole.
    TerminationHold held;
    if (!journal->begin(&error)) {
        emit message(QStringLiteral("FAILED to start the switch: %1").arg(error));
        journal->discardStaging();
        emit message(QStringLiteral("Update stopped; the previous version was not changed"));
        return Outcome::Failed;
    }
    bool partial = false;
    int failed = 0;
    while (!journal->apply(&failed, &error)) {
        emit message(QStringLiteral("FAILED to switch %1").arg(error));
        // Stopped while a person thinks it over, the run leaves the rollback to the next start.
        if (asksPerson(silent))
            held.release();
        const InstallAnswer answer = ask(silent, error);
        held.hold();
        if (answer == InstallAnswer::Retry)
            continue;
        if (answer == InstallAnswer::Abort || failed < 0 || !journal->undo(failed, &error)) {
            if (journal->rollback(&error)) {
                emit message(QStringLiteral("Rolled back to the previous version"));
            } else {
                emit message(QStringLiteral("FAILED to roll back: %1").arg(error));
            }
            return Outcome::Failed;
        }
        partial = true;
        ++failed;
    }
    if (!journal->finish(&error)) {
        emit message(QStringLiteral("FAILED to finish the switch: %1").arg(error));
        return Outcome::Failed;
    }
    // The client is started from the finished window, whatever mode it came with.
    const QString client = journal->installedPath(getClientBinaryName());
    if (QFileInfo::exists(client))
        makeFileExecutable(client);
    emit message(QStringLiteral("Switch complete"));
    return partial ? Outcome::Partial : Outcome::Whole;
}

InstallAnswer DirectoryUpdate::ask(bool silent, const QString &text) const
{
    if (!asksPerson(silent))
        return InstallAnswer::Abort;
    return question(text);
}

void DirectoryUpdate::emitUpdateFinished()
{
    emit updateFinished();
}
