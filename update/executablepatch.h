#pragma once

#include "update/patchfiles.h"

#include <cstddef>

// Our patch format for ELF x86-64 files: magic and version; the log2 of the LZMA2 dictionary
// size; six varints: base size, new size, unpacked and packed size of the address map, packed
// sizes of the control and diff streams; then the map, control, diff and extra streams, each
// raw LZMA2, the diff bytes in zero runs (update/zerorunstream.h). The base's references are first
// moved under the map, then the streams apply to that projected base as bsdiff's do.
constexpr int executablePatchMagicSize = 8;
extern const char executablePatchMagic[executablePatchMagicSize + 1];
// Bounds of the dictionary, so of the applier's memory.
constexpr int executablePatchMinDictionaryBits = 12;
constexpr int executablePatchMaxDictionaryBits = 24;
// Larger maps come only from a hostile patch.
constexpr int64_t executablePatchMapLimit = int64_t(64) << 20;

bool isExecutablePatch(const char *start, size_t size);

// Applies the patch to the base with the checks of the bsdiff applier: a patch not made for a
// base of this size, or for another size than the expected one, fails before anything is written.
bool applyExecutablePatch(const PatchFiles &files);
