// What a hostile server may do inside TLS.
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Http2ClientStandard/transport/dialer.h"
#include "Http2ClientStandard/transport/tls_transport.h"
#include "tests/standard/tls_peer.h"
#include "tests/support/tls_context.h"

namespace {

using h2test::PeerOptions;
using h2test::TlsPeer;

constexpr h2::Time kLimit = 30000;  // milliseconds; a busy machine must not fail a test

class TlsAttack : public testing::Test {
protected:
    // Connects without verifying; null: `m_error` has why.
    std::unique_ptr<h2::Transport> connect(uint16_t port) {
        h2::TlsOptions options;
        options.verify = false;
        m_context = h2::TlsContext::create(options, m_error);
        h2::Dialer dialer("localhost", port, h2::resolve("127.0.0.1", port).addresses, m_context,
                          h2::steadyNow() + kLimit);
        while (dialer.advance(h2::steadyNow()) == h2::Dialer::State::kGoingOn) {
            pollfd ready{dialer.descriptor(),
                         static_cast<short>(dialer.wantsWrite() ? POLLOUT : POLLIN), 0};
            poll(&ready, 1, kLimit);
        }
        m_error = dialer.error();
        return dialer.takeTransport();
    }
    static PeerOptions peerOptions() {
        PeerOptions options;
        options.certificate = h2test::sharedCertificate();
        return options;
    }
    // Reads `size` bytes; fewer when the connection ends before.
    static std::string readSome(h2::Transport& transport, size_t size) {
        std::string bytes;
        while (bytes.size() < size) {
            char room[4096];
            const h2::IoResult result = transport.read(room, sizeof room);
            bytes.append(room, result.bytes);
            if (result.status == h2::IoStatus::kClosed || result.status == h2::IoStatus::kFailed) {
                break;
            }
            if (result.status != h2::IoStatus::kAgain) continue;
            pollfd ready{transport.descriptor(), POLLIN, 0};
            if (poll(&ready, 1, kLimit) != 1) break;
        }
        return bytes;
    }

    std::shared_ptr<h2::TlsContext> m_context;
    std::string m_error;
};

TEST_F(TlsAttack, TicketsWithoutEndAreKeptOneAtATime) {
    TlsPeer peer(peerOptions(), 1, [](SSL* ssl) {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(SSL_new_session_ticket(ssl), 1);
            h2test::writeAll(ssl, "t");
        }
        h2test::readAll(ssl, 1);
    });
    const auto transport = connect(peer.port());
    ASSERT_NE(transport, nullptr) << m_error;
    EXPECT_EQ(readSome(*transport, 1000), std::string(1000, 't'));
    EXPECT_EQ(m_context->m_sessions.size(), 1u);
}

// Each asks for an answer, and the server reads none: the answers that wait are bounded, and then
// the connection fails. (It would be ready for reading for ever otherwise.)
TEST_F(TlsAttack, KeyUpdatesWithoutEndEndTheConnection) {
    std::atomic<bool> over{false};
    TlsPeer peer(peerOptions(), 1, [&over](SSL* ssl) {
        while (!over && SSL_key_update(ssl, SSL_KEY_UPDATE_REQUESTED) == 1) {
            h2test::writeAll(ssl, "k");
        }
    });
    const auto transport = connect(peer.port());
    ASSERT_NE(transport, nullptr) << m_error;
    const int small = 4096;
    ASSERT_EQ(setsockopt(transport->descriptor(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    auto& tls = static_cast<h2::TlsTransport&>(*transport);
    size_t most = 0;
    size_t read = 0;
    for (std::string part = "k"; !part.empty() && read < 1'000'000;) {
        part = readSome(*transport, 1);
        read += part.size();
        most = std::max(most, tls.m_out.capacity());
    }
    over = true;
    EXPECT_EQ(transport->error(), "the server asks for TLS answers that it does not read");
    EXPECT_GT(read, 1000u);
    EXPECT_LE(most, size_t{2} << 20);
    transport->endWriting();
    EXPECT_EQ(shutdown(transport->descriptor(), SHUT_RDWR), 0);  // ends the peer's write
}

TEST_F(TlsAttack, HugeChainEndsTheHandshake) {
    PeerOptions options = peerOptions();
    options.prepare = [](SSL_CTX* context) {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(SSL_CTX_add1_chain_cert(context, SSL_CTX_get0_certificate(context)), 1);
        }
    };
    TlsPeer peer(options, 1, [](SSL*) {});
    EXPECT_EQ(connect(peer.port()), nullptr);
    EXPECT_THAT(m_error, testing::HasSubstr("excessive message size"));
}

TEST_F(TlsAttack, RecordsOfOneByteAreRead) {
    std::string bytes;
    for (int i = 0; i < 5000; ++i) bytes += static_cast<char>(i * 31);
    TlsPeer peer(peerOptions(), 1, [&](SSL* ssl) {
        for (const char& byte : bytes) h2test::writeAll(ssl, {&byte, 1});
        h2test::readAll(ssl, 1);
    });
    const auto transport = connect(peer.port());
    ASSERT_NE(transport, nullptr) << m_error;
    EXPECT_EQ(readSome(*transport, bytes.size()), bytes);
}

}  // namespace
