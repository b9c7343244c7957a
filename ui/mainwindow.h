#pragma once

#include "app/commandlineoptions.h"
#include "ui/terminalprogress.h"
#include "ui/updaterun.h"
#include "update/installquestion.h"
#include "ui_mainwindow.h"

#include <QElapsedTimer>
#include <QMessageBox>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QWidget>

class QCloseEvent;
class QTimerEvent;

// The program's one window: it starts one update run at a press of its button and shows the
// run's log, progress and speed, its questions and its end.
class MainWindow : public QWidget
{
    Q_OBJECT

public:
    explicit MainWindow(const CommandLineOptions &commandLineOptions);
    // Presses the start button after delayMs, without a click; the run prepares meanwhile.
    void startAfter(int delayMs);

public slots:
    void on_startButton_clicked();
    // Appends a paragraph to the log pane and a line to standard error.
    void onAppendText(const QString &text);
    void onUpdateFinished(bool installed);
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
    void connectRun();
    void reserveCountWidths();
    void refuseToStart(const QString &text, bool critical);
    void onRunStarted();
    void stopSpeedTimer();
    // Puts the latest progress on the bar and the size labels.
    void showProgress();
    // Shows at once what a pending refresh would show later.
    void flushProgress();
    void flushLog();
    // The directory update's question about a file that cannot be installed, as a box.
    InstallAnswer askAboutFile(const QString &text);

    Ui_MainWindow ui;
    CommandLineOptions options;
    UpdateRun run;
    int clientVersion = 0;
    int speedTimerId = 0;
    quint64 downloadedKB = 0;
    quint64 totalKB = 0;
    quint64 elapsedSeconds = 0;
    quint64 progressCurrent = 0;
    quint64 progressTotal = 0;
    QElapsedTimer progressShown;
    QTimer progressRefresh;
    QStringList pendingLog;
    QTimer logRefresh;
    TerminalProgress terminal;
    bool updateDone = false;
};
