// Feeds arbitrary bytes to the parsers of what a mirror or a key file holds; the first byte
// picks the parser. AddressSanitizer catches any read beyond the input.
#include "tasks/releasemanifest.h"
#include "update/minisign.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray input(reinterpret_cast<const char *>(data + 1), qsizetype(size - 1));
    switch (data[0] % 4) {
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
        static const QList<MinisignPublicKey> keys = parseMinisignKeyList(
                "RWR7YhBU0Nr2j7iVTAhGQPpbEpqxl6c+BQ3vP272iJ6xeoAVWrDpxC93");
        MinisignSignature signature;
        if (parseMinisignSignature(input, &signature))
            verifyMinisign(input, signature, keys);
        break;
    }
    case 2:
        parseMinisignKeyList(input);
        break;
    default: {
        MinisignSecretKey key;
        parseMinisignSecretKey(input, &key);
        break;
    }
    }
    return 0;
}
