#pragma once

#include <QString>
#include <QStringList>

struct FileSpecification;
class QSettings;

// Checks a mirror tree in a local directory against one of its product lists, as the updater
// would find it: every listed file present with its listed length and checksum, every packed
// file unpacking to its listed length and checksum, every path safe and every install path
// named once. Problems are collected one line each, naming the list and the file.
class MirrorChecker
{
public:
    explicit MirrorChecker(const QString &listPath);

    // True when nothing was found wrong.
    bool check();

    QStringList problems() const { return found; }
    int checkedFiles() const { return checked; }

private:
    void reportUnreadableList(QSettings &settings);
    bool checkNames(const FileSpecification &entry);
    void checkFile(const FileSpecification &entry);
    void checkUnpacked(const FileSpecification &entry, const QString &path);
    void report(const FileSpecification &entry, const QString &problem);
    void report(const QString &problem);

    QString listPath;
    QStringList found;
    int checked = 0;
};
