#include "tests/standard/wire/http2_server.h"

namespace h2test {

struct Http2Server::Connection {
    FieldDecoder decoder;
    std::map<uint32_t, Request> open;
    std::string block;  // of HEADERS that CONTINUATION goes on with
    bool blockEndsStream = false;
};

std::string Request::field(std::string_view name) const {
    for (const auto& [known, value] : fields) {
        if (known == name) return value;
    }
    return {};
}

std::string Http2Server::largeWindows() {
    return settings({{4, 16 << 20}}) + windowUpdate(0, 16 << 20);
}

Http2Server::Http2Server(Http2Options options) : m_options(std::move(options)) {
    ServerOptions server = m_options.server;
    server.greeting = m_options.greeting.empty() ? largeWindows() : m_options.greeting;
    server.responder = [this](size_t index, const WireFrame& frame) {
        return onFrame(index, frame);
    };
    m_wire = std::make_unique<ScriptedServer>(std::move(server));
}

Http2Server::~Http2Server() = default;

std::vector<Request> Http2Server::requests() const {
    const std::lock_guard<std::mutex> hold(m_lock);
    return m_requests;
}

bool Http2Server::waitRequests(size_t count) const {
    return waitFor([&] {
        const std::lock_guard<std::mutex> hold(m_lock);
        return m_requests.size() >= count;
    });
}

std::string Http2Server::onFrame(size_t index, const WireFrame& frame) {
    if (frame.type == kSettings) return frame.hasFlags(kAck) ? std::string() : settingsAck();
    if (frame.type == kPing) return frame.hasFlags(kAck) ? std::string() : ping(0, kAck);
    Connection& connection = m_connections[index];
    Request& request = connection.open[frame.streamId];
    request.connection = index;
    request.stream = frame.streamId;
    bool ends = frame.hasFlags(kEndStream);
    if (frame.type == kHeaders || frame.type == kContinuation) {
        connection.block += frame.payload;
        if (frame.type == kHeaders) connection.blockEndsStream = ends;
        if (!frame.hasFlags(kEndHeaders)) return {};
        const FieldLines lines = connection.decoder.decode(connection.block);
        request.fields.insert(request.fields.end(), lines.begin(), lines.end());
        connection.block.clear();
        ends = connection.blockEndsStream;
    } else if (frame.type == kData) {
        request.body += frame.payload;
    } else {
        return {};
    }
    if (!ends) return {};
    std::string reply = finish(request);
    connection.open.erase(frame.streamId);
    return reply;
}

std::string Http2Server::finish(Request& request) {
    std::string reply = m_options.reply ? m_options.reply(request) : std::string();
    const std::lock_guard<std::mutex> hold(m_lock);
    m_requests.push_back(request);
    return reply;
}

}  // namespace h2test
