#include "server/stopsignals.h"

#include <csignal>

#include <sys/signalfd.h>
#include <unistd.h>

namespace {

sigset_t stopSet()
{
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGTERM);
    sigaddset(&stops, SIGINT);
    return stops;
}

} // namespace

void StopSignals::block()
{
    const sigset_t stops = stopSet();
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);
}

StopSignals::StopSignals(QObject *parent)
    : QObject(parent)
{
    const sigset_t stops = stopSet();
    descriptor = signalfd(-1, &stops, SFD_NONBLOCK | SFD_CLOEXEC);
    if (descriptor < 0) {
        // Stopped the hard way rather than never.
        pthread_sigmask(SIG_UNBLOCK, &stops, nullptr);
        return;
    }
    notifier = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &StopSignals::readSignal);
}

StopSignals::~StopSignals()
{
    notifier.reset();
    if (descriptor >= 0)
        close(descriptor);
}

void StopSignals::readSignal()
{
    signalfd_siginfo info = {};
    if (read(descriptor, &info, sizeof info) == ssize_t(sizeof info))
        emit stopRequested(int(info.ssi_signo));
}
