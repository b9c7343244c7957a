#include "streams/ftpdownloadstream.h"

#include "streams/curltransport.h"

namespace {

constexpr int ftpPort = 21;

} // namespace

FTPDownloadStream::FTPDownloadStream(const QString &destDir)
    : SingleFileDownloadStream(destDir)
{}

int FTPDownloadStream::kind() const
{
    return 0;
}

void FTPDownloadStream::initiateConnection(const QUrl &url, const QString &proxy, int retries,
                                           int timeout)
{
    replaceTransport(url, proxy, retries, timeout);
    connect(transport, &CurlTransport::commandFinished, this,
            &FTPDownloadStream::onFtpCommandFinished);
    connect(transport, &CurlTransport::dataTransferProgress, this,
            &FTPDownloadStream::onDataTransferProgress);

    QUrl server = url;
    if (server.port() <= 0)
        server.setPort(ftpPort);
    connectRequestId = transport->connectToHost(server);
    loginRequestId = transport->login(url.userName(), url.password());
}

void FTPDownloadStream::checkGetFilePrerequisitions() {}

int FTPDownloadStream::createFileRequest(QString path, QFile *file)
{
    return requestFile(path, file);
}

void FTPDownloadStream::onFtpCommandFinished(int id, bool error)
{
    if (id == connectRequestId) {
        connectRequestId = -1;
        if (error)
            handleConnectError(transport->errorString());
        else
            setState(DownloadStream_Connecting);
    } else if (id == loginRequestId) {
        loginRequestId = -1;
        if (error)
            handleConnectError(transport->errorString());
        else if (enterState(DownloadStream_Connected))
            emit connected();
    } else if (id == fileRequestId) {
        fileRequestId = -1;
        handleFileRequestFinished(error);
    }
}
