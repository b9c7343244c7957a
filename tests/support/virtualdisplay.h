#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>

// An X server of a test's own (Xvfb), driven with xdotool; stopped when destroyed.
class VirtualDisplay
{
public:
    ~VirtualDisplay()
    {
        server.terminate();
        server.waitForFinished(5000);
    }

    static bool isAvailable()
    {
        return !QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty()
               && !QStandardPaths::findExecutable(QStringLiteral("xdotool")).isEmpty();
    }

    bool start()
    {
        // It takes the first free display number and tells it, so tests side by side never clash.
        server.start(QStringLiteral("Xvfb"),
                     {"-displayfd", "1", "-screen", "0", "800x600x24", "-nolisten", "tcp"});
        if (!server.waitForStarted() || !server.waitForReadyRead(30000))
            return false;
        name = QLatin1Char(':') + QString::fromLatin1(server.readLine().trimmed());
        return name.size() > 1;
    }

    // The system environment with DISPLAY set to this display and no offscreen platform. The
    // display has no session bus: without one named, libdbus would try to start one for it.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("QT_QPA_PLATFORM"));
        environment.insert(QStringLiteral("DISPLAY"), name);
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QStringLiteral("disabled:"));
        return environment;
    }

    // True when xdotool exits with 0 on this display; its standard output goes to output.
    bool xdotool(const QStringList &arguments, QByteArray *output = nullptr) const
    {
        QProcess tool;
        tool.setProcessEnvironment(environment());
        tool.start(QStringLiteral("xdotool"), arguments);
        const bool succeeded = tool.waitForFinished(60000)
                               && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
        if (output)
            *output = tool.readAllStandardOutput();
        return succeeded;
    }

private:
    QProcess server;
    QString name;
};
