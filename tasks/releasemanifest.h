#pragma once

#include "tasks/patchrecord.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

// The release manifest beside a product list: which type and version it is, the SHA-256 of the
// list and of every file on the mirror, in groups of "key=value" lines. Groups other than
// "release" and "sha256" are carried as they are, so that new ones need no change here. Keys are
// mirror paths, which never hold '=', so no quoting is needed; the text is parsed strictly and
// never beyond its end, since it arrives from a mirror.
class ReleaseManifest
{
public:
    static inline const QString releaseGroup = QStringLiteral("release");
    static inline const QString sha256Group = QStringLiteral("sha256");
    static inline const QString patchesGroup = QStringLiteral("patches");

    // False, leaving the manifest empty, unless every line is blank, a comment, "[group]", or
    // "key=value" inside a group, and no key comes twice in a group.
    bool parse(const QByteArray &text);
    QByteArray toText() const;

    QString value(const QString &group, const QString &key) const;
    void setValue(const QString &group, const QString &key, const QString &value);
    QStringList keys(const QString &group) const;

    QString type() const { return value(releaseGroup, QStringLiteral("type")); }
    QString version() const { return value(releaseGroup, QStringLiteral("version")); }
    QString listSha256() const { return value(releaseGroup, QStringLiteral("list")); }
    // Of a file by its path below the version directory; empty when it is not listed.
    QString sha256(const QString &mirrorPath) const { return value(sha256Group, mirrorPath); }
    // The well-formed records of the group "patches"; a malformed one is left out, so that its
    // file is fetched whole.
    QList<PatchRecord> patches() const;
    void addPatch(const PatchRecord &record)
    {
        setValue(patchesGroup, record.path, record.value());
    }

    // Beside the list of type, in its version directory; older updaters never fetch either.
    static QString fileName(const QString &type) { return type + QStringLiteral(".manifest"); }
    static QString signatureName(const QString &type)
    {
        return fileName(type) + QStringLiteral(".minisig");
    }

    // What a manifest's signature must say in its trusted comment.
    static QByteArray trustedComment(const QString &type, const QString &version)
    {
        return "orlivo " + type.toUtf8() + ' ' + version.toUtf8();
    }
    // 64 lower-case hexadecimal digits.
    static bool isSha256Text(const QString &text);

private:
    bool fail();

    QMap<QString, QMap<QString, QString>> groups;
};
