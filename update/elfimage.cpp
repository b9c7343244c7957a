#include "update/elfimage.h"

#include <cstring>

#include <elf.h>

namespace {

template<typename T>
T readAt(const uchar *data, qint64 offset)
{
    T value;
    std::memcpy(&value, data + offset, sizeof value);
    return value;
}

// Whether [offset, offset + length) lies inside a file of size bytes, without overflow.
bool inside(quint64 offset, quint64 length, qint64 size)
{
    return offset <= quint64(size) && length <= quint64(size) - offset;
}

} // namespace

bool ElfImage::parse(const uchar *data, qint64 size)
{
    loaded.clear();
    executable.clear();
    relocations.clear();
    symbols.clear();
    frameRange = frameIndexRange = {};
    if (size < qint64(sizeof(Elf64_Ehdr)))
        return false;
    const auto header = readAt<Elf64_Ehdr>(data, 0);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64
        || header.e_ident[EI_DATA] != ELFDATA2LSB || header.e_machine != EM_X86_64)
        return false;
    return parseSegments(data, size, qint64(header.e_phoff), header.e_phnum, header.e_phentsize)
           && parseSections(data, size, qint64(header.e_shoff), header.e_shnum, header.e_shentsize,
                            header.e_shstrndx);
}

bool ElfImage::parseSegments(const uchar *data, qint64 size, qint64 table, int count, int entrySize)
{
    if (entrySize != sizeof(Elf64_Phdr) || table < 0
        || !inside(quint64(table), quint64(count) * sizeof(Elf64_Phdr), size))
        return false;
    for (int i = 0; i < count; ++i) {
        const auto segment = readAt<Elf64_Phdr>(data, table + i * qint64(sizeof(Elf64_Phdr)));
        if (segment.p_type != PT_LOAD)
            continue;
        if (!inside(segment.p_offset, segment.p_filesz, size) || segment.p_memsz < segment.p_filesz
            || segment.p_vaddr + segment.p_memsz < segment.p_vaddr)
            return false;
        loaded.push_back({{qint64(segment.p_offset), qint64(segment.p_filesz), segment.p_vaddr},
                          segment.p_memsz});
    }
    return !loaded.empty();
}

bool ElfImage::parseSections(const uchar *data, qint64 size, qint64 table, int count, int entrySize,
                             int names)
{
    if (count == 0)
        return true;
    if (entrySize != sizeof(Elf64_Shdr) || table < 0
        || !inside(quint64(table), quint64(count) * sizeof(Elf64_Shdr), size))
        return false;
    const auto sectionAt = [&](int i) {
        return readAt<Elf64_Shdr>(data, table + i * qint64(sizeof(Elf64_Shdr)));
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
        const Range range{qint64(section.sh_offset), qint64(section.sh_size), section.sh_addr};
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

qint64 ElfImage::offsetOf(quint64 address) const
{
    for (const Segment &segment : loaded) {
        if (address >= segment.address && address - segment.address < quint64(segment.size))
            return segment.offset + qint64(address - segment.address);
    }
    return -1;
}
