#include "app/announcedversion.h"

#include "app/apppaths.h"
#include "app/updatedatafile.h"
#include "app/updatechecker.h"
#include "session/latestpointerfetch.h"
#include "session/trustedkeys.h"

#include <cstdio>
#include <memory>

namespace {

void logLines(const QStringList &lines)
{
    for (const QString &line : lines)
        std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
}

} // namespace

AnnouncedVersion::AnnouncedVersion(const QString &clientType)
    : clientType(clientType)
{}

int AnnouncedVersion::installedVersion()
{
    std::optional<int> installed;
    if (!UpdateDataFile().installedVersion(&installed))
        return 0;
    return installed.value_or(-1);
}

bool AnnouncedVersion::query()
{
    const auto checker = std::make_unique<UpdateChecker>();
    answered = checker->checkUpdate();
    if (answered)
        text = QString::fromLatin1(checker->getClientVersion());
    const QList<MinisignPublicKey> keys = loadTrustedKeys(getAppRootPath());
    // Without a key a pointer is no better than the server's word.
    if (answered && keys.isEmpty())
        return !text.isEmpty();

    LatestPointerFetch pointer(getAppRootPath(), clientType, keys, installedVersion());
    const int pointed = pointer.fetch();
    logLines(pointer.messages());
    if (pointed <= 0)
        return !text.isEmpty();
    bool ok = false;
    const int announced = text.toInt(&ok, 10);
    if (answered && ok && announced >= pointed)
        return true;
    if (answered) {
        logLines({QStringLiteral("The update server announces %1, lower than the signed release "
                                 "pointer's %2: taking %2")
                          .arg(text)
                          .arg(pointed)});
    } else {
        logLines({QStringLiteral("The update server did not answer; taking version %1 from the "
                                 "release pointer")
                          .arg(pointed)});
    }
    text = QString::number(pointed);
    return true;
}
