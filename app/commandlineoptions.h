#pragma once

#include <QCoreApplication>
#include <QString>
#include <QStringList>

// What the command line asks for: the client build to install and whether nobody watches.
struct CommandLineOptions
{
    // Unattended: "--nouser".
    enum RunMode { RunModeNotSet, Interactive, Unattended };
    RunMode runMode = RunModeNotSet;
    QString clientType;
    int clientVersion = 0;
    // The version is the update server's announcement, not the user's choice.
    bool versionFromServer = false;
};

// What "--help" prints: the argument forms, the exit statuses and the files beside the program.
QString usageText();

// Fills options from the argument list (the program's own path first) or, where it names no
// client type and version, from the defaults; an empty result on success, else the error text.
QString parseCommandLineOptions(CommandLineOptions *options, const QString &fallbackVersion,
                                const QStringList &arguments = QCoreApplication::arguments());

// The client type of this build.
QString defaultClientType();

// A client type names the product list and a file beside the program: letters, digits, ".", "_"
// and "-" only, and not "." or "..".
bool isValidClientType(const QString &type);

// Reads the client type at index and the version after it; an empty result on success.
QString getClientTypeVersion(CommandLineOptions *options, const QStringList &arguments, int index);

// The build's client type and the version the update server announces, or fallbackVersion
// when the server does not answer (after a warning box); false when no version results.
bool getDefaultParameters(CommandLineOptions *options, const QString &fallbackVersion);
