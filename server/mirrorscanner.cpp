#include "server/mirrorscanner.h"

#include "tasks/productlist.h"
#include "tasks/releasemanifest.h"
#include "update/checksums.h"
#include "update/filesync.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int settleMs = 300;
// A manifest lists every file of a release; far beyond any real one.
constexpr qint64 manifestLimit = 64 << 20;

// Nothing but a regular file: a pipe synced into the tree would stop every answer for good.
QByteArray readSmallFile(const QString &path, qint64 limit)
{
    QByteArray data;
    return readRegularFile(path, limit, &data) ? data : QByteArray();
}

void say(const QString &text)
{
    std::fprintf(stderr, "%s\n", text.toLocal8Bit().constData());
    std::fflush(stderr);
}

} // namespace

MirrorScanner::MirrorScanner(const QString &root, const QString &type,
                             const QList<MinisignPublicKey> &keys, int rescanSeconds,
                             QObject *parent)
    : QObject(parent)
    , root(root)
    , type(type)
    , keys(keys)
{
    rescanTimer.setInterval(rescanSeconds * 1000);
    connect(&rescanTimer, &QTimer::timeout, this, &MirrorScanner::scan);
    settleTimer.setSingleShot(true);
    settleTimer.setInterval(settleMs);
    connect(&settleTimer, &QTimer::timeout, this, &MirrorScanner::scan);
    const auto changed = [this] { settleTimer.start(); };
    connect(&watcher, &QFileSystemWatcher::directoryChanged, this, changed);
    connect(&watcher, &QFileSystemWatcher::fileChanged, this, changed);
}

void MirrorScanner::start()
{
    scan();
    rescanTimer.start();
}

void MirrorScanner::scan()
{
    static const QRegularExpression decimal(QStringLiteral("^[0-9]{1,9}$"));
    QList<int> versions;
    for (const QString &name : QDir(root).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        if (decimal.match(name).hasMatch())
            versions << name.toInt();
    }
    std::sort(versions.begin(), versions.end(), std::greater<int>());

    // The root shows a new version directory; the directories above the one announced show
    // when their release becomes complete.
    QStringList watched{root};
    int found = -1;
    for (const int version : std::as_const(versions)) {
        const QString name = QString::number(version);
        watched << root + QLatin1Char('/') + name;
        if (isComplete(name)) {
            found = version;
            break;
        }
    }
    if (!watcher.directories().isEmpty())
        watcher.removePaths(watcher.directories());
    watcher.addPaths(watched);

    if (found == current)
        return;
    current = found;
    if (found < 0) {
        say(QStringLiteral("No complete release of %1 in %2: queries stay unanswered")
                    .arg(type, root));
        emit replyChanged({});
        return;
    }
    say(QStringLiteral("Announcing version %1 of %2").arg(found).arg(type));
    emit replyChanged(QByteArray::number(found));
}

bool MirrorScanner::isComplete(const QString &versionName) const
{
    const QString dir = root + QLatin1Char('/') + versionName;
    const QString listPath = dir + QLatin1Char('/') + ProductList::fileName(type);
    const QByteArray manifestText =
            readSmallFile(dir + QLatin1Char('/') + ReleaseManifest::fileName(type), manifestLimit);
    ReleaseManifest manifest;
    if (!QFileInfo(listPath).isFile() || !manifest.parse(manifestText) || manifest.type() != type
        || manifest.version() != versionName || getFileSHA256Ex(listPath) != manifest.listSha256())
        return false;
    QStringList files = manifest.keys(ReleaseManifest::sha256Group);
    for (const PatchRecord &patch : manifest.patches())
        files << patch.path;
    for (const QString &file : std::as_const(files)) {
        // The manifest comes from the publisher's own tree, but a key must still not climb out.
        if (file.contains(QStringLiteral("..")) || file.startsWith(QLatin1Char('/'))
            || !QFileInfo(dir + QLatin1Char('/') + file).isFile())
            return false;
    }
    return keys.isEmpty() || signatureHolds(dir, manifestText, versionName);
}

bool MirrorScanner::signatureHolds(const QString &dir, const QByteArray &manifestText,
                                   const QString &versionName) const
{
    MinisignSignature signature;
    return parseMinisignSignature(
                   readSmallFile(dir + QLatin1Char('/') + ReleaseManifest::signatureName(type),
                                 4096),
                   &signature)
           && signature.trustedComment == ReleaseManifest::trustedComment(type, versionName)
           && verifyMinisign(manifestText, signature, keys);
}
