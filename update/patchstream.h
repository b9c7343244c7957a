#pragma once

#include <QtGlobal>

// One unpacked stream of a patch, read in order.
class PatchStream
{
public:
    virtual ~PatchStream() = default;
    // Exactly length bytes of the stream, or false.
    virtual bool read(char *data, qint64 length) = 0;
    // Whether the stream ends here, whole: damage at its end shows only there.
    virtual bool atEnd() = 0;
};
