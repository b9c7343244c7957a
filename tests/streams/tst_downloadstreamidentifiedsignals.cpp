#include "streamtesting.h"

#include "streams/downloadstreamidentifiedsignals.h"
#include "streams/httpdownloadstream.h"

#include <QSignalSpy>

#include <memory>
#include <vector>

// Every stream signal comes out of the relay once, with the relay's index in front.
class tst_DownloadStreamIdentifiedSignals : public QObject
{
    Q_OBJECT

private slots:
    void relaysWithIndex();
};

void tst_DownloadStreamIdentifiedSignals::relaysWithIndex()
{
    using Relay = DownloadStreamIdentifiedSignals;
    using Stream = SingleFileDownloadStream;
    HTTPDownloadStream stream("/tmp");
    Relay relay(2);
    QObject::connect(&stream, &Stream::stateChanged, &relay, &Relay::onStateChanged);
    QObject::connect(&stream, &Stream::message, &relay, &Relay::onMessage);
    QObject::connect(&stream, &Stream::failedToConnect, &relay, &Relay::onFailedToConnect);
    QObject::connect(&stream, &Stream::connected, &relay, &Relay::onConnected);
    QObject::connect(&stream, &Stream::disconnected, &relay, &Relay::onDisconnected);
    QObject::connect(&stream, &Stream::progressCount, &relay, &Relay::onProgressCount);
    QObject::connect(&stream, &Stream::fileFinished, &relay, &Relay::onFileFinished);
    QObject::connect(&stream, &Stream::fileError, &relay, &Relay::onFileError);
    std::vector<std::pair<std::unique_ptr<QSignalSpy>, QVariantList>> expected;
    const auto expect = [&](auto signal, const QVariantList &arguments) {
        expected.emplace_back(std::make_unique<QSignalSpy>(&relay, signal), arguments);
    };
    expect(&Relay::stateChanged, {2, QVariant::fromValue(DownloadStream_Downloading)});
    expect(&Relay::message, {2, "hello"});
    expect(&Relay::failedToConnect, {2, "refused"});
    expect(&Relay::connected, {2});
    expect(&Relay::disconnected, {2});
    expect(&Relay::progressCount, {2, 5'000'000'000LL, 9'000'000'001LL});
    expect(&Relay::fileFinished, {2});
    expect(&Relay::fileError, {2, QVariant::fromValue(DownloadStream_ChecksumError), "bad"});

    emit stream.stateChanged(DownloadStream_Downloading);
    emit stream.message("hello");
    emit stream.failedToConnect("refused");
    emit stream.connected();
    emit stream.disconnected();
    emit stream.progressCount(5'000'000'000LL, 9'000'000'001LL);
    emit stream.fileFinished();
    emit stream.fileError(DownloadStream_ChecksumError, "bad");

    for (const auto &[spy, arguments] : expected) {
        QCOMPARE(spy->size(), 1);
        QCOMPARE(spy->first(), arguments);
    }
}

ORLIVO_STREAMS_TEST_MAIN(tst_DownloadStreamIdentifiedSignals)
#include "tst_downloadstreamidentifiedsignals.moc"
