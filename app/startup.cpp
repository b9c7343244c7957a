#include "app/startup.h"

#include "app/apppaths.h"
#include "app/commandlineoptions.h"
#include "app/installationlock.h"
#include "app/messageboxes.h"
#include "app/progresstype.h"
#include "app/randomgenerator.h"
#include "app/runningfiles.h"
#include "app/versioncheck.h"
#include "session/ftpproductdownloadsessionstate.h"
#include "session/trustedkeys.h"
#include "streams/downloadstreamtypes.h"
#include "streams/transportlibrary.h"
#include "ui/mainwindow.h"
#include "update/updatejournal.h"

#include <QApplication>
#include <QLocale>
#include <QTranslator>

#include <cstdio>
#include <cstring>

namespace {

constexpr int autoStartDelayMs = 200;

// The run's own log lines are written to standard error directly; what Qt itself says about
// the platform ("propagateSizeHints", XDG_RUNTIME_DIR) only buries them.
void keepSeriousMessages(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (type == QtCriticalMsg || type == QtFatalMsg)
        std::fprintf(stderr, "%s\n",
                     qFormatLogMessage(type, context, text).toLocal8Bit().constData());
}

bool hasNoDisplay()
{
    return qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
           && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM");
}

// Servers, ssh sessions and timers have no display; the offscreen platform needs none.
void prepareUnattendedRun()
{
    if (hasNoDisplay())
        qputenv("QT_QPA_PLATFORM", "offscreen");
    qInstallMessageHandler(keepSeriousMessages);
    answerMessageBoxesOnStandardError();
}

// "--help" and "--version" are answered before anything else happens; -1 for any other command.
int answerInformationRequest(int argc, char **argv)
{
    if (argc != 2)
        return -1;
    if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
        std::fputs(usageText().toLocal8Bit().constData(), stdout);
        return 0;
    }
    if (std::strcmp(argv[1], "--version") == 0) {
        std::printf("update %s\n", ORLIVO_VERSION);
        return 0;
    }
    return -1;
}

// One run per installation, taken before anything of it is read or changed.
bool lockThisInstallation()
{
    bool busy = false;
    QString error;
    if (lockInstallation(getAppRootPath(), &busy, &error))
        return true;
    showMessageBox(nullptr, QMessageBox::Warning, QCoreApplication::translate("", "Error"),
                   busy ? QCoreApplication::translate(
                           "", "Another update is running in this installation.")
                        : error);
    return false;
}

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
    const QStringList recovery = UpdateJournal::recover(getAppRootPath());
    // A switch that could be neither finished nor rolled back keeps the only copies of some
    // files: nothing more may change until somebody has looked.
    const bool stuck = UpdateJournal(getAppRootPath()).isOpen();

    CommandLineOptions options;
    // Keys that cannot be trusted must not quietly turn the signature checks off.
    QString error = stuck ? recovery.last() : trustedKeysProblem(getAppRootPath());
    if (error.isEmpty())
        error = parseCommandLineOptions(&options, QString(), arguments);
    if (!error.isEmpty()) {
        for (const QString &line : recovery)
            std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
        showMessageBox(nullptr, QMessageBox::Critical, QCoreApplication::translate("", "Error"),
                       error);
        return nullptr;
    }

    removeOldFiles(getAppRootPath());

    auto window = std::make_unique<MainWindow>(options);
    for (const QString &line : recovery)
        window->onAppendText(line);
    window->show();
    if (options.runMode == CommandLineOptions::Unattended)
        window->startAfter(autoStartDelayMs);
    return window;
}

int runUpdater(int argc, char **argv)
{
    if (const int status = answerInformationRequest(argc, argv); status >= 0)
        return status;
    if (argc > 1 && std::strcmp(argv[1], "--check") == 0) {
        // Not a run with the client type "--check", which would end in a box.
        if (argc > 3) {
            std::fputs("update: --check takes at most a client type\n", stderr);
            return 1;
        }
        return runVersionCheck(argc, argv);
    }
    if (argc > 1 && std::strcmp(argv[1], "--nouser") == 0) {
        prepareUnattendedRun();
    } else if (hasNoDisplay()) {
        // Qt would abort without a word a user understands.
        std::fputs("update: there is no display for the window; "
                   "an unattended update runs with --nouser\n",
                   stderr);
        return 1;
    }
    registerMetaTypes();
    seedRandomGenerator();

    QApplication application(argc, argv);
    QTranslator programTranslator;
    QTranslator toolkitTranslator;
    installTranslators(&programTranslator, &toolkitTranslator);

    // Process-wide, before any transfer; it outlives the window.
    const TransportLibrary transportLibrary;

    if (!lockThisInstallation())
        return 1;
    const std::unique_ptr<MainWindow> window = startMainWindow(QCoreApplication::arguments());
    if (!window)
        return UpdateJournal(getAppRootPath()).isOpen() ? 3 : 1;
    return application.exec();
}
