#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <numeric>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Http2ClientStandard/transport/address.h"
#include "Http2ClientStandard/transport/dialer.h"
#include "Http2ClientStandard/transport/plain_transport.h"
#include "Http2ClientStandard/transport/tls_transport.h"
#include "tests/standard/tls_peer.h"
#include "tests/support/temp.h"
#include "tests/support/tls_context.h"

namespace {

using h2::Dialer;
using h2::IoStatus;
using h2::Transport;
using h2test::Listener;
using h2test::PeerOptions;
using h2test::TlsPeer;
using testing::HasSubstr;

constexpr h2::Time kLimit = 30000;  // milliseconds; a busy machine must not fail a test

std::string pattern(size_t size) {
    std::string bytes(size, '\0');
    uint32_t state = 1;
    for (char& byte : bytes) byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
}

void waitReady(const Transport& transport) {
    pollfd ready{transport.descriptor(),
                 static_cast<short>(transport.wantsWrite() ? POLLIN | POLLOUT : POLLIN), 0};
    ASSERT_EQ(poll(&ready, 1, kLimit), 1) << "nothing came";
}

// Reads until `size` bytes are there or the connection has ended; the last status is in `status`.
std::string readSome(Transport& transport, size_t size, IoStatus& status) {
    std::string bytes;
    std::vector<char> room(size_t{64} * 1024);
    while (bytes.size() < size) {
        const h2::IoResult result = transport.read(room.data(), room.size());
        status = result.status;
        bytes.append(room.data(), result.bytes);
        if (status == IoStatus::kClosed || status == IoStatus::kFailed) break;
        if (status == IoStatus::kAgain) waitReady(transport);
        if (testing::Test::HasFatalFailure()) break;
    }
    return bytes;
}

// Writes everything, as segments of growing odd sizes.
void writeWhole(Transport& transport, std::string_view bytes) {
    while (!bytes.empty()) {
        std::vector<iovec> segments;
        size_t at = 0;
        for (size_t size = 1; at < bytes.size() && segments.size() < 3000;
             size = size * 3 % 70001) {
            const size_t part = std::min(size, bytes.size() - at);
            segments.push_back({const_cast<char*>(bytes.data()) + at, part});
            at += part;
        }
        const h2::IoResult result = transport.write(segments);
        ASSERT_NE(result.status, IoStatus::kFailed) << transport.error();
        bytes.remove_prefix(result.bytes);
        if (!bytes.empty()) waitReady(transport);
    }
    while (transport.flush().status == IoStatus::kAgain) waitReady(transport);
}

struct Pair {
    Pair() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        transport = std::make_unique<h2::PlainTransport>(h2::Socket(ends[0]));
        peer = h2::Socket(ends[1]);
    }
    std::unique_ptr<h2::PlainTransport> transport;
    h2::Socket peer;
};

TEST(PlainTransport, ReadsWhatIsThereThenNothingThenTheEnd) {
    Pair pair;
    char room[8];
    EXPECT_EQ(pair.transport->handshake().status, IoStatus::kDone);
    EXPECT_EQ(pair.transport->read(room, sizeof room).status, IoStatus::kAgain);
    ASSERT_EQ(write(pair.peer.get(), "abc", 3), 3);
    const h2::IoResult result = pair.transport->read(room, sizeof room);
    EXPECT_EQ(result.status, IoStatus::kDone);
    EXPECT_EQ(std::string(room, result.bytes), "abc");
    pair.peer.close();
    EXPECT_EQ(pair.transport->read(room, sizeof room).status, IoStatus::kClosed);
}

TEST(PlainTransport, WritesManySegmentsInTheirOrder) {
    Pair pair;
    const std::string bytes = pattern(20000);
    std::vector<iovec> segments;  // more than one sendmsg takes
    for (size_t at = 0; at < bytes.size(); at += 5) {
        segments.push_back({const_cast<char*>(bytes.data()) + at, 5});
    }
    const h2::IoResult result = pair.transport->write(segments);
    EXPECT_EQ(result.status, IoStatus::kDone);
    EXPECT_EQ(result.bytes, bytes.size());
    std::string got(bytes.size(), '\0');
    EXPECT_EQ(recv(pair.peer.get(), got.data(), got.size(), MSG_WAITALL),
              static_cast<ssize_t>(got.size()));
    EXPECT_EQ(got, bytes);
    EXPECT_FALSE(pair.transport->wantsWrite());
}

TEST(PlainTransport, TakesAPartWhenTheSocketIsFullAndGoesOnLater) {
    Pair pair;
    const std::string bytes = pattern(size_t{4} << 20);
    iovec segment{const_cast<char*>(bytes.data()), bytes.size()};
    const h2::IoResult first = pair.transport->write({&segment, 1});
    EXPECT_EQ(first.status, IoStatus::kDone);
    EXPECT_LT(first.bytes, bytes.size());
    EXPECT_TRUE(pair.transport->wantsWrite());
    EXPECT_EQ(pair.transport->write({&segment, 1}).status, IoStatus::kAgain);
    std::string got;
    std::vector<char> room(100000);
    size_t sent = first.bytes;
    while (got.size() < bytes.size()) {
        const ssize_t part = recv(pair.peer.get(), room.data(), room.size(), 0);
        ASSERT_GT(part, 0);
        got.append(room.data(), static_cast<size_t>(part));
        if (sent == bytes.size()) continue;
        iovec rest{const_cast<char*>(bytes.data()) + sent, bytes.size() - sent};
        sent += pair.transport->write({&rest, 1}).bytes;
    }
    EXPECT_EQ(got, bytes);
}

TEST(PlainTransport, FailsWithoutASignalWhenThePeerIsGone) {
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);  // it would end this process
    Pair pair;
    ASSERT_EQ(write(pair.peer.get(), "tail", 4), 4);
    pair.peer.close();
    iovec segment{const_cast<char*>("x"), 1};
    EXPECT_EQ(pair.transport->write({&segment, 1}).status, IoStatus::kFailed);
    EXPECT_NE(pair.transport->error(), "");
    char room[8];
    EXPECT_EQ(pair.transport->read(room, sizeof room).bytes, 4U);  // still to be read
}

TEST(Address, TellsAddressesFromNames) {
    EXPECT_TRUE(h2::isAddressText("192.0.2.1"));
    EXPECT_TRUE(h2::isAddressText("2001:db8::1"));
    EXPECT_FALSE(h2::isAddressText("localhost"));
    EXPECT_FALSE(h2::isAddressText("1.2.3"));
    EXPECT_FALSE(h2::isAddressText(""));
}

TEST(Address, ResolvesAddressesAndNames) {
    for (const char* host : {"127.0.0.1", "::1"}) {
        const h2::Resolution found = h2::resolve(host, 80);
        ASSERT_EQ(found.addresses.size(), 1U);
        EXPECT_EQ(found.addresses[0].text(), host);
    }
    EXPECT_FALSE(h2::resolve("localhost", 80).addresses.empty());
}

TEST(Address, SaysWhyANameHasNoAddress) {
    const h2::Resolution none = h2::resolve("no-such-host.invalid", 80);
    EXPECT_TRUE(none.addresses.empty());
    EXPECT_THAT(none.error, HasSubstr("cannot find host no-such-host.invalid: "));
    EXPECT_EQ(h2::resolve("", 80).error, "no host name given");
    EXPECT_EQ(h2::resolve(std::string("127.0.0.1\0x", 11), 80).error, "no host name given");
}

// Dials and waits until it is over.
std::unique_ptr<Transport> dial(Dialer& dialer) {
    while (true) {
        const h2::Time now = h2::steadyNow();
        switch (dialer.advance(now)) {
            case Dialer::State::kConnected: return dialer.takeTransport();
            case Dialer::State::kFailed: return nullptr;
            case Dialer::State::kGoingOn: break;
        }
        pollfd ready{dialer.descriptor(),
                     static_cast<short>(dialer.wantsWrite() ? POLLOUT : POLLIN), 0};
        const h2::Time deadline = dialer.nextDeadline();
        poll(&ready, 1, deadline > now ? static_cast<int>(deadline - now) : 0);
    }
}

std::vector<h2::Address> at(const char* ip, uint16_t port) {
    return h2::resolve(ip, port).addresses;
}

TEST(Dialer, ConnectsToTheFirstAddressThatAccepts) {
    const Listener listener;
    std::vector<h2::Address> addresses = at("::1", listener.port());  // nobody listens there
    const std::vector<h2::Address> second = at("127.0.0.1", listener.port());
    addresses.insert(addresses.end(), second.begin(), second.end());
    Dialer dialer("localhost", listener.port(), addresses, nullptr, h2::steadyNow() + kLimit);
    ASSERT_NE(dial(dialer), nullptr) << dialer.error();
    EXPECT_EQ(dialer.peer(), "127.0.0.1");
    EXPECT_NE(dialer.tcpConnectedAt(), 0U);
}

TEST(Dialer, SaysWhyNoAddressAccepts) {
    uint16_t port = 0;
    { port = Listener().port(); }
    Dialer dialer("127.0.0.1", port, at("127.0.0.1", port), nullptr, h2::steadyNow() + kLimit);
    EXPECT_EQ(dial(dialer), nullptr);
    EXPECT_EQ(dialer.error(), "cannot connect: Connection refused");
    EXPECT_EQ(dialer.advance(0), Dialer::State::kFailed);
}

TEST(Dialer, GivesAnAddressThatNeverAnswersAShareOfTheTime) {
    const Listener silent("127.0.0.1", 0);
    // Its queue holds one connection; further ones are not answered.
    std::string error;
    const h2::Socket filler1 = h2::startConnect(at("127.0.0.1", silent.port())[0], error);
    const h2::Socket filler2 = h2::startConnect(at("127.0.0.1", silent.port())[0], error);
    const Listener listener("127.0.0.1");
    std::vector<h2::Address> addresses = at("127.0.0.1", silent.port());
    addresses.push_back(at("127.0.0.1", listener.port())[0]);
    Dialer dialer("127.0.0.1", listener.port(), addresses, nullptr, 1000);
    EXPECT_EQ(dialer.advance(0), Dialer::State::kGoingOn);
    EXPECT_EQ(dialer.nextDeadline(), 500U);
    EXPECT_EQ(dialer.advance(499), Dialer::State::kGoingOn);
    EXPECT_EQ(dialer.advance(500), Dialer::State::kGoingOn);  // on to the second
    EXPECT_EQ(dialer.nextDeadline(), 1000U);
    Dialer alone("127.0.0.1", silent.port(), at("127.0.0.1", silent.port()), nullptr, 1000);
    EXPECT_EQ(alone.advance(0), Dialer::State::kGoingOn);
    EXPECT_EQ(alone.advance(1000), Dialer::State::kFailed);
    EXPECT_EQ(alone.error(), "cannot connect: no answer within the connect time-out");
}

class Tls : public testing::Test {
protected:
    static PeerOptions peerOptions() { return {h2test::sharedCertificate(), false, "h2", false}; }

    // Trusts exactly the peer's certificate.
    h2::TlsOptions trusting() {
        h2::TlsOptions options;
        options.caFile = m_folder.write("ca.pem", h2test::sharedCertificate().certificate);
        return options;
    }
    static std::shared_ptr<h2::TlsContext> context(const h2::TlsOptions& options) {
        std::string error;
        auto made = h2::TlsContext::create(options, error);
        EXPECT_NE(made, nullptr) << error;
        return made;
    }
    // Connects to the peer; null: `m_error` has why.
    std::unique_ptr<Transport> connect(uint16_t port, std::shared_ptr<h2::TlsContext> tls,
                                       const std::string& host = "localhost") {
        Dialer dialer(host, port, at("127.0.0.1", port), std::move(tls), h2::steadyNow() + kLimit);
        auto transport = dial(dialer);
        m_error = dialer.error();
        return transport;
    }

    h2test::TempDir m_folder;
    std::string m_error;
};

class TlsVersions : public Tls, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Each, TlsVersions, testing::Bool());

TEST_P(TlsVersions, CarriesBytesBothWaysAndTellsTheOrderlyEnd) {
    PeerOptions options = peerOptions();
    options.onlyTls12 = GetParam();
    const std::string bytes = pattern(3000000);
    TlsPeer peer(options, 1, [&](SSL* ssl) {
        EXPECT_EQ(h2test::readAll(ssl, bytes.size()), bytes);
        h2test::writeAll(ssl, bytes);
        SSL_shutdown(ssl);
    });
    const auto transport = connect(peer.port(), context(trusting()));
    ASSERT_NE(transport, nullptr) << m_error;
    EXPECT_EQ(static_cast<h2::TlsTransport&>(*transport).version(),
              GetParam() ? "TLSv1.2" : "TLSv1.3");
    writeWhole(*transport, bytes);
    IoStatus status{};
    EXPECT_EQ(readSome(*transport, bytes.size() + 1, status), bytes);
    EXPECT_EQ(status, IoStatus::kClosed);
}

TEST_F(Tls, TellsATruncatedStreamFromAnOrderlyEnd) {
    TlsPeer peer(peerOptions(), 1, [](SSL* ssl) { h2test::writeAll(ssl, "part"); });
    const auto transport = connect(peer.port(), context(trusting()));
    ASSERT_NE(transport, nullptr) << m_error;
    IoStatus status{};
    EXPECT_EQ(readSome(*transport, 5, status), "part");
    EXPECT_EQ(status, IoStatus::kFailed);
    EXPECT_EQ(transport->error(), "the server ended the connection without TLS's close_notify");
}

TEST_F(Tls, SaysGoodbye) {
    std::string got = "nothing";
    {
        TlsPeer peer(peerOptions(), 1, [&](SSL* ssl) {
            got = h2test::readAll(ssl, 1);
            if ((SSL_get_shutdown(ssl) & SSL_RECEIVED_SHUTDOWN) != 0) got = "close_notify";
        });
        EXPECT_NE(connect(peer.port(), context(trusting())), nullptr) << m_error;
    }
    EXPECT_EQ(got, "close_notify");
}

TEST_F(Tls, RefusesACertificateOfAnotherName) {
    TlsPeer peer(peerOptions(), 2, [](SSL*) {});
    EXPECT_EQ(connect(peer.port(), context(trusting()), "example.org"), nullptr);
    EXPECT_EQ(m_error, "the server's certificate is not accepted: hostname mismatch");
    EXPECT_EQ(connect(peer.port(), context(trusting()), "127.0.0.2"), nullptr);
    EXPECT_EQ(m_error, "the server's certificate is not accepted: IP address mismatch");
}

TEST_F(Tls, AcceptsTheNameOrAddressOfTheCertificate) {
    TlsPeer peer(peerOptions(), 2, [](SSL*) {});
    EXPECT_NE(connect(peer.port(), context(trusting()), "127.0.0.1"), nullptr) << m_error;
    h2::TlsOptions options = trusting();
    options.serverName = "localhost";
    EXPECT_NE(connect(peer.port(), context(options), "192.0.2.1"), nullptr) << m_error;
}

TEST_F(Tls, RefusesAnUnknownIssuerUnlessVerificationIsOff) {
    TlsPeer peer(peerOptions(), 2, [](SSL*) {});
    EXPECT_EQ(connect(peer.port(), context({})), nullptr);
    EXPECT_THAT(m_error, HasSubstr("the server's certificate is not accepted: self-signed"));
    h2::TlsOptions options;
    options.verify = false;
    EXPECT_NE(connect(peer.port(), context(options)), nullptr) << m_error;
}

TEST_F(Tls, RefusesAnExpiredCertificate) {
    PeerOptions peerWith = peerOptions();
    peerWith.certificate = h2test::makeExpiredCertificate();
    TlsPeer peer(peerWith, 1, [](SSL*) {});
    h2::TlsOptions options;
    options.caFile = m_folder.write("expired.pem", peerWith.certificate.certificate);
    EXPECT_EQ(connect(peer.port(), context(options)), nullptr);
    EXPECT_EQ(m_error, "the server's certificate is not accepted: certificate has expired");
}

TEST_F(Tls, RefusesAServerThatDoesNotChooseH2) {
    for (const auto& [chosen, error] :
         {std::pair("", "the server does not offer HTTP/2 (it did not choose \"h2\" by ALPN)"),
          std::pair("http/1.1", "TLS handshake: bad extension")}) {  // it was not offered
        PeerOptions options = peerOptions();
        options.alpn = chosen;
        TlsPeer peer(options, 1, [](SSL*) {});
        EXPECT_EQ(connect(peer.port(), context(trusting())), nullptr);
        EXPECT_EQ(m_error, error);
    }
    PeerOptions options = peerOptions();
    options.refuseAlpn = true;
    TlsPeer peer(options, 1, [](SSL*) {});
    EXPECT_EQ(connect(peer.port(), context(trusting())), nullptr);
    EXPECT_EQ(m_error, "the server does not offer HTTP/2 (it refused \"h2\" by ALPN)");
}

TEST_F(Tls, RefusesAServerThatDoesNotSpeakTls) {
    const Listener listener;
    std::thread server([&] {
        const int descriptor = listener.accept();
        const std::string text = "HTTP/1.1 400 Bad Request\r\n\r\n";
        EXPECT_EQ(send(descriptor, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
        char room[4096];
        while (recv(descriptor, room, sizeof room, 0) > 0) {
        }
        close(descriptor);
    });
    EXPECT_EQ(connect(listener.port(), context(trusting())), nullptr);
    EXPECT_EQ(m_error, "the server does not speak TLS");
    server.join();
}

TEST_F(Tls, ReportsAHandshakeThatTakesTooLong) {
    const Listener listener;  // accepts by its queue, and says nothing
    Dialer dialer("localhost", listener.port(), at("127.0.0.1", listener.port()),
                  context(trusting()), 1000);
    Dialer::State state = dialer.advance(0);
    for (int i = 0; i < 1000 && dialer.tcpConnectedAt() == 0; ++i) {
        pollfd ready{dialer.descriptor(), POLLOUT, 0};
        poll(&ready, 1, 100);
        state = dialer.advance(10);
    }
    EXPECT_EQ(state, Dialer::State::kGoingOn);
    EXPECT_EQ(dialer.advance(1000), Dialer::State::kFailed);
    EXPECT_EQ(dialer.error(), "no TLS handshake within the connect time-out");
}

TEST_P(TlsVersions, ResumesASession) {
    PeerOptions options = peerOptions();
    options.onlyTls12 = GetParam();
    TlsPeer peer(options, 3, [](SSL* ssl) {
        h2test::writeAll(ssl, "x");
        h2test::readAll(ssl, 1);
    });
    const auto tls = context(trusting());
    const auto visit = [&](const std::string& host) {
        const auto transport = connect(peer.port(), tls, host);
        EXPECT_NE(transport, nullptr) << m_error;
        IoStatus status{};
        if (transport) {
            EXPECT_EQ(readSome(*transport, 1, status), "x");
        }
        return transport && static_cast<h2::TlsTransport&>(*transport).resumed();
    };
    EXPECT_FALSE(visit("localhost"));
    EXPECT_TRUE(visit("localhost"));
    EXPECT_FALSE(visit("127.0.0.1"));  // another server, for all that is known
}

// Such a server has often just been restarted or runs out of patience with idle connections.
TEST_P(TlsVersions, ResumesASessionWhoseConnectionBrokeOff) {
    PeerOptions options = peerOptions();
    options.onlyTls12 = GetParam();
    TlsPeer peer(options, 3, [](SSL* ssl) { h2test::writeAll(ssl, "x"); });
    const auto tls = context(trusting());
    for (const bool resumed : {false, true, true}) {
        const auto transport = connect(peer.port(), tls);
        ASSERT_NE(transport, nullptr) << m_error;
        EXPECT_EQ(static_cast<h2::TlsTransport&>(*transport).resumed(), resumed);
        IoStatus status{};
        EXPECT_EQ(readSome(*transport, 2, status), "x");
        EXPECT_EQ(status, IoStatus::kFailed);
    }
}

TEST_F(Tls, SendsTheServersNameButNoAddress) {
    std::vector<std::string> names;
    {
        TlsPeer peer(peerOptions(), 2, [&](SSL* ssl) {
            const char* name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
            names.emplace_back(name == nullptr ? "none" : name);
        });
        EXPECT_NE(connect(peer.port(), context(trusting()), "localhost"), nullptr) << m_error;
        EXPECT_NE(connect(peer.port(), context(trusting()), "127.0.0.1"), nullptr) << m_error;
    }
    EXPECT_THAT(names, testing::ElementsAre("localhost", "none"));
}

// RFC 8446, 4.6.3.
TEST_F(Tls, AnswersKeyUpdates) {
    TlsPeer peer(peerOptions(), 1, [](SSL* ssl) {
        for (int i = 0; i < 100; ++i) {
            SSL_key_update(ssl, SSL_KEY_UPDATE_REQUESTED);
            h2test::writeAll(ssl, "k");
        }
        EXPECT_EQ(h2test::readAll(ssl, 4), "done");
    });
    const auto transport = connect(peer.port(), context(trusting()));
    ASSERT_NE(transport, nullptr) << m_error;
    IoStatus status{};
    EXPECT_EQ(readSome(*transport, 100, status), std::string(100, 'k'));
    writeWhole(*transport, "done");
}

TEST_F(Tls, WritesKeysWhereSslkeylogfileSays) {
    const std::string file = m_folder.path() + "/keys";
    ASSERT_EQ(setenv("SSLKEYLOGFILE", file.c_str(), 1), 0);
    TlsPeer peer(peerOptions(), 1, [](SSL*) {});
    EXPECT_NE(connect(peer.port(), context(trusting())), nullptr) << m_error;
    unsetenv("SSLKEYLOGFILE");
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    EXPECT_THAT(text.str(), HasSubstr("CLIENT_TRAFFIC_SECRET_0 "));
}

TEST_F(Tls, NamesTheFileThatCannotBeLoaded) {
    std::string error;
    h2::TlsOptions options;
    options.caFile = m_folder.path() + "/none.pem";
    EXPECT_EQ(h2::TlsContext::create(options, error), nullptr);
    EXPECT_EQ(error, "cannot load CA file " + options.caFile + ": No such file or directory");
    h2::TlsOptions own = trusting();
    own.certificateFile = m_folder.path() + "/own.pem";
    EXPECT_EQ(h2::TlsContext::create(own, error), nullptr);
    EXPECT_EQ(error,
              "cannot load certificate " + own.certificateFile + ": No such file or directory");
}

TEST_F(Tls, ShowsItsOwnCertificate) {
    h2::TlsOptions options = trusting();
    options.certificateFile = m_folder.write("own.pem", h2test::makeCertificate().combined());
    PeerOptions peerWith = peerOptions();
    peerWith.wantCertificate = true;
    int shown = 0;
    {
        TlsPeer peer(peerWith, 1, [&](SSL* ssl) {
            if (SSL_get0_peer_certificate(ssl) != nullptr) ++shown;
        });
        EXPECT_NE(connect(peer.port(), context(options)), nullptr) << m_error;
    }
    EXPECT_EQ(shown, 1);
}

}  // namespace
