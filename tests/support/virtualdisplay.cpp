#include "virtualdisplay.h"

#include <QStandardPaths>

namespace {

constexpr int toolTimeoutMs = 60000;

QString program(const char *name)
{
    return QStandardPaths::findExecutable(QString::fromLatin1(name));
}

} // namespace

VirtualDisplay::~VirtualDisplay()
{
    if (server.state() == QProcess::NotRunning)
        return;
    server.terminate();
    if (!server.waitForFinished(5000))
        server.kill();
    server.waitForFinished();
}

bool VirtualDisplay::isAvailable()
{
    return !program("Xvfb").isEmpty() && !program("xdotool").isEmpty();
}

bool VirtualDisplay::start()
{
    // -displayfd makes the server take the first free number and write it to us.
    server.start(program("Xvfb"),
                 {"-displayfd", "1", "-screen", "0", "800x600x24", "-nolisten", "tcp"});
    if (!server.waitForStarted() || !server.waitForReadyRead(30000))
        return false;
    name = QLatin1Char(':') + QString::fromLatin1(server.readLine().trimmed());
    return name.size() > 1;
}

QProcessEnvironment VirtualDisplay::environment() const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("QT_QPA_PLATFORM"));
    environment.insert(QStringLiteral("DISPLAY"), name);
    return environment;
}

bool VirtualDisplay::xdotool(const QStringList &arguments, QByteArray *output) const
{
    QProcess tool;
    tool.setProcessEnvironment(environment());
    tool.start(program("xdotool"), arguments);
    const bool succeeded = tool.waitForFinished(toolTimeoutMs)
                           && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    if (output)
        *output = tool.readAllStandardOutput();
    return succeeded;
}
