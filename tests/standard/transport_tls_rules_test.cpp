// What HTTP/2 asks of TLS: RFC 9113, 3.2 and 9.2.
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <poll.h>

#include <set>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Http2ClientStandard/transport/dialer.h"
#include "Http2ClientStandard/transport/tls_transport.h"
#include "tests/standard/tls_peer.h"
#include "tests/support/bytes.h"
#include "tests/support/temp.h"
#include "tests/support/tls_context.h"

namespace {

using h2test::PeerOptions;
using h2test::TlsPeer;

constexpr h2::Time kLimit = 30000;  // milliseconds; a busy machine must not fail a test

PeerOptions peerOptions(std::function<void(SSL_CTX*)> prepare) {
    PeerOptions options;
    options.certificate = h2test::sharedCertificate();
    options.prepare = std::move(prepare);
    return options;
}

// Connects without verifying; null: it failed.
std::unique_ptr<h2::Transport> connect(uint16_t port, bool onlyTls13 = false) {
    h2::TlsOptions options;
    options.verify = false;
    options.onlyTls13 = onlyTls13;
    std::string error;
    const auto context = h2::TlsContext::create(options, error);
    h2::Dialer dialer("localhost", port, h2::resolve("127.0.0.1", port).addresses, context,
                      h2::steadyNow() + kLimit);
    while (dialer.advance(h2::steadyNow()) == h2::Dialer::State::kGoingOn) {
        pollfd ready{dialer.descriptor(),
                     static_cast<short>(dialer.wantsWrite() ? POLLOUT : POLLIN), 0};
        poll(&ready, 1, kLimit);
    }
    EXPECT_EQ(dialer.error(), "");
    return dialer.takeTransport();
}

// The parts of a ClientHello, as OpenSSL's server shows them.
struct Hello {
    std::string protocols;            // of ALPN
    std::string versions;             // of supported_versions
    std::string name;                 // of server_name
    std::vector<std::string> suites;  // by name
    std::string compression;
    std::set<int> extensions;  // by number
};

std::string extensionOf(SSL* ssl, unsigned type) {
    const unsigned char* bytes = nullptr;
    size_t size = 0;
    if (SSL_client_hello_get0_ext(ssl, type, &bytes, &size) != 1) return "none";
    return {reinterpret_cast<const char*>(bytes), size};
}

int takeHello(SSL* ssl, int* /*alert*/, void* argument) {
    auto& hello = *static_cast<Hello*>(argument);
    hello.protocols = extensionOf(ssl, TLSEXT_TYPE_application_layer_protocol_negotiation);
    hello.versions = extensionOf(ssl, TLSEXT_TYPE_supported_versions);
    hello.name = extensionOf(ssl, TLSEXT_TYPE_server_name);
    const unsigned char* bytes = nullptr;
    size_t size = SSL_client_hello_get0_compression_methods(ssl, &bytes);
    hello.compression.assign(reinterpret_cast<const char*>(bytes), size);
    size = SSL_client_hello_get0_ciphers(ssl, &bytes);
    for (size_t i = 0; i + 1 < size; i += 2) {
        const SSL_CIPHER* suite = SSL_CIPHER_find(ssl, bytes + i);
        hello.suites.emplace_back(suite == nullptr ? "unknown" : SSL_CIPHER_standard_name(suite));
    }
    int* numbers = nullptr;
    if (SSL_client_hello_get1_extensions_present(ssl, &numbers, &size) == 1) {
        hello.extensions.insert(numbers, numbers + size);
        OPENSSL_free(numbers);
    }
    return SSL_CLIENT_HELLO_SUCCESS;
}

Hello helloOf(bool onlyTls13) {
    Hello hello;
    TlsPeer peer(peerOptions([&](SSL_CTX* context) {
                     SSL_CTX_set_client_hello_cb(context, &takeHello, &hello);
                 }),
                 1, [](SSL* ssl) { h2test::readAll(ssl, 1); });
    EXPECT_NE(connect(peer.port(), onlyTls13), nullptr);
    return hello;
}

TEST(TlsHello, OffersHttp2AndTls12OrLater) {
    const Hello hello = helloOf(false);
    EXPECT_EQ(hello.protocols, h2test::hex("00 03 02 68 32"));  // "h2" and nothing else
    EXPECT_EQ(hello.versions, h2test::hex("04 03 04 03 03"));   // TLS 1.3 and 1.2
    EXPECT_EQ(hello.name, h2test::hex("00 0c 00 00 09") + "localhost");
    EXPECT_EQ(hello.compression, h2test::hex("00"));  // none
    EXPECT_EQ(helloOf(true).versions, h2test::hex("02 03 04"));
}

TEST(TlsHello, OffersNoAuthenticationBehindTheHandshake) {
    // RFC 8446, 4.6.2: without the extension, a CertificateRequest is an unexpected message.
    EXPECT_EQ(helloOf(false).extensions.count(TLSEXT_TYPE_post_handshake_auth), 0u);
}

// RFC 9113, Appendix A prohibits every suite but those with an ephemeral key exchange and AEAD.
TEST(TlsHello, OffersNoProhibitedSuite) {
    const Hello hello = helloOf(false);
    EXPECT_THAT(hello.suites, testing::Contains("TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256"));
    for (const std::string& suite : hello.suites) {
        if (suite == "TLS_EMPTY_RENEGOTIATION_INFO_SCSV") continue;
        const bool tls13 = suite.starts_with("TLS_AES_") || suite.starts_with("TLS_CHACHA20_");
        const bool ephemeral = suite.starts_with("TLS_ECDHE_") || suite.starts_with("TLS_DHE_");
        const bool aead = suite.find("_GCM_") != std::string::npos ||
                          suite.find("_CHACHA20_POLY1305_") != std::string::npos;
        const bool authenticated =
            suite.find("_anon_") == std::string::npos && suite.find("_PSK_") == std::string::npos;
        EXPECT_TRUE(tls13 || (ephemeral && aead && authenticated)) << suite;
    }
}

// A self-signed certificate with an RSA key.
void useRsa(SSL_CTX* context) {
    EVP_PKEY* key = EVP_RSA_gen(2048);
    X509* certificate = X509_new();
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
    X509_set_pubkey(certificate, key);
    EXPECT_GT(X509_sign(certificate, key, EVP_sha256()), 0);
    EXPECT_EQ(SSL_CTX_use_certificate(context, certificate), 1);
    EXPECT_EQ(SSL_CTX_use_PrivateKey(context, key), 1);
    X509_free(certificate);
    EVP_PKEY_free(key);
}

// Finite-field Diffie-Hellman with the group of that name for the server's context.
void useGroup(SSL_CTX* context, const char* name) {
    EVP_PKEY_CTX* made = EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr);
    EVP_PKEY* parameters = nullptr;
    OSSL_PARAM group[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char*>(name), 0),
        OSSL_PARAM_construct_end()};
    EXPECT_EQ(EVP_PKEY_fromdata_init(made), 1);
    EXPECT_EQ(EVP_PKEY_fromdata(made, &parameters, EVP_PKEY_KEY_PARAMETERS, group), 1);
    EXPECT_EQ(SSL_CTX_set0_tmp_dh_pkey(context, parameters), 1);
    EVP_PKEY_CTX_free(made);
}

// What is agreed with a server of TLS 1.2 that has that suite only: "suite, bits of its key".
std::string agreedOn(const char* suite, const char* group) {
    PeerOptions options = peerOptions([&](SSL_CTX* context) {
        useRsa(context);
        EXPECT_EQ(SSL_CTX_set_cipher_list(context, suite), 1);
        if (std::string_view(group).starts_with("ffdhe")) {
            useGroup(context, group);
        } else {
            EXPECT_EQ(SSL_CTX_set1_groups_list(context, group), 1);
        }
    });
    options.onlyTls12 = true;
    TlsPeer peer(options, 1, [](SSL* ssl) { h2test::readAll(ssl, 1); });
    const auto transport = connect(peer.port());
    if (transport == nullptr) return "nothing";
    SSL* ssl = static_cast<h2::TlsTransport&>(*transport).m_ssl;
    EVP_PKEY* key = nullptr;
    EXPECT_EQ(SSL_get_peer_tmp_key(ssl, &key), 1);
    const std::string bits = std::to_string(EVP_PKEY_get_bits(key));
    EVP_PKEY_free(key);
    return SSL_get_cipher_name(ssl) + std::string(", ") + bits;
}

TEST(TlsAgreement, HasTheMandatorySuiteWithP256) {
    EXPECT_EQ(agreedOn("ECDHE-RSA-AES128-GCM-SHA256", "P-256"), "ECDHE-RSA-AES128-GCM-SHA256, 256");
}

TEST(TlsAgreement, TakesDiffieHellmanOf2048To4096Bits) {
    const std::string suite = "DHE-RSA-AES128-GCM-SHA256";
    EXPECT_EQ(agreedOn(suite.c_str(), "ffdhe2048"), suite + ", 2048");
    EXPECT_EQ(agreedOn(suite.c_str(), "ffdhe3072"), suite + ", 3072");
    EXPECT_EQ(agreedOn(suite.c_str(), "ffdhe4096"), suite + ", 4096");
}

TEST(TlsRenegotiation, IsRefusedAndEndsTheConnection) {
    int reason = 0;
    {
        PeerOptions options = peerOptions([](SSL_CTX*) {});
        options.onlyTls12 = true;
        TlsPeer peer(options, 1, [&](SSL* ssl) {
            EXPECT_EQ(SSL_renegotiate(ssl), 1);
            EXPECT_EQ(SSL_do_handshake(ssl), 1);  // sends HelloRequest
            EXPECT_EQ(h2test::readAll(ssl, 1), "");
            reason = ERR_GET_REASON(ERR_peek_last_error());
        });
        const auto transport = connect(peer.port());
        ASSERT_NE(transport, nullptr);
        h2::IoStatus status = h2::IoStatus::kAgain;
        while (status == h2::IoStatus::kAgain) {
            pollfd ready{transport->descriptor(), POLLIN, 0};
            ASSERT_EQ(poll(&ready, 1, kLimit), 1);
            char byte;
            status = transport->read(&byte, 1).status;
        }
        EXPECT_EQ(status, h2::IoStatus::kFailed);
        EXPECT_EQ(SSL_total_renegotiations(static_cast<h2::TlsTransport&>(*transport).m_ssl), 0);
    }
    EXPECT_EQ(reason, SSL_R_NO_RENEGOTIATION);
}

}  // namespace
