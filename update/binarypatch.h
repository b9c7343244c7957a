#pragma once

#include <QString>

// Applies a binary patch to base as applyPatch (update/patchapplier.h) does, and gives the
// result's MD5 to md5. A failure leaves no destination file; nothing is reported.
bool applyBinaryPatch(const QString &destination, const QString &base, const QString &patch,
                      QString *md5, qint64 expectedSize = -1);
