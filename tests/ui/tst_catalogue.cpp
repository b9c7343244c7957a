#include "app/apppaths.h"
#include "app/messageboxes.h"
#include "ui/mainwindow.h"

#include <QtTest>

// The German catalogue against the sources: every text the program translates has a finished
// German translation under the context its tr() call uses, and the window shows it.
namespace {

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestCatalogue : public QObject
{
    Q_OBJECT

private slots:
    void everyTextTranslated();
    void windowSpeaksGerman();
};

void TestCatalogue::everyTextTranslated()
{
    // lupdate brings a copy of the catalogue up to date with the sources: whatever it has to
    // add is untranslated, whatever it has to retire matches no tr() call any more.
    QTemporaryDir dir;
    const QString copy = dir.filePath(QStringLiteral("update_de.ts"));
    QVERIFY(QFile::copy(QStringLiteral(SOURCE_DIR "/resources/update_de.ts"), copy));
    QStringList arguments;
    for (const char *folder : {"app", "ui", "session", "streams", "update"})
        arguments << QStringLiteral(SOURCE_DIR "/") + QLatin1String(folder);
    arguments << QStringLiteral("-locations") << QStringLiteral("none") << QStringLiteral("-ts")
              << copy;
    QProcess lupdate;
    lupdate.setProcessChannelMode(QProcess::MergedChannels);
    lupdate.start(QStringLiteral(LUPDATE), arguments);
    QVERIFY(lupdate.waitForFinished(120000));
    QVERIFY2(lupdate.exitCode() == 0, lupdate.readAll().constData());

    // Each message: its source, then its translation, with a type when it is not finished.
    static const QRegularExpression message(
            QStringLiteral(
                    "<source>(.*?)</source>\\s*<translation( type=\"\\w+\")?>(.*?)</translation>"),
            QRegularExpression::DotMatchesEverythingOption);
    QStringList problems;
    int messages = 0;
    for (const QRegularExpressionMatch &match :
         message.globalMatch(QString::fromUtf8(readFile(copy)))) {
        ++messages;
        if (!match.captured(2).isEmpty() || match.captured(3).isEmpty())
            problems << match.captured(1) + QLatin1Char(' ') + match.captured(2);
    }
    QVERIFY(messages > 30);
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join(QLatin1Char('\n'))));
}

void TestCatalogue::windowSpeaksGerman()
{
    QTranslator translator;
    QVERIFY(translator.load(QStringLiteral(":/i18n/update_de.qm")));
    QCoreApplication::installTranslator(&translator);
    QList<MessageBoxRequest> boxes;
    setMessageBoxHandler([&boxes](const MessageBoxRequest &request) {
        boxes.append(request);
        return QMessageBox::Ok;
    });
    QFile::remove(getAppRootPath() + QStringLiteral("/mirrors.ini"));
    MainWindow window(CommandLineOptions{1, QStringLiteral("client_linux_amd64"), 12});
    auto *start = window.findChild<QPushButton *>(QStringLiteral("startButton"));

    start->click();
    window.onProcessCancelled();

    setMessageBoxHandler({});
    QCoreApplication::removeTranslator(&translator);
    QCOMPARE(boxes.size(), 2);
    QCOMPARE(boxes[0].title, QStringLiteral("Fehler"));
    QCOMPARE(boxes[0].text,
             QStringLiteral("mirrors.ini fehlt, die Aktualisierung kann nicht beginnen."));
    QCOMPARE(boxes[1].title, QStringLiteral("Aktualisierung"));
    QCOMPARE(boxes[1].text,
             QStringLiteral("Download abgebrochen. Unter „Details“ finden Sie die Gründe."));
    QCOMPARE(start->text(), QStringLiteral("Neu starten"));
}

QTEST_MAIN(TestCatalogue)
#include "tst_catalogue.moc"
