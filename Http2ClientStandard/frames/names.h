#ifndef HTTP2CLIENTSTANDARD_FRAMES_NAMES_H
#define HTTP2CLIENTSTANDARD_FRAMES_NAMES_H

#include <cstdint>
#include <string>
#include <string_view>

#include "Http2ClientStandard/frames/frame.h"

namespace h2 {

// What people call the numbers of RFC 9113, 6 and 7. One without a name gives its number, as in
// "error 4711".
std::string frameTypeName(FrameType type);
std::string errorName(uint32_t code);
std::string settingName(uint16_t id);
// The names of a frame's flags, each with a blank in front. Flags without a meaning are left out.
std::string flagNames(const FrameHeader& header);

// A peer's bytes for people: what is not printable ASCII is shown as in \x1b, and so is what comes
// behind the first `most` bytes, as "...".
std::string printable(std::string_view bytes, size_t most = 1000);

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_FRAMES_NAMES_H
