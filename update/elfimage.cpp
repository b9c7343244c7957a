#include "update/elfimage.h"

#include <cstring>

#include <elf.h>

namespace {

template<typename T>
T readAt(const uint8_t *data, int64_t offset)
{
    T value;
    std::memcpy(&value, data + offset, sizeof value);
    return value;
}

// Whether [offset, offset + length) lies inside a file of size bytes, without overflow.
bool inside(uint64_t offset, uint64_t length, int64_t size)
{
    return offset <= uint64_t(size) && length <= uint64_t(size) - offset;
}

} // namespace

bool ElfImage::parse(const uint8_t *data, int64_t size)
{
    loaded.clear();
    executable.clear();
    relocations.clear();
    symbols.clear();
    frameRange = frameIndexRange = {};
    if (size < int64_t(sizeof(Elf64_Ehdr)))
        return false;
    const auto header = readAt<Elf64_Ehdr>(data, 0);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64
        || header.e_ident[EI_DATA] != ELFDATA2LSB || header.e_machine != EM_X86_64)
        return false;
    return parseSegments(data, size, int64_t(header.e_phoff), header.e_phnum, header.e_phentsize)
           && parseSections(data, size, int64_t(header.e_shoff), header.e_shnum, header.e_shentsize,
                            header.e_shstrndx);
}

bool ElfImage::parseSegments(const uint8_t *data, int64_t size, int64_t table, int count,
                             int entrySize)
{
    if (entrySize != sizeof(Elf64_Phdr) || table < 0
        || !inside(uint64_t(table), uint64_t(count) * sizeof(Elf64_Phdr), size))
        return false;
    for (int i = 0; i < count; ++i) {
        const auto segment = readAt<Elf64_Phdr>(data, table + i * int64_t(sizeof(Elf64_Phdr)));
        if (segment.p_type != PT_LOAD)
            continue;
        if (!inside(segment.p_offset, segment.p_filesz, size) || segment.p_memsz < segment.p_filesz
            || segment.p_vaddr + segment.p_memsz < segment.p_vaddr)
            return false;
        loaded.push_back({{int64_t(segment.p_offset), int64_t(segment.p_filesz), segment.p_vaddr},
                          segment.p_memsz});
    }
    return !loaded.empty();
}

bool ElfImage::parseSections(const uint8_t *data, int64_t size, int64_t table, int count,
                             int entrySize, int names)
{
    if (count == 0)
        return true;
    if (entrySize != sizeof(Elf64_Shdr) || table < 0
        || !inside(uint64_t(table), uint64_t(count) * sizeof(Elf64_Shdr), size))
        return false;
    const auto sectionAt = [&](int i) {
        return readAt<Elf64_Shdr>(data, table + i * int64_t(sizeof(Elf64_Shdr)));
    };
    const Elf64_Shdr nameTable = names < count ? sectionAt(names) : Elf64_Shdr{};
    if (!inside(nameTable.sh_offset, nameTable.sh_size, size))
        return false;
    // A name that does not end inside the name table is no name.
    const auto isNamed = [&](const Elf64_Shdr &section, const char *name) {
        const size_t length = std::strlen(name) + 1;
        return section.sh_name < nameTable.sh_size && nameTable.sh_size - section.sh_name >= length
               && std::memcmp(data + nameTable.sh_offset + section.sh_name, name, length) == 0;
    };
    for (int i = 0; i < count; ++i) {
        const auto section = sectionAt(i);
        if (section.sh_type == SHT_NOBITS || section.sh_type == SHT_NULL)
            continue;
        if (!inside(section.sh_offset, section.sh_size, size))
            return false;
        const Range range{int64_t(section.sh_offset), int64_t(section.sh_size), section.sh_addr};
        // Tables keep only their whole entries.
        const Range entries{range.offset, range.size / 24 * 24, range.address};
        if (section.sh_type == SHT_PROGBITS && (section.sh_flags & SHF_EXECINSTR))
            executable.push_back(range);
        else if (section.sh_type == SHT_RELA && section.sh_entsize == sizeof(Elf64_Rela))
            relocations.push_back(entries);
        else if ((section.sh_type == SHT_SYMTAB || section.sh_type == SHT_DYNSYM)
                 && section.sh_entsize == sizeof(Elf64_Sym))
            symbols.push_back(entries);
        else if (isNamed(section, ".eh_frame"))
            frameRange = range;
        else if (isNamed(section, ".eh_frame_hdr"))
            frameIndexRange = range;
    }
    return true;
}

int64_t ElfImage::offsetOf(uint64_t address) const
{
    for (const Segment &segment : loaded) {
        if (address >= segment.address && address - segment.address < uint64_t(segment.size))
            return segment.offset + int64_t(address - segment.address);
    }
    return -1;
}
