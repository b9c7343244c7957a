#include "app/updatesettings.h"

#include <QFileInfo>
#include <QSettings>

namespace {

// More parallel streams only open more connections to the same mirrors.
constexpr int maxStreams = 16;

} // namespace

UpdateSettings UpdateSettings::read(const QString &path, int defaultStreams)
{
    UpdateSettings result;
    result.streams = defaultStreams;
    // A pipe in the file's place would keep the reading waiting for ever.
    if (!QFileInfo(path).isFile())
        return result;
    QSettings settings(path, QSettings::IniFormat);
    settings.beginGroup("update");
    result.proxy = settings.value("proxy").toString();
    result.server = settings.value("server").toString();
    result.streams = settings.value("streams", defaultStreams).toInt();
    settings.endGroup();
    if (result.streams <= 0)
        result.streams = 1;
    if (result.streams > maxStreams) {
        result.warning =
                QString("streams=%1 is too many, %2 are used").arg(result.streams).arg(maxStreams);
        result.streams = maxStreams;
    }
    return result;
}
