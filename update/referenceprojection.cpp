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
T readAt(const uint8_t *data)
{
    T value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

template<typename T>
void writeAt(uint8_t *data, T value)
{
    std::memcpy(data, &value, sizeof value);
}

class Projector
{
public:
    Projector(uint8_t *data, int64_t size, const ElfImage &elf, const AddressMap &map)
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
    void moveRelative(int64_t offset, uint64_t from);
    void moveAddress(uint8_t *at);

    uint8_t *data;
    int64_t size;
    const ElfImage &elf;
    const AddressMap &map;
    InstructionScanner scanner;
};

void Projector::sweep(const ElfImage::Range &code)
{
    InstructionScanner::Instruction instruction;
    for (int64_t at = 0; at < code.size;) {
        const int64_t offset = code.offset + at;
        // Bytes that do not decode (data in code, padding) are stepped over one at a time.
        if (!scanner.decode(data + offset, code.size - at, &instruction)) {
            ++at;
            continue;
        }
        if (instruction.relative >= 0)
            moveRelative(offset + instruction.relative,
                         code.address + uint64_t(at) + uint64_t(instruction.length));
        at += instruction.length;
    }
}

void Projector::moveRelative(int64_t offset, uint64_t from)
{
    const auto value = readAt<int32_t>(data + offset);
    int64_t start, end;
    if (!map.displacementOf(from, &start)
        || !map.displacementOf(from + uint64_t(int64_t(value)), &end))
        return;
    const int64_t moved = int64_t(value) + end - start;
    if (moved >= std::numeric_limits<int32_t>::min()
        && moved <= std::numeric_limits<int32_t>::max())
        writeAt(data + offset, int32_t(moved));
}

void Projector::moveAddress(uint8_t *at)
{
    const auto address = readAt<uint64_t>(at);
    int64_t displacement;
    if (address != 0 && map.displacementOf(address, &displacement))
        writeAt(at, address + uint64_t(displacement));
}

void Projector::relocate(const ElfImage::Range &table)
{
    for (int64_t at = table.offset; at < table.offset + table.size; at += sizeof(Elf64_Rela)) {
        const auto relocation = readAt<Elf64_Rela>(data + at);
        const int64_t place = elf.offsetOf(relocation.r_offset);
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
    for (int64_t at = table.offset; at < table.offset + table.size; at += sizeof(Elf64_Sym))
        moveAddress(data + at + offsetof(Elf64_Sym, st_value));
}

// The start address of each function's unwind entry, relative to where it is stored; what the
// other fields hold follows from the entry's CIE, which is not read: a field that is no such
// address rarely lands in the map, and the projection only has to be repeatable.
void Projector::moveFrames(const ElfImage::Range &frames)
{
    for (int64_t at = 0; frames.size - at >= 12;) {
        const auto length = readAt<uint32_t>(data + frames.offset + at);
        // A zero length ends the table; 64-bit lengths do not occur on x86-64 in practice.
        if (length == 0 || length == 0xffffffff || length > uint64_t(frames.size - at - 4))
            return;
        if (length >= 8 && readAt<uint32_t>(data + frames.offset + at + 4) != 0)
            moveRelative(frames.offset + at + 8, frames.address + uint64_t(at) + 8);
        at += 4 + int64_t(length);
    }
}

// The sorted index of unwind entries: start addresses and entry addresses relative to the
// index's own start, in the encoding that linkers write.
void Projector::moveFrameIndex(const ElfImage::Range &index)
{
    const uint8_t *header = data + index.offset;
    constexpr uint8_t relativeToField = 0x1b, unsigned4 = 0x03, relativeToIndex = 0x3b;
    if (index.size < 12 || header[0] != 1 || header[1] != relativeToField || header[2] != unsigned4
        || header[3] != relativeToIndex)
        return;
    moveRelative(index.offset + 4, index.address + 4);
    const uint64_t count =
            std::min(uint64_t(readAt<uint32_t>(header + 8)), uint64_t(index.size - 12) / 8);
    for (uint64_t i = 0; i < 2 * count; ++i)
        moveRelative(index.offset + 12 + int64_t(4 * i), index.address);
}

} // namespace

void projectReferences(uint8_t *data, int64_t size, const ElfImage &elf, const AddressMap &map)
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
