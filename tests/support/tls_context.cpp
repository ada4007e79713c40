#include "tls_context.h"

#include <cstdio>
#include <cstdlib>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>

namespace h2test {

namespace {

void require(bool ok, const char* step) {
    if (ok) return;
    std::fprintf(stderr, "%s\n", step);
    ERR_print_errors_fp(stderr);
    std::abort();
}

int chooseHttp2(SSL* /*ssl*/, const unsigned char** chosen, unsigned char* length,
                const unsigned char* offered, unsigned int size, void* /*unused*/) {
    static constexpr unsigned char kHttp2[] = {2, 'h', '2'};
    return SSL_select_next_proto(const_cast<unsigned char**>(chosen), length, kHttp2, sizeof kHttp2,
                                 offered, size) == OPENSSL_NPN_NEGOTIATED
               ? SSL_TLSEXT_ERR_OK
               : SSL_TLSEXT_ERR_ALERT_FATAL;
}

}  // namespace

const Certificate& sharedCertificate() {
    static const Certificate certificate = makeCertificate();
    return certificate;
}

SSL_CTX* makeTlsContext(const Certificate& certificate, bool onlyTls12, bool alpn) {
    SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
    require(context != nullptr, "SSL_CTX_new");
    BIO* const text = BIO_new_mem_buf(certificate.certificate.data(),
                                      static_cast<int>(certificate.certificate.size()));
    X509* const x509 = PEM_read_bio_X509(text, nullptr, nullptr, nullptr);
    require(x509 != nullptr && SSL_CTX_use_certificate(context, x509) == 1, "server certificate");
    BIO* const keyText =
        BIO_new_mem_buf(certificate.key.data(), static_cast<int>(certificate.key.size()));
    EVP_PKEY* const key = PEM_read_bio_PrivateKey(keyText, nullptr, nullptr, nullptr);
    require(key != nullptr && SSL_CTX_use_PrivateKey(context, key) == 1, "server key");
    X509_free(x509);
    EVP_PKEY_free(key);
    BIO_free(text);
    BIO_free(keyText);
    if (alpn) SSL_CTX_set_alpn_select_cb(context, &chooseHttp2, nullptr);
    if (onlyTls12) SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    return context;
}

}  // namespace h2test
