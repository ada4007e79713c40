#include "random_server.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/tls_context.h"

namespace h2test {

namespace {

void require(bool ok, const char* what) {
    if (ok) return;
    std::perror(what);
    std::abort();
}

// Whether an operation of TLS that failed with `error` is to be tried again.
bool mayGoOn(int error) { return error == SSL_ERROR_WANT_WRITE || error == SSL_ERROR_WANT_READ; }

}  // namespace

RandomServer::RandomServer(uint32_t seed, bool tls)
    : m_random(seed),
      m_tls(tls ? makeTlsContext(sharedCertificate()) : nullptr),
      m_listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
      m_wake(eventfd(0, EFD_CLOEXEC)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    require(bind(m_listener, any, size) == 0, "bind");
    require(listen(m_listener, SOMAXCONN) == 0, "listen");
    require(getsockname(m_listener, any, &size) == 0, "getsockname");
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { run(); });
}

RandomServer::~RandomServer() {
    const uint64_t one = 1;
    require(write(m_wake, &one, sizeof one) == sizeof one, "wake");
    m_thread.join();
    for (const auto& [fd, connection] : m_connections) close(fd);
    close(m_listener);
    close(m_wake);
}

void RandomServer::run() {
    std::vector<pollfd> set;
    while (true) {
        set.assign({{m_wake, POLLIN, 0}, {m_listener, POLLIN, 0}});
        for (const auto& [fd, connection] : m_connections) {
            const bool sends = connection.waitsForRoom;
            set.push_back({fd, static_cast<short>(sends ? POLLIN | POLLOUT : POLLIN), 0});
        }
        if (poll(set.data(), set.size(), -1) < 0) continue;
        if (set[0].revents != 0) return;
        for (size_t i = 2; i < set.size(); ++i) {
            if (set[i].revents == 0) continue;
            const auto found = m_connections.find(set[i].fd);
            if (serve(found->first, found->second, set[i].revents)) continue;
            found->second.tls.reset();
            close(found->first);
            m_connections.erase(found);
        }
        if (set[1].revents != 0) accept();
    }
}

void RandomServer::accept() {
    // accept4(2) accepts null when the address is not needed.
    // cppcheck-suppress nullPointer
    const int fd = accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    Connection& connection = m_connections[fd];
    connection.out = settings({{3, 100}});
    if (m_tls == nullptr) return;
    connection.tls.reset(SSL_new(m_tls.get()));
    require(connection.tls != nullptr && SSL_set_fd(connection.tls.get(), fd) == 1, "SSL_new");
    SSL_set_accept_state(connection.tls.get());
    SSL_set_mode(connection.tls.get(),
                 SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
}

bool RandomServer::serve(int fd, Connection& connection, short events) {
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0 && !receive(fd, connection)) return false;
    answerFrames(fd, connection);
    if (!flush(fd, connection)) return false;
    if (!connection.closing || !connection.out.empty()) return true;
    if (connection.tls != nullptr && connection.sendsCloseNotify)
        SSL_shutdown(connection.tls.get());
    return false;
}

bool RandomServer::receive(int fd, Connection& connection) {
    if (connection.tls != nullptr) return receiveTls(connection);
    char buffer[16384];
    const ssize_t size = recv(fd, buffer, sizeof buffer, 0);
    if (size > 0) connection.in.append(buffer, static_cast<size_t>(size));
    return size != 0;
}

// Reads everything: poll does not report bytes that TLS has buffered. Output of the handshake is
// sent with the SETTINGS frame, when there is room.
bool RandomServer::receiveTls(Connection& connection) {
    ERR_clear_error();
    char buffer[16384];
    while (true) {
        const int size = SSL_read(connection.tls.get(), buffer, sizeof buffer);
        if (size <= 0) return mayGoOn(SSL_get_error(connection.tls.get(), size));
        connection.in.append(buffer, static_cast<size_t>(size));
    }
}

void RandomServer::answerFrames(int fd, Connection& connection) {
    if (!connection.prefaceSeen) {
        if (connection.in.size() < kPreface.size()) return;
        connection.prefaceSeen = true;
        connection.in.erase(0, kPreface.size());
    }
    size_t rest = 0;
    for (const WireFrame& frame : parseWholeFrames(connection.in, rest)) {
        if (frame.type == kHeaders && !connection.closing) answer(fd, connection, frame.streamId);
    }
    connection.in.erase(0, rest);
}

void RandomServer::answer(int fd, Connection& connection, uint32_t streamId) {
    const std::string head = headers(streamId, hpackIndexed(8) + hpackLiteral("x-a", "b"));
    const uint32_t dice = m_random() % 100;
    std::string& out = connection.out;
    if (dice < 60) {
        out += head + data(streamId, std::string(m_random() % 3000, 'x')) +
               data(streamId, "end", kEndStream);
    } else if (dice < 70) {
        out += head + data(streamId, std::string(200'000, 'y')) + data(streamId, "", kEndStream);
    } else if (dice < 76) {
        out += head + data(streamId, "part");  // and no more
    } else if (dice < 80) {
        out += rstStream(streamId, 2);
    } else if (dice < 84) {
        out += head + goaway(streamId, 0);
        connection.closing = true;
    } else if (dice < 90) {
        out += head.substr(0, m_random() % head.size());
        connection.closing = true;
    } else if (dice < 94) {
        out += head + frame(0xEE, 0, 0, "no frame");
    } else if (dice < 98) {
        const linger abortive{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
        connection.closing = true;
    }
    // Otherwise: silence.
    connection.sendsCloseNotify = m_random() % 2 == 0;
}

bool RandomServer::flush(int fd, Connection& connection) {
    if (connection.tls != nullptr) return flushTls(connection);
    connection.waitsForRoom = false;
    if (connection.out.empty()) return true;
    const ssize_t sent =
        send(fd, connection.out.data(), connection.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    const bool goesOn = sent > 0 || errno == EAGAIN;
    if (sent > 0) connection.out.erase(0, static_cast<size_t>(sent));
    connection.waitsForRoom = !connection.out.empty();
    return goesOn;
}

bool RandomServer::flushTls(Connection& connection) {
    std::string& out = connection.out;
    ERR_clear_error();
    size_t gone = 0;
    bool goesOn = true;
    connection.waitsForRoom = false;
    while (gone < out.size()) {
        const int sent =
            SSL_write(connection.tls.get(), out.data() + gone, static_cast<int>(out.size() - gone));
        if (sent <= 0) {
            const int error = SSL_get_error(connection.tls.get(), sent);
            connection.waitsForRoom = error == SSL_ERROR_WANT_WRITE;
            goesOn = mayGoOn(error);
            break;
        }
        gone += static_cast<size_t>(sent);
    }
    out.erase(0, gone);
    return goesOn;
}

}  // namespace h2test
