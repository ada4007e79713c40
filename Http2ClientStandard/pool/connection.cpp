// The turns of the loop: reading, sending, deadlines, the end.
#include "Http2ClientStandard/pool/connection.h"

#include <algorithm>

#include "Http2Client/log.h"

namespace h2 {

namespace {

constexpr size_t kReadBuffer = size_t{64} * 1024;
constexpr size_t kSendBatch = size_t{256} * 1024;
constexpr size_t kSendParts = 64;
// Full buffers that one connection reads or sends before the others have their turn.
constexpr int kRoundsATurn = 16;
// An idle connection gives its memory back after this.
constexpr Time kRestAfter = 1000;
// So long a connection that we close lets the server read our last frames: a socket closed with
// unread bytes would be reset, and the frames lost.
constexpr Time kLinger = 1000;

// Every connection of the thread uses it in turn.
char* readBuffer() {
    static thread_local const std::unique_ptr<char[]> buffer(new char[kReadBuffer]);
    return buffer.get();
}

}  // namespace

Connection::Connection(Loop& loop, std::unique_ptr<Transport> transport, ConnectionInfo info,
                       const ConnectionOptions& options, Ref<RefCounted> keeper,
                       ConnectionEvents& events)
    : m_loop(loop),
      m_info(std::make_shared<const ConnectionInfo>(std::move(info))),
      m_idleTimeout(options.idleTimeout),
      m_keeper(std::move(keeper)),
      m_events(events),
      m_transport(std::move(transport)),
      m_trace(options.trace ? std::make_unique<ConnectionTrace>(options.trace) : nullptr),
      m_session(*this, options.session) {}

void Connection::attach() { post(Command::Kind::kWake, nullptr); }

void Connection::onReady(uint32_t /*events*/) { serve(true); }

void Connection::onDeadline() {
    {
        const std::lock_guard<std::mutex> hold(m_useLock);
        m_armed = kNever;
    }
    serve(false);
}

void Connection::serve(bool readable) {
    const Ref<Connection> self(this);
    const std::lock_guard<std::mutex> hold(m_useLock);
    if (!m_transport) return;
    {
        const std::lock_guard<std::mutex> holdInbox(m_inboxLock);
        m_looksIntoInbox = true;
    }
    m_now = std::max(m_now, m_loop.now());
    const bool first = !m_inLoop;
    if (first) enterLoop();
    if (m_broken && m_closeAt == kNever) lose("no memory was left");
    checkTime();
    if (readable || first || m_moreToRead) receive();
    do {
        runCommands();
        send();
        if (m_writeFailed) receive();
        finishTurn();
    } while (m_transport && !endLooking());
}

void Connection::enterLoop() {
    m_inLoop = Ref<Connection>(this);
    if (!m_loop.add(*this, m_transport->descriptor(), EPOLLIN)) {
        lose("the system has no room for another connection");
    }
}

void Connection::checkTime() {
    if (m_session.nextDeadline() <= m_now) {
        m_silent = true;  // if this call gives the connection up
        m_session.onTime(m_now);
        if (m_session.error() == nullptr) m_silent = false;
    }
    if (m_idleSince == 0 || m_closeAt != kNever) return;
    if (m_idleTimeout != 0 && m_now >= m_idleSince + m_idleTimeout) {
        stopTaking();
    } else if (!m_resting && m_now >= m_idleSince + kRestAfter) {
        rest();
    }
}

void Connection::receive() {
    m_moreToRead = false;
    char* const buffer = readBuffer();
    for (int round = 0; round < kRoundsATurn; ++round) {
        const bool passesOver = m_closeAt > m_now && m_closeAt != kNever;
        if (m_session.error() != nullptr && !passesOver) return;
        if (!readOnce(buffer)) return;
    }
    m_moreToRead = true;
}

// Reads once; true when there may be more.
bool Connection::readOnce(char* buffer) {
    const IoResult result = m_transport->read(buffer, kReadBuffer);
    switch (result.status) {
        case IoStatus::kDone:
            if (m_trace) m_trace->received({buffer, result.bytes});
            if (m_closeAt == kNever) m_session.receive(buffer, result.bytes, m_now);
            return result.bytes == kReadBuffer;
        case IoStatus::kAgain:
            // The server has ended the connection: what there was to read has been read.
            if (m_writeFailed) lose(m_transport->error().c_str());
            return false;
        case IoStatus::kClosed: lose("the server closed the connection"); return false;
        case IoStatus::kFailed: lose(m_transport->error().c_str()); return false;
    }
    return false;
}

void Connection::send() {
    m_moreToSend = false;
    for (int round = 0; round < kRoundsATurn; ++round) {
        if (m_writeFailed || m_closeAt != kNever || !sendOnce()) return;
    }
    m_moreToSend = true;
}

// One write; true when there may be more to write at once.
bool Connection::sendOnce() {
    if (m_output.empty()) {
        if (!m_session.wantsToSend()) {
            if (m_transport->wantsWrite()) {
                m_writeFailed = m_transport->flush().status == IoStatus::kFailed;
            }
            return false;
        }
        m_sentBefore = m_session.lastSent();
        m_outputBegun = false;
        m_session.produce(m_output, kSendBatch, m_now);
        if (m_output.empty()) return false;
    }
    iovec parts[kSendParts];
    const size_t count = m_output.gather(parts, kSendParts);
    size_t size = 0;
    for (size_t i = 0; i < count; ++i) size += parts[i].iov_len;
    const IoResult result = m_transport->write({parts, count});
    m_writeFailed = result.status == IoStatus::kFailed;
    m_outputBegun |= result.bytes != 0;
    if (m_trace) m_trace->sent({parts, count}, result.bytes);
    m_output.consume(result.bytes);
    return result.bytes == size;
}

// The connection is over: the server's doing, or the network's.
void Connection::lose(const char* reason) {
    if (m_closeAt == kNever) {
        HTTP2CLIENT_LOG_INFO("connection to " << m_info->peer << " is over: " << reason);
    }
    stopTaking();
    m_session.connectionLost(reason);
    m_output.clear();
    m_closeAt = m_now;
}

void Connection::stopTaking() {
    {
        const std::lock_guard<std::mutex> hold(m_inboxLock);
        m_takesRequests = false;
    }
    if (!std::exchange(m_retired, true)) m_events.onRetired(*this);
}

void Connection::finishTurn() {
    if (m_session.error() != nullptr && m_closeAt == kNever) {
        HTTP2CLIENT_LOG_ERROR("ends the connection to " << m_info->peer << ": "
                                                        << m_session.error()->reason);
        beginClosing();
    } else if (m_retired && isIdle() && m_closeAt == kNever) {
        m_session.close();
        send();
        beginClosing();
    }
    if (m_now >= m_closeAt) {
        close();
        return;
    }
    const bool idle = isIdle();
    if (!idle) m_resting = false;
    m_idleSince = !idle ? 0 : m_idleSince != 0 ? m_idleSince : m_now;
    const bool writable = !m_moreToSend && m_transport->wantsWrite() && m_closeAt == kNever;
    m_loop.modify(*this, EPOLLIN | (writable ? EPOLLOUT : 0u));
    arm();
}

// Our last frames are with the system. Closes when the server has, or soon.
void Connection::beginClosing() {
    stopTaking();
    m_output.clear();
    m_transport->endWriting();
    m_closeAt = m_now + kLinger;
}

void Connection::close() {
    {
        const std::lock_guard<std::mutex> hold(m_inboxLock);
        m_over = true;
    }
    runCommands();
    m_loop.remove(*this);
    m_transport.reset();
    m_output.release();
    m_inLoop = Ref<Connection>();
}

void Connection::rest() {
    m_resting = true;
    m_session.trim();
    m_transport->trim();
    m_output.release();
    std::vector<Command>().swap(m_commands);
}

// When onDeadline() is needed at the latest.
Time Connection::nextDeadline() const {
    if (m_moreToRead || m_moreToSend) return m_now;
    if (m_closeAt != kNever) return m_closeAt;
    if (m_idleSince == 0) return m_session.nextDeadline();
    if (!m_resting) return m_idleSince + kRestAfter;
    return m_idleTimeout == 0 ? kNever : m_idleSince + m_idleTimeout;
}

// A deadline is not moved back when a request ends: it would be moved at every request. The loop
// calls too early then, once in a while.
void Connection::arm() {
    const Time deadline = nextDeadline();
    if (deadline >= m_armed) return;
    m_armed = deadline;
    m_loop.setDeadline(*this, deadline);
}

}  // namespace h2
