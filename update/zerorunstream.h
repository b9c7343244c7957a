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

    bool read(char *data, qint64 length) override;
    bool atEnd() override;

private:
    bool takeVarint(quint64 *value);

    PatchStream &packed;
    quint64 zeros = 0;
    quint64 literals = 0;
};
