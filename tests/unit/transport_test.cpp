// The plain and the TLS transport, against servers that do and do not play along.

#include "Http2Client/HttpSocketOri.h"
#include "Http2Client/HttpSocketSSL.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
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
#include "tests/support/temp.h"
#include "tests/support/wait.h"

namespace h2test {
namespace {

// Records this thread's calls of OpenSSL as long as it lives, and makes one of them fail if asked.
// The functions below stand before OpenSSL's own in this program, and call those.
class OpenSslTrace {
public:
    explicit OpenSslTrace(std::string failing = {}) : m_failing(std::move(failing)) {
        current() = this;
    }
    ~OpenSslTrace() { current() = nullptr; }
    OpenSslTrace(const OpenSslTrace&) = delete;
    OpenSslTrace& operator=(const OpenSslTrace&) = delete;

    const std::vector<std::string>& calls() const { return m_calls; }

    // Notes a call; true: it is to fail. Calls that OpenSSL makes of itself do not count.
    static bool note(const std::string& name, const std::string& argument = {}) {
        OpenSslTrace* trace = current();
        if (trace == nullptr || trace->m_depth > 0) return false;
        trace->m_calls.push_back(argument.empty() ? name : name + " " + argument);
        return name == trace->m_failing;
    }

    class Inside {
    public:
        Inside() : m_trace(current()) {
            if (m_trace != nullptr) ++m_trace->m_depth;
        }
        ~Inside() {
            if (m_trace != nullptr) --m_trace->m_depth;
        }
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;

    private:
        OpenSslTrace* m_trace;
    };

private:
    static OpenSslTrace*& current() {
        thread_local OpenSslTrace* trace = nullptr;
        return trace;
    }

    const std::string m_failing;
    std::vector<std::string> m_calls;
    int m_depth = 0;
};

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace h2test

using h2test::OpenSslTrace;

extern "C" int OPENSSL_init_ssl(uint64_t options, const OPENSSL_INIT_SETTINGS* settings) {
    if (OpenSslTrace::note("OPENSSL_init_ssl")) return 0;
    const OpenSslTrace::Inside inside;
    return h2test::next<decltype(OPENSSL_init_ssl)>("OPENSSL_init_ssl")(options, settings);
}

extern "C" SSL_CTX* SSL_CTX_new(const SSL_METHOD* method) {
    const bool isDefaultClient = method == SSLv23_client_method();
    if (OpenSslTrace::note("SSL_CTX_new", isDefaultClient ? "client" : "other")) return nullptr;
    const OpenSslTrace::Inside inside;
    return h2test::next<decltype(SSL_CTX_new)>("SSL_CTX_new")(method);
}

extern "C" SSL* SSL_new(SSL_CTX* context) {
    if (OpenSslTrace::note("SSL_new")) return nullptr;
    const OpenSslTrace::Inside inside;
    return h2test::next<decltype(SSL_new)>("SSL_new")(context);
}

extern "C" void SSL_set_verify(SSL* ssl, int mode, SSL_verify_cb callback) {
    OpenSslTrace::note("SSL_set_verify",
                       std::to_string(mode) + (callback == nullptr ? "" : " callback"));
    const OpenSslTrace::Inside inside;
    h2test::next<decltype(SSL_set_verify)>("SSL_set_verify")(ssl, mode, callback);
}

extern "C" int SSL_set_fd(SSL* ssl, int fd) {
    if (OpenSslTrace::note("SSL_set_fd", std::to_string(fd))) return 0;
    const OpenSslTrace::Inside inside;
    return h2test::next<decltype(SSL_set_fd)>("SSL_set_fd")(ssl, fd);
}

extern "C" int SSL_connect(SSL* ssl) {
    if (OpenSslTrace::note("SSL_connect")) return 0;
    const OpenSslTrace::Inside inside;
    return h2test::next<decltype(SSL_connect)>("SSL_connect")(ssl);
}

extern "C" int SSL_shutdown(SSL* ssl) {
    OpenSslTrace::note("SSL_shutdown");
    const OpenSslTrace::Inside inside;
    return h2test::next<decltype(SSL_shutdown)>("SSL_shutdown")(ssl);
}

extern "C" void SSL_free(SSL* ssl) {
    OpenSslTrace::note("SSL_free", ssl == nullptr ? "null" : "");
    const OpenSslTrace::Inside inside;
    h2test::next<decltype(SSL_free)>("SSL_free")(ssl);
}

extern "C" void SSL_CTX_free(SSL_CTX* context) {
    OpenSslTrace::note("SSL_CTX_free", context == nullptr ? "null" : "");
    const OpenSslTrace::Inside inside;
    h2test::next<decltype(SSL_CTX_free)>("SSL_CTX_free")(context);
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

// What a read returns that is not -1, waiting for the socket until then.
int readSome(HttpSocketBase& transport, char* buf, size_t len) {
    while (true) {
        const int result = transport.readData(buf, len);
        if (result != -1) return result;
        if (!waitReady(transport.sock(), POLLIN)) {
            ADD_FAILURE() << "nothing to read";
            return -1;
        }
    }
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

ServerOptions tls() {
    ServerOptions options;
    options.tls = true;
    return options;
}

// A byte of a long text that repeats only after 251 bytes.
std::string pattern(size_t size) {
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>(i % 251);
    return out;
}

void makeSendBufferSmall(int fd) {
    const int size = 4096;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
}

ServerOptions withSmallBuffer(ServerOptions options) {
    options.receiveBuffer = 4096;
    return options;
}

// The base

TEST(HttpSocketBase, KeepsWhatItWasMadeFor) {
    const HttpSocketOri plain(HTTP_2, "192.0.2.1", 8080);
    EXPECT_EQ(plain.httpVersion(), HTTP_2);
    EXPECT_EQ(plain.remoteIp(), "192.0.2.1");
    EXPECT_EQ(plain.remotePort(), 8080);
    EXPECT_TRUE(isOpen(plain.sock()));
    const HttpSocketSSL secure(HTTP_VERSION_UNDEFINED, "no address", 65535);
    EXPECT_EQ(secure.httpVersion(), HTTP_VERSION_UNDEFINED);
    EXPECT_EQ(secure.remoteIp(), "no address");
    EXPECT_EQ(secure.remotePort(), 65535);
    EXPECT_TRUE(isOpen(secure.sock()));
    EXPECT_EQ(secure.m_ssl, nullptr);
    EXPECT_EQ(secure.m_sslCtx, nullptr);
    EXPECT_NE(plain.sock(), secure.sock());
}

TEST(HttpSocketBase, CreatesItsSocketUnconnectedAndBlocking) {
    const HttpSocketOri transport(HTTP_2, kIp, 1);
    sockaddr_storage peer{};
    socklen_t size = sizeof(peer);
    EXPECT_EQ(getpeername(transport.sock(), reinterpret_cast<sockaddr*>(&peer), &size), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(fcntl(transport.sock(), F_GETFL) & O_NONBLOCK, 0);
    int keepAlive = 0;
    socklen_t length = sizeof(keepAlive);
    getsockopt(transport.sock(), SOL_SOCKET, SO_KEEPALIVE, &keepAlive, &length);
    EXPECT_EQ(keepAlive, 1);
}

TEST(HttpSocketBase, LogsItsSocketAndItsEnd) {
    const LogCapture log;
    int fd = -1;
    {
        const HttpSocketOri transport(HTTP_2, "192.0.2.1", 80);
        fd = transport.sock();
        EXPECT_EQ(logLines(log),
                  (Lines{"20000 Sock_Linux.cpp: creat new socket",
                         "20000 HttpSocketBase.cpp: createSocket socket:" + std::to_string(fd)}));
        EXPECT_NE(functionThatLogged(log, "createSocket socket:" + std::to_string(fd))
                      .find("HttpSocketBase::HttpSocketBase("),
                  std::string::npos);
    }
    EXPECT_FALSE(isOpen(fd));
    ASSERT_EQ(log.records().size(), 3u);
    EXPECT_EQ(logLines(log).back(), "20000 HttpSocketBase.cpp: HttpSocket Closed, ip:192.0.2.1");
    EXPECT_NE(functionThatLogged(log, "HttpSocket Closed, ip:192.0.2.1").find("~HttpSocketBase"),
              std::string::npos);
}

TEST(HttpSocketBase, LogsNothingAboveItsLevel) {
    const LogCapture log(20001);
    { const HttpSocketOri transport(HTTP_2, "192.0.2.1", 80); }
    EXPECT_EQ(log.levelQueries(), 3u);
    EXPECT_EQ(logLines(log), Lines{});
}

TEST(HttpSocketBase, ClosesNothingWithoutASocket) {
    // The sanitizer wants a descriptor when it sees an object of a class for the first time.
    LogCapture log;
    EXPECT_NE(HttpSocketOri(HTTP_2, "192.0.2.1", 80).sock(), -1);
    log.clear();
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

// A pointer to a virtual member is, under the C++ ABI of this platform, one more than the member's
// offset in the table; the destructor has two slots.
template <typename Member>
ptrdiff_t slotOf(Member member) {
    ptrdiff_t parts[2];
    static_assert(sizeof(member) == sizeof(parts));
    std::memcpy(parts, &member, sizeof(parts));
    return (parts[0] - 1) / static_cast<ptrdiff_t>(sizeof(void*));
}

TEST(HttpSocketBase, KeepsTheOrderOfItsVirtualOperations) {
    static_assert(std::is_abstract_v<HttpSocketBase>);
    static_assert(std::has_virtual_destructor_v<HttpSocketBase>);
    static_assert(sizeof(HttpSocketOri) == sizeof(HttpSocketBase));
    EXPECT_EQ(slotOf(&HttpSocketBase::initialization), 2);
    EXPECT_EQ(slotOf(&HttpSocketBase::readData), 3);
    EXPECT_EQ(slotOf(&HttpSocketBase::writeData), 4);
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

TEST(HttpSocketOri, MovesBytesBothWays) {
    ScriptedServer server;
    auto transport = ready<HttpSocketOri>(server.port());
    const std::string out = hex("00 01 ff 80 00 7f");
    const GuardedBytes bytes(out);
    EXPECT_EQ(transport->writeData(bytes.data(), bytes.size()), 6);
    ASSERT_TRUE(server.waitReceived(0, 6));
    EXPECT_EQ(server.received(0), out);

    server.send(0, hex("ff 00 fe 01"));
    GuardedBytes in(std::string(4, 'x'));
    ASSERT_TRUE(waitReady(transport->sock(), POLLIN));
    EXPECT_EQ(readSome(*transport, in.data(), 4), 4);
    EXPECT_EQ(toHex(in.view()), "ff 00 fe 01");
}

TEST(HttpSocketOri, ReadsNoMoreThanTheBufferHolds) {
    ScriptedServer server;
    auto transport = ready<HttpSocketOri>(server.port());
    server.send(0, "abcdef");
    GuardedBytes in(std::string(2, 'x'));
    EXPECT_EQ(readBytes(*transport, 1), "a");
    ASSERT_EQ(readSome(*transport, in.data(), 2), 2);
    EXPECT_EQ(in.view(), "bc");
    EXPECT_EQ(readBytes(*transport, 3), "def");
}

TEST(HttpSocketOri, ReadsMinusOneWhileThereIsNothing) {
    ScriptedServer server;
    auto transport = ready<HttpSocketOri>(server.port());
    char byte = 'x';
    EXPECT_EQ(transport->readData(&byte, 1), -1);
    EXPECT_EQ(byte, 'x');
}

TEST(HttpSocketOri, ReadsZeroWhenThePeerHasClosed) {
    ScriptedServer server;
    auto transport = ready<HttpSocketOri>(server.port());
    server.send(0, "z");
    server.close(0);
    EXPECT_EQ(readOne(*transport), 1);
    EXPECT_EQ(readOne(*transport), 0);
    EXPECT_EQ(readOne(*transport), 0);
}

TEST(HttpSocketOri, ReadsZeroAfterAReset) {
    ScriptedServer server;
    auto transport = ready<HttpSocketOri>(server.port());
    server.reset(0);
    EXPECT_EQ(readOne(*transport), 0);
}

TEST(HttpSocketOri, TakesOtherErrorsForTheEnd) {
    const SignalCounter pipe(SIGPIPE);
    HttpSocketOri transport(HTTP_2, kIp, 1);  // not connected: ENOTCONN and EPIPE
    char byte = 0;
    EXPECT_EQ(transport.readData(&byte, 1), 0);
    EXPECT_EQ(transport.writeData(&byte, 1), 0);
}

TEST(HttpSocketOri, DoesNotSuppressSigpipe) {
    const SignalCounter pipe(SIGPIPE);
    HttpSocketOri transport(HTTP_2, kIp, 1);
    EXPECT_EQ(transport.writeData("x", 1), 0);
    EXPECT_EQ(SignalCounter::count(), 1);
}

TEST(HttpSocketOri, TakesAnInterruptedReadForOneToBeTriedAgain) {
    ScriptedServer server;
    auto transport = connected<HttpSocketOri>(server.port());  // blocking
    const Interrupter interrupter;
    char byte = 0;
    EXPECT_EQ(transport->readData(&byte, 1), -1);
}

TEST(HttpSocketOri, TakesAnInterruptedWriteForOneToBeTriedAgain) {
    ScriptedServer server(withSmallBuffer({}));
    auto transport = connected<HttpSocketOri>(server.port());  // blocking
    server.stopReading(0);
    makeSendBufferSmall(transport->sock());
    const std::string block = pattern(65536);
    const Interrupter interrupter;
    size_t written = 0;
    int result = 0;
    while ((result = transport->writeData(block.data(), block.size())) > 0) {
        written += static_cast<size_t>(result);
        ASSERT_LT(written, 64u * 1024 * 1024);
    }
    EXPECT_EQ(result, -1);
}

TEST(HttpSocketOri, WritesWhatFitsAndThenMinusOne) {
    ScriptedServer server(withSmallBuffer({}));
    auto transport = ready<HttpSocketOri>(server.port());
    server.stopReading(0);
    makeSendBufferSmall(transport->sock());
    const std::string bytes = pattern(size_t{8} * 1024 * 1024);
    size_t written = 0;
    int result = 0;
    while ((result = transport->writeData(bytes.data() + written, bytes.size() - written)) > 0) {
        written += static_cast<size_t>(result);
        ASSERT_LT(written, bytes.size());
    }
    EXPECT_EQ(result, -1);
    ASSERT_GT(written, 0u);
    server.resumeReading(0);
    ASSERT_TRUE(server.waitReceived(0, written));
    EXPECT_EQ(server.received(0), bytes.substr(0, written));
}

TEST(HttpSocketOri, ReturnsZeroForAWriteOfNoBytes) {
    ScriptedServer server;
    auto transport = ready<HttpSocketOri>(server.port());
    EXPECT_EQ(transport->writeData("x", 0), 0);
    EXPECT_EQ(transport->writeData("y", 1), 1);  // it was not the end
    ASSERT_TRUE(server.waitReceived(0, 1));
    EXPECT_EQ(server.received(0), "y");
}

TEST(HttpSocketOri, WritesZeroAfterAReset) {
    ScriptedServer server;
    auto transport = ready<HttpSocketOri>(server.port());
    server.reset(0);
    ASSERT_TRUE(waitReady(transport->sock(), 0));
    const LogCapture log;
    EXPECT_EQ(transport->writeData("x", 1), 0);  // ECONNRESET
    EXPECT_EQ(transport->writeData("x", 1), 0);  // EPIPE
    EXPECT_EQ(logLines(log), Lines{});
}

// TLS: the handshake

TEST(HttpSocketSsl, GoesThroughTheHandshakeInOrder) {
    ScriptedServer server(tls());
    const CoutCapture console;
    auto transport = connected<HttpSocketSSL>(server.port());
    const std::string fd = std::to_string(transport->sock());
    const LogCapture log;
    const OpenSslTrace trace;
    EXPECT_TRUE(transport->initialization());
    EXPECT_EQ(trace.calls(), (Lines{"OPENSSL_init_ssl", "SSL_CTX_new client", "SSL_new",
                                    "SSL_set_verify 0", "SSL_set_fd " + fd, "SSL_connect"}));
    EXPECT_EQ(logLines(log), (Lines{"20000 HttpSocketSSL.h: init ssl, ip: 127.0.0.1",
                                    "20000 HttpSocketSSL.h: init ssl success! ip: 127.0.0.1"}));
    EXPECT_NE(functionThatLogged(log, "init ssl, ip: 127.0.0.1")
                  .find("tiny::HttpSocketSSL::initialization()"),
              std::string::npos);
    EXPECT_EQ(console.str(), "");
    EXPECT_EQ(fcntl(transport->sock(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(HttpSocketSsl, StartsTheLibraryOnEveryConnection) {
    ScriptedServer server(tls());
    for (int i = 0; i < 2; ++i) {
        auto transport = connected<HttpSocketSSL>(server.port());
        const OpenSslTrace trace;
        EXPECT_TRUE(transport->initialization());
        ASSERT_FALSE(trace.calls().empty());
        EXPECT_EQ(trace.calls().front(), "OPENSSL_init_ssl");
    }
}

TEST(HttpSocketSsl, IsTheLibrarysDefaultClientWithoutVerification) {
    ScriptedServer server(tls());
    auto first = ready<HttpSocketSSL>(server.port());
    auto second = ready<HttpSocketSSL>(server.port());
    EXPECT_EQ(SSL_get_verify_mode(first->m_ssl), SSL_VERIFY_NONE);
    EXPECT_EQ(SSL_get_verify_callback(first->m_ssl), nullptr);
    EXPECT_EQ(SSL_get_fd(first->m_ssl), first->sock());
    EXPECT_EQ(SSL_get_SSL_CTX(first->m_ssl), first->m_sslCtx);
    EXPECT_NE(first->m_sslCtx, second->m_sslCtx);
    EXPECT_EQ(SSL_session_reused(second->m_ssl), 0);
    EXPECT_EQ(X509_STORE_get0_objects(SSL_CTX_get_cert_store(first->m_sslCtx)) == nullptr ||
                  sk_X509_OBJECT_num(
                      X509_STORE_get0_objects(SSL_CTX_get_cert_store(first->m_sslCtx))) == 0,
              true);

    SSL_CTX* untouched = SSL_CTX_new(TLS_client_method());
    EXPECT_EQ(SSL_CTX_get_options(first->m_sslCtx), SSL_CTX_get_options(untouched));
    EXPECT_EQ(SSL_CTX_get_mode(first->m_sslCtx), SSL_CTX_get_mode(untouched));
    EXPECT_EQ(SSL_CTX_get_min_proto_version(first->m_sslCtx),
              SSL_CTX_get_min_proto_version(untouched));
    EXPECT_EQ(SSL_CTX_get_max_proto_version(first->m_sslCtx),
              SSL_CTX_get_max_proto_version(untouched));
    SSL_CTX_free(untouched);
}

TEST(HttpSocketSsl, ASecondInitializationIsANoOp) {
    ScriptedServer server(tls());
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

TEST(HttpSocketSsl, AcceptsAnExpiredCertificate) {
    ServerOptions options = tls();
    options.certificate = makeExpiredCertificate();
    ScriptedServer server(options);
    auto transport = ready<HttpSocketSSL>(server.port());
    EXPECT_EQ(transport->writeData("abc", 3), 3);
    ASSERT_TRUE(server.waitReceived(0, 3));
    EXPECT_EQ(server.received(0), "abc");
    EXPECT_FALSE(server.tlsFailed(0));
}

TEST(HttpSocketSsl, AcceptsASelfSignedCertificate) {
    ServerOptions options = tls();
    options.certificate = makeCertificate();
    ScriptedServer server(options);
    auto transport = ready<HttpSocketSSL>(server.port());
    server.send(0, "hello");
    EXPECT_EQ(readBytes(*transport, 5), "hello");
    EXPECT_FALSE(server.tlsFailed(0));
}

TEST(HttpSocketSsl, SpeaksTls12AndTls13) {
    ScriptedServer newest(tls());
    ServerOptions options = tls();
    options.onlyTls12 = true;
    ScriptedServer older(options);
    auto first = ready<HttpSocketSSL>(newest.port());
    auto second = ready<HttpSocketSSL>(older.port());
    EXPECT_EQ(SSL_version(first->m_ssl), TLS1_3_VERSION);
    EXPECT_EQ(SSL_version(second->m_ssl), TLS1_2_VERSION);
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
    EXPECT_EQ(types.count(43), 1u);  // supported_versions: the walk has seen the extensions
}

// What a failed set-up looks like, each time the same but for the console's text.
void expectSetUpFailure(HttpSocketSSL& transport, const std::string& text) {
    const CoutCapture console;
    const LogCapture log;
    EXPECT_FALSE(transport.initialization());
    EXPECT_EQ(console.str(), text + "\n");
    EXPECT_EQ(logLines(log), (Lines{"20000 HttpSocketSSL.h: init ssl, ip: 127.0.0.1",
                                    "40000 HttpSocketSSL.h: ssl failed!ip: 127.0.0.1"}));
    EXPECT_TRUE(isOpen(transport.sock()));
}

TEST(HttpSocketSsl, FailsWhenTheLibraryCannotStart) {
    HttpSocketSSL transport(HTTPS_2, kIp, 1);
    const OpenSslTrace trace("OPENSSL_init_ssl");
    expectSetUpFailure(transport, "ssl initialization failed");
    EXPECT_EQ(trace.calls(), Lines{"OPENSSL_init_ssl"});
    EXPECT_EQ(transport.m_sslCtx, nullptr);
    EXPECT_EQ(transport.m_ssl, nullptr);
}

TEST(HttpSocketSsl, FailsWithoutAContext) {
    HttpSocketSSL transport(HTTPS_2, kIp, 1);
    const OpenSslTrace trace("SSL_CTX_new");
    expectSetUpFailure(transport, "create ssl context failed");
    EXPECT_EQ(trace.calls(), (Lines{"OPENSSL_init_ssl", "SSL_CTX_new client"}));
    EXPECT_EQ(transport.m_sslCtx, nullptr);
    EXPECT_EQ(transport.m_ssl, nullptr);
}

TEST(HttpSocketSsl, FailsWithoutASessionAndFreesItsContextOnly) {
    const LogCapture log;
    const OpenSslTrace trace("SSL_new");
    int fd = -1;
    {
        HttpSocketSSL transport(HTTPS_2, kIp, 1);
        fd = transport.sock();
        expectSetUpFailure(transport, "create ssl failed");
        EXPECT_NE(transport.m_sslCtx, nullptr);
        EXPECT_EQ(transport.m_ssl, nullptr);
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_EQ(trace.calls(),
              (Lines{"OPENSSL_init_ssl", "SSL_CTX_new client", "SSL_new", "SSL_CTX_free"}));
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(logLines(log).back(), "20000 HttpSocketBase.cpp: HttpSocket Closed, ip:127.0.0.1");
}

TEST(HttpSocketSsl, FailsWhenTheSessionDoesNotTakeTheSocket) {
    const OpenSslTrace trace("SSL_set_fd");
    std::string fd;
    {
        HttpSocketSSL transport(HTTPS_2, kIp, 1);
        fd = std::to_string(transport.sock());
        expectSetUpFailure(transport, "set socket to ssl failed");
        EXPECT_NE(transport.m_sslCtx, nullptr);
        EXPECT_NE(transport.m_ssl, nullptr);
    }
    EXPECT_EQ(trace.calls(),
              (Lines{"OPENSSL_init_ssl", "SSL_CTX_new client", "SSL_new", "SSL_set_verify 0",
                     "SSL_set_fd " + fd, "SSL_free", "SSL_CTX_free"}));
}

// SSL_connect's other results are 0 and negative ones.
TEST(HttpSocketSsl, FailsWhenTheHandshakeReturnsZero) {
    HttpSocketSSL transport(HTTPS_2, kIp, 1);
    const OpenSslTrace trace("SSL_connect");
    expectSetUpFailure(transport, "connect to ssl server failed");
}

TEST(HttpSocketSsl, FailsAgainstAPlainServer) {
    ServerOptions options;
    options.greeting = "HTTP/1.1 400 Bad Request\r\n\r\n";
    ScriptedServer server(options);
    auto transport = connected<HttpSocketSSL>(server.port());
    expectSetUpFailure(*transport, "connect to ssl server failed");
    EXPECT_NE(transport->m_sslCtx, nullptr);
    EXPECT_NE(transport->m_ssl, nullptr);
    transport.reset();
    EXPECT_TRUE(server.waitClosedByPeer(0));
}

TEST(HttpSocketSsl, FailsAgainstAServerThatClosesAtOnce) {
    ServerOptions options;
    options.closeAfterGreeting = true;
    ScriptedServer server(options);
    auto transport = connected<HttpSocketSSL>(server.port());
    expectSetUpFailure(*transport, "connect to ssl server failed");
}

TEST(HttpSocketSsl, FailsOnASocketThatIsNotConnected) {
    const SignalCounter pipe(SIGPIPE);
    HttpSocketSSL transport(HTTPS_2, kIp, 1);
    expectSetUpFailure(transport, "connect to ssl server failed");
}

TEST(HttpSocketSsl, ClosesItsSocketAfterEachFailure) {
    const NullCout quiet;
    const size_t before = openDescriptors();
    for (const char* failing :
         {"OPENSSL_init_ssl", "SSL_CTX_new", "SSL_new", "SSL_set_fd", "SSL_connect"}) {
        const OpenSslTrace trace(failing);
        HttpSocketSSL transport(HTTPS_2, kIp, 1);
        EXPECT_FALSE(transport.initialization()) << failing;
    }
    EXPECT_EQ(openDescriptors(), before);
}

// TLS: data

TEST(HttpSocketSsl, MovesBytesBothWays) {
    ScriptedServer server(tls());
    auto transport = ready<HttpSocketSSL>(server.port());
    const std::string out = hex("00 01 ff 80 00 7f");
    const GuardedBytes bytes(out);
    EXPECT_EQ(transport->writeData(bytes.data(), bytes.size()), 6);
    ASSERT_TRUE(server.waitReceived(0, 6));
    EXPECT_EQ(server.received(0), out);

    server.send(0, "abcdef");
    GuardedBytes in(std::string(4, 'x'));
    EXPECT_EQ(readSome(*transport, in.data(), 4), 4);
    EXPECT_EQ(in.view(), "abcd");
    EXPECT_EQ(readBytes(*transport, 2), "ef");
}

TEST(HttpSocketSsl, ReadsMinusOneWhileThereIsNothing) {
    ScriptedServer server(tls());
    auto transport = ready<HttpSocketSSL>(server.port());
    const LogCapture log;
    char byte = 'x';
    EXPECT_EQ(transport->readData(&byte, 1), -1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(logLines(log), Lines{});
}

TEST(HttpSocketSsl, ReadsMinusOneForHalfARecord) {
    ScriptedServer server(tls());
    auto transport = ready<HttpSocketSSL>(server.port());
    server.sendRaw(0, hex("17 03 03 00 20 00 00"));  // 32 bytes declared, 2 there
    ASSERT_TRUE(server.waitSent(0));
    char byte = 'x';
    EXPECT_EQ(transport->readData(&byte, 1), -1);
    EXPECT_EQ(byte, 'x');
}

TEST(HttpSocketSsl, ReadsZeroAfterCloseNotify) {
    ScriptedServer server(tls());
    auto transport = ready<HttpSocketSSL>(server.port());
    server.send(0, "z");
    server.sendCloseNotify(0);
    const LogCapture log;
    EXPECT_EQ(readOne(*transport), 1);
    EXPECT_EQ(readOne(*transport), 0);
    EXPECT_EQ(readOne(*transport), 0);
    EXPECT_EQ(logLines(log), Lines{});
}

TEST(HttpSocketSsl, ReadsZeroWhenThePeerClosesInOrder) {
    ScriptedServer server(tls());
    auto transport = ready<HttpSocketSSL>(server.port());
    server.close(0);
    const LogCapture log;
    EXPECT_EQ(readOne(*transport), 0);
    EXPECT_EQ(logLines(log), Lines{});
}

TEST(HttpSocketSsl, ReadsZeroWhenThePeerClosesWithoutCloseNotify) {
    ScriptedServer server(tls());
    auto transport = ready<HttpSocketSSL>(server.port());
    server.send(0, "z");
    server.closeWithoutCloseNotify(0);
    EXPECT_EQ(readOne(*transport), 1);
    EXPECT_EQ(readOne(*transport), 0);
}

TEST(HttpSocketSsl, ReadsZeroAndLogsForBytesThatAreNoRecord) {
    ScriptedServer server(tls());
    auto transport = ready<HttpSocketSSL>(server.port());
    server.send(0, "fine");
    EXPECT_EQ(readBytes(*transport, 4), "fine");
    server.sendRaw(0, "this is no TLS record");
    const LogCapture log;
    const CoutCapture console;
    EXPECT_EQ(readOne(*transport), 0);
    EXPECT_EQ(logLines(log), Lines{"40000 HttpSocketSSL.h: SSL read Err! err1,ip: 127.0.0.1"});
    EXPECT_NE(functionThatLogged(log, "SSL read Err! err1,ip: 127.0.0.1")
                  .find("tiny::HttpSocketSSL::readData(char*, size_t)"),
              std::string::npos);
    EXPECT_EQ(console.str(), "");
}

TEST(HttpSocketSsl, ReadsZeroAndLogsAfterAReset) {
    ScriptedServer server(tls());
    auto transport = ready<HttpSocketSSL>(server.port());
    server.reset(0);
    const LogCapture log;
    EXPECT_EQ(readOne(*transport), 0);
    EXPECT_EQ(logLines(log), Lines{"40000 HttpSocketSSL.h: SSL read Err! err5,ip: 127.0.0.1"});
}

TEST(HttpSocketSsl, WritesZeroAndLogsAfterAReset) {
    ScriptedServer server(tls());
    auto transport = ready<HttpSocketSSL>(server.port());
    server.reset(0);
    ASSERT_TRUE(waitReady(transport->sock(), 0));
    const LogCapture log;
    EXPECT_EQ(transport->writeData("x", 1), 0);
    EXPECT_EQ(logLines(log), Lines{"40000 HttpSocketSSL.h: SSL write Err! err5,ip: 127.0.0.1"});
    EXPECT_NE(functionThatLogged(log, "SSL write Err! err5,ip: 127.0.0.1")
                  .find("tiny::HttpSocketSSL::writeData(const char*, size_t)"),
              std::string::npos);
}

TEST(HttpSocketSsl, LogsErrorsAtTheErrorLevelAndNoOther) {
    ScriptedServer server(tls());
    auto transport = ready<HttpSocketSSL>(server.port());
    server.sendRaw(0, "this is no TLS record");
    ASSERT_TRUE(waitReady(transport->sock(), POLLIN));
    const LogCapture silent(40001);
    const LogCapture log(40000);
    EXPECT_EQ(readOne(*transport), 0);
    EXPECT_EQ(log.messages(40000).size(), 1u);
    EXPECT_EQ(log.records().size(), 1u);
}

TEST(HttpSocketSsl, WritesMinusOneWhileNothingFitsAndGoesOnLater) {
    ScriptedServer server(withSmallBuffer(tls()));
    auto transport = ready<HttpSocketSSL>(server.port());
    server.stopReading(0);
    makeSendBufferSmall(transport->sock());
    const LogCapture log;
    const std::string bytes = pattern(size_t{8} * 1024 * 1024);
    size_t written = 0;
    int result = 0;
    while ((result = transport->writeData(bytes.data() + written, 10000)) > 0) {
        EXPECT_EQ(result, 10000);  // all or nothing: no partial writes are asked for
        written += 10000;
        ASSERT_LT(written + 10000, bytes.size());
    }
    EXPECT_EQ(result, -1);
    server.resumeReading(0);
    while ((result = transport->writeData(bytes.data() + written, 10000)) == -1) {
        ASSERT_TRUE(waitReady(transport->sock(), POLLOUT));
    }
    EXPECT_EQ(result, 10000);
    written += 10000;
    ASSERT_TRUE(server.waitReceived(0, written));
    EXPECT_EQ(server.received(0), bytes.substr(0, written));
    EXPECT_EQ(logLines(log), Lines{});
}

TEST(HttpSocketSsl, SendsNoCloseNotifyAtItsEnd) {
    ScriptedServer server(tls());
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

TEST(HttpSocketSsl, TouchesNoSessionThatItDoesNotHave) {
    const OpenSslTrace trace;
    { const HttpSocketSSL transport(HTTPS_2, kIp, 1); }
    EXPECT_EQ(trace.calls(), Lines{});
}

// TLS: OpenSSL's error queue belongs to the thread, not to the connection

TEST(HttpSocketSsl, OneConnectionsBrokenRecordDoesNotEndAnother) {
    ScriptedServer server(tls());
    auto broken = ready<HttpSocketSSL>(server.port());
    ASSERT_TRUE(server.waitConnections(1));
    auto healthy = ready<HttpSocketSSL>(server.port());
    server.sendRaw(0, "this is no TLS record");
    EXPECT_EQ(readOne(*broken), 0);
    ASSERT_NE(ERR_peek_error(), 0u);  // what the next operation must not mistake for its own
    char byte = 0;
    EXPECT_EQ(healthy->readData(&byte, 1), -1);
    broken.reset();
    server.send(1, "ok");
    EXPECT_EQ(readBytes(*healthy, 2), "ok");
    EXPECT_EQ(healthy->writeData("ok", 2), 2);
    EXPECT_TRUE(server.waitReceived(1, 2));
}

TEST(HttpSocketSsl, OneConnectionsFailedHandshakeDoesNotEndAnother) {
    ScriptedServer server(tls());
    ServerOptions options;
    options.greeting = "HTTP/1.1 400 Bad Request\r\n\r\n";
    ScriptedServer plain(options);
    const NullCout quiet;
    auto healthy = ready<HttpSocketSSL>(server.port());
    auto failing = connected<HttpSocketSSL>(plain.port());
    EXPECT_FALSE(failing->initialization());
    ASSERT_NE(ERR_peek_error(), 0u);
    char byte = 0;
    EXPECT_EQ(healthy->readData(&byte, 1), -1);
}

TEST(HttpSocketSsl, AnOldErrorDoesNotEndABlockedWrite) {
    ScriptedServer server(withSmallBuffer(tls()));
    auto transport = ready<HttpSocketSSL>(server.port());
    server.stopReading(0);
    makeSendBufferSmall(transport->sock());
    const std::string block = pattern(16000);
    int result = 0;
    do {
        ERR_raise(ERR_LIB_SSL, SSL_R_WRONG_VERSION_NUMBER);
        result = transport->writeData(block.data(), block.size());
    } while (result > 0);
    EXPECT_EQ(result, -1);
}

TEST(HttpSocketSsl, HandshakeClearsOldErrors) {
    ScriptedServer server(tls());
    auto transport = connected<HttpSocketSSL>(server.port());
    ERR_raise(ERR_LIB_SSL, SSL_R_WRONG_VERSION_NUMBER);
    EXPECT_TRUE(transport->initialization());
    EXPECT_EQ(ERR_peek_error(), 0u);
}

}  // namespace
}  // namespace h2test
