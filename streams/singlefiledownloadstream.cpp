#include "streams/singlefiledownloadstream.h"

#include "streams/curltransport.h"
#include "streams/hashingfile.h"
#include "tasks/pathsafety.h"
#include "update/checksums.h"

#include <QFile>
#include <QFileInfo>
#include <QPointer>

namespace {

// A file without a checksum (the product list) has no length to hold the server to; no honest
// list comes near this, and a mirror that sends without end must not fill the disk.
constexpr qint64 maxUncheckedLength = 64 * 1024 * 1024;

} // namespace

SingleFileDownloadStream::SingleFileDownloadStream(const QString &destDir)
    : destDir(destDir)
{
    repeatTimer.setSingleShot(true);
    finishTimer.setSingleShot(true);
    // Not inside the transport's callback, yet without a fixed delay per file.
    finishTimer.setInterval(0);
    connect(&repeatTimer, &QTimer::timeout, this,
            &SingleFileDownloadStream::onRepeatDownloadAttempt);
    connect(&finishTimer, &QTimer::timeout, this, &SingleFileDownloadStream::emitFileFinished);
}

// What arrived of a file stays for the next run to continue.
SingleFileDownloadStream::~SingleFileDownloadStream()
{
    discardFile();
}

DownloadStream_State SingleFileDownloadStream::getState() const
{
    return state;
}

void SingleFileDownloadStream::getFile(const QString &remotePath, const QString &md5,
                                       long long size)
{
    getFile(remotePath, md5, size, QString());
}

void SingleFileDownloadStream::getFile(const QString &remotePath, const QString &md5,
                                       long long size, const QString &sha256)
{
    this->sha256 = sha256;
    checkGetFilePrerequisitions();
    const QString request = prepareFile(remotePath, md5, size, true);
    repeatPending = false;
    repeatTimer.stop();
    if (request.isEmpty() || !enterState(DownloadStream_Downloading))
        return;
    fileRequestId = createFileRequest(request, file.get());
}

QString SingleFileDownloadStream::getDestFilePath() const
{
    return localPath;
}

void SingleFileDownloadStream::getProgress(unsigned long long *done, unsigned long long *size) const
{
    if (done)
        *done = this->done;
    if (size)
        *size = this->size;
}

void SingleFileDownloadStream::cancel()
{
    releaseTransport();
    dropCurrentFile();
    setState(DownloadStream_Idle);
}

bool SingleFileDownloadStream::isMultiplexed() const
{
    return transport && transport->isMultiplexed();
}

void SingleFileDownloadStream::setRepeatTimeUnit(int milliseconds)
{
    repeatTimeUnit = milliseconds;
}

void SingleFileDownloadStream::setStallTimeout(int seconds)
{
    stallTimeout = seconds;
}

void SingleFileDownloadStream::onDataTransferProgress(qint64 done, qint64 total)
{
    this->done = done;
    emit progressCount(done, total);
}

void SingleFileDownloadStream::emitFileFinished()
{
    emit fileFinished();
}

void SingleFileDownloadStream::onRepeatDownloadAttempt()
{
    // A cancel, or a new connection, may have come between the failure and this moment.
    if (!repeatPending || state != DownloadStream_Downloading)
        return;
    repeatPending = false;
    requestAgain(tr("Download attempt %1").arg(attempt));
}

void SingleFileDownloadStream::requestAgain(const QString &reason)
{
    checkGetFilePrerequisitions();
    const QString request = prepareFile(remotePath, md5, size, false);
    if (request.isEmpty() || !enterState(DownloadStream_Downloading))
        return;
    const QPointer<SingleFileDownloadStream> alive(this);
    emit message(reason);
    if (alive && state == DownloadStream_Downloading && file)
        fileRequestId = createFileRequest(request, file.get());
}

void SingleFileDownloadStream::internalInitDownloadParams(const QUrl &url, const QString &proxy,
                                                          int retries, int timeout)
{
    this->url = url;
    this->retries = retries;
    this->timeout = timeout;
    // Kept even when it does not parse: the transport refuses it rather than go direct.
    this->proxy = proxy.isEmpty() ? QUrl() : QUrl(proxy);
}

void SingleFileDownloadStream::setState(DownloadStream_State state)
{
    this->state = state;
    emit stateChanged(state);
}

bool SingleFileDownloadStream::enterState(DownloadStream_State state)
{
    const QPointer<SingleFileDownloadStream> alive(this);
    setState(state);
    return alive && this->state == state;
}

bool SingleFileDownloadStream::finalCheckCurrentFile()
{
    const qint64 length = file->size();
    QString written = file->writtenMD5();
    QString writtenSha256 = file->writtenSHA256();
    file->close();
    file.reset();

    if (!isChecked() && length > maxUncheckedLength) {
        QFile::remove(localPath);
        if (enterState(DownloadStream_Connected)) {
            emit fileError(DownloadStream_LengthError,
                           QStringLiteral("ERROR: %1 is longer than %2 bytes")
                                   .arg(localPath, QString::number(maxUncheckedLength)));
        }
        return false;
    }
    if (isChecked()) {
        if (length != size) {
            rejectFile(DownloadStream_LengthError,
                       QStringLiteral("ERROR: Wrong length of %1 (%2 while required %3)")
                               .arg(localPath, QString::number(length), QString::number(size)));
            return false;
        }
        // The SHA-256, when the release gives one, holds the file; MD5 otherwise. A file that
        // cannot be read back keeps empty digests, which match nothing.
        const bool bySha256 = !sha256.isEmpty();
        QString &actual = bySha256 ? writtenSha256 : written;
        if (actual.isEmpty())
            getFileDigests(localPath, &written, &writtenSha256);
        if (actual.isEmpty() || actual.compare(bySha256 ? sha256 : md5, Qt::CaseInsensitive) != 0) {
            rejectFile(DownloadStream_ChecksumError,
                       QStringLiteral("ERROR: Wrong checksum for %1").arg(localPath));
            return false;
        }
    }
    // Started first, so that a cancel from a stateChanged() slot also stops it.
    finishTimer.start();
    setState(DownloadStream_Connected);
    return true;
}

void SingleFileDownloadStream::rejectFile(DownloadStream_Error error, const QString &text)
{
    QFile::remove(localPath);
    // Bytes left by an earlier transfer, perhaps from another mirror or a damaged disk, are to
    // blame before this mirror is.
    if (continued) {
        continued = false;
        requestAgain(tr("%1 is damaged, downloading it again from the start").arg(localPath));
        return;
    }
    if (enterState(DownloadStream_Connected))
        emit fileError(error, text);
}

void SingleFileDownloadStream::handleConnectError(const QString &text)
{
    emit failedToConnect(text);
}

void SingleFileDownloadStream::handleFileRequestError(const QString &text, bool repeatable)
{
    discardFile();
    ++attempt;
    if (!repeatable || attempt > retries) {
        if (enterState(DownloadStream_Connected))
            emit fileError(DownloadStream_TransferError, QStringLiteral("ERROR: ") + text);
        return;
    }
    // Scheduled before telling anyone, so that a cancel from the message's slot stops it.
    repeatPending = true;
    repeatTimer.start(qMax(0, timeout) * repeatTimeUnit);
    emit message(tr("Download error. Timeout %1 seconds to repeat.").arg(timeout));
}

void SingleFileDownloadStream::dropCurrentFile()
{
    repeatTimer.stop();
    finishTimer.stop();
    repeatPending = false;
    connectRequestId = -1;
    loginRequestId = -1;
    fileRequestId = -1;
    discardFile();
}

void SingleFileDownloadStream::replaceTransport(const QUrl &url, const QString &proxy, int retries,
                                                int timeout)
{
    internalInitDownloadParams(url, proxy, retries, timeout);
    releaseTransport();
    dropCurrentFile();
    transport = new CurlTransport(this);
    transport->setProxy(this->proxy);
    if (stallTimeout > 0)
        transport->setStallTimeout(stallTimeout);
}

void SingleFileDownloadStream::releaseTransport()
{
    if (!transport)
        return;
    transport->blockSignals(true);
    transport->clearPendingCommands();
    transport->abort();
    transport->deleteLater();
    transport = nullptr;
}

int SingleFileDownloadStream::requestFile(const QString &path, QFile *file)
{
    return isChecked() ? transport->get(path, file, size, file->pos())
                       : transport->get(path, file, -1, 0, maxUncheckedLength);
}

void SingleFileDownloadStream::handleFileRequestFinished(bool error)
{
    if (!error) {
        finalCheckCurrentFile();
        return;
    }
    switch (transport->error()) {
    case CurlTransport::BodyTooLong:
        // The surplus bytes are in the file, so the length check reports them.
        finalCheckCurrentFile();
        break;
    case CurlTransport::RequestRefused:
        handleFileRequestError(transport->errorString(), false);
        break;
    case CurlTransport::WriteFailed:
        discardFile();
        if (enterState(DownloadStream_Connected)) {
            emit fileError(DownloadStream_LocalFileError,
                           QStringLiteral("ERROR: failed writing %1: %2")
                                   .arg(localPath, transport->errorString()));
        }
        break;
    default:
        handleFileRequestError(transport->errorString());
        break;
    }
}

QString SingleFileDownloadStream::prepareFile(const QString &remotePath, const QString &md5,
                                              qint64 size, bool firstAttempt)
{
    if (firstAttempt) {
        attempt = 1;
        if (state != DownloadStream_Connected)
            return {};
        continued = false;
    }
    // A path that could lead out of the destination has no local path.
    const QString path =
            isSafeRelativePath(remotePath) ? destDir.absoluteFilePath(remotePath) : QString();
    if (path.isEmpty()) {
        emit fileError(DownloadStream_LocalFileError,
                       QStringLiteral("ERROR: failed to detect local path for ") + remotePath);
        return {};
    }
    this->remotePath = remotePath;
    this->localPath = path;
    this->md5 = md5;
    this->size = size;
    done = 0;

    if (!openFile())
        return {};
    QString request = url.path();
    if (!request.endsWith(QLatin1Char('/')))
        request += QLatin1Char('/');
    return request + this->remotePath;
}

bool SingleFileDownloadStream::openFile()
{
    file = std::make_unique<HashingFile>(localPath, !sha256.isEmpty());
    // The list has no checksum that could prove bytes already there, so it always starts anew.
    const qint64 existing = isChecked() ? QFileInfo(localPath).size() : 0;
    if (existing > 0 && existing < size && file->openToContinue()) {
        continued = true;
        done = existing;
        return true;
    }
    // Unbuffered: the transport hands over large blocks, and they go to the disk as they come.
    constexpr QIODevice::OpenMode mode =
            QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered;
    if (file->open(mode))
        return true;
    // The directory is made when the file needs it: most files go where one was made already.
    const QString directory = QFileInfo(localPath).path();
    if (!QFileInfo(directory).isDir()) {
        if (!QDir().mkpath(directory)) {
            file.reset();
            emit fileError(DownloadStream_LocalFileError,
                           QStringLiteral("ERROR: failed creating subdirectory: ") + directory);
            return false;
        }
        if (file->open(mode))
            return true;
    }
    const QString reason = file->errorString();
    file.reset();
    emit fileError(DownloadStream_LocalFileError,
                   QStringLiteral("ERROR: failed creating %1: %2").arg(localPath, reason));
    return false;
}

void SingleFileDownloadStream::discardFile()
{
    if (!file)
        return;
    const bool keep = isChecked() && file->size() > 0;
    file->close();
    file.reset();
    if (!keep)
        QFile::remove(localPath);
}
