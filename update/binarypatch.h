#pragma once

#include <QString>

// Applies a binary patch in the BSDIFF40 format of bsdiff 4.3 (three bzip2 blocks: control
// triples, diff bytes, extra bytes) to base, writing the result to destination and giving its
// MD5 in md5. The base is mapped, the blocks are streamed through fixed buffers and the result
// is written and hashed as it is made, so memory stays at the mapped base and a few buffers
// whatever the sizes. A patch is not trusted: every control value is checked against the
// files' bounds, and a truncated, damaged or hostile patch fails. A failure leaves no
// destination file; nothing is reported. With expectedSize not negative, a patch that would
// make a file of another length fails before anything is written.
bool applyBinaryPatch(const QString &destination, const QString &base, const QString &patch,
                      QString *md5, qint64 expectedSize = -1);
