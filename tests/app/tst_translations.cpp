#include "app/commandlineoptions.h"
#include "app/messageboxes.h"
#include "app/startup.h"
#include "ui/mainwindow.h"

#include <QtTest>

// The program's texts under the locale of the environment: German under de_DE from the
// compiled-in catalogue, English elsewhere (there is no French catalogue).
class TestTranslations : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void texts_data();
    void texts();
    void refusalBox();
    void toolkitCatalogue();

private:
    bool german = false;
    QTemporaryDir workDir;
    QString originalDir = QDir::currentPath();
    QTranslator programTranslator;
    QTranslator toolkitTranslator;
    std::unique_ptr<MainWindow> window;
};

void TestTranslations::initTestCase()
{
    german = QLocale::system().name().startsWith(QStringLiteral("de"));
    qInfo("locale %s", qPrintable(QLocale::system().name()));
    // The toolkit's catalogue is looked up below the working directory, not the program's.
    QVERIFY(QDir(workDir.path()).mkdir(QStringLiteral("translations")));
    QVERIFY(QFile::copy(QCoreApplication::applicationDirPath() + QStringLiteral("/qt_de.qm"),
                        workDir.filePath(QStringLiteral("translations/qt_de.qm"))));
    QVERIFY(QDir::setCurrent(workDir.path()));

    installTranslators(&programTranslator, &toolkitTranslator);
    window = std::make_unique<MainWindow>(CommandLineOptions{1, QStringLiteral("t"), 12});
}

void TestTranslations::cleanupTestCase()
{
    QDir::setCurrent(originalDir);
}

void TestTranslations::texts_data()
{
    QTest::addColumn<QString>("widget");
    QTest::addColumn<QString>("english");
    QTest::addColumn<QString>("germanText");

    const QString neutral;
    QTest::newRow("defaults") << neutral << "Can't detect default parameters"
                              << "Die Standardparameter konnten nicht ermittelt werden";
    QTest::newRow("version") << neutral << "Wrong version code"
                             << "Ungültige Versionsnummer";
    QTest::newRow("no type") << neutral << "No client type specified"
                             << "Kein Client-Typ angegeben";
    QTest::newRow("no version") << neutral << "No client version specified"
                                << "Keine Client-Version angegeben";
    QTest::newRow("query failed")
            << neutral << "Failed to query latest client\nversion from update server."
            << "Die neueste Client-Version konnte nicht\nvom Update-Server abgefragt werden.";
    QTest::newRow("window title") << "MainWindow"
                                  << "Orlivo Client Update"
                                  << "Orlivo Client-Aktualisierung";
    QTest::newRow("heading")
            << "orvLabel"
            << "<span style=\"font-size:14pt; font-weight:bold;\">Orlivo Client Update</span>"
            << "<span style=\"font-size:14pt; font-weight:bold;\">Orlivo Client-Aktualisierung"
               "</span>";
    QTest::newRow("start") << "startButton"
                           << "Start Update"
                           << "Aktualisierung starten";
    QTest::newRow("details") << "detailsButton"
                             << "Details"
                             << "Details";
}

void TestTranslations::texts()
{
    QFETCH(QString, widget);
    QFETCH(QString, english);
    QFETCH(QString, germanText);

    QString shown;
    if (widget.isEmpty())
        shown = QCoreApplication::translate("", english.toUtf8().constData());
    else if (widget == window->objectName())
        shown = window->windowTitle();
    else
        shown = window->findChild<QWidget *>(widget)->property("text").toString();
    QCOMPARE(shown, german ? germanText : english);
}

void TestTranslations::refusalBox()
{
    QList<MessageBoxRequest> boxes;
    setMessageBoxHandler([&boxes](const MessageBoxRequest &request) {
        boxes.append(request);
        return QMessageBox::Ok;
    });
    QVERIFY(!startMainWindow({"update", "client_linux_amd64", "x7"}));
    setMessageBoxHandler({});

    QCOMPARE(boxes.size(), 1);
    QCOMPARE(boxes.first().title, german ? QStringLiteral("Fehler") : QStringLiteral("Error"));
    QCOMPARE(boxes.first().text, german ? QStringLiteral("Ungültige Versionsnummer")
                                        : QStringLiteral("Wrong version code"));
}

void TestTranslations::toolkitCatalogue()
{
    QCOMPARE(QCoreApplication::translate("QPlatformTheme", "Cancel"),
             german ? QStringLiteral("Abbrechen") : QStringLiteral("Cancel"));
}

QTEST_MAIN(TestTranslations)
#include "tst_translations.moc"
