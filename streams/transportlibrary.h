#pragma once

// Holds libcurl's process-wide initialisation for its own lifetime. main() and every test main
// create exactly one, before any transport exists and before any other thread is started.
class TransportLibrary
{
public:
    TransportLibrary();
    ~TransportLibrary();

    TransportLibrary(const TransportLibrary &) = delete;
    TransportLibrary &operator=(const TransportLibrary &) = delete;

private:
    bool initialized = false;
};
