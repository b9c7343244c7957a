#pragma once

#include <QString>

// One binary patch of a release, as the release manifest's group "patches" lists it: the key
// is the patch's path below the version directory, the value "SHA-256::size::baseMD5::install
// path". It turns the installed file whose MD5 is baseMd5 into the release's file at installPath.
struct PatchRecord
{
    QString path;
    QString sha256;   // of the patch
    quint64 size = 0; // of the patch
    QString baseMd5;
    QString installPath;

    QString value() const;
    // False unless value holds four well-formed fields and both paths stay inside.
    static bool parse(const QString &path, const QString &value, PatchRecord *record);
};
