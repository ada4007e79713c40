// The interface that code outside relies on: names, types, values and a few results.
//
// Compiled by both compilers as C++17 and as C++20, and run once. -fno-access-control gives access
// to private members.
#include "Http2Client/PlatformDef.h"
static_assert(HTTPS_2 == 2 && HTTP_DELETE == 3 && ERR_FETAL == 2 && ERR_BUSY == 8, "has error.h");

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <future>
#include <iostream>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "Http2Client/Http2.h"
#include "Http2Client/HttpClientInterfaceImpl.h"
#include "Http2Client/HttpContext.h"
#include "Http2Client/HttpIO.h"
#include "Http2Client/HttpSocketSSL.h"
#include "Http2Client/Sock.h"
#include "Http2Client/buffer.h"
#include "Http2Client/ev_select.h"
#include "Http2Client/frame.h"
#include "Http2Client/hpack.h"
#include "Http2Client/httpClientApi.h"
#include "Http2Client/huffman.h"

using namespace tiny;
using hpack::HeaderField, hpack::HeaderFieldRepresentation, hpack::Huffman, hpack::Table;
using std::map, std::string, std::shared_ptr, std::list, std::vector;
using HeaderList = vector<HeaderFieldRepresentation>;
using Headers = map<string, string>;
using Impl = HttpClientInterfaceImpl;

// A function's type without its class, const and noexcept.
template <class R, class... A>
auto plain(R (*)(A...)) -> R (*)(A...);
template <class R, class C, class... A>
auto plain(R (C::*)(A...)) -> R (*)(A...);
template <class R, class C, class... A>
auto plain(R (C::*)(A...) const) -> R (*)(A...);
#define TYPE(expression, ...) \
    static_assert(std::is_same_v<decltype(expression), __VA_ARGS__>, #expression)
#define CALL(function, result, ...) TYPE(plain(&function), result (*)(__VA_ARGS__))

TYPE(Buffer::buffer, char*);
TYPE(Buffer::len, uint32_t);
static_assert(offsetof(Buffer, len) == 8 && offsetof(Buffer, max_len) == 12, "after the pointer");
CALL(Buffer::Address, char*, unsigned);
CALL(Buffer::GetValue, uint64_t, unsigned, unsigned);
CALL(Buffer::SetValue, bool, uint64_t, int, unsigned);
TYPE(std::declval<Buffer&>() + "text", Buffer&);
TYPE(std::declval<uint40_t&>() = std::declval<const uint64_t&>(), uint40_t&);

static_assert(HeaderField::INDEXED_HEADER_FIELD == 0 &&
              HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING == 1 &&
              HeaderField::LITERAL_HEADER_FIELD_WITHOUT_INDEXING == 2 &&
              HeaderField::LITERAL_HEADER_FIELD_NEVER_INDEXED == 3);
CALL(HeaderField::Name, const string&, );
CALL(HeaderField::SetNameUseHuffman, bool, bool);
CALL(HeaderFieldRepresentation::Field, HeaderField&, );
CALL(HeaderFieldRepresentation::Type, HeaderField::HEADER_FIELD_TYPE&, );
CALL(HeaderFieldRepresentation::constField, const HeaderField&, );
TYPE(Table::dynamic_table_size_max_, uint32_t);
CALL(Table::Find, uint32_t, const string&, const string&);
CALL(Table::Update, void, HeaderList);
CALL(Table::Encode, bool, Buffer&, HeaderList, bool);
CALL(Table::Decode, bool, HeaderList&, const Buffer&, bool);
CALL(Huffman::GetInstance, Huffman*, );
CALL(Huffman::Encode, bool, Buffer&, const Buffer&);
TYPE(Huffman::m_huffmanRoot, Huffman::node);
TYPE(Huffman::HuffmanGarbage::m_instance, Huffman*);

static_assert(sizeof(Frame::FRAME_TYPE) == 4 && Frame::TYPE_PUSH_PROMISE_FRAME == 5 &&
              Frame::TYPE_LAST_TYPE == 9 && Frame::FLAG_ACK == 1 && Frame::FLAG_END_STREAM == 1 &&
              Frame::FLAG_END_HEADERS == 4 && Frame::FLAG_PADDED == 8 &&
              Frame::FLAG_PRIORITY == 32);
CALL(Frame::getType, Frame::FRAME_TYPE, );
CALL(Frame::encodeFrame, Buffer*, Table*);
CALL(Frame::decodeBaseFrame, shared_ptr<BaseFrame>, const char*);
CALL(Frame::createFrame, Frame*, shared_ptr<BaseFrame>);
CALL(Frame::serializeFrame, shared_ptr<Buffer>, Frame*, Table*, bool);
static_assert(SettingsFrame::SETTINGS_MAX_HEADER_LIST_SIZE == 6);
CALL(SettingsFrame::getSettings, const Settings&, );
CALL(HeadersFrame::setHeaderList, void, const HeaderList&, Table&);
TYPE(HeadersFrame::m_headerList, HeaderList);
TYPE(GoawayFrame(1u, 2u, Buffer("debug")).m_additionalDebugData, Buffer);
TYPE(PushPromisFrame(2u, Buffer("fragment"), uint8_t{1}).m_promisedStreamId, uint32_t);
static_assert(FrameCtx::CTX_MUST_READ == 2 && FrameCtx::CTX_FETAL_ERROR == -1 &&
              FrameCtx::CTX_NEED_CLOSE == -2);
CALL(FrameCtx::sendPacket, FrameCtx::CONTEXT_STATE, const char*, size_t, Table, bool);
TYPE(&FrameCtx::hasFrame, bool (FrameCtx::*)());
TYPE(FrameCtx::m_decodedFrameList, list<shared_ptr<Frame>>);

static_assert(Http2::pingTicker == 60000 && Http2::pongTicker == 120000);
static_assert(HTTP2_ERROR_CANCEL == 8 && HTTP2_ERROR_HTTP_1_1_REQUIRED == 13);
TYPE(Http2::m_httpClientMap, map<uint32_t, Impl*>);
TYPE(Http2::m_flowControlMap, map<uint32_t, uint32_t>);
TYPE(Http2::m_rstFrameMap, map<uint32_t, shared_ptr<RSTStreamFrame>>);
CALL(Http2::encodeFrame, string, int&);
CALL(Http2::decodeFrame, int, char*, size_t);
CALL(Http2::createHeaderFrame, bool, Impl*, HeadersFrame&);
CALL(Http2::processDataFrame, void, Frame*);
CALL(Sock::connectTo, int, int, const string&, uint32_t);
TYPE(HttpSocketSSL::m_sslCtx, SSL_CTX*);
CALL(HttpIO::createHttpIO, shared_ptr<HttpIO>, HTTP_SCHEMA, const char*, uint16_t);
CALL(HttpIO::buffer, string&, );
CALL(ev::poll, list<ev::ActiveSocket>, timeval*);
CALL(ev_select::poll, list<ev::ActiveSocket>, timeval*);
TYPE(ev_select::m_sockfdSet, std::set<int>);
CALL(HttpContext::getHttpSocket, int, HTTP_SCHEMA, const char*, uint16_t);
TYPE(HttpContext::m_httpIoMap, map<int, shared_ptr<HttpIO>>);

static_assert(CLI_STATUS_REQUESTING == 256 && RECV_STATUS_CONTENT_OVERFLOW == 4);
CALL(Impl::HttpHeader::name, string, );
CALL(Impl::HttpHeader::value, string, );
CALL(Impl::receivedHttpHeaders, const Headers&, );
TYPE(Impl::m_headerLst, vector<shared_ptr<Impl::HttpHeader>>);
CALL(HttpClientInterface::setUri, int, const char*, HTTP_METHOD);
CALL(HttpClientInterface::addHeader, HttpClientInterface*, const char*, const char*, bool);
CALL(HttpClientInterface::blockedRequest, int, int&, Headers&, string&, const char*&, uint32_t);
CALL(initHttp2Client, int, unsigned);
CALL(destroyHttp2Client, int, );

struct OwnPoller : ev {
    bool addEvent(int, int) override { return true; }
    bool removeEvent(int, int) override { return true; }
    list<ActiveSocket> poll(timeval*) override { return list<ActiveSocket>(2); }
    string poolApiName() override { return "own"; }
};

struct Client : HttpClientInterface {
    size_t headers = 0;
    void onSocketClosed() override {}
    void onFailed(HTTP_ERROR) override {}
    void onHeaderReceived(int, const HeaderDef*, size_t count) override { headers = count; }
    void onContentReceived(const char*, size_t, bool) override {}
};

// The first test: later ones create the context, which prints its poller's name.
TEST(Contract, ClearingAClientCreatesNoContext) {
    std::ostringstream console;
    auto* saved = std::cout.rdbuf(console.rdbuf());
    auto client = std::make_unique<Client>();
    client->clearClient();
    const string cleared = console.str();
    client.reset();
    std::cout.rdbuf(saved);
    EXPECT_EQ(cleared, "");
    EXPECT_EQ(console.str(), "select\n");
}

TEST(Contract, FillingAnIdleClientWaitsForNobody) {
    Client client;
    client.ctx()->setSocket(1000);
    std::future<int> filled;
    {
        SingleLock held(&HttpContext::instance()->m_httpIolock);
        filled = std::async(std::launch::async, [&client] {
            const int uri = client.setUri("/", HTTP_POST);
            const bool header = client.addHeader("name", "value", true) == &client;
            const int block = client.setContent("body", 4);
            const int reader = client.setContent([](char*, size_t, void*) { return 0; }, nullptr);
            client.clearClient();
            return header ? uri + block + reader : -1;
        });
        EXPECT_EQ(filled.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    }
    EXPECT_EQ(filled.get(), 0);
}

TEST(Contract, PollResultsOutliveTheirPoller) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    auto poller = std::make_unique<ev_select>();
    poller->addEvent(ends[0], 3);
    timeval second{1, 0};
    const list<ev::ActiveSocket> ready = poller->poll(&second);
    poller.reset();
    close(ends[0]);
    close(ends[1]);
    ASSERT_EQ(ready.size(), 1u);
    EXPECT_EQ(ready.front().m_socket, ends[0]);
    EXPECT_EQ(ready.front().m_mask, 2);
    EXPECT_EQ(OwnPoller().poll(nullptr).size(), 2u);
}

TEST(Contract, ReferencesIntoAFieldShowItsNewText) {
    const string text(100, 'x');
    HeaderField field("name", "value");
    const string& name = field.Name();
    const string& value = field.Value();
    field.SetName(text);
    field.SetValue("v");
    EXPECT_EQ(name + value, text + "v");
    field = HeaderField("n", text);
    EXPECT_EQ(name + value, "n" + text);
    const HeaderField other("other", "v");
    field = other;
    EXPECT_EQ(name + value, "otherv");
    const HeaderField copy = field;
    field.SetName(text);
    EXPECT_EQ(copy.Name() + other.Name(), "otherother");
}

TEST(Contract, EncodingGrowsItsBufferByTheGrowthRule) {
    HeaderFieldRepresentation path;
    path.Field() = HeaderField(false, false, ":path", "/index.html");
    path.Type() = HeaderField::INDEXED_HEADER_FIELD;
    Table table;
    Buffer block;
    EXPECT_TRUE(table.Encode(block, HeaderList(5, path), false));
    EXPECT_EQ(string(block.Address(0), block.Length()), "\x85\x85\x85\x85\x85");
    EXPECT_EQ(block.max_len, 8u);
    path.Type() = HeaderField::LITERAL_HEADER_FIELD_NEVER_INDEXED;
    EXPECT_TRUE(table.Encode(block, HeaderList(1, path), false));
    EXPECT_EQ(string(block.Address(0), block.Length()), "\x14\x0B/index.html");
    EXPECT_EQ(block.max_len, 16u);
}

TEST(Contract, ShortAndOverpaddedPayloadsDecode) {
    Table table;
    PingFrame ping;
    EXPECT_TRUE(ping.decodeFramePayload("\1\2\3", 3, table));
    EXPECT_EQ(ping.getOpaqueData(), 0x0102030000000000u);
    GoawayFrame goaway;
    EXPECT_TRUE(goaway.decodeFramePayload("\0\0\0\5\1", 5, table));
    EXPECT_EQ(goaway.getLastStreamId(), 5u);
    EXPECT_EQ(goaway.getErrorCode(), 0x01000000u);
    EXPECT_TRUE(WindowUpdateFrame().decodeFramePayload("", 0, table));
    DataFrame data;
    data.setPadLength(2);
    EXPECT_TRUE(data.decodeFramePayload("abcd", 4, table));
    EXPECT_EQ(data.getData().Length(), 2u);
    data.setPadFlag();
    EXPECT_TRUE(data.decodeFramePayload("\5a", 2, table));
    EXPECT_EQ(data.getData().Length(), 0u);
    HeadersFrame headers;
    headers.setHeaderList(HeaderList(1), table);
    headers.setPriorityFlag();
    EXPECT_TRUE(headers.decodeFramePayload("\x80\0", 2, table));
    EXPECT_TRUE(headers.hasExclusive());
    PushPromisFrame push;
    push.setPadFlag();
    EXPECT_TRUE(push.decodeFramePayload("\5\0\0\0\4XYZ----", 8, table));
    EXPECT_EQ(push.getPromisedStreamId(), 4u);
    auto fragment = push.getHeaderBlockFragment();
    EXPECT_EQ(string(fragment.Address(0), fragment.Length()), "XY");
}

TEST(Contract, EngineConvertsStatusAsAtoiDoesAndReportsHeadersStoredByOthers) {
    Client client;
    Http2 engine;
    engine.addHttpClient(client.ctx());
    client.ctx()->m_receivedHeaderMap["stored"] = "1";
    for (const string status : {"4294967496", "99999999999999999999", "-7", "2x"}) {
        const char size = static_cast<char>(status.size());
        string bytes{0, 0, static_cast<char>(size + 2), 1, 4, 0, 0, 0, 1, 8, size};
        bytes += status;
        EXPECT_EQ(engine.decodeFrame(&bytes[0], bytes.size()), 0);
        EXPECT_EQ(client.ctx()->receivedHttpStatus(), std::atoi(status.c_str())) << status;
    }
    EXPECT_EQ(client.headers, 2u);
}

TEST(Contract, EngineCountsCreditStoredByOthers) {
    Http2 engine;
    engine.m_prefaceSent = engine.m_settingSent = true;
    engine.m_flowControlMap = {{1, 40000}, {3, 1000}};
    int status = 0;
    const string updates = engine.encodeFrame(status);
    ASSERT_EQ(updates.size(), 26u);
    EXPECT_EQ(updates.substr(5, 8), string("\0\0\0\0\0\0\xA0\x28", 8));
    EXPECT_EQ(updates.substr(18, 8), string("\0\0\0\1\0\0\x9C\x40", 8));
    EXPECT_EQ(engine.m_flowControlMap.size(), 1u);
}
