#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>

#include "Http2Client/HttpClientInterfaceImpl.h"

namespace {

using namespace tiny;
using Impl = HttpClientInterfaceImpl;

std::shared_ptr<Impl::HttpHeader> header(const char* name, const char* value, bool changable) {
    return std::make_shared<Impl::HttpHeader>(name, value, changable);
}

int reader(char*, size_t, void*) { return 0; }

class ImplTest : public testing::Test {
protected:
    Impl m_impl{nullptr};
};

TEST_F(ImplTest, StartsWithNothingSet) {
    EXPECT_EQ(m_impl.client(), nullptr);
    EXPECT_EQ(m_impl.clientStatus(), 0);
    EXPECT_EQ(m_impl.streamId(), 0U);
    EXPECT_EQ(m_impl.getSocket(), -1);
    EXPECT_EQ(m_impl.httpVersion(), HTTP_VERSION_UNDEFINED);
    EXPECT_EQ(m_impl.httpMethod(), HTTP_METHOD_UNDEFINED);
    EXPECT_EQ(m_impl.uri(), "");
    EXPECT_FALSE(m_impl.httpHandshake());
    EXPECT_EQ(m_impl.contentReader(), nullptr);
    EXPECT_EQ(m_impl.contentOpaque(), nullptr);
    EXPECT_EQ(m_impl.receivedHttpStatus(), 0);
    EXPECT_TRUE(m_impl.receivedHttpHeaders().empty());
    EXPECT_FALSE(m_impl.receivedHttpContentCacheEnabled());
    EXPECT_EQ(m_impl.receivedHttpContentStatus(), RECV_STATUS_UNDEFINED);
    EXPECT_EQ(m_impl.receivedHttpContent(), "");
    EXPECT_EQ(m_impl.errorMessage(), "");
    auto* client = reinterpret_cast<HttpClientInterface*>(&m_impl);
    EXPECT_EQ(Impl(client).client(), client);
}

TEST_F(ImplTest, EnumerationsHaveFixedValues) {
    EXPECT_EQ(CLI_STATE_NONE, 0);
    EXPECT_EQ(CLI_STATUS_CONNECTED | CLI_STATUS_URI | CLI_STATUS_HEADER | CLI_STATUS_CONTENT,
              CLI_STATUS_INITIALIZED);
    EXPECT_EQ(CLI_STATUS_INITIALIZED, 15);
    EXPECT_EQ(CLI_STATUS_URI, 2);
    EXPECT_EQ(CLI_STATUS_HEADER, 4);
    EXPECT_EQ(CLI_STATUS_REQUESTING, 256);
    EXPECT_EQ(CLI_STATUS_ACQUIRED, 512);
    EXPECT_EQ(RECV_STATUS_START, 1);
    EXPECT_EQ(RECV_STATUS_END, 2);
    EXPECT_EQ(RECV_STATUS_FAILED, 3);
    EXPECT_EQ(RECV_STATUS_CONTENT_OVERFLOW, 4);
}

TEST_F(ImplTest, HeaderCopiesItsTexts) {
    const Impl::HttpHeader made("n", "v", true);
    EXPECT_EQ(made.name(), "n");
    EXPECT_EQ(made.value(), "v");
    EXPECT_TRUE(made.isValueChangable());
    Impl::HttpHeader assigned(nullptr, nullptr, false);
    EXPECT_EQ(assigned.name() + assigned.value(), "");
    assigned = made;
    EXPECT_EQ(assigned.value(), "v");
    EXPECT_TRUE(assigned.isValueChangable());
}

TEST_F(ImplTest, TreatsANullErrorMessageAsEmpty) {
    m_impl.setErrorMessage("why");
    EXPECT_EQ(m_impl.errorMessage(), "why");
    EXPECT_STREQ(m_impl.errorText(), "why");
    m_impl.setErrorMessage(nullptr);
    EXPECT_EQ(m_impl.errorMessage(), "");
}

TEST_F(ImplTest, StatusBitsAreAddedRemovedAndReset) {
    m_impl.addClientStatus(CLI_STATUS_CONNECTED);
    m_impl.addClientStatus(CLI_STATUS_REQUESTING);
    EXPECT_EQ(m_impl.clientStatus(), 257);
    m_impl.removeClientStatus(CLI_STATUS_CONNECTED);
    EXPECT_EQ(m_impl.clientStatus(), 256);
    m_impl.resetClientStatus(CLI_STATUS_ACQUIRED);
    EXPECT_EQ(m_impl.clientStatus(), 512);
}

TEST_F(ImplTest, SettersMarkWhatIsSet) {
    m_impl.sethttpHandshake(true);
    m_impl.setUri("/a");
    EXPECT_EQ(m_impl.uri(), "/a");
    EXPECT_FALSE(m_impl.httpHandshake());
    EXPECT_EQ(m_impl.clientStatus(), CLI_STATUS_URI);
    m_impl.addHttpHeader(header("n", "v", false));
    EXPECT_EQ(m_impl.clientStatus(), CLI_STATUS_URI | CLI_STATUS_HEADER);
    m_impl.setContent("");
    EXPECT_EQ(m_impl.clientStatus(), CLI_STATUS_URI | CLI_STATUS_HEADER | CLI_STATUS_CONTENT);
    Impl other(nullptr);
    int opaque = 0;
    other.setContent(reader, &opaque);
    EXPECT_EQ(other.clientStatus(), CLI_STATUS_CONTENT);
    EXPECT_EQ(other.contentReader(), &reader);
    EXPECT_EQ(other.contentOpaque(), &opaque);
}

TEST_F(ImplTest, WalksItsHeaders) {
    m_impl.addHttpHeader(header("a", "bb", true));
    m_impl.addHttpHeader(header("ccc", "", false));
    Impl::HttpHeader taken("", "", false);
    EXPECT_EQ(m_impl.nextHeaderLength(), 3U);
    EXPECT_EQ(m_impl.nextHeaderLength(), 3U);
    EXPECT_TRUE(m_impl.takeHttpHeader(taken));
    EXPECT_EQ(taken.name() + "=" + taken.value(), "a=bb");
    EXPECT_TRUE(taken.isValueChangable());
    EXPECT_EQ(m_impl.nextHeaderLength(), 3U);
    EXPECT_TRUE(m_impl.takeHttpHeader(taken));
    EXPECT_EQ(taken.name() + "=" + taken.value(), "ccc=");
    EXPECT_EQ(m_impl.nextHeaderLength(), 0U);
    EXPECT_EQ(m_impl.m_headerOffset, static_cast<size_t>(-1));
    EXPECT_FALSE(m_impl.takeHttpHeader(taken));
    m_impl.addHttpHeader(header("late", "1", false));
    EXPECT_EQ(m_impl.nextHeaderLength(), 0U);  // a finished cursor stays so
    m_impl.resetHeaderIndex();
    EXPECT_EQ(m_impl.nextHeaderLength(), 3U);
    m_impl.resetHeaders();
    EXPECT_EQ(m_impl.nextHeaderLength(), 0U);
    EXPECT_TRUE(m_impl.m_headerLst.empty());
}

TEST_F(ImplTest, TakingFromNoHeadersFinishesTheCursor) {
    Impl::HttpHeader taken("kept", "kept", true);
    EXPECT_FALSE(m_impl.takeHttpHeader(taken));
    EXPECT_EQ(taken.name(), "kept");
    EXPECT_EQ(m_impl.m_headerOffset, static_cast<size_t>(-1));
}

TEST_F(ImplTest, CursorCountsAsFinishedByItsLowBits) {
    m_impl.addHttpHeader(header("a", "b", false));
    m_impl.setContent("abc");
    m_impl.m_headerOffset = 0x5FFFFFFFF;
    m_impl.m_contentOffset = 0x5FFFFFFFF;
    EXPECT_EQ(m_impl.nextHeaderLength(), 0U);
    EXPECT_EQ(m_impl.m_headerOffset, 0x5FFFFFFFFU);
    EXPECT_EQ(m_impl.nextContentLength(), 0U);
    EXPECT_EQ(m_impl.m_contentOffset, 0x5FFFFFFFFU);
}

TEST_F(ImplTest, HandsOutBlocksFromTheirStartPlusTheLength) {
    m_impl.setContent("0123456789");
    const char* buf = nullptr;
    EXPECT_EQ(m_impl.nextContentLength(), 10U);
    EXPECT_EQ(m_impl.takeHttpContent(buf, 4), 4U);
    EXPECT_EQ(buf, m_impl.m_content.data() + 4);
    buf = nullptr;
    EXPECT_EQ(m_impl.takeHttpContent(buf, 4), 4U);
    EXPECT_EQ(buf, m_impl.m_content.data() + 4);
    buf = nullptr;
    EXPECT_EQ(m_impl.takeHttpContent(buf, 4), 0U);
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(m_impl.nextContentLength(), 2U);
    m_impl.setContent(reader, nullptr);  // leaves the block as it is
    EXPECT_EQ(m_impl.nextContentLength(), 2U);
    m_impl.resetContentIndex();
    EXPECT_EQ(m_impl.takeHttpContent(buf, 16384), 0U);  // never a short block
    EXPECT_EQ(m_impl.nextContentLength(), 10U);
}

TEST_F(ImplTest, FillsAChunkPastTheBlockWithZeros) {
    m_impl.setContent("0123456789");
    const char* buf = nullptr;
    ASSERT_EQ(m_impl.takeHttpContent(buf, 6), 6U);
    EXPECT_EQ(std::string(buf, 6), std::string("6789\0\0", 6));
    m_impl.setContent("0123456789");
    ASSERT_EQ(m_impl.takeHttpContent(buf, 10), 10U);
    EXPECT_EQ(std::string(buf, 10), std::string(10, '\0'));
    EXPECT_EQ(m_impl.nextContentLength(), 0U);
    EXPECT_EQ(m_impl.m_contentOffset, static_cast<size_t>(-1));
    EXPECT_EQ(m_impl.takeHttpContent(buf, 1), 0U);
}

TEST_F(ImplTest, LatchesThatThereIsNoContent) {
    EXPECT_FALSE(m_impl.hasPendingContent());
    EXPECT_TRUE(m_impl.m_noMoreContent);
    m_impl.setContent("a");
    EXPECT_TRUE(m_impl.hasPendingContent());
    m_impl.setContentFinished(true);
    EXPECT_FALSE(m_impl.hasPendingContent());
    m_impl.setContent(reader, nullptr);
    EXPECT_TRUE(m_impl.hasPendingContent());
    m_impl.setContentFinished(true);
    m_impl.setContent("");
    EXPECT_TRUE(m_impl.hasPendingContent());  // the reader was left as it was
    EXPECT_EQ(m_impl.contentReader(), &reader);
    Impl empty(nullptr);
    empty.setContent("");
    EXPECT_FALSE(empty.hasPendingContent());
}

TEST_F(ImplTest, KeepsTheLastOfARepeatedHeader) {
    m_impl.addReceivedHttpHeader("n", "1");
    m_impl.addReceivedHttpHeader("n", "2");
    m_impl.addReceivedHttpHeader("a", "3");
    const std::map<std::string, std::string> expected = {{"a", "3"}, {"n", "2"}};
    EXPECT_EQ(m_impl.receivedHttpHeaders(), expected);
}

TEST_F(ImplTest, CachesOnlyWhenEnabled) {
    m_impl.appendReceivedContent("abc", 3);
    EXPECT_EQ(m_impl.receivedHttpContent(), "");
    m_impl.setReceivedHttpContentCacheEnabled(true);
    m_impl.appendReceivedContent("a\0c", 3);
    EXPECT_EQ(m_impl.receivedHttpContent(), std::string("a\0c", 3));
}

TEST_F(ImplTest, CacheTakesOneChunkPastItsMark) {
    m_impl.setReceivedHttpContentCacheEnabled(true);
    m_impl.appendReceivedContent(std::string(1048575, 'x').data(), 1048575);
    m_impl.setReceiveContentBegin();
    m_impl.appendReceivedContent(std::string(5000, 'y').data(), 5000);
    EXPECT_EQ(m_impl.receivedHttpContent().size(), 1053575U);
    EXPECT_EQ(m_impl.receivedHttpContentStatus(), RECV_STATUS_START);
    m_impl.appendReceivedContent("z", 1);
    EXPECT_EQ(m_impl.receivedHttpContent().size(), 1053575U);
    EXPECT_EQ(m_impl.receivedHttpContentStatus(), RECV_STATUS_CONTENT_OVERFLOW);
    m_impl.setReceiveContentBegin();
    m_impl.appendReceivedContent("z", 1);
    EXPECT_EQ(m_impl.receivedHttpContentStatus(), RECV_STATUS_CONTENT_OVERFLOW);
}

// A state in which every field differs from a new object's.
void fill(Impl& impl) {
    static int opaque = 0;
    impl.setUri("/u");
    impl.setHttpMethod(HTTP_POST);
    impl.setHttpVersion(HTTP_2);
    impl.addHttpHeader(header("n", "v", false));
    impl.setContent("0123456789");
    impl.setContent(reader, &opaque);
    Impl::HttpHeader taken("", "", false);
    impl.takeHttpHeader(taken);
    const char* buf = nullptr;
    impl.takeHttpContent(buf, 4);
    impl.sethttpHandshake(true);
    impl.setContentFinished(true);
    impl.setStreamId(9);
    impl.setSocket(8);
    impl.setErrorMessage("e");
    impl.setReceivedHttpStatus(200);
    EXPECT_EQ(impl.receivedHttpStatus(), 200);
    impl.addReceivedHttpHeader("r", "1");
    impl.setReceivedHttpContentCacheEnabled(true);
    impl.appendReceivedContent("body", 4);
    impl.setReceiveContentDone();
    EXPECT_EQ(impl.receivedHttpContentStatus(), RECV_STATUS_END);
}

TEST_F(ImplTest, ResetToRequestKeepsTheRequest) {
    fill(m_impl);
    m_impl.resetClientStatus(
        static_cast<HTTP_CLIENT_STATUS>(CLI_STATUS_REQUESTING | CLI_STATUS_ACQUIRED));
    m_impl.resetToRequest();
    EXPECT_EQ(m_impl.clientStatus(), CLI_STATUS_ACQUIRED);
    EXPECT_FALSE(m_impl.httpHandshake());
    EXPECT_EQ(m_impl.m_headerOffset, 0U);
    EXPECT_EQ(m_impl.m_contentOffset, 0U);
    EXPECT_FALSE(m_impl.m_noMoreContent);
    EXPECT_FALSE(m_impl.receivedHttpContentCacheEnabled());
    EXPECT_EQ(m_impl.receivedHttpStatus(), 0);
    EXPECT_TRUE(m_impl.receivedHttpHeaders().empty());
    EXPECT_EQ(m_impl.receivedHttpContentStatus(), RECV_STATUS_UNDEFINED);
    EXPECT_EQ(m_impl.receivedHttpContent(), "");
    EXPECT_EQ(m_impl.uri(), "/u");
    EXPECT_EQ(m_impl.httpMethod(), HTTP_POST);
    EXPECT_EQ(m_impl.httpVersion(), HTTP_2);
    EXPECT_EQ(m_impl.nextHeaderLength(), 2U);
    EXPECT_EQ(m_impl.nextContentLength(), 10U);
    EXPECT_EQ(m_impl.contentReader(), &reader);
    EXPECT_EQ(m_impl.streamId(), 9U);
    EXPECT_EQ(m_impl.getSocket(), 8);
    EXPECT_EQ(m_impl.errorMessage(), "e");
}

TEST_F(ImplTest, ClearKeepsTheConnectionOnly) {
    fill(m_impl);
    m_impl.resetClientStatus(
        static_cast<HTTP_CLIENT_STATUS>(CLI_STATUS_CONNECTED | CLI_STATUS_URI));
    m_impl.clear();
    EXPECT_EQ(m_impl.clientStatus(), CLI_STATUS_CONNECTED);
    EXPECT_EQ(m_impl.uri(), "");
    EXPECT_EQ(m_impl.nextHeaderLength(), 0U);
    EXPECT_EQ(m_impl.m_content, "");
    EXPECT_EQ(m_impl.contentReader(), nullptr);
    EXPECT_EQ(m_impl.contentOpaque(), nullptr);
    EXPECT_EQ(m_impl.errorMessage(), "");
    EXPECT_FALSE(m_impl.m_noMoreContent);
    EXPECT_EQ(m_impl.receivedHttpStatus(), 0);
    EXPECT_EQ(m_impl.streamId(), 9U);
    EXPECT_EQ(m_impl.getSocket(), 8);
    EXPECT_EQ(m_impl.httpMethod(), HTTP_POST);
    m_impl.resetClientStatus(CLI_STATUS_URI);
    m_impl.clear();
    EXPECT_EQ(m_impl.clientStatus(), 0);
}

// The records are the map's entries, in its order and with its texts, however headers arrive.
TEST(ReceivedHeaderRecords, FollowTheMap) {
    std::mt19937 random(7);
    for (int round = 0; round < 50; ++round) {
        tiny::HttpClientInterfaceImpl impl(nullptr);
        for (int report = 0; report < 20; ++report) {
            for (uint32_t i = random() % 8; i > 0; --i) {
                std::string name = std::to_string(random() % 40);
                if (random() % 8 == 0) name += std::string("\0x", 2);
                impl.addReceivedHttpHeader(name, std::string(random() % 60, 'v'));
            }
            if (random() % 10 == 0) impl.resetToRequest();
            const auto& records = impl.receivedHeaderRecords();
            ASSERT_EQ(records.size(), impl.receivedHttpHeaders().size());
            size_t at = 0;
            for (const auto& [name, value] : impl.receivedHttpHeaders()) {
                ASSERT_EQ(records[at].m_headerName, name.c_str());
                ASSERT_EQ(records[at].m_headerValue, value.c_str());
                ++at;
            }
        }
    }
}

TEST(ReceivedHeaderRecords, AreBuiltAnewForAMapChangedByOtherMeans) {
    Impl impl(nullptr);
    const auto names = [&] {
        std::string out;
        for (const auto& record : impl.receivedHeaderRecords()) {
            out += std::string(record.m_headerName) + "=" + record.m_headerValue + " ";
        }
        return out;
    };
    impl.addReceivedHttpHeader("b", "1");
    EXPECT_EQ(names(), "b=1 ");
    impl.m_receivedHeaderMap = {{"a", "2"}, {"c", "3"}};
    EXPECT_EQ(names(), "a=2 c=3 ");
    impl.m_receivedHeaderMap.clear();
    impl.addReceivedHttpHeader("d", "4");
    impl.addReceivedHttpHeader("d", "5");
    EXPECT_EQ(names(), "d=5 ");
}

}  // namespace
