#include "update/updatejournal.h"

#include "app/runningfiles.h"
#include "tasks/pathsafety.h"
#include "update/cleanup.h"
#include "update/filesync.h"
#include "update/terminationhold.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace {

const QString stagingName = QStringLiteral(".update-staging");
const QString journalName = QStringLiteral(".update-journal");
const QByteArray journalMagic = "orlivo-update-journal 1";

// Journal letters, in the order of Action.
const char actionLetters[] = {'a', 'r', 'u', 'x'};

QString failure(const QString &path, const QString &reason)
{
    return QStringLiteral("%1: %2").arg(path, reason);
}

// Runs step, and once more after making the directory path goes into when it failed for want
// of that directory. Files are renamed or linked where their directory mostly exists already.
template<typename Step>
bool inParent(const QString &path, Step step)
{
    if (step())
        return true;
    return errno == ENOENT && QDir().mkpath(parentPath(path)) && step();
}

// A journal is a few lines per file; anything far larger is not one.
constexpr qint64 journalLimit = 64 * 1024 * 1024;

// Removes every link that stands as a directory on the way from base down to path's parent, so
// that making, renaming or removing path never reaches outside through one. Directories already
// looked at are in checked: thousands of files share a few.
void removeLinksOnTheWay(const QString &base, const QString &path, QSet<QString> *checked)
{
    const QStringList parts = path.mid(base.size() + 1).split(QLatin1Char('/'));
    QString on = base;
    for (qsizetype i = 0; i + 1 < parts.size(); ++i) {
        on += QLatin1Char('/') + parts.at(i);
        if (checked->contains(on))
            continue;
        if (QFileInfo(on).isSymLink())
            removeFile(on);
        else
            checked->insert(on);
    }
}

} // namespace

UpdateJournal::UpdateJournal(const QString &installDir)
    : root(installDir)
{}

QString UpdateJournal::installedPath(const QString &relative) const
{
    return root + QLatin1Char('/') + relative;
}

QString UpdateJournal::stagingDir() const
{
    return root + QLatin1Char('/') + stagingName;
}

QString UpdateJournal::stagedPath(const QString &relative) const
{
    return stagingDir() + QStringLiteral("/new/") + relative;
}

void UpdateJournal::clearWayToStaged(const QString &relative)
{
    removeLinksOnTheWay(root, stagedPath(relative), &checkedDirectories);
}

QString UpdateJournal::backupPath(const QString &relative) const
{
    return stagingDir() + QStringLiteral("/backup/") + relative;
}

QString UpdateJournal::asidePath(const QString &relative) const
{
    const QString path = installedPath(relative);
    const int slash = path.lastIndexOf(QLatin1Char('/'));
    return path.left(slash + 1) + getSpecialFileRenamePrefix() + path.mid(slash + 1);
}

QString UpdateJournal::journalPath() const
{
    return root + QLatin1Char('/') + journalName;
}

void UpdateJournal::planFile(const QString &relative, bool inUse, bool installed)
{
    // Directories the switch has to make, parents first.
    QStringList missing;
    // A file in a directory's place goes first, as the "delete" group has it.
    for (QString dir = parentPath(relative); !dir.isEmpty() && place(dir) != Place::Directory;
         dir = parentPath(dir)) {
        missing.prepend(dir);
    }
    for (const QString &dir : std::as_const(missing)) {
        if (!newDirectorySet.contains(dir)) {
            newDirectories << dir;
            newDirectorySet.insert(dir);
        }
    }
    Action action = Action::Add;
    if (installed)
        action = inUse ? Action::ReplaceInUse : Action::Replace;
    entries << Entry{action, relative};
}

void UpdateJournal::planDelete(const QString &relative)
{
    if (reachesOutside(relative))
        return;
    // A directory is not a file the old version listed; it stays, as removing it never worked.
    const QFileInfo installed(installedPath(relative));
    if (installed.isSymLink() || (installed.exists() && !installed.isDir()))
        entries << Entry{Action::Delete, relative};
}

bool UpdateJournal::deletes(const QString &path) const
{
    return std::any_of(entries.cbegin(), entries.cend(), [&](const Entry &entry) {
        return entry.action == Action::Delete && installedPath(entry.path) == path;
    });
}

UpdateJournal::Place UpdateJournal::place(const QString &relative) const
{
    const auto known = places.constFind(relative);
    if (known != places.cend())
        return *known;
    const QString path = installedPath(relative);
    const QFileInfo info(path);
    Place found = Place::Directory;
    if (!info.isDir()) {
        found = pathExists(path) ? Place::Other : Place::Missing;
    } else {
        if (canonicalRoot.isEmpty())
            canonicalRoot = QFileInfo(root).canonicalFilePath();
        const QString real = info.canonicalFilePath();
        const QString staging = canonicalRoot + '/' + stagingName;
        const bool inside = real == canonicalRoot || real.startsWith(canonicalRoot + '/');
        if (!inside || real == staging || real.startsWith(staging + '/'))
            found = Place::Outside;
    }
    return *places.insert(relative, found);
}

// The file's directory, or one above it, is reached through a link that leads outside.
bool UpdateJournal::reachesOutside(const QString &relative) const
{
    const QString dir = parentPath(relative);
    return !dir.isEmpty() && place(dir) == Place::Outside;
}

bool UpdateJournal::begin(QString *error)
{
    // A backup left by an earlier switch would be "restored" over this one's files.
    removeTree(stagingDir() + QStringLiteral("/backup"));
    // Files go before any is added: one may stand where a new directory must be made.
    std::stable_partition(entries.begin(), entries.end(),
                          [](const Entry &entry) { return entry.action == Action::Delete; });
    // One flush of the file system covers every staged file and directory; a flush per file
    // costs a disk cache flush each.
    if (!syncFileSystem(root)) {
        *error = failure(root, systemError());
        return false;
    }
    return write(State::Switch, error);
}

bool UpdateJournal::write(State state, QString *error)
{
    QByteArray text =
            journalMagic + '\n'
            + (state == State::Switch ? QByteArray("switch\n") : QByteArray("rollback\n"));
    for (const QString &dir : std::as_const(newDirectories))
        text += "d " + dir.toUtf8() + '\n';
    for (const Entry &entry : std::as_const(entries))
        text += actionLetters[int(entry.action)] + (' ' + entry.path.toUtf8()) + '\n';

    const QString temporary = journalPath() + QStringLiteral(".tmp");
    removeFile(temporary);
    if (!writeSyncedFile(temporary, text) || !renameFile(temporary, journalPath())
        || !syncDirectory(root)) {
        *error = failure(journalPath(), systemError());
        removeFile(temporary);
        return false;
    }
    return true;
}

bool UpdateJournal::read(State *state)
{
    QByteArray text;
    if (!readRegularFile(journalPath(), journalLimit, &text))
        return false;
    const QList<QByteArray> lines = text.split('\n');
    if (lines.size() < 3 || lines.at(0) != journalMagic || !lines.last().isEmpty())
        return false;
    if (lines.at(1) != "switch" && lines.at(1) != "rollback")
        return false;
    *state = lines.at(1) == "switch" ? State::Switch : State::Rollback;
    for (int i = 2; i < lines.size() - 1; ++i) {
        const QByteArray &line = lines.at(i);
        if (line.size() < 3 || line.at(1) != ' ')
            return false;
        const QString path = QString::fromUtf8(line.mid(2));
        // Only ever a path inside the installation, whoever wrote the journal.
        if (!isSafeRelativePath(path) || reachesOutside(path))
            return false;
        const char *letter =
                std::find(std::begin(actionLetters), std::end(actionLetters), line.at(0));
        if (line.at(0) == 'd') {
            newDirectories << path;
            newDirectorySet.insert(path);
        } else if (letter != std::end(actionLetters))
            entries << Entry{Action(letter - std::begin(actionLetters)), path};
        else
            return false;
    }
    return true;
}

bool UpdateJournal::apply(int *failed, QString *error)
{
    for (int i = qMax(*failed, 0); i < entries.size(); ++i) {
        if (movedWithDirectory(entries.at(i)))
            continue;
        if (!applyEntry(entries.at(i), error)) {
            *failed = i;
            return false;
        }
    }
    return true;
}

// A directory the switch makes goes into place whole, by one rename, when its staged tree holds
// exactly the files added below it and the directories made for them: a fresh installation's
// thousands of files then cost a few renames, not one each and a directory made per folder.
// Applied again after a kill, its staged tree is gone and each file is found switched.
bool UpdateJournal::movedWithDirectory(const Entry &entry)
{
    if (entry.action != Action::Add)
        return false;
    QString top;
    for (QString dir = parentPath(entry.path); newDirectorySet.contains(dir);
         dir = parentPath(dir)) {
        top = dir;
    }
    if (top.isEmpty())
        return false;
    auto known = movedDirectories.constFind(top);
    if (known == movedDirectories.cend())
        known = movedDirectories.insert(top, moveDirectory(top));
    return *known;
}

bool UpdateJournal::moveDirectory(const QString &top)
{
    const QString prefix = top + QLatin1Char('/');
    QSet<QString> added;
    for (const Entry &entry : std::as_const(entries)) {
        if (!entry.path.startsWith(prefix))
            continue;
        if (entry.action != Action::Add)
            return false;
        added.insert(entry.path);
    }
    // The staged directory itself is renamed, never a link standing for it or above it.
    removeLinksOnTheWay(root, stagedPath(prefix), &checkedDirectories);
    const QString staged = stagedPath(top);
    qsizetype found = 0;
    QDirIterator it(staged, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info = it.nextFileInfo();
        const QString relative = top + info.filePath().mid(staged.size());
        if (info.isSymLink())
            return false;
        if (info.isDir() ? !newDirectorySet.contains(relative)
                         : !info.isFile() || !added.contains(relative)) {
            return false;
        }
        found += info.isDir() ? 0 : 1;
    }
    return found == added.size() && renameToNewPath(staged, installedPath(top));
}

// Each step looks at what is there before acting, so that it can be applied again after a kill
// at any point of it. An installed file is never missing: the old one is linked into the backup
// and the new one renamed over it in one atomic step.
bool UpdateJournal::applyEntry(const Entry &entry, QString *error)
{
    const QString installed = installedPath(entry.path);
    const QString staged = stagedPath(entry.path);
    const QString backup = backupPath(entry.path);
    const auto fail = [&](const QString &path) {
        *error = failure(path, systemError());
        return false;
    };
    removeLinksOnTheWay(root, staged, &checkedDirectories);
    removeLinksOnTheWay(root, backup, &checkedDirectories);
    if (entry.action == Action::Delete) {
        if (!pathExists(installed) || pathExists(backup))
            return true;
        if (!QDir().mkpath(parentPath(backup)) || !renameFile(installed, backup))
            return fail(installed);
        return true;
    }
    // Most files of a large update are new: the rename alone does it.
    if (entry.action == Action::Add && renameFile(staged, installed))
        return true;
    if (!pathExists(staged)) {
        // Gone because it was switched already, or missing: then the switch cannot be whole.
        const bool switched = entry.action == Action::Add
                                      ? pathExists(installed)
                                      : pathExists(backup) && !isSameFile(installed, backup);
        errno = ENOENT;
        return switched || fail(staged);
    }
    if (entry.action != Action::Add
        && !inParent(backup, [&] { return linkFile(installed, backup) || errno == EEXIST; })) {
        return fail(installed);
    }
    if (entry.action == Action::ReplaceInUse && !pathExists(asidePath(entry.path))
        && !linkFile(backup, asidePath(entry.path))) {
        return fail(asidePath(entry.path));
    }
    if (!inParent(installed, [&] { return renameFile(staged, installed); }))
        return fail(installed);
    return true;
}

bool UpdateJournal::undo(int index, QString *error)
{
    return undoEntry(entries.at(index), error);
}

bool UpdateJournal::undoEntry(const Entry &entry, QString *error)
{
    const QString installed = installedPath(entry.path);
    const QString staged = stagedPath(entry.path);
    const QString backup = backupPath(entry.path);
    removeLinksOnTheWay(root, staged, &checkedDirectories);
    removeLinksOnTheWay(root, backup, &checkedDirectories);
    bool done = true;
    if (entry.action == Action::Add) {
        if (!pathExists(staged))
            done = removeFile(installed);
    } else if (pathExists(backup)) {
        if (entry.action == Action::ReplaceInUse && isSameFile(asidePath(entry.path), backup))
            removeFile(asidePath(entry.path));
        // Still the same file: the new one never came.
        done = isSameFile(installed, backup) ? removeFile(backup) : renameFile(backup, installed);
    }
    if (!done)
        *error = failure(installed, systemError());
    return done;
}

bool UpdateJournal::rollback(QString *error)
{
    if (!write(State::Rollback, error))
        return false;
    // Added files out, the directories made for them gone, then the deleted files back in the
    // places those directories took.
    bool whole = true;
    for (auto it = entries.crbegin(); it != entries.crend(); ++it) {
        if (it->action != Action::Delete)
            whole = undoEntry(*it, error) && whole;
    }
    for (auto it = newDirectories.crbegin(); it != newDirectories.crend(); ++it)
        QDir().rmdir(installedPath(*it));
    for (auto it = entries.crbegin(); it != entries.crend(); ++it) {
        if (it->action == Action::Delete)
            whole = undoEntry(*it, error) && whole;
    }
    return whole && finish(error);
}

bool UpdateJournal::finish(QString *error)
{
    // The journal goes only once every rename it guards is on the disk.
    if (!syncFileSystem(root)) {
        *error = failure(root, systemError());
        return false;
    }
    removeTree(stagingDir());
    if (!removeFile(journalPath())) {
        *error = failure(journalPath(), systemError());
        return false;
    }
    syncDirectory(root);
    return true;
}

bool UpdateJournal::isOpen() const
{
    return pathExists(journalPath());
}

void UpdateJournal::discardStaging()
{
    removeTree(stagingDir());
    removeFile(journalPath() + QStringLiteral(".tmp"));
}

QStringList UpdateJournal::recover(const QString &installDir)
{
    UpdateJournal journal(installDir);
    if (!pathExists(journal.journalPath())) {
        if (!pathExists(journal.stagingDir())
            && !pathExists(journal.journalPath() + QStringLiteral(".tmp"))) {
            return {};
        }
        journal.discardStaging();
        return {QStringLiteral("Removed the files of an unfinished update; the installed version "
                               "was not changed")};
    }
    State state = State::Switch;
    const TerminationHold held;
    if (!journal.read(&state)) {
        return {QStringLiteral("Update journal %1 cannot be read; left as it is")
                        .arg(journal.journalPath())};
    }
    QString error;
    int failed = 0;
    if (state == State::Switch && journal.apply(&failed, &error) && journal.finish(&error))
        return {QStringLiteral("Completed an interrupted update: the new version is installed")};
    QStringList lines;
    if (state == State::Switch)
        lines << QStringLiteral("FAILED to complete an interrupted update: %1").arg(error);
    if (journal.rollback(&error)) {
        lines << QStringLiteral(
                "Rolled back an interrupted update: the previous version is installed");
    } else {
        lines << QStringLiteral("FAILED to roll back an interrupted update: %1").arg(error);
    }
    return lines;
}
