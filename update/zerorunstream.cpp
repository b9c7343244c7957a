#include "update/zerorunstream.h"

#include <algorithm>
#include <cstring>

bool ZeroRunStream::read(char *data, int64_t length)
{
    while (length > 0) {
        // An empty pair would never end; only a hostile stream holds one.
        if (zeros == 0 && literals == 0
            && (!takeVarint(&zeros) || !takeVarint(&literals) || (zeros == 0 && literals == 0)))
            return false;
        const bool zero = zeros > 0;
        uint64_t &run = zero ? zeros : literals;
        const int64_t n = int64_t(std::min(run, uint64_t(length)));
        if (zero)
            std::memset(data, 0, size_t(n));
        else if (!packed.read(data, n))
            return false;
        run -= uint64_t(n);
        data += n;
        length -= n;
    }
    return true;
}

bool ZeroRunStream::atEnd()
{
    return zeros == 0 && literals == 0 && packed.atEnd();
}

bool ZeroRunStream::takeVarint(uint64_t *value)
{
    *value = 0;
    for (int shift = 0; shift < 63; shift += 7) {
        char byte;
        if (!packed.read(&byte, 1))
            return false;
        *value |= uint64_t(uint8_t(byte) & 0x7f) << shift;
        if (uint8_t(byte) < 0x80)
            return true;
    }
    return false;
}
