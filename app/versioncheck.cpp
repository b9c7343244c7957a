#include "app/versioncheck.h"

#include "app/announcedversion.h"
#include "app/commandlineoptions.h"
#include "streams/transportlibrary.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

constexpr int upToDate = 0;
constexpr int cannotTell = 1;
constexpr int updateAvailable = 10;

} // namespace

int runVersionCheck(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const TransportLibrary transportLibrary;
    const QString type = argc > 2 ? QString::fromLocal8Bit(argv[2]) : defaultClientType();
    if (!isValidClientType(type)) {
        std::fprintf(
                stderr, "%s\n",
                QCoreApplication::translate("", "Wrong client type").toLocal8Bit().constData());
        return cannotTell;
    }
    AnnouncedVersion announced(type);
    bool ok = false;
    const int available = announced.query() ? announced.version().toInt(&ok, 10) : 0;
    if (!ok) {
        std::fprintf(stderr, "No version from the update server or a release pointer\n");
        return cannotTell;
    }
    const int installed = AnnouncedVersion::installedVersion();
    if (installed < 0) {
        std::fprintf(stderr, "update.ini records an installed version that is not a number\n");
        return cannotTell;
    }
    if (installed == 0) {
        std::printf("%d available, installed version unknown\n", available);
        return updateAvailable;
    }
    if (available > installed) {
        std::printf("%d available, %d installed\n", available, installed);
        return updateAvailable;
    }
    if (available < installed)
        std::fprintf(stderr, "Version %d is announced, lower than the installed version %d\n",
                     available, installed);
    std::printf("up to date (%d)\n", installed);
    return upToDate;
}
