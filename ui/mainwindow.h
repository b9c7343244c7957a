#pragma once

#include "app/commandlineoptions.h"
#include "session/initialparameters.h"
#include "ui_mainwindow.h"

#include <QElapsedTimer>
#include <QMessageBox>
#include <QString>
#include <QTimer>
#include <QWidget>

class FTPProductDownloadSession;
class QCloseEvent;
class QTimerEvent;

// The program's one window and the controller of one update run; it owns the running session
// and keeps the record of an unfinished run in update.ini.
class MainWindow : public QWidget
{
    Q_OBJECT

public:
    explicit MainWindow(const CommandLineOptions &commandLineOptions);

    // Reads the "current" group of update.ini in baseDir (the installation when empty). True,
    // with each non-null output filled, only when version and dir are set and dir exists.
    bool getExistingUpdateData(QString baseDir, QString *version, QString *type, QString *dir);
    // Records the run in the "current" group of the installation's update.ini.
    void modifyUpdateData(const QString &version, const QString &dir);
    // Removes the "current" group; the user's "update" settings stay.
    void cleanupCurrentUpdateDataIniFile();

public slots:
    void on_startButton_clicked();
    // Appends a paragraph to the log pane and a line to standard error.
    void onAppendText(const QString &text);
    void onUpdateFinished();
    void onProgressUpdate(quint64 current, quint64 total);
    void onDownloadInitiated();
    void onProgressCount(quint64 current, quint64 total);
    void onStreamStarted(int stream);
    void onStreamSwitchMirror(int stream);
    void onStreamError(int stream, const QString &text);
    void onStreamFinished();
    void onStreamProgress(int stream, qulonglong done, qulonglong total);
    void onProcessCancelled();

protected:
    // Asks before the window goes while a download runs; the run's files stay for a resume.
    void closeEvent(QCloseEvent *event) override;
    // The speed tick: the average rate since the run started.
    void timerEvent(QTimerEvent *event) override;

private:
    // The first steps of a press: an earlier run of the same version is taken up again, one of
    // another version cleaned away. Returns the remembered version and directory, or empties.
    bool takeUpEarlierSession(QString *version, QString *dir);
    void refuseToStart(QMessageBox::Icon icon, const QString &text);
    // True, after telling so, when the update server announces an older version than the one
    // installed: a replayed announcement must not roll the client back.
    bool refusesDowngrade();
    void recordInstalledVersion();
    void removeStaleSession(const QString &version, const QString &dir);
    void createSession();
    InitialParameters sessionParameters(const QString &version, const QString &workingDir,
                                        bool resume) const;
    void stopSpeedTimer();
    // Puts the latest progress on the bar and the size labels.
    void showProgress();
    // Shows at once what a pending refresh would show later.
    void flushProgress();

    // Installs the downloaded files; false when the new version does not stand whole (the log
    // tells why).
    bool copyTemporaryOnly();
    void removeTemporaryOnly();
    // Removes the run's working directory, its session file and its record in update.ini.
    void cleanupCurrentUpdateFiles();

    Ui_MainWindow ui;
    CommandLineOptions options;
    QString clientType;
    int clientVersion = 0;
    int speedTimerId = 0;
    FTPProductDownloadSession *session = nullptr;
    quint64 downloadedKB = 0;
    quint64 totalKB = 0;
    quint64 elapsedSeconds = 0;
    quint64 progressCurrent = 0;
    quint64 progressTotal = 0;
    QElapsedTimer progressShown;
    QTimer progressRefresh;
    bool updateDone = false;
    QString tempDir;
};
