// The publisher's binary patches from the command line, for the benchmark to time against Debian's
// bsdiff with the same arguments (patchapply applies them):
//   patchtool diff OLD NEW PATCH     (as bsdiff OLD NEW PATCH)
//   patchtool xdiff OLD NEW PATCH    (the executable-aware format)
#include "tools/binarydiff.h"
#include "tools/executablediff.h"

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
    if (mode != "diff" && mode != "xdiff") {
        std::fputs("usage: patchtool diff|xdiff OLD NEW PATCH\n", stderr);
        return 2;
    }
    const QString oldPath = QString::fromLocal8Bit(argv[2]);
    const QString newPath = QString::fromLocal8Bit(argv[3]);
    const QString patchPath = QString::fromLocal8Bit(argv[4]);
    QString result;
    bool ok = false;
    if (mode == "diff")
        ok = writeBinaryPatch(oldPath, newPath, patchPath, &result);
    else
        ok = writeExecutablePatch(oldPath, newPath, patchPath);
    if (!ok)
        std::fprintf(stderr, "patchtool: %s failed %s\n", mode.constData(), qPrintable(result));
    return ok ? 0 : 1;
}
