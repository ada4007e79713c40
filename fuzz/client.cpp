// The public interface against a server on loopback that plays the input: bytes in pieces of any
// size, pauses while it reads little or nothing, a close in the middle.
#include <arpa/inet.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/HttpContext.h"
#include "Http2Client/httpClientApi.h"
#include "fuzz_support.h"

// The pause after each poll step is not what is tested here.
extern "C" int usleep(useconds_t /*unused*/) { return sched_yield(); }

namespace {

const h2fuzz::QuietCout quiet;

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kLimit(20);

template <typename Condition>
void await(Condition reached, const char* promise) {
    const auto end = Clock::now() + kLimit;
    while (!reached()) {
        h2fuzz::require(Clock::now() < end, promise);
        sched_yield();
    }
}

class Client : public tiny::HttpClientInterface {
public:
    ~Client() override { cancelRequest(); }

    void onSocketClosed() override { end(); }
    void onFailed(HTTP_ERROR err) override {
        h2fuzz::require(err == ERR_FETAL, "a failure is ERR_FETAL");
        end();
    }
    void onHeaderReceived(int /*status*/, const HeaderDef* headers, size_t count) override {
        h2fuzz::require(m_running, "headers are for a running request");
        for (size_t i = 0; i < count; ++i) {
            m_seen += std::strlen(headers[i].m_headerName) + std::strlen(headers[i].m_headerValue);
        }
    }
    void onContentReceived(const char* data, size_t len, bool more) override {
        h2fuzz::require(m_running, "a body is for a running request");
        for (size_t i = 0; i < len; ++i) m_seen += static_cast<uint8_t>(data[i]);
        if (!more) end();
    }

    // Returns whether a request runs now.
    bool start(h2fuzz::Input& input) {
        if (m_running) return true;
        const uint8_t control = input.byte();
        clearClient();
        setUri(std::string(input.bytes(control & 15)).c_str(), HTTP_POST);
        addHeader("host", "fuzz", (control & 0x10) != 0);
        m_bodyLeft = (control & 0x20) != 0 ? input.word() * 16 : 0;
        if (m_bodyLeft != 0) setContent(readBody, this);
        m_running = true;
        if (startRequest("") != 0) m_running = false;
        return m_running;
    }

    void cancel() {
        cancelRequest();
        m_running = false;
    }
    bool running() const { return m_running; }

private:
    static int readBody(char* buffer, size_t length, void* opaque) {
        auto* client = static_cast<Client*>(opaque);
        const size_t count = std::min(length, client->m_bodyLeft);
        std::memset(buffer, 'b', count);
        client->m_bodyLeft -= count;
        return static_cast<int>(count);
    }

    void end() {
        h2fuzz::require(m_running, "a request ends once");
        m_running = false;
    }

    std::atomic<bool> m_running{false};
    size_t m_bodyLeft = 0;
    size_t m_seen = 0;  // so that every byte handed over is read
};

// Listens on a port of the system's choice as long as the process lives.
class Listener {
public:
    Listener() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int small = 4096;
        setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        setsockopt(m_fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* any = reinterpret_cast<sockaddr*>(&address);
        h2fuzz::require(bind(m_fd, any, sizeof address) == 0 && listen(m_fd, 64) == 0 &&
                            getsockname(m_fd, any, &size) == 0,
                        "a port to listen on");
        m_port = ntohs(address.sin_port);
    }
    uint16_t port() const { return m_port; }
    // accept4(2) takes null where nobody wants the address.
    // cppcheck-suppress nullPointer
    int accept() const { return ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC); }

private:
    int m_fd;
    uint16_t m_port = 0;
};

// The server's end of one connection.
class Peer {
public:
    explicit Peer(int fd) : m_fd(fd) {}
    ~Peer() { close(); }
    void close() {
        if (m_fd != -1) ::close(m_fd);
        m_fd = -1;
    }
    void receive(size_t most) {
        char buffer[65536];
        (void)::recv(m_fd, buffer, std::min(most, sizeof buffer), MSG_DONTWAIT);
    }
    // Sends all of it, reading meanwhile so that both ends cannot wait for each other.
    void send(std::string_view bytes) {
        const auto end = Clock::now() + kLimit;
        while (!bytes.empty()) {
            const ssize_t sent =
                ::send(m_fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (sent > 0) {
                bytes.remove_prefix(static_cast<size_t>(sent));
            } else if (sent == -1 && errno != EAGAIN) {
                return;  // the client has hung up
            } else {
                h2fuzz::require(Clock::now() < end, "the client reads what is sent");
                receive(65536);
                sched_yield();
            }
        }
    }

private:
    int m_fd;
};

bool hasConnection() {
    tiny::HttpContext* context = tiny::HttpContext::instance();
    SingleLock lock(&context->m_httpIolock);
    return !context->m_httpIoMap.empty();
}

void play(h2fuzz::Input& input, Client& client, Peer& peer) {
    while (!input.empty()) {
        const uint8_t control = input.byte();
        switch (control & 7) {
            case 0: peer.receive(input.byte()); break;
            case 1: peer.receive(65536); break;
            case 2: client.cancel(); break;
            case 3: client.start(input); break;
            case 4: sched_yield(); break;
            case 5:
                for (const char byte : input.bytes(control >> 3)) peer.send({&byte, 1});
                break;
            case 6: peer.send(input.bytes(input.byte())); break;
            default: peer.send(input.bytes(input.word())); break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Listener listener;
    static const bool started = [] {
        signal(SIGPIPE, SIG_IGN);
        initHttp2Client(0);  // no step waits
        std::atexit([] { destroyHttp2Client(); });
        return true;
    }();
    h2fuzz::require(started, "the library is started");

    h2fuzz::Input input(data, size);
    Client client;
    h2fuzz::require(client.connectToServer(HTTP_2, "127.0.0.1", listener.port()) == 0,
                    "a listening server is reached");
    Peer peer(listener.accept());
    h2fuzz::require(client.start(input), "a request starts on a new connection");
    play(input, client, peer);
    peer.close();
    await([&] { return !client.running(); }, "every request ends when the connection does");
    await([] { return !hasConnection(); }, "a closed connection is given up");
    return 0;
}
