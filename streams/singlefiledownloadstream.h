#pragma once

#include "streams/downloadstreamtypes.h"

#include <QDir>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QUrl>

#include <memory>

class CurlTransport;
class HashingFile;
class QFile;

// One connection to one mirror over which files are fetched one at a time into destDir, with
// repeated attempts after a wait and a final length and checksum check. A file with a checksum
// that lies there shorter than required is continued from its end; what a broken or cancelled
// transfer of one leaves stays for that. Owns the open local file and the transport, which the
// variants drive. fileFinished() is posted to the event loop, never emitted from inside the
// transport; after cancel() no further signal but stateChanged(Idle) comes.
class SingleFileDownloadStream : public QObject
{
    Q_OBJECT

public:
    explicit SingleFileDownloadStream(const QString &destDir);
    ~SingleFileDownloadStream() override;

    virtual int kind() const = 0;
    virtual DownloadStream_State getState() const;
    virtual void initiateConnection(const QUrl &url, const QString &proxy, int retries,
                                    int timeout) = 0;
    // Connects as a further stream to a server whose connection another stream has proven to
    // carry many requests at once; a protocol without that connects as usual. A stream with
    // ownConnection keeps its right to a connection of its own, where a server it is sent on to
    // does not multiplex.
    virtual void joinConnection(const QUrl &url, const QString &proxy, int retries, int timeout,
                                bool /*ownConnection*/)
    {
        initiateConnection(url, proxy, retries, timeout);
    }
    virtual void getFile(const QString &remotePath, const QString &md5, long long size);
    // getFile() that also holds the file to its SHA-256 (64 hexadecimal digits) from a signed
    // release manifest; a mismatch is a checksum error.
    void getFile(const QString &remotePath, const QString &md5, long long size,
                 const QString &sha256);
    virtual QString getDestFilePath() const;
    virtual void getProgress(unsigned long long *done, unsigned long long *size) const;
    virtual void cancel();
    virtual void checkGetFilePrerequisitions() = 0;
    // The mirror answered over HTTP/2: further streams to it cost no connection of their own.
    bool isMultiplexed() const;
    // The current file failed and waits for its next attempt.
    bool isWaitingToRepeat() const { return repeatPending; }
    virtual int createFileRequest(QString path, QFile *file) = 0;

    // For tests only; the product keeps the defaults (a second, 60 s, the system's CAs).
    void setRepeatTimeUnit(int milliseconds);
    void setStallTimeout(int seconds);

signals:
    void stateChanged(DownloadStream_State state);
    void message(const QString &text);
    void failedToConnect(const QString &text);
    void connected();
    void disconnected();
    void progressCount(qint64 done, qint64 total);
    void fileFinished();
    void fileError(DownloadStream_Error error, const QString &text);

public slots:
    void onDataTransferProgress(qint64 done, qint64 total);
    void emitFileFinished();
    void onRepeatDownloadAttempt();

protected:
    void internalInitDownloadParams(const QUrl &url, const QString &proxy, int retries,
                                    int timeout);
    void setState(DownloadStream_State state);
    // setState() that tells whether the stream is still there and in that state afterwards:
    // a slot may have deleted or cancelled it.
    bool enterState(DownloadStream_State state);
    bool finalCheckCurrentFile();
    void handleConnectError(const QString &text);
    // With repeatable false the file is given up at once, without waiting.
    void handleFileRequestError(const QString &text, bool repeatable = true);

    // Takes the connection parameters and a fresh transport with the proxy and the test settings
    // applied; the previous transport and the current file go with whatever was under way.
    void replaceTransport(const QUrl &url, const QString &proxy, int retries, int timeout);
    // Fetches the current file into file; returns the request id.
    int requestFile(const QString &path, QFile *file);
    void handleFileRequestFinished(bool error);

    DownloadStream_State state = DownloadStream_Idle;
    QDir destDir;
    QUrl url;
    int retries = 5;
    int timeout = 30;
    QUrl proxy;
    QString remotePath;
    QString localPath;
    std::unique_ptr<HashingFile> file;
    QString md5;
    QString sha256;
    qint64 size = 0;
    qint64 done = 0;
    int connectRequestId = -1;
    int loginRequestId = -1;
    int fileRequestId = -1;
    int attempt = 0;
    bool repeatPending = false;
    CurlTransport *transport = nullptr;

private:
    // A file with a checksum has a length to hold the server to and bytes worth continuing; the
    // product list has none.
    bool isChecked() const { return !md5.isEmpty() || !sha256.isEmpty(); }

    // Stops whatever was under way for the current file and deletes its local file, so that a
    // new connection starts clean.
    void dropCurrentFile();
    // Silences, stops and discards the transport, so that nothing more comes from it.
    void releaseTransport();
    QString prepareFile(const QString &remotePath, const QString &md5, qint64 size,
                        bool firstAttempt);
    bool openFile();
    // Asks for the current file once more, telling why first.
    void requestAgain(const QString &reason);
    void rejectFile(DownloadStream_Error error, const QString &text);
    // Closes the file, and deletes it unless it holds bytes a later attempt can continue.
    void discardFile();

    QTimer repeatTimer;
    QTimer finishTimer;
    // The current file was continued from bytes an earlier transfer left, which may be wrong.
    bool continued = false;
    int repeatTimeUnit = 1000;
    int stallTimeout = 0;
};
