#ifndef HTTP2CLIENT_TESTS_STANDARD_SESSION_SUPPORT_H
#define HTTP2CLIENT_TESTS_STANDARD_SESSION_SUPPORT_H

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Http2ClientStandard/hpack/decoder.h"
#include "Http2ClientStandard/session/session.h"
#include "tests/support/bytes.h"

namespace h2test {

using Lines = std::vector<std::string>;

// A body of text. `inBlock`: handed out by reference, else written into the room.
class TextBody : public h2::Body {
public:
    explicit TextBody(std::string text, bool inBlock = false)
        : m_text(std::move(text)), m_inBlock(inBlock) {}
    h2::BodyPart next(h2::BodyRoom room) override;
    size_t calls = 0;

private:
    std::string m_text;
    size_t m_given = 0;
    bool m_inBlock;
};

// A body that does what it is told, once a call.
class ScriptedBody : public h2::Body {
public:
    explicit ScriptedBody(std::function<h2::BodyPart(h2::BodyRoom)> script)
        : m_script(std::move(script)) {}
    h2::BodyPart next(h2::BodyRoom room) override { return m_script(room); }

private:
    std::function<h2::BodyPart(h2::BodyRoom)> m_script;
};

// One way of cutting what the server sends.
struct Cut {
    static constexpr size_t kNowhere = SIZE_MAX;
    bool byteByByte = false;
    size_t at = kNowhere;  // counted over all that the server sends
};

// A session without a socket, and the server's end of it, which is written by hand.
class Peer : public h2::Visitor {
public:
    explicit Peer(Cut cut, const h2::SessionOptions& options = {});

    h2::Session& session() { return *m_session; }

    // Both prefaces, and the acknowledgements.
    void start(const std::vector<std::pair<uint16_t, uint32_t>>& settings = {});
    // A request; returns its stream.
    uint32_t get(const std::string& path = "/", const std::string& method = "GET");
    uint32_t post(h2::Body& body, const std::string& path = "/");
    // get() whose HEADERS have been sent.
    uint32_t sentGet();
    uint32_t sentPost(h2::Body& body);

    // The server sends bytes; they arrive cut.
    void server(std::string_view bytes);
    // The same, and afterwards tells the events.
    Lines answer(std::string_view bytes) {
        server(bytes);
        return events();
    }

    // What happened since the last call: "headers 1 200 a=b", "data 1 text", "end 1 complete" ...
    Lines events();
    // What has been sent since the last call, a line a frame: "PING ack", "DATA 1 text end" ...
    Lines sent(size_t limit = 1 << 20);
    std::string sentBytes(size_t limit = 1 << 20);
    // The error as "1 reason" would have it, by code only; "" when there is none.
    std::string error() const;

    // Called with each event after it has been recorded.
    std::function<void(const std::string& event)> reaction;
    h2::Time now = 1000;
    size_t received = 0;  // bytes of the server's so far
    uint32_t lastStream = 0;

    void onInterim(uint32_t stream, void* user, uint32_t status,
                   const h2::hpack::FieldList& fields) override;
    void onHeaders(uint32_t stream, void* user, uint32_t status,
                   const h2::hpack::FieldList& fields) override;
    void onData(uint32_t stream, void* user, const char* data, size_t size, bool last) override;
    void onTrailers(uint32_t stream, void* user, const h2::hpack::FieldList& fields) override;
    void onEnd(uint32_t stream, void* user, const h2::StreamEnd& end) override;
    void onSettings() override;
    void onGoAway(const h2::GoAway& goAway) override;

private:
    uint32_t submit(const std::string& method, const std::string& path, h2::Body* body);
    void record(const std::string& event);
    void feed(std::string_view bytes);
    std::string describe(const WireFrame& frame);

    Cut m_cut;
    std::unique_ptr<h2::Session> m_session;
    Lines m_events;
    uint32_t m_openData = 0;  // stream of the data event at the end of m_events
    uint32_t m_answered = 0;  // stream whose data event said that it was the last
    bool m_prefaceTaken = false;
    h2::hpack::Decoder m_decoder;
    std::string m_block;  // of HEADERS not yet ended
};

// Plays a scene with the server's bytes whole, byte by byte, and cut at each place (at some 300 of
// them, when there are more): the scene's expectations must be met each time.
void play(const std::function<void(Peer&)>& scene, const h2::SessionOptions& options = {});
// With the server's bytes whole only: for scenes of megabytes.
void playWhole(const std::function<void(Peer&)>& scene, const h2::SessionOptions& options = {});

// ":status" as a literal, which is the same in any table.
std::string status(const std::string& code);

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_STANDARD_SESSION_SUPPORT_H
