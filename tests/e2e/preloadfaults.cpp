// Preloaded into the updater by the end-to-end test, which turns each fault on by its variable:
// - ORLIVO_HOLD_SWITCH: the first rename of a staged file into the installation writes a byte to
//   $ORLIVO_HOLD_SWITCH/held, then waits for the test to close its end of $ORLIVO_HOLD_SWITCH/go.
// - ORLIVO_FAIL_SWITCH: the first rename of a staged file into the installation fails as on a
//   file nobody may replace.
// - ORLIVO_FAIL_REWRITE: the first opening of an unpacked file to write its bytes back into it
//   fails as on a full disk.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool failsRewrite(const char *path, int flags)
{
    static bool failed = false;
    if (failed || !std::getenv("ORLIVO_FAIL_REWRITE") || !std::strstr(path, "/.patched/")
        || (flags & O_ACCMODE) != O_WRONLY || (flags & O_CREAT))
        return false;
    failed = true;
    errno = ENOSPC;
    return true;
}

} // namespace

extern "C" int open(const char *path, int flags, ...)
{
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    if (failsRewrite(path, flags))
        return -1;
    using Open = int (*)(const char *, int, ...);
    return reinterpret_cast<Open>(::dlsym(RTLD_NEXT, "open"))(path, flags, mode);
}

// Callers built for large files call this name; on 64-bit systems it is the same call.
extern "C" int open64(const char *path, int flags, ...) __attribute__((alias("open")));

extern "C" int rename(const char *from, const char *to)
{
    static bool held = false;
    static bool failed = false;
    const bool intoInstallation = std::strstr(from, "/.update-staging/new/") != nullptr;
    if (intoInstallation && !failed && std::getenv("ORLIVO_FAIL_SWITCH")) {
        failed = true;
        errno = EACCES;
        return -1;
    }
    const char *dir = std::getenv("ORLIVO_HOLD_SWITCH");
    if (dir && !held && intoInstallation) {
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
