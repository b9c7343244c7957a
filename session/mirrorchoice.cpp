#include "session/mirrorchoice.h"

#include "app/randomgenerator.h"

#include <QSettings>

#include <algorithm>
#include <limits>

namespace {

constexpr int maxMirrors = 100;
constexpr int maxRetries = 100;
constexpr int maxTimeoutSeconds = 3600;
// Long enough to average over many packets, short enough to notice a mirror slowing down.
constexpr qint64 rateWindowMs = 500;
constexpr qint64 shortestWindowMs = 100;
// Notes come at least every quarter of a second while a measured transfer runs: a longer gap
// means none did, and says nothing about the mirror's speed.
constexpr qint64 idleGapMs = 600;
constexpr double muchSlowerFactor = 2.0;
constexpr qint64 staleRateMs = 5000;

// An unsigned key taken as a signed int: a number that is negative, or too large for an int,
// comes out negative, so that the caller falls back to its default; text that is no number
// reads as 0; a missing key gives the default.
int readUnsignedAsInt(const QSettings &settings, const QString &key, int defaultValue)
{
    const QVariant value = settings.value(key);
    if (!value.isValid())
        return defaultValue;
    bool ok = false;
    const qlonglong number = value.toLongLong(&ok);
    if (!ok)
        return 0;
    if (number < 0 || number > std::numeric_limits<int>::max())
        return -1;
    return int(number);
}

} // namespace

QString MirrorChoice::readMirrors(const QString &mirrorsFile, const QString &versionPath)
{
    QSettings settings(mirrorsFile, QSettings::IniFormat);
    QString warning;
    mirrors.clear();
    int size = settings.beginReadArray("mirrors");
    if (size > maxMirrors) {
        warning = QString("%1 lists %2 mirrors, the first %3 are used")
                          .arg(mirrorsFile)
                          .arg(size)
                          .arg(maxMirrors);
        size = maxMirrors;
    }
    for (int i = 0; i < size; ++i) {
        settings.setArrayIndex(i);
        MarkedSiteData mirror;
        mirror.name = settings.value("mirror").toString();
        mirrors.append(mirror);
    }
    settings.endArray();

    for (MarkedSiteData &mirror : mirrors) {
        settings.beginGroup(mirror.name);
        mirror.url = settings.value("url").toString();
        if (!mirror.url.endsWith('/'))
            mirror.url += '/';
        mirror.url += versionPath;
        mirror.retries = readUnsignedAsInt(settings, "retries", 5);
        if (mirror.retries <= 0)
            mirror.retries = 5;
        mirror.retries = qMin(mirror.retries, maxRetries);
        // Unlike the retries, a timeout of 0 is a valid choice: repeat at once.
        mirror.timeout = readUnsignedAsInt(settings, "timeout", 15);
        if (mirror.timeout < 0)
            mirror.timeout = 15;
        mirror.timeout = qMin(mirror.timeout, maxTimeoutSeconds);
        settings.endGroup();
    }
    rates = QVector<Rate>(mirrors.size());
    return warning;
}

int MirrorChoice::getNextMirror() const
{
    const int n = mirrors.size();
    if (n == 0)
        return -1;
    const int start = randomNumber() % n;
    for (int k = 0; k < n; ++k) {
        const int m = (start + k) % n;
        if (!mirrors.at(m).failed)
            return m;
    }
    return -1;
}

QVector<int> MirrorChoice::dealOrder() const
{
    QVector<int> order;
    for (int m = 0; m < mirrors.size(); ++m) {
        if (!mirrors.at(m).failed)
            order.append(m);
    }
    std::stable_sort(order.begin(), order.end(),
                     [this](int a, int b) { return rate(a) > rate(b); });
    return order;
}

int MirrorChoice::fastest() const
{
    int best = -1;
    for (int m = 0; m < mirrors.size(); ++m) {
        if (!mirrors.at(m).failed && rate(m) > 0 && (best < 0 || rate(m) > rate(best)))
            best = m;
    }
    return best;
}

void MirrorChoice::noteDelivered(int m, qint64 bytes, bool measured)
{
    Rate &r = rates[m];
    if (bytes > 0) {
        r.lastDelivery.start();
        r.stopped = false;
    }
    if (!measured)
        return;
    if (r.window.isValid() && r.window.elapsed() - r.windowLastMs > idleGapMs) {
        // What came before the gap is a window of its own, read as rate() reads a short one.
        takeSample(r, r.windowBytes, qMax(r.windowLastMs, shortestWindowMs));
        r.window.invalidate();
    }
    if (!r.window.isValid()) {
        // Waiting for a first byte says nothing yet.
        if (bytes <= 0)
            return;
        r.window.start();
        r.windowBytes = bytes;
        r.windowLastMs = 0;
        return;
    }
    r.windowBytes += bytes;
    const qint64 elapsed = r.window.elapsed();
    r.windowLastMs = elapsed;
    if (elapsed < rateWindowMs)
        return;
    takeSample(r, r.windowBytes, elapsed);
    r.windowBytes = 0;
    r.window.start();
    r.windowLastMs = 0;
}

void MirrorChoice::takeSample(Rate &r, qint64 bytes, qint64 ms)
{
    const double sample = double(bytes) * 1000.0 / double(ms);
    // A mirror that falls to half its speed is believed at once: its files should move before
    // the link has idled for long. A faster one is believed over two windows.
    r.rate = r.rate > 0 && sample * 2 > r.rate ? (r.rate + sample) / 2 : sample;
    r.measuredAt.start();
}

// Before a whole window has passed, what arrived so far: a mirror that delivers a burst and falls
// idle is fast, not unknown.
double MirrorChoice::rate(int m) const
{
    const Rate &r = rates.at(m);
    if (r.rate > 0 || !r.window.isValid() || r.windowBytes <= 0)
        return r.rate;
    return double(r.windowBytes) * 1000.0 / double(qMax(r.windowLastMs, shortestWindowMs));
}

void MirrorChoice::noteStopped(int m)
{
    Rate &r = rates[m];
    const int times = r.timesStopped + 1;
    r = Rate();
    r.stopped = true;
    r.stoppedAt.start();
    r.timesStopped = times;
}

qint64 MirrorChoice::silentMs(int m) const
{
    const QElapsedTimer &last = rates.at(m).lastDelivery;
    return last.isValid() ? last.elapsed() : std::numeric_limits<qint64>::max();
}

bool MirrorChoice::isStale(int m) const
{
    const Rate &r = rates.at(m);
    const bool measuring = r.window.isValid() && r.window.elapsed() - r.windowLastMs <= idleGapMs;
    return !measuring && (!r.measuredAt.isValid() || r.measuredAt.elapsed() >= staleRateMs);
}

bool MirrorChoice::isMuchSlower(int m, int than) const
{
    return rate(m) > 0 && isMuchSlowerRate(rate(m), rate(than));
}

bool MirrorChoice::isMuchSlowerRate(double rate, double than)
{
    return than > 0 && than >= muchSlowerFactor * rate;
}
