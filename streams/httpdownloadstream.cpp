#include "streams/httpdownloadstream.h"

#include "streams/curltransport.h"

#include <QPointer>
#include <QTimer>

namespace {

constexpr int httpPort = 80;
constexpr int httpsPort = 443;

QUrl serverOf(const QUrl &url)
{
    QUrl server = url;
    if (server.port() < 0) {
        const bool secure = url.scheme().compare(QLatin1String("https"), Qt::CaseInsensitive) == 0;
        server.setPort(secure ? httpsPort : httpPort);
    }
    return server;
}

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
    connectTransport(url, proxy, retries, timeout, true);
}

void HTTPDownloadStream::joinConnection(const QUrl &url, const QString &proxy, int retries,
                                        int timeout, bool ownConnection)
{
    // Credentials are handed over by the connect step's log-in.
    if (!url.userName().isEmpty()) {
        connectTransport(url, proxy, retries, timeout, ownConnection);
        return;
    }
    prepareTransport(url, proxy, retries, timeout);
    transport->joinHost(serverOf(url), ownConnection);
    // Posted: the caller is inside a slot of its own. A transport replaced or released meanwhile
    // has joined nothing.
    const QPointer<CurlTransport> joined(transport);
    QTimer::singleShot(0, this, [this, joined] {
        if (joined && transport == joined && enterState(DownloadStream_Connecting)
            && enterState(DownloadStream_Connected))
            emit connected();
    });
}

void HTTPDownloadStream::connectTransport(const QUrl &url, const QString &proxy, int retries,
                                          int timeout, bool ownConnection)
{
    prepareTransport(url, proxy, retries, timeout);
    connectRequestId = transport->connectToHost(serverOf(url), ownConnection);
    loginRequestId =
            url.userName().isEmpty() ? -1 : transport->login(url.userName(), url.password());
}

void HTTPDownloadStream::prepareTransport(const QUrl &url, const QString &proxy, int retries,
                                          int timeout)
{
    replaceTransport(url, proxy, retries, timeout);
    connect(transport, &CurlTransport::commandFinished, this,
            &HTTPDownloadStream::onHttpRequestFinished);
    connect(transport, &CurlTransport::dataTransferProgress, this,
            &HTTPDownloadStream::onDataReadProgress);
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
