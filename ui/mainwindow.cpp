#include "ui/mainwindow.h"

#include "app/apppaths.h"
#include "app/messageboxes.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QProcess>
#include <QScrollBar>
#include <QTextCursor>
#include <QTimer>
#include <QTimerEvent>

#include <cstdio>

namespace {

const QString makerWebAddress = QStringLiteral("https://www.orlivo.com/");
constexpr int speedTickMs = 1000;
// The bar and the size labels follow the progress at most this often: with thousands of small
// files, repainting the bar and laying the window out again for every file cost more than the
// files themselves, and nobody sees changes faster than this.
constexpr qint64 progressRefreshMs = 50;

} // namespace

MainWindow::MainWindow(const CommandLineOptions &commandLineOptions)
    : QWidget(nullptr)
    , options(commandLineOptions)
    , run(commandLineOptions.clientType, commandLineOptions.clientVersion,
          commandLineOptions.versionFromServer,
          commandLineOptions.runMode == CommandLineOptions::Unattended)
    , clientVersion(commandLineOptions.clientVersion)
    , terminal(commandLineOptions.runMode == CommandLineOptions::Unattended)
{
    ui.setupUi(this);
    ui.orlivoLabel->setUrl(makerWebAddress);
    ui.revnoLabel->setText(QString::number(clientVersion));
    ui.outputTextEdit->hide();
    reserveCountWidths();
    progressRefresh.setSingleShot(true);
    connect(&progressRefresh, &QTimer::timeout, this, &MainWindow::showProgress);
    logRefresh.setSingleShot(true);
    logRefresh.setInterval(int(progressRefreshMs));
    connect(&logRefresh, &QTimer::timeout, this, &MainWindow::flushLog);
    connectRun();
}

// The window's size follows its contents: sizes and a speed that grow digit by digit would widen
// it under the pointer. Room is kept for 10 GB and 1 GB/s.
void MainWindow::reserveCountWidths()
{
    const auto reserve = [](QLabel *label, const QString &widest) {
        const QString text = label->text();
        label->setText(widest);
        label->setMinimumWidth(qMax(label->minimumWidth(), label->sizeHint().width()));
        label->setText(text);
    };
    reserve(ui.totalSizeLabel, tr("%1 KB").arg(9999999));
    reserve(ui.totalTotalSizeLabel, tr("%1 KB").arg(9999999));
    reserve(ui.downloadSpeedLabel, QString::number(999999) + tr(" KB/s"));
}

void MainWindow::connectRun()
{
    connect(&run, &UpdateRun::refused, this, &MainWindow::refuseToStart);
    connect(&run, &UpdateRun::started, this, &MainWindow::onRunStarted);
    connect(&run, &UpdateRun::message, this, &MainWindow::onAppendText);
    connect(&run, &UpdateRun::downloadInitiated, this, &MainWindow::onDownloadInitiated);
    connect(&run, &UpdateRun::progressCount, this, &MainWindow::onProgressCount);
    connect(&run, &UpdateRun::streamStarted, this, &MainWindow::onStreamStarted);
    connect(&run, &UpdateRun::streamSwitchMirror, this, &MainWindow::onStreamSwitchMirror);
    connect(&run, &UpdateRun::streamError, this, &MainWindow::onStreamError);
    connect(&run, &UpdateRun::streamFinished, this, &MainWindow::onStreamFinished);
    connect(&run, &UpdateRun::streamProgress, this, &MainWindow::onStreamProgress);
    connect(&run, &UpdateRun::processCancelled, this, &MainWindow::onProcessCancelled);
    connect(&run, &UpdateRun::downloadFinished, this, &MainWindow::stopSpeedTimer);
    connect(&run, &UpdateRun::installProgress, this, &MainWindow::onProgressUpdate);
    connect(&run, &UpdateRun::updateFinished, this, &MainWindow::onUpdateFinished);
    run.setQuestion([this](const QString &text) { return askAboutFile(text); });
}

void MainWindow::startAfter(int delayMs)
{
    auto *autoStart = new QTimer(this);
    autoStart->setSingleShot(true);
    connect(autoStart, &QTimer::timeout, this, &MainWindow::on_startButton_clicked);
    autoStart->start(delayMs);
    run.prepareStart();
}

void MainWindow::on_startButton_clicked()
{
    if (updateDone) {
        // Nobody waits for the client; whether it started is its own business.
        QProcess::startDetached(QCoreApplication::applicationDirPath() + QLatin1Char('/')
                                        + getClientBinaryName(),
                                {});
        close();
        return;
    }
    run.start();
}

void MainWindow::onRunStarted()
{
    elapsedSeconds = 0;
    speedTimerId = startTimer(speedTickMs);
    ui.startButton->setEnabled(false);
}

void MainWindow::refuseToStart(const QString &text, bool critical)
{
    flushLog();
    showMessageBox(this, critical ? QMessageBox::Critical : QMessageBox::Warning, tr("Error"),
                   text);
    // Nobody would press the button again.
    if (options.runMode == CommandLineOptions::Unattended)
        QCoreApplication::exit(1);
}

void MainWindow::stopSpeedTimer()
{
    if (speedTimerId == 0)
        return;
    killTimer(speedTimerId);
    speedTimerId = 0;
}

void MainWindow::onAppendText(const QString &text)
{
    pendingLog << text;
    if (!logRefresh.isActive())
        logRefresh.start();
    // An unattended run has nobody watching the pane; standard error keeps the log.
    terminal.print(text);
}

// Lines reach the pane in batches: laying the document out again for each of thousands of small
// files cost more than the files. As plain text, each line a paragraph of its own.
void MainWindow::flushLog()
{
    logRefresh.stop();
    if (pendingLog.isEmpty())
        return;
    QTextEdit *pane = ui.outputTextEdit;
    QScrollBar *bar = pane->verticalScrollBar();
    const bool following = bar->value() == bar->maximum();
    QTextCursor cursor(pane->document());
    cursor.movePosition(QTextCursor::End);
    if (!pane->document()->isEmpty())
        cursor.insertBlock();
    cursor.insertText(pendingLog.join(QLatin1Char('\n')));
    pendingLog.clear();
    if (following)
        bar->setValue(bar->maximum());
}

void MainWindow::onUpdateFinished(bool installed)
{
    stopSpeedTimer();
    flushProgress();
    flushLog();
    terminal.finish();
    if (!installed) {
        ui.startButton->setText(tr("Restart"));
        ui.startButton->setEnabled(true);
        if (options.runMode == CommandLineOptions::Unattended)
            QCoreApplication::exit(3);
        return;
    }
    updateDone = true;
    ui.startButton->setText(tr("Start Orlivo"));
    ui.startButton->setEnabled(true);
    if (options.runMode == CommandLineOptions::Unattended)
        close();
}

InstallAnswer MainWindow::askAboutFile(const QString &text)
{
    flushLog();
    switch (showMessageBox(this, QMessageBox::Question, tr("Question"), text,
                           QMessageBox::Abort | QMessageBox::Retry | QMessageBox::Ignore,
                           QMessageBox::Retry)) {
    case QMessageBox::Retry:
        return InstallAnswer::Retry;
    case QMessageBox::Ignore:
        return InstallAnswer::Ignore;
    default:
        return InstallAnswer::Abort;
    }
}

void MainWindow::onProgressUpdate(quint64 current, quint64 total)
{
    totalKB = total / 1000;
    downloadedKB = current / 1000;
    progressCurrent = current;
    progressTotal = total;
    terminal.setProgress(current, total);
    if (progressRefresh.isActive())
        return;
    const qint64 sinceShown = progressShown.isValid() ? progressShown.elapsed() : progressRefreshMs;
    if (sinceShown >= progressRefreshMs)
        showProgress();
    else
        progressRefresh.start(int(progressRefreshMs - sinceShown));
}

void MainWindow::showProgress()
{
    progressRefresh.stop();
    progressShown.start();
    // The bar counts in units of 100 bytes, so that large downloads fit its int range.
    const int maximum = int(float(progressTotal) / 100.0);
    if (maximum != ui.totalProgressBar->maximum())
        ui.totalProgressBar->setMaximum(maximum);
    ui.totalProgressBar->setValue(int(float(progressCurrent) / 100.0));
    ui.totalSizeLabel->setText(tr("%1 KB").arg(progressCurrent / 1000));
    ui.totalTotalSizeLabel->setText(tr("%1 KB").arg(progressTotal / 1000));
}

void MainWindow::flushProgress()
{
    if (progressRefresh.isActive())
        showProgress();
}

void MainWindow::onDownloadInitiated()
{
    onAppendText(QStringLiteral("Download started\n"));
}

void MainWindow::onProgressCount(quint64 current, quint64 total)
{
    onProgressUpdate(current, total);
}

void MainWindow::onStreamStarted(int stream)
{
    onAppendText(QStringLiteral("Download stream %1 started").arg(stream));
}

// Per-stream details reach the user through the session's messages only.
void MainWindow::onStreamSwitchMirror(int) {}

void MainWindow::onStreamError(int, const QString &) {}

void MainWindow::onStreamFinished() {}

void MainWindow::onStreamProgress(int, qulonglong, qulonglong) {}

void MainWindow::onProcessCancelled()
{
    stopSpeedTimer();
    updateDone = false;
    ui.startButton->setText(tr("Restart"));
    ui.startButton->setEnabled(true);
    terminal.finish();
    onAppendText(QStringLiteral("Download cancelled"));
    flushLog();

    // A refresh still pending would undo the reset below.
    flushProgress();
    QProgressBar *bar = ui.totalProgressBar;
    if (bar->maximum() == 0 && bar->value() == 0) {
        bar->setMaximum(1);
        bar->setValue(0);
    }
    // Nobody would answer the box; the program ends as soon as it has been dealt with.
    if (options.runMode == CommandLineOptions::Unattended)
        QCoreApplication::exit(2);
    showMessageBox(this, QMessageBox::Critical, tr("Update"),
                   tr("Download cancelled. Push \"Details\" to check reasons."));
    bar->setMaximum(1);
    bar->setValue(0);
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    if (!run.isRunning()) {
        event->accept();
        return;
    }
    const QMessageBox::StandardButton answer =
            showMessageBox(this, QMessageBox::Question, tr("Question"),
                           tr("<p>Update in progress.</p><p>Are you sure you want to abort?</p>"),
                           QMessageBox::Yes | QMessageBox::No);
    if (answer == QMessageBox::Yes)
        event->accept();
    else
        event->ignore();
}

void MainWindow::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != speedTimerId) {
        QWidget::timerEvent(event);
        return;
    }
    ++elapsedSeconds;
    ui.downloadSpeedLabel->setText(QString::number(qint64(downloadedKB) / qint64(elapsedSeconds))
                                   + tr(" KB/s"));
}
