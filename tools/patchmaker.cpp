#include "tools/patchmaker.h"

#include "tools/binarydiff.h"

QByteArray makePatch(const QByteArray &base, const QByteArray &target)
{
    QString error;
    return makeBinaryPatch(base, target, &error);
}
