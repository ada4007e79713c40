#ifndef HTTP2CLIENT_TOOLS_PROBE_H
#define HTTP2CLIENT_TOOLS_PROBE_H

#include <string>
#include <string_view>

#include "options.h"

// What a connection of this program's own finds out about a server. The library tells only that a
// connection or a request failed; this tells why, as far as it can be seen in a second.
struct Probe {
    int error = 0;        // errno of making a TCP connection; 0 when there was one, or no time
    std::string finding;  // for the user, with what to do; empty when nothing was found
};

// To be called after a failure. Takes a second at most, no longer than --timeout, and ends at once
// after Ctrl-C.
Probe probeServer(const Options& options);

// What the first bytes that a server sent say of it; nothing when they may be HTTP/2.
std::string describeFirstBytes(std::string_view bytes, bool tls);

#endif  // HTTP2CLIENT_TOOLS_PROBE_H
