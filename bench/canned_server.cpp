// An HTTP/2 server that costs next to nothing, so that the client is what is measured.
//
//   canned_server PORT BODY_BYTES [CERTIFICATE KEY]
//
// Answers every request with the same bytes, whatever it asks for: a 200 with a body of that size.
// Looks at frame headers only; its windows are as large as they can be. Over TLS when there is a
// certificate, with ALPN. One thread; serves until it is killed.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr size_t kPreface = 24;
constexpr size_t kFrameHeader = 9;
constexpr size_t kFrameSize = 16384;
constexpr size_t kReadSize = size_t{256} * 1024;
enum FrameType : uint8_t { kData = 0, kHeaders = 1, kSettings = 4, kPing = 6 };
constexpr uint8_t kEndStreamOrAck = 1;
constexpr uint8_t kEndHeaders = 4;

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "canned_server: %s\n", what);
    std::exit(1);
}

std::string word(uint32_t value) {
    const uint32_t bytes = htonl(value);
    return std::string(reinterpret_cast<const char*>(&bytes), sizeof bytes);
}

std::string frame(uint8_t type, uint8_t flags, uint32_t stream, std::string_view payload) {
    std::string bytes = word(static_cast<uint32_t>(payload.size()) << 8 | type);
    bytes += static_cast<char>(flags);
    return bytes.append(word(stream)).append(payload);
}

// What follows the frame header of the answer's first frame, and where its streams are to be put.
struct Answer {
    explicit Answer(size_t size) {
        // ":status: 200" indexed, "content-length" as a literal without indexing.
        const std::string length = std::to_string(size);
        std::string block = "\x88\x0f\x0d";
        block += static_cast<char>(length.size());
        bytes = frame(kHeaders, size == 0 ? kEndHeaders | kEndStreamOrAck : kEndHeaders, 0,
                      block + length);
        for (size_t left = size; left != 0;) {
            const size_t part = std::min(left, kFrameSize);
            left -= part;
            bytes += frame(kData, left == 0 ? kEndStreamOrAck : 0, 0, std::string(part, 'x'));
        }
    }
    // Appends the answer on the stream, whose identifier is given as it lies in a frame.
    void appendTo(std::string& out, const char* stream) const {
        const size_t start = out.size();
        out += bytes;
        for (size_t at = start; at < out.size();) {
            std::memcpy(&out[at + 5], stream, 4);
            uint32_t length = 0;
            std::memcpy(&length, &out[at], 4);
            at += kFrameHeader + (ntohl(length) >> 8);
        }
    }
    std::string bytes;
};

class Connection {
public:
    Connection(int socket, SSL_CTX* tls) : m_socket(socket) {
        const int on = 1;
        setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (tls != nullptr) {
            m_tls = SSL_new(tls);
            SSL_set_fd(m_tls, socket);
            SSL_set_accept_state(m_tls);
        }
        const std::string largestWindow = std::string("\0\x04", 2) + word(0x7fffffff);
        m_out = frame(kSettings, 0, 0, largestWindow) + frame(8, 0, 0, word(0x7fffffff - 65535));
    }
    ~Connection() {
        SSL_free(m_tls);
        close(m_socket);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // False: it is over.
    bool serve(char* buffer, const Answer& answer) {
        while (true) {
            const ssize_t count = read(buffer);
            if (count == 0) return false;
            if (count < 0) break;
            take({buffer, static_cast<size_t>(count)}, answer);
            if (m_tls == nullptr && static_cast<size_t>(count) < kReadSize) break;
        }
        return send();
    }
    bool wantsWrite() const { return m_sent < m_out.size(); }
    int socket() const { return m_socket; }

private:
    // Bytes read, 0 at the end, -1 when there are none.
    ssize_t read(char* buffer) {
        if (m_tls == nullptr) {
            const ssize_t count = recv(m_socket, buffer, kReadSize, MSG_DONTWAIT);
            return count < 0 && errno != EAGAIN ? 0 : count;
        }
        const int count = SSL_read(m_tls, buffer, static_cast<int>(kReadSize));
        if (count > 0) return count;
        return SSL_get_error(m_tls, count) == SSL_ERROR_WANT_READ ? -1 : 0;
    }

    void take(std::string_view bytes, const Answer& answer) {
        while (!bytes.empty()) {
            if (m_skip != 0) {
                const size_t skipped = std::min(m_skip, bytes.size());
                m_skip -= skipped;
                bytes.remove_prefix(skipped);
                continue;
            }
            const size_t part = std::min(kFrameHeader - m_headerSize, bytes.size());
            std::memcpy(m_header + m_headerSize, bytes.data(), part);
            m_headerSize += part;
            bytes.remove_prefix(part);
            if (m_headerSize < kFrameHeader) return;
            m_headerSize = 0;
            takeFrame(bytes, answer);
        }
    }

    void takeFrame(std::string_view behind, const Answer& answer) {
        uint32_t length = 0;
        std::memcpy(&length, m_header, 4);
        m_skip = ntohl(length) >> 8;
        const auto type = static_cast<uint8_t>(m_header[3]);
        const bool flagged = (m_header[4] & kEndStreamOrAck) != 0;
        if (type == kSettings && !flagged) m_out += frame(kSettings, kEndStreamOrAck, 0, {});
        // A PING that the read has cut is not answered: loopback does not cut so small a frame.
        if (type == kPing && !flagged && behind.size() >= m_skip) {
            m_out += frame(kPing, kEndStreamOrAck, 0, behind.substr(0, m_skip));
        }
        if ((type == kData || type == kHeaders) && flagged) answer.appendTo(m_out, m_header + 5);
    }

    bool send() {
        while (m_sent < m_out.size()) {
            const char* from = m_out.data() + m_sent;
            const size_t size = m_out.size() - m_sent;
            ssize_t count = 0;
            if (m_tls == nullptr) {
                count = ::send(m_socket, from, size, MSG_NOSIGNAL | MSG_DONTWAIT);
                if (count < 0) return errno == EAGAIN;
            } else {
                count = SSL_write(m_tls, from, static_cast<int>(size));
                if (count <= 0) {
                    const int error = SSL_get_error(m_tls, static_cast<int>(count));
                    return error == SSL_ERROR_WANT_WRITE || error == SSL_ERROR_WANT_READ;
                }
            }
            m_sent += static_cast<size_t>(count);
        }
        m_out.clear();
        m_sent = 0;
        return true;
    }

    int m_socket;
    SSL* m_tls = nullptr;
    size_t m_skip = kPreface;  // bytes that are not looked at
    char m_header[kFrameHeader] = {};
    size_t m_headerSize = 0;
    std::string m_out;
    size_t m_sent = 0;
};

int chooseH2(SSL* /*tls*/, const unsigned char** out, unsigned char* outLength,
             const unsigned char* /*in*/, unsigned int /*inLength*/, void* /*argument*/) {
    *out = reinterpret_cast<const unsigned char*>("h2");
    *outLength = 2;
    return SSL_TLSEXT_ERR_OK;
}

SSL_CTX* makeTls(const char* certificate, const char* key) {
    SSL_CTX* tls = SSL_CTX_new(TLS_server_method());
    if (SSL_CTX_use_certificate_chain_file(tls, certificate) != 1 ||
        SSL_CTX_use_PrivateKey_file(tls, key, SSL_FILETYPE_PEM) != 1) {
        die("cannot use the certificate");
    }
    SSL_CTX_set_mode(tls, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_alpn_select_cb(tls, chooseH2, nullptr);
    return tls;
}

int listenAt(uint16_t port) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, SOMAXCONN) != 0) {
        die("cannot listen");
    }
    return listener;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 5) die("usage: canned_server PORT BODY_BYTES [CERTIFICATE KEY]");
    signal(SIGPIPE, SIG_IGN);
    SSL_CTX* tls = argc == 5 ? makeTls(argv[3], argv[4]) : nullptr;
    const Answer answer(std::stoull(argv[2]));
    const int listener = listenAt(static_cast<uint16_t>(std::stoul(argv[1])));
    const int poller = epoll_create1(0);
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(poller, EPOLL_CTL_ADD, listener, &event);
    const std::unique_ptr<char[]> buffer(new char[kReadSize]);
    while (true) {
        epoll_event events[64];
        const int count = epoll_wait(poller, events, 64, -1);
        for (int i = 0; i < count; ++i) {
            auto* connection = static_cast<Connection*>(events[i].data.ptr);
            if (connection == nullptr) {
                // cppcheck-suppress nullPointer ; accept4 takes null for an address nobody wants
                const int accepted = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
                if (accepted < 0) continue;
                event.data.ptr = new Connection(accepted, tls);
                epoll_ctl(poller, EPOLL_CTL_ADD, accepted, &event);
            } else if (!connection->serve(buffer.get(), answer)) {
                delete connection;
            } else {
                event.data.ptr = connection;
                event.events = EPOLLIN | (connection->wantsWrite() ? EPOLLOUT : 0U);
                epoll_ctl(poller, EPOLL_CTL_MOD, connection->socket(), &event);
                event.events = EPOLLIN;
            }
        }
    }
}
