// The helpers of the tests, where they have logic of their own.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "CLogWrapper/CLogWrapper.h"
#include "tests/support/bytes.h"
#include "tests/support/capture.h"
#include "tests/support/guarded.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_client.h"
#include "tests/support/scripted_server.h"
#include "tests/support/temp.h"
#include "tests/support/wait.h"

namespace h2test {
namespace {

// A blocking client with plain sockets or OpenSSL, nothing of the library.
class RawClient {
public:
    explicit RawClient(const ScriptedServer& server, bool tls = false) {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        const timeval limit{10, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(server.port());
        inet_aton(ScriptedServer::ip(), &address.sin_addr);
        m_connected = connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        if (tls && m_connected) startTls();
    }
    ~RawClient() {
        SSL_free(m_ssl);
        SSL_CTX_free(m_context);
        close(m_fd);
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connected() const { return m_connected; }
    int tlsVersion() const { return SSL_version(m_ssl); }

    bool write(std::string_view bytes) {
        const int size = static_cast<int>(bytes.size());
        if (m_ssl != nullptr) return SSL_write(m_ssl, bytes.data(), size) == size;
        return send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == size;
    }
    // One read. Empty: end, error or no answer in 10 s; see lastRead().
    std::string read() {
        char buffer[65536];
        m_lastRead = m_ssl != nullptr ? SSL_read(m_ssl, buffer, sizeof(buffer))
                                      : static_cast<int>(recv(m_fd, buffer, sizeof(buffer), 0));
        m_errno = errno;
        return m_lastRead > 0 ? std::string(buffer, static_cast<size_t>(m_lastRead))
                              : std::string();
    }
    std::string readAll(size_t size) {
        std::string out;
        while (out.size() < size) {
            const std::string piece = read();
            if (piece.empty()) break;
            out += piece;
        }
        return out;
    }
    int lastRead() const { return m_lastRead; }
    int lastErrno() const { return m_errno; }
    int tlsError() const { return SSL_get_error(m_ssl, m_lastRead); }
    void shutdownTls() { SSL_shutdown(m_ssl); }
    void shutdownWrite() { shutdown(m_fd, SHUT_WR); }
    void resetOnClose() {
        const linger abortive{1, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof(abortive));
    }

private:
    void startTls() {
        m_context = SSL_CTX_new(TLS_client_method());
        m_ssl = SSL_new(m_context);
        SSL_set_fd(m_ssl, m_fd);
        m_connected = SSL_connect(m_ssl) == 1;
    }

    int m_fd;
    bool m_connected;
    SSL_CTX* m_context = nullptr;
    SSL* m_ssl = nullptr;
    int m_lastRead = 0;
    int m_errno = 0;
};

TEST(Bytes, HexReadsDigitsAndSkipsSeparators) {
    EXPECT_EQ(hex("00 0a | FF:7f\n10"), std::string("\x00\x0a\xff\x7f\x10", 5));
    EXPECT_EQ(hex(""), "");
    EXPECT_EQ(hex("aabb"), "\xaa\xbb");
    EXPECT_EQ(toHex(std::string("\x00\x0a\xff", 3)), "00 0a ff");
    EXPECT_EQ(toHex(""), "");
}

TEST(BytesDeathTest, HexRefusesWhatIsNoByte) {
    EXPECT_DEATH(hex("0"), "bad text at position 0");
    EXPECT_DEATH(hex("00 1"), "bad text at position 3");
    EXPECT_DEATH(hex("0g"), "bad text at position 1");
    EXPECT_DEATH(hex("0 0"), "bad text at position 1");
    EXPECT_DEATH(hex("00,01"), "bad text at position 2");
}

TEST(Bytes, FramesAreLaidOutAsOnTheWire) {
    // length | type | flags | R and stream | payload
    EXPECT_EQ(toHex(frame(0x0A, 0x81, kReservedBit | 5, "ab")), "00 00 02 0a 81 80 00 00 05 61 62");
    EXPECT_EQ(toHex(frameWithLength(0x010203, kData, 0, 1, "x")), "01 02 03 00 00 00 00 00 01 78");
    EXPECT_EQ(toHex(settings({{1, 4096}, {4, 0x7fffffff}})),
              "00 00 0c 04 00 00 00 00 00 00 01 00 00 10 00 00 04 7f ff ff ff");
    EXPECT_EQ(toHex(settingsAck()), "00 00 00 04 01 00 00 00 00");
    EXPECT_EQ(toHex(ping(0x0102030405060708)),
              "00 00 08 06 00 00 00 00 00 01 02 03 04 05 06 07 08");
    EXPECT_EQ(toHex(goaway(3, 2, "hi")),
              "00 00 0a 07 00 00 00 00 00 00 00 00 03 00 00 00 02 68 69");
    EXPECT_EQ(toHex(windowUpdate(1, 0x8000)), "00 00 04 08 00 00 00 00 01 00 00 80 00");
    EXPECT_EQ(toHex(rstStream(7, 8)), "00 00 04 03 00 00 00 00 07 00 00 00 08");
    EXPECT_EQ(toHex(data(1, "a", kEndStream)), "00 00 01 00 01 00 00 00 01 61");
    EXPECT_EQ(toHex(dataPadded(1, "a", 2, kEndStream)), "00 00 04 00 09 00 00 00 01 02 61 00 00");
    EXPECT_EQ(toHex(headers(1, "\x88")), "00 00 01 01 04 00 00 00 01 88");
    EXPECT_EQ(toHex(continuation(1, "\x88", 0)), "00 00 01 09 00 00 00 00 01 88");
}

TEST(Bytes, HpackIntegersFollowTheirExamples) {
    EXPECT_EQ(toHex(hpackInteger(10, 5)), "0a");          // RFC 7541, C.1.1
    EXPECT_EQ(toHex(hpackInteger(1337, 5)), "1f 9a 0a");  // RFC 7541, C.1.2
    EXPECT_EQ(toHex(hpackInteger(42, 8)), "2a");          // RFC 7541, C.1.3
    EXPECT_EQ(toHex(hpackInteger(30, 5, 0xE0)), "fe");
    EXPECT_EQ(toHex(hpackInteger(31, 5)), "1f 00");
    EXPECT_EQ(toHex(hpackInteger(31 + 127, 5)), "1f 7f");
    EXPECT_EQ(toHex(hpackInteger(31 + 128, 5)), "1f 80 01");
}

TEST(Bytes, HpackFieldsFollowTheirExamples) {
    // RFC 7541, C.2.1 to C.2.4
    EXPECT_EQ(toHex(hpackLiteral("custom-key", "custom-header", Literal::kIncremental)),
              "40 0a 63 75 73 74 6f 6d 2d 6b 65 79 0d 63 75 73 74 6f 6d 2d 68 65 61 64 65 72");
    EXPECT_EQ(toHex(hpackLiteral(4, "/sample/path")), "04 0c 2f 73 61 6d 70 6c 65 2f 70 61 74 68");
    EXPECT_EQ(toHex(hpackLiteral("password", "secret", Literal::kNeverIndexed)),
              "10 08 70 61 73 73 77 6f 72 64 06 73 65 63 72 65 74");
    EXPECT_EQ(toHex(hpackIndexed(2)), "82");
    EXPECT_EQ(toHex(hpackLiteral("a", "b")), "00 01 61 01 62");
    EXPECT_EQ(toHex(hpackHuffmanString(hex("f1 e3"))), "82 f1 e3");
}

TEST(Bytes, ParserCutsFramesAndKeepsEveryField) {
    const std::string bytes =
        frame(kData, 0x09, kReservedBit | 0x7FFFFFFF, "abc") + frame(0xFF, 0, 0, "");
    const std::vector<WireFrame> frames = parseFrames(bytes);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0], (WireFrame{3, kData, 0x09, 0x7FFFFFFF, true, "abc"}));
    EXPECT_EQ(frames[1], (WireFrame{0, 0xFF, 0, 0, false, ""}));
    EXPECT_TRUE(parseFrames("").empty());
}

TEST(Bytes, ParserRefusesLeftovers) {
    const std::string bytes = data(1, "abc") + data(1, "d");
    for (size_t size = 1; size < bytes.size(); ++size) {
        if (size == data(1, "abc").size()) continue;
        EXPECT_THROW(parseFrames(bytes.substr(0, size)), std::runtime_error) << size;
        size_t rest = 99;
        const size_t whole = size < data(1, "abc").size() ? 0 : 1;
        EXPECT_EQ(parseWholeFrames(bytes.substr(0, size), rest).size(), whole);
        EXPECT_EQ(rest, whole * data(1, "abc").size());
    }
}

TEST(Bytes, PrefaceIsCutOffOrMissed) {
    EXPECT_EQ(kPreface.size(), 24u);
    EXPECT_EQ(withoutPreface(std::string(kPreface) + "rest"), "rest");
    EXPECT_THROW(withoutPreface("PRI * HTTP/2.0"), std::runtime_error);
}

TEST(GuardedBytes, KeepTheBytesAndWhatFollowsThem) {
    const GuardedBytes plain("abc");
    EXPECT_EQ(plain.view(), "abc");
    const std::string big(10000, 'x');
    const GuardedBytes followed(big, "wxyz");
    EXPECT_EQ(followed.view(), big);
    EXPECT_EQ(std::string_view(followed.data() + followed.size(), 4), "wxyz");
    const GuardedBytes empty("");
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_NE(empty.data(), nullptr);
}

char readAt(const char* bytes, size_t position) {
    return static_cast<const volatile char*>(bytes)[position];
}

TEST(GuardedBytesDeathTest, OneByteTooFarCrashes) {
    EXPECT_DEATH(readAt(GuardedBytes("abc").data(), 3), "");
    EXPECT_DEATH(readAt(GuardedBytes("").data(), 0), "");
    EXPECT_DEATH(readAt(GuardedBytes(std::string(4096, 'x')).data(), 4096), "");
    EXPECT_DEATH(readAt(GuardedBytes("abc", "de").data(), 5), "");
}

TEST(CoutCapture, CatchesAllThreadsAndRestores) {
    std::streambuf* const before = std::cout.rdbuf();
    {
        CoutCapture capture;
        std::vector<std::thread> writers;
        writers.reserve(4);
        for (int i = 0; i < 4; ++i) {
            writers.emplace_back([] {
                for (int line = 0; line < 100; ++line) std::cout << "line\n";
            });
        }
        for (std::thread& writer : writers) writer.join();
        EXPECT_EQ(capture.str().size(), 4 * 100 * 5u);
        EXPECT_EQ(capture.lines(), std::vector<std::string>(400, "line"));
        capture.clear();
        std::cout << 'a' << 1 << std::endl << "b";
        EXPECT_EQ(capture.str(), "a1\nb");
        EXPECT_EQ(capture.lines(), (std::vector<std::string>{"a1", "b"}));
        {
            const NullCout quiet;
            std::cout << "unheard" << std::endl;
            EXPECT_TRUE(std::cout.good());
        }
        EXPECT_EQ(capture.str(), "a1\nb");
    }
    EXPECT_EQ(std::cout.rdbuf(), before);
}

TEST(LogCapture, RecordsNestsAndRestores) {
    EXPECT_EQ(CLogWrapper::GetLevel(), 40000);
    CLogWrapper::Log(40000, "dropped", "f", "g", 1);
    {
        LogCapture outer;
        EXPECT_EQ(CLogWrapper::GetLevel(), 20000);
        CLogWrapper::Log(20000, "one", "File.cpp", "void f()", 7);
        {
            const LogCapture inner(50000);
            EXPECT_EQ(CLogWrapper::GetLevel(), 50000);
            EXPECT_EQ(inner.levelQueries(), 1u);
            CLogWrapper::Log(40000, "inner", nullptr, nullptr, 8);
            EXPECT_EQ(inner.messages(), std::vector<std::string>{"inner"});
            EXPECT_EQ(inner.records()[0].file, "");
        }
        CLogWrapper::Log(40000, "two", "File.cpp", "void g()", 9);
        EXPECT_EQ(outer.messages(), (std::vector<std::string>{"one", "two"}));
        EXPECT_EQ(outer.messages(40000), std::vector<std::string>{"two"});
        EXPECT_EQ(outer.levelQueries(), 2u);
        const LogRecord first = outer.records().at(0);
        EXPECT_EQ(first.level, 20000);
        EXPECT_EQ(first.file, "File.cpp");
        EXPECT_EQ(first.function, "void f()");
        EXPECT_EQ(first.line, 7);
        CLogWrapper::SetLevel(1);
        EXPECT_EQ(CLogWrapper::GetLevel(), 1);
        outer.clear();
        EXPECT_TRUE(outer.records().empty());
        EXPECT_EQ(outer.levelQueries(), 0u);
    }
    EXPECT_EQ(CLogWrapper::GetLevel(), 40000);
}

TEST(Wait, EndsWithTheEventOrTheLimit) {
    constexpr std::chrono::milliseconds kShort{20};
    EXPECT_FALSE(waitFor([] { return false; }, kShort));
    Event event;
    EXPECT_FALSE(event.wait(kShort));
    Counter counter;
    counter.add();
    EXPECT_FALSE(counter.waitAtLeast(2, kShort));
    std::thread other([&] {
        counter.add(2);
        event.set();
    });
    EXPECT_TRUE(counter.waitAtLeast(3));
    EXPECT_TRUE(event.wait());
    EXPECT_TRUE(waitFor([&] { return event.isSet(); }));
    other.join();
    EXPECT_EQ(counter.count(), 3u);
}

TEST(TempDir, HoldsFilesAndGoesAway) {
    std::string path;
    {
        const TempDir dir;
        path = dir.write("a.txt", std::string_view("x\0y", 3));
        EXPECT_EQ(path, dir.path() + "/a.txt");
        std::ifstream file(path, std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), std::string("x\0y", 3));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(path).parent_path()));
}

// X509_cmp_current_time of both ends of the validity: -1 past, 1 future.
std::pair<int, int> validity(const Certificate& certificate) {
    BIO* const text = BIO_new_mem_buf(certificate.certificate.data(),
                                      static_cast<int>(certificate.certificate.size()));
    X509* const x509 = PEM_read_bio_X509(text, nullptr, nullptr, nullptr);
    const std::pair<int, int> out(X509_cmp_current_time(X509_get0_notBefore(x509)),
                                  X509_cmp_current_time(X509_get0_notAfter(x509)));
    X509_free(x509);
    BIO_free(text);
    return out;
}

TEST(Certificate, IsValidOrExpiredAsAsked) {
    EXPECT_EQ(validity(makeCertificate()), std::make_pair(-1, 1));
    EXPECT_EQ(validity(makeExpiredCertificate()), std::make_pair(-1, -1));
    EXPECT_NE(makeCertificate().key, makeCertificate().key);
}

class ServerOfEitherKind : public testing::TestWithParam<bool> {
protected:
    static ServerOptions options() {
        ServerOptions out;
        out.tls = GetParam();
        return out;
    }
};

INSTANTIATE_TEST_SUITE_P(ScriptedServer, ServerOfEitherKind, testing::Bool(),
                         [](const auto& info) { return info.param ? "Tls" : "Plain"; });

TEST_P(ServerOfEitherKind, KeepsEveryByteAndSendsWhatItIsTold) {
    ScriptedServer server(options());
    RawClient first(server, GetParam());
    ASSERT_TRUE(first.connected());
    ASSERT_TRUE(server.waitConnections(1));
    RawClient second(server, GetParam());
    ASSERT_TRUE(second.connected());

    ASSERT_TRUE(first.write(kPreface));
    ASSERT_TRUE(first.write(settings({{2, 0}}) + data(1, "abc").substr(0, 10)));
    ASSERT_TRUE(server.waitFrames(0, 1));
    ASSERT_TRUE(server.waitReceived(0, 24 + 15 + 10));
    EXPECT_EQ(server.frames(0).size(), 1u);
    ASSERT_TRUE(first.write(data(1, "abc").substr(10)));
    ASSERT_TRUE(server.waitFramesOf(0, kData));
    EXPECT_EQ(server.received(0), std::string(kPreface) + settings({{2, 0}}) + data(1, "abc"));
    EXPECT_EQ(server.frames(0), parseFrames(settings({{2, 0}}) + data(1, "abc")));
    EXPECT_EQ(server.frames(0, kSettings), parseFrames(settings({{2, 0}})));

    ASSERT_TRUE(second.write("not HTTP/2"));
    ASSERT_TRUE(
        server.waitReceived(1, [](const std::string& bytes) { return bytes == "not HTTP/2"; }));
    EXPECT_TRUE(server.frames(1).empty());
    EXPECT_EQ(server.connections(), 2u);

    server.send(0, "for the first");
    server.send(1, "for the second");
    EXPECT_EQ(first.readAll(13), "for the first");
    EXPECT_EQ(second.readAll(14), "for the second");
    EXPECT_TRUE(server.waitSent(0));
}

TEST_P(ServerOfEitherKind, CutsWhereItIsTold) {
    ScriptedServer server(options());
    RawClient client(server, GetParam());
    ASSERT_TRUE(client.connected());
    server.send(0, "x");
    server.sendCut(0, "abcdef", {0, 1, 4, 4});
    EXPECT_EQ(client.read(), "x");
    EXPECT_EQ(client.read(), "a");
    EXPECT_EQ(client.read(), "bcd");
    EXPECT_EQ(client.read(), "ef");
    server.sendByteByByte(0, "ghi");
    EXPECT_EQ(client.read(), "g");
    EXPECT_EQ(client.read(), "h");
    EXPECT_EQ(client.read(), "i");
    EXPECT_THROW(server.sendCut(0, "abc", {2, 1}), std::runtime_error);
    EXPECT_THROW(server.sendCut(0, "abc", {4}), std::runtime_error);
}

TEST_P(ServerOfEitherKind, EndsInOrder) {
    ScriptedServer server(options());
    RawClient client(server, GetParam());
    ASSERT_TRUE(client.connected());
    server.send(0, "last");
    server.close(0);
    EXPECT_EQ(client.readAll(4), "last");
    EXPECT_EQ(client.read(), "");
    EXPECT_EQ(client.lastRead(), 0);
    if (GetParam()) {
        EXPECT_EQ(client.tlsError(), SSL_ERROR_ZERO_RETURN);
    }
    // Still no reset, and nothing is kept.
    EXPECT_TRUE(client.write("unheard"));
    client.shutdownWrite();
    EXPECT_TRUE(server.waitClosedByPeer(0));
    EXPECT_FALSE(server.resetByPeer(0));
    EXPECT_EQ(server.received(0), "");
}

TEST_P(ServerOfEitherKind, Resets) {
    ScriptedServer server(options());
    RawClient client(server, GetParam());
    ASSERT_TRUE(client.connected());
    server.reset(0);
    EXPECT_EQ(client.read(), "");
    EXPECT_EQ(client.lastRead(), -1);
    EXPECT_EQ(client.lastErrno(), ECONNRESET);
}

TEST_P(ServerOfEitherKind, HalfCloseKeepsListening) {
    ScriptedServer server(options());
    RawClient client(server, GetParam());
    ASSERT_TRUE(client.connected());
    server.shutdownWrite(0);
    ASSERT_TRUE(server.waitSent(0));
    EXPECT_TRUE(client.write("heard"));
    EXPECT_TRUE(server.waitReceived(0, 5));
    EXPECT_EQ(server.received(0), "heard");
    EXPECT_EQ(client.read(), "");
    if (!GetParam()) {
        EXPECT_EQ(client.lastRead(), 0);
    }
}

TEST_P(ServerOfEitherKind, SeesHowTheClientEnds) {
    ScriptedServer server(options());
    {
        const RawClient orderly(server, GetParam());
        ASSERT_TRUE(orderly.connected());
        ASSERT_TRUE(server.waitConnections(1));
        EXPECT_FALSE(server.closedByPeer(0));
        EXPECT_FALSE(server.waitClosedByPeer(0, std::chrono::milliseconds(5)));
    }
    EXPECT_TRUE(server.waitClosedByPeer(0));
    {
        RawClient abrupt(server, GetParam());
        ASSERT_TRUE(abrupt.connected());
        ASSERT_TRUE(server.waitConnections(2));
        abrupt.resetOnClose();
    }
    EXPECT_TRUE(server.waitClosedByPeer(1));
    EXPECT_TRUE(server.resetByPeer(1));
    EXPECT_FALSE(server.closeNotifyReceived(1));
}

TEST_P(ServerOfEitherKind, StopsAndResumesReading) {
    ServerOptions narrow = options();
    narrow.receiveBuffer = 4096;
    ScriptedServer server(narrow);
    RawClient client(server, GetParam());
    ASSERT_TRUE(client.connected());
    server.stopReading(0);
    const std::string big(8 << 20, 'x');
    std::thread writer([&] { EXPECT_TRUE(client.write(big)); });
    // What was under way before the stop may still come; then nothing more, and the rest waits.
    EXPECT_FALSE(server.waitReceived(0, big.size(), std::chrono::milliseconds(100)));
    server.resumeReading(0);
    EXPECT_TRUE(server.waitReceived(0, big.size()));
    writer.join();
    EXPECT_EQ(server.received(0), big);
}

TEST_P(ServerOfEitherKind, AnswersFramesByItself) {
    ServerOptions answering = options();
    answering.keepReceived = false;
    answering.greeting = settings({});
    answering.responder = [](size_t, const WireFrame& got) {
        return got.type == kPing ? ping(0, kAck) : data(got.streamId, got.payload);
    };
    ScriptedServer server(answering);
    constexpr int kClients = 20;
    std::vector<std::thread> clients;
    clients.reserve(kClients);
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back([&, i] {
            RawClient client(server, GetParam());
            const std::string body = "client " + std::to_string(i);
            EXPECT_TRUE(client.write(std::string(kPreface) + ping(1) + headers(3, body)));
            const std::string wanted = settings({}) + ping(0, kAck) + data(3, body);
            EXPECT_EQ(toHex(client.readAll(wanted.size())), toHex(wanted));
        });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(server.connections(), size_t{kClients});
    EXPECT_EQ(server.received(0), "");
    EXPECT_TRUE(server.frames(0).empty());
}

TEST_P(ServerOfEitherKind, GreetsAndCloses) {
    ServerOptions rude = options();
    rude.greeting = "bye";
    rude.closeAfterGreeting = true;
    ScriptedServer server(rude);
    RawClient client(server, GetParam());
    EXPECT_EQ(client.readAll(3), "bye");
    EXPECT_EQ(client.read(), "");
    EXPECT_EQ(client.lastRead(), 0);
}

TEST_P(ServerOfEitherKind, GoesAwayWithAClientThatNeverReads) {
    RawClient* client = nullptr;
    {
        ScriptedServer server(options());
        client = new RawClient(server, GetParam());
        ASSERT_TRUE(client->connected());
        server.send(0, std::string(32 << 20, 'x'));
        EXPECT_FALSE(server.waitSent(0, std::chrono::milliseconds(20)));
    }
    delete client;
}

TEST(ScriptedServer, NamesAMissingConnection) {
    ScriptedServer server;
    EXPECT_FALSE(server.waitConnections(1, std::chrono::milliseconds(5)));
    EXPECT_FALSE(server.waitFrames(0, 0, std::chrono::milliseconds(5)));
}

TEST(ScriptedServer, FailsTlsWithAClientThatSpeaksNone) {
    ServerOptions options;
    options.tls = true;
    ScriptedServer server(options);
    RawClient client(server);
    ASSERT_TRUE(client.write(std::string(kPreface)));
    EXPECT_EQ(client.read(), "");
    EXPECT_EQ(client.lastRead(), 0);
    EXPECT_TRUE(server.tlsFailed(0));
    EXPECT_EQ(server.received(0), "");
}

TEST(ScriptedServer, SendsPastTls) {
    ServerOptions options;
    options.tls = true;
    ScriptedServer server(options);
    RawClient client(server, true);
    ASSERT_TRUE(client.connected());
    server.sendRaw(0, "this is no TLS record");
    EXPECT_EQ(client.read(), "");
    EXPECT_EQ(client.lastRead(), -1);
    EXPECT_EQ(client.tlsError(), SSL_ERROR_SSL);
}

TEST(ScriptedServer, LeavesCloseNotifyOutAndSeesThatOfTheClient) {
    ServerOptions options;
    options.tls = true;
    options.onlyTls12 = true;
    options.certificate = makeExpiredCertificate();
    ScriptedServer server(options);
    RawClient client(server, true);
    ASSERT_TRUE(client.connected());
    EXPECT_EQ(client.tlsVersion(), TLS1_2_VERSION);
    ASSERT_TRUE(client.write("x"));
    client.shutdownTls();
    ASSERT_TRUE(waitFor([&] { return server.closeNotifyReceived(0); }));
    EXPECT_EQ(server.received(0), "x");

    RawClient other(server, true);
    ASSERT_TRUE(other.connected());
    server.closeWithoutCloseNotify(1);
    EXPECT_EQ(other.read(), "");
    EXPECT_NE(other.tlsError(), SSL_ERROR_ZERO_RETURN);

    RawClient third(server, true);
    server.sendCloseNotify(2);
    EXPECT_EQ(third.read(), "");
    EXPECT_EQ(third.tlsError(), SSL_ERROR_ZERO_RETURN);
    EXPECT_TRUE(third.write("y"));
    EXPECT_TRUE(server.waitReceived(2, 1));
}

TEST(RecordingClient, KeepsCallbacksInOrderAndWakesWhoWaits) {
    constexpr std::chrono::milliseconds kShort{5};
    std::vector<Callback> hooked;
    RecordingClient client([&](const Callback& callback) { hooked.push_back(callback); });
    EXPECT_EQ(client.status(), -1);
    EXPECT_FALSE(client.waitHeaders(1, kShort));
    EXPECT_FALSE(client.waitClosed(kShort));
    std::thread library([&] {
        const RecordingClient::HeaderDef list[] = {{":status", "200"}, {"a", "b"}};
        client.onHeaderReceived(200, list, 2);
        client.onContentReceived("xyz", 2, true);
        client.onContentReceived(nullptr, 0, false);
        client.onFailed(ERR_FETAL);
        client.onSocketClosed();
    });
    EXPECT_TRUE(client.waitHeaders());
    EXPECT_TRUE(client.waitContent(2));
    EXPECT_TRUE(client.waitEnd());
    EXPECT_TRUE(client.waitFailed());
    EXPECT_TRUE(client.waitClosed());
    EXPECT_TRUE(client.waitCallbacks(5));
    const std::thread::id libraryId = library.get_id();
    library.join();
    const std::vector<Callback> wanted{Callback::headers(200, {{":status", "200"}, {"a", "b"}}),
                                       Callback::content("xy", true), Callback::content("", false),
                                       Callback::failed(ERR_FETAL), Callback::closed()};
    EXPECT_EQ(client.callbacks(), wanted);
    EXPECT_EQ(hooked, wanted);
    EXPECT_EQ(client.status(), 200);
    EXPECT_EQ(client.body(), "xy");
    EXPECT_EQ(client.count(Callback::Kind::kContent), 2u);
    EXPECT_EQ(client.threads(), std::set<std::thread::id>{libraryId});
    client.clear();
    EXPECT_TRUE(client.callbacks().empty());
    client.onContentReceived("x", 1, true);
    EXPECT_FALSE(client.waitEnd(kShort));
}

TEST(RefusingPort, Refuses) {
    const RefusingPort port;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port.port());
    inet_aton("127.0.0.1", &address.sin_addr);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    close(fd);
}

}  // namespace
}  // namespace h2test
