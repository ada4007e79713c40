// Sessions of one engine: requests come and go, bytes arrive, output is taken. Every session is
// played twice, and the second engine has to do just what the first did.
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "Http2Client/Http2.h"
#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/HttpClientInterfaceImpl.h"
#include "fuzz_support.h"

namespace {

const h2fuzz::QuietCout quiet;

using tiny::Frame;
using tiny::HttpClientInterfaceImpl;

constexpr size_t kPrefaceLength = 24;
constexpr size_t kFrameHeaderLength = 9;
constexpr size_t kMaxClients = 8;
constexpr uint32_t kMaxDataLength = 16384;

// Writes down every callback; tells whether it may be called at all.
class Client : public tiny::HttpClientInterface {
public:
    Client(std::ostream& log, int number) : m_log(log), m_number(number) {}

    void onSocketClosed() override { end("closed"); }
    void onFailed(HTTP_ERROR err) override {
        h2fuzz::require(err == ERR_FETAL, "a failure is ERR_FETAL");
        end("failed");
    }
    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        enter("headers");
        m_log << status << " " << count;
        for (size_t i = 0; i < count; ++i) {
            m_log << "\n" << headers[i].m_headerName << "=" << headers[i].m_headerValue;
        }
    }
    void onContentReceived(const char* data, size_t len, bool more) override {
        enter("content");
        m_log << std::string_view(data, len) << more;
        if (!more) m_registered = false;
    }

    // Whether the engine knows this client's request, from this client's point of view.
    bool m_registered = false;

    int readBody(char* buffer, size_t length) {
        h2fuzz::require(m_registered, "only a registered request's body is read");
        h2fuzz::require(length == kMaxDataLength, "a reader gets the whole buffer");
        if (m_bodySizes.empty()) return 0;
        const int claimed = m_bodySizes.back();
        m_bodySizes.pop_back();
        for (int i = 0; i < claimed && static_cast<size_t>(i) < length; ++i) {
            buffer[i] = static_cast<char>('a' + i % 26);
        }
        return claimed;
    }
    std::vector<int> m_bodySizes;  // what the reader will claim, last first

private:
    void enter(const char* what) {
        h2fuzz::require(m_registered, "callbacks go to registered clients");
        m_log << "\nclient " << m_number << " " << what << " ";
    }
    void end(const char* what) {
        enter(what);
        const int status = ctx()->clientStatus();
        h2fuzz::require((status & tiny::CLI_STATUS_REQUESTING) == 0,
                        "a request has ended before its last callback");
        m_registered = false;
    }

    std::ostream& m_log;
    int m_number;
};

int readBody(char* buffer, size_t length, void* opaque) {
    return static_cast<Client*>(opaque)->readBody(buffer, length);
}

class Session {
public:
    explicit Session(const h2fuzz::Input& input) : m_input(input) {}

    std::string play() {
        while (!m_input.empty() && !m_over) step();
        m_engine.reset();
        for (const auto& client : m_clients) {
            h2fuzz::require(!client->m_registered, "an engine that ends tells every request");
        }
        return m_log.str();
    }

private:
    void step() {
        switch (m_input.byte() % 8) {
            case 0: startRequest(); break;
            case 1: withdraw(); break;
            case 2: destroyClient(); break;
            case 3: receive(std::string(m_input.bytes(m_input.byte()))); break;
            case 4:
            case 5: receiveFrame(); break;
            case 6: takeOutput(); break;
            case 7:
                for (int i = 0; i < 6; ++i) takeOutput();
                break;
        }
    }

    void startRequest() {
        if (m_clients.size() == kMaxClients) return;
        m_clients.push_back(std::make_unique<Client>(m_log, static_cast<int>(m_clientCount++)));
        Client& client = *m_clients.back();
        describeRequest(client);
        client.ctx()->addClientStatus(tiny::CLI_STATUS_REQUESTING);
        client.m_registered = true;
        m_engine->addHttpClient(client.ctx());
        m_opened.insert(client.ctx()->streamId());
    }

    void describeRequest(Client& client) {
        HttpClientInterfaceImpl* impl = client.ctx();
        const uint8_t control = m_input.byte();
        impl->setHttpMethod(static_cast<HTTP_METHOD>(control & 3));
        impl->setHttpVersion(static_cast<HTTP_SCHEMA>(control >> 2 & 3));
        impl->setReceivedHttpContentCacheEnabled((control & 0x10) != 0);
        impl->setUri(std::string(m_input.bytes(m_input.byte())));
        for (int i = m_input.byte() & 3; i > 0; --i) {
            const std::string name(m_input.bytes(m_input.byte() & 15));
            std::string value(m_input.bytes(m_input.byte() & 31));
            if ((control & 0x20) != 0) value.resize(value.size() * 700, 'v');  // past the budget
            impl->addHttpHeader(std::make_shared<HttpClientInterfaceImpl::HttpHeader>(
                name.c_str(), value.c_str(), m_input.flag()));
        }
        if ((control & 0xC0) == 0x40) impl->setContent(std::string(m_input.word(), 'b'));
        if ((control & 0xC0) != 0x80) return;
        for (int i = m_input.byte() & 3; i > 0; --i) {
            client.m_bodySizes.push_back(static_cast<int16_t>(m_input.word()));
        }
        impl->setContent(readBody, &client);
    }

    Client* pick() {
        if (m_clients.empty()) return nullptr;
        return m_clients[m_input.byte() % m_clients.size()].get();
    }

    void withdraw() {
        Client* client = pick();
        if (client == nullptr) return;
        client->m_registered = false;
        m_engine->removeHttpClient(client->ctx());
    }

    void destroyClient() {
        if (m_clients.empty()) return;
        const size_t index = m_input.byte() % m_clients.size();
        m_engine->forgetHttpClient(m_clients[index]->ctx());
        m_clients.erase(m_clients.begin() + static_cast<long>(index));
    }

    // A frame that is well-formed but for its payload, mostly for a stream that is known.
    void receiveFrame() {
        const uint8_t type = m_input.byte() % 11;
        const uint8_t flags = m_input.byte();
        const uint8_t stream = m_input.byte();
        const std::string payload(m_input.bytes(m_input.byte()));
        const uint32_t length = static_cast<uint32_t>(payload.size());
        std::string bytes{static_cast<char>(length >> 16),
                          static_cast<char>(length >> 8),
                          static_cast<char>(length),
                          static_cast<char>(type),
                          static_cast<char>(flags),
                          '\0',
                          '\0',
                          '\0',
                          static_cast<char>(stream < 0xF0 ? stream % 24 : stream)};
        receive(bytes + payload);
    }

    void receive(const std::string& bytes) {
        const h2fuzz::ExactBytes exact(bytes);
        const int result = m_engine->decodeFrame(exact.data(), exact.size());
        m_log << "\nreceived " << result;
        h2fuzz::require(result == 0 || result == -1 || result == -2, "results are 0, -1 or -2");
        m_over = result != 0;
    }

    void takeOutput() {
        int status = 0;
        const std::string bytes = m_engine->encodeFrame(status);
        h2fuzz::require(status == 0, "a young connection is not given up");
        m_log << "\nsent " << bytes;
        if (m_outputs++ == 0) {
            h2fuzz::require(bytes.size() == kPrefaceLength, "the preface comes first");
            return;
        }
        std::set<int> types;
        for (size_t at = 0; at < bytes.size();) at = checkFrame(bytes, at, types);
        if (m_outputs == 2) {
            h2fuzz::require(types == std::set<int>{Frame::TYPE_SETTINGS_FRAME},
                            "SETTINGS comes second");
        } else {
            h2fuzz::require(types.size() <= 1, "one kind of output a call");
        }
    }

    size_t checkFrame(const std::string& bytes, size_t at, std::set<int>& types) {
        h2fuzz::require(bytes.size() - at >= kFrameHeaderLength, "whole frame headers are sent");
        const auto header = Frame::decodeBaseFrame(bytes.data() + at);
        at += kFrameHeaderLength;
        h2fuzz::require(bytes.size() - at >= header->m_length, "whole frames are sent");
        types.insert(header->m_type);
        const bool opened = m_opened.count(header->m_streamId) != 0;
        switch (header->m_type) {
            case Frame::TYPE_DATA_FRAME:
                h2fuzz::require(opened, "DATA is for registered requests");
                h2fuzz::require(header->m_length <= kMaxDataLength, "DATA is 16 KiB at most");
                break;
            case Frame::TYPE_HEADERS_FRAME:
                h2fuzz::require(opened, "HEADERS are for registered requests");
                break;
            case Frame::TYPE_SETTINGS_FRAME:
                h2fuzz::require(m_outputs == 2, "SETTINGS are sent once");
                break;
            case Frame::TYPE_RST_STREAM_FRAME:
            case Frame::TYPE_WINDOW_UPDATE_FRAME:
                h2fuzz::require(header->m_length == 4, "fixed lengths are kept");
                break;
            default: h2fuzz::require(false, "no other frame is sent");
        }
        return at + header->m_length;
    }

    h2fuzz::Input m_input;
    std::ostringstream m_log;
    std::vector<std::unique_ptr<Client>> m_clients;
    std::unique_ptr<tiny::Http2> m_engine = std::make_unique<tiny::Http2>();
    std::set<uint32_t> m_opened;  // streams that requests have been registered under
    size_t m_clientCount = 0;
    size_t m_outputs = 0;
    bool m_over = false;  // the connection would be dropped now
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const h2fuzz::Input input(data, size);
    const std::string first = Session(input).play();
    h2fuzz::require(Session(input).play() == first, "the same session has the same course");
    return 0;
}
