#include "session/latestpointerfetch.h"

#include "app/updatesettings.h"
#include "session/mirrorchoice.h"
#include "streams/curltransport.h"

#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#include <QUrl>

namespace {

// A pointer and its signature are a few lines; anything longer is not one.
constexpr qint64 pointerLimit = 4096;
constexpr int defaultMirrorTimeoutMs = 15000;

int defaultPort(const QString &scheme)
{
    if (scheme == QLatin1String("https"))
        return 443;
    return scheme == QLatin1String("ftp") ? 21 : 80;
}

} // namespace

LatestPointerFetch::LatestPointerFetch(const QString &appDirectory, const QString &type,
                                       const QList<MinisignPublicKey> &trustedKeys,
                                       int installedVersion)
    : appDirectory(appDirectory)
    , type(type)
    , trustedKeys(trustedKeys)
    , installedVersion(installedVersion)
{
    proxy = UpdateSettings::read(QDir(appDirectory).filePath(QStringLiteral("update.ini")), 1)
                    .proxy;
    mirrorTimeout.setSingleShot(true);
    mirrorTimeout.setInterval(defaultMirrorTimeoutMs);
    connect(&mirrorTimeout, &QTimer::timeout, this, &LatestPointerFetch::finishMirror);
}

LatestPointerFetch::~LatestPointerFetch() = default;

int LatestPointerFetch::fetch()
{
    const QString mirrorsFile = QDir(appDirectory).filePath(QStringLiteral("mirrors.ini"));
    if (!QFileInfo(mirrorsFile).isFile())
        return 0;
    MirrorChoice mirrors;
    mirrors.readMirrors(mirrorsFile, QString());
    for (const MarkedSiteData &mirror : mirrors.getMirrors()) {
        const QString &url = mirror.url;
        if (!startMirror(url))
            continue;
        QEventLoop mirrorLoop;
        loop = &mirrorLoop;
        mirrorTimeout.start();
        mirrorLoop.exec();
        loop = nullptr;
        mirrorTimeout.stop();
        transport.reset();
        if (delivered) {
            if (const int version = acceptPointer(url))
                return version;
        }
    }
    return 0;
}

bool LatestPointerFetch::startMirror(const QString &url)
{
    QUrl base(url);
    const QString scheme = base.scheme().toLower();
    if (!base.isValid()
        || (scheme != QLatin1String("http") && scheme != QLatin1String("https")
            && scheme != QLatin1String("ftp")))
        return false;
    if (base.port() <= 0)
        base.setPort(defaultPort(scheme));
    currentUrl = url;
    delivered = false;
    pointerText.close();
    pointerText.setData({});
    signatureText.close();
    signatureText.setData({});
    pointerText.open(QIODevice::WriteOnly);
    signatureText.open(QIODevice::WriteOnly);

    transport = std::make_unique<CurlTransport>();
    transport->setProxy(QUrl(proxy));
    connect(transport.get(), &CurlTransport::commandFinished, this,
            &LatestPointerFetch::onCommandFinished);
    transport->connectToHost(base);
    if (scheme == QLatin1String("ftp") || !base.userName().isEmpty())
        transport->login(base.userName(), base.password());
    const QString directory = base.path();
    lastRequest = pointerRequest = transport->get(directory + LatestPointer::fileName(type),
                                                  &pointerText, -1, 0, pointerLimit);
    if (!trustedKeys.isEmpty())
        lastRequest = transport->get(directory + LatestPointer::signatureName(type), &signatureText,
                                     -1, 0, pointerLimit);
    return true;
}

void LatestPointerFetch::onCommandFinished(int id, bool error)
{
    if (error) {
        // A mirror without a pointer is the usual case, worth no line; a broken one is.
        if (id != pointerRequest || transport->error() != CurlTransport::RequestRefused)
            log << QStringLiteral("No release pointer from %1: %2")
                            .arg(QUrl(currentUrl).toDisplayString(), transport->errorString());
        finishMirror();
        return;
    }
    if (id == lastRequest) {
        delivered = true;
        finishMirror();
    }
}

void LatestPointerFetch::finishMirror()
{
    if (loop)
        loop->quit();
}

int LatestPointerFetch::acceptPointer(const QString &url)
{
    const QString where = url + LatestPointer::fileName(type);
    LatestPointer pointer;
    QString refusal;
    MinisignSignature signature;
    if (!pointer.parse(pointerText.data()) || pointer.type != type) {
        refusal = QStringLiteral("it is not a pointer to %1").arg(type);
    } else if (!trustedKeys.isEmpty()
               && (!parseMinisignSignature(signatureText.data(), &signature)
                   || signature.trustedComment != pointer.trustedComment()
                   || !verifyMinisign(pointerText.data(), signature, trustedKeys))) {
        refusal = QStringLiteral("its signature is not valid");
    } else if (pointer.isExpired(QDateTime::currentSecsSinceEpoch())) {
        refusal = QStringLiteral("it expired at %1")
                          .arg(QDateTime::fromSecsSinceEpoch(pointer.expires, Qt::UTC)
                                       .toString(Qt::ISODate));
    } else if (!trustedKeys.isEmpty() && pointer.version < installedVersion) {
        refusal = QStringLiteral("its version %1 is lower than the installed version %2")
                          .arg(pointer.version)
                          .arg(installedVersion);
    }
    if (!refusal.isEmpty()) {
        log << QStringLiteral("Release pointer %1 refused: %2").arg(where, refusal);
        return 0;
    }
    log << QStringLiteral("Release pointer %1 names version %2").arg(where).arg(pointer.version);
    return pointer.version;
}
