#pragma once

#include "session/markedsitedata.h"

#include <QElapsedTimer>
#include <QString>
#include <QVector>

// The mirrors of a download session, in the order of mirrors.ini, with their failed marks and
// what each has been seen to deliver. A mirror marked failed stays so; a slow one is only
// preferred less, never given up.
class MirrorChoice
{
public:
    // Reads the mirror list; a warning for the log when some of it is left unused.
    QString readMirrors(const QString &mirrorsFile, const QString &versionPath);

    const QVector<MarkedSiteData> &getMirrors() const { return mirrors; }
    int size() const { return mirrors.size(); }
    bool isEmpty() const { return mirrors.isEmpty(); }
    const MarkedSiteData &at(int m) const { return mirrors.at(m); }
    void markFailed(int m) { mirrors[m].failed = true; }

    // A random mirror not marked failed; -1 when every one is.
    int getNextMirror() const;
    // The mirrors not marked failed, the fastest known first, the others in list order.
    QVector<int> dealOrder() const;
    // The mirror not marked failed that delivers most; -1 while none has been measured.
    int fastest() const;

    // Bytes that arrived from mirror m just now; 0 while its transfers wait for more. Only
    // measured bytes, of transfers that show what the mirror can deliver, count for its rate.
    void noteDelivered(int m, qint64 bytes, bool measured = true);
    // Bytes a second mirror m delivers, over all its streams; 0 while unknown.
    double rate(int m) const;
    // Milliseconds since mirror m last delivered a byte; since the start of time if it never has.
    qint64 silentMs(int m) const;
    // Mirror m's streams were moved off it because it went silent: it counts as not measured,
    // and as no place to move to, until it delivers again.
    void noteStopped(int m);
    bool isStopped(int m) const { return rates.at(m).stopped; }
    // Milliseconds since mirror m was last found stopped or tried again, and how often it was
    // found stopped.
    qint64 stoppedMs(int m) const { return rates.at(m).stoppedAt.elapsed(); }
    int timesStopped(int m) const { return rates.at(m).timesStopped; }
    void noteRetried(int m) { rates[m].stoppedAt.start(); }
    // Mirror m's rate was measured long ago, before its streams left it: it may have changed.
    bool isStale(int m) const;
    // Both are measured and than delivers many times what m does.
    bool isMuchSlower(int m, int than) const;
    // The same for two rates in bytes a second; an unknown (0) rate is slower than any.
    static bool isMuchSlowerRate(double rate, double than);

private:
    struct Rate;
    static void takeSample(Rate &r, qint64 bytes, qint64 ms);

    struct Rate
    {
        QElapsedTimer window;
        QElapsedTimer lastDelivery;
        qint64 windowBytes = 0;
        // When the window last heard of the mirror: bytes, or that its transfers still wait.
        qint64 windowLastMs = 0;
        double rate = 0;
        QElapsedTimer measuredAt;
        bool stopped = false;
        QElapsedTimer stoppedAt;
        int timesStopped = 0;
    };

    QVector<MarkedSiteData> mirrors;
    QVector<Rate> rates;
};
