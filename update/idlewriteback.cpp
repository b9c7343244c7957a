#include "update/idlewriteback.h"

#include "update/filesync.h"

#include <ctime>

namespace {

// Long enough to span many files, short enough to follow a run from its list to its tail.
constexpr qint64 windowNs = 50'000'000;
// Thousands may have been held back from a fast mirror: a few go with each file, so that the
// window never stops for all of them at once.
constexpr int startsPerFile = 64;

qint64 threadCpuNs()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return qint64(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

} // namespace

void IdleWriteback::add(const QString &path, quint64 size)
{
    if (size >= writebackSize) {
        startWriteback(path);
        return;
    }
    held.append(path);
    if (!threadHasTime())
        return;
    for (int n = 0; n < startsPerFile && !held.isEmpty(); ++n)
        startWriteback(held.takeLast());
}

// Judged over the last window: busy for less than half of it, the thread was waiting.
bool IdleWriteback::threadHasTime()
{
    const qint64 cpuNs = threadCpuNs();
    const qint64 wallNs = window.isValid() ? window.nsecsElapsed() : 0;
    if (!window.isValid() || wallNs >= windowNs) {
        if (window.isValid())
            hasTime = (cpuNs - windowStartCpuNs) * 2 < wallNs;
        window.start();
        windowStartCpuNs = cpuNs;
    }
    return hasTime;
}
