#ifndef HTTP2CLIENT_TOOLS_CONNECT_CLOCK_H
#define HTTP2CLIENT_TOOLS_CONNECT_CLOCK_H

#include <optional>

#include "timing.h"

// The library connects and does the TLS handshake in one call, and tells neither when the first
// ended nor why it failed. So this program has a connect function of its own, which the dynamic
// linker prefers to the system's: it calls that one, and notes its end and its error.
struct ConnectCall {
    int fd;
    TimePoint end;
    int error;  // errno; 0 for success
};

// Both are about the calling thread only.
void forgetConnectCall();
std::optional<ConnectCall> lastConnectCall();  // nothing when none was seen since then

#endif  // HTTP2CLIENT_TOOLS_CONNECT_CLOCK_H
