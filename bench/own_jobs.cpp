#include "own_jobs.h"

#include <ext/stdio_sync_filebuf.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <string_view>

#include "Http2Client/HttpClientInterfaceImpl.h"
#include "tests/support/bytes.h"

namespace bench::own {

namespace {

using hpack::HeaderField;
using tiny::HttpClientInterfaceImpl;

class NullStreamBuffer : public std::streambuf {
private:
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize size) override { return size; }
};

class CountingClient : public tiny::HttpClientInterface {
public:
    void onSocketClosed() override {}
    void onFailed(HTTP_ERROR /*err*/) override { std::abort(); }
    void onHeaderReceived(int /*status*/, const HeaderDef* /*headers*/, size_t count) override {
        m_count += count;
    }
    void onContentReceived(const char* /*data*/, size_t len, bool /*more*/) override {
        m_count += len;
    }

private:
    size_t m_count = 0;
};

// One line for the console, made in memory that is kept.
class Line {
public:
    void add(std::string_view text) { m_text += text; }
    void add(uint32_t number) {
        char digits[10];
        m_text.append(digits, std::to_chars(digits, std::end(digits), number).ptr);
    }
    void write() {
        m_text += '\n';
        std::cout.write(m_text.data(), static_cast<std::streamsize>(m_text.size()));
        m_text.clear();
    }

private:
    std::string m_text;
};

HeaderField::HEADER_FIELD_TYPE representation(const std::string& name) {
    return name == ":method" || name == ":scheme"
               ? HeaderField::INDEXED_HEADER_FIELD
               : HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING;
}

// A request with these fields; its first three go out as the pseudo-header fields anyway.
std::unique_ptr<tiny::HttpClientInterface> requestOf(const Fields& fields, HTTP_METHOD method) {
    auto client = std::make_unique<CountingClient>();
    HttpClientInterfaceImpl* impl = client->ctx();
    impl->setHttpVersion(HTTP_2);
    impl->setHttpMethod(method);
    for (const auto& [name, value] : fields) {
        if (name == ":path") impl->setUri(value);
        if (name[0] == ':') continue;
        impl->addHttpHeader(std::make_shared<HttpClientInterfaceImpl::HttpHeader>(
            name.c_str(), value.c_str(), false));
    }
    return client;
}

// The client's preface and SETTINGS frame.
void sendOpening(tiny::Http2& engine) {
    int status = 0;
    engine.encodeFrame(status);
    engine.encodeFrame(status);
}

void feed(tiny::Http2& engine, std::string& stream) {
    for (size_t at = 0; at < stream.size(); at += kReadChunk) {
        const size_t size = std::min(kReadChunk, stream.size() - at);
        if (engine.decodeFrame(stream.data() + at, size) != 0) std::abort();
    }
}

}  // namespace

Encode::Encode(const Fields& fields) {
    for (const auto& [name, value] : fields) {
        hpack::HeaderFieldRepresentation element;
        element.Field() = HeaderField(false, false, name, value);
        element.Type() = representation(name);
        m_list.push_back(element);
    }
}

void Encode::run() { m_table.Encode(m_block, m_list, true); }

Decode::Decode(const std::string& block)
    : m_block(block.data(), static_cast<unsigned int>(block.size())) {}

void Decode::run() {
    hpack::Table table(m_empty);
    std::vector<hpack::HeaderFieldRepresentation> list;
    if (!table.Decode(list, m_block, true)) std::abort();
}

Reassemble::Reassemble(const std::string& stream)
    : m_stream(stream),
      m_console(std::make_unique<NullStreamBuffer>()),
      m_formerConsole(std::cout.rdbuf(m_console.get())) {}

Reassemble::~Reassemble() { std::cout.rdbuf(m_formerConsole); }

void Reassemble::run() {
    for (size_t at = 0; at < m_stream.size(); at += kReadChunk) {
        const size_t size = std::min(kReadChunk, m_stream.size() - at);
        m_context.sendPacket(m_stream.data() + at, size, m_table, true);
        while (m_context.hasFrame()) m_context.getFrame();
    }
}

// To /dev/null goes what would go to standard output, by the same way.
Receive::Receive(const std::string& stream, Console console)
    : m_stream(stream),
      m_devNull(std::fopen("/dev/null", "w")),
      m_client(requestOf(requestFields(8, Text::kTypical), HTTP_GET)) {
    if (console == Console::kDropped) {
        m_console = std::make_unique<NullStreamBuffer>();
    } else {
        m_console = std::make_unique<__gnu_cxx::stdio_sync_filebuf<char>>(m_devNull);
    }
    m_formerConsole = std::cout.rdbuf(m_console.get());
    m_engine.addHttpClient(m_client->ctx());
    std::string opened = openedStream();
    feed(m_engine, opened);
}

Receive::~Receive() {
    std::cout.rdbuf(m_formerConsole);
    std::fclose(m_devNull);
}

void Receive::run() { feed(m_engine, m_stream); }

WriteLines::WriteLines(const std::string& stream)
    : m_size(stream.size()), m_console(std::make_unique<NullStreamBuffer>()) {
    for (const h2test::WireFrame& frame : h2test::parseFrames(stream)) {
        const bool isHeaders = frame.type == h2test::kHeaders;
        m_frames.push_back({isHeaders ? "HEADERS" : "DATA", frame.streamId, frame.length,
                            isHeaders ? mixedStreamFields() : Fields()});
    }
    m_formerConsole = std::cout.rdbuf(m_console.get());
}

WriteLines::~WriteLines() { std::cout.rdbuf(m_formerConsole); }

void WriteLines::run() {
    Line line;
    for (const FrameLines& frame : m_frames) {
        line.add(frame.type);
        line.write();
        std::cout.flush();
        line.add("received a stream: id = ");
        line.add(frame.stream);
        line.add(" name = ");
        line.add(frame.type);
        line.add("    length = ");
        line.add(frame.length);
        line.write();
        for (const auto& [name, value] : frame.fields) {
            line.add(name);
            line.add("    ");
            line.add(value);
            line.write();
        }
    }
}

ProduceGet::ProduceGet(const Fields& fields) : m_client(requestOf(fields, HTTP_GET)) {
    sendOpening(m_engine);
}

void ProduceGet::run() {
    int status = 0;
    m_client->ctx()->resetToRequest();
    m_engine.addHttpClient(m_client->ctx());
    m_bytes = m_engine.encodeFrame(status).size();
    m_engine.forgetHttpClient(m_client->ctx());
    if (m_bytes == 0) std::abort();
}

ProduceBody::ProduceBody()
    : m_client(requestOf(requestFields(8, Text::kIncompressible), HTTP_POST)) {
    m_client->ctx()->setContent(
        [](char* buffer, size_t length, void* opaque) {
            return static_cast<int>(static_cast<BodySource*>(opaque)->read(buffer, length));
        },
        &m_body);
    sendOpening(m_engine);
}

void ProduceBody::run() {
    int status = 0;
    size_t sent = 0;
    m_body.rewind();
    m_client->ctx()->resetToRequest();
    m_engine.addHttpClient(m_client->ctx());
    while (m_client->ctx()->hasPendingContent()) sent += m_engine.encodeFrame(status).size();
    m_engine.forgetHttpClient(m_client->ctx());
    if (sent < kBodySize) std::abort();
}

}  // namespace bench::own
