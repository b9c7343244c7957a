#include "session/ftpproductdownloadsession.h"

#include "app/apppaths.h"
#include "app/updatesettings.h"
#include "session/connectionwarmup.h"
#include "session/downloadstream.h"
#include "session/trustedkeys.h"
#include "streams/singlefiledownloadstream.h"
#include "tasks/pathsafety.h"
#include "tasks/productlist.h"
#include "update/checksums.h"
#include "update/cleanup.h"
#include "update/filesync.h"
#include "update/packing.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <numeric>

namespace {

// Over HTTP/2 a stream costs a request, not a connection: this many keep a far-away mirror's
// pipe full of small files (64 left a 100 ms link half idle for the last half of 2400 files of
// 4 KB). nginx allows as many on one connection; where a server allows fewer, libcurl holds the
// rest until one of its streams is free.
constexpr int requestsInFlightPerMirror = 128;
// A transfer is judged by its speed only after this long; a mirror not yet measured tries one
// sooner, since it judges no speed but the transfer's own. A transfer just started, perhaps
// another mirror's try, is never taken.
constexpr qint64 settleMs = 1000;
constexpr qint64 probeSettleMs = 300;
// Taking a file over costs a request; below this gain it is not worth it.
constexpr double minimumTakeoverGainMs = 1000;
// A mirror not yet measured tries a file that would take at least this long where it is.
constexpr double minimumProbeMs = 2000;
constexpr int takeoverCheckMs = 250;
// A mirror that has sent nothing for this long while its transfers run has stopped, whatever
// round trip it is behind.
constexpr qint64 silentMirrorMs = 3000;
// Mid-list no stream is idle to take such a mirror's files over, and its stall and retry waits
// would hold them for minutes: after this long its streams move to another mirror.
constexpr qint64 stoppedMirrorMs = 10000;
// A mirror left for its silence is tried again after this long, twice as long each time it is
// left again.
constexpr qint64 stoppedMirrorRetryMs = 10000;
constexpr int mirrorWatchMs = 250;
// Several round trips' worth on a fast link, past TCP's slow start.
constexpr unsigned long long measuredFileBytes = 256 * 1024;

} // namespace

FTPProductDownloadSession::FTPProductDownloadSession()
    : appDirectory(getAppRootPath())
{
    takeoverTimer.setSingleShot(true);
    takeoverTimer.setInterval(takeoverCheckMs);
    connect(&takeoverTimer, &QTimer::timeout, this, &FTPProductDownloadSession::retryTakeovers);
    mirrorWatch.setInterval(mirrorWatchMs);
    connect(&mirrorWatch, &QTimer::timeout, this, &FTPProductDownloadSession::watchMirrors);
}

// The streams are the last member, so they go first: each record disconnects and deletes its
// object, which tears its transport down, and signals still queued for the record are dropped
// with it. Nothing of theirs can reach the session afterwards.
FTPProductDownloadSession::~FTPProductDownloadSession() = default;

void FTPProductDownloadSession::holdWarmConnection(std::unique_ptr<ConnectionWarmup> warmup)
{
    warmConnection = std::move(warmup);
}

bool FTPProductDownloadSession::initialize(const InitialParameters &p)
{
    parameters = p;
    streamCount = p.defaultStreams;
    readMirrors();
    readUpdateSettings();
    releaseFetch = ReleaseFetch(p.productListName, p.versionPath);
    releaseFetch.setTrustedKeys(loadTrustedKeys(appDirectory.absolutePath()));
    return !mirrors.isEmpty();
}

void FTPProductDownloadSession::readMirrors()
{
    const QString warning = mirrors.readMirrors(parameters.mirrorsFile, parameters.versionPath);
    if (!warning.isEmpty())
        emit message(warning);
}

void FTPProductDownloadSession::readUpdateSettings()
{
    if (parameters.updateDataFile.isEmpty())
        return;
    const UpdateSettings settings =
            UpdateSettings::read(parameters.updateDataFile, parameters.defaultStreams);
    proxy = settings.proxy;
    streamCount = settings.streams;
    if (!settings.warning.isEmpty())
        emit message(settings.warning);
}

void FTPProductDownloadSession::startUpdate()
{
    arrangeStreams();
    state = SessionStarting;
    if (!releaseFetch.hasTrustedKeys())
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
    baseStreamCount = n;
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
    if (aimStreamAt(s, m)) {
        const MarkedSiteData &mirror = mirrors.at(m);
        streams[s]->stream->initiateConnection(QUrl(mirror.url), streams[s]->proxy, mirror.retries,
                                               mirror.timeout);
    }
}

// A further stream on a multiplexing mirror rides the connection a stream has just proven.
void FTPProductDownloadSession::joinMultiplexedMirror(int s, int m)
{
    if (aimStreamAt(s, m)) {
        const MarkedSiteData &mirror = mirrors.at(m);
        streams[s]->stream->joinConnection(QUrl(mirror.url), streams[s]->proxy, mirror.retries,
                                           mirror.timeout, s < baseStreamCount);
    }
}

bool FTPProductDownloadSession::carriesManyRequests(int m) const
{
    return std::any_of(streams.cbegin(), streams.cend(), [m](const auto &record) {
        return record->mirrorIndex == m && record->stream
               && record->stream->getState() >= DownloadStream_Connected
               && record->stream->isMultiplexed();
    });
}

bool FTPProductDownloadSession::aimStreamAt(int s, int m)
{
    DownloadStream *record = streams[s].get();
    const MarkedSiteData &mirror = mirrors.at(m);
    record->mirrorIndex = m;
    record->fileIndex = -1;
    if (record->adjustStream(QUrl(mirror.url)))
        return true;
    // Handled like a mirror that cannot be reached, from the event loop, so that moving on to the
    // next mirror never recurses through here.
    if (record->stream)
        record->stream->cancel();
    record->postFailedToConnect(QString("Unsupported mirror URL %1").arg(mirror.shownUrl()));
    return false;
}

int FTPProductDownloadSession::getNextMirror(int)
{
    return mirrors.getNextMirror();
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

// Where many requests share a connection files go by size (see assignNextFile), so that the run
// ends neither waiting on one large file nor on a row of small ones.
int FTPProductDownloadSession::getFileIndexBySize(bool largest)
{
    if (largestFirst.empty()) {
        largestFirst.resize(task.getSize());
        std::iota(largestFirst.begin(), largestFirst.end(), 0);
        std::stable_sort(largestFirst.begin(), largestFirst.end(), [this](int a, int b) {
            quint64 sizeA = 0;
            quint64 sizeB = 0;
            task.get(a, nullptr, nullptr, nullptr, &sizeA);
            task.get(b, nullptr, nullptr, nullptr, &sizeB);
            return sizeA > sizeB;
        });
        largestUnclaimed = 0;
        smallestUnclaimed = int(largestFirst.size()) - 1;
    }
    const unsigned int marks =
            FileSpecification::Ready | FileSpecification::Pending | FileSpecification::Downloaded;
    int &next = largest ? largestUnclaimed : smallestUnclaimed;
    const int step = largest ? 1 : -1;
    while (largestUnclaimed <= smallestUnclaimed) {
        const int i = largestFirst[next];
        next += step;
        const unsigned int flags = task.getFlags(i);
        if ((flags & marks) == 0) {
            task.setFlags(i, flags | FileSpecification::Pending);
            return i;
        }
    }
    return -1;
}

void FTPProductDownloadSession::unclaimFile(int i)
{
    task.resetPendingMark(i);
    largestUnclaimed = 0;
    smallestUnclaimed = int(largestFirst.size()) - 1;
}

bool FTPProductDownloadSession::assignNextFile(int s)
{
    // Over HTTP/2 half the streams keep the link full with the largest files while the other
    // half take the smallest, each of which costs a round trip whatever its size: left to the
    // end, they would leave the link idle.
    const int i = carriesManyRequests(streams[s]->mirrorIndex) ? getFileIndexBySize(s % 2 == 0)
                                                               : getNextFileIndex();
    if (i < 0) {
        if (takeOverSlowFile(s))
            return true;
        // A slower mirror's transfer may yet prove worth taking over; until then this waits.
        if (runsElsewhere(s)) {
            streams[s]->fileIndex = -1;
            takeoverTimer.start();
            return false;
        }
        shutDownStream(s);
        return false;
    }
    if (tryStoppedMirror(s) || leaveSlowMirror(s)) {
        unclaimFile(i);
        return false;
    }
    return startFile(s, i);
}

void FTPProductDownloadSession::shutDownStream(int s)
{
    DownloadStream *record = streams[s].get();
    emit message(QString("Stream %1 shutting down").arg(s));
    if (record->stream)
        record->stream->cancel();
    record->mirrorIndex = -1;
    record->fileIndex = -1;
}

bool FTPProductDownloadSession::startFile(int s, int i)
{
    DownloadStream *record = streams[s].get();
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
    } else {
        record->stream->getFile(directory + "/" + name, md5, qint64(size),
                                releaseFetch.sha256(directory + "/" + name));
    }
    record->startTransfer();
    return true;
}

// A mirror left for its silence may only have lost a connection: a base stream tries it again,
// between two files, and once it delivers the usual rules take over; silent, it is left again.
bool FTPProductDownloadSession::tryStoppedMirror(int s)
{
    const int retry = s < baseStreamCount ? stoppedMirrorToRetry() : -1;
    if (streams[s]->mirrorIndex < 0 || retry < 0)
        return false;
    emit message(QString("Mirror %1 is tried again").arg(mirrors.at(retry).shownUrl()));
    mirrors.noteRetried(retry);
    moveStream(s, retry);
    return true;
}

// New work goes to the faster mirrors: a stream on a much slower one moves, an extra stream of a
// multiplexing mirror simply ends. The slow mirror stays usable; nothing marks it failed.
bool FTPProductDownloadSession::leaveSlowMirror(int s)
{
    DownloadStream *record = streams[s].get();
    const int m = record->mirrorIndex;
    const int fastest = mirrors.fastest();
    if (m < 0 || fastest < 0 || fastest == m || !mirrors.isMuchSlower(m, fastest)
        || isSilentFor(fastest, silentMirrorMs)) {
        return false;
    }
    // Without HTTP/2 a rate comes from the few large files, and one measured before the streams
    // left a mirror is a guess: one stream goes to see, the others follow once it has measured
    // the mirror anew. Over HTTP/2 every byte measures, and the streams that move find the files
    // claimed; they are needed there to take files over.
    if (!carriesManyRequests(m) && mirrors.isStale(fastest) && hasStreamWithMirror(fastest))
        return false;
    if (s >= baseStreamCount) {
        shutDownStream(s);
        return true;
    }
    moveStream(s, fastest);
    return true;
}

void FTPProductDownloadSession::moveStream(int s, int m)
{
    streams[s]->stream->cancel();
    emit message(QString("Stream %1 change mirror to %2").arg(s).arg(m));
    connectStreamToMirror(s, m);
    emit streamSwitchMirror(s);
}

// At the end of the list an idle stream takes over the file that a much slower mirror would
// take longest to finish, from the byte it has reached; the slow transfer is dropped.
bool FTPProductDownloadSession::takeOverSlowFile(int s)
{
    const int m = streams[s]->mirrorIndex;
    if (m < 0)
        return false;
    // A mirror that has delivered nothing cannot be compared: it may be the fast one whose
    // streams came too late for a file (over HTTP/2 one mirror's streams can claim every file at
    // once). It tries one, the file that would take longest where it is, and so gets measured.
    const bool probe = mirrors.rate(m) <= 0;
    if (probe && transfersOn(m) > 0)
        return false;
    int slowest = -1;
    double bestGainMs = probe ? minimumProbeMs : minimumTakeoverGainMs;
    for (const auto &record : streams) {
        const double gainMs = takeoverGainMs(*record, m, probe);
        if (gainMs > bestGainMs) {
            bestGainMs = gainMs;
            slowest = record->index;
        }
    }
    if (slowest < 0)
        return false;
    const int i = streams[slowest]->fileIndex;
    QString name;
    task.get(i, nullptr, &name, nullptr, nullptr);
    emit message(QString("Stream %1 takes over %2 from stream %3").arg(s).arg(name).arg(slowest));
    // The bytes that arrived stay in the file; the new transfer continues from its end.
    shutDownStream(slowest);
    if (!startFile(s, i))
        return false;
    if (carriesManyRequests(m))
        addMultiplexedStreams(m);
    return true;
}

// A file waiting for its next attempt, or running on a mirror that has sent nothing for a while,
// gets nothing where it is, however fast that mirror was: a mirror that went away would otherwise
// hold its files until every stall and wait had run out.
bool FTPProductDownloadSession::hasStopped(const DownloadStream &record) const
{
    return record.stream->isWaitingToRepeat() || waitedInSilence(record, silentMirrorMs);
}

bool FTPProductDownloadSession::waitedInSilence(const DownloadStream &record, qint64 ms) const
{
    return record.fileIndex >= 0 && record.transferClock.elapsed() >= ms
           && mirrors.silentMs(record.mirrorIndex) >= ms;
}

// What taking record's file over to mirror m would save, in milliseconds; for a probe, how long
// the file would take where it is. Negative when the file is no candidate.
double FTPProductDownloadSession::takeoverGainMs(const DownloadStream &record, int m,
                                                 bool probe) const
{
    if (record.fileIndex < 0 || record.mirrorIndex < 0 || record.mirrorIndex == m || !record.stream
        || patches.patchFor(record.fileIndex)) {
        return -1;
    }
    const bool stopped = hasStopped(record);
    if (!stopped && record.transferClock.elapsed() < (probe ? probeSettleMs : settleMs))
        return -1;
    // A mirror that delivers more than this one keeps its files: a transfer of its that is slow
    // now has just started on a new connection, or its stall ends in a retry there.
    if (!stopped && !probe && mirrors.rate(record.mirrorIndex) > mirrors.rate(m))
        return -1;
    unsigned long long done = 0;
    unsigned long long size = 0;
    record.stream->getProgress(&done, &size);
    const double remaining = double(size) - double(done);
    // Compared with another mirror, a transfer on a shared connection counts at its share of what
    // its mirror delivers, since it speeds up as the others end; a probe goes by what the
    // transfer itself gets, which is all that is known to be slow.
    double slowRate = stopped ? 0 : record.transferRate(qint64(done));
    if (!stopped && !probe && carriesManyRequests(record.mirrorIndex))
        slowRate = qMax(slowRate, shareOf(record.mirrorIndex, 0));
    const double fastRate = shareOf(m, 1);
    if ((remaining <= 0 && !stopped)
        || (!probe && !MirrorChoice::isMuchSlowerRate(slowRate, fastRate))) {
        return -1;
    }
    const double slowMs = slowRate > 0 ? remaining * 1000 / slowRate : 1e18;
    return probe ? slowMs : slowMs - remaining * 1000 / fastRate;
}

int FTPProductDownloadSession::transfersOn(int m) const
{
    return int(std::count_if(streams.cbegin(), streams.cend(), [m](const auto &record) {
        return record->mirrorIndex == m && record->fileIndex >= 0;
    }));
}

double FTPProductDownloadSession::shareOf(int m, int joining) const
{
    const double rate = mirrors.rate(m);
    return carriesManyRequests(m) ? rate / qMax(1, transfersOn(m) + joining) : rate;
}

bool FTPProductDownloadSession::runsElsewhere(int s) const
{
    const int m = streams[s]->mirrorIndex;
    for (const auto &record : streams) {
        if (record->fileIndex >= 0 && record->mirrorIndex >= 0 && record->mirrorIndex != m)
            return true;
    }
    return false;
}

void FTPProductDownloadSession::retryTakeovers()
{
    for (int s = 0; s < int(streams.size()); ++s) {
        const DownloadStream *record = streams[s].get();
        if (state == SessionDownloading && record->mirrorIndex >= 0 && record->fileIndex < 0
            && record->stream && record->stream->getState() == DownloadStream_Connected) {
            assignNextFile(s);
        }
    }
}

// Over a connection that carries one request at a time a small file takes a round trip whatever
// the mirror's speed: measured, it would make a fast mirror that happens to get small files look
// slow, and its streams move to a slower one.
bool FTPProductDownloadSession::measuresMirror(const DownloadStream &record) const
{
    if (record.fileIndex < 0 || !record.stream)
        return false;
    unsigned long long size = 0;
    record.stream->getProgress(nullptr, &size);
    return size >= measuredFileBytes || carriesManyRequests(record.mirrorIndex);
}

bool FTPProductDownloadSession::isSilentFor(int m, qint64 ms) const
{
    return std::any_of(streams.cbegin(), streams.cend(), [this, m, ms](const auto &record) {
        return record->mirrorIndex == m && waitedInSilence(*record, ms);
    });
}

// A mirror whose transfers wait for bytes delivers nothing meanwhile, and its rate must say so:
// bytes that came in one burst at the start would otherwise count as a fast mirror's.
void FTPProductDownloadSession::watchMirrors()
{
    for (int m = 0; m < mirrors.size(); ++m) {
        if (std::any_of(streams.cbegin(), streams.cend(), [this, m](const auto &record) {
                return record->mirrorIndex == m && measuresMirror(*record);
            })) {
            mirrors.noteDelivered(m, 0);
        }
        // A mirror tried again gets as long to deliver its first byte, connecting included.
        const bool triedInVain = mirrors.isStopped(m) && hasStreamWithMirror(m)
                                 && mirrors.stoppedMs(m) >= stoppedMirrorMs;
        if (triedInVain || isSilentFor(m, stoppedMirrorMs))
            leaveStoppedMirror(m);
    }
}

// A mirror that went silent is left, not failed: its files go on elsewhere from the bytes they
// reached, and it is used again when the others fail; the streams still waiting on a mirror that
// another stream found failed go too. Never for a mirror that was left before, so that two silent
// mirrors cannot pass the streams to and fro while no retry runs out.
void FTPProductDownloadSession::leaveStoppedMirror(int m)
{
    const int target = liveMirrorBesides(m);
    if (target < 0)
        return;
    emit message(QString("Mirror %1 sent nothing for %2 seconds, its streams move to %3")
                         .arg(mirrors.at(m).shownUrl())
                         .arg(stoppedMirrorMs / 1000)
                         .arg(mirrors.at(target).shownUrl()));
    mirrors.noteStopped(m);
    for (int s = 0; s < int(streams.size()); ++s) {
        DownloadStream *record = streams[s].get();
        const bool onMirror = record->mirrorIndex == m;
        if (onMirror && record->fileIndex >= 0)
            unclaimFile(record->fileIndex);
        if (onMirror && s >= baseStreamCount)
            shutDownStream(s);
        // A base stream that had found nothing left to do is needed for the files given back.
        else if (onMirror || (s < baseStreamCount && record->mirrorIndex < 0))
            moveStream(s, target);
    }
    retryTakeovers();
}

// A mirror left for its silence that no stream has tried since, once it has waited long enough.
int FTPProductDownloadSession::stoppedMirrorToRetry() const
{
    for (int m = 0; m < mirrors.size(); ++m) {
        if (!mirrors.isStopped(m) || mirrors.at(m).failed || hasStreamWithMirror(m))
            continue;
        const qint64 wait = stoppedMirrorRetryMs << qMin(mirrors.timesStopped(m) - 1, 5);
        if (mirrors.stoppedMs(m) >= wait)
            return m;
    }
    return -1;
}

int FTPProductDownloadSession::liveMirrorBesides(int m) const
{
    for (int candidate : mirrors.dealOrder()) {
        if (candidate != m && !mirrors.isStopped(candidate)
            && !isSilentFor(candidate, silentMirrorMs)) {
            return candidate;
        }
    }
    return -1;
}

// Over HTTP/2 more streams on the mirror cost requests, not connections: enough of them are
// opened to keep many small files in flight, or to take over the files of much slower mirrors at
// once rather than one after the other.
void FTPProductDownloadSession::addMultiplexedStreams(int m)
{
    int onMirror = 0;
    int elsewhere = 0;
    for (const auto &record : streams) {
        onMirror += record->mirrorIndex == m ? 1 : 0;
        const int other = record->fileIndex >= 0 ? record->mirrorIndex : -1;
        elsewhere += other >= 0 && other != m && mirrors.isMuchSlower(other, m) ? 1 : 0;
    }
    int unclaimed = 0;
    const unsigned int marks =
            FileSpecification::Ready | FileSpecification::Pending | FileSpecification::Downloaded;
    for (int i = task.readyBound + 1; i < task.getSize(); ++i)
        unclaimed += (task.getFlags(i) & marks) == 0 ? 1 : 0;
    const int wanted = qMin(requestsInFlightPerMirror, onMirror + unclaimed + elsewhere);
    for (int r = baseStreamCount; onMirror < wanted; ++r) {
        if (r == int(streams.size()))
            createDownloadStream();
        if (streams[r]->mirrorIndex >= 0)
            continue;
        joinMultiplexedMirror(r, m);
        ++onMirror;
    }
}

void FTPProductDownloadSession::changeStreamMirror(int s)
{
    DownloadStream *record = streams[s].get();
    // A stream that was shut down may still report; it has no mirror to blame.
    if (record->mirrorIndex >= 0)
        mirrors.markFailed(record->mirrorIndex);
    record->mirrorIndex = -1;
    if (record->fileIndex >= 0)
        unclaimFile(record->fileIndex);
    record->fileIndex = -1;
    // Extra streams exist only for a multiplexing mirror; elsewhere they would be connections.
    if (s >= baseStreamCount) {
        shutDownStream(s);
        // What it gives back needs a stream on a mirror that works. Those may all have shut
        // down, their files taken over by this mirror; then one of them comes back.
        s = hasStreamOnWorkingMirror() ? -1 : idleBaseStream();
        if (s < 0) {
            if (!hasStreamWithMirror())
                emit processCancelled();
            return;
        }
        record = streams[s].get();
    }

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

bool FTPProductDownloadSession::hasStreamOnWorkingMirror() const
{
    return std::any_of(streams.cbegin(), streams.cend(), [this](const auto &record) {
        return record->mirrorIndex >= 0 && !mirrors.at(record->mirrorIndex).failed;
    });
}

int FTPProductDownloadSession::idleBaseStream() const
{
    for (int s = 0; s < baseStreamCount; ++s) {
        if (streams[s]->mirrorIndex < 0)
            return s;
    }
    return -1;
}

bool FTPProductDownloadSession::hasStreamWithMirror(int m) const
{
    return std::any_of(streams.cbegin(), streams.cend(), [m](const auto &record) {
        return m < 0 ? record->mirrorIndex >= 0 : record->mirrorIndex == m;
    });
}

void FTPProductDownloadSession::onStateChanged(int, DownloadStream_State) {}

void FTPProductDownloadSession::onStreamMessage(int s, const QString &text)
{
    emit message(tr("Stream %1: %2").arg(QString::number(s), text));
}

void FTPProductDownloadSession::onFailedToConnect(int s, const QString &text)
{
    if (s == 0)
        warmConnection.reset();
    emit message(tr("Stream %1 got error %2").arg(QString::number(s), text));
    changeStreamMirror(s);
}

void FTPProductDownloadSession::onConnected(int s)
{
    emit message(QString("Stream %1 connected").arg(s));
    if (s == 0)
        warmConnection.reset();
    if (state == SessionRetrievingList && startPrefetch(s))
        return;
    DownloadStream *record = streams[s].get();
    if (state == SessionDownloading) {
        if (record->stream && record->stream->getState() == DownloadStream_Connected) {
            if (s < baseStreamCount && record->stream->isMultiplexed())
                addMultiplexedStreams(record->mirrorIndex);
            assignNextFile(s);
        }
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
    // What was asked for beside the first stream belongs to the mirror it leaves.
    if (s == 0)
        releasePrefetchers();
    DownloadStream *record = streams[s].get();
    if (record->mirrorIndex < 0)
        return;
    const int m = getNextMirror(s);
    if (m < 0) {
        if (record->stream)
            record->stream->cancel();
        return;
    }
    emit message(QString("Stream %1 change mirror to %2").arg(s).arg(mirrors.at(m).shownUrl()));
    connectStreamToMirror(s, m);
}

void FTPProductDownloadSession::onProgressCount(int s, qint64, qint64)
{
    // The stream's own count, not the signal's: the signal may be older than the stream's file.
    DownloadStream *reporter = streams[s].get();
    if (reporter->fileIndex >= 0 && reporter->mirrorIndex >= 0 && reporter->stream) {
        unsigned long long done = 0;
        reporter->stream->getProgress(&done, nullptr);
        mirrors.noteDelivered(reporter->mirrorIndex, reporter->takeDelivered(qint64(done)),
                              measuresMirror(*reporter));
    }
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
    if (state == SessionDownloading)
        listedFileFinished(s);
    else if (state == SessionRetrievingList && s == 0)
        releaseFetchStepFinished(streams[0]->stream->getDestFilePath());
    else if (state == SessionRetrievingList)
        prefetchEnded(s);
}

void FTPProductDownloadSession::listedFileFinished(int s)
{
    DownloadStream *record = streams[s].get();
    // A stream that has given its file back has nothing to report finished.
    if (record->fileIndex < 0)
        return;
    if (const PatchRecord *patch = patches.patchFor(record->fileIndex)) {
        if (!makeFromPatch(s, *patch))
            return;
    } else if (!unpackArrived(s)) {
        return;
    }
    task.markReady(record->fileIndex);
    emit fileReady(task.files.at(record->fileIndex));
    // Downloaded, not ready: files an earlier run left complete are never fetched again.
    if (task.downloadedCount < task.getSize()) {
        QString name;
        task.get(record->fileIndex, nullptr, &name, nullptr, nullptr);
        emit message(QString("Stream %1, %2 OK").arg(s).arg(name));
        assignNextFile(s);
        return;
    }
    mirrorWatch.stop();
    emit message("Download finished.");
    emit downloadFinished();
}

// The manifest, its signature or the list has arrived.
void FTPProductDownloadSession::releaseFetchStepFinished(const QString &listPath)
{
    QString note;
    switch (releaseFetch.fileArrived(listPath, &note)) {
    case ReleaseFetch::FetchNext:
        if (!note.isEmpty())
            emit message(note);
        requestListFile();
        break;
    case ReleaseFetch::Refused:
        refuseMirrorList(0, note);
        break;
    case ReleaseFetch::ListReady:
        emit message("Download file list retrieved.");
        state = SessionDownloading;
        if (checkAllFiles(parameters.resumeSession, listPath)) {
            // Their connection carries the files from now on, with as many streams as it takes.
            releasePrefetchers();
            startDownloadBySessionState();
            return;
        }
        refuseMirrorList(0, tr("Unable to initialize session with %1.").arg(listPath));
        break;
    }
}

// Nothing of a list that cannot be used is acted on: its mirror is left like one that lacks it.
void FTPProductDownloadSession::refuseMirrorList(int s, const QString &reason)
{
    releasePrefetchers();
    state = SessionStarting;
    task = TaskState();
    emit message(QString("Stream %1 reported error: %2").arg(QString::number(s), reason));
    changeStreamMirror(s);
}

void FTPProductDownloadSession::onFileError(int s, DownloadStream_Error error, const QString &text)
{
    // Taken up as the first stream's own failure when the chain comes to the file.
    if (state == SessionRetrievingList && s != 0 && prefetchEnded(s, error, text))
        return;
    if (state == SessionRetrievingList && s == 0 && error != DownloadStream_LocalFileError) {
        QString note;
        const ReleaseFetch::Outcome outcome = releaseFetch.fileFailed(&note);
        if (!note.isEmpty())
            emit message(note);
        if (outcome == ReleaseFetch::FetchNext) {
            requestListFile();
            return;
        }
    }
    if (state == SessionDownloading && error != DownloadStream_LocalFileError
        && patches.patchFor(streams[s]->fileIndex)) {
        fetchWhole(s, text);
        return;
    }
    if (state == SessionRetrievingList) {
        releasePrefetchers();
        state = SessionStarting;
    }
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
    const int m = streams[0]->mirrorIndex;
    releaseFetch.start(mirrors.at(m).url);
    if (streams[0]->stream->isMultiplexed())
        prefetchReleaseFiles(m);
    requestListFile();
}

// The manifest, its signature or the list, as the fetch chain is.
void FTPProductDownloadSession::requestListFile()
{
    const QString name = releaseFetch.fileName();
    if (prefetches.contains(name)) {
        const Prefetch prefetch = prefetches.value(name);
        switch (prefetch.state) {
        case Prefetch::Running:
            awaitedPrefetch = name;
            return;
        case Prefetch::Arrived:
            releaseFetchStepFinished(streams[prefetch.stream]->stream->getDestFilePath());
            return;
        case Prefetch::Failed:
            // Kept, so that its stream is let go with the others when the mirror is left.
            onFileError(0, prefetch.error, prefetch.text);
            return;
        }
    }
    DownloadStream *record = streams[0].get();
    record->fileIndex = -1;
    record->stream->getFile(name, QString(), 0);
}

// A round trip each saved: the signature and the list no longer wait for the manifest.
void FTPProductDownloadSession::prefetchReleaseFiles(int m)
{
    releasePrefetchers();
    int r = baseStreamCount;
    for (const QString &name : releaseFetch.laterFileNames()) {
        for (; r < int(streams.size()) && streams[r]->mirrorIndex >= 0; ++r) {}
        if (r == int(streams.size()))
            createDownloadStream();
        Prefetch prefetch;
        prefetch.stream = r;
        prefetches.insert(name, prefetch);
        joinMultiplexedMirror(r, m);
    }
}

QMap<QString, FTPProductDownloadSession::Prefetch>::iterator
FTPProductDownloadSession::runningPrefetch(int s)
{
    return std::find_if(prefetches.begin(), prefetches.end(), [s](const Prefetch &prefetch) {
        return prefetch.stream == s && prefetch.state == Prefetch::Running;
    });
}

bool FTPProductDownloadSession::startPrefetch(int s)
{
    const auto it = runningPrefetch(s);
    if (it == prefetches.end())
        return false;
    streams[s]->fileIndex = -1;
    streams[s]->stream->getFile(it.key(), QString(), 0);
    return true;
}

bool FTPProductDownloadSession::prefetchEnded(int s, DownloadStream_Error error,
                                             const QString &text)
{
    const auto it = runningPrefetch(s);
    if (it == prefetches.end())
        return false;
    it->state = error == DownloadStream_Error{} ? Prefetch::Arrived : Prefetch::Failed;
    it->error = error;
    it->text = text;
    if (awaitedPrefetch == it.key()) {
        awaitedPrefetch.clear();
        requestListFile();
    }
    return true;
}

void FTPProductDownloadSession::releasePrefetchers()
{
    for (const Prefetch &prefetch : std::as_const(prefetches)) {
        DownloadStream *record = streams[prefetch.stream].get();
        if (record->stream)
            record->stream->cancel();
        record->mirrorIndex = -1;
    }
    prefetches.clear();
    awaitedPrefetch.clear();
}

bool FTPProductDownloadSession::checkAllFiles(bool resume, const QString &listPath)
{
    if (!readProductList(listPath))
        return false;
    emit progressCount(0, task.totalSize);
    task.resetMarks();
    patches.offer(releaseFetch.haveManifest() ? releaseFetch.manifest().patches()
                                              : QList<PatchRecord>(),
                  task.files, ProductList::workingFileNames(parameters.productListName));
    quint64 done = 0;
    DirectoryListing disk;
    for (int i = 0; i < task.getSize(); ++i) {
        FileSpecification file;
        task.get(i, &file);
        if (!checkFile(i, file, resume, disk))
            continue;
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

// A product list that lists nothing is as unusable as one that cannot be read.
bool FTPProductDownloadSession::readProductList(const QString &listPath)
{
    if (listPath.isEmpty())
        return false;
    task = TaskState();
    largestFirst.clear();
    clearedDirectories.clear();
    const bool read = task.initializeByProductIni(listPath);
    const QString conflict =
            task.installPathConflict(ProductList::workingFileNames(parameters.productListName));
    if (!conflict.isEmpty())
        emit message(QStringLiteral("%1: %2").arg(listPath, conflict));
    if (!read || !conflict.isEmpty() || task.getSize() == 0)
        return false;
    // A signed manifest vouches for every file of the list, or for none.
    const bool signedRelease = releaseFetch.haveManifest() && releaseFetch.hasTrustedKeys();
    for (int i = 0; signedRelease && i < task.getSize(); ++i) {
        FileSpecification file;
        task.get(i, &file);
        if (!ReleaseManifest::isSha256Text(getFileSha256(file)))
            return false;
    }
    return true;
}

// Marks file i as the disk has it: ready, downloaded, or still to fetch (false).
bool FTPProductDownloadSession::checkFile(int i, const FileSpecification &file, bool resume,
                                          DirectoryListing &disk)
{
    const QString installedMd5 =
            disk.mayHold(getInstalledFilePath(file)) ? installedFileMd5(file) : QString();
    if (!installedMd5.isEmpty() && installedMd5 == file.installedMd5()) {
        task.markReady(i);
        emit message(QString("File %1 up to date").arg(getInstalledFilePath(file)));
        return true;
    }
    const QString temp = getTempFilePath(file);
    const bool downloadMayBeThere = disk.mayHold(temp);
    if ((downloadMayBeThere && isDownloaded(file))
        || (disk.mayHold(file.patchedPath(parameters.tempDirectory))
            && PatchPlan::isMade(file, parameters.tempDirectory))) {
        task.markDownloaded(i);
        return true;
    }
    patches.choose(i, file, installedMd5);
    task.markNoFile(i, false);
    // The whole file too: a patch that does not apply falls back to it.
    if (resume) {
        clearWayFor(file.directory + "/" + file.name);
        if (const PatchRecord *patch = patches.patchFor(i))
            clearWayFor(patch->path);
    }
    // A file shorter than required is what a broken transfer left: its stream goes on from its
    // end.
    if (downloadMayBeThere && QFileInfo(temp).size() >= qint64(file.size))
        QFile::remove(temp);
    return false;
}

// An installed file is read only where its checksum can tell something: when it may be up to date,
// being of the listed size, or when it may be the base of a patch.
QString FTPProductDownloadSession::installedFileMd5(const FileSpecification &file) const
{
    const QString path = getInstalledFilePath(file);
    const QFileInfo installed(path);
    if (!installed.exists()
        || (quint64(installed.size()) != file.installedSize()
            && !patches.offersFor(file.installPath()))) {
        return QString();
    }
    return getFileMD5Ex(path);
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

// A working directory taken up again may hold what another list of this version left where this
// one needs a directory or a file, and the stream could not write there. No download of this list
// lies in such a place, nested downloads being refused, so it goes.
void FTPProductDownloadSession::clearWayFor(const QString &relativePath)
{
    QStringList places = pathAndParents(QDir::cleanPath(relativePath));
    const QString download = parameters.tempDirectory + "/" + places.takeFirst();
    for (auto place = places.crbegin(); place != places.crend(); ++place) {
        if (clearedDirectories.contains(*place))
            continue;
        const QFileInfo info(parameters.tempDirectory + "/" + *place);
        if (!info.isDir() || info.isSymLink()) {
            // Nothing below a file, or below nothing, is left to clear.
            removeTree(info.filePath());
            return;
        }
        clearedDirectories.insert(*place);
    }
    const QFileInfo info(download);
    if (info.isDir() && !info.isSymLink())
        removeTree(download);
}

QString FTPProductDownloadSession::getFileSha256(const FileSpecification &file) const
{
    return releaseFetch.sha256(file.directory + "/" + file.name);
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
    mirrorWatch.start();
    // Mirrors already known failed are left out; each stream goes to the mirror that has
    // fewest, the faster one first.
    const QVector<int> order = mirrors.dealOrder();
    QVector<int> load(mirrors.size());
    for (const auto &record : streams) {
        if (record->mirrorIndex >= 0)
            ++load[record->mirrorIndex];
    }
    // Extra streams come with the connections they ride, below.
    for (int k = 0; k < baseStreamCount; ++k) {
        const DownloadStream *record = streams[k].get();
        if (record->mirrorIndex >= 0 || order.isEmpty())
            continue;
        int m = order.first();
        for (int candidate : order)
            m = load.at(candidate) < load.at(m) ? candidate : m;
        ++load[m];
        if (carriesManyRequests(m))
            joinMultiplexedMirror(record->index, m);
        else
            connectStreamToMirror(record->index, m);
    }
    for (int k = 0; k < baseStreamCount; ++k) {
        const SingleFileDownloadStream *stream = streams[k]->stream;
        if (stream && stream->getState() == DownloadStream_Connected) {
            if (stream->isMultiplexed())
                addMultiplexedStreams(streams[k]->mirrorIndex);
            assignNextFile(k);
        }
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

// A packed file is unpacked as soon as it has arrived, while the link still carries the others,
// so that the install only links it into place, and every file that will be installed is started
// for the disk. It is kept where a file made from a patch lies (a resume counts it as
// downloaded), and the packed download goes once it has served. One that does not unpack to what
// the list says stays packed, for the install to report. False, with the file handed back to be
// fetched again, when neither is left.
bool FTPProductDownloadSession::unpackArrived(int s)
{
    FileSpecification file;
    task.get(streams[s]->fileIndex, &file);
    if (!file.isPacked()) {
        writeback.add(getTempFilePath(file), file.size);
        return true;
    }
    const QString packed = getTempFilePath(file);
    const QString result = file.patchedPath(parameters.tempDirectory);
    const QString directory = QFileInfo(result).path();
    if (!unpackedDirectories.contains(directory)) {
        if (!QDir().mkpath(directory))
            return true;
        unpackedDirectories.insert(directory);
    }
    if (file.unpackedSize < writebackSize) {
        const InPlaceUnpacking unpacked =
                unpackInPlace(packed, result, file.unpackedMd5, file.unpackedSize);
        if (unpacked == InPlaceUnpacking::Unpacked)
            writeback.add(result, file.unpackedSize);
        if (unpacked != InPlaceUnpacking::Lost)
            return true;
        const QString why = systemError();
        QFile::remove(result);
        emit message(QString("Stream %1: %2 could not be kept (%3), fetching it again")
                             .arg(s)
                             .arg(file.installPath(), why));
        giveBack(s);
        return false;
    }
    QString md5;
    if (unpackFileWithMD5(result, packed, &md5, file.unpackLimit()) && md5 == file.unpackedMd5
        && quint64(QFileInfo(result).size()) == file.unpackedSize) {
        writeback.add(result, file.unpackedSize);
        QFile::remove(packed);
    } else {
        QFile::remove(result);
    }
    return true;
}

// A patch that cannot be had or used costs its file nothing but the detour: it is fetched whole.
void FTPProductDownloadSession::fetchWhole(int s, const QString &why)
{
    emit message(QString("Stream %1: no patch (%2), fetching the whole file").arg(s).arg(why));
    patches.drop(streams[s]->fileIndex);
    giveBack(s);
}

void FTPProductDownloadSession::giveBack(int s)
{
    DownloadStream *record = streams[s].get();
    unclaimFile(record->fileIndex);
    record->fileIndex = -1;
    assignNextFile(s);
}

bool FTPProductDownloadSession::createInitialFileList(const QString &path)
{
    task = TaskState();
    largestFirst.clear();
    task.initializeByProductIni(path);
    return task.getSize() > 0;
}

QString getFTPDirectory(const QString &name, const QString &directory)
{
    return directory + "/" + name;
}
