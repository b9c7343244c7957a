#include "tools/patchmaker.h"

#include "tools/binarydiff.h"
#include "tools/executablediff.h"

#include <utility>

QByteArray makePatch(const QByteArray &base, const QByteArray &target)
{
    // One matching serves both formats: the executable-aware one starts from bsdiff's.
    BinaryDiff plain;
    QString error;
    if (!diffBinary(base, target, &plain, &error))
        return {};
    const QByteArray bsdiff = encodeBinaryPatch(plain, target.size(), &error);
    // Empty unless both are ELF x86-64; the updater tells the formats apart by their magic.
    const QByteArray executable = makeExecutablePatch(base, target, std::move(plain));
    if (!executable.isEmpty() && (bsdiff.isEmpty() || executable.size() < bsdiff.size()))
        return executable;
    return bsdiff;
}
