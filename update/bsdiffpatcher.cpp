#include "update/bsdiffpatcher.h"

#include "update/patchstream.h"

namespace {

constexpr qint64 outputSize = 1048576;

} // namespace

qint64 decodeBsdiffNumber(const unsigned char *bytes)
{
    quint64 magnitude = bytes[7] & 0x7f;
    for (int i = 6; i >= 0; --i)
        magnitude = magnitude << 8 | bytes[i];
    return bytes[7] & 0x80 ? -qint64(magnitude) : qint64(magnitude);
}

BsdiffPatcher::BsdiffPatcher(const uchar *base, qint64 baseSize, qint64 newSize, QFile &output)
    : base(base)
    , baseSize(baseSize)
    , newSize(newSize)
    , output(output)
    , buffer(new char[outputSize])
{}

bool BsdiffPatcher::run(PatchStream &control, PatchStream &diff, PatchStream &extra)
{
    while (newPosition < newSize) {
        unsigned char triple[24];
        if (!control.read(reinterpret_cast<char *>(triple), sizeof triple))
            return false;
        const qint64 diffLength = decodeBsdiffNumber(triple);
        const qint64 extraLength = decodeBsdiffNumber(triple + 8);
        const qint64 seek = decodeBsdiffNumber(triple + 16);
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
bool BsdiffPatcher::copyDiff(PatchStream &diff, qint64 length)
{
    while (length > 0) {
        const qint64 n = room(length);
        auto *to = reinterpret_cast<uchar *>(buffer.get() + filled);
        if (n < 0 || !diff.read(reinterpret_cast<char *>(to), n))
            return false;
        const qint64 overlap = qBound(qint64(0), baseSize - basePosition, n);
        const uchar *from = base + basePosition;
        for (qint64 i = 0; i < overlap; ++i)
            to[i] += from[i];
        filled += n;
        newPosition += n;
        basePosition += n;
        length -= n;
    }
    return true;
}

bool BsdiffPatcher::copyExtra(PatchStream &extra, qint64 length)
{
    while (length > 0) {
        const qint64 n = room(length);
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
qint64 BsdiffPatcher::room(qint64 wanted)
{
    if (filled == outputSize && !flush())
        return -1;
    return qMin(wanted, outputSize - filled);
}

bool BsdiffPatcher::flush()
{
    if (output.write(buffer.get(), filled) != filled)
        return false;
    hash.addData(buffer.get(), filled);
    filled = 0;
    return true;
}
