#ifndef HTTP2CLIENTSTANDARD_SESSION_BODY_H
#define HTTP2CLIENTSTANDARD_SESSION_BODY_H

#include <cstddef>

#include "Http2ClientStandard/base/bytes.h"

namespace h2 {

// Room for the bytes of a body in the connection's output. Memory is taken at the first get().
class BodyRoom {
public:
    BodyRoom(Bytes& out, size_t size) : m_out(out), m_size(size) {}
    char* get() { return m_out.room(m_size); }
    size_t size() const { return m_size; }

private:
    Bytes& m_out;
    size_t m_size;
};

struct BodyPart {
    enum class State { kMore, kEnd, kFailed };
    State state = State::kEnd;
    const char* block = nullptr;  // where the bytes lie; null: in the room
    size_t size = 0;              // at most the room's
};

// A request's content.
class Body {
public:
    // Hands out the next bytes, at most room.size() of them, either written into the room or in a
    // block of its own, which must stay as it is until the output has been sent (or copied, see
    // Output::copyBlocks). Called only when the windows let that many bytes go out.
    // kMore without a byte means that there is nothing yet: Session::bodyReady() asks again.
    // kFailed, or more bytes than asked for, resets the stream.
    // May call what a Visitor may call.
    virtual BodyPart next(BodyRoom room) = 0;

protected:
    ~Body() = default;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_SESSION_BODY_H
