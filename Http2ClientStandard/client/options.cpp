#include "Http2ClientStandard/client/options.h"

namespace h2 {

namespace {

constexpr int64_t kMaxTime = int64_t{1} << 40;  // milliseconds; more than 30 years
constexpr uint32_t kBlockOverHeaders = 16384;   // a block may be longer than what it says

template <typename Target>
bool assign(Target& target, int64_t value, int64_t least, int64_t most) {
    if (value < least || value > most) return false;
    target = static_cast<Target>(value);
    return true;
}

}  // namespace

bool Options::set(HTTP2_OPTION option, int64_t value) {
    ConnectionOptions& connection = connect.connection;
    SessionOptions& session = connection.session;
    switch (option) {
        case HTTP2_VERIFY: return assign(tls.verify, value, 0, 1);
        case HTTP2_MIN_TLS_VERSION:
            if (value != 12 && value != 13) return false;
            tls.onlyTls13 = value == 13;
            return true;
        case HTTP2_OWN_CONNECTION: return assign(ownConnection, value, 0, 1);
        case HTTP2_CONNECTIONS_PER_SERVER: return assign(connect.maxConnections, value, 1, 1000);
        case HTTP2_BACKGROUND_THREADS: return assign(threads, value, 1, 64);
        case HTTP2_CONNECT_TIMEOUT: return assign(connect.timeout, value, 1, kMaxTime);
        case HTTP2_FIRST_BYTE_TIMEOUT: return assign(firstByte, value, 0, kMaxTime);
        case HTTP2_REQUEST_TIMEOUT: return assign(wholeRequest, value, 0, kMaxTime);
        case HTTP2_SILENCE_TIMEOUT: return assign(silence, value, 0, kMaxTime);
        case HTTP2_PING_AFTER: return assign(session.pingAfter, value, 0, kMaxTime);
        case HTTP2_PING_TIMEOUT: return assign(session.pingTimeout, value, 1, kMaxTime);
        case HTTP2_IDLE_TIMEOUT: return assign(connection.idleTimeout, value, 0, kMaxTime);
        case HTTP2_STREAM_WINDOW: return assign(session.streamWindow, value, 1, INT32_MAX);
        case HTTP2_CONNECTION_WINDOW:
            return assign(session.connectionWindow, value, 65535, INT32_MAX);
        case HTTP2_MAX_HEADERS:
            if (!assign(session.maxHeaderList, value, 1024, 64 << 20)) return false;
            session.maxHeaderBlock = session.maxHeaderList + kBlockOverHeaders;
            return true;
        case HTTP2_MAX_BLOCKED_BODY: return assign(maxBlockedBody, value, 0, INT64_MAX);
    }
    return false;
}

bool Options::set(HTTP2_TEXT_OPTION option, const char* text) {
    const std::string value = text == nullptr ? "" : text;
    switch (option) {
        case HTTP2_CA_FILE: tls.caFile = value; return true;
        case HTTP2_CA_DIRECTORY: tls.caDirectory = value; return true;
        case HTTP2_CERTIFICATE_FILE: tls.certificateFile = value; return true;
        case HTTP2_KEY_FILE: tls.keyFile = value; return true;
        case HTTP2_SERVER_NAME: tls.serverName = value; return true;
        case HTTP2_METHOD: return false;  // of a request, not of a client
    }
    return false;
}

}  // namespace h2
