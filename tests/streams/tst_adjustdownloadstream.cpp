#include "streamtesting.h"

#include "streams/adjustdownloadstream.h"
#include "streams/ftpdownloadstream.h"
#include "streams/httpdownloadstream.h"

#include <QPointer>

// A stream slot gets the variant that fits the mirror's scheme, replacing only a wrong one.
class tst_AdjustDownloadStream : public QObject
{
    Q_OBJECT

private slots:
    void adjusts_data();
    void adjusts();
};

void tst_AdjustDownloadStream::adjusts_data()
{
    QTest::addColumn<int>("existingKind"); // -1: empty slot
    QTest::addColumn<QString>("url");
    QTest::addColumn<bool>("result");
    QTest::addColumn<int>("kindAfter");
    QTest::addColumn<bool>("kept");

    QTest::newRow("empty slot, http") << -1 << "http://mirror/pub" << true << 1 << false;
    QTest::newRow("empty slot, https") << -1 << "https://mirror/pub" << true << 1 << false;
    QTest::newRow("empty slot, ftp") << -1 << "ftp://mirror/pub" << true << 0 << false;
    QTest::newRow("FTP kept for a scheme in capitals") << 0 << "FTP://mirror/" << true << 0 << true;
    QTest::newRow("HTTP kept for https") << 1 << "https://mirror/" << true << 1 << true;
    QTest::newRow("FTP replaced for http") << 0 << "http://mirror/" << true << 1 << false;
    QTest::newRow("HTTP replaced for ftp") << 1 << "ftp://mirror/" << true << 0 << false;
    QTest::newRow("file scheme refused") << 1 << "file:///tmp/mirror" << false << 1 << true;
    QTest::newRow("unknown scheme, empty slot") << -1 << "gopher://mirror/" << false << -1 << true;
}

void tst_AdjustDownloadStream::adjusts()
{
    QFETCH(int, existingKind);
    QFETCH(QString, url);
    QFETCH(bool, result);
    QFETCH(int, kindAfter);
    QFETCH(bool, kept);

    SingleFileDownloadStream *slot = nullptr;
    if (existingKind == 0)
        slot = new FTPDownloadStream("/tmp");
    else if (existingKind == 1)
        slot = new HTTPDownloadStream("/tmp");
    QPointer<SingleFileDownloadStream> before = slot;
    QStringList oldEvents;
    if (slot) {
        QObject::connect(slot, &SingleFileDownloadStream::stateChanged,
                         [&](DownloadStream_State s) { oldEvents << QString::number(s); });
    }

    QCOMPARE(adjustDownloadStream(&slot, QUrl(url), "/tmp/dest"), result);
    QCOMPARE(slot ? slot->kind() : -1, kindAfter);
    QCOMPARE(slot == before.data(), kept);
    if (!kept) {
        QVERIFY(before.isNull()); // the replaced stream was deleted ...
        QCOMPARE(oldEvents,
                 existingKind < 0 ? QStringList() : QStringList{"0"}); // ... cancelled first
        QCOMPARE(slot->getState(), DownloadStream_Idle);
    }
    delete slot;
}

ORLIVO_STREAMS_TEST_MAIN(tst_AdjustDownloadStream)
#include "tst_adjustdownloadstream.moc"
