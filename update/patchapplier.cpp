#include "update/patchapplier.h"

#include "update/bsdiffpatcher.h"
#include "update/bzip2stream.h"
#include "update/executablepatch.h"
#include "update/patchstream.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int64_t headerSize = 32;

// Closed on leaving; the size of what is not a regular file is -1.
class OpenFile
{
public:
    OpenFile(const std::string &path, int flags)
        : fd(open(path.c_str(), flags | O_CLOEXEC, 0666))
    {}
    ~OpenFile()
    {
        if (fd >= 0)
            close(fd);
    }
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;

    int64_t size() const
    {
        struct stat status;
        return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? int64_t(status.st_size) : -1;
    }
    // False when closing reports a late write error.
    bool finish()
    {
        const int result = close(fd);
        fd = -1;
        return result == 0;
    }

    int fd;
};

// A private mapping: the pages that are read count once, those that are written are the
// process's own and never reach the file.
class MappedBase
{
public:
    MappedBase(int fd, int64_t size)
        : size(size)
    {
        if (size > 0) {
            void *mapped = mmap(nullptr, size_t(size), PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0);
            data = mapped == MAP_FAILED ? nullptr : static_cast<uint8_t *>(mapped);
        }
    }
    ~MappedBase()
    {
        if (data)
            munmap(data, size_t(size));
    }
    MappedBase(const MappedBase &) = delete;
    MappedBase &operator=(const MappedBase &) = delete;

    int64_t size;
    uint8_t *data = nullptr;
};

bool applyBsdiff(const PatchFiles &files)
{
    const std::string bytes = readPatchBytes(files.patch, 0, headerSize);
    if (int64_t(bytes.size()) != headerSize || bytes.compare(0, 8, "BSDIFF40") != 0)
        return false;
    const auto *header = reinterpret_cast<const unsigned char *>(bytes.data());
    const int64_t controlSize = decodeBsdiffNumber(header + 8);
    const int64_t diffSize = decodeBsdiffNumber(header + 16);
    const int64_t newSize = decodeBsdiffNumber(header + 24);
    const int64_t patchSize = files.patchSize;
    if (controlSize < 0 || diffSize < 0 || newSize < 0 || newSize >= patchSizeLimit
        || (files.expectedSize >= 0 && newSize != files.expectedSize)
        || controlSize > patchSize - headerSize || diffSize > patchSize - headerSize - controlSize)
        return false;
    const int64_t diffStart = headerSize + controlSize;
    Bzip2Stream control(files.patch, headerSize, diffStart);
    Bzip2Stream diff(files.patch, diffStart, diffStart + diffSize);
    Bzip2Stream extra(files.patch, diffStart + diffSize, patchSize);
    return BsdiffPatcher(files.base, files.baseSize, newSize, files.write)
            .run(control, diff, extra);
}

bool writeAll(int fd, const char *data, int64_t length)
{
    while (length > 0) {
        const ssize_t n = write(fd, data, size_t(length));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        length -= n;
    }
    return true;
}

// The one place where patch formats are told apart, by their magic bytes.
bool patch(int output, const std::string &basePath, const std::string &patchPath,
           int64_t expectedSize, const std::function<void(const char *, int64_t)> &observe)
{
    OpenFile base(basePath, O_RDONLY);
    OpenFile patch(patchPath, O_RDONLY);
    const int64_t baseSize = base.size();
    const int64_t patchSize = patch.size();
    if (baseSize < 0 || patchSize < 0 || baseSize >= patchSizeLimit)
        return false;
    MappedBase mapped(base.fd, baseSize);
    if (baseSize > 0 && !mapped.data)
        return false;
    const PatchFiles files{patch.fd,
                           patchSize,
                           mapped.data,
                           baseSize,
                           expectedSize,
                           [&](const char *data, int64_t length) {
                               if (!writeAll(output, data, length))
                                   return false;
                               if (observe)
                                   observe(data, length);
                               return true;
                           }};
    const std::string magic = readPatchBytes(patch.fd, 0, executablePatchMagicSize);
    if (isExecutablePatch(magic.data(), magic.size()))
        return applyExecutablePatch(files);
    return applyBsdiff(files);
}

} // namespace

bool applyPatch(const std::string &destination, const std::string &base,
                const std::string &patchPath, int64_t expectedSize,
                const std::function<void(const char *, int64_t)> &observe)
{
    OpenFile output(destination, O_WRONLY | O_CREAT | O_TRUNC);
    if (output.fd < 0)
        return false;
    if (!patch(output.fd, base, patchPath, expectedSize, observe) || !output.finish()) {
        unlink(destination.c_str());
        return false;
    }
    return true;
}
