#include "ui/mainwindow.h"

#include "app/apppaths.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>

#include <cstdio>

namespace {

const QString makerWebAddress = QStringLiteral("https://www.orlivo.com/");
const QString updateDataFileName = QStringLiteral("update.ini");
const QString currentGroup = QStringLiteral("current");

QString updateDataPath(const QString &dir)
{
    return QDir(dir).absoluteFilePath(updateDataFileName);
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

void MainWindow::on_startButton_clicked() {}

void MainWindow::onAppendText(const QString &text)
{
    ui.outputTextEdit->append(text);
    // An unattended run has nobody watching the pane; standard error keeps the log.
    std::fprintf(stderr, "%s\n", text.toLocal8Bit().constData());
}

void MainWindow::onUpdateFinished() {}

void MainWindow::onProgressUpdate(quint64, quint64) {}

void MainWindow::onDownloadInitiated() {}

void MainWindow::onProgressCount(quint64, quint64) {}

void MainWindow::onStreamStarted(int) {}

// Per-stream details reach the user through the session's messages only.
void MainWindow::onStreamSwitchMirror(int) {}

void MainWindow::onStreamError(int, const QString &) {}

void MainWindow::onStreamFinished() {}

void MainWindow::onStreamProgress(int, qulonglong, qulonglong) {}

void MainWindow::onProcessCancelled() {}
