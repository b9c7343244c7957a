#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Where stretches of an old file's addresses lie in the new file: regions sorted by their old
// address, not overlapping, each moved by its own displacement.
class AddressMap
{
public:
    struct Region
    {
        uint64_t oldAddress;
        uint64_t length;
        int64_t displacement; // new address minus old
    };

    // Regions must come sorted and apart; returns false for one that does not.
    bool append(const Region &region);
    const std::vector<Region> &regions() const { return list; }

    // Where address lands, as a displacement; false when no region holds it.
    bool displacementOf(uint64_t address, int64_t *displacement) const;

    // Compact: each region as the gap after the previous one, its length and the change of
    // displacement, in variable-length numbers.
    std::string encode() const;
    // False for bytes encode() would not make, or regions beyond 64-bit addresses.
    bool decode(const std::string &bytes);

private:
    std::vector<Region> list;
};
