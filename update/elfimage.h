#pragma once

#include <QtGlobal>

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
        qint64 offset;
        qint64 size;
        quint64 address;
    };

    // False when data is not a little-endian ELF64 x86-64 file or a table lies outside it.
    bool parse(const uchar *data, qint64 size);

    // Loaded segments; size counts the bytes in the file, memorySize those in memory.
    struct Segment : Range
    {
        quint64 memorySize;
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
    qint64 offsetOf(quint64 address) const;

private:
    bool parseSegments(const uchar *data, qint64 size, qint64 table, int count, int entrySize);
    bool parseSections(const uchar *data, qint64 size, qint64 table, int count, int entrySize,
                       int names);

    std::vector<Segment> loaded;
    std::vector<Range> executable;
    std::vector<Range> relocations;
    std::vector<Range> symbols;
    Range frameRange = {};
    Range frameIndexRange = {};
};
