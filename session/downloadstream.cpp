#include "session/downloadstream.h"

#include "streams/adjustdownloadstream.h"
#include "streams/singlefiledownloadstream.h"

#include <QMetaObject>
#include <QUrl>

DownloadStream::DownloadStream(int index, const QString &tempDirectory, const QString &proxy)
    : DownloadStreamIdentifiedSignals(index)
    , tempDirectory(tempDirectory)
    , proxy(proxy)
{}

DownloadStream::~DownloadStream()
{
    // Whatever the object still says while it goes down is meant for nobody.
    if (stream)
        disconnect(stream, nullptr, this, nullptr);
    delete stream;
}

bool DownloadStream::adjustStream(const QUrl &url)
{
    if (!adjustDownloadStream(&stream, url, tempDirectory))
        return false;
    relayStreamSignals();
    return true;
}

void DownloadStream::startTransfer()
{
    unsigned long long done = 0;
    if (stream)
        stream->getProgress(&done, nullptr);
    doneAtStart = lastDone = qint64(done);
    transferClock.start();
}

qint64 DownloadStream::takeDelivered(qint64 done)
{
    const qint64 delivered = qMax<qint64>(0, done - lastDone);
    lastDone = done;
    return delivered;
}

double DownloadStream::transferRate(qint64 done) const
{
    const qint64 elapsed = transferClock.isValid() ? transferClock.elapsed() : 0;
    return elapsed > 0 ? double(done - doneAtStart) * 1000.0 / double(elapsed) : 0;
}

void DownloadStream::postFailedToConnect(const QString &text)
{
    QMetaObject::invokeMethod(
            this, [this, text] { onFailedToConnect(text); }, Qt::QueuedConnection);
}

void DownloadStream::relayStreamSignals()
{
    // The object may be the one connected before (its kind fitted the new mirror too): unique
    // connections keep every signal arriving once. Queued, so that a handler of the session may
    // cancel or replace the object that spoke.
    const auto type = Qt::ConnectionType(Qt::QueuedConnection | Qt::UniqueConnection);
    using Stream = SingleFileDownloadStream;
    using Relay = DownloadStreamIdentifiedSignals;
    connect(stream, &Stream::stateChanged, this, &Relay::onStateChanged, type);
    connect(stream, &Stream::message, this, &Relay::onMessage, type);
    connect(stream, &Stream::failedToConnect, this, &Relay::onFailedToConnect, type);
    connect(stream, &Stream::connected, this, &Relay::onConnected, type);
    connect(stream, &Stream::disconnected, this, &Relay::onDisconnected, type);
    connect(stream, &Stream::progressCount, this, &Relay::onProgressCount, type);
    connect(stream, &Stream::fileFinished, this, &Relay::onFileFinished, type);
    connect(stream, &Stream::fileError, this, &Relay::onFileError, type);
}
