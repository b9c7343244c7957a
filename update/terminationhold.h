#pragma once

#include <csignal>
#include <iterator>

// Holds back SIGTERM, SIGINT and SIGHUP while the installation is between two versions (a stop
// by systemd or Ctrl-C during a switch): one that arrives is recorded, and takes the effect it
// would have had when the hold is released, at the latest when the object goes. A hold is
// process-wide; only one exists at a time.
class TerminationHold
{
public:
    TerminationHold();
    ~TerminationHold();
    TerminationHold(const TerminationHold &) = delete;
    TerminationHold &operator=(const TerminationHold &) = delete;

    void hold();
    void release();

private:
    static constexpr int heldSignals[] = {SIGTERM, SIGINT, SIGHUP};
    struct sigaction previous[std::size(heldSignals)] = {};
    bool holding = false;
};
