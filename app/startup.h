#pragma once

#include <QStringList>

#include <memory>

class MainWindow;
class QTranslator;

// Registers the value types that travel through queued connections, under their own names.
void registerMetaTypes();

// Loads the program's catalogue from the resources and the toolkit's from "translations/"
// below the working directory, for the system locale, and installs both whether found or not.
void installTranslators(QTranslator *program, QTranslator *toolkit);

// Finishes or rolls back a switch a killed run left open, parses the arguments (the program's own
// path first) and, when they hold and no switch is left open, clears away the copies left by the
// previous update and shows the window, which starts by itself 200 ms later in an unattended run.
// Otherwise shows the error and returns null.
std::unique_ptr<MainWindow> startMainWindow(const QStringList &arguments);

// The whole program: its exit status.
int runUpdater(int argc, char **argv);
