// The forwarding driver, played by the test executable that links this helper: it defines open,
// open64, ioctl and close, answers them itself for the device path and the descriptors it handed
// out (real descriptors of /dev/null, so that a close is a real close), and hands every other path
// and descriptor to the C library's own functions. A suite says how the device answers.
// Include it from one source file of a test executable: it defines those calls there, and only an
// executable that asks for the driver gets it (an archive member would be linked into every suite
// that calls close).
#pragma once

#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>

#include "zfx_service.h"

namespace zfxtest {

struct FcfwdDriver {
    std::mutex mu;  // guards the counters and sets below; the hooks run without it
    int opens = 0, last_flags = -1;
    std::set<int> fds, closed;  // descriptors handed out and still open; closed ones
    // Before an open hands out a descriptor: 0, or the errno the open fails with.
    std::function<int()> on_open;
    // A control call on a descriptor of the device: 0, or the errno it fails with.
    std::function<int(int fd, unsigned long request, uint8_t *arg)> on_control;

    bool ours(int fd) {
        std::lock_guard<std::mutex> g(mu);
        return fds.count(fd) != 0;
    }
};

// The one driver of the executable.
inline FcfwdDriver &fcfwd_driver() {
    static FcfwdDriver driver;
    return driver;
}

namespace {

template <typename F>
F libc(const char *name) { return reinterpret_cast<F>(dlsym(RTLD_NEXT, name)); }

using OpenFn = int (*)(const char *, int, ...);

int driver_open(const char *path, int flags, mode_t mode, const char *name) {
    if (std::strcmp(path, ZFX_FCFWD_PATH) != 0) return libc<OpenFn>(name)(path, flags, mode);
    FcfwdDriver &d = fcfwd_driver();
    {
        std::lock_guard<std::mutex> g(d.mu);
        ++d.opens;
        d.last_flags = flags;
    }
    if (const int error = d.on_open ? d.on_open() : 0; error != 0) return errno = error, -1;
    const int fd = libc<OpenFn>("open")("/dev/null", O_RDONLY);
    std::lock_guard<std::mutex> g(d.mu);
    d.fds.insert(fd);
    return fd;
}

}  // namespace
}  // namespace zfxtest

// Visible to the library, which calls them (the build hides what it does not mark). open64 is
// what a build with 64-bit file offsets would call.
#define DRIVER_API extern "C" __attribute__((visibility("default")))
#define DRIVER_OPEN(name)                                                           \
    DRIVER_API int name(const char *path, int flags, ...) {                         \
        va_list ap;                                                                 \
        va_start(ap, flags);                                                        \
        const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(ap, mode_t) : 0; \
        va_end(ap);                                                                 \
        return zfxtest::driver_open(path, flags, mode, #name);                      \
    }
DRIVER_OPEN(open)
DRIVER_OPEN(open64)

DRIVER_API int ioctl(int fd, unsigned long request, ...) __THROW {
    va_list ap;
    va_start(ap, request);
    auto *arg = va_arg(ap, uint8_t *);
    va_end(ap);
    zfxtest::FcfwdDriver &d = zfxtest::fcfwd_driver();
    if (!d.ours(fd)) return zfxtest::libc<int (*)(int, unsigned long, ...)>("ioctl")(fd, request, arg);
    const int error = d.on_control ? d.on_control(fd, request, arg) : ENOTTY;
    return error != 0 ? (errno = error, -1) : 0;
}

DRIVER_API int close(int fd) {
    zfxtest::FcfwdDriver &d = zfxtest::fcfwd_driver();
    {
        std::lock_guard<std::mutex> g(d.mu);
        if (d.fds.erase(fd) != 0) d.closed.insert(fd);
    }
    return zfxtest::libc<int (*)(int)>("close")(fd);
}
