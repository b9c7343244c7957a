#include "streamtesting.h"

#include <QTemporaryDir>
#include <QTimer>

namespace {

// A stream whose transport answers each request from the event loop with body.
class ScriptedStream : public SingleFileDownloadStream
{
public:
    using SingleFileDownloadStream::SingleFileDownloadStream;

    int kind() const override { return 0; }
    void initiateConnection(const QUrl &url, const QString &proxy, int retries,
                            int timeout) override
    {
        internalInitDownloadParams(url, proxy, retries, timeout);
        if (enterState(DownloadStream_Connected))
            emit connected();
    }
    void checkGetFilePrerequisitions() override {}
    int createFileRequest(QString path, QFile *) override
    {
        requests << path;
        QTimer::singleShot(0, this, [this] { answer(); });
        return int(requests.size());
    }

    QByteArray body;
    QStringList requests;
    bool answering = false; // inside the transport's completion

private:
    void answer()
    {
        file->write(body);
        answering = true;
        finalCheckCurrentFile();
        answering = false;
    }
};

} // namespace

// The stream's own steps: preparing local files, the final check, the deferred fileFinished().
class tst_SingleFileDownloadStream : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void finalCheck_data();
    void finalCheck();
    void preparingFiles_data();
    void preparingFiles();
    void getFileOutsideConnectedIsIgnored();
    void fileFinishedComesAfterTheCompletion();

private:
    std::unique_ptr<QTemporaryDir> dest;
};

void tst_SingleFileDownloadStream::init()
{
    dest = std::make_unique<QTemporaryDir>();
    QVERIFY(dest->isValid());
}

void tst_SingleFileDownloadStream::finalCheck_data()
{
    QTest::addColumn<QString>("md5");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<QString>("last");
    QTest::addColumn<QString>("text");

    const QByteArray body = "hello world";
    QTest::newRow("matching") << md5Of(body) << qint64(11) << "fileFinished"
                              << "";
    QTest::newRow("checksum in upper case") << md5Of(body).toUpper() << qint64(11) << "fileFinished"
                                            << "";
    QTest::newRow("no checksum: nothing is checked") << QString() << qint64(3) << "fileFinished"
                                                     << "";
    QTest::newRow("wrong length") << md5Of(body) << qint64(12) << "fileError 2"
                                  << "ERROR: Wrong length of %1 (11 while required 12)";
    QTest::newRow("wrong checksum") << md5Of("hello there") << qint64(11) << "fileError 1"
                                    << "ERROR: Wrong checksum for %1";
}

void tst_SingleFileDownloadStream::finalCheck()
{
    QFETCH(QString, md5);
    QFETCH(qint64, size);
    QFETCH(QString, last);
    QFETCH(QString, text);

    ScriptedStream stream(dest->path());
    stream.initiateConnection(QUrl("ftp://mirror/"), {}, 5, 7);
    stream.body = "hello world";
    StreamEvents recorded(&stream);
    stream.getFile("a/f.txt", md5, size);
    QTRY_VERIFY(recorded.fileEnded());

    QCOMPARE(recorded.lines, QStringList({"state 3", "state 2", last}));
    const QString local = dest->filePath("a/f.txt");
    QCOMPARE(recorded.lastText, text.replace("%1", local));
    QCOMPARE(readTestFile(local), last == "fileFinished" ? stream.body : QByteArray());
    QCOMPARE(QFile::exists(local), last == "fileFinished");
}

void tst_SingleFileDownloadStream::preparingFiles_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("remotePath");
    QTest::addColumn<QString>("request"); // empty: no request, a local file error instead
    QTest::addColumn<QString>("errorText");

    QTest::newRow("no base path") << "ftp://mirror"
                                  << "a/b/c.bin"
                                  << "/a/b/c.bin"
                                  << "";
    QTest::newRow("root") << "ftp://mirror/"
                          << "a/b/c.bin"
                          << "/a/b/c.bin"
                          << "";
    QTest::newRow("base without slash") << "http://mirror/pub/v2"
                                        << "a/b/c.bin"
                                        << "/pub/v2/a/b/c.bin"
                                        << "";
    QTest::newRow("base with slash") << "http://mirror/pub/v2/"
                                     << "c.bin"
                                     << "/pub/v2/c.bin"
                                     << "";
    QTest::newRow("path leading out") << "ftp://mirror/"
                                      << "../outside.bin"
                                      << ""
                                      << "ERROR: failed to detect local path for ../outside.bin";
    QTest::newRow("subdirectory blocked by a file")
            << "ftp://mirror/"
            << "plain/inner.bin"
            << ""
            << "ERROR: failed creating subdirectory: %1/plain";
    QTest::newRow("directory in the file's place") << "ftp://mirror/"
                                                   << "folder"
                                                   << ""
                                                   << "ERROR: failed creating %1/folder";
}

void tst_SingleFileDownloadStream::preparingFiles()
{
    QFETCH(QString, url);
    QFETCH(QString, remotePath);
    QFETCH(QString, request);
    QFETCH(QString, errorText);
    QVERIFY(writeTestFile(dest->filePath("plain"), "x"));
    QVERIFY(QDir(dest->path()).mkdir("folder"));

    ScriptedStream stream(dest->path());
    stream.initiateConnection(QUrl(url), {}, 5, 7);
    stream.body = "abc";
    StreamEvents recorded(&stream);
    stream.getFile(remotePath, md5Of("abc"), 3);
    if (request.isEmpty()) {
        QCOMPARE(recorded.lines, QStringList({"fileError 3"}));
        QCOMPARE(recorded.lastText, errorText.replace("%1", dest->path()));
        QVERIFY(stream.requests.isEmpty());
        QCOMPARE(stream.getState(), DownloadStream_Connected);
        QVERIFY(!QFile::exists(dest->filePath("../outside.bin")));
    } else {
        QTRY_VERIFY(recorded.fileEnded());
        QCOMPARE(stream.requests, QStringList{request});
        QCOMPARE(readTestFile(dest->filePath(remotePath)), QByteArray("abc"));
    }
}

void tst_SingleFileDownloadStream::getFileOutsideConnectedIsIgnored()
{
    ScriptedStream stream(dest->path());
    StreamEvents recorded(&stream);
    stream.getFile("idle.bin", md5Of("abc"), 3);
    QVERIFY(recorded.lines.isEmpty());

    stream.initiateConnection(QUrl("ftp://mirror/"), {}, 5, 7);
    stream.body = "abc";
    recorded.clear();
    stream.getFile("first.bin", md5Of("abc"), 3);
    stream.getFile("second.bin", md5Of("abc"), 3);
    QTRY_VERIFY(recorded.fileEnded());
    QCOMPARE(recorded.lines, QStringList({"state 3", "state 2", "fileFinished"}));
    QCOMPARE(stream.requests, QStringList{"/first.bin"});
    QVERIFY(!QFile::exists(dest->filePath("idle.bin")));
    QVERIFY(!QFile::exists(dest->filePath("second.bin")));
}

// The session hands out the next file from its fileFinished() slot: that must not run inside
// the transport's own completion.
void tst_SingleFileDownloadStream::fileFinishedComesAfterTheCompletion()
{
    ScriptedStream stream(dest->path());
    stream.initiateConnection(QUrl("ftp://mirror/"), {}, 5, 7);
    stream.body = "abc";
    StreamEvents recorded(&stream);
    QStringList insideCompletion;
    recorded.onSignal = [&](const QString &line) {
        if (stream.answering)
            insideCompletion << line;
    };
    stream.getFile("f.bin", md5Of("abc"), 3);
    QTRY_VERIFY(recorded.fileEnded());
    QCOMPARE(insideCompletion, QStringList{"state 2"});
    QCOMPARE(recorded.lines.last(), QString("fileFinished"));
}

ORLIVO_STREAMS_TEST_MAIN(tst_SingleFileDownloadStream)
#include "tst_singlefiledownloadstream.moc"
