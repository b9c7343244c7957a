#pragma once

#include <cstdint>
#include <functional>
#include <string>

// Applies a binary patch to base: in the BSDIFF40 format of bsdiff 4.3 (three bzip2 blocks:
// control triples, diff bytes, extra bytes) or in our executable-aware format
// (update/executablepatch.h), told apart by their magic bytes. The result goes to destination,
// and each block of it, once written, to observe. The blocks are streamed through fixed buffers
// and the result is written as it is made, so memory stays at the base (mapped privately; the
// executable-aware format moves its references in place) and a few buffers whatever the sizes.
// A patch is not trusted: every control value is checked against the files' bounds, and a
// truncated, damaged or hostile patch fails. A failure leaves no destination file.
// With expectedSize not negative, a patch that would make a file of another length fails before
// anything is written.
bool applyPatch(const std::string &destination, const std::string &base, const std::string &patch,
                int64_t expectedSize = -1,
                const std::function<void(const char *data, int64_t length)> &observe = {});
