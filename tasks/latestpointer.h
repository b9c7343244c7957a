#pragma once

#include <QByteArray>
#include <QString>

// The signed pointer to the current release at a mirror's root, "TYPE.latest" beside its
// signature "TYPE.latest.minisig": the version to install and until when the claim holds, so that
// a mirror or a version server replaying an old answer is noticed once it expires.
class LatestPointer
{
public:
    QString type;
    int version = 0;
    // UTC, in seconds since the epoch.
    qint64 expires = 0;

    static QString fileName(const QString &type) { return type + QStringLiteral(".latest"); }
    static QString signatureName(const QString &type)
    {
        return fileName(type) + QStringLiteral(".minisig");
    }

    // False unless the text holds the group "latest" with a valid type, a positive version and
    // an expiry, all as decimal numbers.
    bool parse(const QByteArray &text);
    QByteArray toText() const;
    // What the signature's trusted comment must say, binding it to exactly these values.
    QByteArray trustedComment() const;
    bool isExpired(qint64 nowUtcSeconds) const { return expires <= nowUtcSeconds; }
};
