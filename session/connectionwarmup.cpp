#include "session/connectionwarmup.h"

#include "app/updatesettings.h"
#include "session/mirrorchoice.h"
#include "streams/curltransport.h"

#include <QFileInfo>
#include <QUrl>

ConnectionWarmup::ConnectionWarmup(const QString &mirrorsFile, const QString &updateDataFile)
{
    // A pipe in the file's place would keep the reading waiting for ever.
    if (!QFileInfo(mirrorsFile).isFile())
        return;
    MirrorChoice mirrors;
    static_cast<void>(mirrors.readMirrors(mirrorsFile, QString()));
    if (mirrors.isEmpty())
        return;
    transport = std::make_unique<CurlTransport>();
    transport->setProxy(QUrl(UpdateSettings::read(updateDataFile, 1).proxy));
    transport->connectAhead(QUrl(mirrors.at(0).url));
}

ConnectionWarmup::~ConnectionWarmup() = default;
