#include "Http2ClientStandard/session/peer_settings.h"

#include <algorithm>

namespace h2 {

namespace {

Violation applySetting(const Setting& setting, PeerSettings& settings, SettingsChange& change) {
    switch (static_cast<SettingId>(setting.id)) {
        case SettingId::kHeaderTableSize:
            settings.headerTableSize = setting.value;
            change.tableSizeNamed = true;
            change.smallestTableSize = std::min(change.smallestTableSize, setting.value);
            break;
        case SettingId::kEnablePush:
            if (setting.value != 0) {
                return connectionError(ErrorCode::kProtocolError,
                                       "the server's ENABLE_PUSH is not 0");
            }
            break;
        case SettingId::kMaxConcurrentStreams: settings.maxConcurrentStreams = setting.value; break;
        case SettingId::kInitialWindowSize:
            if (setting.value > kMaxWindow) {
                return connectionError(ErrorCode::kFlowControlError,
                                       "INITIAL_WINDOW_SIZE is above 2^31-1");
            }
            settings.initialWindowSize = setting.value;
            change.largestWindow = std::max(change.largestWindow, setting.value);
            break;
        case SettingId::kMaxFrameSize:
            if (setting.value < kDefaultMaxFrameSize || setting.value > kLargestMaxFrameSize) {
                return connectionError(ErrorCode::kProtocolError,
                                       "MAX_FRAME_SIZE is not in 2^14 to 2^24-1");
            }
            settings.maxFrameSize = setting.value;
            break;
        case SettingId::kMaxHeaderListSize: settings.maxHeaderListSize = setting.value; break;
        default: break;  // RFC 9113, 6.5.2: passed over
    }
    return {};
}

}  // namespace

Violation applySettings(std::string_view payload, PeerSettings& settings, SettingsChange& change) {
    for (size_t i = 0; i < settingCount(payload); ++i) {
        if (const Violation violation = applySetting(readSetting(payload, i), settings, change)) {
            return violation;
        }
    }
    return {};
}

}  // namespace h2
