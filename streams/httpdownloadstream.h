#pragma once

#include "streams/singlefiledownloadstream.h"

// A download stream over HTTP or HTTPS: the connect step reaches the server with a light
// request, files travel over one kept-alive connection.
class HTTPDownloadStream : public SingleFileDownloadStream
{
    Q_OBJECT

public:
    explicit HTTPDownloadStream(const QString &destDir);

    int kind() const override;
    void initiateConnection(const QUrl &url, const QString &proxy, int retries,
                            int timeout) override;
    void joinConnection(const QUrl &url, const QString &proxy, int retries, int timeout,
                        bool ownConnection) override;
    void checkGetFilePrerequisitions() override;
    int createFileRequest(QString path, QFile *file) override;

public slots:
    void onHttpRequestFinished(int id, bool error);
    void onDataReadProgress(qint64 done, qint64 total);

private:
    void connectTransport(const QUrl &url, const QString &proxy, int retries, int timeout,
                          bool ownConnection);
    void prepareTransport(const QUrl &url, const QString &proxy, int retries, int timeout);
};
