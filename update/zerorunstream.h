#pragma once

#include "update/patchstream.h"

// bsdiff's diff bytes are mostly zero, which LZMA codes at a cost per 273 bytes where bzip2's
// run-length stage pays almost nothing. This stream stores them as pairs of varints (a run of
// zeros, a count of literal bytes) each followed by its literal bytes, read from another stream.
class ZeroRunStream : public PatchStream
{
public:
    explicit ZeroRunStream(PatchStream &packed)
        : packed(packed)
    {}

    bool read(char *data, int64_t length) override;
    bool atEnd() override;

private:
    bool takeVarint(uint64_t *value);

    PatchStream &packed;
    uint64_t zeros = 0;
    uint64_t literals = 0;
};
