#include "update/lzmastream.h"

LzmaStream::LzmaStream(int fd, int64_t start, int64_t end, uint32_t dictionarySize)
    : packed(fd, start, end)
{
    lzma_options_lzma options = {};
    options.dict_size = dictionarySize;
    const lzma_filter filters[] = {{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
    opened = lzma_raw_decoder(&stream, filters) == LZMA_OK;
}

LzmaStream::~LzmaStream()
{
    lzma_end(&stream);
}

bool LzmaStream::read(char *data, int64_t length)
{
    if (!opened || ended)
        return length == 0;
    stream.next_out = reinterpret_cast<uint8_t *>(data);
    stream.avail_out = size_t(length);
    while (stream.avail_out > 0) {
        if (stream.avail_in == 0 && !packed.exhausted()) {
            const char *in;
            int64_t n;
            if (!packed.next(&in, &n))
                return false;
            stream.next_in = reinterpret_cast<const uint8_t *>(in);
            stream.avail_in = size_t(n);
        }
        const size_t before = stream.avail_out + stream.avail_in;
        const lzma_ret result = lzma_code(&stream, packed.exhausted() ? LZMA_FINISH : LZMA_RUN);
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
