#pragma once

#include "app/commandlineoptions.h"
#include "ui_mainwindow.h"

#include <QString>
#include <QWidget>

class FTPProductDownloadSession;

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

private:
    Ui_MainWindow ui;
    CommandLineOptions options;
    QString clientType;
    int clientVersion = 0;
    int speedTimerId = 0;
    FTPProductDownloadSession *session = nullptr;
    quint64 downloadedKB = 0;
    quint64 totalKB = 0;
    quint64 elapsedSeconds = 0;
    bool updateDone = false;
    QString tempDir;
};
