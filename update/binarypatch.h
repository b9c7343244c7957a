#pragma once

#include <QString>

// Applies a binary patch to base: in the BSDIFF40 format of bsdiff 4.3 (three bzip2 blocks:
// control triples, diff bytes, extra bytes) or in our executable-aware format
// (update/executablepatch.h), told apart by their magic bytes. The result goes to destination,
// its MD5 to md5. The blocks are streamed through fixed buffers and the result is written and
// hashed as it is made, so memory stays at the base (mapped; privately for the executable-aware
// format, whose references are moved in place) and a few buffers whatever the sizes. A patch is
// not trusted: every control value is checked against the files' bounds, and a truncated,
// damaged or hostile patch fails. A failure leaves no destination file; nothing is reported.
// With expectedSize not negative, a patch that would make a file of another length fails before
// anything is written.
bool applyBinaryPatch(const QString &destination, const QString &base, const QString &patch,
                      QString *md5, qint64 expectedSize = -1);
