#ifndef HTTP2CLIENTSTANDARD_SESSION_OPTIONS_H
#define HTTP2CLIENTSTANDARD_SESSION_OPTIONS_H

#include <cstdint>

#include "Http2ClientStandard/base/time.h"

namespace h2 {

struct SessionOptions {
    // Receive windows. A window is given back when half of it is used: 1 Gbit/s at 100 ms needs
    // twice 12.5 MB. Content is delivered as it arrives, so that a window costs no memory.
    uint32_t streamWindow = 32 << 20;      // 1 to 2^31-1
    uint32_t connectionWindow = 64 << 20;  // 65535 to 2^31-1

    Time pingAfter = 30'000;    // silence while requests run, before a PING; 0: never
    Time pingTimeout = 15'000;  // silence after the PING, before the connection is given up

    // Bounds on what a server may cost. Crossing one is ENHANCE_YOUR_CALM: on the stream for the
    // header list and interim answers, else on the connection.
    uint32_t maxHeaderList = 128 << 10;   // octets, 32 a field included; announced to the server
    uint32_t maxHeaderBlock = 144 << 10;  // octets of HEADERS and its CONTINUATIONs
    uint32_t maxContinuations = 1000;     // CONTINUATION frames of one block
    uint32_t maxInterim = 100;            // 1xx answers of one request
    uint32_t maxReplies = 1000;     // replies to the server's frames that wait to be sent, each at
                                    // most 17 bytes
    uint32_t frameBudget = 20'000;  // see FrameBudget
    uint32_t frameBudgetPerSecond = 2'000;  // see FrameBudget
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_SESSION_OPTIONS_H
