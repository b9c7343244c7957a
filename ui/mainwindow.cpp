#include "ui/mainwindow.h"

#include "app/apppaths.h"
#include "app/messageboxes.h"
#include "session/ftpproductdownloadsession.h"
#include "ui/workingdirectory.h"
#include "update/cleanup.h"
#include "update/directoryupdate.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QTimerEvent>

#include <cstdio>
#include <optional>
#include <utility>

namespace {

const QString makerWebAddress = QStringLiteral("https://www.orlivo.com/");
const QString updateDataFileName = QStringLiteral("update.ini");
const QString mirrorsFileName = QStringLiteral("mirrors.ini");
const QString currentGroup = QStringLiteral("current");
const QString installedVersionKey = QStringLiteral("installed/version");
constexpr int speedTickMs = 1000;
constexpr int sessionStreams = 4;
// The bar and the size labels follow the progress at most this often: with thousands of small
// files, repainting the bar and laying the window out again for every file cost more than the
// files themselves, and nobody sees changes faster than this.
constexpr qint64 progressRefreshMs = 50;

QString updateDataPath(const QString &dir)
{
    return QDir(dir).absoluteFilePath(updateDataFileName);
}

QString appFilePath(const QString &name)
{
    return QDir(getAppRootPath()).absoluteFilePath(name);
}

QString sessionFilePath(const QString &version)
{
    return appFilePath(QStringLiteral("session_") + version + QStringLiteral(".ini"));
}

// Removes the emptied dir from its parent: whether that worked, or nothing when dir has no
// parent to go to.
std::optional<bool> removeFromParent(const QString &dir)
{
    QDir parent(dir);
    const QString name = parent.dirName();
    if (!parent.cdUp())
        return std::nullopt;
    return parent.rmdir(name);
}

} // namespace

MainWindow::MainWindow(const CommandLineOptions &commandLineOptions)
    : QWidget(nullptr)
    , options(commandLineOptions)
    , clientType(commandLineOptions.clientType)
    , clientVersion(commandLineOptions.clientVersion)
{
    ui.setupUi(this);
    ui.orlivoLabel->setUrl(makerWebAddress);
    ui.revnoLabel->setText(QString::number(clientVersion));
    ui.outputTextEdit->hide();
    progressRefresh.setSingleShot(true);
    connect(&progressRefresh, &QTimer::timeout, this, &MainWindow::showProgress);
}

bool MainWindow::getExistingUpdateData(QString baseDir, QString *version, QString *type,
                                       QString *dir)
{
    if (baseDir.isEmpty())
        baseDir = getAppRootPath();
    QSettings settings(updateDataPath(baseDir), QSettings::IniFormat);
    settings.beginGroup(currentGroup);
    const QString storedVersion = settings.value(QStringLiteral("version")).toString();
    const QString storedDir = settings.value(QStringLiteral("dir")).toString();
    const QString storedType = settings.value(QStringLiteral("type")).toString();
    if (storedVersion.isEmpty() || storedDir.isEmpty() || !QFileInfo::exists(storedDir))
        return false;

    if (version)
        *version = storedVersion;
    if (type)
        *type = storedType;
    if (dir)
        *dir = storedDir;
    return true;
}

void MainWindow::modifyUpdateData(const QString &version, const QString &dir)
{
    QSettings settings(updateDataPath(getAppRootPath()), QSettings::IniFormat);
    settings.beginGroup(currentGroup);
    settings.setValue(QStringLiteral("version"), version);
    settings.setValue(QStringLiteral("dir"), dir);
    settings.setValue(QStringLiteral("type"), clientType);
}

void MainWindow::cleanupCurrentUpdateDataIniFile()
{
    QSettings settings(updateDataPath(getAppRootPath()), QSettings::IniFormat);
    settings.remove(currentGroup);
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
    if (!QFile::exists(appFilePath(mirrorsFileName))) {
        refuseToStart(QMessageBox::Critical,
                      tr("%1 is missing, cannot proceed.").arg(mirrorsFileName));
        return;
    }
    if (refusesDowngrade())
        return;

    QString version;
    QString workingDir;
    if (!takeUpEarlierSession(&version, &workingDir)) {
        refuseToStart(QMessageBox::Critical, QCoreApplication::translate("", "Wrong client type"));
        return;
    }
    if (session)
        return;

    const bool resume = !workingDir.isEmpty();
    if (!resume) {
        const QString tempPath = QDir::tempPath();
        if (!tempPath.isEmpty())
            workingDir = createWorkingDirectory(tempPath);
        if (workingDir.isEmpty()) {
            refuseToStart(QMessageBox::Warning, tr("Unable to get temp directory."));
            return;
        }
    }

    createSession();
    elapsedSeconds = 0;
    speedTimerId = startTimer(speedTickMs);
    ui.startButton->setEnabled(false);

    if (version.isEmpty())
        version = QString::number(clientVersion);
    const InitialParameters parameters = sessionParameters(version, workingDir, resume);
    // Recorded before the first byte arrives, so that an interruption at any point is resumed.
    modifyUpdateData(version, workingDir);
    tempDir = workingDir;
    // A session without mirrors reports that itself, through its signals.
    session->initialize(parameters);
    session->startUpdate();
}

InitialParameters MainWindow::sessionParameters(const QString &version, const QString &workingDir,
                                                bool resume) const
{
    InitialParameters parameters;
    parameters.productListName = clientType;
    parameters.versionPath = version;
    parameters.mirrorsFile = appFilePath(mirrorsFileName);
    parameters.updateDataFile = appFilePath(updateDataFileName);
    parameters.tempDirectory = workingDir;
    parameters.resumeSession = resume;
    parameters.defaultStreams = sessionStreams;
    parameters.sessionFile = sessionFilePath(version);
    parameters.reservedFlag = false;
    return parameters;
}

void MainWindow::refuseToStart(QMessageBox::Icon icon, const QString &text)
{
    showMessageBox(this, icon, tr("Error"), text);
    // Nobody would press the button again.
    if (options.runMode == 2)
        QCoreApplication::exit(1);
}

bool MainWindow::refusesDowngrade()
{
    const QSettings settings(updateDataPath(getAppRootPath()), QSettings::IniFormat);
    const int installed = settings.value(installedVersionKey, 0).toInt();
    if (!options.versionFromServer || clientVersion >= installed)
        return false;
    onAppendText(QStringLiteral("The update server announces version %1, lower than the "
                                "installed version %2: not installed")
                         .arg(clientVersion)
                         .arg(installed));
    refuseToStart(QMessageBox::Warning,
                  tr("The update server announces version %1, older than the installed version "
                     "%2. Nothing was changed.")
                          .arg(clientVersion)
                          .arg(installed));
    return true;
}

void MainWindow::recordInstalledVersion()
{
    QSettings settings(updateDataPath(getAppRootPath()), QSettings::IniFormat);
    settings.setValue(installedVersionKey, clientVersion);
}

// False when the record names a client type that cannot be a product list's name.
bool MainWindow::takeUpEarlierSession(QString *version, QString *dir)
{
    QString storedVersion;
    QString storedType;
    QString storedDir;
    if (!getExistingUpdateData(QString(), &storedVersion, &storedType, &storedDir))
        return true;
    // A tampered or foreign record must not make this program empty somebody's directory.
    if (!isOwnWorkingDirectory(storedDir, QDir::tempPath())) {
        onAppendText(QStringLiteral("Recorded directory %1 was not made by the updater, "
                                    "record dropped")
                             .arg(storedDir));
        cleanupCurrentUpdateDataIniFile();
        return true;
    }
    if (!isValidClientType(storedType))
        return false;
    clientType = storedType;
    if (storedVersion == QString::number(clientVersion)) {
        onAppendText(QStringLiteral("Previous update session for v. %1 found").arg(storedVersion));
        *version = storedVersion;
        *dir = storedDir;
        return true;
    }
    removeStaleSession(storedVersion, storedDir);
    return true;
}

void MainWindow::removeStaleSession(const QString &version, const QString &dir)
{
    onAppendText(QStringLiteral("Cleanup previous session (v. %1, %2) files...").arg(version, dir));
    cleanupDirectory(dir);
    QFile::remove(sessionFilePath(version));
    if (const std::optional<bool> removed = removeFromParent(dir)) {
        onAppendText(*removed ? QStringLiteral("Ok")
                              : QStringLiteral("Failed to remove directory"));
    }
    cleanupCurrentUpdateDataIniFile();
}

void MainWindow::createSession()
{
    session = new FTPProductDownloadSession;
    using Session = FTPProductDownloadSession;
    connect(session, &Session::downloadInitiated, this, &MainWindow::onDownloadInitiated);
    connect(session, &Session::progressCount, this, &MainWindow::onProgressCount);
    connect(session, &Session::streamStarted, this, &MainWindow::onStreamStarted);
    connect(session, &Session::streamSwitchMirror, this, &MainWindow::onStreamSwitchMirror);
    connect(session, &Session::streamError, this, &MainWindow::onStreamError);
    connect(session, &Session::streamFinished, this, &MainWindow::onStreamFinished);
    connect(session, &Session::streamProgress, this, &MainWindow::onStreamProgress);
    connect(session, &Session::processCancelled, this, &MainWindow::onProcessCancelled);
    connect(session, &Session::downloadFinished, this, &MainWindow::onUpdateFinished);
    connect(session, &Session::message, this, &MainWindow::onAppendText);
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
    ui.outputTextEdit->append(text);
    // An unattended run has nobody watching the pane; standard error keeps the log.
    std::fprintf(stderr, "%s\n", text.toLocal8Bit().constData());
}

void MainWindow::onUpdateFinished()
{
    stopSpeedTimer();
    // The session emitted its last signal to get here and touches nothing after it.
    delete std::exchange(session, nullptr);
    if (!copyTemporaryOnly()) {
        // The previous version stands; the downloaded files and the record stay for a restart.
        ui.startButton->setText(tr("Restart"));
        ui.startButton->setEnabled(true);
        if (options.runMode == 2)
            QCoreApplication::exit(3);
        return;
    }
    recordInstalledVersion();
    removeTemporaryOnly();
    updateDone = true;
    ui.startButton->setText(tr("Start Orlivo"));
    ui.startButton->setEnabled(true);
    if (options.runMode == 2)
        close();
}

bool MainWindow::copyTemporaryOnly()
{
    onAppendText(QStringLiteral("Copy updated files..."));
    DirectoryUpdate update;
    connect(&update, &DirectoryUpdate::message, this, &MainWindow::onAppendText);
    connect(&update, &DirectoryUpdate::progress, this, &MainWindow::onProgressUpdate);
    onProgressUpdate(0, 1);
    const bool installed = update.updateContent(
            options.runMode == 2, tempDir,
            tempDir + QLatin1Char('/') + clientType + QStringLiteral(".ini"), getAppRootPath());
    flushProgress();
    // What failed has been logged by the update itself.
    if (!installed) {
        onAppendText(QStringLiteral("Update failed, version: %1").arg(clientVersion));
        return false;
    }
    onAppendText(QStringLiteral("Updated files copied"));
    return true;
}

void MainWindow::removeTemporaryOnly()
{
    onAppendText(QStringLiteral("Remove temporary files..."));
    cleanupCurrentUpdateFiles();
    onAppendText(QStringLiteral("Temporary files removed."));
    onAppendText(QStringLiteral("Update finished, version: %1").arg(clientVersion));
}

void MainWindow::cleanupCurrentUpdateFiles()
{
    QString version;
    QString dir;
    if (!getExistingUpdateData(QString(), &version, nullptr, &dir))
        return;
    // Emptied only when it is still the private directory the run made, never through a link.
    if (isOwnWorkingDirectory(dir, QDir::tempPath())) {
        cleanupDirectory(dir);
        removeFromParent(dir);
    }
    QFile::remove(sessionFilePath(version));
    cleanupCurrentUpdateDataIniFile();
}

void MainWindow::onProgressUpdate(quint64 current, quint64 total)
{
    totalKB = total / 1000;
    downloadedKB = current / 1000;
    progressCurrent = current;
    progressTotal = total;
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
    // The session emitted its last signal to get here and touches nothing after it.
    delete std::exchange(session, nullptr);
    onAppendText(QStringLiteral("Download cancelled"));

    // A refresh still pending would undo the reset below.
    flushProgress();
    QProgressBar *bar = ui.totalProgressBar;
    if (bar->maximum() == 0 && bar->value() == 0) {
        bar->setMaximum(1);
        bar->setValue(0);
    }
    // Nobody would answer the box; the program ends as soon as it has been dealt with.
    if (options.runMode == 2)
        QCoreApplication::exit(2);
    showMessageBox(this, QMessageBox::Critical, tr("Update"),
                   tr("Download cancelled. Push \"Details\" to check reasons."));
    bar->setMaximum(1);
    bar->setValue(0);
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    if (!session) {
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
