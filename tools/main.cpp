#include "tools/mirrorchecker.h"
#include "tools/releasepublisher.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QHash>
#include <QTextStream>

#include <optional>

namespace {

void printLines(QTextStream &stream, const QStringList &lines)
{
    for (const QString &line : lines)
        stream << QCoreApplication::applicationName() << ": " << line << Qt::endl;
}

int runCheck(const QStringList &lists)
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    int failures = 0;
    for (const QString &list : lists) {
        MirrorChecker checker(list);
        if (checker.check()) {
            out << list << ": " << checker.checkedFiles() << " files correct" << Qt::endl;
        } else {
            printLines(err, checker.problems());
            ++failures;
        }
    }
    return failures == 0 ? 0 : 1;
}

// The format of packed files, or none when the text names no format.
std::optional<PackFormat> packFormatNamed(const QString &name)
{
    if (name == QLatin1String("gzip"))
        return PackFormat::Gzip;
    if (name == QLatin1String("zstd"))
        return PackFormat::Zstd;
    return std::nullopt;
}

QString patchSummary(const QList<PatchRecord> &patches)
{
    if (patches.isEmpty())
        return QString();
    quint64 bytes = 0;
    for (const PatchRecord &patch : patches)
        bytes += patch.size;
    return QStringLiteral(", %1 patches (%2 bytes)").arg(patches.size()).arg(bytes);
}

int runPublish(const QStringList &arguments, const QString &packing, const QString &previous,
               bool force, const QString &compression, bool dereference)
{
    QTextStream err(stderr);
    static const QHash<QString, ReleasePublisher::Packing> packings = {
            {QStringLiteral("none"), ReleasePublisher::Packing::None},
            {QStringLiteral("auto"), ReleasePublisher::Packing::Auto},
            {QStringLiteral("all"), ReleasePublisher::Packing::All}};
    if (!packings.contains(packing)) {
        printLines(err,
                   {QStringLiteral("--pack takes all, none or auto, not \"%1\"").arg(packing)});
        return 1;
    }
    const std::optional<PackFormat> format = packFormatNamed(compression);
    if (!format) {
        printLines(err,
                   {QStringLiteral("--compress takes gzip or zstd, not \"%1\"").arg(compression)});
        return 1;
    }
    ReleasePublisher publisher(arguments.at(0), arguments.at(1), arguments.at(2), arguments.at(3));
    publisher.setPacking(packings.value(packing));
    publisher.setPackFormat(*format);
    publisher.setDereference(dereference);
    publisher.setPreviousRelease(previous);
    publisher.setReplaceExisting(force);
    if (!publisher.publish()) {
        printLines(err, publisher.errors());
        return 1;
    }
    const QList<FileSpecification> entries = publisher.entries();
    quint64 mirrorBytes = 0;
    for (const FileSpecification &entry : entries)
        mirrorBytes += entry.size;
    QTextStream out(stdout);
    out << publisher.listPath() << ": " << entries.size() << " files (" << publisher.packedCount()
        << " packed, " << mirrorBytes << " bytes on the mirror), "
        << publisher.deletedPaths().size() << " to delete" << patchSummary(publisher.patches())
        << Qt::endl;
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("update-publish"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ORLIVO_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
            "Publishes a release of the Orlivo client as a mirror tree that any HTTP or FTP "
            "server can serve:\nROOT/VERSION/TYPE.ini (the product list) and the files, packed "
            "or raw, in directories named TYPE and TYPE.<subdirectory>.\n"
            "update-publish --check LIST... verifies a mirror tree against its product lists "
            "instead."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption packOption(
            QStringLiteral("pack"),
            QStringLiteral("Which files to store packed: all, none, or auto (those that "
                           "shrink by at least %1% and %2 bytes). Default: auto.")
                    .arg(ReleasePublisher::minimumSavingPercent)
                    .arg(ReleasePublisher::minimumSavingBytes),
            QStringLiteral("mode"), QStringLiteral("auto"));
    const QCommandLineOption compressOption(
            QStringLiteral("compress"),
            QStringLiteral("How to pack files: gzip, which every updater reads, or zstd, which "
                           "is smaller and unpacks faster but needs an updater that knows it. "
                           "Default: gzip."),
            QStringLiteral("format"), QStringLiteral("gzip"));
    const QCommandLineOption dereferenceOption(
            QStringLiteral("dereference"),
            QStringLiteral("Publish what a symbolic link in the release points to, under the "
                           "link's name, instead of refusing the link."));
    const QCommandLineOption previousOption(
            QStringLiteral("previous"),
            QStringLiteral("The previous release (its directory, or the product list it was "
                           "published with, beside its files): its files that this release "
                           "lacks are listed for deletion, and those it changes get binary "
                           "patches under VERSION/patches/TYPE/ where a patch takes at most "
                           "%1% of the file on the mirror.")
                    .arg(ReleasePatches::maximumPercent),
            QStringLiteral("path"));
    const QCommandLineOption forceOption(
            QStringLiteral("force"),
            QStringLiteral("Replace a product list already published for this type and version."));
    const QCommandLineOption checkOption(
            QStringLiteral("check"),
            QStringLiteral("Check mode: verify the mirror tree of each product list given."));
    parser.addOptions({packOption, compressOption, dereferenceOption, previousOption, forceOption,
                       checkOption});
    parser.addPositionalArgument(QStringLiteral("RELEASE"),
                                 QStringLiteral("Directory holding the files of the release as "
                                                "they stand in the installation."));
    parser.addPositionalArgument(QStringLiteral("TYPE"),
                                 QStringLiteral("Client type, e.g. client_linux_amd64."));
    parser.addPositionalArgument(QStringLiteral("VERSION"),
                                 QStringLiteral("Client version, a decimal number."));
    parser.addPositionalArgument(QStringLiteral("ROOT"),
                                 QStringLiteral("Mirror root; the release goes to ROOT/VERSION."));
    parser.process(app);

    const QStringList arguments = parser.positionalArguments();
    if (parser.isSet(checkOption)) {
        if (arguments.isEmpty())
            parser.showHelp(1);
        return runCheck(arguments);
    }
    if (arguments.size() != 4) {
        QTextStream(stderr) << "update-publish: expected RELEASE TYPE VERSION ROOT, got "
                            << arguments.size() << " arguments (see --help)" << Qt::endl;
        return 1;
    }
    return runPublish(arguments, parser.value(packOption), parser.value(previousOption),
                      parser.isSet(forceOption), parser.value(compressOption),
                      parser.isSet(dereferenceOption));
}
