#ifndef HTTP2CLIENTSTANDARD_CLIENT_CLIENT_EXCHANGE_H
#define HTTP2CLIENTSTANDARD_CLIENT_CLIENT_EXCHANGE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Http2Client/HttpClientInterface.h"
#include "Http2ClientStandard/base/bytes.h"
#include "Http2ClientStandard/base/ref.h"
#include "Http2ClientStandard/base/signal.h"
#include "Http2ClientStandard/client/callback_gate.h"
#include "Http2ClientStandard/client/message.h"
#include "Http2ClientStandard/pool/exchange.h"

namespace h2 {

// The limits of a request.
struct ExchangeLimits {
    Time firstByte = 0;  // milliseconds; 0: none
    Time wholeRequest = 0;
    Time silence = 0;
    bool collects = false;  // keeps the content of the answer, for blockedRequest
    size_t maxContent = 0;  // then
};

// A client's request while it runs: turns the events of its connection into callbacks. The client
// may be destroyed meanwhile, and may start its next request in a callback.
class ClientExchange final : public Exchange, private Body {
public:
    ClientExchange(tiny::HttpClientInterface& client, Ref<CallbackGate> gate)
        : m_client(client), m_gate(std::move(gate)) {}

    // Makes it ready for the next request, whose fields and content the caller fills in. Only when
    // nobody else refers to it.
    void begin(const ExchangeLimits& limits, const Message& message);
    RequestFields& requestFields() { return m_fields; }
    Content& content() { return m_content; }

    // Ends the request without a callback. When it has returned, no callback of the client runs on
    // another thread.
    void cancel();
    bool isOver() const { return m_gate->isOver(m_over); }
    // Ends the request when a time-out has passed. Returns when to be called next, or kNever.
    Time checkTime(Time now);

    // Set when the request is over and its last callback has returned.
    Signal& ended() { return m_ended; }
    // After that.
    bool complete() const { return m_complete; }
    std::string takeContent() { return std::move(m_collected); }
    void answer(int& status, std::map<std::string, std::string>& headers) const;

    bool answerBegun() const { return m_answerBegun.load(); }
    std::string error() const;
    // Microseconds; -1: has not happened.
    int64_t firstByteTime() const { return since(m_firstByteAt.load()); }
    int64_t totalTime() const { return since(m_endedAt.load()); }

private:
    // Exchange
    std::span<const hpack::Field> fields() const override { return m_fields.get(); }
    hpack::KeptFields* kept() override { return &m_fields.kept(); }
    size_t keptFrom() const override { return RequestFields::kFirstKept; }
    bool isHead() const override { return m_isHead; }
    bool isIdempotent() const override { return m_isIdempotent; }
    Body* body() override;
    bool sendableAnywhere() const override { return m_content.reader == nullptr; }
    bool rewind() override;
    bool cancelled() override { return isOver(); }
    void onHeaders(uint32_t status, const hpack::FieldList& fields) override;
    void onData(const char* data, size_t size, bool last) override;
    void onTrailers(const hpack::FieldList& fields) override;
    void onComplete() override;
    void onFailure(Failure failure, const char* reason) override;

    // Body
    BodyPart next(BodyRoom room) override;
    BodyPart nextOfBlock(size_t size);
    BodyPart nextOfReader(BodyRoom& room);
    bool read(char* to, BodyPart& part);
    bool keepsLength() const;

    void keepFields(const hpack::FieldList& fields);
    void callHeaders();
    void deliver(const char* data, size_t size, bool last);
    bool collect(const char* data, size_t size);
    void markEnd();
    int64_t since(int64_t moment) const { return moment == 0 ? -1 : moment - m_begunAt; }

    tiny::HttpClientInterface& m_client;  // used between enter() and leave() of the gate only
    const Ref<CallbackGate> m_gate;
    bool m_over = true;  // guarded by the gate
    ExchangeLimits m_limits;

    // The request. Constant while it runs.
    RequestFields m_fields;
    Content m_content;
    bool m_isHead = false;
    bool m_isIdempotent = false;

    // Its content on the way out.
    uint64_t m_given = 0;  // bytes, by block or reader
    Bytes m_staged;        // by the reader, and not yet sent
    bool m_readerAsked = false;
    bool m_readerEnded = false;

    // Its answer.
    struct Sizes {
        size_t name;
        size_t value;
    };
    int m_status = 0;
    std::string m_texts;  // of the fields; a NUL follows each
    std::vector<Sizes> m_sizes;
    std::vector<tiny::HttpClientInterface::HeaderDef> m_headers;
    std::string m_collected;
    bool m_complete = false;
    std::atomic<bool> m_answerBegun{false};
    Signal m_ended;

    mutable std::mutex m_errorLock;  // guards m_error
    std::string m_error;

    // Microseconds of a clock that never goes back; 0: has not happened.
    int64_t m_begunAt = 0;
    std::atomic<int64_t> m_firstByteAt{0};
    std::atomic<int64_t> m_endedAt{0};
    std::atomic<Time> m_lastPiece{0};  // of the answer; kept when there is a limit on silence
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_CLIENT_CLIENT_EXCHANGE_H
