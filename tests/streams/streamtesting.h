#pragma once

#include "streams/singlefiledownloadstream.h"
#include "streams/transportlibrary.h"
#include "tests/support/loopbackserver.h"
#include "tests/support/testfiles.h"

#include <QStringList>
#include <QTcpServer>
#include <QTest>

#include <functional>

// Records what a stream says, in order, as short lines: "state 3", "message <text>",
// "failedToConnect", "connected", "fileFinished", "fileError 4". Progress only sets lastDone.
class StreamEvents
{
public:
    explicit StreamEvents(SingleFileDownloadStream *stream)
    {
        using S = SingleFileDownloadStream;
        QObject::connect(stream, &S::stateChanged, &context, [this](DownloadStream_State state) {
            record(QStringLiteral("state %1").arg(int(state)));
        });
        QObject::connect(stream, &S::message, &context,
                         [this](const QString &text) { record("message " + text); });
        QObject::connect(stream, &S::failedToConnect, &context,
                         [this](const QString &text) { record("failedToConnect", text); });
        QObject::connect(stream, &S::connected, &context, [this] { record("connected"); });
        QObject::connect(stream, &S::progressCount, &context, [this](qint64 done, qint64) {
            lastDone = done;
            if (onSignal)
                onSignal("progress");
        });
        QObject::connect(stream, &S::fileFinished, &context, [this] { record("fileFinished"); });
        QObject::connect(stream, &S::fileError, &context,
                         [this](DownloadStream_Error error, const QString &text) {
                             record(QStringLiteral("fileError %1").arg(int(error)), text);
                         });
    }

    // True once the current file ended, one way or the other.
    bool fileEnded() const
    {
        return !lines.isEmpty()
               && (lines.last() == "fileFinished" || lines.last().startsWith("fileError"));
    }
    void clear()
    {
        lines.clear();
        lastText.clear();
        lastDone = 0;
    }

    // Runs inside the stream's emission, after the line was recorded.
    std::function<void(const QString &line)> onSignal;
    QObject context;
    QStringList lines;
    QString lastText; // of the last failedToConnect or fileError
    qint64 lastDone = 0;

private:
    void record(const QString &line, const QString &text = {})
    {
        lines << line;
        if (!text.isNull())
            lastText = text;
        if (onSignal)
            onSignal(line);
    }
};

// Connects and waits for the outcome; true when the stream reports connected().
inline bool connectAndWait(SingleFileDownloadStream &stream, StreamEvents &events,
                           const QString &url, const QString &proxy = {}, int retries = 5)
{
    stream.initiateConnection(QUrl(url), proxy, retries, 2);
    const auto settled = [&] {
        return events.lines.contains("connected") || events.lines.contains("failedToConnect");
    };
    return QTest::qWaitFor(settled, 20000) && events.lines.last() == "connected";
}

// Fetches one file and waits until it ends; true when it finished and holds content. The
// checksum is given in upper case, as a product list may carry it.
inline bool fetchAndWait(SingleFileDownloadStream &stream, StreamEvents &events,
                         const QString &remotePath, const QByteArray &content)
{
    events.clear();
    stream.getFile(remotePath, md5Of(content).toUpper(), content.size());
    return QTest::qWaitFor([&] { return events.fileEnded(); }, 30000)
           && events.lines.last() == "fileFinished"
           && readTestFile(stream.getDestFilePath()) == content;
}

// Requests tinyproxy has taken, as its log tells.
inline qsizetype proxiedRequests(const LoopbackServer &proxy)
{
    return proxy.logLines().filter(QStringLiteral("Request (file descriptor")).size();
}

// A loopback port nobody listens on.
inline QString closedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return QString::number(probe.serverPort());
}
