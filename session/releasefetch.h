#pragma once

#include "tasks/releasemanifest.h"
#include "update/minisign.h"

#include <QList>
#include <QString>

// What comes from a mirror before a release's files, in this order: the release manifest, with
// a trusted key its signature, then the product list, which a manifest must cover. The session
// fetches each file it names and says how that went; a refusal names the reason for the log.
class ReleaseFetch
{
public:
    enum Step { FetchingManifest, FetchingSignature, FetchingList };
    enum Outcome { FetchNext, ListReady, Refused };

    explicit ReleaseFetch(const QString &productListName = {}, const QString &version = {});

    void setTrustedKeys(const QList<MinisignPublicKey> &keys) { trustedKeys = keys; }
    bool hasTrustedKeys() const { return !trustedKeys.isEmpty(); }

    // Starts again from the manifest, at the mirror whose version directory is mirrorUrl.
    void start(const QString &mirrorUrl);
    Step step() const { return current; }
    // The file to fetch now, relative to the mirror's version directory.
    QString fileName() const;
    // Those the chain asks for after it, whatever comes of this one.
    QStringList laterFileNames() const;

    // The file of the current step lies at path; a note for the log may come with any outcome.
    Outcome fileArrived(const QString &path, QString *note);
    // The file of the current step could not be had. Without a key a release may have no
    // manifest; otherwise the mirror's list is refused.
    Outcome fileFailed(QString *note);

    // A manifest vouches for the list: signed when a key is trusted.
    bool haveManifest() const { return manifestUsable; }
    const ReleaseManifest &manifest() const { return releaseManifest; }
    // The file's SHA-256 from the manifest; empty without one.
    QString sha256(const QString &mirrorPath) const;

private:
    Outcome manifestArrived(const QString &path, QString *note);
    Outcome signatureArrived(const QString &path, QString *note);
    Outcome listArrived(const QString &path, QString *note);
    bool acceptsSignature(const QByteArray &signatureText);
    bool namesThisRelease() const;
    QString manifestUrl() const;
    QString invalidSignature() const;

    QString productListName;
    QString version;
    QString mirror;
    QList<MinisignPublicKey> trustedKeys;
    Step current = FetchingManifest;
    QByteArray manifestText;
    ReleaseManifest releaseManifest;
    bool manifestUsable = false;
};
