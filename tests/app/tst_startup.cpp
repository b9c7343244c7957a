#include "app/apppaths.h"
#include "app/messageboxes.h"
#include "app/progresstype.h"
#include "app/randomgenerator.h"
#include "app/startup.h"
#include "session/ftpproductdownloadsessionstate.h"
#include "streams/downloadstreamtypes.h"
#include "ui/mainwindow.h"

#include <QtTest>

// Program entry up to the event loop: types, seed, refusal, clean-up and the unattended start.
class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void metaTypes();
    void randomSequence();
    void refusesBadArguments();
    void start_data();
    void start();

private:
    QList<MessageBoxRequest> boxes;
    QFile oldCopy{getAppRootPath() + QStringLiteral("/_old_update")};
};

void TestStartup::init()
{
    boxes.clear();
    setMessageBoxHandler([this](const MessageBoxRequest &request) {
        boxes.append(request);
        return QMessageBox::Ok;
    });
    QVERIFY(oldCopy.open(QIODevice::WriteOnly));
    oldCopy.close();
}

void TestStartup::cleanup()
{
    setMessageBoxHandler({});
    oldCopy.remove();
}

void TestStartup::metaTypes()
{
    registerMetaTypes();

    QCOMPARE(QMetaType::fromName("DownloadStream_State"),
             QMetaType::fromType<DownloadStream_State>());
    QCOMPARE(QMetaType::fromName("DownloadStream_Error"),
             QMetaType::fromType<DownloadStream_Error>());
    QCOMPARE(QMetaType::fromName("FTPProductDownloadSession_State"),
             QMetaType::fromType<FTPProductDownloadSession_State>());
    QCOMPARE(QMetaType::fromName("ProgressType"), QMetaType::fromType<ProgressType>());
    QCOMPARE(QMetaType::fromName("ProgressType").sizeOf(), 4);
}

void TestStartup::randomSequence()
{
    QList<int> runs[2];
    for (QList<int> &run : runs) {
        seedRandomGenerator();
        for (int i = 0; i < 8; ++i)
            run.append(randomNumber());
    }
    QCOMPARE(runs[1], runs[0]);
    QVERIFY(std::all_of(runs[0].cbegin(), runs[0].cend(), [](int n) { return n >= 0; }));
    QVERIFY(std::adjacent_find(runs[0].cbegin(), runs[0].cend()) == runs[0].cend());
}

void TestStartup::refusesBadArguments()
{
    QVERIFY(!startMainWindow({"update", "client_linux_amd64", "x7"}));

    QVERIFY(QApplication::topLevelWidgets().isEmpty());
    QCOMPARE(boxes.size(), 1);
    QCOMPARE(boxes.first().icon, QMessageBox::Critical);
    QCOMPARE(boxes.first().title, QStringLiteral("Error"));
    QCOMPARE(boxes.first().text, QStringLiteral("Wrong version code"));
    // Nothing is cleaned up before the parameters are known.
    QVERIFY(oldCopy.exists());
}

void TestStartup::start_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("unattended");

    QTest::newRow("interactive") << QStringList{"update", "client_linux_x86", "7"} << false;
    QTest::newRow("unattended") << QStringList{"update", "--nouser", "client_linux_x86", "7"}
                                << true;
}

void TestStartup::start()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, unattended);

    const auto window = startMainWindow(arguments);

    QVERIFY(window);
    QVERIFY(window->isVisible());
    QVERIFY(boxes.isEmpty());
    QVERIFY(!oldCopy.exists());
    const auto timers = window->findChildren<QTimer *>(Qt::FindDirectChildrenOnly);
    QCOMPARE(timers.size(), unattended ? 1 : 0);
    if (!unattended)
        return;
    QTimer *autoStart = timers.first();
    QVERIFY(autoStart->isSingleShot());
    QCOMPARE(autoStart->interval(), 200);
    QSignalSpy fired(autoStart, &QTimer::timeout);
    QTRY_COMPARE(fired.size(), 1);
    // Disconnecting succeeds only when the timer was wired to exactly this slot.
    QVERIFY(QObject::disconnect(autoStart, &QTimer::timeout, window.get(),
                                &MainWindow::on_startButton_clicked));
}

QTEST_MAIN(TestStartup)
#include "tst_startup.moc"
