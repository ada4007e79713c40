#ifndef HTTP2CLIENT_HTTPSOCKETSSL_H
#define HTTP2CLIENT_HTTPSOCKETSSL_H

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <climits>
#include <iostream>

#include "HttpSocketBase.h"
#include "log.h"

namespace tiny {

// TLS over the same socket: OpenSSL's default client with the verification of the server's
// certificate switched off. It sends no server name and no ALPN list (RFC 9113, 3.2 wants "h2"
// negotiated; the server must speak HTTP/2 without), and no close-notify when it ends.
//
// OpenSSL keeps one error queue a thread, not one a connection. It is cleared before each
// operation: an old error of another connection would else be read as this one's.
class HttpSocketSSL : public HttpSocketBase {
public:
    HttpSocketSSL(HTTP_SCHEMA ver, const std::string& ip, uint16_t port)
        : HttpSocketBase(ver, ip, port) {}

    ~HttpSocketSSL() override {
        if (m_ssl != nullptr) SSL_free(m_ssl);
        m_ssl = nullptr;
        if (m_sslCtx != nullptr) SSL_CTX_free(m_sslCtx);
        m_sslCtx = nullptr;
    }

    // Runs the whole handshake, waiting for the server. Any certificate is accepted.
    bool initialization() override {
        HTTP2CLIENT_LOG_INFO("init ssl, ip: " << m_ip);
        if (m_sslCtx != nullptr && m_ssl != nullptr) return true;
        ERR_clear_error();
        if (SSL_library_init() == 0) return fail("ssl initialization failed");
        m_sslCtx = SSL_CTX_new(SSLv23_client_method());
        if (m_sslCtx == nullptr) return fail("create ssl context failed");
        m_ssl = SSL_new(m_sslCtx);
        if (m_ssl == nullptr) return fail("create ssl failed");
        SSL_set_verify(m_ssl, SSL_VERIFY_NONE, nullptr);
        if (SSL_set_fd(m_ssl, sock()) == 0) return fail("set socket to ssl failed");
        if (SSL_connect(m_ssl) != 1) return fail("connect to ssl server failed");
        HTTP2CLIENT_LOG_INFO("init ssl success! ip: " << m_ip);
        return true;
    }

    int readData(char* buf, size_t len) override {
        ERR_clear_error();
        const int result = SSL_read(m_ssl, buf, narrowed(len));
        if (result >= 0) return result;
        const int error = SSL_get_error(m_ssl, result);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) return -1;
        HTTP2CLIENT_LOG_ERROR("SSL read Err! err" << error << ",ip: " << m_ip);
        return 0;
    }

    int writeData(const char* buf, size_t len) override {
        ERR_clear_error();
        const int result = SSL_write(m_ssl, buf, narrowed(len));
        if (result >= 0) return result;
        const int error = SSL_get_error(m_ssl, result);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) return -1;
        HTTP2CLIENT_LOG_ERROR("SSL write Err! err" << error << ",ip: " << m_ip);
        return 0;
    }

private:
    static int narrowed(size_t len) { return static_cast<int>(std::min<size_t>(len, INT_MAX)); }

    bool fail(const char* consoleText) {
        std::cout << consoleText << std::endl;
        HTTP2CLIENT_LOG_ERROR("ssl failed!ip: " << m_ip);
        return false;
    }

    SSL_CTX* m_sslCtx = nullptr;  // both null until initialization; freed with this object
    SSL* m_ssl = nullptr;
};

}  // namespace tiny

#endif  // HTTP2CLIENT_HTTPSOCKETSSL_H
