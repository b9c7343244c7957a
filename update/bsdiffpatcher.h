#pragma once

#include "update/patchfiles.h"

#include <memory>

class PatchStream;

// Rebuilds a file from a base and bsdiff's three streams (control triples, diff bytes, extra
// bytes), checking every control value against the bounds, handing the result to the writer
// through a fixed buffer. The output never grows past newSize.
class BsdiffPatcher
{
public:
    BsdiffPatcher(const uint8_t *base, int64_t baseSize, int64_t newSize, PatchWriter write);

    bool run(PatchStream &control, PatchStream &diff, PatchStream &extra);

private:
    bool copyDiff(PatchStream &diff, int64_t length);
    bool copyExtra(PatchStream &extra, int64_t length);
    int64_t room(int64_t wanted);
    bool flush();

    const uint8_t *base;
    int64_t baseSize;
    int64_t newSize;
    PatchWriter write;
    std::unique_ptr<char[]> buffer;
    int64_t filled = 0;
    int64_t newPosition = 0;
    int64_t basePosition = 0;
};

// bsdiff's signed 64-bit numbers: magnitude little-endian, sign in the top bit of the last byte.
int64_t decodeBsdiffNumber(const unsigned char *bytes);

// Larger sizes or offsets come only from a hostile patch; below this bound sums cannot overflow.
constexpr int64_t patchSizeLimit = int64_t(1) << 61;
