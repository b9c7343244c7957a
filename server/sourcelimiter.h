#pragma once

#include <QtGlobal>

#include <unordered_map>

// A token bucket per IPv4 source address: each source may be answered rate times a second on
// average and burst times at once. The table is bounded; when it is full of active sources a new
// one is refused, since a reply must never become a free amplifier for spoofed addresses. A full
// table is looked through for idle sources at most once a second: under a flood of new spoofed
// addresses a look per datagram would stop the server answering anyone.
class SourceLimiter
{
public:
    SourceLimiter(double rate, double burst, size_t maxSources = size_t(1) << 20);

    // Takes one token of address (network byte order) at nowNs on a monotonic clock.
    bool admit(quint32 address, qint64 nowNs);
    // Forgets the sources whose bucket has filled up again: they would start full anyway.
    void prune(qint64 nowNs);
    size_t sources() const { return buckets.size(); }

private:
    struct Bucket
    {
        double tokens;
        qint64 updatedNs;
    };

    double refilled(const Bucket &bucket, qint64 nowNs) const;

    double rate;
    double burst;
    size_t maxSources;
    qint64 lastFullPruneNs;
    std::unordered_map<quint32, Bucket> buckets;
};
