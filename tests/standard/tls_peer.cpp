#include "tests/standard/tls_peer.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "tests/support/tls_context.h"

namespace h2test {

namespace {

int chooseAlpn(SSL* /*ssl*/, const unsigned char** out, unsigned char* length,
               const unsigned char* /*offered*/, unsigned int /*size*/, void* argument) {
    const auto* options = static_cast<const PeerOptions*>(argument);
    if (options->refuseAlpn) return SSL_TLSEXT_ERR_ALERT_FATAL;
    if (options->alpn.empty()) return SSL_TLSEXT_ERR_NOACK;
    *out = reinterpret_cast<const unsigned char*>(options->alpn.data());
    *length = static_cast<unsigned char>(options->alpn.size());
    return SSL_TLSEXT_ERR_OK;
}

}  // namespace

Listener::Listener(const char* ip, int backlog) {
    const bool v6 = std::strchr(ip, ':') != nullptr;
    m_descriptor = socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(m_descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_storage address{};
    socklen_t length = v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    address.ss_family = v6 ? AF_INET6 : AF_INET;
    auto& address4 = reinterpret_cast<sockaddr_in&>(address);
    auto& address6 = reinterpret_cast<sockaddr_in6&>(address);
    void* host = &address4.sin_addr;
    if (v6) host = &address6.sin6_addr;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (inet_pton(address.ss_family, ip, host) != 1 || bind(m_descriptor, generic, length) != 0 ||
        listen(m_descriptor, backlog) != 0 || getsockname(m_descriptor, generic, &length) != 0) {
        throw std::runtime_error("cannot listen");
    }
    m_port = ntohs(v6 ? address6.sin6_port : address4.sin_port);
}

Listener::~Listener() { close(m_descriptor); }

int Listener::accept() const {
    // cppcheck-suppress nullPointer ; both may be null
    return ::accept4(m_descriptor, nullptr, nullptr, SOCK_CLOEXEC);
}

TlsPeer::TlsPeer(PeerOptions options, int connections, std::function<void(SSL*)> talk)
    : m_options(std::move(options)),
      m_talk(std::move(talk)),
      m_context(makeTlsContext(m_options.certificate, m_options.onlyTls12)) {
    SSL_CTX_set_alpn_select_cb(m_context, &chooseAlpn, &m_options);
    if (m_options.wantCertificate) {
        SSL_CTX_set_verify(m_context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                           [](int, X509_STORE_CTX*) { return 1; });
    }
    if (m_options.prepare) m_options.prepare(m_context);
    m_thread = std::thread([this, connections] { serve(connections); });
}

TlsPeer::~TlsPeer() {
    shutdown(m_listener.descriptor(), SHUT_RDWR);  // ends an accept that still waits
    m_thread.join();
    SSL_CTX_free(m_context);
}

void TlsPeer::serve(int connections) {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);  // OpenSSL's own socket BIO raises it
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    for (int i = 0; i < connections; ++i) {
        const int descriptor = m_listener.accept();
        if (descriptor == -1) return;
        SSL* ssl = SSL_new(m_context);
        SSL_set_fd(ssl, descriptor);
        if (SSL_accept(ssl) == 1) m_talk(ssl);
        SSL_free(ssl);
        close(descriptor);
    }
}

std::string readAll(SSL* ssl, size_t size) {
    std::string bytes(size, '\0');
    size_t have = 0;
    while (have < size) {
        size_t got = 0;
        if (SSL_read_ex(ssl, bytes.data() + have, size - have, &got) != 1) break;
        have += got;
    }
    bytes.resize(have);
    return bytes;
}

void writeAll(SSL* ssl, std::string_view bytes) {
    while (!bytes.empty()) {
        size_t taken = 0;
        if (SSL_write_ex(ssl, bytes.data(), bytes.size(), &taken) != 1) return;
        bytes.remove_prefix(taken);
    }
}

}  // namespace h2test
