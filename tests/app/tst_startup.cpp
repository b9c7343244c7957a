#include "app/apppaths.h"
#include "app/messageboxes.h"
#include "app/runningfiles.h"
#include "app/startup.h"
#include "tests/support/testfiles.h"
#include "ui/mainwindow.h"

#include <QtTest>

// Program entry up to the event loop: translations, refusal, the renamed copies of files in
// use cleared away, and the window. Run under a German locale as well, where the texts come from
// the catalogues. The unattended run is left to the end-to-end runs of the real program.
class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void start_data();
    void start();

private:
    bool german = false;
    QTranslator programTranslator;
    QTranslator toolkitTranslator;
    QStringList boxes;
};

void TestStartup::initTestCase()
{
    german = QLocale::system().name().startsWith("de");
    installTranslators(&programTranslator, &toolkitTranslator);
    // The toolkit's catalogue lies below the working directory, not beside the program.
    QCOMPARE(QCoreApplication::translate("QPlatformTheme", "Cancel"),
             german ? "Abbrechen" : "Cancel");
    setMessageBoxHandler([this](const MessageBoxRequest &box) {
        boxes << box.title + ": " + box.text;
        return QMessageBox::Ok;
    });
}

void TestStartup::start_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("autoStarts"); // -1: refused

    QTest::newRow("bad version") << QStringList{"update", "client_linux_amd64", "x7"} << -1;
    QTest::newRow("interactive") << QStringList{"update", "client_linux_x86", "7"} << 0;
    QTest::newRow("unattended") << QStringList{"update", "--nouser", "client_linux_x86", "7"} << 1;
}

void TestStartup::start()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, autoStarts);
    boxes.clear();
    const QDir root(getAppRootPath());
    const QStringList lookalikes{"_old_UPDATE", "_old_readme.txt", "old_update", "update"};
    QStringList oldCopies;
    for (const QString &name : getSpecialFileNames())
        oldCopies << "_old_" + name;
    const QStringList all = oldCopies + lookalikes;
    for (const QString &name : all)
        QVERIFY(writeTestFile(root.filePath(name), "x"));

    const auto window = startMainWindow(arguments);

    // Only the renamed copies go, and nothing before the parameters are known.
    QStringList left = lookalikes + (autoStarts < 0 ? oldCopies : QStringList());
    left.sort();
    QCOMPARE(root.entryList(all, QDir::Files | QDir::CaseSensitive, QDir::Name), left);
    for (const QString &name : all)
        QFile::remove(root.filePath(name));
    if (autoStarts < 0) {
        QVERIFY(!window && QApplication::topLevelWidgets().isEmpty());
        QCOMPARE(boxes, QStringList{german ? "Fehler: Ungültige Versionsnummer"
                                           : "Error: Wrong version code"});
        return;
    }
    QVERIFY(window && window->isVisible());
    QCOMPARE(window->windowTitle(),
             german ? "Orlivo Client-Aktualisierung" : "Orlivo Client Update");
    QVERIFY(boxes.isEmpty());
    // An interactive window waits for the user; only the unattended one has a timer to start it.
    QTEST(int(window->findChildren<QTimer *>(Qt::FindDirectChildrenOnly).size()), "autoStarts");
}

QTEST_MAIN(TestStartup)
#include "tst_startup.moc"
