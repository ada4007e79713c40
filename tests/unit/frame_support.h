#ifndef HTTP2CLIENT_TESTS_UNIT_FRAME_SUPPORT_H
#define HTTP2CLIENT_TESTS_UNIT_FRAME_SUPPORT_H

#include <memory>
#include <string>

#include "Http2Client/frame.h"
#include "tests/support/guarded.h"

inline std::string text(const Buffer& buffer) { return std::string(buffer.buffer, buffer.len); }

inline std::string payload(tiny::Frame& frame, hpack::Table* table = nullptr) {
    return text(*std::unique_ptr<Buffer>(frame.encodeFramePayload(table)));
}

inline std::string wire(tiny::Frame& frame, hpack::Table* table = nullptr) {
    return text(*std::unique_ptr<Buffer>(frame.encodeFrame(table)));
}

// Decodes from memory that ends with the payload, or with what `after` adds to it.
inline bool decode(tiny::Frame& frame, const std::string& bytes, const std::string& after = "") {
    const h2test::GuardedBytes guarded(bytes, after);
    hpack::Table table;
    return frame.decodeFramePayload(guarded.data(), static_cast<int>(bytes.size()), table);
}

#endif  // HTTP2CLIENT_TESTS_UNIT_FRAME_SUPPORT_H
