#pragma once

#include <QElapsedTimer>
#include <QStringList>

// Starts downloaded files for the disk, so that the flush before the switch finds them there.
// A large file starts at once. A small one costs a call of its own for little data: over a link
// the thread mostly waits and the call is free, but where files come as fast as the thread can
// take them (a mirror nearby) it would hold the run up, and the flush, which the kernel's
// writeback threads share, costs less. So small files start only while the thread has time to
// spare, some of those held back with each; what is still held at the end is left to the flush.
class IdleWriteback
{
public:
    void add(const QString &path, quint64 size);
    int heldBack() const { return int(held.size()); }

private:
    bool threadHasTime();

    QStringList held;
    QElapsedTimer window;
    qint64 windowStartCpuNs = 0;
    // Until a window has shown otherwise: a run's first files come in a burst.
    bool hasTime = false;
};
