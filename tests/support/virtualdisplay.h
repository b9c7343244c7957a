#pragma once

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

// An X server of a test's own (Xvfb), driven with xdotool. The server picks its display number
// itself, so tests running side by side never collide. Stopped when destroyed.
class VirtualDisplay
{
public:
    ~VirtualDisplay();

    // Both Xvfb and xdotool are installed.
    static bool isAvailable();

    bool start();
    // The system environment with DISPLAY set to this display and no offscreen platform.
    QProcessEnvironment environment() const;
    // Runs xdotool on this display; true when it exits with 0. Its standard output goes to
    // output when given.
    bool xdotool(const QStringList &arguments, QByteArray *output = nullptr) const;

private:
    QProcess server;
    QString name;
};
