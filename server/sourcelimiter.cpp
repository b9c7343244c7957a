#include "server/sourcelimiter.h"

#include <algorithm>

namespace {

constexpr qint64 fullPruneIntervalNs = 1000000000;

} // namespace

SourceLimiter::SourceLimiter(double rate, double burst, size_t maxSources)
    : rate(rate)
    , burst(std::max(burst, 1.0))
    , maxSources(maxSources)
    , lastFullPruneNs(-fullPruneIntervalNs)
{
    buckets.reserve(std::min<size_t>(maxSources, 4096));
}

double SourceLimiter::refilled(const Bucket &bucket, qint64 nowNs) const
{
    const double seconds = double(std::max<qint64>(nowNs - bucket.updatedNs, 0)) / 1e9;
    return std::min(burst, bucket.tokens + seconds * rate);
}

bool SourceLimiter::admit(quint32 address, qint64 nowNs)
{
    auto found = buckets.find(address);
    if (found == buckets.end()) {
        if (buckets.size() >= maxSources) {
            if (nowNs - lastFullPruneNs < fullPruneIntervalNs)
                return false;
            lastFullPruneNs = nowNs;
            prune(nowNs);
            if (buckets.size() >= maxSources)
                return false;
        }
        buckets.emplace(address, Bucket{burst - 1.0, nowNs});
        return true;
    }
    Bucket &bucket = found->second;
    bucket.tokens = refilled(bucket, nowNs);
    bucket.updatedNs = nowNs;
    if (bucket.tokens < 1.0)
        return false;
    bucket.tokens -= 1.0;
    return true;
}

void SourceLimiter::prune(qint64 nowNs)
{
    for (auto it = buckets.begin(); it != buckets.end();) {
        if (refilled(it->second, nowNs) >= burst)
            it = buckets.erase(it);
        else
            ++it;
    }
}
