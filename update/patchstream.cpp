#include "update/patchstream.h"

#include <algorithm>
#include <cerrno>

#include <unistd.h>

namespace {

// Packed bytes pass through once; a larger buffer would only cost memory, once per stream.
constexpr int64_t bufferSize = 65536;

ssize_t readAt(int fd, char *data, int64_t length, int64_t offset)
{
    ssize_t n;
    do
        n = pread(fd, data, size_t(length), offset);
    while (n < 0 && errno == EINTR);
    return n;
}

} // namespace

PackedBytes::PackedBytes(int fd, int64_t start, int64_t end)
    : fd(fd)
    , position(start)
    , end(end)
    , buffer(new char[bufferSize])
{}

bool PackedBytes::next(const char **data, int64_t *length)
{
    const ssize_t n = readAt(fd, buffer.get(), std::min(bufferSize, end - position), position);
    if (n <= 0)
        return false;
    position += n;
    *data = buffer.get();
    *length = n;
    return true;
}

std::string readPatchBytes(int fd, int64_t offset, int64_t length)
{
    std::string bytes(size_t(length), '\0');
    size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t n = readAt(fd, bytes.data() + filled, int64_t(bytes.size() - filled),
                                 offset + int64_t(filled));
        if (n <= 0)
            break;
        filled += size_t(n);
    }
    bytes.resize(filled);
    return bytes;
}
