#include "streams/httpdownloadstream.h"

#include "streams/curltransport.h"

namespace {

constexpr int httpPort = 80;
constexpr int httpsPort = 443;

} // namespace

HTTPDownloadStream::HTTPDownloadStream(const QString &destDir)
    : SingleFileDownloadStream(destDir)
{}

int HTTPDownloadStream::kind() const
{
    return 1;
}

void HTTPDownloadStream::initiateConnection(const QUrl &url, const QString &proxy, int retries,
                                            int timeout)
{
    replaceTransport(url, proxy, retries, timeout);
    connect(transport, &CurlTransport::commandFinished, this,
            &HTTPDownloadStream::onHttpRequestFinished);
    connect(transport, &CurlTransport::dataTransferProgress, this,
            &HTTPDownloadStream::onDataReadProgress);

    QUrl server = url;
    if (server.port() < 0) {
        const bool secure = url.scheme().compare(QLatin1String("https"), Qt::CaseInsensitive) == 0;
        server.setPort(secure ? httpsPort : httpPort);
    }
    connectRequestId = transport->connectToHost(server);
    loginRequestId =
            url.userName().isEmpty() ? -1 : transport->login(url.userName(), url.password());
}

void HTTPDownloadStream::checkGetFilePrerequisitions() {}

int HTTPDownloadStream::createFileRequest(QString path, QFile *file)
{
    connectRequestId = -1;
    loginRequestId = -1;
    return requestFile(path, file);
}

void HTTPDownloadStream::onHttpRequestFinished(int id, bool error)
{
    if (id == connectRequestId) {
        connectRequestId = -1;
        if (error) {
            handleConnectError(transport->errorString());
            return;
        }
        if (!enterState(DownloadStream_Connecting) || loginRequestId >= 0)
            return;
    } else if (id == loginRequestId) {
        loginRequestId = -1;
        if (error) {
            handleConnectError(transport->errorString());
            return;
        }
    } else {
        if (id == fileRequestId) {
            fileRequestId = -1;
            handleFileRequestFinished(error);
        }
        return;
    }
    if (enterState(DownloadStream_Connected))
        emit connected();
}

void HTTPDownloadStream::onDataReadProgress(qint64 done, qint64 total)
{
    onDataTransferProgress(done, total);
}
