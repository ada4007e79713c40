// The plain and the TLS transport, with correct and with faulty servers.

#include "Http2Client/HttpSocketOri.h"
#include "Http2Client/HttpSocketSSL.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Http2Client/Sock.h"
#include "tests/support/bytes.h"
#include "tests/support/capture.h"
#include "tests/support/descriptors.h"
#include "tests/support/guarded.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_lines.h"
#include "tests/support/scripted_server.h"
#include "tests/support/signals.h"
#include "tests/support/virtual_slot.h"
#include "tests/support/wait.h"

namespace h2test {
namespace {

// Records this thread's calls of OpenSSL as long as it lives, and makes one of them fail if asked.
// The functions below replace OpenSSL's in this program and call them.
class OpenSslTrace {
public:
    explicit OpenSslTrace(std::string failing = {}) : m_failing(std::move(failing)) {
        current() = this;
    }
    ~OpenSslTrace() { current() = nullptr; }
    OpenSslTrace(const OpenSslTrace&) = delete;
    OpenSslTrace& operator=(const OpenSslTrace&) = delete;

    const std::vector<std::string>& calls() const { return m_calls; }

    // Records a call and passes it on to OpenSSL's function. If the call is to fail, returns 0 or
    // null instead. Calls that OpenSSL makes itself are not recorded.
    template <typename Result, typename... Args>
    static Result call(Result (*)(Args...), const char* name, std::type_identity_t<Args>... args) {
        const Pause pause;
        if (pause.trace != nullptr) {
            pause.trace->m_calls.emplace_back(name);
            if (name == pause.trace->m_failing) return Result();
        }
        return reinterpret_cast<Result (*)(Args...)>(dlsym(RTLD_NEXT, name))(args...);
    }

private:
    struct Pause {
        OpenSslTrace* const trace = std::exchange(current(), nullptr);
        ~Pause() { current() = trace; }
    };
    static OpenSslTrace*& current() {
        thread_local OpenSslTrace* trace = nullptr;
        return trace;
    }

    const std::string m_failing;
    std::vector<std::string> m_calls;
};

}  // namespace
}  // namespace h2test

using h2test::OpenSslTrace;

extern "C" int OPENSSL_init_ssl(uint64_t options, const OPENSSL_INIT_SETTINGS* settings) {
    return OpenSslTrace::call(OPENSSL_init_ssl, "OPENSSL_init_ssl", options, settings);
}
extern "C" SSL_CTX* SSL_CTX_new(const SSL_METHOD* method) {
    return OpenSslTrace::call(SSL_CTX_new, "SSL_CTX_new", method);
}
extern "C" SSL* SSL_new(SSL_CTX* context) {
    return OpenSslTrace::call(SSL_new, "SSL_new", context);
}
extern "C" void SSL_set_verify(SSL* ssl, int mode, SSL_verify_cb callback) {
    OpenSslTrace::call(SSL_set_verify, "SSL_set_verify", ssl, mode, callback);
}
extern "C" int SSL_set_fd(SSL* ssl, int fd) {
    return OpenSslTrace::call(SSL_set_fd, "SSL_set_fd", ssl, fd);
}
extern "C" int SSL_connect(SSL* ssl) { return OpenSslTrace::call(SSL_connect, "SSL_connect", ssl); }
extern "C" int SSL_shutdown(SSL* ssl) {
    return OpenSslTrace::call(SSL_shutdown, "SSL_shutdown", ssl);
}
extern "C" void SSL_free(SSL* ssl) { OpenSslTrace::call(SSL_free, "SSL_free", ssl); }
extern "C" void SSL_CTX_free(SSL_CTX* context) {
    OpenSslTrace::call(SSL_CTX_free, "SSL_CTX_free", context);
}

namespace h2test {
namespace {

using tiny::HttpSocketBase;
using tiny::HttpSocketOri;
using tiny::HttpSocketSSL;
using tiny::Sock;

using Lines = std::vector<std::string>;

constexpr const char* kIp = "127.0.0.1";

// A transport whose socket is connected to the server, not initialised.
template <typename Transport>
std::unique_ptr<Transport> connected(uint16_t port) {
    const HTTP_SCHEMA schema = std::is_same_v<Transport, HttpSocketSSL> ? HTTPS_2 : HTTP_2;
    auto transport = std::make_unique<Transport>(schema, kIp, port);
    EXPECT_EQ(Sock::connectTo(transport->sock(), kIp, port), 0);
    return transport;
}

// The same, initialised and non-blocking.
template <typename Transport>
std::unique_ptr<Transport> ready(uint16_t port) {
    auto transport = connected<Transport>(port);
    EXPECT_TRUE(transport->initialization());
    Sock::setNonblocked(transport->sock(), true);
    return transport;
}

// The first result of a read that is not -1. Waits for the socket before each try.
int readSome(HttpSocketBase& transport, char* buf, size_t len) {
    for (int i = 0; i < 1000; ++i) {
        const int result = transport.readData(buf, len);
        if (result != -1) return result;
        if (!waitReady(transport.sock(), POLLIN)) break;
    }
    ADD_FAILURE() << "nothing to read";
    return -1;
}

// Reads until there are `size` bytes or the connection is over.
std::string readBytes(HttpSocketBase& transport, size_t size) {
    std::string out;
    while (out.size() < size) {
        char buffer[4096];
        const int result = readSome(transport, buffer, std::min(sizeof(buffer), size - out.size()));
        if (result <= 0) break;
        out.append(buffer, static_cast<size_t>(result));
    }
    return out;
}

int readOne(HttpSocketBase& transport) {
    char byte = 0;
    return readSome(transport, &byte, 1);
}

ServerOptions optionsOf(bool tls, int receiveBuffer = 0) {
    ServerOptions options;
    options.tls = tls;
    options.receiveBuffer = receiveBuffer;
    return options;
}

// A text that repeats only after 251 bytes.
std::string pattern(size_t size) {
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>(i % 251);
    return out;
}

// A server that does not read, with a client: their buffers are small, so writes soon block.
template <typename Transport>
struct BlockedServer {
    static constexpr bool kTls = std::is_same_v<Transport, HttpSocketSSL>;

    explicit BlockedServer(std::unique_ptr<Transport> (*connect)(uint16_t) = &ready<Transport>)
        : transport(connect(server.port())) {
        server.stopReading(0);
        const int size = 4096;
        EXPECT_EQ(setsockopt(transport->sock(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
    }

    ScriptedServer server{optionsOf(kTls, 4096)};
    std::unique_ptr<Transport> transport;
};

// The base

TEST(HttpSocketBase, KeepsItsArgumentsAndCreatesItsSocket) {
    const HttpSocketOri plain(HTTP_2, "192.0.2.1", 8080);
    EXPECT_EQ(plain.httpVersion(), HTTP_2);
    EXPECT_EQ(plain.remoteIp(), "192.0.2.1");
    EXPECT_EQ(plain.remotePort(), 8080);
    const HttpSocketSSL secure(HTTP_VERSION_UNDEFINED, "no address", 65535);
    EXPECT_EQ(secure.httpVersion(), HTTP_VERSION_UNDEFINED);
    EXPECT_EQ(secure.remoteIp(), "no address");
    EXPECT_EQ(secure.remotePort(), 65535);
    EXPECT_EQ(secure.m_ssl, nullptr);
    EXPECT_EQ(secure.m_sslCtx, nullptr);
    EXPECT_NE(plain.sock(), secure.sock());
    for (const int fd : {plain.sock(), secure.sock()}) {
        sockaddr_storage peer{};
        socklen_t size = sizeof(peer);
        EXPECT_EQ(getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size), -1);
        EXPECT_EQ(errno, ENOTCONN);
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
        int keepAlive = 0;
        socklen_t length = sizeof(keepAlive);
        getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &keepAlive, &length);
        EXPECT_EQ(keepAlive, 1);
    }
}

TEST(HttpSocketBase, LogsItsSocketAndItsEnd) {
    const LogCapture log;
    int fd = -1;
    {
        const HttpSocketOri transport(HTTP_2, "192.0.2.1", 80);
        fd = transport.sock();
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
    const std::string created = "createSocket socket:" + std::to_string(fd);
    EXPECT_EQ(logLines(log), (Lines{"20000 Sock_Linux.cpp: creat new socket",
                                    "20000 HttpSocketBase.cpp: " + created,
                                    "20000 HttpSocketBase.cpp: HttpSocket Closed, ip:192.0.2.1"}));
    EXPECT_NE(functionThatLogged(log, created).find("HttpSocketBase::HttpSocketBase("),
              std::string::npos);
    EXPECT_NE(functionThatLogged(log, "HttpSocket Closed, ip:192.0.2.1").find("~HttpSocketBase"),
              std::string::npos);

    const LogCapture silent(20001);
    { const HttpSocketOri transport(HTTP_2, "192.0.2.1", 80); }
    EXPECT_EQ(silent.levelQueries(), 3u);
    EXPECT_EQ(logLines(silent), Lines{});
}

TEST(HttpSocketBase, ClosesNothingWithoutASocket) {
    {
        // The sanitizer needs a descriptor when it sees an object of a class for the first time.
        const LogCapture ignored;
        EXPECT_NE(HttpSocketOri(HTTP_2, "192.0.2.1", 80).sock(), -1);
    }
    const LogCapture log;
    const size_t before = openDescriptors();
    {
        const DescriptorLimit limit(static_cast<rlim_t>(nextDescriptor()));
        const HttpSocketOri transport(HTTP_2, "192.0.2.1", 80);
        EXPECT_EQ(transport.sock(), -1);
    }
    EXPECT_EQ(logLines(log), (Lines{"20000 Sock_Linux.cpp: creat new socket",
                                    "20000 HttpSocketBase.cpp: createSocket socket:-1",
                                    "20000 HttpSocketBase.cpp: HttpSocket Closed, ip:192.0.2.1"}));
    EXPECT_EQ(openDescriptors(), before);
}

TEST(HttpSocketBase, KeepsTheOrderOfItsVirtualOperations) {
    static_assert(std::is_abstract_v<HttpSocketBase>);
    static_assert(std::has_virtual_destructor_v<HttpSocketBase>);
    static_assert(sizeof(HttpSocketOri) == sizeof(HttpSocketBase));
    EXPECT_EQ(virtualSlot(&HttpSocketBase::initialization), 2u);
    EXPECT_EQ(virtualSlot(&HttpSocketBase::readData), 3u);
    EXPECT_EQ(virtualSlot(&HttpSocketBase::writeData), 4u);
}

// Both transports

class EitherTransport : public testing::TestWithParam<bool> {
protected:
    ScriptedServer m_server{optionsOf(GetParam())};
    const std::unique_ptr<HttpSocketBase> m_transport =
        GetParam() ? std::unique_ptr<HttpSocketBase>(ready<HttpSocketSSL>(m_server.port()))
                   : std::unique_ptr<HttpSocketBase>(ready<HttpSocketOri>(m_server.port()));
};

INSTANTIATE_TEST_SUITE_P(Transport, EitherTransport, testing::Bool(),
                         [](const auto& info) { return info.param ? "Tls" : "Plain"; });

TEST_P(EitherTransport, MovesBytesBothWays) {
    const std::string out = hex("00 01 ff 80 00 7f");
    const GuardedBytes bytes(out);
    EXPECT_EQ(m_transport->writeData(bytes.data(), bytes.size()), 6);
    ASSERT_TRUE(m_server.waitReceived(0, 6));
    EXPECT_EQ(m_server.received(0), out);

    m_server.send(0, hex("ff 00 fe 01 61 62"));
    GuardedBytes in(std::string(4, 'x'));
    EXPECT_EQ(readSome(*m_transport, in.data(), 4), 4);
    EXPECT_EQ(toHex(in.view()), "ff 00 fe 01");
    EXPECT_EQ(readBytes(*m_transport, 2), "ab");
}

TEST_P(EitherTransport, ReadsMinusOneWhileThereIsNothing) {
    const LogCapture log;
    char byte = 'x';
    EXPECT_EQ(m_transport->readData(&byte, 1), -1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(logLines(log), Lines{});
}

TEST_P(EitherTransport, WritesZeroAfterAReset) {
    m_server.reset(0);
    ASSERT_TRUE(waitReady(m_transport->sock(), 0));
    const LogCapture log(40000);
    EXPECT_EQ(m_transport->writeData("x", 1), 0);  // ECONNRESET
    EXPECT_EQ(logLines(log), GetParam()
                                 ? Lines{"40000 HttpSocketSSL.h: SSL write Err! err5,ip: 127.0.0.1"}
                                 : Lines{});
    if (GetParam()) {
        EXPECT_NE(functionThatLogged(log, "SSL write Err! err5,ip: 127.0.0.1")
                      .find("tiny::HttpSocketSSL::writeData(const char*, size_t)"),
                  std::string::npos);
    }
    EXPECT_EQ(m_transport->writeData("x", 1), 0);  // EPIPE
}

// Each way in which the server may end a connection, and what the next read logs.
struct End {
    std::string name;
    bool tls;
    void (*end)(ScriptedServer& server);
    Lines log;

    friend void PrintTo(const End& end, std::ostream* out) { *out << end.name; }
};

class ConnectionEnd : public testing::TestWithParam<End> {};

INSTANTIATE_TEST_SUITE_P(
    Transport, ConnectionEnd,
    testing::Values(
        End{"Fin", false, [](ScriptedServer& server) { server.close(0); }, {}},
        End{"Reset", false, [](ScriptedServer& server) { server.reset(0); }, {}},
        End{"TlsCloseNotify", true, [](ScriptedServer& server) { server.sendCloseNotify(0); }, {}},
        End{"TlsCloseNotifyAndFin", true, [](ScriptedServer& server) { server.close(0); }, {}},
        End{"TlsFin", true, [](ScriptedServer& server) { server.closeWithoutCloseNotify(0); }, {}},
        End{"TlsReset",
            true,
            [](ScriptedServer& server) { server.reset(0); },
            {"40000 HttpSocketSSL.h: SSL read Err! err5,ip: 127.0.0.1"}},
        End{"TlsNoRecord",
            true,
            [](ScriptedServer& server) { server.sendRaw(0, "this is no TLS record"); },
            {"40000 HttpSocketSSL.h: SSL read Err! err1,ip: 127.0.0.1"}}),
    [](const auto& info) { return info.param.name; });

TEST_P(ConnectionEnd, IsReadAsZero) {
    ScriptedServer server(optionsOf(GetParam().tls));
    std::unique_ptr<HttpSocketBase> transport;
    if (GetParam().tls) {
        transport = ready<HttpSocketSSL>(server.port());
    } else {
        transport = ready<HttpSocketOri>(server.port());
    }
    server.send(0, "z");
    EXPECT_EQ(readBytes(*transport, 1), "z");
    GetParam().end(server);
    const LogCapture log(40000);
    const CoutCapture console;
    EXPECT_EQ(readOne(*transport), 0);
    EXPECT_EQ(logLines(log), GetParam().log);
    for (const LogRecord& record : log.records()) {
        EXPECT_EQ(record.function, "virtual int tiny::HttpSocketSSL::readData(char*, size_t)");
    }
    EXPECT_EQ(console.str(), "");
    EXPECT_EQ(readOne(*transport), 0);
}

// Plain

TEST(HttpSocketOri, InitializationDoesNothing) {
    HttpSocketOri transport(HTTP_2, kIp, 1);  // not even connected
    const LogCapture log;
    const CoutCapture console;
    EXPECT_TRUE(transport.initialization());
    EXPECT_TRUE(transport.initialization());
    EXPECT_EQ(logLines(log), Lines{});
    EXPECT_EQ(console.str(), "");
}

TEST(HttpSocketOri, TreatsOtherErrorsAsTheEndAndDoesNotSuppressSigpipe) {
    const SignalCounter pipe(SIGPIPE);
    HttpSocketOri transport(HTTP_2, kIp, 1);  // not connected: ENOTCONN and EPIPE
    char byte = 0;
    EXPECT_EQ(transport.readData(&byte, 1), 0);
    EXPECT_EQ(transport.writeData(&byte, 1), 0);
    EXPECT_EQ(SignalCounter::count(), 1);
}

TEST(HttpSocketOri, ReturnsMinusOneForAnInterruptedReadAndWrite) {
    const BlockedServer<HttpSocketOri> peer(&connected<HttpSocketOri>);  // blocking
    const std::string block = pattern(65536);
    const Interrupter interrupter;
    char byte = 0;
    EXPECT_EQ(peer.transport->readData(&byte, 1), -1);
    int result = 0;
    size_t written = 0;
    while ((result = peer.transport->writeData(block.data(), block.size())) > 0) {
        written += static_cast<size_t>(result);
        ASSERT_LT(written, 64u * 1024 * 1024);
    }
    EXPECT_EQ(result, -1);
}

TEST(HttpSocketOri, WritesWhatFitsAndThenMinusOne) {
    BlockedServer<HttpSocketOri> peer;
    const std::string bytes = pattern(size_t{8} * 1024 * 1024);
    size_t written = 0;
    int result = 0;
    while ((result = peer.transport->writeData(bytes.data() + written, bytes.size() - written)) >
           0) {
        written += static_cast<size_t>(result);
        ASSERT_LT(written, bytes.size());
    }
    EXPECT_EQ(result, -1);
    ASSERT_GT(written, 0u);
    peer.server.resumeReading(0);
    ASSERT_TRUE(peer.server.waitReceived(0, written));
    EXPECT_EQ(peer.server.received(0), bytes.substr(0, written));
}

TEST(HttpSocketOri, ReturnsZeroForAWriteOfNoBytes) {
    ScriptedServer server;
    auto transport = ready<HttpSocketOri>(server.port());
    EXPECT_EQ(transport->writeData("x", 0), 0);
    EXPECT_EQ(transport->writeData("y", 1), 1);  // the connection has not ended
    ASSERT_TRUE(server.waitReceived(0, 1));
    EXPECT_EQ(server.received(0), "y");
}

// TLS: the handshake

TEST(HttpSocketSsl, GoesThroughTheHandshakeInOrderOnEveryConnection) {
    ScriptedServer server(optionsOf(true));
    for (int i = 0; i < 2; ++i) {
        const CoutCapture console;
        auto transport = connected<HttpSocketSSL>(server.port());
        const LogCapture log;
        const OpenSslTrace trace;
        EXPECT_TRUE(transport->initialization());
        EXPECT_EQ(trace.calls(), (Lines{"OPENSSL_init_ssl", "SSL_CTX_new", "SSL_new",
                                        "SSL_set_verify", "SSL_set_fd", "SSL_connect"}));
        EXPECT_EQ(logLines(log), (Lines{"20000 HttpSocketSSL.h: init ssl, ip: 127.0.0.1",
                                        "20000 HttpSocketSSL.h: init ssl success! ip: 127.0.0.1"}));
        EXPECT_NE(functionThatLogged(log, "init ssl, ip: 127.0.0.1")
                      .find("tiny::HttpSocketSSL::initialization()"),
                  std::string::npos);
        EXPECT_EQ(console.str(), "");
        EXPECT_EQ(fcntl(transport->sock(), F_GETFL) & O_NONBLOCK, 0);
    }
}

TEST(HttpSocketSsl, IsTheLibrarysDefaultClientWithoutVerification) {
    ScriptedServer server(optionsOf(true));
    auto first = ready<HttpSocketSSL>(server.port());
    auto second = ready<HttpSocketSSL>(server.port());
    SSL_CTX* const context = first->m_sslCtx;
    EXPECT_EQ(SSL_get_verify_mode(first->m_ssl), SSL_VERIFY_NONE);
    EXPECT_EQ(SSL_get_verify_callback(first->m_ssl), nullptr);
    EXPECT_EQ(SSL_get_fd(first->m_ssl), first->sock());
    EXPECT_EQ(SSL_get_SSL_CTX(first->m_ssl), context);
    EXPECT_NE(context, second->m_sslCtx);
    EXPECT_EQ(SSL_session_reused(second->m_ssl), 0);
    const auto* trusted = X509_STORE_get0_objects(SSL_CTX_get_cert_store(context));
    EXPECT_TRUE(trusted == nullptr || sk_X509_OBJECT_num(trusted) == 0);

    SSL_CTX* untouched = SSL_CTX_new(TLS_client_method());
    EXPECT_EQ(SSL_CTX_get_ssl_method(context), TLS_client_method());
    EXPECT_EQ(SSL_CTX_get_options(context), SSL_CTX_get_options(untouched));
    EXPECT_EQ(SSL_CTX_get_mode(context), SSL_CTX_get_mode(untouched));
    EXPECT_EQ(SSL_CTX_get_min_proto_version(context), SSL_CTX_get_min_proto_version(untouched));
    EXPECT_EQ(SSL_CTX_get_max_proto_version(context), SSL_CTX_get_max_proto_version(untouched));
    SSL_CTX_free(untouched);
}

TEST(HttpSocketSsl, ASecondInitializationIsANoOp) {
    ScriptedServer server(optionsOf(true));
    auto transport = connected<HttpSocketSSL>(server.port());
    ASSERT_TRUE(transport->initialization());
    SSL* const ssl = transport->m_ssl;
    SSL_CTX* const context = transport->m_sslCtx;
    const LogCapture log;
    const OpenSslTrace trace;
    EXPECT_TRUE(transport->initialization());
    EXPECT_EQ(trace.calls(), Lines{});
    EXPECT_EQ(logLines(log), Lines{"20000 HttpSocketSSL.h: init ssl, ip: 127.0.0.1"});
    EXPECT_EQ(transport->m_ssl, ssl);
    EXPECT_EQ(transport->m_sslCtx, context);
}

// The extension types of a ClientHello in one TLS record (RFC 8446, 4.1.2).
std::set<int> extensionsOf(const std::string& record) {
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(record.at(at)); };
    const auto pair = [&](size_t at) { return byte(at) << 8 | byte(at + 1); };
    size_t at = 5 + 4 + 2 + 32;                // record header, message header, version, random
    at += 1u + byte(at);                       // session
    at += 2u + static_cast<size_t>(pair(at));  // cipher suites
    at += 1u + byte(at);                       // compression methods
    const size_t end = at + 2 + static_cast<size_t>(pair(at));
    std::set<int> types;
    for (at += 2; at < end; at += 4u + static_cast<size_t>(pair(at + 2))) types.insert(pair(at));
    EXPECT_EQ(at, record.size());
    return types;
}

TEST(HttpSocketSsl, SendsNeitherServerNameNorProtocolList) {
    ScriptedServer server;  // plain: keeps the first record as it is
    const NullCout quiet;
    auto transport = connected<HttpSocketSSL>(server.port());
    auto handshake =
        std::async(std::launch::async, [&transport] { return transport->initialization(); });
    const bool arrived = server.waitReceived(0, [](const std::string& bytes) {
        return bytes.size() >= 5 && bytes.size() >= 5u + (static_cast<uint8_t>(bytes[3]) << 8) +
                                                        static_cast<uint8_t>(bytes[4]);
    });
    const std::string hello = server.received(0);
    server.close(0);
    EXPECT_FALSE(handshake.get());
    ASSERT_TRUE(arrived);
    ASSERT_EQ(toHex(hello.substr(0, 1)), "16");  // a handshake record
    ASSERT_EQ(toHex(hello.substr(5, 1)), "01");  // with a ClientHello
    const std::set<int> types = extensionsOf(hello);
    EXPECT_EQ(types.count(0), 0u);   // server_name
    EXPECT_EQ(types.count(16), 0u);  // application_layer_protocol_negotiation
    EXPECT_EQ(types.count(43), 1u);  // supported_versions: the extensions were really read
}

// Every failed set-up does the same, except for the console text.
void expectSetUpFailure(HttpSocketSSL& transport, const std::string& text) {
    const CoutCapture console;
    const LogCapture log;
    EXPECT_FALSE(transport.initialization());
    EXPECT_EQ(console.str(), text + "\n");
    EXPECT_EQ(logLines(log), (Lines{"20000 HttpSocketSSL.h: init ssl, ip: 127.0.0.1",
                                    "40000 HttpSocketSSL.h: ssl failed!ip: 127.0.0.1"}));
    EXPECT_TRUE(isOpen(transport.sock()));
}

TEST(HttpSocketSsl, FailsAtEachStepOfItsSetUpAndFreesWhatItHas) {
    const std::pair<const char*, Lines> steps[] = {
        {"ssl initialization failed", {"OPENSSL_init_ssl"}},
        {"create ssl context failed", {"SSL_CTX_new"}},
        {"create ssl failed", {"SSL_new"}},
        {"set socket to ssl failed", {"SSL_set_verify", "SSL_set_fd"}},
        {"connect to ssl server failed", {"SSL_connect"}}};  // its other failures are negative
    const Lines frees[] = {{}, {}, {"SSL_CTX_free"}, {"SSL_free", "SSL_CTX_free"}};
    Lines calls;
    for (size_t step = 0; step < std::size(steps); ++step) {
        const auto& [text, added] = steps[step];
        calls.insert(calls.end(), added.begin(), added.end());
        Lines wanted = calls;
        const Lines& freed = frees[std::min(step, std::size(frees) - 1)];
        wanted.insert(wanted.end(), freed.begin(), freed.end());
        const size_t before = openDescriptors();
        const OpenSslTrace trace(calls.back());
        {
            HttpSocketSSL transport(HTTPS_2, kIp, 1);
            expectSetUpFailure(transport, text);
            EXPECT_EQ(trace.calls(), calls);  // the destructor frees, nothing before it
        }
        EXPECT_EQ(trace.calls(), wanted);
        EXPECT_EQ(openDescriptors(), before) << text;
    }
}

TEST(HttpSocketSsl, FailsWithoutATlsServer) {
    ServerOptions plain;
    plain.greeting = "HTTP/1.1 400 Bad Request\r\n\r\n";
    ServerOptions closing;
    closing.closeAfterGreeting = true;
    for (const ServerOptions& options : {plain, closing}) {
        ScriptedServer server(options);
        auto transport = connected<HttpSocketSSL>(server.port());
        expectSetUpFailure(*transport, "connect to ssl server failed");
        transport.reset();
        EXPECT_TRUE(server.waitClosedByPeer(0));
    }
    const SignalCounter pipe(SIGPIPE);
    HttpSocketSSL unconnected(HTTPS_2, kIp, 1);
    expectSetUpFailure(unconnected, "connect to ssl server failed");
}

// TLS: data

TEST(HttpSocketSsl, ReadsMinusOneForHalfARecord) {
    ScriptedServer server(optionsOf(true));
    auto transport = ready<HttpSocketSSL>(server.port());
    server.sendRaw(0, hex("17 03 03 00 20 00 00"));  // 32 bytes declared, 2 there
    ASSERT_TRUE(server.waitSent(0));
    char byte = 'x';
    EXPECT_EQ(transport->readData(&byte, 1), -1);
    EXPECT_EQ(byte, 'x');
}

TEST(HttpSocketSsl, WritesMinusOneWhileNothingFitsAndGoesOnLater) {
    BlockedServer<HttpSocketSSL> peer;
    const LogCapture log;
    constexpr int kSize = 1000;
    const std::string bytes = pattern(size_t{8} * 1024 * 1024);
    size_t written = 0;
    const auto write = [&] {
        // An old error in the thread's queue must not end a write that has to wait.
        ERR_raise(ERR_LIB_SSL, SSL_R_WRONG_VERSION_NUMBER);
        const int result = peer.transport->writeData(bytes.data() + written, kSize);
        if (result > 0) written += static_cast<size_t>(result);
        return result;
    };
    int result = 0;
    while ((result = write()) > 0) {
        EXPECT_EQ(result, kSize);  // all or nothing: partial writes are not enabled
        ASSERT_LT(written + kSize, bytes.size());
    }
    EXPECT_EQ(result, -1);
    EXPECT_GT(written, 0u);
    peer.server.resumeReading(0);
    while ((result = write()) == -1) {
        ASSERT_TRUE(waitReady(peer.transport->sock(), POLLOUT));
    }
    EXPECT_EQ(result, kSize);
    ASSERT_TRUE(peer.server.waitReceived(0, written));
    EXPECT_EQ(peer.server.received(0), bytes.substr(0, written));
    EXPECT_EQ(logLines(log), Lines{});
}

TEST(HttpSocketSsl, SendsNoCloseNotifyAtItsEnd) {
    ScriptedServer server(optionsOf(true));
    auto transport = ready<HttpSocketSSL>(server.port());
    EXPECT_EQ(transport->writeData("x", 1), 1);
    ASSERT_TRUE(server.waitReceived(0, 1));
    const LogCapture log;
    const OpenSslTrace trace;
    transport.reset();
    EXPECT_EQ(trace.calls(), (Lines{"SSL_free", "SSL_CTX_free"}));
    EXPECT_EQ(logLines(log), Lines{"20000 HttpSocketBase.cpp: HttpSocket Closed, ip:127.0.0.1"});
    ASSERT_TRUE(server.waitClosedByPeer(0));
    EXPECT_FALSE(server.closeNotifyReceived(0));
}

// TLS: OpenSSL's error queue belongs to the thread, not to the connection

TEST(HttpSocketSsl, OneConnectionsBrokenRecordDoesNotEndAnother) {
    ScriptedServer server(optionsOf(true));
    auto broken = ready<HttpSocketSSL>(server.port());
    ASSERT_TRUE(server.waitConnections(1));
    auto healthy = ready<HttpSocketSSL>(server.port());
    server.send(1, "z");  // behind the session tickets: reading those clears the error queue
    EXPECT_EQ(readBytes(*healthy, 1), "z");
    server.sendRaw(0, "this is no TLS record");
    EXPECT_EQ(readOne(*broken), 0);
    ASSERT_NE(ERR_peek_error(), 0u);  // the next operation must not treat it as its own
    char byte = 0;
    EXPECT_EQ(healthy->readData(&byte, 1), -1);
    broken.reset();
    server.send(1, "ok");
    EXPECT_EQ(readBytes(*healthy, 2), "ok");
    EXPECT_EQ(healthy->writeData("ok", 2), 2);
    EXPECT_TRUE(server.waitReceived(1, 2));
}

TEST(HttpSocketSsl, HandshakeClearsOldErrors) {
    ScriptedServer server(optionsOf(true));
    auto transport = connected<HttpSocketSSL>(server.port());
    ERR_raise(ERR_LIB_SSL, SSL_R_WRONG_VERSION_NUMBER);
    EXPECT_TRUE(transport->initialization());
    EXPECT_EQ(ERR_peek_error(), 0u);
}

}  // namespace
}  // namespace h2test
