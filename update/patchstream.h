#pragma once

#include <cstdint>
#include <memory>
#include <string>

// One unpacked stream of a patch, read in order.
class PatchStream
{
public:
    virtual ~PatchStream() = default;
    // Exactly length bytes of the stream, or false.
    virtual bool read(char *data, int64_t length) = 0;
    // Whether the stream ends here, whole: damage at its end shows only there.
    virtual bool atEnd() = 0;
};

// The packed bytes of one stream, [start, end) of an open file, read through a fixed buffer.
class PackedBytes
{
public:
    PackedBytes(int fd, int64_t start, int64_t end);

    // The next bytes, at most the buffer's size; false at the end or on an error.
    bool next(const char **data, int64_t *length);
    bool exhausted() const { return position == end; }

private:
    int fd;
    int64_t position;
    int64_t end;
    std::unique_ptr<char[]> buffer;
};

// Up to length bytes at offset of an open file: fewer at its end or on an error.
std::string readPatchBytes(int fd, int64_t offset, int64_t length);
