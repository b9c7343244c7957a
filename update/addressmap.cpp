#include "update/addressmap.h"

#include "update/varint.h"

#include <algorithm>

namespace {

// Addresses beyond 2^56 do not occur; the bound keeps every sum below from overflowing.
constexpr quint64 addressLimit = quint64(1) << 56;

} // namespace

bool AddressMap::append(const Region &region)
{
    const quint64 start = list.empty() ? 0 : list.back().oldAddress + list.back().length;
    if (region.length == 0 || region.oldAddress < start || region.oldAddress >= addressLimit
        || region.length >= addressLimit - region.oldAddress
        || region.displacement >= qint64(addressLimit)
        || region.displacement <= -qint64(addressLimit))
        return false;
    list.push_back(region);
    return true;
}

bool AddressMap::displacementOf(quint64 address, qint64 *displacement) const
{
    auto it = std::upper_bound(list.begin(), list.end(), address,
                               [](quint64 a, const Region &r) { return a < r.oldAddress; });
    if (it == list.begin() || address - (--it)->oldAddress >= it->length)
        return false;
    *displacement = it->displacement;
    return true;
}

QByteArray AddressMap::encode() const
{
    QByteArray bytes;
    quint64 end = 0;
    qint64 displacement = 0;
    for (const Region &region : list) {
        appendVarint(&bytes, region.oldAddress - end);
        appendVarint(&bytes, region.length);
        const qint64 change = region.displacement - displacement;
        appendVarint(&bytes, change < 0 ? (quint64(-change) << 1) - 1 : quint64(change) << 1);
        end = region.oldAddress + region.length;
        displacement = region.displacement;
    }
    return bytes;
}

bool AddressMap::decode(const QByteArray &bytes)
{
    list.clear();
    qsizetype at = 0;
    quint64 end = 0;
    qint64 displacement = 0;
    while (at < bytes.size()) {
        quint64 gap, length, change;
        if (!takeVarint(bytes, &at, &gap) || !takeVarint(bytes, &at, &length)
            || !takeVarint(bytes, &at, &change) || gap >= addressLimit
            || change >= addressLimit << 2)
            return false;
        displacement += change & 1 ? -qint64((change + 1) >> 1) : qint64(change >> 1);
        if (!append({end + gap, length, displacement}))
            return false;
        end += gap + length;
    }
    return true;
}
