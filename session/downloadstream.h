#pragma once

#include "streams/downloadstreamidentifiedsignals.h"

#include <QElapsedTimer>
#include <QString>

class QUrl;
class SingleFileDownloadStream;

// One stream of a download session: the transport object that works for it, the mirror and
// file it works on, and the relay that tags the object's signals with the stream's number.
// Owns the transport object; the object's signals reach the relay queued, each exactly once.
class DownloadStream : public DownloadStreamIdentifiedSignals
{
    Q_OBJECT

public:
    DownloadStream(int index, const QString &tempDirectory, const QString &proxy);
    ~DownloadStream() override;

    // Makes the record hold an object that speaks the URL's scheme, relaying its signals.
    // False for a scheme no stream speaks; the record's object is then left as it was.
    bool adjustStream(const QUrl &url);
    // Reports a failed connection through the relay once control is back in the event loop,
    // as the object itself would have.
    void postFailedToConnect(const QString &text);

    QString tempDirectory;
    QString proxy;
    int mirrorIndex = -1;
    int fileIndex = -1;
    SingleFileDownloadStream *stream = nullptr;

    // A file was handed to the stream: its speed is measured from here.
    void startTransfer();
    // Bytes of the current file that arrived since the last call; done is where it stands.
    qint64 takeDelivered(qint64 done);
    // Bytes a second of the current file's transfer so far.
    double transferRate(qint64 done) const;
    QElapsedTimer transferClock;

private:
    void relayStreamSignals();

    qint64 doneAtStart = 0;
    qint64 lastDone = 0;
};
