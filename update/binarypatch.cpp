#include "update/binarypatch.h"

#include "update/md5hash.h"

#include <QFile>

#include <cstring>
#include <memory>

#include <bzlib.h>

namespace {

constexpr qint64 headerSize = 32;
constexpr qint64 blockSize = 262144;
constexpr qint64 outputSize = 1048576;
// Larger sizes or offsets come only from a hostile patch; below this bound sums cannot overflow.
constexpr qint64 sizeLimit = qint64(1) << 61;

// bsdiff's signed 64-bit numbers: magnitude little-endian, sign in the top bit of the last byte.
qint64 decodeNumber(const unsigned char *bytes)
{
    quint64 magnitude = bytes[7] & 0x7f;
    for (int i = 6; i >= 0; --i)
        magnitude = magnitude << 8 | bytes[i];
    return bytes[7] & 0x80 ? -qint64(magnitude) : qint64(magnitude);
}

// Reads one bzip2 block of the patch, which lies in [start, end) of the file.
class BlockReader
{
public:
    BlockReader(const QString &path, qint64 start, qint64 end)
        : file(path)
        , remaining(end - start)
        , buffer(new char[blockSize])
    {
        opened = file.open(QIODevice::ReadOnly) && file.seek(start)
                 && BZ2_bzDecompressInit(&stream, 0, 0) == BZ_OK;
    }
    ~BlockReader()
    {
        if (opened)
            BZ2_bzDecompressEnd(&stream);
    }
    BlockReader(const BlockReader &) = delete;
    BlockReader &operator=(const BlockReader &) = delete;

    // Exactly length bytes (at most blockSize) of the unpacked block, or false.
    bool read(char *data, qint64 length)
    {
        if (!opened)
            return false;
        stream.next_out = data;
        stream.avail_out = unsigned(length);
        while (stream.avail_out > 0) {
            // At the end of the block the decoder may still hold output.
            if (stream.avail_in == 0)
                refill();
            const unsigned before = stream.avail_out + stream.avail_in;
            const int result = BZ2_bzDecompress(&stream);
            if (result == BZ_STREAM_END) {
                ended = true;
                return stream.avail_out == 0;
            }
            if (result != BZ_OK || stream.avail_out + stream.avail_in == before)
                return false;
        }
        return true;
    }

    // Whether the block ends here, whole: its checksum is only checked at its end.
    bool atEnd()
    {
        char byte;
        return ended || (!read(&byte, 1) && ended);
    }

private:
    void refill()
    {
        const qint64 n = file.read(buffer.get(), qMin(blockSize, remaining));
        if (n <= 0)
            return;
        remaining -= n;
        stream.next_in = buffer.get();
        stream.avail_in = unsigned(n);
    }

    QFile file;
    qint64 remaining;
    std::unique_ptr<char[]> buffer;
    bz_stream stream = {};
    bool opened = false;
    bool ended = false;
};

class Patcher
{
public:
    Patcher(const uchar *base, qint64 baseSize, QFile &output)
        : base(base)
        , baseSize(baseSize)
        , output(output)
        , buffer(new char[outputSize])
    {}

    bool run(const QString &patch, qint64 patchSize, const unsigned char *header)
    {
        const qint64 controlSize = decodeNumber(header + 8);
        const qint64 diffSize = decodeNumber(header + 16);
        newSize = decodeNumber(header + 24);
        if (controlSize < 0 || diffSize < 0 || newSize < 0 || newSize >= sizeLimit
            || controlSize > patchSize - headerSize
            || diffSize > patchSize - headerSize - controlSize)
            return false;
        const qint64 diffStart = headerSize + controlSize;
        BlockReader control(patch, headerSize, diffStart);
        BlockReader diff(patch, diffStart, diffStart + diffSize);
        BlockReader extra(patch, diffStart + diffSize, patchSize);
        while (newPosition < newSize) {
            unsigned char triple[24];
            if (!control.read(reinterpret_cast<char *>(triple), sizeof triple))
                return false;
            const qint64 diffLength = decodeNumber(triple);
            const qint64 extraLength = decodeNumber(triple + 8);
            const qint64 seek = decodeNumber(triple + 16);
            if (diffLength < 0 || diffLength > newSize - newPosition || !copyDiff(diff, diffLength)
                || extraLength < 0 || extraLength > newSize - newPosition
                || !copyExtra(extra, extraLength) || seek < -sizeLimit || seek > sizeLimit)
                return false;
            // A patch that bsdiff made never seeks outside the base.
            basePosition += seek;
            if (basePosition < 0 || basePosition > baseSize)
                return false;
        }
        return flush() && control.atEnd() && diff.atEnd() && extra.atEnd();
    }

    QString md5() const { return hash.result(); }

private:
    // New bytes are the diff bytes plus the base bytes at the same offset; past the end of the
    // base nothing is added.
    bool copyDiff(BlockReader &diff, qint64 length)
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

    bool copyExtra(BlockReader &extra, qint64 length)
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

    // How much of wanted fits into the output buffer, after writing it out when full; -1 when
    // that failed. Patches made of many short stretches would otherwise cost a write each.
    qint64 room(qint64 wanted)
    {
        if (filled == outputSize && !flush())
            return -1;
        return qMin(wanted, outputSize - filled);
    }

    bool flush()
    {
        if (output.write(buffer.get(), filled) != filled)
            return false;
        hash.addData(buffer.get(), filled);
        filled = 0;
        return true;
    }

    const uchar *base;
    qint64 baseSize;
    QFile &output;
    std::unique_ptr<char[]> buffer;
    qint64 filled = 0;
    Md5Hash hash;
    qint64 newSize = 0;
    qint64 newPosition = 0;
    qint64 basePosition = 0;
};

bool patch(QFile &output, const QString &basePath, const QString &patchPath, QString *md5,
           qint64 expectedSize)
{
    QFile base(basePath);
    QFile patch(patchPath);
    if (!base.open(QIODevice::ReadOnly) || !patch.open(QIODevice::ReadOnly))
        return false;
    unsigned char header[headerSize];
    if (patch.read(reinterpret_cast<char *>(header), headerSize) != headerSize
        || memcmp(header, "BSDIFF40", 8) != 0
        || (expectedSize >= 0 && decodeNumber(header + 24) != expectedSize))
        return false;
    const qint64 baseSize = base.size();
    const uchar *mapped = baseSize > 0 ? base.map(0, baseSize) : nullptr;
    if (baseSize >= sizeLimit || (baseSize > 0 && !mapped))
        return false;
    Patcher patcher(mapped, baseSize, output);
    if (!patcher.run(patchPath, patch.size(), header))
        return false;
    *md5 = patcher.md5();
    return true;
}

} // namespace

bool applyBinaryPatch(const QString &destination, const QString &base, const QString &patchPath,
                      QString *md5, qint64 expectedSize)
{
    QFile output(destination);
    if (!output.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered))
        return false;
    QString result;
    if (!patch(output, base, patchPath, &result, expectedSize)) {
        output.close();
        output.remove();
        return false;
    }
    output.close();
    if (output.error() != QFileDevice::NoError) {
        output.remove();
        return false;
    }
    *md5 = result;
    return true;
}
