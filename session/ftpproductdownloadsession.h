#pragma once

#include "session/directorylisting.h"
#include "session/ftpproductdownloadsessionstate.h"
#include "session/initialparameters.h"
#include "session/markedsitedata.h"
#include "session/mirrorchoice.h"
#include "session/patchplan.h"
#include "session/releasefetch.h"
#include "streams/downloadstreamtypes.h"
#include "tasks/taskstate.h"
#include "update/idlewriteback.h"

#include <QDir>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>
#include <QVector>

#include <memory>
#include <vector>

class ConnectionWarmup;
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
    // The connection made to the first mirror while the run waited, kept until the first stream
    // has reached its mirror or failed to. Held longer, it would keep a mirror the session leaves
    // connected, and its server sending what the session no longer wants.
    void holdWarmConnection(std::unique_ptr<ConnectionWarmup> warmup);
    // The owner handles the user's cancel itself.
    void cancelUpdate() {}
    // Loads a product file list into a fresh task; true when it lists at least one file.
    bool createInitialFileList(const QString &path);

    FTPProductDownloadSession_State getState() const { return state; }
    const QVector<MarkedSiteData> &getMirrors() const { return mirrors.getMirrors(); }
    int getStreamCount() const { return streamCount; }
    QString getProxy() const { return proxy; }
    const TaskState &getTask() const { return task; }

signals:
    void downloadInitiated();
    void progressCount(quint64 done, quint64 total);
    void message(const QString &text);
    void downloadFinished();
    // A listed file has arrived and is verified (unpacked or patched, where it was either).
    void fileReady(const FileSpecification &file);
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
    void joinMultiplexedMirror(int s, int m);
    // A stream of the mirror has reached it over HTTP/2.
    bool carriesManyRequests(int m) const;
    // Points the stream at the mirror; false, with a connect failure posted, when no stream
    // speaks the mirror's URL.
    bool aimStreamAt(int s, int m);
    int getNextMirror(int stream);
    int getNextFileIndex();
    // Claims the largest file not yet claimed, or the smallest.
    int getFileIndexBySize(bool largest);
    // File i is no longer claimed: another stream may take it.
    void unclaimFile(int i);
    bool assignNextFile(int s);
    bool startFile(int s, int i);
    void shutDownStream(int s);
    bool leaveSlowMirror(int s);
    bool takeOverSlowFile(int s);
    bool hasStopped(const DownloadStream &record) const;
    // Record's transfer has run for ms and nothing came from its mirror for as long.
    bool waitedInSilence(const DownloadStream &record, qint64 ms) const;
    double takeoverGainMs(const DownloadStream &record, int m, bool probe) const;
    // How many streams on mirror m have a file.
    int transfersOn(int m) const;
    // Bytes a second a transfer gets from mirror m with joining more beside those under way:
    // over a shared connection its share of what the mirror delivers, else all of it.
    double shareOf(int m, int joining) const;
    void addMultiplexedStreams(int m);
    // Another mirror still has a transfer under way.
    bool runsElsewhere(int s) const;
    void retryTakeovers();
    // The record's transfer shows what its mirror can deliver.
    bool measuresMirror(const DownloadStream &record) const;
    // Transfers of mirror m have run for ms and nothing came from it for as long.
    bool isSilentFor(int m, qint64 ms) const;
    void watchMirrors();
    void leaveStoppedMirror(int m);
    int stoppedMirrorToRetry() const;
    bool tryStoppedMirror(int s);
    // The fastest mirror other than m that neither failed nor went silent; -1 when none.
    int liveMirrorBesides(int m) const;
    void moveStream(int s, int m);
    void changeStreamMirror(int s);
    // With m, on that mirror; without, on any.
    bool hasStreamWithMirror(int m = -1) const;
    bool hasStreamOnWorkingMirror() const;
    // One of the streams made at the start that has shut down; -1 when none has.
    int idleBaseStream() const;

    void listedFileFinished(int s);
    // The file of the fetch chain's step has arrived at path.
    void releaseFetchStepFinished(const QString &path);
    void retrieveSessionState();
    void requestListFile();
    // On a mirror that multiplexes, the chain's later files are asked for at once, each by an
    // extra stream; the chain takes them up in its order, a failure as the first stream's own.
    void prefetchReleaseFiles(int m);
    bool startPrefetch(int s);
    // False when stream s fetches nothing for the chain. Without an error, the file arrived.
    bool prefetchEnded(int s, DownloadStream_Error error = {}, const QString &text = {});
    void releasePrefetchers();
    void refuseMirrorList(int s, const QString &reason);
    bool checkAllFiles(bool resume, const QString &listPath);
    bool readProductList(const QString &listPath);
    bool checkFile(int i, const FileSpecification &file, bool resume, DirectoryListing &disk);
    // The MD5 of the installed copy of file; empty when there is none.
    QString installedFileMd5(const FileSpecification &file) const;
    bool isDownloaded(const FileSpecification &file) const;
    // Removes what stands where the download at relativePath or one of its directories goes.
    void clearWayFor(const QString &relativePath);
    QString getFileSha256(const FileSpecification &file) const;
    QString getInstalledFilePath(const FileSpecification &file) const;
    QString getTempFilePath(const FileSpecification &file) const;
    void startDownloadBySessionState();
    // Makes the file the stream fetched a patch for; false, with the file handed back to be
    // fetched whole, when the patch does not make it.
    bool makeFromPatch(int s, const PatchRecord &patch);
    bool unpackArrived(int s);
    void fetchWhole(int s, const QString &why);
    // Hands the stream's file back to be fetched again and gives the stream its next one.
    void giveBack(int s);

    InitialParameters parameters;
    FTPProductDownloadSession_State state = SessionStarting;
    QDir appDirectory;
    QString proxy;
    int streamCount = 1;
    // The streams made at the start; those after them serve multiplexing mirrors only.
    int baseStreamCount = 0;
    MirrorChoice mirrors;
    TaskState task;
    ReleaseFetch releaseFetch;
    struct Prefetch
    {
        enum State { Running, Arrived, Failed };
        int stream = -1;
        State state = Running;
        // Why it failed, after the retries the first stream would have made.
        DownloadStream_Error error = {};
        QString text;
    };
    // By the chain's file name.
    QMap<QString, Prefetch> prefetches;
    // The file stream s fetches beside the manifest; end() when none.
    QMap<QString, Prefetch>::iterator runningPrefetch(int s);
    // The chain's step that waits for its prefetch; empty when none does.
    QString awaitedPrefetch;
    PatchPlan patches;
    // The task's files by size, largest first; made when first asked for. Those before
    // largestUnclaimed and after smallestUnclaimed are claimed, so that each claim looks at few.
    std::vector<int> largestFirst;
    int largestUnclaimed = 0;
    int smallestUnclaimed = -1;
    // Where files unpacked on arrival go, made once each.
    QSet<QString> unpackedDirectories;
    // Directories of the working directory taken up again that were found to be directories.
    QSet<QString> clearedDirectories;
    IdleWriteback writeback;
    QTimer takeoverTimer;
    QTimer mirrorWatch;
    std::vector<std::unique_ptr<DownloadStream>> streams;
    std::unique_ptr<ConnectionWarmup> warmConnection;
};

// directory + "/" + name.
QString getFTPDirectory(const QString &name, const QString &directory);
