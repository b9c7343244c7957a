#pragma once

#include "session/initialparameters.h"
#include "app/updatedatafile.h"
#include "update/installquestion.h"

#include <QObject>
#include <QString>

#include <memory>

class ConnectionWarmup;
class DirectoryUpdate;
class FTPProductDownloadSession;

// One update run without a window: the start sequence (an earlier run taken up again or cleaned
// away, the working directory, the record in update.ini), the download session it owns, and the
// installation of what the session fetched. Its owner shows what the signals tell.
class UpdateRun : public QObject
{
    Q_OBJECT

public:
    // announced: the version is the update server's announcement, not the user's choice.
    UpdateRun(const QString &clientType, int clientVersion, bool announced, bool unattended);
    ~UpdateRun() override;

    // The start is certain and near: the first mirror is reached meanwhile.
    void prepareStart();
    // Starts a download; false, after refused(), when nothing could be started.
    bool start();
    bool isRunning() const { return session != nullptr; }
    // Who answers when a file cannot be installed.
    void setQuestion(InstallQuestion handler) { question = std::move(handler); }

signals:
    void refused(const QString &text, bool critical);
    // The download begins; the session's signals follow.
    void started();
    void message(const QString &text);
    void downloadInitiated();
    void progressCount(quint64 done, quint64 total);
    void streamStarted(int stream);
    void streamSwitchMirror(int stream);
    void streamError(int stream, const QString &text);
    void streamFinished();
    void streamProgress(int stream, qulonglong done, qulonglong total);
    void processCancelled();
    // Everything is downloaded; the installation follows at once.
    void downloadFinished();
    void installProgress(quint64 done, quint64 total);
    // installed: the new version stands whole and the run's files are gone.
    void updateFinished(bool installed);

private:
    // An earlier run of the same type and version is taken up again, any other cleaned away;
    // false when its record names a client type that cannot be a product list's name.
    bool takeUpEarlierSession(QString *version, QString *dir);
    // True, after telling so, when the update server announces an older version than the one
    // installed: a replayed announcement must not roll the client back.
    bool refusesDowngrade();
    void removeStaleSession(const QString &version, const QString &dir);
    void createSession();
    InitialParameters sessionParameters(const QString &version, const QString &workingDir,
                                        bool resume) const;
    // The run goes on without what update.ini should have kept; the log says what is lost.
    void reportUnwritableData(const QString &consequence);
    void dropUnrecordedWorkingDir();
    void onDownloadFinished();
    void onProcessCancelled();
    // Installs the downloaded files; false when the new version does not stand whole (the log
    // tells why).
    bool copyTemporaryOnly();
    void removeTemporaryOnly();
    // Removes the run's working directory, its session file and its record in update.ini.
    void cleanupCurrentUpdateFiles();

    QString clientType;
    int clientVersion = 0;
    bool announced = false;
    bool unattended = false;
    UpdateDataFile dataFile;
    FTPProductDownloadSession *session = nullptr;
    std::unique_ptr<ConnectionWarmup> warmup;
    // Stages each file as it arrives, and installs the version once all are there.
    DirectoryUpdate *installation = nullptr;
    QString tempDir;
    // False when update.ini could not record tempDir for a later run.
    bool workingDirRecorded = true;
    InstallQuestion question;
};
