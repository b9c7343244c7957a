#pragma once

#include "tasks/patchrecord.h"
#include "tools/mirrornames.h"

#include <QList>
#include <QString>
#include <QStringList>

// Writes the binary patches of one client type's release into VERSION/patches/TYPE/, a folder
// that the product list never names, so updaters that know no patches never see them. A patch
// is kept only when it is clearly smaller than the file it saves fetching, and only after it
// has been applied once and made exactly the new file.
class ReleasePatches
{
public:
    // A patch may take at most this share of the file as the mirror holds it, packed or not:
    // below that, fetching and applying it is not worth a second, less common path.
    static constexpr int maximumPercent = 66;

    ReleasePatches(const QString &versionDirectory, const QString &clientType);

    // Removes what an earlier publication of this type and version left in the folder.
    bool prepare();
    // Considers a patch from previousFile to newFile, which installs at installPath and which
    // the mirror holds in mirrorSize bytes. True unless something failed; whether a patch was
    // kept shows in records().
    bool add(const QString &installPath, const QString &previousFile, const QString &newFile,
             quint64 mirrorSize);

    QList<PatchRecord> records() const { return written; }
    QStringList errors() const { return problems; }

private:
    bool fail(const QString &problem);
    QString directory() const;

    QString versionDirectory;
    QString clientType;
    MirrorNames names;
    QList<PatchRecord> written;
    QStringList problems;
};
