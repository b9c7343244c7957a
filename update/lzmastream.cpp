#include "update/lzmastream.h"

namespace {

constexpr qint64 bufferSize = 262144;

} // namespace

LzmaStream::LzmaStream(const QString &path, qint64 start, qint64 end, quint32 dictionarySize)
    : file(path)
    , remaining(end - start)
    , buffer(new uint8_t[bufferSize])
{
    lzma_options_lzma options = {};
    options.dict_size = dictionarySize;
    const lzma_filter filters[] = {{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
    opened = file.open(QIODevice::ReadOnly) && file.seek(start)
             && lzma_raw_decoder(&stream, filters) == LZMA_OK;
}

LzmaStream::~LzmaStream()
{
    lzma_end(&stream);
}

bool LzmaStream::read(char *data, qint64 length)
{
    if (!opened || ended)
        return length == 0;
    stream.next_out = reinterpret_cast<uint8_t *>(data);
    stream.avail_out = size_t(length);
    while (stream.avail_out > 0) {
        if (stream.avail_in == 0 && remaining > 0) {
            const qint64 n =
                    file.read(reinterpret_cast<char *>(buffer.get()), qMin(bufferSize, remaining));
            if (n <= 0)
                return false;
            remaining -= n;
            stream.next_in = buffer.get();
            stream.avail_in = size_t(n);
        }
        const size_t before = stream.avail_out + stream.avail_in;
        const lzma_ret result = lzma_code(&stream, remaining > 0 ? LZMA_RUN : LZMA_FINISH);
        if (result == LZMA_STREAM_END) {
            ended = true;
            return stream.avail_out == 0;
        }
        if (result != LZMA_OK || stream.avail_out + stream.avail_in == before)
            return false;
    }
    return true;
}

bool LzmaStream::atEnd()
{
    char byte;
    return ended || (!read(&byte, 1) && ended);
}
