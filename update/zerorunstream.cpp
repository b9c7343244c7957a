#include "update/zerorunstream.h"

#include <cstring>

bool ZeroRunStream::read(char *data, qint64 length)
{
    while (length > 0) {
        // An empty pair would never end; only a hostile stream holds one.
        if (zeros == 0 && literals == 0
            && (!takeVarint(&zeros) || !takeVarint(&literals) || (zeros == 0 && literals == 0)))
            return false;
        const bool zero = zeros > 0;
        quint64 &run = zero ? zeros : literals;
        const qint64 n = qint64(qMin(run, quint64(length)));
        if (zero)
            std::memset(data, 0, size_t(n));
        else if (!packed.read(data, n))
            return false;
        run -= quint64(n);
        data += n;
        length -= n;
    }
    return true;
}

bool ZeroRunStream::atEnd()
{
    return zeros == 0 && literals == 0 && packed.atEnd();
}

bool ZeroRunStream::takeVarint(quint64 *value)
{
    *value = 0;
    for (int shift = 0; shift < 63; shift += 7) {
        char byte;
        if (!packed.read(&byte, 1))
            return false;
        *value |= quint64(uchar(byte) & 0x7f) << shift;
        if (uchar(byte) < 0x80)
            return true;
    }
    return false;
}
