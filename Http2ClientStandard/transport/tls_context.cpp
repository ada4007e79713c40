#include "Http2ClientStandard/transport/tls_context.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <tuple>
#include <utility>

#include "Http2ClientStandard/transport/address.h"
#include "Http2ClientStandard/transport/socket.h"

namespace h2 {

namespace {

// HTTP/2 and nothing else (RFC 9113, 3.2; RFC 7301).
constexpr unsigned char kAlpn[] = {2, 'h', '2'};

// For TLS 1.2, ephemeral keys and AEAD only: what RFC 9113, 9.2.2 does not prohibit.
constexpr char kTls12Ciphers[] = "ECDHE+AESGCM:ECDHE+CHACHA20:DHE+AESGCM:DHE+CHACHA20:!PSK:!aNULL";

// Servers whose sessions are kept at a time.
constexpr size_t kMaxSessions = 1000;

int sessionKeyIndex() {
    static const int index = SSL_get_ex_new_index(
        0, nullptr, nullptr, nullptr, [](void*, void* key, CRYPTO_EX_DATA*, int, long, void*) {
            delete static_cast<std::string*>(key);
        });
    return index;
}

// Appends a line to the file that SSLKEYLOGFILE names, for tools that decrypt a capture.
void logKey(const SSL* /*ssl*/, const char* line) {
    const char* file = secure_getenv("SSLKEYLOGFILE");
    if (file == nullptr || *file == '\0') return;
    const int descriptor = open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (descriptor == -1) return;
    // One write, so that lines of several threads do not mix. A full disk loses the line.
    iovec parts[] = {{const_cast<char*>(line), std::strlen(line)}, {const_cast<char*>("\n"), 1}};
    [[maybe_unused]] const ssize_t written = writev(descriptor, parts, 2);
    close(descriptor);
}

}  // namespace

bool TlsOptions::operator<(const TlsOptions& other) const {
    const auto all = [](const TlsOptions& o) {
        return std::tie(o.verify, o.caFile, o.caDirectory, o.certificateFile, o.keyFile,
                        o.serverName, o.onlyTls13);
    };
    return all(*this) < all(other);
}

std::string tlsErrorText() {
    // What the system says comes first, and OpenSSL's last error says only that it was the system.
    const unsigned long first = ERR_peek_error();
    if (ERR_SYSTEM_ERROR(first)) return systemError(ERR_GET_REASON(first));
    const unsigned long code = ERR_peek_last_error();
    const char* reason = ERR_reason_error_string(code);
    return reason == nullptr ? "TLS failure " + std::to_string(code) : reason;
}

std::shared_ptr<TlsContext> TlsContext::create(const TlsOptions& options, std::string& error) {
    std::shared_ptr<TlsContext> context(new TlsContext(options));
    ERR_clear_error();
    if (!context->setUp(error)) context.reset();
    return context;
}

TlsContext::~TlsContext() {
    for (const auto& [server, session] : m_sessions) SSL_SESSION_free(session);
    SSL_CTX_free(m_context);
}

bool TlsContext::setUp(std::string& error) {
    m_context = SSL_CTX_new(TLS_client_method());
    if (m_context == nullptr) {
        error = tlsErrorText();
        return false;
    }
    const int least = m_options.onlyTls13 ? TLS1_3_VERSION : TLS1_2_VERSION;
    // RFC 9113, 9.2.1: no compression, no renegotiation. The transport itself tells an end of file
    // from close_notify; OpenSSL would not resume the session, either.
    SSL_CTX_set_options(
        m_context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_mode(m_context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (SSL_CTX_set_min_proto_version(m_context, least) != 1 ||
        SSL_CTX_set_cipher_list(m_context, kTls12Ciphers) != 1 ||
        SSL_CTX_set_alpn_protos(m_context, kAlpn, sizeof kAlpn) != 0) {
        error = tlsErrorText();
        return false;
    }
    SSL_CTX_set_app_data(m_context, this);
    SSL_CTX_set_session_cache_mode(m_context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_new_cb(m_context, &TlsContext::keepSession);
    SSL_CTX_set_keylog_callback(m_context, &logKey);
    SSL_CTX_set_verify(m_context, m_options.verify ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
    return (!m_options.verify || loadTrust(error)) && loadOwnCertificate(error);
}

bool TlsContext::loadTrust(std::string& error) {
    if (m_options.caFile.empty() && m_options.caDirectory.empty()) {
        if (SSL_CTX_set_default_verify_paths(m_context) == 1) return true;
        error = "cannot load the system's certificate store: " + tlsErrorText();
        return false;
    }
    if (!m_options.caFile.empty() &&
        SSL_CTX_load_verify_file(m_context, m_options.caFile.c_str()) != 1) {
        error = "cannot load CA file " + m_options.caFile + ": " + tlsErrorText();
        return false;
    }
    if (!m_options.caDirectory.empty() &&
        SSL_CTX_load_verify_dir(m_context, m_options.caDirectory.c_str()) != 1) {
        error = "cannot load CA directory " + m_options.caDirectory + ": " + tlsErrorText();
        return false;
    }
    return true;
}

bool TlsContext::loadOwnCertificate(std::string& error) {
    if (m_options.certificateFile.empty()) return true;
    const std::string& keyFile =
        m_options.keyFile.empty() ? m_options.certificateFile : m_options.keyFile;
    if (SSL_CTX_use_certificate_chain_file(m_context, m_options.certificateFile.c_str()) != 1) {
        error = "cannot load certificate " + m_options.certificateFile + ": " + tlsErrorText();
        return false;
    }
    if (SSL_CTX_use_PrivateKey_file(m_context, keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(m_context) != 1) {
        error = "cannot use key " + keyFile + ": " + tlsErrorText();
        return false;
    }
    return true;
}

SSL* TlsContext::newConnection(const std::string& host, uint16_t port, std::string& error) {
    ERR_clear_error();
    std::unique_ptr<SSL, decltype(&SSL_free)> owner(SSL_new(m_context), &SSL_free);
    SSL* const ssl = owner.get();
    if (ssl == nullptr) {
        error = tlsErrorText();
        return nullptr;
    }
    const std::string& name = m_options.serverName.empty() ? host : m_options.serverName;
    X509_VERIFY_PARAM* rules = SSL_get0_param(ssl);
    // RFC 6125, 6.4.3, as browsers do: a wildcard stands for a whole label.
    X509_VERIFY_PARAM_set_hostflags(rules, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    const bool isAddress = isAddressText(name);
    const bool set = isAddress
                         ? X509_VERIFY_PARAM_set1_ip_asc(rules, name.c_str()) == 1
                         : X509_VERIFY_PARAM_set1_host(rules, name.c_str(), name.size()) == 1 &&
                               SSL_set_tlsext_host_name(ssl, name.c_str()) == 1;
    if (!set) {
        error = "not a server name: " + name;
        return nullptr;
    }
    auto* key = new std::string(host + ":" + std::to_string(port));
    SSL_set_ex_data(ssl, sessionKeyIndex(), key);
    const std::lock_guard<std::mutex> hold(m_sessionLock);
    const auto found = m_sessions.find(*key);
    if (found != m_sessions.end()) SSL_set_session(ssl, found->second);
    return owner.release();
}

// Called by OpenSSL with a session that a later connection may resume. 1: we keep the reference.
int TlsContext::keepSession(SSL* ssl, SSL_SESSION* session) {
    auto* context = static_cast<TlsContext*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
    const auto* key = static_cast<const std::string*>(SSL_get_ex_data(ssl, sessionKeyIndex()));
    if (key == nullptr) return 0;
    const std::lock_guard<std::mutex> hold(context->m_sessionLock);
    const auto found = context->m_sessions.find(*key);
    if (found != context->m_sessions.end()) {
        SSL_SESSION_free(std::exchange(found->second, session));
        return 1;
    }
    if (context->m_sessions.size() >= kMaxSessions) return 0;
    try {
        context->m_sessions.emplace(*key, session);
    } catch (const std::bad_alloc&) {  // OpenSSL knows of no exceptions
        return 0;
    }
    return 1;
}

}  // namespace h2
