#pragma once

#include <QString>

// Takes the exclusive lock of the installation in dir (".update-lock", flock, non-blocking) and
// keeps it until the process ends: the kernel drops it then, also for a killed run. The
// descriptor is close-on-exec, so a program started by this one does not hold it. False when
// another process holds it (busy set), or when this process may not change the installation or
// cannot open the lock file (error set).
bool lockInstallation(const QString &dir, bool *busy, QString *error);
