#include <thread>

#include <gtest/gtest.h>

#include "Http2ClientStandard/base/signal.h"
#include "Http2ClientStandard/client/callback_gate.h"
#include "Http2ClientStandard/client/message.h"
#include "Http2ClientStandard/client/options.h"
#include "tests/support/wait.h"

namespace {

using h2::CallbackGate;
using h2::Content;
using h2::Message;
using h2::RequestFields;

std::string text(const Message& message, RequestFields& fields, bool tls = true,
                 const char* authority = "known:1") {
    Content content;
    if (!message.compose(tls, authority, fields, content)) return "refused";
    std::string out;
    for (const h2::hpack::Field& field : fields.get()) {
        out += std::string(field.name) + "=" + std::string(field.value) +
               (field.neverIndexed ? " never\n" : "\n");
    }
    return out;
}

std::string text(const Message& message, bool tls = true) {
    RequestFields fields;
    return text(message, fields, tls);
}

TEST(Message, ComposesPseudoHeadersFirst) {
    Message message;
    EXPECT_TRUE(message.addHeader("a", "1", true));
    EXPECT_TRUE(message.setMethod("PUT"));
    EXPECT_TRUE(message.setPath("/p"));
    EXPECT_EQ(text(message),
              ":path=/p\n:method=PUT\n:scheme=https\n:authority=known:1\na=1 never\n");
    EXPECT_TRUE(message.addHeader("host", "h", false));
    EXPECT_EQ(text(message, false),
              ":path=/p\n:method=PUT\n:scheme=http\n:authority=h\na=1 never\n");
    message.clear();
    EXPECT_EQ(message.method(), "");
    EXPECT_EQ(text(message), ":path=/\n:method=\n:scheme=https\n:authority=known:1\n");
}

// Whatever has changed since the fields were composed before, they are those of the message.
TEST(Message, ComposesAgainWhatHasChanged) {
    Message message;
    RequestFields fields;
    const auto check = [&](bool tls = true, const char* authority = "known:1") {
        RequestFields fresh;
        EXPECT_EQ(text(message, fields, tls, authority), text(message, fresh, tls, authority));
    };
    EXPECT_TRUE(message.setMethod("GET"));
    check();
    EXPECT_TRUE(message.setPath("/a/path/that/is/longer/than/the/one/before"));
    check();
    EXPECT_TRUE(message.addHeader("a", "1", false));
    check();
    EXPECT_TRUE(message.setMethod("POST"));
    check();
    message.setBlock("abc");
    check();
    message.setBlock("abcd");
    check();
    message.setReader([](char*, size_t, void*) { return 0; }, nullptr);
    check();
    check(false);
    check(false, "other:1");
    EXPECT_TRUE(message.addHeader("host", "h", false));
    check();
    EXPECT_TRUE(message.addHeader("content-length", "5", false));
    check();
    message.clear();
    check();
}

TEST(Message, ContentLengthAgreesWithTheBlock) {
    Message message;
    message.setMethod("POST");
    message.setBlock("abc");
    EXPECT_TRUE(text(message).ends_with(":authority=known:1\ncontent-length=3\n"));
    EXPECT_TRUE(message.addHeader("content-length", "3", false));
    EXPECT_TRUE(text(message).ends_with(":authority=known:1\ncontent-length=3\n"));
    message.setBlock("abcd");
    EXPECT_EQ(text(message), "refused");
    for (const char* wrong : {"", "x", "3x", "-3", "99999999999999999999"}) {
        Message other;
        EXPECT_TRUE(other.addHeader("content-length", wrong, false));
        EXPECT_EQ(text(other), "refused") << wrong;
    }
    Message twice;
    twice.setBlock("abc");
    EXPECT_TRUE(twice.addHeader("content-length", "3", false));
    EXPECT_TRUE(twice.addHeader("content-length", "4", false));
    EXPECT_EQ(text(twice), "refused");
}

TEST(Message, BoundsAllFieldsTogether) {
    Message message;
    const std::string path = "/" + std::string(65536 - 32 - 5 - 1, 'p');
    EXPECT_TRUE(message.setPath(path));
    EXPECT_FALSE(message.addHeader("a", "", false));
    EXPECT_FALSE(message.setPath(path + "p"));
    EXPECT_TRUE(message.setPath("/"));
    EXPECT_TRUE(message.addHeader("a", std::string(65536 - 38 - 33, 'v'), false));
    EXPECT_FALSE(message.setPath("/p"));
    EXPECT_TRUE(message.setPath(""));
}

TEST(Message, KnowsIdempotentMethods) {
    Message message;
    for (const char* method : {"GET", "HEAD", "PUT", "DELETE", "OPTIONS", "TRACE"}) {
        EXPECT_TRUE(message.setMethod(method));
        EXPECT_TRUE(message.isIdempotent()) << method;
    }
    for (const char* method : {"POST", "PATCH", "get"}) {
        EXPECT_TRUE(message.setMethod(method));
        EXPECT_FALSE(message.isIdempotent()) << method;
    }
    for (const char* method : {"", "A B", ":a", "CONNECT", "\xc3\xa9"}) {
        EXPECT_FALSE(message.setMethod(method)) << method;
    }
}

TEST(CallbackGate, LetsNothingInOnceClosed) {
    CallbackGate gate;
    bool over = false;
    ASSERT_TRUE(gate.enter(over, false));
    EXPECT_TRUE(gate.close(over));  // on the thread of the callback: does not wait
    EXPECT_FALSE(gate.close(over));
    gate.leave();
    EXPECT_FALSE(gate.enter(over, false));
    gate.open(over);
    ASSERT_TRUE(gate.enter(over, true));
    EXPECT_TRUE(gate.isOver(over));
    gate.leave();
    EXPECT_FALSE(gate.enter(over, false));
}

TEST(CallbackGate, CloseWaitsForTheOtherThread) {
    CallbackGate gate;
    bool over = false;
    h2test::Event entered, leave;
    std::thread callback([&] {
        ASSERT_TRUE(gate.enter(over, false));
        entered.set();
        EXPECT_TRUE(leave.wait());
        gate.leave();
    });
    ASSERT_TRUE(entered.wait());
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        gate.close(over);
        closed = true;
    });
    EXPECT_FALSE(h2test::waitFor([&] { return closed.load(); }, std::chrono::milliseconds(20)));
    leave.set();
    callback.join();
    closer.join();
}

TEST(Signal, WaitsForItsSetting) {
    h2::Signal signal;
    EXPECT_FALSE(signal.wait(h2::steadyNow() + 10));
    int value = 0;
    std::thread setter([&] {
        value = 5;
        signal.set();
    });
    EXPECT_TRUE(signal.wait(h2::kNever));
    EXPECT_EQ(value, 5);
    setter.join();
    EXPECT_TRUE(signal.wait(0));
    signal.reset();
    EXPECT_FALSE(signal.wait(0));
}

TEST(Options, HaveDefaults) {
    const h2::Options options;
    const h2::ConnectSettings& connect = options.connect;
    const h2::SessionOptions& session = connect.connection.session;
    EXPECT_TRUE(options.tls.verify);
    EXPECT_FALSE(options.tls.onlyTls13);
    EXPECT_FALSE(options.ownConnection);
    EXPECT_EQ(connect.maxConnections, 1u);
    EXPECT_EQ(options.threads, 1u);
    EXPECT_EQ(connect.timeout, 10'000u);
    EXPECT_EQ(options.firstByte + options.wholeRequest + options.silence, 0u);  // off
    EXPECT_EQ(session.pingAfter, 30'000u);
    EXPECT_EQ(session.pingTimeout, 15'000u);
    EXPECT_EQ(connect.connection.idleTimeout, 90'000u);
    EXPECT_EQ(options.maxBlockedBody, size_t{64} << 20);
    // 1 Gbit/s at 100 ms: half a window is on its way while the other half is given back.
    const uint32_t inFlight = 1'000'000'000 / 8 / 10;
    EXPECT_GE(session.streamWindow, 2 * inFlight);
    EXPECT_GE(session.connectionWindow, 2 * inFlight);
}

TEST(Options, HaveRanges) {
    struct Range {
        HTTP2_OPTION option;
        int64_t least, most;
    };
    constexpr int64_t kMaxTime = int64_t{1} << 40;
    constexpr Range kRanges[] = {
        {HTTP2_VERIFY, 0, 1},
        {HTTP2_MIN_TLS_VERSION, 12, 13},
        {HTTP2_OWN_CONNECTION, 0, 1},
        {HTTP2_CONNECTIONS_PER_SERVER, 1, 1000},
        {HTTP2_BACKGROUND_THREADS, 1, 64},
        {HTTP2_CONNECT_TIMEOUT, 1, kMaxTime},
        {HTTP2_FIRST_BYTE_TIMEOUT, 0, kMaxTime},
        {HTTP2_REQUEST_TIMEOUT, 0, kMaxTime},
        {HTTP2_SILENCE_TIMEOUT, 0, kMaxTime},
        {HTTP2_PING_AFTER, 0, kMaxTime},
        {HTTP2_PING_TIMEOUT, 1, kMaxTime},
        {HTTP2_IDLE_TIMEOUT, 0, kMaxTime},
        {HTTP2_STREAM_WINDOW, 1, 0x7fffffff},
        {HTTP2_CONNECTION_WINDOW, 65535, 0x7fffffff},
        {HTTP2_MAX_HEADERS, 1024, 64 << 20},
        {HTTP2_MAX_BLOCKED_BODY, 0, INT64_MAX},
    };
    for (const Range& range : kRanges) {
        SCOPED_TRACE(range.option);
        h2::Options options;
        EXPECT_TRUE(options.set(range.option, range.least));
        EXPECT_TRUE(options.set(range.option, range.most));
        EXPECT_FALSE(options.set(range.option, range.least - 1));
        if (range.most == INT64_MAX) continue;
        EXPECT_FALSE(options.set(range.option, range.most + 1));
    }
}

TEST(Options, RefuseWhatIsOutOfRange) {
    h2::Options options;
    EXPECT_TRUE(options.set(HTTP2_MAX_HEADERS, 65536));
    EXPECT_EQ(options.connect.connection.session.maxHeaderList, 65536u);
    EXPECT_GT(options.connect.connection.session.maxHeaderBlock, 65536u);
    EXPECT_FALSE(options.set(HTTP2_MAX_HEADERS, 0));
    EXPECT_FALSE(options.set(HTTP2_STREAM_WINDOW, 0));
    EXPECT_FALSE(options.set(HTTP2_STREAM_WINDOW, int64_t{1} << 31));
    EXPECT_FALSE(options.set(HTTP2_CONNECTION_WINDOW, 65534));
    EXPECT_FALSE(options.set(HTTP2_MIN_TLS_VERSION, 11));
    EXPECT_FALSE(options.set(HTTP2_VERIFY, 2));
    EXPECT_FALSE(options.set(static_cast<HTTP2_OPTION>(999), 1));
    EXPECT_FALSE(options.set(static_cast<HTTP2_TEXT_OPTION>(999), ""));
    EXPECT_TRUE(options.set(HTTP2_CA_FILE, nullptr));
}

}  // namespace
