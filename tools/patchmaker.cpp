#include "tools/patchmaker.h"

#include "tools/binarydiff.h"
#include "tools/executablediff.h"

QByteArray makePatch(const QByteArray &base, const QByteArray &target)
{
    QString error;
    const QByteArray bsdiff = makeBinaryPatch(base, target, &error);
    // Empty unless both are ELF x86-64; the updater tells the formats apart by their magic.
    const QByteArray executable = makeExecutablePatch(base, target);
    if (!executable.isEmpty() && (bsdiff.isEmpty() || executable.size() < bsdiff.size()))
        return executable;
    return bsdiff;
}
