// setHttp2Trace: which connections an application sees the frames of.
#include <mutex>

#include "tests/standard/wire/wire_support.h"

namespace {

using namespace h2test;

// Keeps what it is given, on whatever thread.
class Trace {
public:
    static void take(const char* text, void* opaque) {
        auto* self = static_cast<Trace*>(opaque);
        const std::lock_guard<std::mutex> hold(self->m_lock);
        self->m_text.append(text).append("\n");
    }
    std::string text() {
        const std::lock_guard<std::mutex> hold(m_lock);
        return m_text;
    }

private:
    std::mutex m_lock;  // guards m_text
    std::string m_text;
};

class Tracing : public LibraryTest {
protected:
    ~Tracing() override { setHttp2Trace(nullptr, nullptr, nullptr); }

    static void get(RecordingClient& client, const Http2Server& server) {
        prepareGet(client, server);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
    }
};

TEST_F(Tracing, ShowsTheConnectionsThatAClientOpens) {
    Http2Server server(answerAll("body"));
    Trace trace;
    RecordingClient client;
    setHttp2Trace(&client, &Trace::take, &trace);
    get(client, server);
    EXPECT_THAT(trace.text(), testing::HasSubstr(" > HEADERS stream 1, "));
    EXPECT_THAT(trace.text(), testing::HasSubstr("\n    :path: /\n"));
    EXPECT_THAT(trace.text(), testing::HasSubstr(" < DATA stream 1, 4 bytes END_STREAM\n"));
    // Another server, another client: not seen.
    Http2Server other(answerAll("other"));
    RecordingClient silent;
    get(silent, other);
    EXPECT_THAT(trace.text(), testing::Not(testing::HasSubstr("DATA stream 1, 5 bytes")));
}

TEST_F(Tracing, ShowsThoseOfAllClientsMadeFromThenOn) {
    Trace trace;
    Http2Server first(answerAll());
    Http2Server second(answerAll());
    Http2Server third(answerAll());
    RecordingClient earlier;
    setHttp2Trace(nullptr, &Trace::take, &trace);
    RecordingClient client;
    setHttp2Trace(nullptr, nullptr, nullptr);
    RecordingClient later;
    get(earlier, first);
    get(later, second);
    EXPECT_EQ(trace.text(), "");
    get(client, third);
    EXPECT_THAT(trace.text(), testing::HasSubstr(" < HEADERS stream 1, "));
}

TEST_F(Tracing, ShowsABlockThatIsSentWhereItLies) {
    Http2Server server(answerAll());
    Trace trace;
    RecordingClient client;
    setHttp2Trace(&client, &Trace::take, &trace);
    prepareGet(client, server);
    const std::string block = distinctBytes(40000);
    ASSERT_EQ(client.setContent(block.data(), block.size()), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_THAT(trace.text(), testing::HasSubstr(" > DATA stream 1, 16384 bytes\n"));
    EXPECT_THAT(trace.text(), testing::HasSubstr(" > DATA stream 1, 7232 bytes END_STREAM\n"));
}

}  // namespace
