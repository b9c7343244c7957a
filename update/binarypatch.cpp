#include "update/binarypatch.h"

#include "update/md5hash.h"
#include "update/patchapplier.h"

#include <QFile>

bool applyBinaryPatch(const QString &destination, const QString &base, const QString &patch,
                      QString *md5, qint64 expectedSize)
{
    Md5Hash hash;
    if (!applyPatch(QFile::encodeName(destination).toStdString(),
                    QFile::encodeName(base).toStdString(), QFile::encodeName(patch).toStdString(),
                    expectedSize,
                    [&hash](const char *data, int64_t length) { hash.addData(data, length); }))
        return false;
    *md5 = hash.result();
    return true;
}
