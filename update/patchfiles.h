#pragma once

#include <cstdint>
#include <functional>

// Takes the result in order, a block at a time; false stops the patch.
using PatchWriter = std::function<bool(const char *data, int64_t length)>;

// What applying one patch works on.
struct PatchFiles
{
    int patch;
    int64_t patchSize;
    // Mapped privately: writes change this process's copy only. Null when the base is empty.
    uint8_t *base;
    int64_t baseSize;
    // Not negative: the only output length the patch may declare.
    int64_t expectedSize;
    PatchWriter write;
};
