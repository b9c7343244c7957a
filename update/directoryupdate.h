#pragma once

#include "update/installquestion.h"

#include <QObject>
#include <QSet>
#include <QString>

#include <memory>
#include <optional>

struct FileSpecification;
struct PathStatus;
class TaskSpecification;
class UpdateJournal;

// Installs a downloaded version in two phases. Staging unpacks or copies every downloaded file
// into a directory inside the installation and verifies it there, changing nothing installed.
// Switching then records a journal and moves the files into place with renames only, removing
// what the product list's "delete" group names; a failure rolls the installation back to the
// previous version. Staging may begin while the download runs, each file as it arrives. Lives
// for one run; asks the user through the question handler unless silent.
class DirectoryUpdate : public QObject
{
    Q_OBJECT

public:
    explicit DirectoryUpdate(QObject *parent = nullptr);
    ~DirectoryUpdate() override;

    // Who answers when a file cannot be installed; none means Abort.
    void setQuestion(InstallQuestion handler) { question = std::move(handler); }

    // Staging begins while the download runs: a switch a killed run left is finished first.
    void beginStaging(const QString &targetDir);
    // Stages a downloaded and verified file at once, so that the installation finds it staged.
    // Says nothing and leaves nothing when that fails: the installation stages it then.
    void prestage(const FileSpecification &entry, const QString &sourceDir);
    // Removes what was staged for a download that will not be installed.
    void abandonStaging();

    // True when the new version stands whole in targetDir. False when the product list cannot
    // be read, a file could not be staged or switched (the previous version then stands), or
    // the user skipped or stopped.
    bool updateContent(bool silent, const QString &sourceDir, const QString &productIni,
                       const QString &targetDir);

signals:
    void updateInitiated();
    void progress(quint64 done, quint64 total);
    void message(QString text);
    void updateFinished();

public slots:
    void emitUpdateFinished();

private:
    enum class Outcome { Whole, Partial, Failed };

    // Where a listed file's content is.
    struct Source;
    static Source sourceOf(const FileSpecification &entry, const QString &sourceDir);

    Outcome stageFiles(bool silent, const QString &sourceDir, const TaskSpecification &task,
                       UpdateJournal *journal);
    // Stages one listed file, or takes what was staged while the download ran, and returns the
    // problem to ask about, empty when it is staged. A file not downloaded (downloaded false)
    // is installed already.
    QString stageListed(const FileSpecification &entry, const QString &sourceDir,
                        const PathStatus &targetStatus, UpdateJournal *journal, Source *source,
                        bool *downloaded);
    Outcome switchFiles(bool silent, bool removesFiles, UpdateJournal *journal);
    // Why the installed file at relative could not be replaced, logged; empty when it can be.
    // The box text of the question goes to question.
    QString replaceProblem(const QString &relative, const PathStatus &installed,
                           const UpdateJournal &journal, QString *question);
    // Puts one entry into staging and returns its error line, empty when all went well; what
    // failed is not left there.
    QString stageFile(const FileSpecification &entry, const QString &source,
                      const PathStatus &sourceStatus, const QString &staged, const QString &target,
                      const PathStatus &installed);
    // Staging and the working directory are this run's own: a directory made once stays.
    bool makeDirectory(const QString &path);
    void keepUnpacked(const FileSpecification &entry, const QString &sourceDir,
                      const QString &download, const QString &staged);
    // Whether ask() puts the question to a person, who may take their time, or answers Abort.
    bool asksPerson(bool silent) const { return !silent && question; }
    // Abort when silent: an unattended run never installs a version with holes.
    InstallAnswer ask(bool silent, const QString &text) const;

    bool isPrestaged(const QString &staged, const FileSpecification &entry) const;

    InstallQuestion question;
    QSet<QString> madeDirectories;
    QSet<QString> stagedFiles;
    // Staging begun while the download ran, in its installation; null before.
    std::unique_ptr<UpdateJournal> staging;
    // Staged while the download ran.
    QSet<QString> prestaged;
    // Links reach the staging from the working directory; unknown before the first file.
    std::optional<bool> linksToStaging;
};
