// Preloaded into the real updater by the end-to-end test: the first rename of a staged file into
// the installation, that is the switch under way, waits until the test lets it go. The test
// reads one byte from ORLIVO_HOLD_SWITCH/held once the switch is held, and closes its end of
// ORLIVO_HOLD_SWITCH/go to release it.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool held = false;

void holdHere(const std::string &dir)
{
    const int signal = ::open((dir + "/held").c_str(), O_WRONLY | O_CLOEXEC);
    if (signal >= 0) {
        static_cast<void>(::write(signal, "h", 1));
        ::close(signal);
    }
    const int release = ::open((dir + "/go").c_str(), O_RDONLY | O_CLOEXEC);
    char byte = 0;
    while (release >= 0 && ::read(release, &byte, 1) > 0) {
    }
    if (release >= 0)
        ::close(release);
}

} // namespace

extern "C" int rename(const char *from, const char *to)
{
    using Rename = int (*)(const char *, const char *);
    static const auto next = reinterpret_cast<Rename>(::dlsym(RTLD_NEXT, "rename"));
    const char *dir = std::getenv("ORLIVO_HOLD_SWITCH");
    if (dir && !held && std::strstr(from, "/.update-staging/new/")) {
        held = true;
        holdHere(dir);
    }
    return next(from, to);
}
