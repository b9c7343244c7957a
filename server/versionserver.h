#pragma once

#include "server/sourcelimiter.h"

#include <QByteArray>
#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

#include <memory>

// Answers the version query ("2" and a zero byte, nothing else) on one IPv4 UDP socket with the
// current reply, at most as often per source as the limiter allows; every other datagram, and
// every query while there is no reply, goes unanswered. Reads and answers in batches
// (recvmmsg/sendmmsg) from the event loop, and writes a count line to standard error each minute.
class VersionServer : public QObject
{
    Q_OBJECT

public:
    VersionServer(double rate, double burst, QObject *parent = nullptr);
    ~VersionServer() override;

    // Binds address:port (0 picks a free port); false with errorString() set.
    bool listen(const QByteArray &address, quint16 port);
    quint16 port() const { return boundPort; }
    QString errorString() const { return error; }
    // The counts since the last line, labelled with span, and starts counting anew.
    void writeCounts(const char *span);

public slots:
    // At most 31 bytes reach a client; an empty reply answers nobody.
    void setReply(const QByteArray &text);

private:
    void readBatches();

    int descriptor = -1;
    quint16 boundPort = 0;
    QString error;
    QByteArray reply;
    SourceLimiter limiter;
    std::unique_ptr<QSocketNotifier> notifier;
    QTimer countTimer;
    quint64 answered = 0;
    quint64 ignored = 0;
    quint64 limited = 0;
    quint64 unanswered = 0;
};
