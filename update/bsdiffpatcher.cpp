#include "update/bsdiffpatcher.h"

#include "update/patchstream.h"

#include <algorithm>

namespace {

constexpr int64_t outputSize = 262144;

} // namespace

int64_t decodeBsdiffNumber(const unsigned char *bytes)
{
    uint64_t magnitude = bytes[7] & 0x7f;
    for (int i = 6; i >= 0; --i)
        magnitude = magnitude << 8 | bytes[i];
    return bytes[7] & 0x80 ? -int64_t(magnitude) : int64_t(magnitude);
}

BsdiffPatcher::BsdiffPatcher(const uint8_t *base, int64_t baseSize, int64_t newSize,
                             PatchWriter write)
    : base(base)
    , baseSize(baseSize)
    , newSize(newSize)
    , write(std::move(write))
    , buffer(new char[outputSize])
{}

bool BsdiffPatcher::run(PatchStream &control, PatchStream &diff, PatchStream &extra)
{
    while (newPosition < newSize) {
        unsigned char triple[24];
        if (!control.read(reinterpret_cast<char *>(triple), sizeof triple))
            return false;
        const int64_t diffLength = decodeBsdiffNumber(triple);
        const int64_t extraLength = decodeBsdiffNumber(triple + 8);
        const int64_t seek = decodeBsdiffNumber(triple + 16);
        if (diffLength < 0 || diffLength > newSize - newPosition || !copyDiff(diff, diffLength)
            || extraLength < 0 || extraLength > newSize - newPosition
            || !copyExtra(extra, extraLength) || seek < -patchSizeLimit || seek > patchSizeLimit)
            return false;
        // A patch that bsdiff made never seeks outside the base.
        basePosition += seek;
        if (basePosition < 0 || basePosition > baseSize)
            return false;
    }
    return flush() && control.atEnd() && diff.atEnd() && extra.atEnd();
}

// New bytes are the diff bytes plus the base bytes at the same offset; past the end of the base
// nothing is added.
bool BsdiffPatcher::copyDiff(PatchStream &diff, int64_t length)
{
    while (length > 0) {
        const int64_t n = room(length);
        auto *to = reinterpret_cast<uint8_t *>(buffer.get() + filled);
        if (n < 0 || !diff.read(reinterpret_cast<char *>(to), n))
            return false;
        const int64_t overlap = std::clamp(baseSize - basePosition, int64_t(0), n);
        const uint8_t *from = base + basePosition;
        for (int64_t i = 0; i < overlap; ++i)
            to[i] += from[i];
        filled += n;
        newPosition += n;
        basePosition += n;
        length -= n;
    }
    return true;
}

bool BsdiffPatcher::copyExtra(PatchStream &extra, int64_t length)
{
    while (length > 0) {
        const int64_t n = room(length);
        if (n < 0 || !extra.read(buffer.get() + filled, n))
            return false;
        filled += n;
        newPosition += n;
        length -= n;
    }
    return true;
}

// How much of wanted fits into the output buffer, after writing it out when full; -1 when that
// failed. Patches made of many short stretches would otherwise cost a write each.
int64_t BsdiffPatcher::room(int64_t wanted)
{
    if (filled == outputSize && !flush())
        return -1;
    return std::min(wanted, outputSize - filled);
}

bool BsdiffPatcher::flush()
{
    if (filled > 0 && !write(buffer.get(), filled))
        return false;
    filled = 0;
    return true;
}
