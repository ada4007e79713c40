#include "exchange.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <utility>

namespace {

// The library reports no end of stream on headers; these responses have no body to wait for.
bool endsWithHeaders(int status, const std::map<std::string, std::string>& headers) {
    if (status == 204 || status == 304) return true;
    const auto length = headers.find("content-length");
    return length != headers.end() && length->second == "0";
}

std::string readAll(FILE* file) {
    std::string text;
    char buffer[65536];
    for (size_t n; (n = fread(buffer, 1, sizeof(buffer), file)) > 0;) text.append(buffer, n);
    return text;
}

}  // namespace

BodySource::~BodySource() {
    if (m_file != nullptr) fclose(m_file);
}

bool BodySource::open(const Options& options) {
    m_exists = options.data.has_value() || !options.dataFile.empty();
    if (options.data) m_text = *options.data;
    if (options.dataFile.empty()) return true;
    if (options.dataFile == "-") {
        m_text = readAll(stdin);
        if (ferror(stdin) == 0) return true;
        std::cerr << "h2request: cannot read standard input\n";
        return false;
    }
    m_file = fopen(options.dataFile.c_str(), "rb");
    if (m_file != nullptr) return true;
    std::cerr << "h2request: cannot read " << options.dataFile << ": " << std::strerror(errno)
              << "; check --data-file\n";
    return false;
}

void BodySource::rewind() {
    m_offset = 0;
    if (m_file != nullptr) std::rewind(m_file);
}

int BodySource::read(char* buf, size_t len, void* opaque) {
    auto* source = static_cast<BodySource*>(opaque);
    if (source->m_file != nullptr) {
        const size_t n = fread(buf, 1, len, source->m_file);
        if (ferror(source->m_file) != 0) source->m_failed = true;
        return static_cast<int>(n);
    }
    const size_t n = source->m_text.copy(buf, len, source->m_offset);
    source->m_offset += n;
    return static_cast<int>(n);
}

Exchange::~Exchange() { cancelRequest(); }

bool Exchange::connect(const Options& options) {
    return connectToServer(options.tls ? HTTPS_2 : HTTP_2, options.ip.c_str(), options.port) == 0;
}

void Exchange::describe(const Options& options) {
    setUri(options.path.c_str(), options.method);
    for (const Header& header : options.headers) {
        addHeader(header.name.c_str(), header.value.c_str(), header.isVolatile);
    }
}

int Exchange::start(BodySource& body) {
    reset();
    body.rewind();
    if (body.exists()) setContent(&BodySource::read, &body);
    return startRequest(nullptr);
}

void Exchange::reset() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_arrived = Arrived();
}

Arrived Exchange::wait(const Deadline& deadline) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto something = [this] {
        return m_arrived.status || !m_arrived.body.empty() || m_arrived.end != Arrived::NONE;
    };
    if (!deadline) {
        m_changed.wait(lock, something);
    } else if (!m_changed.wait_until(lock, *deadline, something)) {
        Arrived timedOut;
        timedOut.end = Arrived::TIMED_OUT;
        return timedOut;
    }
    return std::exchange(m_arrived, Arrived());
}

void Exchange::finish(Arrived::End end) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_arrived.end = end;
    m_changed.notify_all();
}

void Exchange::onSocketClosed() { finish(Arrived::CLOSED); }

void Exchange::onFailed(HTTP_ERROR /*err*/) { finish(Arrived::FAILED); }

void Exchange::onHeaderReceived(int status, const HeaderDef* headers, size_t count) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_arrived.status = status;
    for (size_t i = 0; i < count; ++i) {
        m_arrived.headers[headers[i].m_headerName] = headers[i].m_headerValue;
    }
    if (endsWithHeaders(status, m_arrived.headers)) {
        m_arrived.end = Arrived::COMPLETE;
        m_arrived.endedByHeaders = true;
    }
    m_changed.notify_all();
}

void Exchange::onContentReceived(const char* data, size_t len, bool more) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_arrived.body.append(data, len);
    if (!more) {
        m_arrived.end = Arrived::COMPLETE;
        m_arrived.endedByHeaders = false;
    }
    m_changed.notify_all();
}
