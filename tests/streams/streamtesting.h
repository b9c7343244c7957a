#pragma once

#include "streams/singlefiledownloadstream.h"
#include "streams/transportlibrary.h"
#include "tests/support/loopbackserver.h"
#include "tests/support/testfiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>
#include <QTest>

#include <functional>

// QTEST_GUILESS_MAIN with libcurl initialised around the whole run, as main() does.
#define ORLIVO_STREAMS_TEST_MAIN(TestObject)                                                       \
    int main(int argc, char *argv[])                                                               \
    {                                                                                              \
        TransportLibrary transportLibrary;                                                         \
        QCoreApplication app(argc, argv);                                                          \
        qRegisterMetaType<DownloadStream_State>("DownloadStream_State");                           \
        qRegisterMetaType<DownloadStream_Error>("DownloadStream_Error");                           \
        TestObject test;                                                                           \
        QTEST_SET_MAIN_SOURCE_PATH                                                                 \
        return QTest::qExec(&test, argc, argv);                                                    \
    }

// Records what a stream says, in order, as short lines: "state 3", "message <text>",
// "failedToConnect", "connected", "fileFinished", "fileError 4". Progress is not listed.
class StreamEvents
{
public:
    explicit StreamEvents(SingleFileDownloadStream *stream)
    {
        using Stream = SingleFileDownloadStream;
        QObject::connect(stream, &Stream::stateChanged, &context, [this](DownloadStream_State s) {
            record(QStringLiteral("state %1").arg(int(s)));
        });
        QObject::connect(stream, &Stream::message, &context,
                         [this](const QString &text) { record("message " + text); });
        QObject::connect(stream, &Stream::failedToConnect, &context, [this](const QString &text) {
            lastText = text;
            record(QStringLiteral("failedToConnect"));
        });
        QObject::connect(stream, &Stream::connected, &context,
                         [this] { record(QStringLiteral("connected")); });
        QObject::connect(stream, &Stream::progressCount, &context, [this](qint64 done, qint64) {
            lastDone = done;
            record(QStringLiteral("progress"));
        });
        QObject::connect(stream, &Stream::fileFinished, &context,
                         [this] { record(QStringLiteral("fileFinished")); });
        QObject::connect(stream, &Stream::fileError, &context,
                         [this](DownloadStream_Error error, const QString &text) {
                             lastText = text;
                             record(QStringLiteral("fileError %1").arg(int(error)));
                         });
    }

    // True once the current file ended, one way or the other.
    bool fileEnded() const
    {
        return !lines.isEmpty()
               && (lines.last() == QLatin1String("fileFinished")
                   || lines.last().startsWith(QLatin1String("fileError")));
    }
    void clear()
    {
        lines.clear();
        lastText.clear();
        lastDone = 0;
    }

    // Runs inside the stream's emission, after the line ("progress" too) was recorded.
    std::function<void(const QString &line)> onSignal;
    QObject context;
    QStringList lines;
    QString lastText;
    qint64 lastDone = 0;

private:
    void record(const QString &line)
    {
        if (line != QLatin1String("progress"))
            lines << line;
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
        return events.lines.contains(QLatin1String("connected"))
               || events.lines.contains(QLatin1String("failedToConnect"));
    };
    return QTest::qWaitFor(settled, 20000) && events.lines.last() == QLatin1String("connected");
}

// Fetches one file and waits until it ends; true when it finished and holds content.
inline bool fetchAndWait(SingleFileDownloadStream &stream, StreamEvents &events,
                         const QString &remotePath, const QByteArray &content)
{
    events.clear();
    stream.getFile(remotePath, md5Of(content), content.size());
    return QTest::qWaitFor([&] { return events.fileEnded(); }, 30000)
           && events.lines.last() == QLatin1String("fileFinished")
           && readTestFile(stream.getDestFilePath()) == content;
}

// Requests tinyproxy has taken, as its log tells.
inline qsizetype proxiedRequests(const LoopbackServer &proxy)
{
    return proxy.logLines().filter(QStringLiteral("Request (file descriptor")).size();
}
