// One connection: how it is created, what it owns, and in which order it is destroyed.

#include "Http2Client/HttpIO.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include "Http2Client/Http2.h"
#include "Http2Client/HttpClientInterfaceImpl.h"
#include "Http2Client/HttpSocketOri.h"
#include "Http2Client/HttpSocketSSL.h"
#include "Http2Client/Sock.h"
#include "tests/support/capture.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_lines.h"
#include "tests/support/recording_client.h"
#include "tests/support/scripted_server.h"

namespace h2test {
namespace {

using tiny::HttpIO;
using tiny::HttpSocketOri;
using tiny::HttpSocketSSL;

using Lines = std::vector<std::string>;

constexpr const char* kIp = "127.0.0.1";

ServerOptions tls() {
    ServerOptions options;
    options.tls = true;
    return options;
}

ServerOptions plainRefusal() {
    ServerOptions options;
    options.greeting = "HTTP/1.1 400 Bad Request\r\n\r\n";
    return options;
}

std::string socketLine(const HttpIO& io) {
    return "20000 HttpSocketBase.cpp: createSocket socket:" + std::to_string(io.httpSocket());
}

TEST(HttpIo, ConnectsAndLogsEachStep) {
    for (const bool secure : {false, true}) {
        ScriptedServer server(secure ? tls() : ServerOptions());
        const CoutCapture console;
        const LogCapture log;
        const auto io = HttpIO::createHttpIO(secure ? HTTPS_2 : HTTP_2, kIp, server.port());
        ASSERT_TRUE(io);
        Lines wanted{"20000 HttpIO.cpp: createa http io: ip = 127.0.0.1begin",
                     "20000 HttpIO.cpp: HttpIO::HttpIO", "20000 Sock_Linux.cpp: creat new socket",
                     socketLine(*io), "20000 Sock_Linux.cpp: connect new socket: ip :127.0.0.1"};
        if (secure) {
            wanted.push_back("20000 HttpSocketSSL.h: init ssl, ip: 127.0.0.1");
            wanted.push_back("20000 HttpSocketSSL.h: init ssl success! ip: 127.0.0.1");
        }
        wanted.push_back("20000 HttpIO.cpp: createa http io: ip = 127.0.0.1ok");
        EXPECT_EQ(logLines(log), wanted);
        EXPECT_NE(functionThatLogged(log, "createa http io: ip = 127.0.0.1ok")
                      .find("tiny::HttpIO::createHttpIO("),
                  std::string::npos);
        EXPECT_NE(functionThatLogged(log, "HttpIO::HttpIO").find("tiny::HttpIO::HttpIO()"),
                  std::string::npos);
        EXPECT_EQ(console.str(), "");
        EXPECT_TRUE(server.waitConnections(1));
    }
}

TEST(HttpIo, KnowsItsConnection) {
    ScriptedServer server;
    const std::shared_ptr<HttpIO> io = HttpIO::createHttpIO(HTTP_2, kIp, server.port());
    ASSERT_TRUE(io);
    static_assert(!std::is_polymorphic_v<HttpIO>);
    EXPECT_TRUE(isOpen(io->httpSocket()));
    EXPECT_EQ(io->httpSocket(), io->m_socket->sock());
    EXPECT_EQ(fcntl(io->httpSocket(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(io->httpIp(), "127.0.0.1");
    EXPECT_EQ(io->httpPort(), server.port());
    EXPECT_EQ(io->httpVersion(), HTTP_2);
    ASSERT_NE(io->httpParser(), nullptr);
    EXPECT_EQ(io->httpParser(), io->m_http2);
    EXPECT_FALSE(io->m_http2->m_prefaceSent);  // nothing has been sent yet
    EXPECT_EQ(io->buffer(), "");
    EXPECT_EQ(&io->buffer(), &io->m_cachedBuffer);
    EXPECT_EQ(io.use_count(), 1);
}

TEST(HttpIo, IsPlainForHttp2AndTlsForEverythingElse) {
    ScriptedServer plain;
    ScriptedServer secure(tls());
    const std::shared_ptr<HttpIO> first = HttpIO::createHttpIO(HTTP_2, kIp, plain.port());
    ASSERT_TRUE(first);
    EXPECT_NE(dynamic_cast<HttpSocketOri*>(first->m_socket), nullptr);
    for (const HTTP_SCHEMA schema :
         {HTTPS_2, HTTP_VERSION_UNDEFINED, static_cast<HTTP_SCHEMA>(3)}) {
        const std::shared_ptr<HttpIO> io = HttpIO::createHttpIO(schema, kIp, secure.port());
        ASSERT_TRUE(io) << schema;
        EXPECT_NE(dynamic_cast<HttpSocketSSL*>(io->m_socket), nullptr) << schema;
        EXPECT_EQ(io->httpVersion(), schema);
    }
}

TEST(HttpIo, IsEmptyAfterARefusedConnect) {
    const RefusingPort port;
    const size_t before = openDescriptors();
    for (const HTTP_SCHEMA schema : {HTTP_2, HTTPS_2}) {
        const LogCapture log;
        const CoutCapture console;
        EXPECT_FALSE(HttpIO::createHttpIO(schema, kIp, port.port()));
        Lines lines = logLines(log);
        ASSERT_EQ(lines.size(), 9u);
        EXPECT_EQ(lines[3].find("20000 HttpSocketBase.cpp: createSocket socket:"), 0u);
        lines.erase(lines.begin() + 3);
        EXPECT_EQ(lines, (Lines{"20000 HttpIO.cpp: createa http io: ip = 127.0.0.1begin",
                                "20000 HttpIO.cpp: HttpIO::HttpIO",
                                "20000 Sock_Linux.cpp: creat new socket",
                                "20000 Sock_Linux.cpp: connect new socket: ip :127.0.0.1",
                                "20000 HttpIO.cpp: createa http io: ip = 127.0.0.1failed",
                                "20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO",
                                "20000 HttpSocketBase.cpp: HttpSocket Closed, ip:127.0.0.1",
                                "20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO"}));
        EXPECT_EQ(console.str(), "");
        EXPECT_EQ(openDescriptors(), before);
    }
}

TEST(HttpIo, IsEmptyAfterAFailedHandshakeAndStillLogsOk) {
    const size_t before = openDescriptors();
    {
        ScriptedServer server(plainRefusal());
        const LogCapture log;
        const CoutCapture console;
        EXPECT_FALSE(HttpIO::createHttpIO(HTTPS_2, kIp, server.port()));
        Lines lines = logLines(log);
        ASSERT_EQ(lines.size(), 12u);
        lines.erase(lines.begin() + 3);
        EXPECT_EQ(lines, (Lines{"20000 HttpIO.cpp: createa http io: ip = 127.0.0.1begin",
                                "20000 HttpIO.cpp: HttpIO::HttpIO",
                                "20000 Sock_Linux.cpp: creat new socket",
                                "20000 Sock_Linux.cpp: connect new socket: ip :127.0.0.1",
                                "20000 HttpSocketSSL.h: init ssl, ip: 127.0.0.1",
                                "40000 HttpSocketSSL.h: ssl failed!ip: 127.0.0.1",
                                "20000 HttpIO.cpp: createa http io: ip = 127.0.0.1failed",
                                "20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO",
                                "20000 HttpSocketBase.cpp: HttpSocket Closed, ip:127.0.0.1",
                                "20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO",
                                "20000 HttpIO.cpp: createa http io: ip = 127.0.0.1ok"}));
        EXPECT_EQ(console.str(), "connect to ssl server failed\n");
        EXPECT_TRUE(server.waitClosedByPeer(0));
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(HttpIo, IsEmptyWithoutADescriptorLeft) {
    // The sanitizer needs a descriptor when it sees an object of a class for the first time.
    LogCapture log;
    EXPECT_FALSE(HttpIO::createHttpIO(HTTP_2, kIp, RefusingPort().port()));
    log.clear();
    ScriptedServer server;
    {
        const DescriptorLimit limit(static_cast<rlim_t>(nextDescriptor()));
        EXPECT_FALSE(HttpIO::createHttpIO(HTTP_2, kIp, server.port()));
    }
    const Lines lines = logLines(log);
    ASSERT_EQ(lines.size(), 9u);
    EXPECT_EQ(lines[3], "20000 HttpSocketBase.cpp: createSocket socket:-1");
    EXPECT_EQ(lines[5], "20000 HttpIO.cpp: createa http io: ip = 127.0.0.1failed");
}

TEST(HttpIo, TreatsANullAddressAsEmpty) {
    ScriptedServer server;
    const LogCapture log;
    const std::shared_ptr<HttpIO> io = HttpIO::createHttpIO(HTTP_2, nullptr, server.port());
    ASSERT_TRUE(io);  // 0.0.0.0 is this host
    EXPECT_EQ(io->httpIp(), "");
    EXPECT_EQ(log.messages().front(), "createa http io: ip = begin");
    EXPECT_EQ(log.messages().back(), "createa http io: ip = ok");
}

TEST(HttpIo, DestroysTheEngineBeforeTheTransport) {
    ScriptedServer server(tls());
    RecordingClient client;
    std::shared_ptr<HttpIO> io = HttpIO::createHttpIO(HTTPS_2, kIp, server.port());
    ASSERT_TRUE(io);
    client.ctx()->setUri("/path");
    io->httpParser()->addHttpClient(client.ctx());
    const LogCapture log;
    io.reset();
    EXPECT_EQ(logLines(log),
              (Lines{"20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO", "20000 Http2.cpp: ~~~~~Http2::Http2",
                     "20000 Http2.cpp: onSocketClosed: Uri:/path",
                     "20000 HttpSocketBase.cpp: HttpSocket Closed, ip:127.0.0.1",
                     "20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO"}));
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::closed()});
    EXPECT_TRUE(server.waitClosedByPeer(0));
}

TEST(HttpIo, ReadsAndWritesThroughItsTransport) {
    ScriptedServer server;
    const std::shared_ptr<HttpIO> io = HttpIO::createHttpIO(HTTP_2, kIp, server.port());
    ASSERT_TRUE(io);
    tiny::Sock::setNonblocked(io->httpSocket(), true);
    char buffer[8] = {};
    EXPECT_EQ(io->read(buffer, sizeof(buffer)), -1);
    EXPECT_EQ(io->write("abc", 3), 3);
    EXPECT_EQ(io->write("abc", 0), 0);
    ASSERT_TRUE(server.waitReceived(0, 3));
    EXPECT_EQ(server.received(0), "abc");
    server.send(0, "defg");
    ASSERT_TRUE(waitReady(io->httpSocket(), POLLIN));
    EXPECT_EQ(io->read(buffer, 2), 2);
    EXPECT_EQ(std::string(buffer, 2), "de");
    EXPECT_EQ(io->read(buffer, sizeof(buffer)), 2);
    EXPECT_EQ(std::string(buffer, 2), "fg");
    server.close(0);
    ASSERT_TRUE(waitReady(io->httpSocket(), POLLIN));
    EXPECT_EQ(io->read(buffer, sizeof(buffer)), 0);
    EXPECT_EQ(io->buffer(), "");  // reads and writes leave the cache alone
}

TEST(HttpIo, IsOverItsLimitAbove16MiB) {
    ScriptedServer server;
    const std::shared_ptr<HttpIO> io = HttpIO::createHttpIO(HTTP_2, kIp, server.port());
    ASSERT_TRUE(io);
    EXPECT_FALSE(io->bufferOverLimit());
    io->buffer().assign(16777216, 'x');
    EXPECT_FALSE(io->bufferOverLimit());
    io->buffer() += 'x';
    EXPECT_TRUE(io->bufferOverLimit());
    io->buffer().pop_back();
    EXPECT_FALSE(io->bufferOverLimit());
}

TEST(HttpIo, StartsWithNothing) {
    const LogCapture log;
    {
        const HttpIO io;
        EXPECT_EQ(io.m_socket, nullptr);
        EXPECT_EQ(io.httpParser(), nullptr);
        EXPECT_EQ(io.m_cachedBuffer, "");
    }
    EXPECT_EQ(logLines(log),
              (Lines{"20000 HttpIO.cpp: HttpIO::HttpIO", "20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO",
                     "20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO"}));
}

}  // namespace
}  // namespace h2test
