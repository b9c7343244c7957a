#include "update/executablepatch.h"

#include "update/addressmap.h"
#include "update/bsdiffpatcher.h"
#include "update/elfimage.h"
#include "update/lzmastream.h"
#include "update/referenceprojection.h"
#include "update/varint.h"
#include "update/zerorunstream.h"

#include <QFile>

const char executablePatchMagic[executablePatchMagicSize + 1] = "ORLXDIF\x01";

namespace {

enum Field { BaseSize, NewSize, MapSize, MapPacked, ControlPacked, DiffPacked, FieldCount };

struct Header
{
    quint32 dictionary = 0;
    qint64 field[FieldCount] = {};
    qint64 end = 0;
};

bool readHeader(QFile &patch, Header *header)
{
    const QByteArray bytes = patch.read(executablePatchMagicSize + 1 + FieldCount * 10);
    if (!bytes.startsWith(QByteArray(executablePatchMagic, executablePatchMagicSize))
        || bytes.size() <= executablePatchMagicSize)
        return false;
    const int bits = bytes.at(executablePatchMagicSize);
    if (bits < executablePatchMinDictionaryBits || bits > executablePatchMaxDictionaryBits)
        return false;
    header->dictionary = quint32(1) << bits;
    qsizetype at = executablePatchMagicSize + 1;
    for (qint64 &value : header->field) {
        quint64 number;
        if (!takeVarint(bytes, &at, &number) || number >= quint64(patchSizeLimit))
            return false;
        value = qint64(number);
    }
    header->end = at;
    return true;
}

} // namespace

bool isExecutablePatch(const QByteArray &start)
{
    // Every version shares the first bytes, so that an unknown version is refused, not taken
    // for bsdiff's.
    return start.startsWith(QByteArray(executablePatchMagic, executablePatchMagicSize - 1));
}

bool applyExecutablePatch(QFile &output, QFile &base, QFile &patch, QString *md5,
                          qint64 expectedSize)
{
    Header header;
    if (!readHeader(patch, &header))
        return false;
    const qint64 *field = header.field;
    const qint64 baseSize = field[BaseSize];
    const qint64 controlStart = header.end + field[MapPacked];
    const qint64 diffStart = controlStart + field[ControlPacked];
    const qint64 extraStart = diffStart + field[DiffPacked];
    if (baseSize != base.size() || (expectedSize >= 0 && field[NewSize] != expectedSize)
        || field[MapSize] > executablePatchMapLimit || extraStart > patch.size())
        return false;

    const QString path = patch.fileName();
    LzmaStream mapStream(path, header.end, controlStart, header.dictionary);
    QByteArray mapBytes(field[MapSize], Qt::Uninitialized);
    AddressMap map;
    ElfImage elf;
    // A private mapping: the projection writes to the base's pages, never to the file.
    uchar *image = baseSize > 0 ? base.map(0, baseSize, QFileDevice::MapPrivateOption) : nullptr;
    if (!mapStream.read(mapBytes.data(), mapBytes.size()) || !mapStream.atEnd()
        || !map.decode(mapBytes) || !image || !elf.parse(image, baseSize))
        return false;
    projectReferences(image, baseSize, elf, map);
    LzmaStream control(path, controlStart, diffStart, header.dictionary);
    LzmaStream packedDiff(path, diffStart, extraStart, header.dictionary);
    ZeroRunStream diff(packedDiff);
    LzmaStream extra(path, extraStart, patch.size(), header.dictionary);
    BsdiffPatcher patcher(image, baseSize, field[NewSize], output);
    if (!patcher.run(control, diff, extra))
        return false;
    *md5 = patcher.md5();
    return true;
}
