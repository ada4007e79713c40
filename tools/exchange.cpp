#include "exchange.h"

#include <algorithm>
#include <map>
#include <utility>

#include "edition.h"

namespace {

// Bytes that may wait for the main thread. When it is slower than the server, the library's thread
// waits for it: this process has one connection, so nothing else suffers, and the server is slowed
// down in turn.
constexpr size_t kMostPending = 16UL * 1024 * 1024;

// The exact edition's blockedRequest takes no further chunk once it holds more than this.
constexpr uint64_t kMostBlocked = 1024UL * 1024 - 1;

// The longest time that blockedRequest can count: in the exact edition of the processor, so that
// the wall clock is watched elsewhere.
constexpr uint32_t kLongestWaitMs = 4294967;

bool isInterim(int status) { return status >= 100 && status < 200; }

bool endsWithHeaders(int status, const HeaderList& headers) {
    if (status == 204 || status == 304) return true;
    const std::string* length = findHeader(headers, "content-length");
    return length != nullptr && *length == "0";
}

bool hasContentLength(const Options& options) {
    return std::any_of(options.headers.begin(), options.headers.end(),
                       [](const Header& header) { return header.name == "content-length"; });
}

HTTP_METHOD methodOf(const std::string& name) {
    if (name == "POST") return HTTP_POST;
    return name == "DELETE" ? HTTP_DELETE : HTTP_GET;
}

}  // namespace

const std::string* findHeader(const HeaderList& headers, const std::string& name) {
    for (const auto& [known, value] : headers) {
        if (known == name) return &value;
    }
    return nullptr;
}

bool Exchange::connect(const Options& options) {
    edition::configure(*this, options);
    return connectToServer(options.tls ? HTTPS_2 : HTTP_2, options.host.c_str(), options.port) == 0;
}

// The exact edition refuses nothing, but when the connection is gone, which start() reports.
bool Exchange::describe(const Options& options, BodyReader& body) {
    bool taken = setUri(options.path.c_str(), methodOf(options.method)) == 0 &&
                 edition::setMethod(*this, options.method);
    for (const Header& header : options.headers) {
        taken = taken &&
                addHeader(header.name.c_str(), header.value.c_str(), header.isVolatile) != nullptr;
    }
    // Always by a reader: of a block the exact edition sends whole chunks only.
    if (body.exists()) setContent(&BodyReader::read, &body);
    if (body.exists() && edition::kIsStandard && !hasContentLength(options)) {
        addHeader("content-length", std::to_string(body.size()).c_str(), false);
    }
    return taken || !edition::kIsStandard;
}

int Exchange::start(BodyReader& body) {
    bool running = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        running = m_running;
    }
    if (running) withdraw();
    reset(body, false);
    return startRequest(nullptr);
}

void Exchange::prepareBlocked(BodyReader& body) { reset(body, true); }

Exchange::BlockedResult Exchange::runBlocked() {
    BlockedResult result;
    const char* message = "the connection is gone";
    std::map<std::string, std::string> headers;
    result.code = blockedRequest(result.status, headers, result.body, message, kLongestWaitMs);
    result.headers.assign(headers.begin(), headers.end());
    result.message = message;
    return result;
}

void Exchange::withdraw() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_abandoned = true;
        m_taken.notify_all();
    }
    cancelRequest();
}

void Exchange::reset(BodyReader& body, bool blocking) {
    body.rewind();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_arrived = Arrived();
    m_running = true;
    m_answered = false;
    m_blocking = blocking;
    m_abandoned = false;
    m_received = 0;
    m_arrivals = 0;
    m_start = Clock::now();
    m_firstByte.reset();
    m_end.reset();
}

Arrived Exchange::wait(Duration limit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, limit, [this] {
        return m_arrived.status || !m_arrived.body.empty() || m_arrived.end != Arrived::NONE;
    });
    m_taken.notify_all();
    return std::exchange(m_arrived, Arrived());
}

AnswerTimes Exchange::times() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    AnswerTimes times;
    if (m_firstByte) times.firstByte = *m_firstByte - m_start;
    times.total = m_end.value_or(Clock::now()) - m_start;
    times.bodySize = m_received;
    return times;
}

uint64_t Exchange::progress() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_arrivals;
}

void Exchange::finish(Arrived::End end) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_running = false;
    setEndLocked(end);
    m_changed.notify_all();
}

void Exchange::noteArrivalLocked() {
    ++m_arrivals;
    if (!m_firstByte) m_firstByte = Clock::now();
}

void Exchange::setEndLocked(Arrived::End end) {
    m_arrived.end = end;
    if (!m_end) m_end = Clock::now();
}

void Exchange::onHeaderReceived(int status, const HeaderDef* headers, size_t count) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    noteArrivalLocked();
    if (isInterim(status)) return;
    bool complete = m_answered;  // then these are trailers
    if (!m_answered) {
        m_answered = true;
        m_arrived.status = status;
        for (size_t i = 0; i < count; ++i) {
            m_arrived.headers.emplace_back(headers[i].m_headerName, headers[i].m_headerValue);
        }
        complete = endsWithHeaders(status, m_arrived.headers);
    }
    if (complete && !edition::kIsStandard) {
        setEndLocked(Arrived::COMPLETE);
        m_arrived.withHeaders = true;
        m_arrived.hadBody = m_received > 0;
    }
    m_changed.notify_all();
}

void Exchange::onContentReceived(const char* data, size_t len, bool more) {
    std::unique_lock<std::mutex> lock(m_mutex);
    noteArrivalLocked();
    if (m_blocking && m_received > kMostBlocked && !edition::kIsStandard) {
        setEndLocked(Arrived::TOO_LARGE);
    } else {
        storeBody(lock, data, len);
        if (!more) {
            setEndLocked(Arrived::COMPLETE);
            m_arrived.withHeaders = false;
            m_running = false;
        }
    }
    m_changed.notify_all();
}

void Exchange::storeBody(std::unique_lock<std::mutex>& lock, const char* data, size_t len) {
    m_received += len;
    if (m_blocking || !m_keepsBodies) return;
    m_taken.wait(lock, [this] { return m_arrived.body.size() < kMostPending || m_abandoned; });
    if (!m_abandoned) m_arrived.body.append(data, len);
}
