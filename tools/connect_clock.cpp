#include "connect_clock.h"

#include <cerrno>

#include <dlfcn.h>
#include <sys/socket.h>

namespace {

using Connect = int (*)(int, const sockaddr*, socklen_t);

thread_local std::optional<ConnectCall> lastCall;

}  // namespace

extern "C" __attribute__((visibility("default"))) int connect(int fd, const sockaddr* address,
                                                              socklen_t length) {
    static const auto next = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "connect"));
    const int result = next(fd, address, length);
    const int error = errno;
    lastCall = ConnectCall{fd, Clock::now(), result == 0 ? 0 : error};
    errno = error;
    return result;
}

void forgetConnectCall() { lastCall.reset(); }

std::optional<ConnectCall> lastConnectCall() { return lastCall; }
