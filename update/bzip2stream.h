#pragma once

#include "update/patchstream.h"

#include <bzlib.h>

// One bzip2 stream stored in [start, end) of an open file, unpacked as it is read.
class Bzip2Stream : public PatchStream
{
public:
    Bzip2Stream(int fd, int64_t start, int64_t end);
    ~Bzip2Stream() override;
    Bzip2Stream(const Bzip2Stream &) = delete;
    Bzip2Stream &operator=(const Bzip2Stream &) = delete;

    bool read(char *data, int64_t length) override;
    bool atEnd() override;

private:
    PackedBytes packed;
    bz_stream stream = {};
    bool opened = false;
    bool ended = false;
};
