#include "HttpIO.h"

#include <atomic>

#include "Http2.h"
#include "HttpSocketBase.h"
#include "HttpSocketOri.h"
#include "HttpSocketSSL.h"
#include "Sock.h"
#include "log.h"

namespace tiny {

namespace {

constexpr size_t kCacheLimit = size_t{16} * 1024 * 1024;

std::atomic<uint64_t> lastSerial{0};

}  // namespace

std::shared_ptr<HttpIO> HttpIO::createHttpIO(HTTP_SCHEMA schema, const char* ip, uint16_t port) {
    const std::string address = ip == nullptr ? "" : ip;
    HTTP2CLIENT_LOG_INFO("createa http io: ip = " << address << "begin");
    std::shared_ptr<HttpIO> io(new HttpIO);
    if (schema == HTTP_2) {
        io->m_socket = new HttpSocketOri(schema, address, port);
    } else {
        io->m_socket = new HttpSocketSSL(schema, address, port);
    }
    if (Sock::connectTo(io->httpSocket(), address, port) == -1) {
        HTTP2CLIENT_LOG_INFO("createa http io: ip = " << address << "failed");
        io.reset();
        return io;
    }
    if (io->m_socket->initialization()) {
        io->m_http2 = new Http2;
    } else {
        HTTP2CLIENT_LOG_INFO("createa http io: ip = " << address << "failed");
        io.reset();
    }
    // Logged after a failed handshake too: programs that read the log expect the pair.
    HTTP2CLIENT_LOG_INFO("createa http io: ip = " << address << "ok");
    return io;
}

HttpIO::HttpIO() : m_socket(nullptr), m_http2(nullptr), m_serial(++lastSerial) {
    HTTP2CLIENT_LOG_INFO("HttpIO::HttpIO");
}

HttpIO::~HttpIO() {
    HTTP2CLIENT_LOG_INFO("~~~~~HttpIO::HttpIO");
    delete m_http2;
    m_http2 = nullptr;
    delete m_socket;
    m_socket = nullptr;
    HTTP2CLIENT_LOG_INFO("~~~~~HttpIO::HttpIO");
}

int HttpIO::httpSocket() const { return m_socket->sock(); }

std::string HttpIO::httpIp() const { return m_socket->remoteIp(); }

uint16_t HttpIO::httpPort() const { return m_socket->remotePort(); }

HTTP_SCHEMA HttpIO::httpVersion() const { return m_socket->httpVersion(); }

bool HttpIO::bufferOverLimit() const { return m_cachedBuffer.size() > kCacheLimit; }

int HttpIO::read(char* buf, size_t len) { return m_socket->readData(buf, len); }

int HttpIO::write(const char* buf, size_t len) { return m_socket->writeData(buf, len); }

}  // namespace tiny
