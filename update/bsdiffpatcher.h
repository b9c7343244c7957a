#pragma once

#include "update/md5hash.h"

#include <QFile>

#include <memory>

class PatchStream;

// Rebuilds a file from a base and bsdiff's three streams (control triples, diff bytes, extra
// bytes), checking every control value against the bounds, writing and hashing the result
// through a fixed buffer. The output never grows past newSize.
class BsdiffPatcher
{
public:
    BsdiffPatcher(const uchar *base, qint64 baseSize, qint64 newSize, QFile &output);

    bool run(PatchStream &control, PatchStream &diff, PatchStream &extra);
    QString md5() const { return hash.result(); }

private:
    bool copyDiff(PatchStream &diff, qint64 length);
    bool copyExtra(PatchStream &extra, qint64 length);
    qint64 room(qint64 wanted);
    bool flush();

    const uchar *base;
    qint64 baseSize;
    qint64 newSize;
    QFile &output;
    std::unique_ptr<char[]> buffer;
    qint64 filled = 0;
    Md5Hash hash;
    qint64 newPosition = 0;
    qint64 basePosition = 0;
};

// bsdiff's signed 64-bit numbers: magnitude little-endian, sign in the top bit of the last byte.
qint64 decodeBsdiffNumber(const unsigned char *bytes);

// Larger sizes or offsets come only from a hostile patch; below this bound sums cannot overflow.
constexpr qint64 patchSizeLimit = qint64(1) << 61;
