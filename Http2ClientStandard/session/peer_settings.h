#ifndef HTTP2CLIENTSTANDARD_SESSION_PEER_SETTINGS_H
#define HTTP2CLIENTSTANDARD_SESSION_PEER_SETTINGS_H

#include <cstdint>
#include <string_view>

#include "Http2ClientStandard/frames/frame_reader.h"

namespace h2 {

// The server's settings, as they stand (RFC 9113, 6.5.2).
struct PeerSettings {
    // Until the server's first SETTINGS have come. Then there is no limit, unless they name one.
    static constexpr uint32_t kConcurrencyBeforeSettings = 100;

    uint32_t headerTableSize = 4096;
    uint32_t maxConcurrentStreams = kConcurrencyBeforeSettings;
    uint32_t initialWindowSize = kDefaultWindow;
    uint32_t maxFrameSize = kDefaultMaxFrameSize;
    uint32_t maxHeaderListSize = UINT32_MAX;  // advice; not enforced
};

// What one SETTINGS frame says beyond the values that stand at its end.
struct SettingsChange {
    bool tableSizeNamed = false;
    uint32_t smallestTableSize = UINT32_MAX;  // of all named: the encoder must announce it
    uint32_t largestWindow = 0;               // of all named: no window may overflow on the way
};

// Applies a payload in order. A violation is a connection error.
Violation applySettings(std::string_view payload, PeerSettings& settings, SettingsChange& change);

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_SESSION_PEER_SETTINGS_H
