#include "app/apppaths.h"
#include "app/messageboxes.h"
#include "app/randomgenerator.h"
#include "app/startup.h"
#include "ui/mainwindow.h"

#include <QtTest>

// Program entry up to the event loop: seed, translations, refusal, clean-up and the
// unattended start. Run under a German locale as well, where the texts come from the catalogues.
class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void randomSequence();
    void refusesBadArguments();
    void start_data();
    void start();

private:
    bool german = false;
    QTranslator programTranslator;
    QTranslator toolkitTranslator;
    QList<MessageBoxRequest> boxes;
    QFile oldCopy{getAppRootPath() + QStringLiteral("/_old_update")};
};

void TestStartup::initTestCase()
{
    german = QLocale::system().name().startsWith(QStringLiteral("de"));
    installTranslators(&programTranslator, &toolkitTranslator);
    // The toolkit's catalogue lies below the working directory, not beside the program.
    QCOMPARE(QCoreApplication::translate("QPlatformTheme", "Cancel"),
             german ? QStringLiteral("Abbrechen") : QStringLiteral("Cancel"));
}

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

void TestStartup::randomSequence()
{
    // The seed is fixed: every run picks its mirrors in the same sequence.
    seedRandomGenerator();
    const QList<int> first{randomNumber(), randomNumber(), randomNumber()};
    seedRandomGenerator();
    QCOMPARE((QList<int>{randomNumber(), randomNumber(), randomNumber()}), first);
    QVERIFY(first[0] >= 0 && first[1] >= 0 && first[0] != first[1]);
}

void TestStartup::refusesBadArguments()
{
    QVERIFY(!startMainWindow({"update", "client_linux_amd64", "x7"}));

    QVERIFY(QApplication::topLevelWidgets().isEmpty());
    QCOMPARE(boxes.size(), 1);
    QCOMPARE(boxes.first().icon, QMessageBox::Critical);
    QCOMPARE(boxes.first().title, german ? QStringLiteral("Fehler") : QStringLiteral("Error"));
    QCOMPARE(boxes.first().text, german ? QStringLiteral("Ungültige Versionsnummer")
                                        : QStringLiteral("Wrong version code"));
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

    QVERIFY(window && window->isVisible());
    QCOMPARE(window->windowTitle(), german ? QStringLiteral("Orlivo Client-Aktualisierung")
                                           : QStringLiteral("Orlivo Client Update"));
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
