#include "Http2ClientStandard/client/client_exchange.h"

#include <algorithm>
#include <chrono>

#include "Http2Client/log.h"
#include "Http2ClientStandard/pool/connection.h"

namespace h2 {

namespace {

constexpr size_t kReaderRoom = 16384;  // what a reader is always called with

int64_t microseconds() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

HTTP_ERROR errorOf(Failure failure) {
    switch (failure) {
        case Failure::kReset: return ERR_RECV_ERR;
        case Failure::kBodyFailed: return ERR_CONTENT_UNSET;
        case Failure::kNotProcessed: return ERR_SOCKET_CLOSED;
        case Failure::kTimeout: return ERR_TIMEOUT;
        case Failure::kMalformed:
        case Failure::kLost: break;
    }
    return ERR_FETAL;
}

}  // namespace

void ClientExchange::begin(const ExchangeLimits& limits, const Message& message) {
    m_limits = limits;
    m_isHead = message.method() == "HEAD";
    m_isIdempotent = message.isIdempotent();
    m_given = 0;
    m_staged.clear();
    m_readerAsked = m_readerEnded = false;
    m_status = 0;
    m_texts.clear();
    m_sizes.clear();
    m_collected.clear();
    m_complete = false;
    m_answerBegun.store(false);
    m_ended.reset();
    {
        const std::lock_guard<std::mutex> hold(m_errorLock);
        m_error.clear();
    }
    m_begunAt = microseconds();
    m_firstByteAt.store(0);
    m_endedAt.store(0);
    forgetAttempts();
    m_gate->open(m_over);
}

void ClientExchange::cancel() {
    const bool ran = m_gate->close(m_over);
    if (!ran) return;
    markEnd();
    if (const Ref<Connection> at = connection()) at->cancel(*this);
    m_ended.set();
}

void ClientExchange::markEnd() { m_endedAt.store(microseconds()); }

std::string ClientExchange::error() const {
    const std::lock_guard<std::mutex> hold(m_errorLock);
    return m_error;
}

Time ClientExchange::checkTime(Time now) {
    if (isOver()) return kNever;
    const Time begun = static_cast<Time>(m_begunAt / 1000);
    const bool begins = m_firstByteAt.load() == 0;
    Time deadline = kNever;
    const auto limit = [&deadline](Time since, Time length) {
        if (length != 0) deadline = std::min(deadline, since + length);
    };
    limit(begun, m_limits.wholeRequest);
    if (begins) {
        limit(begun, m_limits.firstByte);
    }
    limit(std::max(begun, m_lastPiece.load()), m_limits.silence);
    if (now < deadline) return deadline;
    const Ref<Connection> at = connection();
    onFailure(Failure::kTimeout, "a time-out of the request has passed");
    if (at) at->cancel(*this);
    return kNever;
}

// A request whose answer has begun is not sent again: the application has seen a part of it.
bool ClientExchange::rewind() {
    if (m_status != 0 || m_readerAsked) return false;
    m_given = 0;
    return true;
}

Body* ClientExchange::body() {
    const bool some =
        m_content.reader != nullptr || (m_content.block != nullptr && !m_content.block->empty());
    return some ? this : nullptr;
}

BodyPart ClientExchange::next(BodyRoom room) {
    return m_content.reader == nullptr ? nextOfBlock(room.size()) : nextOfReader(room);
}

BodyPart ClientExchange::nextOfBlock(size_t size) {
    const std::string& block = *m_content.block;
    BodyPart part;
    part.block = block.data() + m_given;
    part.size = std::min<uint64_t>(size, block.size() - m_given);
    m_given += part.size;
    part.state = m_given == block.size() ? BodyPart::State::kEnd : BodyPart::State::kMore;
    return part;
}

// The reader writes where the bytes are sent from when there is room for all that it may write.
BodyPart ClientExchange::nextOfReader(BodyRoom& room) {
    BodyPart part;
    if (m_staged.empty() && room.size() >= kReaderRoom) {
        read(room.get(), part);
        return part;
    }
    if (m_staged.empty()) {
        if (!read(m_staged.room(kReaderRoom), part)) return part;
        m_staged.commit(part.size);
    }
    part.size = std::min(room.size(), m_staged.size());
    std::copy_n(m_staged.data(), part.size, room.get());
    m_staged.consume(part.size);
    const bool end = m_readerEnded && m_staged.empty();
    part.state = end ? BodyPart::State::kEnd : BodyPart::State::kMore;
    return part;
}

// Calls the reader. False: there are no bytes to send, and `part` says why.
bool ClientExchange::read(char* to, BodyPart& part) {
    part.state = BodyPart::State::kMore;
    part.size = 0;
    if (m_readerEnded || !m_gate->enter(m_over, false)) return false;
    m_readerAsked = true;
    const int count = m_content.reader(to, kReaderRoom, m_content.opaque);
    m_gate->leave();
    part.state = BodyPart::State::kFailed;
    if (count < 0 || static_cast<size_t>(count) > kReaderRoom) return false;
    part.size = static_cast<size_t>(count);
    m_given += part.size;
    m_readerEnded = part.size < kReaderRoom;
    if (!keepsLength()) {
        part.size = 0;
        return false;
    }
    part.state = m_readerEnded ? BodyPart::State::kEnd : BodyPart::State::kMore;
    return true;
}

// Whether what the reader has given agrees with the application's content-length.
bool ClientExchange::keepsLength() const {
    if (!m_content.length.has_value()) return true;
    return m_readerEnded ? m_given == *m_content.length : m_given <= *m_content.length;
}

void ClientExchange::keepFields(const hpack::FieldList& fields) {
    for (size_t i = 0; i < fields.size(); ++i) {
        m_texts.append(fields.name(i)).push_back('\0');
        m_texts.append(fields.value(i)).push_back('\0');
        m_sizes.push_back({fields.name(i).size(), fields.value(i).size()});
    }
    m_headers.clear();
    const char* text = m_texts.data();
    for (const Sizes& sizes : m_sizes) {
        m_headers.push_back({text, text + sizes.name + 1});
        text += sizes.name + sizes.value + 2;
    }
    if (m_limits.silence != 0) m_lastPiece.store(steadyNow());
}

void ClientExchange::callHeaders() {
    if (!m_gate->enter(m_over, false)) return;
    m_client.onHeaderReceived(m_status, m_headers.data(), m_headers.size());
    m_gate->leave();
}

void ClientExchange::onHeaders(uint32_t status, const hpack::FieldList& fields) {
    m_firstByteAt.store(microseconds());
    m_answerBegun.store(true);
    m_status = static_cast<int>(status);
    keepFields(fields);
    callHeaders();
}

void ClientExchange::onTrailers(const hpack::FieldList& fields) {
    keepFields(fields);
    callHeaders();
}

void ClientExchange::onData(const char* data, size_t size, bool last) {
    if (m_limits.silence != 0) m_lastPiece.store(steadyNow());
    if (m_limits.collects && !collect(data, size)) return;
    deliver(data, size, last);
}

// False: the answer is larger than the caller of blockedRequest allows.
bool ClientExchange::collect(const char* data, size_t size) {
    if (size <= m_limits.maxContent - m_collected.size()) {
        m_collected.append(data, size);
        return true;
    }
    const Ref<Connection> at = connection();
    onFailure(Failure::kMalformed, "the body is larger than the limit");
    if (at) at->cancel(*this);
    return false;
}

void ClientExchange::onComplete() { deliver("", 0, true); }

void ClientExchange::deliver(const char* data, size_t size, bool last) {
    if (!m_gate->enter(m_over, last)) return;
    if (last) {
        markEnd();
        m_complete = true;
    }
    m_client.onContentReceived(data, size, !last);
    m_gate->leave();
    if (last) m_ended.set();
}

void ClientExchange::onFailure(Failure failure, const char* reason) {
    if (!m_gate->enter(m_over, true)) return;
    markEnd();
    {
        const std::lock_guard<std::mutex> hold(m_errorLock);
        m_error = reason;
        if (!debugData().empty()) m_error.append(" \"").append(debugData()).append("\"");
    }
    HTTP2CLIENT_LOG_INFO("a request has failed: " << reason);
    if (failure == Failure::kLost) {
        m_client.onSocketClosed();
    } else {
        m_client.onFailed(errorOf(failure));
    }
    m_gate->leave();
    m_ended.set();
}

void ClientExchange::answer(int& status, std::map<std::string, std::string>& headers) const {
    status = m_status;
    headers.clear();
    for (const tiny::HttpClientInterface::HeaderDef& header : m_headers) {
        const std::string name = header.m_headerName;
        const auto [entry, added] = headers.emplace(name, header.m_headerValue);
        if (!added) {
            entry->second.append(name == "set-cookie" ? "\n" : ", ").append(header.m_headerValue);
        }
    }
}

}  // namespace h2
