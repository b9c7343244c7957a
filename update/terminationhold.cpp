#include "update/terminationhold.h"

namespace {

volatile std::sig_atomic_t arrived = 0;

void recordArrival(int signal)
{
    arrived = signal;
}

} // namespace

TerminationHold::TerminationHold()
{
    hold();
}

TerminationHold::~TerminationHold()
{
    release();
}

void TerminationHold::hold()
{
    if (holding)
        return;
    holding = true;
    struct sigaction recording = {};
    recording.sa_handler = recordArrival;
    // A system call that was waiting goes on waiting: the switch in progress must not see EINTR.
    recording.sa_flags = SA_RESTART;
    sigemptyset(&recording.sa_mask);
    for (std::size_t i = 0; i < std::size(heldSignals); ++i)
        sigaction(heldSignals[i], &recording, &previous[i]);
}

void TerminationHold::release()
{
    if (!holding)
        return;
    holding = false;
    for (std::size_t i = 0; i < std::size(heldSignals); ++i)
        sigaction(heldSignals[i], &previous[i], nullptr);
    if (const int signal = arrived) {
        arrived = 0;
        std::raise(signal);
    }
}
