// The updater's binary patches from the command line, for the benchmark to time against Debian's
// bsdiff and bspatch with the same arguments:
//   patchtool diff OLD NEW PATCH     (as bsdiff OLD NEW PATCH)
//   patchtool apply OLD NEW PATCH    (as bspatch OLD NEW PATCH)
#include "tools/binarydiff.h"
#include "update/binarypatch.h"

#include <QString>

#include <cstdio>
#include <cstring>

int main(int argc, char **argv)
{
    if (argc != 5 || (std::strcmp(argv[1], "diff") != 0 && std::strcmp(argv[1], "apply") != 0)) {
        std::fputs("usage: patchtool diff|apply OLD NEW PATCH\n", stderr);
        return 2;
    }
    const QString oldPath = QString::fromLocal8Bit(argv[2]);
    const QString newPath = QString::fromLocal8Bit(argv[3]);
    const QString patchPath = QString::fromLocal8Bit(argv[4]);
    QString result;
    const bool ok = std::strcmp(argv[1], "diff") == 0
                            ? writeBinaryPatch(oldPath, newPath, patchPath, &result)
                            : applyBinaryPatch(newPath, oldPath, patchPath, &result);
    if (!ok)
        std::fprintf(stderr, "patchtool: %s failed %s\n", argv[1], qPrintable(result));
    return ok ? 0 : 1;
}
