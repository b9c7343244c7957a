#include "session/releasefetch.h"

#include "tasks/productlist.h"
#include "update/checksums.h"

#include <QFile>
#include <QUrl>

ReleaseFetch::ReleaseFetch(const QString &productListName, const QString &version)
    : productListName(productListName)
    , version(version)
{}

void ReleaseFetch::start(const QString &mirrorUrl)
{
    mirror = mirrorUrl;
    current = FetchingManifest;
    manifestText.clear();
    releaseManifest = ReleaseManifest();
    manifestUsable = false;
}

QString ReleaseFetch::fileName() const
{
    return ProductList::releaseFileNames(productListName).at(current);
}

QStringList ReleaseFetch::laterFileNames() const
{
    const QStringList names = ProductList::releaseFileNames(productListName);
    QStringList later;
    for (int step = current + 1; step <= FetchingList; ++step) {
        if (step != FetchingSignature || hasTrustedKeys())
            later << names.at(step);
    }
    return later;
}

ReleaseFetch::Outcome ReleaseFetch::fileArrived(const QString &path, QString *note)
{
    switch (current) {
    case FetchingManifest:
        return manifestArrived(path, note);
    case FetchingSignature:
        return signatureArrived(path, note);
    case FetchingList:
        break;
    }
    return listArrived(path, note);
}

ReleaseFetch::Outcome ReleaseFetch::fileFailed(QString *note)
{
    if (current == FetchingList)
        return Refused;
    // Releases published before manifests existed have none; without a key that is fine.
    if (trustedKeys.isEmpty()) {
        *note = QString("No release manifest at %1").arg(manifestUrl());
        current = FetchingList;
        return FetchNext;
    }
    *note = invalidSignature();
    return Refused;
}

QString ReleaseFetch::sha256(const QString &mirrorPath) const
{
    return manifestUsable ? releaseManifest.sha256(mirrorPath) : QString();
}

ReleaseFetch::Outcome ReleaseFetch::manifestArrived(const QString &path, QString *note)
{
    QFile file(path);
    manifestText = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    if (!trustedKeys.isEmpty()) {
        current = FetchingSignature;
        return FetchNext;
    }
    manifestUsable = releaseManifest.parse(manifestText) && namesThisRelease();
    if (!manifestUsable)
        *note = QString("Release manifest %1 is not usable").arg(manifestUrl());
    current = FetchingList;
    return FetchNext;
}

ReleaseFetch::Outcome ReleaseFetch::signatureArrived(const QString &path, QString *note)
{
    QFile file(path);
    // A signature file is four short lines.
    if (!file.open(QIODevice::ReadOnly) || !acceptsSignature(file.read(4096))) {
        *note = invalidSignature();
        return Refused;
    }
    manifestUsable = true;
    current = FetchingList;
    return FetchNext;
}

// The list is the one the manifest was made for; with a trusted key it must be.
ReleaseFetch::Outcome ReleaseFetch::listArrived(const QString &path, QString *note)
{
    if (!manifestUsable)
        return ListReady;
    QString md5;
    QString sha256;
    if (getFileDigests(path, &md5, &sha256) && sha256 == releaseManifest.listSha256())
        return ListReady;
    *note = trustedKeys.isEmpty()
                    ? QString("Release manifest %1 does not match the list").arg(manifestUrl())
                    : invalidSignature();
    return Refused;
}

// A trusted key signed the manifest, and both its trusted comment and its release name the
// product and version asked for, so that no other release can be replayed in their place.
bool ReleaseFetch::acceptsSignature(const QByteArray &signatureText)
{
    MinisignSignature signature;
    const QByteArray expected = ReleaseManifest::trustedComment(productListName, version);
    return parseMinisignSignature(signatureText, &signature)
           && verifyMinisign(manifestText, signature, trustedKeys)
           && signature.trustedComment == expected && releaseManifest.parse(manifestText)
           && namesThisRelease();
}

bool ReleaseFetch::namesThisRelease() const
{
    return releaseManifest.type() == productListName && releaseManifest.version() == version;
}

QString ReleaseFetch::manifestUrl() const
{
    return QUrl(mirror + "/" + ReleaseManifest::fileName(productListName)).toDisplayString();
}

QString ReleaseFetch::invalidSignature() const
{
    return QString("Signature of %1 is not valid.").arg(manifestUrl());
}
