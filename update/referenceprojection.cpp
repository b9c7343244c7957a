#include "update/referenceprojection.h"

#include "update/addressmap.h"
#include "update/elfimage.h"

#include <Zydis/Decoder.h>

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

private:
    // A rel32 operand at offset whose instruction ends at address end.
    void moveRelative(qint64 offset, quint64 end);
    void moveAddress(uchar *at);

    uchar *data;
    qint64 size;
    const ElfImage &elf;
    const AddressMap &map;
};

void Projector::sweep(const ElfImage::Range &code)
{
    ZydisDecoder decoder;
    ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
    ZydisDecodedInstruction instruction;
    for (qint64 at = 0; at < code.size;) {
        const qint64 offset = code.offset + at;
        // Bytes that do not decode (data in code, padding) are stepped over one at a time.
        if (!ZYAN_SUCCESS(ZydisDecoderDecodeInstruction(&decoder, nullptr, data + offset,
                                                        ZyanUSize(code.size - at), &instruction))) {
            ++at;
            continue;
        }
        const quint64 end = code.address + quint64(at) + instruction.length;
        const auto &raw = instruction.raw;
        if (raw.imm[0].is_relative && raw.imm[0].size == 32)
            moveRelative(offset + raw.imm[0].offset, end);
        else if ((instruction.attributes & ZYDIS_ATTRIB_HAS_MODRM) && raw.modrm.mod == 0
                 && raw.modrm.rm == 5 && raw.disp.size == 32)
            moveRelative(offset + raw.disp.offset, end);
        at += instruction.length;
    }
}

void Projector::moveRelative(qint64 offset, quint64 end)
{
    const auto value = readAt<qint32>(data + offset);
    qint64 from, to;
    if (!map.displacementOf(end, &from) || !map.displacementOf(end + quint64(qint64(value)), &to))
        return;
    const qint64 moved = qint64(value) + to - from;
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

} // namespace

void projectReferences(uchar *data, qint64 size, const ElfImage &elf, const AddressMap &map)
{
    Projector projector(data, size, elf, map);
    for (const ElfImage::Range &code : elf.code())
        projector.sweep(code);
    for (const ElfImage::Range &table : elf.relocationTables())
        projector.relocate(table);
}
