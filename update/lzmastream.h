#pragma once

#include "update/patchstream.h"

#include <lzma.h>

// One raw LZMA2 stream (no container: the patch's own header says where it lies and its
// dictionary size) stored in [start, end) of an open file, unpacked as it is read.
class LzmaStream : public PatchStream
{
public:
    LzmaStream(int fd, int64_t start, int64_t end, uint32_t dictionarySize);
    ~LzmaStream() override;
    LzmaStream(const LzmaStream &) = delete;
    LzmaStream &operator=(const LzmaStream &) = delete;

    bool read(char *data, int64_t length) override;
    bool atEnd() override;

private:
    PackedBytes packed;
    lzma_stream stream = LZMA_STREAM_INIT;
    bool opened = false;
    bool ended = false;
};
