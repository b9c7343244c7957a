#include "update/executablepatch.h"

#include "update/addressmap.h"
#include "update/bsdiffpatcher.h"
#include "update/elfimage.h"
#include "update/lzmastream.h"
#include "update/patchstream.h"
#include "update/referenceprojection.h"
#include "update/varint.h"
#include "update/zerorunstream.h"

#include <cstring>

const char executablePatchMagic[executablePatchMagicSize + 1] = "ORLXDIF\x01";

namespace {

enum Field { BaseSize, NewSize, MapSize, MapPacked, ControlPacked, DiffPacked, FieldCount };

struct Header
{
    uint32_t dictionary = 0;
    int64_t field[FieldCount] = {};
    int64_t end = 0;
};

bool readHeader(int patch, Header *header)
{
    const std::string bytes =
            readPatchBytes(patch, 0, executablePatchMagicSize + 1 + FieldCount * 10);
    if (bytes.size() <= executablePatchMagicSize
        || bytes.compare(0, executablePatchMagicSize, executablePatchMagic) != 0)
        return false;
    const int bits = bytes[executablePatchMagicSize];
    if (bits < executablePatchMinDictionaryBits || bits > executablePatchMaxDictionaryBits)
        return false;
    header->dictionary = uint32_t(1) << bits;
    size_t at = executablePatchMagicSize + 1;
    for (int64_t &value : header->field) {
        uint64_t number;
        if (!takeVarint(bytes, &at, &number) || number >= uint64_t(patchSizeLimit))
            return false;
        value = int64_t(number);
    }
    header->end = int64_t(at);
    return true;
}

// The map's stream lies in [header.end, end) of the patch.
bool readMap(int patch, const Header &header, int64_t end, AddressMap *map)
{
    LzmaStream stream(patch, header.end, end, header.dictionary);
    std::string bytes(size_t(header.field[MapSize]), '\0');
    return stream.read(bytes.data(), int64_t(bytes.size())) && stream.atEnd() && map->decode(bytes);
}

} // namespace

bool isExecutablePatch(const char *start, size_t size)
{
    // Every version shares the first bytes, so that an unknown version is refused, not taken
    // for bsdiff's.
    return size >= executablePatchMagicSize - 1
           && std::memcmp(start, executablePatchMagic, executablePatchMagicSize - 1) == 0;
}

bool applyExecutablePatch(const PatchFiles &files)
{
    Header header;
    if (!readHeader(files.patch, &header))
        return false;
    const int64_t *field = header.field;
    const int64_t baseSize = field[BaseSize];
    const int64_t controlStart = header.end + field[MapPacked];
    const int64_t diffStart = controlStart + field[ControlPacked];
    const int64_t extraStart = diffStart + field[DiffPacked];
    if (baseSize != files.baseSize
        || (files.expectedSize >= 0 && field[NewSize] != files.expectedSize)
        || field[MapSize] > executablePatchMapLimit || extraStart > files.patchSize)
        return false;

    AddressMap map;
    ElfImage elf;
    if (!readMap(files.patch, header, controlStart, &map) || !files.base
        || !elf.parse(files.base, baseSize))
        return false;
    // The projection writes to the base's pages, which are this process's own.
    projectReferences(files.base, baseSize, elf, map);
    LzmaStream control(files.patch, controlStart, diffStart, header.dictionary);
    LzmaStream packedDiff(files.patch, diffStart, extraStart, header.dictionary);
    ZeroRunStream diff(packedDiff);
    LzmaStream extra(files.patch, extraStart, files.patchSize, header.dictionary);
    return BsdiffPatcher(files.base, baseSize, field[NewSize], files.write)
            .run(control, diff, extra);
}
