#include "update/binarypatch.h"

#include "update/bsdiffpatcher.h"
#include "update/executablepatch.h"
#include "update/patchstream.h"

#include <QFile>

#include <cstring>
#include <memory>

#include <bzlib.h>

namespace {

constexpr qint64 headerSize = 32;
constexpr qint64 blockSize = 262144;

// Reads one bzip2 block of the patch, which lies in [start, end) of the file.
class BlockReader : public PatchStream
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
    ~BlockReader() override
    {
        if (opened)
            BZ2_bzDecompressEnd(&stream);
    }
    BlockReader(const BlockReader &) = delete;
    BlockReader &operator=(const BlockReader &) = delete;

    bool read(char *data, qint64 length) override
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

    bool atEnd() override
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

bool applyBsdiff(QFile &output, QFile &base, QFile &patch, QString *md5, qint64 expectedSize)
{
    unsigned char header[headerSize];
    if (patch.read(reinterpret_cast<char *>(header), headerSize) != headerSize
        || memcmp(header, "BSDIFF40", 8) != 0)
        return false;
    const qint64 controlSize = decodeBsdiffNumber(header + 8);
    const qint64 diffSize = decodeBsdiffNumber(header + 16);
    const qint64 newSize = decodeBsdiffNumber(header + 24);
    const qint64 patchSize = patch.size();
    if (controlSize < 0 || diffSize < 0 || newSize < 0 || newSize >= patchSizeLimit
        || (expectedSize >= 0 && newSize != expectedSize) || controlSize > patchSize - headerSize
        || diffSize > patchSize - headerSize - controlSize)
        return false;
    const qint64 baseSize = base.size();
    const uchar *mapped = baseSize > 0 ? base.map(0, baseSize) : nullptr;
    if (baseSize >= patchSizeLimit || (baseSize > 0 && !mapped))
        return false;
    const qint64 diffStart = headerSize + controlSize;
    BlockReader control(patch.fileName(), headerSize, diffStart);
    BlockReader diff(patch.fileName(), diffStart, diffStart + diffSize);
    BlockReader extra(patch.fileName(), diffStart + diffSize, patchSize);
    BsdiffPatcher patcher(mapped, baseSize, newSize, output);
    if (!patcher.run(control, diff, extra))
        return false;
    *md5 = patcher.md5();
    return true;
}

// The one place where patch formats are told apart, by their magic bytes.
bool patch(QFile &output, const QString &basePath, const QString &patchPath, QString *md5,
           qint64 expectedSize)
{
    QFile base(basePath);
    QFile patch(patchPath);
    if (!base.open(QIODevice::ReadOnly) || !patch.open(QIODevice::ReadOnly))
        return false;
    if (isExecutablePatch(patch.peek(executablePatchMagicSize)))
        return applyExecutablePatch(output, base, patch, md5, expectedSize);
    return applyBsdiff(output, base, patch, md5, expectedSize);
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
