#include "update/zstd.h"

#include "update/md5hash.h"

#include <QFile>

#include <limits>
#include <memory>

#include <zstd.h>

namespace {

constexpr qint64 blockSize = 131072;

struct DContextFree
{
    void operator()(ZSTD_DCtx *context) const { ZSTD_freeDCtx(context); }
};

struct CContextFree
{
    void operator()(ZSTD_CCtx *context) const { ZSTD_freeCCtx(context); }
};

bool failAndRemove(QFile &output)
{
    output.close();
    output.remove();
    return false;
}

bool openPair(QFile &input, QFile &output)
{
    return input.open(QIODevice::ReadOnly)
           && output.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered);
}

bool closeOutput(QFile &output)
{
    output.close();
    if (output.error() == QFileDevice::NoError)
        return true;
    output.remove();
    return false;
}

} // namespace

bool unzstdDevice(QIODevice &output, QFile &input, Md5Hash *hash, qint64 limit)
{
    const std::unique_ptr<ZSTD_DCtx, DContextFree> context(ZSTD_createDCtx());
    const std::unique_ptr<char[]> inBuffer(new char[blockSize]);
    const std::unique_ptr<char[]> outBuffer(new char[blockSize]);
    if (!context)
        return false;
    // Non-zero while a frame is open: input that ends there is cut short.
    size_t pending = 1;
    bool anyInput = false;
    qint64 room = limit < 0 ? std::numeric_limits<qint64>::max() : limit;
    while (room > 0) {
        const qint64 n = input.read(inBuffer.get(), blockSize);
        if (n < 0)
            return false;
        if (n == 0)
            break;
        anyInput = true;
        ZSTD_inBuffer in = {inBuffer.get(), size_t(n), 0};
        // A block of input may unpack to many blocks of output, and the decoder may hold output
        // back until it is asked again with room to spare.
        while (in.pos < in.size || pending > 0) {
            ZSTD_outBuffer out = {outBuffer.get(), size_t(qMin(blockSize, room)), 0};
            pending = ZSTD_decompressStream(context.get(), &out, &in);
            if (ZSTD_isError(pending) || output.write(outBuffer.get(), qint64(out.pos)) < 0)
                return false;
            if (hash)
                hash->addData(outBuffer.get(), qint64(out.pos));
            room -= qint64(out.pos);
            if (room == 0)
                return true;
            if (out.pos < out.size && in.pos == in.size)
                break;
        }
    }
    return pending == 0 && anyInput;
}

bool zstdFile(const QString &source, const QString &destination, int level)
{
    QFile input(source);
    QFile output(destination);
    if (!openPair(input, output))
        return false;
    const std::unique_ptr<ZSTD_CCtx, CContextFree> context(ZSTD_createCCtx());
    const std::unique_ptr<char[]> inBuffer(new char[blockSize]);
    const std::unique_ptr<char[]> outBuffer(new char[blockSize]);
    // The content size in the header lets the unpacker size its window to a small file.
    if (!context
        || ZSTD_isError(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, level))
        || ZSTD_isError(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1))
        || ZSTD_isError(ZSTD_CCtx_setPledgedSrcSize(context.get(), quint64(input.size()))))
        return failAndRemove(output);
    for (;;) {
        const qint64 n = input.read(inBuffer.get(), blockSize);
        if (n < 0)
            return failAndRemove(output);
        const ZSTD_EndDirective mode = n == 0 ? ZSTD_e_end : ZSTD_e_continue;
        ZSTD_inBuffer in = {inBuffer.get(), size_t(n), 0};
        size_t remaining = 0;
        do {
            ZSTD_outBuffer out = {outBuffer.get(), size_t(blockSize), 0};
            remaining = ZSTD_compressStream2(context.get(), &out, &in, mode);
            if (ZSTD_isError(remaining) || output.write(outBuffer.get(), qint64(out.pos)) < 0)
                return failAndRemove(output);
        } while (mode == ZSTD_e_end ? remaining != 0 : in.pos < in.size);
        if (n == 0)
            break;
    }
    return closeOutput(output);
}
