#include "server/mirrorscanner.h"
#include "server/serveroptions.h"
#include "server/stopsignals.h"
#include "server/versionserver.h"

#include <QCoreApplication>
#include <QFile>

#include <cstdio>
#include <cstring>
#include <memory>

namespace {

int fail(const QString &text)
{
    std::fprintf(stderr, "update-server: %s\n", text.toLocal8Bit().constData());
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(ServerOptions::usage().toLocal8Bit().constData(), stdout);
        return 0;
    }
    // Before Qt starts any thread, so that every thread inherits the blocked stop signals.
    StopSignals::block();
    // Qt's own dispatcher costs less per wake-up than GLib's, which counts at 100,000 queries
    // a second; nothing here needs GLib.
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication application(argc, argv);
    StopSignals stops;
    ServerOptions options;
    if (const QString error = options.parse(QCoreApplication::arguments()); !error.isEmpty())
        return fail(error + QStringLiteral("\n") + ServerOptions::usage());

    QList<MinisignPublicKey> keys;
    if (!options.keyFile.isEmpty()) {
        QFile file(options.keyFile);
        // Without its keys the server would announce unsigned releases: refuse to start.
        if (!file.open(QIODevice::ReadOnly))
            return fail(
                    QStringLiteral("cannot read %1: %2").arg(options.keyFile, file.errorString()));
        keys = parseMinisignKeyList(file.read(65536));
        if (keys.isEmpty())
            return fail(QStringLiteral("%1 holds no public key").arg(options.keyFile));
    }

    VersionServer server(options.rate, options.burst);
    if (!server.listen(options.address, options.port))
        return fail(QStringLiteral("cannot listen on %1:%2: %3")
                            .arg(QString::fromLatin1(options.address))
                            .arg(options.port)
                            .arg(server.errorString()));
    std::unique_ptr<MirrorScanner> scanner;
    if (options.mirrorRoot.isEmpty()) {
        server.setReply(options.reply);
    } else {
        scanner = std::make_unique<MirrorScanner>(options.mirrorRoot, options.type, keys,
                                                  options.rescanSeconds);
        QObject::connect(scanner.get(), &MirrorScanner::replyChanged, &server,
                         &VersionServer::setReply);
        scanner->start();
    }
    // What the last minute counted is not lost at a restart.
    QObject::connect(&stops, &StopSignals::stopRequested, &application,
                     [&server](int signalNumber) {
                         server.writeCounts("since the last count");
                         std::fprintf(stderr, "Stopping on signal %d\n", signalNumber);
                         QCoreApplication::quit();
                     });
    std::fprintf(stderr, "Listening on %s:%u\n", options.address.constData(), server.port());
    std::fflush(stderr);
    return application.exec();
}
