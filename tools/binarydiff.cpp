#include "tools/binarydiff.h"

#include <QFile>
#include <QSaveFile>

#include <algorithm>
#include <cstring>
#include <vector>

#include <bzlib.h>
#include <divsufsort.h>

namespace {

using Index = qint64;

void encodeNumber(qint64 value, char *bytes)
{
    quint64 magnitude = value < 0 ? quint64(-value) : quint64(value);
    for (int i = 0; i < 8; ++i, magnitude >>= 8)
        bytes[i] = char(magnitude & 0xff);
    if (value < 0)
        bytes[7] = char(bytes[7] | 0x80);
}

// One bzip2 block of the patch, packed into memory: packed blocks are small beside the files
// they describe.
class BlockWriter
{
public:
    BlockWriter() { ok = BZ2_bzCompressInit(&stream, 9, 0, 0) == BZ_OK; }
    ~BlockWriter() { BZ2_bzCompressEnd(&stream); }
    BlockWriter(const BlockWriter &) = delete;
    BlockWriter &operator=(const BlockWriter &) = delete;

    // The packed block; false when bzip2 failed.
    bool pack(const QByteArray &data, QByteArray *packed)
    {
        // bzip2 takes a call without input for an error.
        if (!data.isEmpty())
            run(data.constData(), size_t(data.size()), BZ_RUN);
        run(nullptr, 0, BZ_FINISH);
        *packed = output;
        return ok;
    }

private:
    void run(const char *data, size_t length, int action)
    {
        // bzip2 counts in unsigned int; feed it in slices.
        constexpr size_t slice = 1 << 30;
        do {
            const size_t n = std::min(length, slice);
            stream.next_in = const_cast<char *>(data);
            stream.avail_in = unsigned(n);
            const int last = n == length ? action : BZ_RUN;
            int result = BZ_RUN_OK;
            do {
                char buffer[65536];
                stream.next_out = buffer;
                stream.avail_out = sizeof buffer;
                result = BZ2_bzCompress(&stream, last);
                output.append(buffer, qsizetype(sizeof buffer - stream.avail_out));
            } while (ok && (last == BZ_FINISH ? result == BZ_FINISH_OK : stream.avail_in > 0));
            if (result != (last == BZ_FINISH ? BZ_STREAM_END : BZ_RUN_OK))
                ok = false;
            data += n;
            length -= n;
        } while (ok && length > 0);
    }

    bz_stream stream = {};
    QByteArray output;
    bool ok = false;
};

class Differ
{
public:
    Differ(const uchar *old, Index oldSize, const uchar *now, Index newSize, BinaryDiff *streams)
        : old(old)
        , oldSize(oldSize)
        , now(now)
        , newSize(newSize)
        , streams(*streams)
    {}

    bool sortSuffixes()
    {
        // The empty suffix sorts first; the search relies on it standing at index 0.
        suffixes.resize(size_t(oldSize) + 1);
        suffixes[0] = saidx_t(oldSize);
        return oldSize == 0 || divsufsort(old, suffixes.data() + 1, saidx_t(oldSize)) == 0;
    }
    void diff();

private:
    Index matchLength(Index oldPosition, Index newPosition) const
    {
        const Index limit = std::min(oldSize - oldPosition, newSize - newPosition);
        Index i = 0;
        while (i < limit && old[oldPosition + i] == now[newPosition + i])
            ++i;
        return i;
    }
    // The longest match of the new data at position in the old file, by binary search over the
    // suffix array.
    Index search(Index position, Index *found) const;
    void writeStretch(Index scan, Index lengthBack, Index position);
    bool matchesOld(Index oldPosition, Index newPosition) const
    {
        return oldPosition < oldSize && old[oldPosition] == now[newPosition];
    }

    const uchar *old;
    Index oldSize;
    const uchar *now;
    Index newSize;
    BinaryDiff &streams;
    std::vector<saidx_t> suffixes;
    Index lastScan = 0;
    Index lastPosition = 0;
    Index lastOffset = 0;
};

Index Differ::search(Index position, Index *found) const
{
    Index start = 0;
    Index end = oldSize;
    const Index rest = newSize - position;
    while (end - start >= 2) {
        const Index middle = start + (end - start) / 2;
        const Index suffix = suffixes[size_t(middle)];
        if (std::memcmp(old + suffix, now + position, size_t(std::min(oldSize - suffix, rest))) < 0)
            start = middle;
        else
            end = middle;
    }
    const Index atStart = matchLength(suffixes[size_t(start)], position);
    const Index atEnd = matchLength(suffixes[size_t(end)], position);
    *found = suffixes[size_t(atStart > atEnd ? start : end)];
    return std::max(atStart, atEnd);
}

// bsdiff's scan: find the next stretch of the new file that matches the old one at an offset
// other than the current one by more than eight bytes, then write what lies before it as diff
// bytes against the current offset, followed by extra bytes.
void Differ::diff()
{
    Index scan = 0;
    Index length = 0;
    Index position = 0;
    while (scan < newSize) {
        Index oldScore = 0;
        Index scoreScan = scan += length;
        for (; scan < newSize; ++scan) {
            length = search(scan, &position);
            for (; scoreScan < scan + length; ++scoreScan) {
                if (matchesOld(scoreScan + lastOffset, scoreScan))
                    ++oldScore;
            }
            if ((length == oldScore && length != 0) || length > oldScore + 8)
                break;
            if (matchesOld(scan + lastOffset, scan))
                --oldScore;
        }
        if (length == oldScore && scan != newSize)
            continue;

        Index lengthBack = 0;
        if (scan < newSize) {
            Index score = 0;
            Index best = 0;
            for (Index i = 1; scan >= lastScan + i && position >= i; ++i) {
                if (old[position - i] == now[scan - i])
                    ++score;
                if (score * 2 - i > best * 2 - lengthBack) {
                    best = score;
                    lengthBack = i;
                }
            }
        }
        writeStretch(scan, lengthBack, position);
    }
}

void Differ::writeStretch(Index scan, Index lengthBack, Index position)
{
    Index lengthForward = 0;
    Index score = 0;
    Index best = 0;
    for (Index i = 0; lastScan + i < scan && lastPosition + i < oldSize;) {
        if (old[lastPosition + i] == now[lastScan + i])
            ++score;
        ++i;
        if (score * 2 - i > best * 2 - lengthForward) {
            best = score;
            lengthForward = i;
        }
    }
    // Where the forward and backward extensions overlap, split them where the matches are best.
    if (lastScan + lengthForward > scan - lengthBack) {
        const Index overlap = (lastScan + lengthForward) - (scan - lengthBack);
        Index balance = 0;
        Index bestBalance = 0;
        Index split = 0;
        for (Index i = 0; i < overlap; ++i) {
            if (now[lastScan + lengthForward - overlap + i]
                == old[lastPosition + lengthForward - overlap + i])
                ++balance;
            if (now[scan - lengthBack + i] == old[position - lengthBack + i])
                --balance;
            if (balance > bestBalance) {
                bestBalance = balance;
                split = i + 1;
            }
        }
        lengthForward += split - overlap;
        lengthBack -= split;
    }

    const qsizetype diffStart = streams.diff.size();
    streams.diff.resize(diffStart + lengthForward);
    char *to = streams.diff.data() + diffStart;
    for (Index i = 0; i < lengthForward; ++i)
        to[i] = char(now[lastScan + i] - old[lastPosition + i]);
    const Index extraLength = (scan - lengthBack) - (lastScan + lengthForward);
    streams.extra.append(reinterpret_cast<const char *>(now + lastScan + lengthForward),
                         extraLength);
    char triple[24];
    encodeNumber(lengthForward, triple);
    encodeNumber(extraLength, triple + 8);
    encodeNumber((position - lengthBack) - (lastPosition + lengthForward), triple + 16);
    streams.control.append(triple, sizeof triple);

    lastScan = scan - lengthBack;
    lastPosition = position - lengthBack;
    lastOffset = position - scan;
}

} // namespace

bool diffBinary(const uchar *old, qint64 oldSize, const uchar *now, qint64 newSize,
                BinaryDiff *streams)
{
    Differ differ(old, oldSize, now, newSize, streams);
    if (!differ.sortSuffixes())
        return false;
    differ.diff();
    return true;
}

bool diffBinary(const QByteArray &old, const QByteArray &now, BinaryDiff *streams, QString *error)
{
    if (old.size() > binaryPatchBaseLimit) {
        *error = QStringLiteral("the base is too large to patch from");
        return false;
    }
    const auto bytes = [](const QByteArray &data) {
        return reinterpret_cast<const uchar *>(data.constData());
    };
    if (!diffBinary(bytes(old), old.size(), bytes(now), now.size(), streams)) {
        *error = QStringLiteral("cannot sort the suffixes of the base");
        return false;
    }
    return true;
}

QByteArray encodeBinaryPatch(const BinaryDiff &streams, qint64 newSize, QString *error)
{
    QByteArray control;
    QByteArray diff;
    QByteArray extra;
    if (!BlockWriter().pack(streams.control, &control) || !BlockWriter().pack(streams.diff, &diff)
        || !BlockWriter().pack(streams.extra, &extra)) {
        *error = QStringLiteral("bzip2 failed to pack the patch");
        return QByteArray();
    }

    char header[32] = "BSDIFF40";
    encodeNumber(control.size(), header + 8);
    encodeNumber(diff.size(), header + 16);
    encodeNumber(newSize, header + 24);
    QByteArray patch;
    patch.reserve(qsizetype(sizeof header) + control.size() + diff.size() + extra.size());
    patch.append(header, qsizetype(sizeof header));
    patch.append(control).append(diff).append(extra);
    return patch;
}

QByteArray makeBinaryPatch(const QByteArray &old, const QByteArray &now, QString *error)
{
    BinaryDiff streams;
    if (!diffBinary(old, now, &streams, error))
        return QByteArray();
    return encodeBinaryPatch(streams, now.size(), error);
}

bool mapFile(QFile &file, QByteArray *bytes, QString *error)
{
    static const char empty = 0;
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(file.fileName(), file.errorString());
        return false;
    }
    const uchar *data = file.size() == 0 ? nullptr : file.map(0, file.size());
    if (file.size() > 0 && !data) {
        *error = QStringLiteral("cannot map %1: %2").arg(file.fileName(), file.errorString());
        return false;
    }
    *bytes = QByteArray::fromRawData(data ? reinterpret_cast<const char *>(data) : &empty,
                                     file.size());
    return true;
}

bool writeBinaryPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                      QString *error)
{
    QFile oldFile(oldPath);
    QFile newFile(newPath);
    QByteArray old;
    QByteArray now;
    if (!mapFile(oldFile, &old, error) || !mapFile(newFile, &now, error))
        return false;
    const QByteArray patch = makeBinaryPatch(old, now, error);
    if (patch.isEmpty()) {
        error->prepend(oldPath + QStringLiteral(": "));
        return false;
    }
    QSaveFile file(patchPath);
    if (!file.open(QIODevice::WriteOnly) || file.write(patch) != patch.size() || !file.commit()) {
        *error = QStringLiteral("cannot write %1: %2").arg(patchPath, file.errorString());
        return false;
    }
    return true;
}
