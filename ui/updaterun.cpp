#include "ui/updaterun.h"

#include "app/apppaths.h"
#include "app/commandlineoptions.h"
#include "session/connectionwarmup.h"
#include "session/ftpproductdownloadsession.h"
#include "tasks/productlist.h"
#include "ui/workingdirectory.h"
#include "update/cleanup.h"
#include "update/directoryupdate.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <optional>
#include <utility>

namespace {

const QString mirrorsFileName = QStringLiteral("mirrors.ini");
constexpr int sessionStreams = 4;

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

UpdateRun::UpdateRun(const QString &clientType, int clientVersion, bool announced, bool unattended)
    : clientType(clientType)
    , clientVersion(clientVersion)
    , announced(announced)
    , unattended(unattended)
    , installation(new DirectoryUpdate(this))
{
    connect(installation, &DirectoryUpdate::message, this, &UpdateRun::message);
    connect(installation, &DirectoryUpdate::progress, this, &UpdateRun::installProgress);
}

UpdateRun::~UpdateRun()
{
    // Ended before its download did: what was staged would only wait for the next start.
    if (session)
        installation->abandonStaging();
    delete session;
}

void UpdateRun::prepareStart()
{
    warmup = std::make_unique<ConnectionWarmup>(appFilePath(mirrorsFileName), dataFile.path());
}

bool UpdateRun::start()
{
    // A pipe in its place is as good as none, and reading it would never end.
    const QFileInfo mirrorsFile(appFilePath(mirrorsFileName));
    if (!mirrorsFile.isFile() && !mirrorsFile.isDir()) {
        emit refused(tr("%1 is missing, cannot proceed.").arg(mirrorsFileName), true);
        return false;
    }
    if (refusesDowngrade())
        return false;

    QString version;
    QString workingDir;
    if (!takeUpEarlierSession(&version, &workingDir)) {
        emit refused(QCoreApplication::translate("", "Wrong client type"), true);
        return false;
    }
    if (session)
        return false;

    const bool resume = !workingDir.isEmpty();
    if (!resume) {
        const QString tempPath = QDir::tempPath();
        if (!tempPath.isEmpty())
            workingDir = createWorkingDirectory(tempPath);
        if (workingDir.isEmpty()) {
            emit refused(tr("Unable to get temp directory."), false);
            return false;
        }
    }

    createSession();
    emit started();

    if (version.isEmpty())
        version = QString::number(clientVersion);
    const InitialParameters parameters = sessionParameters(version, workingDir, resume);
    // Recorded before the first byte arrives, so that an interruption at any point is resumed.
    workingDirRecorded = dataFile.modifyUpdateData(version, workingDir, clientType);
    if (!workingDirRecorded)
        reportUnwritableData(QStringLiteral("an interrupted update will start from the beginning"));
    tempDir = workingDir;
    // A session without mirrors reports that itself, through its signals.
    session->initialize(parameters);
    session->holdWarmConnection(std::move(warmup));
    session->startUpdate();
    return true;
}

void UpdateRun::reportUnwritableData(const QString &consequence)
{
    emit message(QStringLiteral("%1 cannot be written: %2").arg(dataFile.path(), consequence));
}

InitialParameters UpdateRun::sessionParameters(const QString &version, const QString &workingDir,
                                               bool resume) const
{
    InitialParameters parameters;
    parameters.productListName = clientType;
    parameters.versionPath = version;
    parameters.mirrorsFile = appFilePath(mirrorsFileName);
    parameters.updateDataFile = dataFile.path();
    parameters.tempDirectory = workingDir;
    parameters.resumeSession = resume;
    parameters.defaultStreams = sessionStreams;
    parameters.sessionFile = sessionFilePath(version);
    parameters.reservedFlag = false;
    return parameters;
}

bool UpdateRun::refusesDowngrade()
{
    if (!announced)
        return false;
    std::optional<int> installed;
    if (!dataFile.installedVersion(&installed)) {
        emit message(QStringLiteral("No installed version is recorded: version %1 is taken")
                             .arg(clientVersion));
        return false;
    }
    if (installed && clientVersion >= *installed)
        return false;
    // A version that cannot be read is no baseline to go below.
    const QString shown = installed ? QString::number(*installed) : QStringLiteral("(unreadable)");
    emit message(QStringLiteral("The update server announces version %1, lower than the "
                                "installed version %2: not installed")
                         .arg(QString::number(clientVersion), shown));
    emit refused(tr("The update server announces version %1, older than the installed version "
                    "%2. Nothing was changed.")
                         .arg(QString::number(clientVersion), shown),
                 false);
    return true;
}

bool UpdateRun::takeUpEarlierSession(QString *version, QString *dir)
{
    QString storedVersion;
    QString storedType;
    QString storedDir;
    if (!dataFile.getExistingUpdateData(&storedVersion, &storedType, &storedDir))
        return true;
    // A tampered or foreign record must not make this program empty somebody's directory.
    if (!isOwnWorkingDirectory(storedDir, QDir::tempPath())) {
        emit message(QStringLiteral("Recorded directory %1 was not made by the updater, "
                                    "record dropped")
                             .arg(storedDir));
        dataFile.cleanupCurrentUpdateDataIniFile();
        return true;
    }
    if (!isValidClientType(storedType))
        return false;
    // What was asked for holds: a record of another product is dropped, never taken up.
    if (storedType != clientType) {
        emit message(QStringLiteral("Previous update session is for client type %1, not %2: "
                                    "dropped")
                             .arg(storedType, clientType));
        removeStaleSession(storedVersion, storedDir);
        return true;
    }
    if (storedVersion == QString::number(clientVersion)) {
        emit message(QStringLiteral("Previous update session for v. %1 found").arg(storedVersion));
        // No download made a link there, one would lead the run's writes anywhere; nor is a
        // download installed already as the installed file itself, which a resumed write would
        // change in place.
        removeAllButDownloadsBelow(storedDir);
        *version = storedVersion;
        *dir = storedDir;
        return true;
    }
    removeStaleSession(storedVersion, storedDir);
    return true;
}

void UpdateRun::removeStaleSession(const QString &version, const QString &dir)
{
    emit message(QStringLiteral("Cleanup previous session (v. %1, %2) files...").arg(version, dir));
    cleanupDirectory(dir);
    QFile::remove(sessionFilePath(version));
    if (const std::optional<bool> removed = removeFromParent(dir)) {
        emit message(*removed ? QStringLiteral("Ok")
                              : QStringLiteral("Failed to remove directory"));
    }
    dataFile.cleanupCurrentUpdateDataIniFile();
}

void UpdateRun::createSession()
{
    session = new FTPProductDownloadSession;
    using Session = FTPProductDownloadSession;
    connect(session, &Session::downloadInitiated, this, &UpdateRun::downloadInitiated);
    connect(session, &Session::progressCount, this, &UpdateRun::progressCount);
    connect(session, &Session::streamStarted, this, &UpdateRun::streamStarted);
    connect(session, &Session::streamSwitchMirror, this, &UpdateRun::streamSwitchMirror);
    connect(session, &Session::streamError, this, &UpdateRun::streamError);
    connect(session, &Session::streamFinished, this, &UpdateRun::streamFinished);
    connect(session, &Session::streamProgress, this, &UpdateRun::streamProgress);
    connect(session, &Session::processCancelled, this, &UpdateRun::onProcessCancelled);
    connect(session, &Session::downloadFinished, this, &UpdateRun::onDownloadFinished);
    connect(session, &Session::message, this, &UpdateRun::message);
    // The link keeps the run waiting: staging meanwhile leaves less to do after the last file.
    installation->beginStaging(getAppRootPath());
    connect(session, &Session::fileReady, this,
            [this](const FileSpecification &file) { installation->prestage(file, tempDir); });
}

void UpdateRun::onProcessCancelled()
{
    // The session emitted its last signal to get here and touches nothing after it.
    delete std::exchange(session, nullptr);
    installation->abandonStaging();
    dropUnrecordedWorkingDir();
    emit processCancelled();
}

// No later run can take up a working directory that update.ini does not name: kept, it would
// only fill the disk, run after run.
void UpdateRun::dropUnrecordedWorkingDir()
{
    if (!workingDirRecorded)
        cleanupCurrentUpdateFiles();
}

void UpdateRun::onDownloadFinished()
{
    delete std::exchange(session, nullptr);
    emit downloadFinished();
    // The previous version stands when the installation fails; the downloaded files and the
    // record stay for a restart.
    const bool installed = copyTemporaryOnly();
    if (installed) {
        if (!dataFile.recordInstalledVersion(clientVersion))
            reportUnwritableData(
                    QStringLiteral("version %1 is not recorded as installed").arg(clientVersion));
        removeTemporaryOnly();
    } else {
        dropUnrecordedWorkingDir();
    }
    emit updateFinished(installed);
}

bool UpdateRun::copyTemporaryOnly()
{
    emit message(QStringLiteral("Copy updated files..."));
    installation->setQuestion(question);
    emit installProgress(0, 1);
    const bool installed = installation->updateContent(
            unattended, tempDir, tempDir + QLatin1Char('/') + ProductList::fileName(clientType),
            getAppRootPath());
    // What failed has been logged by the update itself.
    if (!installed) {
        emit message(QStringLiteral("Update failed, version: %1").arg(clientVersion));
        return false;
    }
    emit message(QStringLiteral("Updated files copied"));
    return true;
}

void UpdateRun::removeTemporaryOnly()
{
    emit message(QStringLiteral("Remove temporary files..."));
    cleanupCurrentUpdateFiles();
    emit message(QStringLiteral("Temporary files removed."));
    emit message(QStringLiteral("Update finished, version: %1").arg(clientVersion));
}

// The run's own directory, which update.ini records unless it could not be written.
void UpdateRun::cleanupCurrentUpdateFiles()
{
    // Emptied only when it is still the private directory the run made, never through a link.
    if (isOwnWorkingDirectory(tempDir, QDir::tempPath())) {
        cleanupDirectory(tempDir);
        removeFromParent(tempDir);
    }
    QFile::remove(sessionFilePath(QString::number(clientVersion)));
    dataFile.cleanupCurrentUpdateDataIniFile();
}
