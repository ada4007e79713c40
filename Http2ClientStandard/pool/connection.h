#ifndef HTTP2CLIENTSTANDARD_POOL_CONNECTION_H
#define HTTP2CLIENTSTANDARD_POOL_CONNECTION_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Http2ClientStandard/base/ref.h"
#include "Http2ClientStandard/frames/output.h"
#include "Http2ClientStandard/loop/loop.h"
#include "Http2ClientStandard/pool/exchange.h"
#include "Http2ClientStandard/session/session.h"
#include "Http2ClientStandard/trace/frame_trace.h"
#include "Http2ClientStandard/transport/transport.h"

namespace h2 {

// What is known of a connection since it was made.
struct ConnectionInfo {
    std::string peer;        // address
    std::string tlsVersion;  // empty: plain
    Time nameTime = 0;       // milliseconds that each step took
    Time connectTime = 0;
    Time tlsTime = 0;
};

struct ConnectionOptions {
    SessionOptions session;
    Time idleTimeout = 90'000;  // without a request; 0: never closed
    TraceSink trace;
};

// A request that has ended without its whole answer, and what is known of its connection.
struct AttemptEnd {
    StreamEnd stream;
    bool answeredBefore = false;  // the connection had answered others
    bool saidGoAway = false;
    bool silent = false;  // it was given up because the server was silent
    // The GOAWAY, and its debug data made printable; both empty: there was none, or it said
    // NO_ERROR and nothing else.
    std::string_view goAway;
    std::string_view debugData;
};

// To whom a connection reports. The calls come on the loop's thread; those for a request that is
// refused at once come on the thread that starts it.
class ConnectionEvents {
public:
    // The connection takes no further requests. Once.
    virtual void onRetired(Connection& connection) = 0;
    // `exchange` has ended without its whole answer.
    virtual void onAttemptEnd(const Ref<Exchange>& exchange, const AttemptEnd& end) = 0;

protected:
    ~ConnectionEvents() = default;
};

// One connection to a server: its transport, its session, and the requests on their way to it.
//
// Threads: transport, session and output belong to whoever has m_useLock. The loop's thread takes
// it for as long as it serves the connection, callbacks included. Applications' threads only try:
// who gets it and finds nothing under way sends its request at once; else the request goes into the
// inbox, and the loop is woken if it is not about to look there.
class Connection final : public RefCounted, private Handler, private Visitor {
public:
    // `transport` is ready for data. `keeper` keeps `events` alive.
    Connection(Loop& loop, std::unique_ptr<Transport> transport, ConnectionInfo info,
               const ConnectionOptions& options, Ref<RefCounted> keeper, ConnectionEvents& events);

    // Lets the loop serve the connection. Any thread, once, before any other call.
    void attach();

    // False when the connection takes no further requests: nothing has happened then. Any thread.
    bool start(const Ref<Exchange>& exchange);
    // Resets the exchange's stream, if it is open, and forgets the exchange. Any thread.
    void cancel(Exchange& exchange);
    // Does what Exchange::pause() was told last. Any thread.
    void pauseAsWanted(Exchange& exchange);
    // Takes no further requests, and closes when those that run are over. Any thread.
    void retire();

    size_t load() const { return m_load.load(std::memory_order_relaxed); }  // running requests
    const std::shared_ptr<const ConnectionInfo>& info() const { return m_info; }

private:
    struct Command {
        enum class Kind : uint8_t { kSubmit, kCancel, kPause, kRetire, kWake };
        Kind kind;
        Ref<Exchange> exchange;  // null for kRetire and kWake
    };

    // connection.cpp: the loop's turns
    void onReady(uint32_t events) override;
    void onDeadline() override;
    void serve(bool readable);
    void enterLoop();
    void checkTime();
    void receive();
    bool readOnce(char* buffer);
    void send();
    bool sendOnce();
    void finishTurn();
    void lose(const char* reason);
    void stopTaking();
    void beginClosing();
    void close();
    void rest();
    void arm();
    bool isIdle() const { return m_session.requests() == 0 && m_output.empty(); }
    Time nextDeadline() const;

    // requests.cpp: requests in, events out
    bool startAtOnce(const Ref<Exchange>& exchange);
    void breakOff(Exchange& exchange);
    bool sendsLater() const;
    void wakeLoop();
    bool post(Command::Kind kind, Exchange* exchange);
    void runCommands();
    bool endLooking();
    void run(const Command& command);
    void submit(const Ref<Exchange>& exchange);
    void applyPause(const Exchange& exchange);
    void forget(Exchange& exchange);
    Ref<Exchange> release(Exchange& exchange);
    void endAttempt(const Ref<Exchange>& exchange, StreamEnd end);
    void onHeaders(uint32_t stream, void* user, uint32_t status,
                   const hpack::FieldList& fields) override;
    void onData(uint32_t stream, void* user, const char* data, size_t size, bool last) override;
    void onTrailers(uint32_t stream, void* user, const hpack::FieldList& fields) override;
    void onEnd(uint32_t stream, void* user, const StreamEnd& end) override;
    void onGoAway(const GoAway& goAway) override;

    Loop& m_loop;
    const std::shared_ptr<const ConnectionInfo> m_info;
    const Time m_idleTimeout;
    const Ref<RefCounted> m_keeper;
    ConnectionEvents& m_events;
    std::atomic<size_t> m_load{0};

    std::mutex m_useLock;                      // guards what follows
    std::unique_ptr<Transport> m_transport;    // null: closed
    std::unique_ptr<ConnectionTrace> m_trace;  // null: nobody wants to see the frames
    Session m_session;
    Output m_output;             // produced by the session and not yet taken by the transport
    bool m_outputBegun = false;  // the transport has taken a part of what was produced last
    uint32_t m_sentBefore = 0;   // highest stream whose HEADERS were produced before that
    bool m_writeFailed = false;
    bool m_moreToRead = false;  // stopped to be fair to other connections
    bool m_moreToSend = false;
    bool m_retired = false;         // onRetired() has been called
    bool m_answeredBefore = false;  // has answered requests, before a GOAWAY if there is one
    bool m_saidGoAway = false;
    std::string m_goAway;  // this and the next: as in AttemptEnd
    std::string m_debugData;
    bool m_silent = false;
    bool m_broken = false;   // by a lack of memory
    bool m_resting = false;  // memory of a busy connection has been given back
    Time m_now = 0;
    Time m_idleSince = 0;             // 0: not idle
    Time m_closeAt = kNever;          // what the server still sends is passed over until then
    Time m_armed = kNever;            // the loop calls onDeadline() then
    Ref<Connection> m_inLoop;         // itself, while the loop serves it
    std::vector<Command> m_commands;  // being run

    std::mutex m_inboxLock;  // guards what follows; taken last
    std::vector<Command> m_inbox;
    bool m_takesRequests = true;
    bool m_over = false;            // nothing is put into the inbox any more
    Ref<Connection> m_woken;        // itself, while the loop has been woken to serve it
    bool m_looksIntoInbox = false;  // the loop serves it, and looks here before its turn ends
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_POOL_CONNECTION_H
