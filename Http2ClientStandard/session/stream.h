#ifndef HTTP2CLIENTSTANDARD_SESSION_STREAM_H
#define HTTP2CLIENTSTANDARD_SESSION_STREAM_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Http2ClientStandard/hpack/encoder.h"
#include "Http2ClientStandard/session/body.h"
#include "Http2ClientStandard/session/windows.h"

namespace h2 {

// A place in one of the session's lists. A stream that is unlinked points at itself.
template <int kList>
struct Link {
    Link* next = this;
    Link* previous = this;

    Link() = default;
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    bool linked() const { return next != this; }
    void unlink() {
        next->previous = previous;
        previous->next = next;
        next = previous = this;
    }
    void insertBefore(Link& other) {
        next = &other;
        previous = other.previous;
        previous->next = this;
        other.previous = this;
    }
};

using LifeLink = Link<0>;   // waiting, open or ending
using ReadyLink = Link<1>;  // content may be sent
using DueLink = Link<2>;    // a WINDOW_UPDATE is due

// A copy of a request's fields, for as long as the request waits.
class StoredFields {
public:
    void store(std::span<const hpack::Field> fields);
    // Views into the copy; they live as long as it.
    void view(std::vector<hpack::Field>& fields) const;
    void clear();

private:
    struct Sizes {
        size_t name;
        size_t value;
        bool neverIndexed;
    };
    std::string m_texts;
    std::vector<Sizes> m_sizes;
};

// A request and its answer.
struct Stream : LifeLink, ReadyLink, DueLink {
    // What the server may send next.
    enum class Phase : uint8_t { kHeaders, kContent };

    uint32_t id = 0;  // 0: in the pool
    Phase phase = Phase::kHeaders;
    bool sent = false;          // HEADERS are in the output: counts as open, until it ends
    bool head = false;          // the request's method is HEAD
    bool answerBegun = false;   // see StreamEnd
    bool paused = false;        // its receive window is not given back
    bool lengthKnown = false;   // contentLeft must be 0 at the end
    uint32_t interimCount = 0;  // 1xx answers
    ReceiveWindow receiveWindow;
    SendWindow sendWindow;
    uint64_t contentLeft = 0;  // octets of content that may still come; huge when not known
    void* user = nullptr;
    Body* body = nullptr;  // null: the request is sent whole
    StoredFields stored;   // while it waits
};

// Streams of one kind in the order in which they came. A stream is in at most one list of a kind;
// its link's unlink() takes it out of whichever it is in.
template <typename ListLink>
class StreamList {
public:
    bool empty() const { return !m_end.linked(); }
    Stream& front() const { return *static_cast<Stream*>(m_end.next); }
    void pushBack(Stream& stream) {
        ListLink& link = stream;
        if (link.linked()) link.unlink();
        link.insertBefore(m_end);
    }
    // The stream behind `stream`, or null; first() of an empty list is null.
    Stream* first() const { return at(m_end.next); }
    Stream* after(Stream& stream) const { return at(static_cast<ListLink&>(stream).next); }

private:
    Stream* at(ListLink* link) const {
        return link == &m_end ? nullptr : static_cast<Stream*>(link);
    }
    ListLink m_end;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_SESSION_STREAM_H
