#pragma once

#include "session/ftpproductdownloadsessionstate.h"
#include "session/initialparameters.h"
#include "session/markedsitedata.h"
#include "session/patchplan.h"
#include "streams/downloadstreamtypes.h"
#include "tasks/releasemanifest.h"
#include "tasks/taskstate.h"
#include "update/minisign.h"

#include <QDir>
#include <QObject>
#include <QString>
#include <QVector>

#include <memory>
#include <vector>

class DownloadStream;

// Downloads one product version, its file list first and then every listed file that is not
// installed or downloaded already, from a set of mirrors over several streams; a stream whose
// mirror fails moves to another one. Ends with downloadFinished(), or with processCancelled()
// when no stream has a mirror left. Owns its streams. Its owner may delete it from a slot that
// one of those two signals invoked: the session emits them last and touches nothing after.
class FTPProductDownloadSession : public QObject
{
    Q_OBJECT

public:
    FTPProductDownloadSession();
    ~FTPProductDownloadSession() override;

    // Reads the mirror list and the update settings; true when at least one mirror is listed.
    bool initialize(const InitialParameters &p);
    void startUpdate();
    // The owner handles the user's cancel itself.
    void cancelUpdate() {}
    // Loads a product file list into a fresh task; true when it lists at least one file.
    bool createInitialFileList(const QString &path);

    FTPProductDownloadSession_State getState() const { return state; }
    const QVector<MarkedSiteData> &getMirrors() const { return mirrors; }
    int getStreamCount() const { return streamCount; }
    QString getProxy() const { return proxy; }
    const TaskState &getTask() const { return task; }

signals:
    void downloadInitiated();
    void progressCount(quint64 done, quint64 total);
    void message(const QString &text);
    void downloadFinished();
    void streamStarted(int stream);
    void streamSwitchMirror(int stream);
    void streamError(int stream, const QString &text);
    void streamFinished();
    void streamProgress(int stream, qulonglong done, qulonglong total);
    void processCancelled();

private slots:
    void onStateChanged(int s, DownloadStream_State streamState);
    void onStreamMessage(int s, const QString &text);
    void onFailedToConnect(int s, const QString &text);
    void onConnected(int s);
    void onDisconnected(int s);
    void onProgressCount(int s, qint64 done, qint64 total);
    void onFileFinished(int s);
    void onFileError(int s, DownloadStream_Error error, const QString &text);

private:
    void readMirrors();
    void readUpdateSettings();

    void arrangeStreams();
    DownloadStream *createDownloadStream();
    void connectStreamToMirror(int s, int m);
    int getNextMirror(int stream);
    int getNextFileIndex();
    bool assignNextFile(int s);
    void changeStreamMirror(int s);
    bool hasStreamWithMirror() const;

    void retrieveSessionState();
    void requestListFile(const QString &suffix);
    QString listFileUrl(int s, const QString &suffix) const;
    void onManifestFinished(int s);
    void onSignatureFinished(int s);
    bool acceptsSignature(const QByteArray &signatureText);
    bool manifestCoversList(int s);
    void refuseSignature(int s);
    void refuseMirrorList(int s, const QString &reason);
    bool checkAllFiles(bool resume, const QString &listPath);
    // The MD5 of the installed copy of file; empty when there is none.
    QString installedFileMd5(const FileSpecification &file) const;
    bool isDownloaded(const FileSpecification &file) const;
    QString getFileSha256(const FileSpecification &file) const;
    QString getInstalledFilePath(const FileSpecification &file) const;
    QString getTempFilePath(const FileSpecification &file) const;
    void startDownloadBySessionState();
    // Makes the file the stream fetched a patch for; false, with the file handed back to be
    // fetched whole, when the patch does not make it.
    bool makeFromPatch(int s, const PatchRecord &patch);
    void fetchWhole(int s, const QString &why);

    InitialParameters parameters;
    FTPProductDownloadSession_State state = SessionStarting;
    QDir appDirectory;
    QString proxy;
    int streamCount = 1;
    QVector<MarkedSiteData> mirrors;
    TaskState task;
    // Before the list: its manifest and, when a key is trusted, the manifest's signature.
    enum ListStep { FetchingManifest, FetchingSignature, FetchingList };
    ListStep listStep = FetchingManifest;
    QList<MinisignPublicKey> trustedKeys;
    QByteArray manifestText;
    ReleaseManifest manifest;
    bool haveManifest = false;
    PatchPlan patches;
    std::vector<std::unique_ptr<DownloadStream>> streams;
};

// directory + "/" + name.
QString getFTPDirectory(const QString &name, const QString &directory);
