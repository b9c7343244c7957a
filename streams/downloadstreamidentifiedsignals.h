#pragma once

#include "streams/downloadstreamtypes.h"

#include <QObject>
#include <QString>

// Stands beside one stream of a session: re-emits each of the stream's signals with the
// stream's index in front, directly, within the stream's own emission.
class DownloadStreamIdentifiedSignals : public QObject
{
    Q_OBJECT

public:
    explicit DownloadStreamIdentifiedSignals(int index, QObject *parent = nullptr);

    // The stream's position in the session's list of streams.
    int index;

signals:
    void stateChanged(int index, DownloadStream_State state);
    void message(int index, const QString &text);
    void failedToConnect(int index, const QString &text);
    void connected(int index);
    void disconnected(int index);
    void progressCount(int index, qint64 done, qint64 total);
    void fileFinished(int index);
    void fileError(int index, DownloadStream_Error error, const QString &text);

public slots:
    void onStateChanged(DownloadStream_State state);
    void onMessage(const QString &text);
    void onFailedToConnect(const QString &text);
    void onConnected();
    void onDisconnected();
    void onProgressCount(qint64 done, qint64 total);
    void onFileFinished();
    void onFileError(DownloadStream_Error error, const QString &text);
};
