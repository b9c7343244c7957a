#pragma once

#include <cstdint>

#include <vector>

// The parts of an ELF64 x86-64 file that locate its references: loaded segments (file offsets
// and addresses), executable sections, RELA relocation tables, symbol tables and the unwind
// tables (.eh_frame and its index .eh_frame_hdr). Every table is checked to lie
// inside the file, so that readers may index the data without further checks.
class ElfImage
{
public:
    struct Range
    {
        int64_t offset;
        int64_t size;
        uint64_t address;
    };

    // False when data is not a little-endian ELF64 x86-64 file or a table lies outside it.
    bool parse(const uint8_t *data, int64_t size);

    // Loaded segments; size counts the bytes in the file, memorySize those in memory.
    struct Segment : Range
    {
        uint64_t memorySize;
    };
    const std::vector<Segment> &segments() const { return loaded; }
    const std::vector<Range> &code() const { return executable; }
    // Tables of 24-byte relocations with addends.
    const std::vector<Range> &relocationTables() const { return relocations; }
    // Tables of 24-byte symbols.
    const std::vector<Range> &symbolTables() const { return symbols; }
    // Empty ranges when the file has none.
    const Range &frames() const { return frameRange; }
    const Range &frameIndex() const { return frameIndexRange; }

    // The file offset that holds address, or -1 when it lies in no segment's file bytes.
    int64_t offsetOf(uint64_t address) const;

private:
    bool parseSegments(const uint8_t *data, int64_t size, int64_t table, int count, int entrySize);
    bool parseSections(const uint8_t *data, int64_t size, int64_t table, int count, int entrySize,
                       int names);

    std::vector<Segment> loaded;
    std::vector<Range> executable;
    std::vector<Range> relocations;
    std::vector<Range> symbols;
    Range frameRange = {};
    Range frameIndexRange = {};
};
