#include "tools/executablediff.h"

#include "tools/binarydiff.h"
#include "update/addressmap.h"
#include "update/bsdiffpatcher.h"
#include "update/elfimage.h"
#include "update/executablepatch.h"
#include "update/referenceprojection.h"
#include "update/varint.h"

#include <algorithm>
#include <utility>

#include <lzma.h>

namespace {

using Region = AddressMap::Region;

const uchar *bytesOf(const QByteArray &data)
{
    return reinterpret_cast<const uchar *>(data.constData());
}

// A stretch of target that bsdiff matched, byte for byte or nearly, against base.
struct Match
{
    int64_t oldOffset;
    int64_t newOffset;
    int64_t length;
};

std::vector<Match> matchesOf(const BinaryDiff &diff)
{
    std::vector<Match> matches;
    const auto *control = bytesOf(diff.control);
    int64_t oldOffset = 0;
    int64_t newOffset = 0;
    for (qsizetype at = 0; at + 24 <= diff.control.size(); at += 24) {
        const int64_t length = decodeBsdiffNumber(control + at);
        if (length > 0)
            matches.push_back({oldOffset, newOffset, length});
        newOffset += length + decodeBsdiffNumber(control + at + 8);
        oldOffset += length + decodeBsdiffNumber(control + at + 16);
    }
    return matches;
}

const ElfImage::Segment *segmentHolding(const ElfImage &elf, int64_t offset)
{
    for (const ElfImage::Segment &segment : elf.segments()) {
        if (offset >= segment.offset && offset < segment.offset + segment.size)
            return &segment;
    }
    return nullptr;
}

// The matches in addresses, cut where they leave a segment of either file.
std::vector<Region> regionsOf(const std::vector<Match> &matches, const ElfImage &oldElf,
                              const ElfImage &newElf)
{
    std::vector<Region> regions;
    for (const Match &match : matches) {
        for (const ElfImage::Segment &from : oldElf.segments()) {
            const int64_t start = std::max(match.oldOffset, from.offset);
            int64_t end = std::min(match.oldOffset + match.length, from.offset + from.size);
            const int64_t newStart = match.newOffset + (start - match.oldOffset);
            const ElfImage::Segment *to = segmentHolding(newElf, newStart);
            if (start >= end || !to)
                continue;
            end = std::min(end, start + (to->offset + to->size - newStart));
            const uint64_t oldAddress = from.address + uint64_t(start - from.offset);
            const uint64_t newAddress = to->address + uint64_t(newStart - to->offset);
            regions.push_back(
                    {oldAddress, uint64_t(end - start), int64_t(newAddress - oldAddress)});
        }
    }
    // Zero-filled memory past a segment's file bytes (.bss) follows the segment's end.
    const auto &oldSegments = oldElf.segments();
    const auto &newSegments = newElf.segments();
    for (size_t i = 0; i < std::min(oldSegments.size(), newSegments.size()); ++i) {
        const auto &from = oldSegments[i];
        const auto &to = newSegments[i];
        if (from.memorySize > uint64_t(from.size))
            regions.push_back({from.address + uint64_t(from.size),
                               from.memorySize - uint64_t(from.size),
                               int64_t((to.address + uint64_t(to.size))
                                       - (from.address + uint64_t(from.size)))});
    }
    return regions;
}

// Sorted and apart; neighbours with one displacement become one region, and where regions of
// different displacements overlap, the earlier one keeps the overlap.
AddressMap addressMapOf(std::vector<Region> regions)
{
    std::sort(regions.begin(), regions.end(),
              [](const Region &a, const Region &b) { return a.oldAddress < b.oldAddress; });
    std::vector<Region> merged;
    for (Region region : regions) {
        if (!merged.empty()) {
            Region &last = merged.back();
            const uint64_t lastEnd = last.oldAddress + last.length;
            const uint64_t end = region.oldAddress + region.length;
            if (region.displacement == last.displacement) {
                last.length = std::max(lastEnd, end) - last.oldAddress;
                continue;
            }
            if (end <= lastEnd)
                continue;
            if (region.oldAddress < lastEnd) {
                region.length = end - lastEnd;
                region.oldAddress = lastEnd;
            }
        }
        merged.push_back(region);
    }
    AddressMap map;
    for (const Region &region : merged)
        map.append(region);
    return map;
}

// The diff bytes as ZeroRunStream reads them. Short gaps of zeros stay in the literals, where
// they cost less than a new pair.
QByteArray zeroRuns(const QByteArray &diff)
{
    constexpr qsizetype shortestRun = 4;
    std::string runs;
    const qsizetype size = diff.size();
    for (qsizetype at = 0; at < size;) {
        const qsizetype zeroStart = at;
        while (at < size && diff.at(at) == 0)
            ++at;
        const qsizetype literalStart = at;
        qsizetype gap = 0;
        for (; at < size && gap < shortestRun; ++at)
            gap = diff.at(at) == 0 ? gap + 1 : 0;
        at -= gap;
        appendVarint(&runs, uint64_t(literalStart - zeroStart));
        appendVarint(&runs, uint64_t(at - literalStart));
        runs.append(diff.constData() + literalStart, size_t(at - literalStart));
    }
    return QByteArray::fromStdString(runs);
}

// The smallest dictionary that holds the largest stream, within the applier's bounds.
int dictionaryBits(qsizetype largest)
{
    int bits = executablePatchMinDictionaryBits;
    while (bits < executablePatchMaxDictionaryBits && (qsizetype(1) << bits) < largest)
        ++bits;
    return bits;
}

QByteArray packed(const QByteArray &data, int bits)
{
    lzma_options_lzma options;
    lzma_lzma_preset(&options, 9 | LZMA_PRESET_EXTREME);
    options.dict_size = uint32_t(1) << bits;
    const lzma_filter filters[] = {{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
    QByteArray out(qsizetype(lzma_stream_buffer_bound(size_t(data.size()))), Qt::Uninitialized);
    size_t used = 0;
    if (lzma_raw_buffer_encode(filters, nullptr, bytesOf(data), size_t(data.size()),
                               reinterpret_cast<uint8_t *>(out.data()), &used, size_t(out.size()))
        != LZMA_OK)
        return {};
    out.truncate(qsizetype(used));
    return out;
}

} // namespace

QByteArray makeExecutablePatch(const QByteArray &base, const QByteArray &target)
{
    BinaryDiff plain;
    QString error;
    if (!diffBinary(base, target, &plain, &error))
        return {};
    return makeExecutablePatch(base, target, std::move(plain));
}

QByteArray makeExecutablePatch(const QByteArray &base, const QByteArray &target, BinaryDiff plain)
{
    ElfImage oldElf;
    ElfImage newElf;
    if (!oldElf.parse(bytesOf(base), base.size()) || !newElf.parse(bytesOf(target), target.size()))
        return {};
    const AddressMap map = addressMapOf(regionsOf(matchesOf(plain), oldElf, newElf));
    plain = {};
    QByteArray projected = base;
    projectReferences(reinterpret_cast<uchar *>(projected.data()), projected.size(), oldElf, map);
    BinaryDiff second;
    if (!diffBinary(bytesOf(projected), projected.size(), bytesOf(target), target.size(), &second))
        return {};
    const QByteArray mapBytes = QByteArray::fromStdString(map.encode());
    if (mapBytes.size() > executablePatchMapLimit)
        return {};
    const QByteArray diffRuns = zeroRuns(second.diff);
    const int bits = dictionaryBits(std::max(
            {mapBytes.size(), second.control.size(), diffRuns.size(), second.extra.size()}));
    std::string header(executablePatchMagic, executablePatchMagicSize);
    header += char(bits);
    for (qsizetype value : {base.size(), target.size(), mapBytes.size()})
        appendVarint(&header, uint64_t(value));
    const QByteArray streams[] = {packed(mapBytes, bits), packed(second.control, bits),
                                  packed(diffRuns, bits), packed(second.extra, bits)};
    for (int i = 0; i < 3; ++i)
        appendVarint(&header, uint64_t(streams[i].size()));
    QByteArray patch = QByteArray::fromStdString(header);
    for (const QByteArray &stream : streams) {
        // LZMA2 ends every stream with a marker, so even an empty one is a byte.
        if (stream.isEmpty())
            return {};
        patch += stream;
    }
    return patch;
}
