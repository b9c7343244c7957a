#include "app/commandlineoptions.h"

#include "app/messageboxes.h"
#include "app/announcedversion.h"

#include <QRegularExpression>

namespace {

const QString unattendedSwitch = QStringLiteral("--nouser");

// A base-10 integer and nothing else: surrounding white space, which QString::toInt would
// accept, makes it fail. 0 when it fails.
int toVersionNumber(const QString &text, bool *ok)
{
    const int value = text.toInt(ok, 10);
    if (*ok && (text.front().isSpace() || text.back().isSpace()))
        *ok = false;
    return *ok ? value : 0;
}

QString defaultsFailedText()
{
    return QCoreApplication::translate("", "Can't detect default parameters");
}

QString defaultParametersResult(CommandLineOptions *options, const QString &fallbackVersion)
{
    return getDefaultParameters(options, fallbackVersion) ? QString() : defaultsFailedText();
}

} // namespace

QString usageText()
{
    return QStringLiteral(
            "Usage: update [--nouser] [CLIENT_TYPE VERSION]\n"
            "       update --check [CLIENT_TYPE]\n"
            "       update --help | -h | --version\n"
            "\n"
            "  (no arguments)        ask the update server for the current version, then wait\n"
            "                        for the start button\n"
            "  CLIENT_TYPE VERSION   install that version of that client type\n"
            "  --nouser [CLIENT_TYPE VERSION]\n"
            "                        unattended: start at once, never wait for a click, log to\n"
            "                        standard error; runs without a display\n"
            "  --check [CLIENT_TYPE] ask for the current version as a run would, print whether it\n"
            "                        is newer than the installed one, change nothing; exit 0 up\n"
            "                        to date, 10 update available, 1 cannot tell\n"
            "  --help, -h            print this text\n"
            "  --version             print the program's version\n"
            "\n"
            "Exit status:\n"
            "  0  the update finished\n"
            "  1  nothing was started: bad arguments, no version from the update server,\n"
            "     a wrong client type, mirrors.ini missing, no working directory, an\n"
            "     installation this user cannot change or another update running in it,\n"
            "     or an announced version older than the installed one\n"
            "  2  the download was cancelled: no mirror could deliver the release\n"
            "  3  the installation failed; the old version was kept\n"
            "\n"
            "Files next to the program:\n"
            "  mirrors.ini       the mirrors to download from (required)\n"
            "  update.ini        settings, the installed version, and the state of an\n"
            "                    interrupted update to resume\n"
            "  update-keys.pub   keys a release must be signed with (optional)\n");
}

QString parseCommandLineOptions(CommandLineOptions *options, const QString &fallbackVersion,
                                const QStringList &arguments)
{
    const qsizetype count = arguments.size();
    if (count < 2 || count > 4)
        return defaultParametersResult(options, fallbackVersion);

    options->runMode = CommandLineOptions::RunModeNotSet;
    QString error;
    if (count == 3) {
        options->runMode = CommandLineOptions::Interactive;
        error = getClientTypeVersion(options, arguments, 1);
    } else if (arguments.at(1) != unattendedSwitch) {
        error = QStringLiteral("--nouser option is missed");
    } else if (count == 4) {
        options->runMode = CommandLineOptions::Unattended;
        error = getClientTypeVersion(options, arguments, 2);
    } else if (getDefaultParameters(options, fallbackVersion)) {
        options->runMode = CommandLineOptions::Unattended;
    } else {
        error = defaultsFailedText();
    }
    if (options->runMode != CommandLineOptions::RunModeNotSet)
        return error;

    // A wrong first argument counts as no arguments at all, and a failed derivation under
    // "--nouser" is tried once more: the error found above is dropped on purpose.
    return defaultParametersResult(options, fallbackVersion);
}

QString defaultClientType()
{
    return QStringLiteral("client_linux_amd64");
}

bool isValidClientType(const QString &type)
{
    static const QRegularExpression allowed(QStringLiteral("^[A-Za-z0-9._-]+$"));
    return allowed.match(type).hasMatch() && type != QLatin1String(".")
           && type != QLatin1String("..");
}

QString getClientTypeVersion(CommandLineOptions *options, const QStringList &arguments, int index)
{
    if (index >= arguments.size())
        return QCoreApplication::translate("", "No client type specified");
    options->clientType = arguments.at(index);
    if (!isValidClientType(options->clientType))
        return QCoreApplication::translate("", "Wrong client type");
    if (index + 1 >= arguments.size())
        return QCoreApplication::translate("", "No client version specified");
    bool ok = false;
    options->clientVersion = toVersionNumber(arguments.at(index + 1), &ok);
    return ok ? QString() : QCoreApplication::translate("", "Wrong version code");
}

bool getDefaultParameters(CommandLineOptions *options, const QString &fallbackVersion)
{
    options->clientType = defaultClientType();

    QString version = fallbackVersion;
    AnnouncedVersion announced(options->clientType);
    // A version from the release pointer is an announcement too: no downgrade through it.
    options->versionFromServer = announced.query() || announced.serverAnswered();
    if (options->versionFromServer) {
        version = announced.version();
    } else {
        showMessageBox(nullptr, QMessageBox::Warning, QCoreApplication::translate("", "Error"),
                       QCoreApplication::translate("", "Failed to query latest client\n"
                                                       "version from update server."));
    }
    if (version.isEmpty())
        return false;

    bool ok = false;
    options->clientVersion = toVersionNumber(version, &ok);
    if (!ok)
        return false;
    options->runMode = CommandLineOptions::Interactive;
    return true;
}
