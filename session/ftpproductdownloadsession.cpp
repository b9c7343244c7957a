#include "session/ftpproductdownloadsession.h"

#include "app/apppaths.h"
#include "app/randomgenerator.h"
#include "session/downloadstream.h"
#include "session/trustedkeys.h"
#include "streams/singlefiledownloadstream.h"
#include "update/checksums.h"

#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QTimer>
#include <QUrl>

#include <limits>

namespace {

// More parallel streams only open more connections to the same mirrors.
constexpr int maxStreams = 16;
constexpr int maxMirrors = 100;
constexpr int maxRetries = 100;
constexpr int maxTimeoutSeconds = 3600;

// An unsigned key taken as a signed int: a number that is negative, or too large for an int,
// comes out negative, so that the caller falls back to its default; text that is no number
// reads as 0; a missing key gives the default.
int readUnsignedAsInt(const QSettings &settings, const QString &key, int defaultValue)
{
    const QVariant value = settings.value(key);
    if (!value.isValid())
        return defaultValue;
    bool ok = false;
    const qlonglong number = value.toLongLong(&ok);
    if (!ok)
        return 0;
    if (number < 0 || number > std::numeric_limits<int>::max())
        return -1;
    return int(number);
}

} // namespace

FTPProductDownloadSession::FTPProductDownloadSession()
    : appDirectory(getAppRootPath())
{}

// The streams are the last member, so they go first: each record disconnects and deletes its
// object, which tears its transport down, and signals still queued for the record are dropped
// with it. Nothing of theirs can reach the session afterwards.
FTPProductDownloadSession::~FTPProductDownloadSession() = default;

bool FTPProductDownloadSession::initialize(const InitialParameters &p)
{
    parameters = p;
    streamCount = p.defaultStreams;
    readMirrors();
    readUpdateSettings();
    trustedKeys = loadTrustedKeys(appDirectory.absolutePath());
    return !mirrors.isEmpty();
}

void FTPProductDownloadSession::readMirrors()
{
    QSettings settings(parameters.mirrorsFile, QSettings::IniFormat);
    mirrors.clear();
    int size = settings.beginReadArray("mirrors");
    if (size > maxMirrors) {
        emit message(QString("%1 lists %2 mirrors, the first %3 are used")
                             .arg(parameters.mirrorsFile)
                             .arg(size)
                             .arg(maxMirrors));
        size = maxMirrors;
    }
    for (int i = 0; i < size; ++i) {
        settings.setArrayIndex(i);
        MarkedSiteData mirror;
        mirror.name = settings.value("mirror").toString();
        mirrors.append(mirror);
    }
    settings.endArray();

    for (MarkedSiteData &mirror : mirrors) {
        settings.beginGroup(mirror.name);
        mirror.url = settings.value("url").toString();
        if (!mirror.url.endsWith('/'))
            mirror.url += '/';
        mirror.url += parameters.versionPath;
        mirror.retries = readUnsignedAsInt(settings, "retries", 5);
        if (mirror.retries <= 0)
            mirror.retries = 5;
        mirror.retries = qMin(mirror.retries, maxRetries);
        // Unlike the retries, a timeout of 0 is a valid choice: repeat at once.
        mirror.timeout = readUnsignedAsInt(settings, "timeout", 15);
        if (mirror.timeout < 0)
            mirror.timeout = 15;
        mirror.timeout = qMin(mirror.timeout, maxTimeoutSeconds);
        settings.endGroup();
    }
}

void FTPProductDownloadSession::readUpdateSettings()
{
    if (parameters.updateDataFile.isEmpty())
        return;
    QSettings settings(parameters.updateDataFile, QSettings::IniFormat);
    settings.beginGroup("update");
    proxy = settings.value("proxy").toString();
    streamCount = settings.value("streams", parameters.defaultStreams).toInt();
    if (streamCount <= 0)
        streamCount = 1;
    if (streamCount > maxStreams) {
        emit message(
                QString("streams=%1 is too many, %2 are used").arg(streamCount).arg(maxStreams));
        streamCount = maxStreams;
    }
    settings.endGroup();
}

void FTPProductDownloadSession::startUpdate()
{
    arrangeStreams();
    state = SessionStarting;
    if (trustedKeys.isEmpty())
        emit message("No trusted key: signatures of releases are not checked.");
    if (mirrors.isEmpty()) {
        emit message(
                QString("No mirror is listed in %1, can't continue.").arg(parameters.mirrorsFile));
        // Reported from the event loop: the owner may delete the session on this signal, and it
        // is still inside the call that started the run.
        QTimer::singleShot(0, this, &FTPProductDownloadSession::processCancelled);
        return;
    }
    connectStreamToMirror(0, 0);
}

void FTPProductDownloadSession::arrangeStreams()
{
    const int n = qMax(streamCount, 1);
    streams.reserve(n);
    for (int i = 0; i < n; ++i)
        createDownloadStream();
}

DownloadStream *FTPProductDownloadSession::createDownloadStream()
{
    auto record =
            std::make_unique<DownloadStream>(int(streams.size()), parameters.tempDirectory, proxy);
    DownloadStream *relay = record.get();
    using Self = FTPProductDownloadSession;
    connect(relay, &DownloadStream::stateChanged, this, &Self::onStateChanged);
    connect(relay, &DownloadStream::message, this, &Self::onStreamMessage);
    connect(relay, &DownloadStream::failedToConnect, this, &Self::onFailedToConnect);
    connect(relay, &DownloadStream::connected, this, &Self::onConnected);
    connect(relay, &DownloadStream::disconnected, this, &Self::onDisconnected);
    connect(relay, &DownloadStream::progressCount, this, &Self::onProgressCount);
    connect(relay, &DownloadStream::fileFinished, this, &Self::onFileFinished);
    connect(relay, &DownloadStream::fileError, this, &Self::onFileError);
    streams.push_back(std::move(record));
    return relay;
}

void FTPProductDownloadSession::connectStreamToMirror(int s, int m)
{
    DownloadStream *record = streams[s].get();
    const MarkedSiteData &mirror = mirrors.at(m);
    const QUrl url(mirror.url);
    record->mirrorIndex = m;
    record->fileIndex = -1;
    if (!record->adjustStream(url)) {
        // Handled like a mirror that cannot be reached, from the event loop, so that moving on
        // to the next mirror never recurses through here.
        if (record->stream)
            record->stream->cancel();
        record->postFailedToConnect(QString("Unsupported mirror URL %1").arg(mirror.url));
        return;
    }
    record->stream->initiateConnection(url, record->proxy, mirror.retries, mirror.timeout);
}

int FTPProductDownloadSession::getNextMirror(int)
{
    const int n = mirrors.size();
    if (n == 0)
        return -1;
    const int start = randomNumber() % n;
    for (int k = 0; k < n; ++k) {
        const int m = (start + k) % n;
        if (!mirrors.at(m).failed)
            return m;
    }
    return -1;
}

int FTPProductDownloadSession::getNextFileIndex()
{
    const unsigned int marks =
            FileSpecification::Ready | FileSpecification::Pending | FileSpecification::Downloaded;
    for (int i = task.readyBound + 1; i < task.getSize(); ++i) {
        const unsigned int flags = task.getFlags(i);
        if ((flags & marks) == 0) {
            task.setFlags(i, flags | FileSpecification::Pending);
            return i;
        }
    }
    return -1;
}

bool FTPProductDownloadSession::assignNextFile(int s)
{
    DownloadStream *record = streams[s].get();
    const int i = getNextFileIndex();
    if (i < 0) {
        emit message(QString("Stream %1 shutting down").arg(s));
        if (record->stream)
            record->stream->cancel();
        record->mirrorIndex = -1;
        record->fileIndex = -1;
        return false;
    }
    QString directory;
    QString name;
    QString md5;
    quint64 size = 0;
    if (!task.get(i, &directory, &name, &md5, &size)) {
        emit message("Fatal internal error");
        return false;
    }
    record->fileIndex = i;
    if (const PatchRecord *patch = patches.patchFor(i)) {
        // No MD5 is known of a patch: its SHA-256 from the manifest holds it.
        record->stream->getFile(patch->path, QString(), qint64(patch->size), patch->sha256);
        return true;
    }
    record->stream->getFile(directory + "/" + name, md5, qint64(size),
                            haveManifest ? manifest.sha256(directory + "/" + name) : QString());
    return true;
}

void FTPProductDownloadSession::changeStreamMirror(int s)
{
    DownloadStream *record = streams[s].get();
    // A stream that was shut down may still report; it has no mirror to blame.
    if (record->mirrorIndex >= 0)
        mirrors[record->mirrorIndex].failed = true;
    record->mirrorIndex = -1;
    if (record->fileIndex >= 0)
        task.resetPendingMark(record->fileIndex);
    record->fileIndex = -1;

    const int m = getNextMirror(s);
    if (m >= 0) {
        if (record->stream)
            record->stream->cancel();
        emit message(QString("Stream %1 change mirror to %2").arg(s).arg(m));
        connectStreamToMirror(s, m);
        emit streamSwitchMirror(s);
        return;
    }
    emit message(QString("Stream %1 can't continue - all mirrors reported error").arg(s));
    if (!hasStreamWithMirror())
        emit processCancelled();
}

bool FTPProductDownloadSession::hasStreamWithMirror() const
{
    for (const auto &record : streams) {
        if (record->mirrorIndex >= 0)
            return true;
    }
    return false;
}

void FTPProductDownloadSession::onStateChanged(int, DownloadStream_State) {}

void FTPProductDownloadSession::onStreamMessage(int s, const QString &text)
{
    emit message(tr("Stream %1: %2").arg(QString::number(s), text));
}

void FTPProductDownloadSession::onFailedToConnect(int s, const QString &text)
{
    emit message(tr("Stream %1 got error %2").arg(QString::number(s), text));
    changeStreamMirror(s);
}

void FTPProductDownloadSession::onConnected(int s)
{
    emit message(QString("Stream %1 connected").arg(s));
    DownloadStream *record = streams[s].get();
    if (state == SessionDownloading) {
        if (record->stream && record->stream->getState() == DownloadStream_Connected)
            assignNextFile(s);
        return;
    }
    if (state == SessionStarting && s == 0) {
        // Without a list path this never succeeds, so the list is always fetched afresh.
        if (parameters.resumeSession && checkAllFiles(true, QString())) {
            state = SessionDownloading;
            startDownloadBySessionState();
            return;
        }
        retrieveSessionState();
    }
}

void FTPProductDownloadSession::onDisconnected(int s)
{
    DownloadStream *record = streams[s].get();
    if (record->mirrorIndex < 0)
        return;
    const int m = getNextMirror(s);
    if (m < 0) {
        if (record->stream)
            record->stream->cancel();
        return;
    }
    emit message(QString("Stream %1 change mirror to %2").arg(s).arg(mirrors.at(m).url));
    connectStreamToMirror(s, m);
}

void FTPProductDownloadSession::onProgressCount(int, qint64, qint64)
{
    quint64 sum = 0;
    for (const auto &record : streams) {
        if (record->fileIndex < 0 || !record->stream)
            continue;
        unsigned long long done = 0;
        record->stream->getProgress(&done, nullptr);
        sum += done;
    }
    // Files an earlier run left complete count as well as those verified in this one.
    emit progressCount(sum + task.downloadedSize, task.totalSize);
}

void FTPProductDownloadSession::onFileFinished(int s)
{
    DownloadStream *record = streams[s].get();
    if (state == SessionDownloading) {
        // A stream that has given its file back has nothing to report finished.
        if (record->fileIndex < 0)
            return;
        if (const PatchRecord *patch = patches.patchFor(record->fileIndex);
            patch && !makeFromPatch(s, *patch))
            return;
        task.markReady(record->fileIndex);
        // Downloaded, not ready: files an earlier run left complete are never fetched again.
        if (task.downloadedCount < task.getSize()) {
            QString name;
            task.get(record->fileIndex, nullptr, &name, nullptr, nullptr);
            emit message(QString("Stream %1, %2 OK").arg(s).arg(name));
            assignNextFile(s);
            return;
        }
        emit message("Download finished.");
        emit downloadFinished();
        return;
    }
    if (state != SessionRetrievingList || s != 0)
        return;
    if (listStep == FetchingManifest) {
        onManifestFinished(s);
    } else if (listStep == FetchingSignature) {
        onSignatureFinished(s);
    } else if (manifestCoversList(s)) {
        emit message("Download file list retrieved.");
        state = SessionDownloading;
        const QString listPath = record->stream->getDestFilePath();
        if (checkAllFiles(parameters.resumeSession, listPath)) {
            startDownloadBySessionState();
            return;
        }
        refuseMirrorList(s, tr("Unable to initialize session with %1.").arg(listPath));
    }
}

// Nothing of a list that cannot be used is acted on: its mirror is left like one that lacks it.
void FTPProductDownloadSession::refuseMirrorList(int s, const QString &reason)
{
    state = SessionStarting;
    task = TaskState();
    emit message(QString("Stream %1 reported error: %2").arg(QString::number(s), reason));
    changeStreamMirror(s);
}

void FTPProductDownloadSession::onFileError(int s, DownloadStream_Error error, const QString &text)
{
    if (state == SessionRetrievingList && s == 0 && listStep != FetchingList
        && error != DownloadStream_LocalFileError) {
        // Releases published before manifests existed have none; without a key that is fine.
        if (trustedKeys.isEmpty()) {
            emit message(QString("No release manifest at %1").arg(listFileUrl(s, ".manifest")));
            requestListFile(".ini");
            return;
        }
        emit message(QString("Signature of %1 is not valid.").arg(listFileUrl(s, ".manifest")));
    }
    if (state == SessionDownloading && error != DownloadStream_LocalFileError
        && patches.patchFor(streams[s]->fileIndex)) {
        fetchWhole(s, text);
        return;
    }
    if (state == SessionRetrievingList)
        state = SessionStarting;
    // A local file error is no fault of the mirror; moving on would not help.
    emit message(QString("Stream %1 reported error: %2").arg(QString::number(s), text));
    if (error != DownloadStream_LocalFileError) {
        changeStreamMirror(s);
        return;
    }
    // A full disk or a forbidden directory is no fault of the mirror, and waiting will not
    // help. Posted: the stream that reported it is still inside its own call.
    QTimer::singleShot(0, this, &FTPProductDownloadSession::processCancelled);
}

void FTPProductDownloadSession::retrieveSessionState()
{
    state = SessionRetrievingList;
    manifestText.clear();
    manifest = ReleaseManifest();
    haveManifest = false;
    requestListFile(".manifest");
}

// The manifest, its signature or the list, by the suffix to the product list's name.
void FTPProductDownloadSession::requestListFile(const QString &suffix)
{
    listStep = suffix == ".manifest" ? FetchingManifest
                                     : (suffix == ".ini" ? FetchingList : FetchingSignature);
    DownloadStream *record = streams[0].get();
    record->fileIndex = -1;
    record->stream->getFile(parameters.productListName + suffix, QString(), 0);
}

QString FTPProductDownloadSession::listFileUrl(int s, const QString &suffix) const
{
    const int m = streams[s]->mirrorIndex;
    const QString base = m >= 0 ? mirrors.at(m).url : QString();
    return base + "/" + parameters.productListName + suffix;
}

void FTPProductDownloadSession::onManifestFinished(int s)
{
    QFile file(streams[s]->stream->getDestFilePath());
    manifestText = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    if (!trustedKeys.isEmpty()) {
        requestListFile(".manifest.minisig");
        return;
    }
    haveManifest = manifest.parse(manifestText) && manifest.type() == parameters.productListName
                   && manifest.version() == parameters.versionPath;
    if (!haveManifest)
        emit message(QString("Release manifest %1 is not usable").arg(listFileUrl(s, ".manifest")));
    requestListFile(".ini");
}

void FTPProductDownloadSession::onSignatureFinished(int s)
{
    QFile file(streams[s]->stream->getDestFilePath());
    // A signature file is four short lines.
    if (!file.open(QIODevice::ReadOnly) || !acceptsSignature(file.read(4096))) {
        refuseSignature(s);
        return;
    }
    haveManifest = true;
    requestListFile(".ini");
}

// A trusted key signed the manifest, and both its trusted comment and its release name the
// product and version asked for, so that no other release can be replayed in their place.
bool FTPProductDownloadSession::acceptsSignature(const QByteArray &signatureText)
{
    MinisignSignature signature;
    const QByteArray expected = QString("orlivo %1 %2")
                                        .arg(parameters.productListName, parameters.versionPath)
                                        .toUtf8();
    return parseMinisignSignature(signatureText, &signature)
           && verifyMinisign(manifestText, signature, trustedKeys)
           && signature.trustedComment == expected && manifest.parse(manifestText)
           && manifest.type() == parameters.productListName
           && manifest.version() == parameters.versionPath;
}

// The list is the one the manifest was made for; with a trusted key it must be.
bool FTPProductDownloadSession::manifestCoversList(int s)
{
    if (!haveManifest)
        return true;
    QString md5;
    QString sha256;
    const QString listPath = streams[s]->stream->getDestFilePath();
    if (getFileDigests(listPath, &md5, &sha256) && sha256 == manifest.listSha256())
        return true;
    if (!trustedKeys.isEmpty()) {
        refuseSignature(s);
        return false;
    }
    refuseMirrorList(s, QString("Release manifest %1 does not match the list")
                                .arg(listFileUrl(s, ".manifest")));
    return false;
}

void FTPProductDownloadSession::refuseSignature(int s)
{
    refuseMirrorList(s, QString("Signature of %1 is not valid.").arg(listFileUrl(s, ".manifest")));
}

bool FTPProductDownloadSession::checkAllFiles(bool, const QString &listPath)
{
    if (listPath.isEmpty())
        return false;
    // A product list that lists nothing is as unusable as one that cannot be read.
    task = TaskState();
    if (!task.initializeByProductIni(listPath) || task.getSize() == 0)
        return false;
    // A signed manifest vouches for every file of the list, or for none.
    for (int i = 0; haveManifest && !trustedKeys.isEmpty() && i < task.getSize(); ++i) {
        FileSpecification file;
        task.get(i, &file);
        if (!ReleaseManifest::isSha256Text(getFileSha256(file)))
            return false;
    }
    emit progressCount(0, task.totalSize);
    task.resetMarks();
    patches.offer(haveManifest ? manifest.patches() : QList<PatchRecord>());
    quint64 done = 0;
    for (int i = 0; i < task.getSize(); ++i) {
        FileSpecification file;
        task.get(i, &file);
        const QString installedMd5 = installedFileMd5(file);
        if (!installedMd5.isEmpty() && installedMd5 == file.installedMd5()) {
            task.markReady(i);
            emit message(QString("File %1 up to date").arg(getInstalledFilePath(file)));
        } else if (isDownloaded(file) || PatchPlan::isMade(file, parameters.tempDirectory)) {
            task.markDownloaded(i);
        } else {
            patches.choose(i, file, installedMd5);
            task.markNoFile(i, false);
            // A file shorter than required is what a broken transfer left: its stream goes on
            // from its end.
            const QString temp = getTempFilePath(file);
            if (QFileInfo(temp).size() >= qint64(file.size))
                QFile::remove(temp);
            continue;
        }
        done += file.size;
        emit progressCount(done, task.totalSize);
    }
    task.updateCompletionInfo();
    emit message(QString("Verification of %1 file(s) complete. Ready: %2, Downloaded: %3.")
                         .arg(task.getSize())
                         .arg(task.readyCount)
                         .arg(task.downloadedCount - task.readyCount));
    return true;
}

QString FTPProductDownloadSession::installedFileMd5(const FileSpecification &file) const
{
    const QString path = getInstalledFilePath(file);
    return QFile::exists(path) ? getFileMD5Ex(path) : QString();
}

// Every file is looked for right in the installation root, whatever directory lists it.
QString FTPProductDownloadSession::getInstalledFilePath(const FileSpecification &file) const
{
    return appDirectory.absoluteFilePath(file.installPath());
}

bool FTPProductDownloadSession::isDownloaded(const FileSpecification &file) const
{
    const QString path = getTempFilePath(file);
    const QFileInfo temp(path);
    if (!temp.isFile() || quint64(temp.size()) != file.size)
        return false;
    // As a download is checked: by its SHA-256 when the release gives one, by MD5 otherwise.
    const QString expectedSha256 = getFileSha256(file);
    const QString actual = expectedSha256.isEmpty() ? getFileMD5Ex(path) : getFileSHA256Ex(path);
    return !actual.isEmpty() && actual == (expectedSha256.isEmpty() ? file.md5 : expectedSha256);
}

QString FTPProductDownloadSession::getFileSha256(const FileSpecification &file) const
{
    return haveManifest ? manifest.sha256(file.directory + "/" + file.name) : QString();
}

QString FTPProductDownloadSession::getTempFilePath(const FileSpecification &file) const
{
    return parameters.tempDirectory + "/" + file.directory + "/" + file.name;
}

void FTPProductDownloadSession::startDownloadBySessionState()
{
    if (task.downloadedCount == task.getSize()) {
        emit message("Download finished.");
        emit downloadFinished();
        return;
    }
    emit progressCount(task.downloadedSize, task.totalSize);
    int m = 0;
    for (const auto &record : streams) {
        if (record->mirrorIndex >= 0)
            continue;
        connectStreamToMirror(record->index, m);
        m = (m + 1) % mirrors.size();
    }
    for (int k = 0; k < int(streams.size()); ++k) {
        const SingleFileDownloadStream *stream = streams[k]->stream;
        if (stream && stream->getState() == DownloadStream_Connected)
            assignNextFile(k);
    }
}

bool FTPProductDownloadSession::makeFromPatch(int s, const PatchRecord &patch)
{
    FileSpecification file;
    task.get(streams[s]->fileIndex, &file);
    if (PatchPlan::make(patch, file, getInstalledFilePath(file), parameters.tempDirectory)) {
        emit message(QString("Stream %1, %2 made from a patch").arg(s).arg(file.installPath()));
        return true;
    }
    fetchWhole(s, QString("%1 does not make %2").arg(patch.path, file.installPath()));
    return false;
}

// A patch that cannot be had or used costs its file nothing but the detour: it is fetched whole.
void FTPProductDownloadSession::fetchWhole(int s, const QString &why)
{
    DownloadStream *record = streams[s].get();
    emit message(QString("Stream %1: no patch (%2), fetching the whole file").arg(s).arg(why));
    patches.drop(record->fileIndex);
    task.resetPendingMark(record->fileIndex);
    record->fileIndex = -1;
    assignNextFile(s);
}

bool FTPProductDownloadSession::createInitialFileList(const QString &path)
{
    task = TaskState();
    task.initializeByProductIni(path);
    return task.getSize() > 0;
}

QString getFTPDirectory(const QString &name, const QString &directory)
{
    return directory + "/" + name;
}
