#include "app/startup.h"

#include "app/apppaths.h"
#include "app/commandlineoptions.h"
#include "app/messageboxes.h"
#include "app/progresstype.h"
#include "app/randomgenerator.h"
#include "app/runningfiles.h"
#include "session/ftpproductdownloadsessionstate.h"
#include "streams/downloadstreamtypes.h"
#include "streams/transportlibrary.h"
#include "ui/mainwindow.h"
#include "update/updatejournal.h"

#include <QApplication>
#include <QLocale>
#include <QTimer>
#include <QTranslator>

#include <cstdio>

namespace {

constexpr int autoStartDelayMs = 200;

} // namespace

void registerMetaTypes()
{
    qRegisterMetaType<DownloadStream_State>("DownloadStream_State");
    qRegisterMetaType<DownloadStream_Error>("DownloadStream_Error");
    qRegisterMetaType<FTPProductDownloadSession_State>("FTPProductDownloadSession_State");
    qRegisterMetaType<ProgressType>("ProgressType");
}

void installTranslators(QTranslator *program, QTranslator *toolkit)
{
    const QString locale = QLocale::system().name();
    // A catalogue that is not found leaves the English texts; nothing to report.
    static_cast<void>(program->load(QStringLiteral(":/i18n/update_") + locale));
    QCoreApplication::installTranslator(program);
    static_cast<void>(toolkit->load(QStringLiteral("translations/qt_") + locale));
    QCoreApplication::installTranslator(toolkit);
}

std::unique_ptr<MainWindow> startMainWindow(const QStringList &arguments)
{
    // Before anything else: an update a killed run left half done is finished or undone, so that
    // whatever runs next finds one whole version.
    removeOldFiles(getAppRootPath());
    const QStringList recovery = UpdateJournal::recover(getAppRootPath());

    CommandLineOptions options;
    const QString error = parseCommandLineOptions(&options, QString(), arguments);
    if (!error.isEmpty()) {
        for (const QString &line : recovery)
            std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
        showMessageBox(nullptr, QMessageBox::Critical, QCoreApplication::translate("", "Error"),
                       error);
        return nullptr;
    }

    auto window = std::make_unique<MainWindow>(options);
    for (const QString &line : recovery)
        window->onAppendText(line);
    window->show();
    if (options.runMode == 2) {
        auto *autoStart = new QTimer(window.get());
        autoStart->setSingleShot(true);
        autoStart->setInterval(autoStartDelayMs);
        QObject::connect(autoStart, &QTimer::timeout, window.get(),
                         &MainWindow::on_startButton_clicked);
        autoStart->start();
    }
    return window;
}

int runUpdater(int argc, char **argv)
{
    registerMetaTypes();
    seedRandomGenerator();

    QApplication application(argc, argv);
    QTranslator programTranslator;
    QTranslator toolkitTranslator;
    installTranslators(&programTranslator, &toolkitTranslator);

    // Process-wide, before any transfer; it outlives the window.
    const TransportLibrary transportLibrary;

    const std::unique_ptr<MainWindow> window = startMainWindow(QCoreApplication::arguments());
    if (!window)
        return 1;
    return application.exec();
}
