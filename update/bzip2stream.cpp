#include "update/bzip2stream.h"

Bzip2Stream::Bzip2Stream(int fd, int64_t start, int64_t end)
    : packed(fd, start, end)
{
    opened = BZ2_bzDecompressInit(&stream, 0, 0) == BZ_OK;
}

Bzip2Stream::~Bzip2Stream()
{
    if (opened)
        BZ2_bzDecompressEnd(&stream);
}

bool Bzip2Stream::read(char *data, int64_t length)
{
    if (!opened)
        return false;
    stream.next_out = data;
    stream.avail_out = unsigned(length);
    while (stream.avail_out > 0) {
        // At the end of the block the decoder may still hold output.
        const char *in;
        int64_t n;
        if (stream.avail_in == 0 && packed.next(&in, &n)) {
            stream.next_in = const_cast<char *>(in);
            stream.avail_in = unsigned(n);
        }
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

bool Bzip2Stream::atEnd()
{
    char byte;
    return ended || (!read(&byte, 1) && ended);
}
