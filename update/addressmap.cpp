#include "update/addressmap.h"

#include "update/varint.h"

#include <algorithm>

namespace {

// Addresses beyond 2^56 do not occur; the bound keeps every sum below from overflowing.
constexpr uint64_t addressLimit = uint64_t(1) << 56;

} // namespace

bool AddressMap::append(const Region &region)
{
    const uint64_t start = list.empty() ? 0 : list.back().oldAddress + list.back().length;
    if (region.length == 0 || region.oldAddress < start || region.oldAddress >= addressLimit
        || region.length >= addressLimit - region.oldAddress
        || region.displacement >= int64_t(addressLimit)
        || region.displacement <= -int64_t(addressLimit))
        return false;
    list.push_back(region);
    return true;
}

bool AddressMap::displacementOf(uint64_t address, int64_t *displacement) const
{
    auto it = std::upper_bound(list.begin(), list.end(), address,
                               [](uint64_t a, const Region &r) { return a < r.oldAddress; });
    if (it == list.begin() || address - (--it)->oldAddress >= it->length)
        return false;
    *displacement = it->displacement;
    return true;
}

std::string AddressMap::encode() const
{
    std::string bytes;
    uint64_t end = 0;
    int64_t displacement = 0;
    for (const Region &region : list) {
        appendVarint(&bytes, region.oldAddress - end);
        appendVarint(&bytes, region.length);
        const int64_t change = region.displacement - displacement;
        appendVarint(&bytes, change < 0 ? (uint64_t(-change) << 1) - 1 : uint64_t(change) << 1);
        end = region.oldAddress + region.length;
        displacement = region.displacement;
    }
    return bytes;
}

bool AddressMap::decode(const std::string &bytes)
{
    list.clear();
    size_t at = 0;
    uint64_t end = 0;
    int64_t displacement = 0;
    while (at < bytes.size()) {
        uint64_t gap, length, change;
        if (!takeVarint(bytes, &at, &gap) || !takeVarint(bytes, &at, &length)
            || !takeVarint(bytes, &at, &change) || gap >= addressLimit
            || change >= addressLimit << 2)
            return false;
        displacement += change & 1 ? -int64_t((change + 1) >> 1) : int64_t(change >> 1);
        if (!append({end + gap, length, displacement}))
            return false;
        end += gap + length;
    }
    return true;
}
