#include "tools/latestpublisher.h"
#include "tools/mirrorchecker.h"
#include "tools/releasepublisher.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QTextStream>

#include <fcntl.h>
#include <unistd.h>
#include <optional>

namespace {

void printLines(QTextStream &stream, const QStringList &lines)
{
    for (const QString &line : lines)
        stream << QCoreApplication::applicationName() << ": " << line << Qt::endl;
}

// Created anew with exactly mode, never over an existing file.
bool writeNewFile(const QString &path, const QByteArray &content, mode_t mode)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL, mode);
    if (fd < 0)
        return false;
    const bool written = ::write(fd, content.constData(), size_t(content.size())) == content.size();
    return ::close(fd) == 0 && written;
}

int runKeygen(const QString &directory)
{
    QTextStream err(stderr);
    const QString secretPath = QDir(directory).filePath(QStringLiteral("update-secret.key"));
    const QString publicPath = QDir(directory).filePath(QStringLiteral("update-keys.pub"));
    MinisignSecretKey key;
    if (!QDir().mkpath(directory) || QFile::exists(secretPath) || QFile::exists(publicPath)) {
        printLines(err, {QStringLiteral("%1 or %2 exists already, or %3 cannot be made; a key is "
                                        "never overwritten")
                                 .arg(secretPath, publicPath, directory)});
        return 1;
    }
    if (!generateMinisignKey(&key) || !writeNewFile(secretPath, minisignSecretKeyFile(key), 0600)
        || !writeNewFile(publicPath, minisignPublicKeyFile(key), 0644)) {
        printLines(err, {QStringLiteral("cannot write the key pair into %1").arg(directory)});
        return 1;
    }
    QTextStream(stdout) << "key " << minisignKeyIdText(key.keyId) << ": secret " << secretPath
                        << " (keep it private), public " << publicPath
                        << " (ship it in the release)" << Qt::endl;
    return 0;
}

bool readTrustedKeys(const QString &path, QList<MinisignPublicKey> *keys)
{
    QFile file(path);
    if (file.open(QIODevice::ReadOnly))
        *keys = parseMinisignKeyList(file.readAll());
    if (!keys->isEmpty())
        return true;
    QTextStream err(stderr);
    printLines(err, {QStringLiteral("%1 holds no minisign public key").arg(path)});
    return false;
}

int runCheck(const QStringList &lists, const QString &keyPath)
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    QList<MinisignPublicKey> keys;
    if (!keyPath.isEmpty() && !readTrustedKeys(keyPath, &keys))
        return 1;
    int failures = 0;
    for (const QString &list : lists) {
        MirrorChecker checker(list);
        checker.setTrustedKeys(keys);
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

QString patchSummary(const QList<PatchRecord> &patches, int cached)
{
    if (patches.isEmpty())
        return QString();
    quint64 bytes = 0;
    for (const PatchRecord &patch : patches)
        bytes += patch.size;
    return QStringLiteral(", %1 patches (%2 bytes, %3 from the patch cache)")
            .arg(patches.size())
            .arg(bytes)
            .arg(cached);
}

// Every option, declared once for the parser and for reading what it parsed.
struct PublishOptions
{
    const QCommandLineOption pack{
            QStringLiteral("pack"),
            QStringLiteral("Which files to store packed: all, none, or auto (those that "
                           "shrink by at least %1% and %2 bytes). Default: auto.")
                    .arg(ReleasePublisher::minimumSavingPercent)
                    .arg(ReleasePublisher::minimumSavingBytes),
            QStringLiteral("mode"), QStringLiteral("auto")};
    const QCommandLineOption compress{
            QStringLiteral("compress"),
            QStringLiteral("How to pack files: gzip, which every updater reads, or zstd, which "
                           "is smaller and unpacks faster but needs an updater that knows it. "
                           "Default: gzip."),
            QStringLiteral("format"), QStringLiteral("gzip")};
    const QCommandLineOption dereference{
            QStringLiteral("dereference"),
            QStringLiteral("Publish what a symbolic link in the release points to, under the "
                           "link's name, instead of refusing the link.")};
    const QCommandLineOption previous{
            QStringLiteral("previous"),
            QStringLiteral("A previous release (its directory, or the product list it was "
                           "published with, beside its files); may be given once for each "
                           "release users may still run. Its files that this release lacks are "
                           "listed for deletion, and those it changes get binary patches from "
                           "it under VERSION/patches/TYPE/ where a patch takes at most %1% of "
                           "the file on the mirror.")
                    .arg(ReleasePatches::maximumPercent),
            QStringLiteral("path")};
    const QCommandLineOption patchCache{
            QStringLiteral("patch-cache"),
            QStringLiteral("Keep the patches made in this directory, by the SHA-256 of both "
                           "files, and take them from there instead of making them again."),
            QStringLiteral("dir")};
    const QCommandLineOption force{
            QStringLiteral("force"),
            QStringLiteral("Replace a product list already published for this type and version.")};
    const QCommandLineOption check{
            QStringLiteral("check"),
            QStringLiteral("Check mode: verify the mirror tree of each product list given.")};
    const QCommandLineOption sign{
            QStringLiteral("sign"),
            QStringLiteral("Sign the release manifest with this unencrypted minisign secret key "
                           "(from --keygen or minisign -G -W)."),
            QStringLiteral("secretkey")};
    const QCommandLineOption key{
            QStringLiteral("key"),
            QStringLiteral("With --check: also verify the manifest's signature with the minisign "
                           "public keys of this file."),
            QStringLiteral("publickey")};
    const QCommandLineOption keygen{
            QStringLiteral("keygen"),
            QStringLiteral("Write a new key pair into the directory: update-secret.key (mode "
                           "0600) and update-keys.pub, which installations trust."),
            QStringLiteral("dir")};
    const QCommandLineOption latest{
            QStringLiteral("latest"),
            QStringLiteral("Write ROOT/TYPE.latest, the pointer to this version that updaters "
                           "read when the version server does not answer; signed with --sign.")};
    const QCommandLineOption expires{
            QStringLiteral("expires"),
            QStringLiteral("With --latest: days until updaters stop trusting the pointer; "
                           "refresh it before. Default: %1.")
                    .arg(LatestPublisher::defaultLifetimeDays),
            QStringLiteral("days")};

    QList<QCommandLineOption> all() const
    {
        return {pack,  compress, dereference, previous, patchCache, force,
                check, sign,     key,         keygen,   latest,     expires};
    }
};

int runPublish(const QStringList &arguments, const QCommandLineParser &parser,
               const PublishOptions &options)
{
    QTextStream err(stderr);
    const QString packing = parser.value(options.pack);
    const QString compression = parser.value(options.compress);
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
    publisher.setDereference(parser.isSet(options.dereference));
    for (const QString &previous : parser.values(options.previous))
        publisher.addPreviousRelease(previous);
    publisher.setPatchCache(parser.value(options.patchCache));
    publisher.setReplaceExisting(parser.isSet(options.force));
    publisher.setSigningKey(parser.value(options.sign));
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
        << publisher.deletedPaths().size() << " to delete"
        << patchSummary(publisher.patches(), publisher.cachedPatchCount()) << Qt::endl;
    return 0;
}

int runLatest(const QString &root, const QString &type, const QString &version,
              const QString &expires, const QString &signingKey)
{
    LatestPublisher latest(root, type, version);
    bool ok = true;
    if (!expires.isEmpty())
        latest.setLifetimeDays(expires.toInt(&ok, 10));
    latest.setSigningKey(signingKey);
    if (!ok || !latest.publish()) {
        QTextStream err(stderr);
        printLines(
                err,
                {ok ? latest.error()
                    : QStringLiteral("--expires takes a number of days, not \"%1\"").arg(expires)});
        return 1;
    }
    QTextStream(stdout) << latest.pointerPath() << ": version " << version << Qt::endl;
    return 0;
}

void describe(QCommandLineParser &parser, const PublishOptions &options)
{
    parser.setApplicationDescription(QStringLiteral(
            "Publishes a release of the Orlivo client as a mirror tree that any HTTP or FTP "
            "server can serve:\nROOT/VERSION/TYPE.ini (the product list) and the files, packed "
            "or raw, in directories named TYPE and TYPE.<subdirectory>.\n"
            "The release manifest ROOT/VERSION/TYPE.manifest holds the SHA-256 of the list and of "
            "every file; --sign adds its signature TYPE.manifest.minisig.\n"
            "update-publish --check LIST... verifies a mirror tree against its product lists "
            "instead.\n"
            "update-publish --keygen DIR writes a new key pair in minisign's format.\n"
            "update-publish --latest TYPE VERSION ROOT [--sign KEY] points ROOT/TYPE.latest at a "
            "published release (also done after publishing when --latest is given)."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOptions(options.all());
    parser.addPositionalArgument(QStringLiteral("RELEASE"),
                                 QStringLiteral("Directory holding the files of the release as "
                                                "they stand in the installation."));
    parser.addPositionalArgument(QStringLiteral("TYPE"),
                                 QStringLiteral("Client type, e.g. client_linux_amd64."));
    parser.addPositionalArgument(QStringLiteral("VERSION"),
                                 QStringLiteral("Client version, a decimal number."));
    parser.addPositionalArgument(QStringLiteral("ROOT"),
                                 QStringLiteral("Mirror root; the release goes to ROOT/VERSION."));
}

int run(QCommandLineParser &parser, const PublishOptions &options)
{
    const QStringList arguments = parser.positionalArguments();
    if (parser.isSet(options.keygen))
        return runKeygen(parser.value(options.keygen));
    if (parser.isSet(options.check)) {
        if (arguments.isEmpty())
            parser.showHelp(1);
        return runCheck(arguments, parser.value(options.key));
    }
    const bool latest = parser.isSet(options.latest);
    if (latest && arguments.size() == 3)
        return runLatest(arguments.at(2), arguments.at(0), arguments.at(1),
                         parser.value(options.expires), parser.value(options.sign));
    if (arguments.size() != 4) {
        QTextStream(stderr) << "update-publish: expected RELEASE TYPE VERSION ROOT, got "
                            << arguments.size() << " arguments (see --help)" << Qt::endl;
        return 1;
    }
    const int published = runPublish(arguments, parser, options);
    if (published != 0 || !latest)
        return published;
    return runLatest(arguments.at(3), arguments.at(1), arguments.at(2),
                     parser.value(options.expires), parser.value(options.sign));
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("update-publish"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ORLIVO_VERSION));
    QCommandLineParser parser;
    const PublishOptions options;
    describe(parser, options);
    parser.process(app);
    return run(parser, options);
}
