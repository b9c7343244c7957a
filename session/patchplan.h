#pragma once

#include "tasks/filespecification.h"
#include "tasks/patchrecord.h"

#include <QHash>
#include <QList>
#include <QMultiHash>
#include <QString>
#include <QStringList>

// Which files of a run are made from a binary patch instead of being fetched whole: a file
// whose installed copy is the base of a patch that the release manifest offers for its install
// path. Whatever goes wrong with a patch, the file is fetched whole.
class PatchPlan
{
public:
    // Replaces the offered patches and forgets every choice. A patch is fetched beside the
    // files, into the working directory: one that would lie where a file of the list or one of
    // workingFiles does, or in their way, is not offered.
    void offer(const QList<PatchRecord> &records, const QList<FileSpecification> &files,
               const QStringList &workingFiles);
    // Chooses the patch for the file at index when installedMd5 is the base of one.
    void choose(int index, const FileSpecification &file, const QString &installedMd5);
    // True when a patch is offered for this install path, whatever its base.
    bool offersFor(const QString &installPath) const { return offered.contains(installPath); }
    // The patch chosen for the file at index, or null.
    const PatchRecord *patchFor(int index) const;
    void drop(int index) { chosen.remove(index); }

    // Makes file at its patched path below workingDirectory from the downloaded patch and the
    // installed base; true only when the result is exactly the listed file. The patch goes
    // either way, and so does a result that is not right.
    static bool make(const PatchRecord &patch, const FileSpecification &file,
                     const QString &installed, const QString &workingDirectory);
    // True when an earlier make() left the listed file at its patched path.
    static bool isMade(const FileSpecification &file, const QString &workingDirectory);

private:
    QMultiHash<QString, PatchRecord> offered;
    QHash<int, PatchRecord> chosen;
};
