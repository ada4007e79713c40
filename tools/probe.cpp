#include "probe.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "interrupt.h"
#include "message.h"
#include "text.h"
#include "timing.h"

namespace {

constexpr unsigned int kProbeMs = 1000;
constexpr size_t kEnoughBytes = 64;

// The connection preface and an empty SETTINGS frame (RFC 9113, 3.4).
constexpr std::string_view kHello{"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n\0\0\0\4\0\0\0\0\0", 33};

using SslContext = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
using Ssl = std::unique_ptr<SSL, decltype(&SSL_free)>;

// A frame starts with its length, 16384 at most, and its type, 0 to 9 (RFC 9113, 4 and 6).
bool startsAsFrame(std::string_view bytes) {
    return bytes.size() >= 4 && bytes[0] == 0 && static_cast<unsigned char>(bytes[1]) <= 0x40 &&
           static_cast<unsigned char>(bytes[3]) <= 9;
}

// One non-blocking connection, TLS or not.
class Connection {
public:
    explicit Connection(const Options& options)
        : m_end(Clock::now() + std::chrono::milliseconds(limitOf(options))) {}
    ~Connection() {
        if (m_fd != -1) close(m_fd);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int connectTcp(const Options& options);
    // Returns why the handshake failed; nothing when it is done, or did not end in time.
    std::string connectTls();
    std::string exchangeFirstBytes();

private:
    static unsigned int limitOf(const Options& options) {
        const unsigned int timeout = options.timeoutMs.value_or(0);
        return timeout == 0 ? kProbeMs : std::min(timeout, kProbeMs);
    }
    bool waitFor(short events) const {
        return waitReady(m_fd, events, [this] { return isOver(); });
    }
    bool isOver() const { return isInterrupted() || Clock::now() >= m_end; }
    // Repeats an operation on m_ssl until it is done. False when it fails, or there is no time.
    template <typename Operation>
    bool repeat(Operation operation);

    const TimePoint m_end;
    int m_fd = -1;
    SslContext m_context{nullptr, &SSL_CTX_free};
    Ssl m_ssl{nullptr, &SSL_free};
};

int Connection::connectTcp(const Options& options) {
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_fd == -1) return errno;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(options.port);
    inet_pton(AF_INET, options.host.c_str(), &address.sin_addr);
    if (connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return 0;
    if (errno != EINPROGRESS) return errno;
    if (!waitFor(POLLOUT)) return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof(error);
    getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

template <typename Operation>
bool Connection::repeat(Operation operation) {
    while (true) {
        ERR_clear_error();
        const int result = operation();
        if (result > 0) return true;
        const int error = SSL_get_error(m_ssl.get(), result);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) return false;
        if (!waitFor(error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT)) return false;
    }
}

std::string Connection::connectTls() {
    m_context.reset(SSL_CTX_new(TLS_client_method()));
    if (m_context) m_ssl.reset(SSL_new(m_context.get()));
    if (!m_ssl || SSL_set_fd(m_ssl.get(), m_fd) != 1) return {};
    if (repeat([this] { return SSL_connect(m_ssl.get()); }) || isOver()) return {};
    const unsigned long error = ERR_peek_error();
    if (ERR_GET_REASON(error) == SSL_AD_REASON_OFFSET + SSL_AD_NO_APPLICATION_PROTOCOL) {
        return "the server ended the TLS handshake with the alert no_application_protocol: it "
               "demands ALPN, which this client does not send; use a port without that demand, or "
               "plain HTTP/2";
    }
    const char* reason = ERR_reason_error_string(error);
    return std::string("the TLS handshake failed") +
           (reason == nullptr ? "" : std::string(" (") + reason + ")") +
           "; leave out --tls if the port speaks plain HTTP/2";
}

std::string Connection::exchangeFirstBytes() {
    if (m_ssl) {
        repeat([this] { return SSL_write(m_ssl.get(), kHello.data(), kHello.size()); });
    } else if (waitFor(POLLOUT)) {
        const ssize_t sent = send(m_fd, kHello.data(), kHello.size(), MSG_NOSIGNAL);
        static_cast<void>(sent);  // what comes back tells
    }
    std::string bytes;
    std::array<char, kEnoughBytes> buffer{};
    while (bytes.size() < kEnoughBytes && bytes.find('\n') == std::string::npos &&
           !startsAsFrame(bytes)) {
        int n = 0;
        const int size = buffer.size();
        if (m_ssl) {
            if (!repeat([&] { return n = SSL_read(m_ssl.get(), buffer.data(), size); })) break;
        } else {
            if (!waitFor(POLLIN)) break;
            n = static_cast<int>(recv(m_fd, buffer.data(), buffer.size(), 0));
            if (n <= 0) break;
        }
        bytes.append(buffer.data(), static_cast<size_t>(n));
    }
    return bytes;
}

}  // namespace

std::string describeFirstBytes(std::string_view bytes, bool tls) {
    if (bytes.size() < 4 || startsAsFrame(bytes)) return {};
    if (bytes.substr(0, 2) == "\x15\x03" && !tls) {
        return "the port answers with a TLS alert; add --tls";
    }
    const std::string_view line = bytes.substr(0, bytes.find_first_of("\r\n"));
    const std::string quoted = "\"" + printable(line.substr(0, kEnoughBytes)) + "\"";
    if (bytes.substr(0, 5) != "HTTP/") {
        return "the server does not speak HTTP/2 on this port: it answers with " + quoted;
    }
    if (tls) {
        return "the server answers with " + quoted +
               ": without ALPN, which this client does not send, it speaks HTTP/1.1; have it speak "
               "HTTP/2 to such clients, or use another port";
    }
    return "the server answers with " + quoted +
           ": it speaks HTTP/1.1 on this port; switch HTTP/2 without TLS on (h2c with prior "
           "knowledge), use another port, or try --tls";
}

Probe probeServer(const Options& options) {
    Connection connection(options);
    Probe probe;
    probe.error = connection.connectTcp(options);
    if (probe.error != 0) return probe;
    if (options.tls) probe.finding = connection.connectTls();
    if (probe.finding.empty()) {
        probe.finding = describeFirstBytes(connection.exchangeFirstBytes(), options.tls);
    }
    return probe;
}
