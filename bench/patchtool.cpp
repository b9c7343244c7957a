// The updater's binary patches from the command line, for the benchmark to time against Debian's
// bsdiff and bspatch with the same arguments:
//   patchtool diff OLD NEW PATCH     (as bsdiff OLD NEW PATCH)
//   patchtool xdiff OLD NEW PATCH    (the executable-aware format)
//   patchtool apply OLD NEW PATCH    (as bspatch OLD NEW PATCH; either format)
#include "tools/binarydiff.h"
#include "tools/executablediff.h"
#include "update/binarypatch.h"

#include <QFile>
#include <QSaveFile>
#include <QString>

#include <cstdio>
#include <cstring>

namespace {

QByteArray readWhole(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeExecutablePatch(const QString &oldPath, const QString &newPath, const QString &patchPath)
{
    const QByteArray patch = makeExecutablePatch(readWhole(oldPath), readWhole(newPath));
    QSaveFile file(patchPath);
    return !patch.isEmpty() && file.open(QIODevice::WriteOnly) && file.write(patch) == patch.size()
           && file.commit();
}

} // namespace

int main(int argc, char **argv)
{
    const QByteArray mode = argc == 5 ? argv[1] : "";
    if (mode != "diff" && mode != "xdiff" && mode != "apply") {
        std::fputs("usage: patchtool diff|xdiff|apply OLD NEW PATCH\n", stderr);
        return 2;
    }
    const QString oldPath = QString::fromLocal8Bit(argv[2]);
    const QString newPath = QString::fromLocal8Bit(argv[3]);
    const QString patchPath = QString::fromLocal8Bit(argv[4]);
    QString result;
    bool ok = false;
    if (mode == "diff")
        ok = writeBinaryPatch(oldPath, newPath, patchPath, &result);
    else if (mode == "xdiff")
        ok = writeExecutablePatch(oldPath, newPath, patchPath);
    else
        ok = applyBinaryPatch(newPath, oldPath, patchPath, &result);
    if (!ok)
        std::fprintf(stderr, "patchtool: %s failed %s\n", mode.constData(), qPrintable(result));
    return ok ? 0 : 1;
}
