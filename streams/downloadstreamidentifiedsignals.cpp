#include "streams/downloadstreamidentifiedsignals.h"

DownloadStreamIdentifiedSignals::DownloadStreamIdentifiedSignals(int index, QObject *parent)
    : QObject(parent)
    , index(index)
{}

void DownloadStreamIdentifiedSignals::onStateChanged(DownloadStream_State state)
{
    emit stateChanged(index, state);
}

void DownloadStreamIdentifiedSignals::onMessage(const QString &text)
{
    emit message(index, text);
}

void DownloadStreamIdentifiedSignals::onFailedToConnect(const QString &text)
{
    emit failedToConnect(index, text);
}

void DownloadStreamIdentifiedSignals::onConnected()
{
    emit connected(index);
}

void DownloadStreamIdentifiedSignals::onDisconnected()
{
    emit disconnected(index);
}

void DownloadStreamIdentifiedSignals::onProgressCount(qint64 done, qint64 total)
{
    emit progressCount(index, done, total);
}

void DownloadStreamIdentifiedSignals::onFileFinished()
{
    emit fileFinished(index);
}

void DownloadStreamIdentifiedSignals::onFileError(DownloadStream_Error error, const QString &text)
{
    emit fileError(index, error, text);
}
