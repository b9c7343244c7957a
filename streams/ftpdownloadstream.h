#pragma once

#include "streams/singlefiledownloadstream.h"

// A download stream over FTP: one log-in (anonymous when the URL names no user), then every
// file over that control connection.
class FTPDownloadStream : public SingleFileDownloadStream
{
    Q_OBJECT

public:
    explicit FTPDownloadStream(const QString &destDir);

    int kind() const override;
    void initiateConnection(const QUrl &url, const QString &proxy, int retries,
                            int timeout) override;
    void checkGetFilePrerequisitions() override;
    int createFileRequest(QString path, QFile *file) override;

public slots:
    void onFtpCommandFinished(int id, bool error);
};
