#pragma once

#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

// The switch from one installed version to the next, recorded in the installation before the
// first file moves. Staged files wait in ".update-staging/new", the files they replace or that
// go are kept in ".update-staging/backup" until the switch is whole. Every step can be applied
// or undone again after a kill at any point, so that the next start finishes the switch or rolls
// it back and the installation is always one whole version. Not a QObject: reports are returned.
class UpdateJournal
{
public:
    enum class Action {
        Add,          // a new file
        Replace,      // an installed file is replaced
        ReplaceInUse, // also keeps the old file under its "_old_" name beside itself
        Delete,       // an installed file the new version no longer has
    };
    enum class State { Switch, Rollback };

    explicit UpdateJournal(const QString &installDir);

    // Plans one file, its path relative to the installation; the action follows from whether
    // something is installed there now.
    void planFile(const QString &relative, bool inUse, bool installed);
    void planDelete(const QString &relative);
    // True when the installed file at this absolute path goes in the switch.
    bool deletes(const QString &path) const;
    // What stands at a directory path of the installation: a link to a directory counts as one
    // while it stays inside; through one that leads out, or into the staging, nothing is made,
    // renamed or removed. Asked once per path: nothing installed changes while a switch is
    // planned.
    enum class Place { Directory, Missing, Other, Outside };
    Place place(const QString &relative) const;

    const QString &installDir() const { return root; }
    QString installedPath(const QString &relative) const;
    QString stagedPath(const QString &relative) const;
    QString asidePath(const QString &relative) const;
    QString stagingDir() const;
    // Removes every link that stands as a directory on the way to the staged file's place, so
    // that staging it never writes through one.
    void clearWayToStaged(const QString &relative);

    // Flushes the staged files and then records the switch; false with error set.
    bool begin(QString *error);
    // Applies every step; on a failure error names the file and the reason, and the steps
    // from failed on are left undone. Called again, it goes on from where it was.
    bool apply(int *failed, QString *error);
    // Undoes one step, e.g. after the user chose to keep that file.
    bool undo(int index, QString *error);
    // Records the rollback and puts back every file switched so far.
    bool rollback(QString *error);
    // Makes the switch durable and removes backups, staged files and the journal.
    bool finish(QString *error);
    // Removes staged files of a switch that never began.
    void discardStaging();
    // True while a journal is in the installation.
    bool isOpen() const;
    int size() const { return entries.size(); }
    QString pathAt(int index) const { return entries.at(index).path; }

    // Finishes or rolls back a switch a killed run left, and removes staging leftovers. Returns
    // the log lines: none when there was nothing to do.
    static QStringList recover(const QString &installDir);

private:
    struct Entry
    {
        Action action;
        QString path;
    };

    bool write(State state, QString *error);
    bool read(State *state);
    bool movedWithDirectory(const Entry &entry);
    bool moveDirectory(const QString &top);
    bool applyEntry(const Entry &entry, QString *error);
    bool undoEntry(const Entry &entry, QString *error);
    QString backupPath(const QString &relative) const;
    QString journalPath() const;

    bool reachesOutside(const QString &relative) const;

    QString root;
    mutable QString canonicalRoot;
    QList<Entry> entries;
    QStringList newDirectories;
    QSet<QString> newDirectorySet;
    // New directories of the installation tried whole, and whether that worked.
    QHash<QString, bool> movedDirectories;
    mutable QHash<QString, Place> places;
    // Directories of staging and backups known not to be links.
    QSet<QString> checkedDirectories;
};
