#include "update/referenceprojection.h"

#include "update/addressmap.h"
#include "update/elfimage.h"
#include "update/instructionscanner.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include <elf.h>

namespace {

template<typename T>
T readAt(const uchar *data)
{
    T value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

template<typename T>
void writeAt(uchar *data, T value)
{
    std::memcpy(data, &value, sizeof value);
}

class Projector
{
public:
    Projector(uchar *data, qint64 size, const ElfImage &elf, const AddressMap &map)
        : data(data)
        , size(size)
        , elf(elf)
        , map(map)
    {}

    void sweep(const ElfImage::Range &code);
    void relocate(const ElfImage::Range &table);
    void moveSymbols(const ElfImage::Range &table);
    void moveFrames(const ElfImage::Range &frames);
    void moveFrameIndex(const ElfImage::Range &index);

private:
    // A signed 32-bit offset at offset from address from (for rel32 operands: the end of their
    // instruction).
    void moveRelative(qint64 offset, quint64 from);
    void moveAddress(uchar *at);

    uchar *data;
    qint64 size;
    const ElfImage &elf;
    const AddressMap &map;
    InstructionScanner scanner;
};

void Projector::sweep(const ElfImage::Range &code)
{
    InstructionScanner::Instruction instruction;
    for (qint64 at = 0; at < code.size;) {
        const qint64 offset = code.offset + at;
        // Bytes that do not decode (data in code, padding) are stepped over one at a time.
        if (!scanner.decode(data + offset, code.size - at, &instruction)) {
            ++at;
            continue;
        }
        if (instruction.relative >= 0)
            moveRelative(offset + instruction.relative,
                         code.address + quint64(at) + quint64(instruction.length));
        at += instruction.length;
    }
}

void Projector::moveRelative(qint64 offset, quint64 from)
{
    const auto value = readAt<qint32>(data + offset);
    qint64 start, end;
    if (!map.displacementOf(from, &start)
        || !map.displacementOf(from + quint64(qint64(value)), &end))
        return;
    const qint64 moved = qint64(value) + end - start;
    if (moved >= std::numeric_limits<qint32>::min() && moved <= std::numeric_limits<qint32>::max())
        writeAt(data + offset, qint32(moved));
}

void Projector::moveAddress(uchar *at)
{
    const auto address = readAt<quint64>(at);
    qint64 displacement;
    if (address != 0 && map.displacementOf(address, &displacement))
        writeAt(at, address + quint64(displacement));
}

void Projector::relocate(const ElfImage::Range &table)
{
    for (qint64 at = table.offset; at < table.offset + table.size; at += sizeof(Elf64_Rela)) {
        const auto relocation = readAt<Elf64_Rela>(data + at);
        const qint64 place = elf.offsetOf(relocation.r_offset);
        if (place >= 0 && place <= size - 8)
            moveAddress(data + place);
        moveAddress(data + at + offsetof(Elf64_Rela, r_offset));
        const auto type = ELF64_R_TYPE(relocation.r_info);
        if (type == R_X86_64_RELATIVE || type == R_X86_64_IRELATIVE)
            moveAddress(data + at + offsetof(Elf64_Rela, r_addend));
    }
}

void Projector::moveSymbols(const ElfImage::Range &table)
{
    for (qint64 at = table.offset; at < table.offset + table.size; at += sizeof(Elf64_Sym))
        moveAddress(data + at + offsetof(Elf64_Sym, st_value));
}

// The start address of each function's unwind entry, relative to where it is stored; what the
// other fields hold follows from the entry's CIE, which is not read: a field that is no such
// address rarely lands in the map, and the projection only has to be repeatable.
void Projector::moveFrames(const ElfImage::Range &frames)
{
    for (qint64 at = 0; frames.size - at >= 12;) {
        const auto length = readAt<quint32>(data + frames.offset + at);
        // A zero length ends the table; 64-bit lengths do not occur on x86-64 in practice.
        if (length == 0 || length == 0xffffffff || length > quint64(frames.size - at - 4))
            return;
        if (length >= 8 && readAt<quint32>(data + frames.offset + at + 4) != 0)
            moveRelative(frames.offset + at + 8, frames.address + quint64(at) + 8);
        at += 4 + qint64(length);
    }
}

// The sorted index of unwind entries: start addresses and entry addresses relative to the
// index's own start, in the encoding that linkers write.
void Projector::moveFrameIndex(const ElfImage::Range &index)
{
    const uchar *header = data + index.offset;
    constexpr uchar relativeToField = 0x1b, unsigned4 = 0x03, relativeToIndex = 0x3b;
    if (index.size < 12 || header[0] != 1 || header[1] != relativeToField || header[2] != unsigned4
        || header[3] != relativeToIndex)
        return;
    moveRelative(index.offset + 4, index.address + 4);
    const quint64 count = qMin(quint64(readAt<quint32>(header + 8)), quint64(index.size - 12) / 8);
    for (quint64 i = 0; i < 2 * count; ++i)
        moveRelative(index.offset + 12 + qint64(4 * i), index.address);
}

} // namespace

void projectReferences(uchar *data, qint64 size, const ElfImage &elf, const AddressMap &map)
{
    // Nothing moved, nothing to rewrite: files that barely changed skip the sweep.
    if (std::all_of(map.regions().begin(), map.regions().end(),
                    [](const AddressMap::Region &region) { return region.displacement == 0; }))
        return;
    Projector projector(data, size, elf, map);
    for (const ElfImage::Range &code : elf.code())
        projector.sweep(code);
    for (const ElfImage::Range &table : elf.relocationTables())
        projector.relocate(table);
    for (const ElfImage::Range &table : elf.symbolTables())
        projector.moveSymbols(table);
    projector.moveFrames(elf.frames());
    projector.moveFrameIndex(elf.frameIndex());
}
