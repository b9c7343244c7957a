// Preloaded into the updater by the end-to-end test: the first rename of a staged file into the
// installation writes a byte to $ORLIVO_HOLD_SWITCH/held, then waits for the test to close its
// end of $ORLIVO_HOLD_SWITCH/go.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int rename(const char *from, const char *to)
{
    static bool held = false;
    const char *dir = std::getenv("ORLIVO_HOLD_SWITCH");
    if (dir && !held && std::strstr(from, "/.update-staging/new/")) {
        held = true;
        const int signal = ::open((std::string(dir) + "/held").c_str(), O_WRONLY);
        static_cast<void>(::write(signal, "h", 1));
        ::close(signal);
        const int release = ::open((std::string(dir) + "/go").c_str(), O_RDONLY);
        for (char byte = 0; ::read(release, &byte, 1) > 0;) {
        }
        ::close(release);
    }
    using Rename = int (*)(const char *, const char *);
    return reinterpret_cast<Rename>(::dlsym(RTLD_NEXT, "rename"))(from, to);
}
