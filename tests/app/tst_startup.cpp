#include "app/apppaths.h"
#include "app/messageboxes.h"
#include "app/randomgenerator.h"
#include "app/startup.h"
#include "ui/mainwindow.h"

#include <QtTest>

// Program entry up to the event loop: seed, translations, refusal and the window. Run under a
// German locale as well, where the texts come from the catalogues. Clean-up and the unattended
// run are left to the end-to-end runs of the real program.
class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void randomSequence();
    void refusesBadArguments();
    void start_data();
    void start();

private:
    bool german = false;
    QTranslator programTranslator;
    QTranslator toolkitTranslator;
    QList<MessageBoxRequest> boxes;
};

void TestStartup::initTestCase()
{
    german = QLocale::system().name().startsWith(QStringLiteral("de"));
    installTranslators(&programTranslator, &toolkitTranslator);
    // The toolkit's catalogue lies below the working directory, not beside the program.
    QCOMPARE(QCoreApplication::translate("QPlatformTheme", "Cancel"),
             german ? QStringLiteral("Abbrechen") : QStringLiteral("Cancel"));
    setMessageBoxHandler([this](const MessageBoxRequest &request) {
        boxes.append(request);
        return QMessageBox::Ok;
    });
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
    QFile oldCopy(getAppRootPath() + QStringLiteral("/_old_update"));
    QVERIFY(oldCopy.open(QIODevice::WriteOnly));
    oldCopy.close();

    QVERIFY(!startMainWindow({"update", "client_linux_amd64", "x7"}));

    QVERIFY(QApplication::topLevelWidgets().isEmpty());
    QCOMPARE(boxes.size(), 1);
    QCOMPARE(boxes.first().icon, QMessageBox::Critical);
    QCOMPARE(boxes.first().title, german ? QStringLiteral("Fehler") : QStringLiteral("Error"));
    QCOMPARE(boxes.first().text, german ? QStringLiteral("Ungültige Versionsnummer")
                                        : QStringLiteral("Wrong version code"));
    // Nothing is cleaned up before the parameters are known.
    QVERIFY(oldCopy.remove());
}

void TestStartup::start_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("autoStarts");

    QTest::newRow("interactive") << QStringList{"update", "client_linux_x86", "7"} << 0;
    QTest::newRow("unattended") << QStringList{"update", "--nouser", "client_linux_x86", "7"} << 1;
}

void TestStartup::start()
{
    QFETCH(QStringList, arguments);
    boxes.clear();

    const auto window = startMainWindow(arguments);

    QVERIFY(window && window->isVisible());
    QCOMPARE(window->windowTitle(), german ? QStringLiteral("Orlivo Client-Aktualisierung")
                                           : QStringLiteral("Orlivo Client Update"));
    QVERIFY(boxes.isEmpty());
    // An interactive window waits for the user; only the unattended one has a timer to start it.
    QTEST(int(window->findChildren<QTimer *>(Qt::FindDirectChildrenOnly).size()), "autoStarts");
}

QTEST_MAIN(TestStartup)
#include "tst_startup.moc"
