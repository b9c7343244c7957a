#pragma once

#include <QByteArray>

#include <vector>

// Where stretches of an old file's addresses lie in the new file: regions sorted by their old
// address, not overlapping, each moved by its own displacement.
class AddressMap
{
public:
    struct Region
    {
        quint64 oldAddress;
        quint64 length;
        qint64 displacement; // new address minus old
    };

    // Regions must come sorted and apart; returns false for one that does not.
    bool append(const Region &region);
    const std::vector<Region> &regions() const { return list; }

    // Where address lands, as a displacement; false when no region holds it.
    bool displacementOf(quint64 address, qint64 *displacement) const;

    // Compact: each region as the gap after the previous one, its length and the change of
    // displacement, in variable-length numbers.
    QByteArray encode() const;
    // False for bytes encode() would not make, or regions beyond 64-bit addresses.
    bool decode(const QByteArray &bytes);

private:
    std::vector<Region> list;
};
