#ifndef HTTP2CLIENTSTANDARD_CLIENT_OPTIONS_H
#define HTTP2CLIENTSTANDARD_CLIENT_OPTIONS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "Http2ClientStandard/Http2ClientOptions.h"
#include "Http2ClientStandard/base/time.h"
#include "Http2ClientStandard/pool/server.h"

namespace h2 {

// What an application may choose. Times in milliseconds.
struct Options {
    TlsOptions tls;
    bool ownConnection = false;
    ConnectSettings connect;
    size_t threads = 1;  // of the process
    Time firstByte = 0;  // time-outs; 0: none
    Time wholeRequest = 0;
    Time silence = 0;
    size_t maxBlockedBody = size_t{64} << 20;

    // False when the option is unknown or the value is out of its range.
    bool set(HTTP2_OPTION option, int64_t value);
    bool set(HTTP2_TEXT_OPTION option, const char* text);
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_CLIENT_OPTIONS_H
