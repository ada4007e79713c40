#include "scripted_server.h"

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tls_context.h"

namespace h2test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kReadChunk = 65536;
constexpr int kHighestClientDescriptor = 4096;

// The test cannot go on.
void require(bool ok, const char* step) {
    if (ok) return;
    std::perror(step);
    ERR_print_errors_fp(stderr);
    std::abort();
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// A bound TCP socket on a port that the system chooses.
int boundSocket(uint16_t& port) {
    const int out = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    require(out >= 0, "socket");
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof(address);
    require(bind(out, reinterpret_cast<const sockaddr*>(&address), size) == 0, "bind");
    require(getsockname(out, reinterpret_cast<sockaddr*>(&address), &size) == 0, "getsockname");
    port = ntohs(address.sin_port);
    return out;
}

// Whether `fd` is this process's end of the connection from `localPort` to `remotePort`.
bool connects(int fd, uint16_t localPort, uint16_t remotePort) {
    sockaddr_in local{};
    sockaddr_in remote{};
    socklen_t localSize = sizeof(local);
    socklen_t remoteSize = sizeof(remote);
    return getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localSize) == 0 &&
           local.sin_family == AF_INET && ntohs(local.sin_port) == localPort &&
           getpeername(fd, reinterpret_cast<sockaddr*>(&remote), &remoteSize) == 0 &&
           remote.sin_family == AF_INET && ntohs(remote.sin_port) == remotePort;
}

// Whether `sent` bytes have come to `fd` and have been read from it.
bool hasRead(int fd, uint64_t sent) {
    tcp_info info{};
    socklen_t size = sizeof(info);
    int unread = 0;
    return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           info.tcpi_bytes_received >= sent && ioctl(fd, FIONREAD, &unread) == 0 && unread == 0;
}

}  // namespace

// One thing to do with a connection.
struct ScriptedServer::Step {
    enum class Kind {
        kSend,
        kSendRaw,
        kKeyUpdate,
        kRenegotiate,
        kRenegotiateForCertificate,
        kFatalAlert,
        kCloseNotify,
        kFin,
        kDropInput,
        kReset
    };
    Kind kind;
    std::string bytes;      // of kSend, kSendRaw
    bool whenRead = false;  // not before the client has read all that went out
};

// Guarded by Shared::lock. TLS runs over memory, so that every byte of the socket passes here.
struct ScriptedServer::Connection {
    int fd = -1;  // -1 once closed
    uint16_t clientPort = 0;

    SSL* ssl = nullptr;     // null without TLS; owns both BIOs
    BIO* tlsIn = nullptr;   // what came from the socket
    BIO* tlsOut = nullptr;  // bytes for the socket
    bool handshakeDone = false;
    bool tlsFailed = false;

    std::deque<Step> steps;
    std::string out;                    // sent to the socket as it is
    size_t outSent = 0;                 // bytes of `out` that are gone
    uint64_t wireSent = 0;              // bytes that the socket has taken so far
    bool outputOver = false;            // FIN sent, or the socket takes no more
    int clientFd = -1;                  // the client's descriptor, as last found
    Clock::time_point whenReadLimit{};  // of the first step, when it waits for the client
    bool waitsForClient = false;

    bool readingStopped = false;
    bool dropInput = false;
    bool inputOver = false;  // the client has sent FIN or RST
    bool resetByPeer = false;
    std::string received;
    std::string unparsed;  // the part of the input that is no whole frame yet
    bool prefaceSeen = false;
    bool notHttp2 = false;  // something else than the preface came first
    std::vector<WireFrame> frames;

    bool wantsWrite() const { return outSent < out.size(); }
    bool allSent() const { return steps.empty() && !wantsWrite(); }
};

// All that both sides touch. The methods whose names end in Locked need `lock` held; the others
// take it.
struct ScriptedServer::Shared {
    ServerOptions options;   // never changes
    uint16_t port = 0;       // never changes
    SSL_CTX* tls = nullptr;  // null without TLS; never changes
    int listener = -1;
    int wakeFd = -1;  // eventfd: readable when there is something new to do

    std::mutex lock;  // guards what follows
    std::condition_variable changed;
    bool stop = false;
    bool acceptFailed = false;                             // no descriptor left: try again soon
    std::vector<std::unique_ptr<Connection>> connections;  // never shrinks
    std::vector<std::pair<size_t, WireFrame>> unanswered;  // for the responder

    explicit Shared(ServerOptions given) : options(std::move(given)) {
        listener = boundSocket(port);
        if (options.receiveBuffer > 0) {
            setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &options.receiveBuffer,
                       sizeof(options.receiveBuffer));
        }
        require(listen(listener, SOMAXCONN) == 0, "listen");
        wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        require(wakeFd >= 0, "eventfd");
        if (options.tls) {
            tls = makeTlsContext(options.certificate.value_or(sharedCertificate()),
                                 options.onlyTls12, options.alpn);
        }
    }

    // After the thread has ended.
    ~Shared() {
        for (const auto& connection : connections) {
            SSL_free(connection->ssl);
            if (connection->fd >= 0) ::close(connection->fd);
        }
        SSL_CTX_free(tls);
        ::close(listener);
        ::close(wakeFd);
    }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    void wake() const {
        const uint64_t one = 1;
        // Fails only when the counter is full, and then the thread wakes anyway.
        if (write(wakeFd, &one, sizeof(one)) < 0) return;
    }

    Connection& find(std::unique_lock<std::mutex>& hold, size_t index, Limit limit = kWaitLimit) {
        if (!changed.wait_for(hold, limit, [&] { return connections.size() > index; })) {
            throw std::runtime_error("ScriptedServer: there is no connection " +
                                     std::to_string(index));
        }
        return *connections[index];
    }

    // ---- the server's thread

    void run() {
        std::vector<pollfd> set;
        while (true) {
            const int timeout = preparePoll(set);
            if (poll(set.data(), set.size(), timeout) < 0) require(errno == EINTR, "poll");
            {
                const std::lock_guard<std::mutex> hold(lock);
                if (stop) return;
                if (set[0].revents != 0) {
                    uint64_t ignored = 0;
                    while (read(wakeFd, &ignored, sizeof(ignored)) > 0) {
                    }
                }
                for (size_t i = 2; i < set.size(); ++i) serveLocked(i - 2, set[i].revents);
                acceptLocked();
                changed.notify_all();
            }
            callResponder();
        }
    }

    // Slots: wakeFd, listener, then the connections by index. Returns the time-out.
    int preparePoll(std::vector<pollfd>& set) {
        const std::lock_guard<std::mutex> hold(lock);
        set.clear();
        set.push_back({wakeFd, POLLIN, 0});
        set.push_back({acceptFailed ? -1 : listener, POLLIN, 0});
        int timeout = acceptFailed ? 10 : -1;
        for (const auto& connection : connections) {
            short events = 0;
            if (!connection->inputOver && !connection->readingStopped) events |= POLLIN;
            if (connection->wantsWrite()) events |= POLLOUT;
            // A descriptor without events would still report errors, again and again.
            set.push_back({events != 0 ? connection->fd : -1, events, 0});
            if (connection->waitsForClient) timeout = 1;
        }
        return timeout;
    }

    void acceptLocked() {
        acceptFailed = false;
        while (true) {
            sockaddr_in client{};
            socklen_t size = sizeof(client);
            const int fd = accept4(listener, reinterpret_cast<sockaddr*>(&client), &size,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                acceptFailed = errno == EMFILE || errno == ENFILE || errno == ENOBUFS;
                return;
            }
            const int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            auto connection = std::make_unique<Connection>();
            connection->fd = fd;
            connection->clientPort = ntohs(client.sin_port);
            if (tls != nullptr) startTls(*connection);
            greet(*connection);
            connections.push_back(std::move(connection));
            advance(*connections.back());
        }
    }

    void startTls(Connection& c) const {
        c.ssl = SSL_new(tls);
        c.tlsIn = BIO_new(BIO_s_mem());
        c.tlsOut = BIO_new(BIO_s_mem());
        require(c.ssl != nullptr && c.tlsIn != nullptr && c.tlsOut != nullptr, "SSL_new");
        SSL_set_bio(c.ssl, c.tlsIn, c.tlsOut);
        SSL_set_accept_state(c.ssl);
    }

    void greet(Connection& c) const {
        if (!options.greeting.empty()) {
            c.steps.push_back({Step::Kind::kSend, options.greeting});
        }
        if (options.closeAfterGreeting) {
            c.steps.push_back({Step::Kind::kCloseNotify, {}});
            c.steps.push_back({Step::Kind::kFin, {}});
            c.steps.push_back({Step::Kind::kDropInput, {}});
        }
    }

    void serveLocked(size_t index, short events) {
        Connection& c = *connections[index];
        if (events != 0 && !c.inputOver && !c.readingStopped) readInput(c, index);
        advance(c);
    }

    // ---- input

    void readInput(Connection& c, size_t index) {
        static thread_local char buffer[kReadChunk];
        for (int rounds = 0; rounds < 16; ++rounds) {
            const ssize_t size = recv(c.fd, buffer, sizeof(buffer), 0);
            if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
            if (size <= 0) {
                c.inputOver = true;
                c.resetByPeer = size < 0;
                return;
            }
            const std::string_view bytes(buffer, static_cast<size_t>(size));
            if (c.ssl == nullptr) {
                takeInput(c, index, bytes);
            } else if (!c.tlsFailed) {
                BIO_write(c.tlsIn, bytes.data(), static_cast<int>(bytes.size()));
                readTls(c, index);
            }
        }
    }

    void readTls(Connection& c, size_t index) {
        ERR_clear_error();
        if (!c.handshakeDone) {
            const int result = SSL_accept(c.ssl);
            if (result == 1) {
                c.handshakeDone = true;
            } else {
                noteTlsResult(c, result);
            }
        }
        char buffer[16384];
        while (c.handshakeDone && !c.tlsFailed) {
            const int size = SSL_read(c.ssl, buffer, sizeof(buffer));
            if (size <= 0) {
                noteTlsResult(c, size);
                break;
            }
            takeInput(c, index, {buffer, static_cast<size_t>(size)});
        }
        takeTlsOutput(c);
        // An alert may be on its way; nothing else can be sent any more.
        if (c.tlsFailed) c.steps = {{Step::Kind::kFin, {}}};
    }

    static void noteTlsResult(Connection& c, int result) {
        const int error = SSL_get_error(c.ssl, result);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_ZERO_RETURN) return;
        c.tlsFailed = true;
    }

    void takeInput(Connection& c, size_t index, std::string_view bytes) {
        if (c.dropInput) return;
        if (options.keepReceived) c.received += bytes;
        if (c.notHttp2) return;
        c.unparsed += bytes;
        if (!c.prefaceSeen) {
            if (kPreface.substr(0, c.unparsed.size()) !=
                std::string_view(c.unparsed).substr(0, kPreface.size())) {
                c.notHttp2 = true;
                return;
            }
            if (c.unparsed.size() < kPreface.size()) return;
            c.prefaceSeen = true;
            c.unparsed.erase(0, kPreface.size());
        }
        size_t rest = 0;
        for (WireFrame& frame : parseWholeFrames(c.unparsed, rest)) {
            if (options.responder) unanswered.emplace_back(index, frame);
            if (options.keepReceived) c.frames.push_back(std::move(frame));
        }
        c.unparsed.erase(0, rest);
    }

    void callResponder() {
        std::vector<std::pair<size_t, WireFrame>> work;
        {
            const std::lock_guard<std::mutex> hold(lock);
            work.swap(unanswered);
        }
        for (const auto& [index, frame] : work) {
            std::string answer = options.responder(index, frame);
            if (answer.empty()) continue;
            const std::lock_guard<std::mutex> hold(lock);
            connections[index]->steps.push_back({Step::Kind::kSend, std::move(answer)});
            advance(*connections[index]);
            changed.notify_all();
        }
    }

    // ---- output

    // Does as much as can be done now.
    void advance(Connection& c) {
        c.waitsForClient = false;
        while (c.fd >= 0) {
            flush(c);
            if (c.wantsWrite()) return;
            if (c.steps.empty()) {
                if (c.inputOver) closeSocket(c);
                return;
            }
            if (!canTake(c, c.steps.front())) return;
            const Step step = std::move(c.steps.front());
            c.steps.pop_front();
            c.whenReadLimit = {};
            take(c, step);
        }
        c.steps.clear();
    }

    bool canTake(Connection& c, const Step& step) const {
        const bool needsTls = step.kind == Step::Kind::kSend && c.ssl != nullptr;
        const bool shakesHands = needsTls && (!c.handshakeDone || SSL_in_init(c.ssl) == 1);
        if (shakesHands && !c.tlsFailed && !c.inputOver) return false;
        if (!step.whenRead || c.outputOver || clientHasReadAll(c)) return true;
        if (c.whenReadLimit == Clock::time_point{}) c.whenReadLimit = Clock::now() + kWaitLimit;
        c.waitsForClient = Clock::now() < c.whenReadLimit;
        return !c.waitsForClient;
    }

    // True, too, when the client cannot be found in this process.
    bool clientHasReadAll(Connection& c) const {
        if (c.clientFd < 0 || !connects(c.clientFd, c.clientPort, port)) {
            c.clientFd = 0;
            while (c.clientFd < kHighestClientDescriptor &&
                   !connects(c.clientFd, c.clientPort, port)) {
                ++c.clientFd;
            }
        }
        return c.clientFd == kHighestClientDescriptor || hasRead(c.clientFd, c.wireSent);
    }

    static void take(Connection& c, const Step& step) {
        switch (step.kind) {
            case Step::Kind::kSend: encode(c, step.bytes); break;
            case Step::Kind::kSendRaw: c.out += step.bytes; break;
            case Step::Kind::kKeyUpdate:
                SSL_key_update(c.ssl, SSL_KEY_UPDATE_REQUESTED);
                shakeHands(c);
                break;
            case Step::Kind::kRenegotiateForCertificate:
                SSL_set_verify(c.ssl, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
                [[fallthrough]];
            case Step::Kind::kRenegotiate:
                SSL_renegotiate(c.ssl);
                shakeHands(c);
                break;
            case Step::Kind::kFatalAlert: failTls(c); break;
            case Step::Kind::kCloseNotify:
                if (!c.handshakeDone || c.tlsFailed) break;
                SSL_shutdown(c.ssl);
                takeTlsOutput(c);
                break;
            case Step::Kind::kFin:
                shutdown(c.fd, SHUT_WR);
                c.outputOver = true;
                break;
            case Step::Kind::kDropInput: c.dropInput = true; break;
            case Step::Kind::kReset:
                const linger abortive{1, 0};
                setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof(abortive));
                closeSocket(c);
                break;
        }
    }

    static void shakeHands(Connection& c) {
        ERR_clear_error();
        const int result = SSL_do_handshake(c.ssl);
        if (result != 1) noteTlsResult(c, result);
        takeTlsOutput(c);
    }

    // OpenSSL has no call that sends an alert. A record that does not decrypt makes it send one.
    static void failTls(Connection& c) {
        const std::string forged = hex("17 03 03 00 20") + std::string(32, 'x');
        BIO_write(c.tlsIn, forged.data(), static_cast<int>(forged.size()));
        ERR_clear_error();
        char buffer[1];
        const int result = SSL_read(c.ssl, buffer, sizeof(buffer));
        if (result <= 0) noteTlsResult(c, result);
        takeTlsOutput(c);
    }

    static void closeSocket(Connection& c) {
        ::close(c.fd);
        c.fd = -1;
        c.outputOver = true;
    }

    static void encode(Connection& c, const std::string& bytes) {
        if (c.ssl == nullptr) {
            c.out += bytes;
        } else if (c.handshakeDone && !c.tlsFailed && !bytes.empty()) {
            ERR_clear_error();
            const int size = static_cast<int>(bytes.size());
            if (SSL_write(c.ssl, bytes.data(), size) != size) c.tlsFailed = true;
            takeTlsOutput(c);
        }
    }

    static void takeTlsOutput(Connection& c) {
        char* bytes = nullptr;
        const long size = BIO_get_mem_data(c.tlsOut, &bytes);
        if (size > 0) c.out.append(bytes, static_cast<size_t>(size));
        BIO_reset(c.tlsOut);
    }

    static void flush(Connection& c) {
        while (c.wantsWrite() && !c.outputOver) {
            const ssize_t size =
                ::send(c.fd, c.out.data() + c.outSent, c.out.size() - c.outSent, MSG_NOSIGNAL);
            if (size < 0 && errno == EINTR) continue;
            if (size < 0 && errno == EAGAIN) return;
            if (size < 0) {
                c.outputOver = true;
                break;
            }
            c.outSent += static_cast<size_t>(size);
            c.wireSent += static_cast<uint64_t>(size);
        }
        c.out.clear();
        c.outSent = 0;
    }
};

void ignoreSigpipe() { std::signal(SIGPIPE, SIG_IGN); }

ScriptedServer::ScriptedServer(ServerOptions options)
    : m_shared(std::make_unique<Shared>(std::move(options))), m_port(m_shared->port) {
    ignoreSigpipe();
    m_thread = std::thread([this] { m_shared->run(); });
}

ScriptedServer::~ScriptedServer() {
    {
        const std::lock_guard<std::mutex> hold(m_shared->lock);
        m_shared->stop = true;
    }
    m_shared->wake();
    m_thread.join();
}

// ---- what to do with a connection

void ScriptedServer::queue(size_t index, std::vector<Step> steps) {
    {
        std::unique_lock<std::mutex> hold(m_shared->lock);
        Connection& connection = m_shared->find(hold, index);
        for (Step& step : steps) connection.steps.push_back(std::move(step));
    }
    m_shared->wake();
}

void ScriptedServer::send(size_t index, std::string bytes) {
    queue(index, {{Step::Kind::kSend, std::move(bytes)}});
}

void ScriptedServer::sendCut(size_t index, std::string_view bytes,
                             const std::vector<size_t>& cuts) {
    std::vector<Step> steps;
    size_t start = 0;
    const auto addPiece = [&](size_t end) {
        if (end < start || end > bytes.size()) throw std::runtime_error("sendCut: bad position");
        if (end > start) {
            steps.push_back({Step::Kind::kSend, std::string(bytes.substr(start, end - start)),
                             /*whenRead=*/true});
        }
        start = end;
    };
    for (const size_t cut : cuts) addPiece(cut);
    addPiece(bytes.size());
    queue(index, std::move(steps));
}

void ScriptedServer::sendByteByByte(size_t index, std::string_view bytes) {
    std::vector<size_t> cuts;
    for (size_t i = 1; i < bytes.size(); ++i) cuts.push_back(i);
    sendCut(index, bytes, cuts);
}

void ScriptedServer::sendRaw(size_t index, std::string bytes) {
    queue(index, {{Step::Kind::kSendRaw, std::move(bytes)}});
}

void ScriptedServer::updateKeys(size_t index) { queue(index, {{Step::Kind::kKeyUpdate, {}}}); }

void ScriptedServer::renegotiate(size_t index, bool wantCertificate) {
    queue(index,
          {{wantCertificate ? Step::Kind::kRenegotiateForCertificate : Step::Kind::kRenegotiate,
            {}}});
}

void ScriptedServer::sendFatalAlert(size_t index) { queue(index, {{Step::Kind::kFatalAlert, {}}}); }

void ScriptedServer::sendCloseNotify(size_t index) {
    queue(index, {{Step::Kind::kCloseNotify, {}}});
}

void ScriptedServer::close(size_t index) {
    queue(index,
          {{Step::Kind::kCloseNotify, {}}, {Step::Kind::kFin, {}}, {Step::Kind::kDropInput, {}}});
}

void ScriptedServer::closeWithoutCloseNotify(size_t index) {
    queue(index, {{Step::Kind::kFin, {}}, {Step::Kind::kDropInput, {}}});
}

void ScriptedServer::shutdownWrite(size_t index) { queue(index, {{Step::Kind::kFin, {}}}); }

void ScriptedServer::reset(size_t index) { queue(index, {{Step::Kind::kReset, {}}}); }

void ScriptedServer::setReading(size_t index, bool on) {
    {
        std::unique_lock<std::mutex> hold(m_shared->lock);
        m_shared->find(hold, index).readingStopped = !on;
    }
    m_shared->wake();
}

void ScriptedServer::stopReading(size_t index) { setReading(index, false); }

void ScriptedServer::resumeReading(size_t index) { setReading(index, true); }

// ---- what came

template <typename Get>
auto ScriptedServer::look(size_t index, Get get) {
    std::unique_lock<std::mutex> hold(m_shared->lock);
    return get(m_shared->find(hold, index));
}

std::string ScriptedServer::received(size_t index) {
    return look(index, [](const Connection& c) { return c.received; });
}

std::vector<WireFrame> ScriptedServer::frames(size_t index) {
    return look(index, [](const Connection& c) { return c.frames; });
}

std::vector<WireFrame> ScriptedServer::frames(size_t index, uint8_t type) {
    std::vector<WireFrame> out;
    for (WireFrame& frame : frames(index)) {
        if (frame.type == type) out.push_back(std::move(frame));
    }
    return out;
}

size_t ScriptedServer::connections() const {
    const std::lock_guard<std::mutex> hold(m_shared->lock);
    return m_shared->connections.size();
}

bool ScriptedServer::closedByPeer(size_t index) {
    return look(index, [](const Connection& c) { return c.inputOver; });
}

bool ScriptedServer::resetByPeer(size_t index) {
    return look(index, [](const Connection& c) { return c.resetByPeer; });
}

bool ScriptedServer::closeNotifyReceived(size_t index) {
    return look(index, [](const Connection& c) {
        return c.ssl != nullptr && (SSL_get_shutdown(c.ssl) & SSL_RECEIVED_SHUTDOWN) != 0;
    });
}

bool ScriptedServer::tlsFailed(size_t index) {
    return look(index, [](const Connection& c) { return c.tlsFailed; });
}

// ---- waiting

bool ScriptedServer::waitConnections(size_t count, Limit limit) {
    std::unique_lock<std::mutex> hold(m_shared->lock);
    return m_shared->changed.wait_for(hold, limit,
                                      [&] { return m_shared->connections.size() >= count; });
}

template <typename Pred>
bool ScriptedServer::waitConnection(size_t index, Limit limit, Pred pred) {
    std::unique_lock<std::mutex> hold(m_shared->lock);
    return m_shared->changed.wait_for(hold, limit, [&] {
        return m_shared->connections.size() > index && pred(*m_shared->connections[index]);
    });
}

bool ScriptedServer::waitReceived(size_t index, size_t size, Limit limit) {
    return waitConnection(index, limit,
                          [&](const Connection& c) { return c.received.size() >= size; });
}

bool ScriptedServer::waitReceived(size_t index, const std::function<bool(const std::string&)>& pred,
                                  Limit limit) {
    return waitConnection(index, limit, [&](const Connection& c) { return pred(c.received); });
}

bool ScriptedServer::waitFrames(size_t index, size_t count, Limit limit) {
    return waitConnection(index, limit,
                          [&](const Connection& c) { return c.frames.size() >= count; });
}

bool ScriptedServer::waitFramesOf(size_t index, uint8_t type, size_t count, Limit limit) {
    return waitFramesThat(
        index,
        [&](const std::vector<WireFrame>& frames) {
            size_t seen = 0;
            for (const WireFrame& frame : frames) seen += frame.type == type ? 1 : 0;
            return seen >= count;
        },
        limit);
}

bool ScriptedServer::waitFramesThat(size_t index,
                                    const std::function<bool(const std::vector<WireFrame>&)>& pred,
                                    Limit limit) {
    return waitConnection(index, limit, [&](const Connection& c) { return pred(c.frames); });
}

bool ScriptedServer::waitSent(size_t index, Limit limit) {
    return waitConnection(index, limit, [](const Connection& c) { return c.allSent(); });
}

bool ScriptedServer::waitClosedByPeer(size_t index, Limit limit) {
    return waitConnection(index, limit, [](const Connection& c) { return c.inputOver; });
}

RefusingPort::RefusingPort() : m_socket(boundSocket(m_port)) {}

RefusingPort::~RefusingPort() { ::close(m_socket); }

}  // namespace h2test
