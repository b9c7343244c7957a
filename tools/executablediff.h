#pragma once

#include "tools/binarydiff.h"

#include <QByteArray>

// An executable-aware patch from base to target (see update/executablepatch.h): references in
// base are moved under a map of where its code and data went in target before the bytes are
// diffed, so that code moved as a block costs nothing for its references. Empty when either
// file is not an ELF x86-64 file, or base is larger than bsdiff's matching handles.
QByteArray makeExecutablePatch(const QByteArray &base, const QByteArray &target);

// The same from plain, bsdiff's matching of target against base, which the caller has already.
QByteArray makeExecutablePatch(const QByteArray &base, const QByteArray &target, BinaryDiff plain);
