// What the read, write and error handlers do to a connection.

#include <algorithm>

#include "tests/unit/http_context_fixture.h"

namespace h2test {
namespace {

constexpr size_t kCacheLimit = 16777216;

// The client's SETTINGS frame: 30 bytes of payload; the engine's tests check them.
constexpr size_t kSettingsSize = 9 + 30;

// The read handler

TEST_F(HttpContextTest, ReadsUntilThereIsNothingMore) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    const std::string bytes =
        settings({}) + headers(1, hpackIndexed(8)) + data(1, "body", kEndStream);
    connection.transport->m_input = {bytes.substr(0, 10), bytes.substr(10, 3), bytes.substr(13)};
    const LogCapture log;
    EXPECT_TRUE(context().readEventHandler(connection.fd));
    const std::vector<std::pair<char*, size_t>> reads(4,
                                                      {context().m_buffer, context().m_bufferLen});
    EXPECT_EQ(connection.transport->m_reads, reads);
    EXPECT_EQ(request.callbacks(), (Callbacks{Callback::headers(200, {{":status", "200"}}),
                                              Callback::content("body", false)}));
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    for (const std::string& text : log.messages()) {
        EXPECT_EQ(text.find("IO error"), std::string::npos) << text;
    }
    EXPECT_TRUE(isFree(context().m_httpIolock));
}

TEST_F(HttpContextTest, AFilledBufferIsNotTheEnd) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    const std::string bytes =
        headers(1, hpackIndexed(8)) + data(1, std::string(16000, 'b')) + data(1, "end", kEndStream);
    connection.transport->m_input = {bytes.substr(0, 8192), bytes.substr(8192)};
    EXPECT_TRUE(context().readEventHandler(connection.fd));
    EXPECT_EQ(connection.transport->m_reads.size(), 3u);
    EXPECT_EQ(request.body(), std::string(16000, 'b') + "end");
}

TEST_F(HttpContextTest, QueuesAnUnknownDescriptorForRemoval) {
    const LogCapture log;
    EXPECT_TRUE(context().readEventHandler(41));
    EXPECT_EQ(context().m_removedHttp2Set, Set{41});
    EXPECT_TRUE(context().writeEventHandler(42));
    EXPECT_EQ(context().m_removedHttp2Set, (Set{41, 42}));
    EXPECT_TRUE(context().errorEventHandler(43));
    EXPECT_EQ(context().m_removedHttp2Set, (Set{41, 42, 43}));
    EXPECT_EQ(logLines(log), Lines{});
    EXPECT_TRUE(isFree(context().m_httpIolock));
    EXPECT_TRUE(isFree(context().m_removeLock));
}

// The lines logged when a connection ends, from the handler's line on.
Lines dropLines(const std::string& handlerLine, const std::string& ip, bool withRequest) {
    Lines out{"20000 HttpContext.cpp: " + handlerLine, "20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO",
              "20000 Http2.cpp: ~~~~~Http2::Http2"};
    if (withRequest) out.push_back("20000 Http2.cpp: onSocketClosed: Uri:/uri");
    out.push_back("20000 HttpSocketBase.cpp: HttpSocket Closed, ip:" + ip);
    out.push_back("20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO");
    return out;
}

TEST_F(HttpContextTest, DropsAConnectionThatThePeerHasClosed) {
    ScriptedServer server;
    const int fd = connect(server);
    RecordingClient& first = running(fd);
    RecordingClient& second = running(fd);
    server.close(0);
    ASSERT_TRUE(waitReady(fd, POLLIN));
    const LogCapture log;
    EXPECT_FALSE(context().readEventHandler(fd));
    Lines wanted = dropLines("IO error, err = 0, m_httpIoMap.size()1,err ip:127.0.0.1", kIp, true);
    wanted.insert(wanted.begin() + 4, "20000 Http2.cpp: onSocketClosed: Uri:/uri");
    EXPECT_EQ(logLines(log), wanted);
    EXPECT_NE(functionThatLogged(log, log.messages().front())
                  .find("tiny::HttpContext::readEventHandler(int)"),
              std::string::npos);
    EXPECT_EQ(first.callbacks(), Callbacks{Callback::closed()});
    EXPECT_EQ(second.callbacks(), Callbacks{Callback::closed()});
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(context().m_removedHttp2Set, Set{fd});
    EXPECT_TRUE(isFree(context().m_httpIolock));
    EXPECT_TRUE(server.waitClosedByPeer(0));

    // Another event for the same descriptor, reported before the drop.
    context().m_removedHttp2Set.clear();
    EXPECT_TRUE(context().readEventHandler(fd));
    EXPECT_EQ(context().m_removedHttp2Set, Set{fd});
}

TEST_F(HttpContextTest, DropLogsTheNumberOfConnectionsBeforeIt) {
    const Connection first = scriptedConnection();
    scriptedConnection();
    scriptedConnection();
    first.transport->m_readEnd = 0;
    const LogCapture log;
    EXPECT_FALSE(context().readEventHandler(first.fd));
    EXPECT_EQ(logLines(log), dropLines("IO error, err = 0, m_httpIoMap.size()3,err ip:192.0.2.7",
                                       "192.0.2.7", false));
    EXPECT_EQ(context().m_httpIoMap.size(), 2u);
}

TEST_F(HttpContextTest, ReadsNothingMoreAfterBytesThatCannotBeFramed) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    connection.transport->m_input = {frame(0x2a, 0, 0, ""), settings({})};
    const LogCapture log;
    EXPECT_FALSE(context().readEventHandler(connection.fd));
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::failed(ERR_FETAL)});
    const Lines messages = log.messages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(),
                         "IO error, err = -1, m_httpIoMap.size()1,err ip:192.0.2.7"),
              1);
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(context().m_removedHttp2Set, Set{connection.fd});
}

TEST_F(HttpContextTest, DropsAConnectionThatTheEngineWantsClosed) {
    for (const std::string& bytes : {rstStream(1, 8), goaway(0, 0)}) {
        const Connection connection = scriptedConnection();
        running(connection.fd);
        int reads = 0;
        connection.transport->m_hook = [&] { ++reads; };
        connection.transport->m_input = {bytes, settings({})};
        const LogCapture log;
        EXPECT_FALSE(context().readEventHandler(connection.fd));
        EXPECT_EQ(reads, 1);
        const Lines messages = log.messages();
        EXPECT_EQ(std::count(messages.begin(), messages.end(),
                             "IO error, err = -2, m_httpIoMap.size()1,err ip:192.0.2.7"),
                  1);
        EXPECT_TRUE(context().m_httpIoMap.empty());
        EXPECT_EQ(context().m_removedHttp2Set, Set{connection.fd});
        context().m_removedHttp2Set.clear();
    }
}

TEST_F(HttpContextTest, HandlesWhatCameBeforeTheClose) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    connection.transport->m_input = {headers(1, hpackIndexed(8)) + data(1, "part")};
    connection.transport->m_readEnd = 0;
    EXPECT_FALSE(context().readEventHandler(connection.fd));
    EXPECT_EQ(request.callbacks(),
              (Callbacks{Callback::headers(200, {{":status", "200"}}),
                         Callback::content("part", true), Callback::closed()}));
}

TEST_F(HttpContextTest, LogsNothingAboveItsLevel) {
    const Connection first = scriptedConnection();
    const Connection second = scriptedConnection();
    const Connection third = scriptedConnection();
    first.transport->m_readEnd = 0;
    second.transport->m_writeResults = {0};
    const LogCapture log(20001);
    EXPECT_FALSE(context().readEventHandler(first.fd));
    EXPECT_FALSE(context().writeEventHandler(second.fd));
    EXPECT_TRUE(context().errorEventHandler(third.fd));
    EXPECT_EQ(logLines(log), Lines{});
    EXPECT_EQ(log.levelQueries(), 3u * 5u);  // the handler's line and four at each end
}

TEST_F(HttpContextTest, AConnectionIsDestroyedWithItsLastReference) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    connection.transport->m_readEnd = 0;
    std::shared_ptr<HttpIO> kept = context().m_httpIoMap.at(connection.fd);
    EXPECT_FALSE(context().readEventHandler(connection.fd));
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(kept.use_count(), 1);
    EXPECT_EQ(request.callbacks(), Callbacks{});
    EXPECT_TRUE(isOpen(connection.fd));
    kept.reset();
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::closed()});
}

// The write handler

TEST_F(HttpContextTest, SendsOneKindOfOutputACall) {
    const Connection connection = scriptedConnection();
    ASSERT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.transport->m_writes, Lines{std::string(kPreface)});
    ASSERT_TRUE(context().writeEventHandler(connection.fd));
    ASSERT_EQ(connection.transport->m_writes.size(), 2u);
    EXPECT_EQ(connection.transport->m_writes[1].size(), kSettingsSize);
    running(connection.fd);
    ASSERT_TRUE(context().writeEventHandler(connection.fd));
    ASSERT_EQ(connection.transport->m_writes.size(), 3u);
    EXPECT_EQ(parseFrames(connection.transport->m_writes[2]).at(0).type, kHeaders);
    EXPECT_EQ(connection.io->buffer(), "");
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    EXPECT_TRUE(isFree(context().m_httpIolock));
}

TEST_F(HttpContextTest, WritesNothingWithAnEmptyCache) {
    const Connection connection = scriptedConnection();
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.transport->m_writes.size(), 2u);  // preface and SETTINGS
}

TEST_F(HttpContextTest, WritesOldBytesBeforeNewOnes) {
    const Connection connection = scriptedConnection();
    connection.io->buffer() = "old";
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.transport->m_writes, Lines{"old" + std::string(kPreface)});
    EXPECT_EQ(connection.io->buffer(), "");
}

std::string numbered(size_t size) {
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>(i % 251);
    return out;
}

TEST_F(HttpContextTest, KeepsTheWrittenBytesAfterAPartialWrite) {
    const Connection connection = scriptedConnection();
    connection.engine->m_prefaceSent = true;
    connection.engine->m_settingSent = true;
    const std::string cache = numbered(300);
    connection.io->buffer() = cache;
    connection.transport->m_writeResults = {100, -1, 99, 99};
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.io->buffer(), cache.substr(0, 100));
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.io->buffer(), cache.substr(0, 100));
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.io->buffer(), cache.substr(0, 99));
    EXPECT_TRUE(context().writeEventHandler(connection.fd));  // all of them now
    EXPECT_EQ(connection.io->buffer(), "");
    EXPECT_EQ(connection.transport->m_writes,
              (Lines{cache, cache.substr(0, 100), cache.substr(0, 100), cache.substr(0, 99)}));
    EXPECT_EQ(context().m_httpIoMap.count(connection.fd), 1u);
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
}

TEST_F(HttpContextTest, LeavesTheCacheAloneWhileNothingCanBeWritten) {
    const Connection connection = scriptedConnection();
    connection.io->buffer() = "cache";
    connection.transport->m_writeResults = {-1, -1};
    const LogCapture log;
    const CoutCapture console;
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.io->buffer(), "cache" + std::string(kPreface));
    EXPECT_TRUE(context().writeEventHandler(connection.fd));  // new frames are still produced
    EXPECT_EQ(connection.io->buffer().size(), 5 + kPreface.size() + kSettingsSize);
    EXPECT_EQ(logLines(log), Lines{});
    EXPECT_EQ(console.str(), "");
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
}

TEST_F(HttpContextTest, ProducesNothingNewAbove16MiBOfCache) {
    const Connection connection = scriptedConnection();
    connection.transport->m_writeResults = {-1, -1, static_cast<int>(kCacheLimit + 1), -1};
    connection.io->buffer().assign(kCacheLimit + 1, 'x');
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_FALSE(connection.engine->m_prefaceSent);
    EXPECT_EQ(connection.io->buffer().size(), kCacheLimit + 1);
    EXPECT_EQ(connection.transport->m_writes.size(), 1u);  // old bytes are still written
    connection.io->buffer().assign(kCacheLimit, 'x');
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_TRUE(connection.engine->m_prefaceSent);  // exactly the limit is not above it
    EXPECT_EQ(connection.io->buffer().size(), kCacheLimit + kPreface.size());
}

TEST_F(HttpContextTest, DropsAConnectionWhoseWriteFails) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    connection.transport->m_writeResults = {0};
    const LogCapture log;
    const CoutCapture console;
    EXPECT_FALSE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(console.str(), "write failed\n");
    EXPECT_EQ(logLines(log), dropLines("IO error, err ", "192.0.2.7", true));
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::closed()});
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(context().m_removedHttp2Set, Set{connection.fd});
    EXPECT_TRUE(isFree(context().m_httpIolock));
    EXPECT_FALSE(isOpen(connection.fd));
}

TEST_F(HttpContextTest, DropsAConnectionWhoseEngineReportsNeedClose) {
    const Connection connection = scriptedConnection();
    const Connection other = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    request.ctx()->sethttpHandshake(true);  // its HEADERS frame has gone out
    request.ctx()->setContentFinished(true);
    connection.engine->m_prefaceSent = true;
    connection.engine->m_settingSent = true;
    connection.engine->m_streamPingTicker = 119999;
    connection.engine->m_waitPong = true;
    connection.io->buffer() = "never sent";
    size_t writes = 0;
    connection.transport->m_hook = [&] { ++writes; };
    const LogCapture log;
    const CoutCapture console;
    EXPECT_FALSE(context().writeEventHandler(connection.fd));
    const Lines lines = logLines(log);
    const auto found =
        std::find(lines.begin(), lines.end(), "20000 HttpContext.cpp: http link Error Need Close!");
    ASSERT_NE(found, lines.end());
    EXPECT_EQ(Lines(found + 1, lines.end()),
              dropLines("IO error, err = -2, m_httpIoMap.size()2", "192.0.2.7", false));
    EXPECT_NE(functionThatLogged(log, "http link Error Need Close!")
                  .find("tiny::HttpContext::writeEventHandler(int)"),
              std::string::npos);
    EXPECT_EQ(writes, 0u);
    EXPECT_EQ(console.str(), "");
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::closed()});
    EXPECT_EQ(context().m_httpIoMap.size(), 1u);
    EXPECT_EQ(context().m_httpIoMap.count(other.fd), 1u);
    EXPECT_EQ(context().m_removedHttp2Set, Set{connection.fd});
}

// The error handler

TEST_F(HttpContextTest, DropsAConnectionInErrorAndReturnsTrue) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    size_t operations = 0;
    connection.transport->m_hook = [&] { ++operations; };
    const LogCapture log;
    const CoutCapture console;
    EXPECT_TRUE(context().errorEventHandler(connection.fd));
    EXPECT_EQ(logLines(log), dropLines("IO error, err ", "192.0.2.7", true));
    EXPECT_NE(
        functionThatLogged(log, "IO error, err ").find("tiny::HttpContext::errorEventHandler(int)"),
        std::string::npos);
    EXPECT_EQ(console.str(), "");
    EXPECT_EQ(operations, 0u);
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::closed()});
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(context().m_removedHttp2Set, Set{connection.fd});
    EXPECT_FALSE(isOpen(connection.fd));
}

}  // namespace
}  // namespace h2test
