// Feeds arbitrary bytes to the parsers of what a mirror or a key file holds; the first byte
// picks the parser. AddressSanitizer catches any read beyond the input.
#include "tasks/releasemanifest.h"
#include "update/addressmap.h"
#include "update/elfimage.h"
#include "update/minisign.h"
#include "update/referenceprojection.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray input(reinterpret_cast<const char *>(data + 1), qsizetype(size - 1));
    switch (data[0] % 5) {
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
    default: {
        MinisignSecretKey key;
        parseMinisignSecretKey(input, &key);
        break;
    }
    }
    return 0;
}
