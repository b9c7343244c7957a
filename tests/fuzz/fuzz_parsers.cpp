// Feeds arbitrary bytes to the parsers of what a mirror or a key file holds, and to the patch
// applier; the first byte picks which. AddressSanitizer catches any read beyond the input.
#include "tasks/releasemanifest.h"
#include "update/addressmap.h"
#include "update/bsdiffpatcher.h"
#include "update/elfimage.h"
#include "update/minisign.h"
#include "update/patchapplier.h"
#include "update/patchstream.h"
#include "update/referenceprojection.h"
#include "update/zerorunstream.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace {

// The input taken in order: chunks of a two-byte length and as many bytes, or what is left.
class InputChunks
{
public:
    explicit InputChunks(const QByteArray &input)
        : input(input)
    {}

    int64_t number()
    {
        const QByteArray bytes = input.mid(at, 2).leftJustified(2, '\0');
        at += 2;
        return uint8_t(bytes[0]) | uint8_t(bytes[1]) << 8;
    }
    QByteArray take()
    {
        const qsizetype length = number();
        const QByteArray chunk = input.mid(at, length);
        at += chunk.size();
        return chunk;
    }
    QByteArray rest() const { return input.mid(at); }

private:
    QByteArray input;
    qsizetype at = 0;
};

class MemoryStream : public PatchStream
{
public:
    explicit MemoryStream(QByteArray bytes)
        : bytes(std::move(bytes))
    {}

    bool read(char *data, int64_t length) override
    {
        if (length > bytes.size() - at)
            return false;
        std::memcpy(data, bytes.constData() + at, size_t(length));
        at += length;
        return true;
    }
    bool atEnd() override { return at == bytes.size(); }

private:
    QByteArray bytes;
    qsizetype at = 0;
};

bool writeFile(const std::string &path, const QByteArray &bytes)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool written =
            fd >= 0 && write(fd, bytes.constData(), size_t(bytes.size())) == bytes.size();
    return close(fd) == 0 && written;
}

// A base, then a patch in either format: an executable's references moved by a hostile map
// included. A failure must leave no file behind.
void applyWholePatch(InputChunks &input)
{
    // A plain array: the clean-up at exit runs after static objects are gone.
    static char directory[] = "/tmp/orlivo-patch-fuzz-XXXXXX";
    static const bool made = [] {
        atexit([] {
            for (const char *file : {"/base", "/patch", "/new", ""})
                remove((std::string(directory) + file).c_str());
        });
        return mkdtemp(directory) != nullptr;
    }();
    if (!made)
        abort();
    const std::string basePath = std::string(directory) + "/base";
    const std::string patchPath = std::string(directory) + "/patch";
    const std::string newPath = std::string(directory) + "/new";
    if (writeFile(basePath, input.take()) && writeFile(patchPath, input.rest())
        && !applyPatch(newPath, basePath, patchPath) && access(newPath.c_str(), F_OK) == 0)
        abort();
}

// The control values on unpacked streams, which packed ones seldom reach: the output is never
// longer than declared, and exactly that long when the patch is taken.
void runPatcher(InputChunks &input)
{
    const int64_t newSize = input.number() << 4;
    const QByteArray base = input.take();
    const bool zeroRuns = input.number() & 1;
    MemoryStream control(input.take());
    MemoryStream diff(input.take());
    MemoryStream extra(input.rest());
    ZeroRunStream packedDiff(diff);
    int64_t written = 0;
    BsdiffPatcher patcher(reinterpret_cast<const uint8_t *>(base.constData()), base.size(), newSize,
                          [&](const char *, int64_t length) {
                              written += length;
                              if (written > newSize)
                                  abort();
                              return true;
                          });
    if (patcher.run(control, zeroRuns ? static_cast<PatchStream &>(packedDiff) : diff, extra)
        && written != newSize)
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray input(reinterpret_cast<const char *>(data + 1), qsizetype(size - 1));
    switch (data[0] % 7) {
    case 0: {
        ReleaseManifest manifest;
        if (manifest.parse(input)) {
            manifest.toText();
            manifest.patches();
        }
        break;
    }
    case 1: {
        // A signature checked against itself: every path through the verification runs.
        static const QList<MinisignPublicKey> keys =
                parseMinisignKeyList("RWR7YhBU0Nr2j7iVTAhGQPpbEpqxl6c+BQ3vP272iJ6xeoAVWrDpxC93");
        MinisignSignature signature;
        if (parseMinisignSignature(input, &signature))
            verifyMinisign(input, signature, keys);
        break;
    }
    case 2:
        parseMinisignKeyList(input);
        break;
    case 4: {
        // A patch's address map, and a base whose references move under a map that holds them.
        AddressMap map;
        map.decode(input.toStdString());
        static const AddressMap shift = [] {
            AddressMap all;
            all.append({0, quint64(1) << 40, 16});
            return all;
        }();
        QByteArray image = input;
        ElfImage elf;
        if (elf.parse(reinterpret_cast<const uint8_t *>(image.constData()), image.size()))
            projectReferences(reinterpret_cast<uint8_t *>(image.data()), image.size(), elf, shift);
        break;
    }
    case 5: {
        InputChunks chunks(input);
        applyWholePatch(chunks);
        break;
    }
    case 6: {
        InputChunks chunks(input);
        runPatcher(chunks);
        break;
    }
    default: {
        MinisignSecretKey key;
        parseMinisignSecretKey(input, &key);
        break;
    }
    }
    return 0;
}
