#pragma once

#include <cstdint>

class AddressMap;
class ElfImage;

// Rewrites, in place, every reference of an ELF x86-64 file whose place and target both move
// under map, to the value it takes where the map puts them: rel32 operands of branches and
// RIP-relative instructions found by a linear sweep of the executable sections, and the
// addresses that RELA relocations name (their places, their addends, the pointers they patch),
// symbol values, and the function addresses of the unwind tables.
// Both the differ and the applier run this on the base, so it must stay deterministic: the same
// bytes and map give the same result, whatever the data.
void projectReferences(uint8_t *data, int64_t size, const ElfImage &elf, const AddressMap &map);
