// Options: what each of them changes, and what a client can be asked.
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/standard/tls_peer.h"
#include "tests/standard/wire/wire_support.h"

namespace {

using namespace h2test;

std::string errorText(tiny::HttpClientInterface& client) {
    return getHttp2Text(&client, HTTP2_ERROR);
}

void setOption(tiny::HttpClientInterface& client, HTTP2_OPTION option, int64_t value) {
    EXPECT_EQ(setHttp2Option(&client, option, value), 0) << option;
}
void setOption(tiny::HttpClientInterface& client, HTTP2_TEXT_OPTION option,
               const std::string& text) {
    EXPECT_EQ(setHttp2TextOption(&client, option, text.c_str()), 0) << option;
}

std::string certificateText(X509* certificate) {
    if (certificate == nullptr) return "none";
    BIO* const memory = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(memory, certificate);
    char* text = nullptr;
    const long size = BIO_get_mem_data(memory, &text);
    std::string out(text, static_cast<size_t>(size));
    BIO_free(memory);
    return out;
}

// TLS peers whose certificate is trusted by `trust()`.
class TlsOptions : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        m_caFile = m_directory.write("ca.pem", sharedCertificate().certificate);
    }
    // For a client that shares no connection, so that each connects anew.
    void trust(tiny::HttpClientInterface& client) const {
        setOption(client, HTTP2_CA_FILE, m_caFile);
        setOption(client, HTTP2_OWN_CONNECTION, 1);
    }
    static PeerOptions peerOptions() {
        PeerOptions options;
        options.certificate = sharedCertificate();
        return options;
    }
    static Http2Options serverOptions() {
        Http2Options options;
        options.server.tls = true;
        options.reply = answerAll();
        return options;
    }
    static int connect(tiny::HttpClientInterface& client, uint16_t port) {
        return client.connectToServer(HTTPS_2, "127.0.0.1", port);
    }

    TempDir m_directory;
    std::string m_caFile;
};

TEST_F(TlsOptions, CertificateFileAndKeyFileAreShownToTheServer) {
    const Certificate own = makeCertificate();
    PeerOptions options = peerOptions();
    options.wantCertificate = true;
    std::vector<std::string> shown;
    {
        TlsPeer peer(options, 2, [&](SSL* ssl) {
            shown.push_back(certificateText(SSL_get0_peer_certificate(ssl)));
            readAll(ssl, kPreface.size());
        });
        RecordingClient both, apart;
        trust(both);
        setOption(both, HTTP2_CERTIFICATE_FILE, m_directory.write("both.pem", own.combined()));
        EXPECT_EQ(connect(both, peer.port()), 0) << errorText(both);
        trust(apart);
        setOption(apart, HTTP2_CERTIFICATE_FILE, m_directory.write("own.pem", own.certificate));
        setOption(apart, HTTP2_KEY_FILE, m_directory.write("key.pem", own.key));
        EXPECT_EQ(connect(apart, peer.port()), 0) << errorText(apart);
    }
    EXPECT_EQ(shown, (std::vector<std::string>{own.certificate, own.certificate}));
}

TEST_F(TlsOptions, ServerThatWantsACertificateRefusesAClientWithoutOne) {
    PeerOptions options = peerOptions();
    options.wantCertificate = true;
    options.onlyTls12 = true;  // with TLS 1.3 the client's handshake ends before the refusal
    TlsPeer peer(options, 1, [](SSL*) { ADD_FAILURE(); });
    RecordingClient client;
    trust(client);
    EXPECT_EQ(connect(client, peer.port()), 4);
    EXPECT_THAT(errorText(client),
                testing::MatchesRegex("TLS handshake: .*alert handshake fail.*"));
}

TEST_F(TlsOptions, FileThatCannotBeUsedIsNamed) {
    const Certificate own = makeCertificate(), other = makeCertificate();
    const std::string certificate = m_directory.write("own.pem", own.certificate);
    const std::string wrongKey = m_directory.write("wrong.pem", other.key);
    const RefusingPort port;
    RecordingClient client;
    trust(client);
    setOption(client, HTTP2_CERTIFICATE_FILE, certificate);
    setOption(client, HTTP2_KEY_FILE, wrongKey);
    EXPECT_EQ(connect(client, port.port()), 4);
    EXPECT_THAT(errorText(client), testing::StartsWith("cannot use key " + wrongKey + ": "));
    setOption(client, HTTP2_CERTIFICATE_FILE, "/no/such/file");
    EXPECT_EQ(connect(client, port.port()), 4);
    EXPECT_THAT(errorText(client), testing::StartsWith("cannot load certificate /no/such/file: "));
    setOption(client, HTTP2_CA_FILE, "/no/such/ca");
    EXPECT_EQ(connect(client, port.port()), 4);
    EXPECT_THAT(errorText(client), testing::StartsWith("cannot load CA file /no/such/ca: "));
}

TEST_F(TlsOptions, CaDirectoryIsTrusted) {
    Http2Server server(serverOptions());
    BIO* const text = BIO_new_mem_buf(sharedCertificate().certificate.data(), -1);
    X509* const certificate = PEM_read_bio_X509(text, nullptr, nullptr, nullptr);
    char name[16];
    snprintf(name, sizeof name, "%08lx.0", X509_subject_name_hash(certificate));
    X509_free(certificate);
    BIO_free(text);
    m_directory.write(name, sharedCertificate().certificate);
    RecordingClient client;
    setOption(client, HTTP2_CA_DIRECTORY, m_directory.path());
    EXPECT_EQ(connect(client, server.port()), 0) << errorText(client);
    const TempDir empty;
    RecordingClient other;
    setOption(other, HTTP2_CA_DIRECTORY, empty.path());
    EXPECT_EQ(connect(other, server.port()), 4);
}

TEST_F(TlsOptions, ServerNameIsTheOneThatCounts) {
    Http2Server server(serverOptions());
    RecordingClient client;
    trust(client);
    setOption(client, HTTP2_SERVER_NAME, "localhost");
    EXPECT_EQ(connect(client, server.port()), 0) << errorText(client);
    setOption(client, HTTP2_SERVER_NAME, "127.0.0.2");
    EXPECT_EQ(connect(client, server.port()), 4);
    EXPECT_EQ(errorText(client), "the server's certificate is not accepted: IP address mismatch");
    setOption(client, HTTP2_SERVER_NAME, "example.org");
    EXPECT_EQ(connect(client, server.port()), 4);
    EXPECT_EQ(errorText(client), "the server's certificate is not accepted: hostname mismatch");
}

TEST_F(TlsOptions, RuleThatACertificateBreaksIsNamed) {
    Http2Server unknown(serverOptions());
    RecordingClient client;  // without the CA file
    EXPECT_EQ(connect(client, unknown.port()), 4);
    EXPECT_THAT(errorText(client),
                testing::StartsWith("the server's certificate is not accepted: self-signed"));
    Http2Options options = serverOptions();
    options.server.certificate = makeExpiredCertificate();
    Http2Server expired(options);
    setOption(client, HTTP2_CA_FILE,
              m_directory.write("expired.pem", options.server.certificate->certificate));
    EXPECT_EQ(connect(client, expired.port()), 4);
    EXPECT_EQ(errorText(client),
              "the server's certificate is not accepted: certificate has expired");
}

TEST_F(TlsOptions, ServerWithoutHttp2IsNamed) {
    PeerOptions options = peerOptions();
    options.alpn = "";
    TlsPeer silent(options, 1, [](SSL*) {});
    RecordingClient client;
    trust(client);
    EXPECT_EQ(connect(client, silent.port()), 4);
    EXPECT_EQ(errorText(client),
              "the server does not offer HTTP/2 (it did not choose \"h2\" by ALPN)");
    options.refuseAlpn = true;
    TlsPeer refusing(options, 1, [](SSL*) {});
    EXPECT_EQ(connect(client, refusing.port()), 4);
    EXPECT_EQ(errorText(client), "the server does not offer HTTP/2 (it refused \"h2\" by ALPN)");
    ServerOptions plain;
    plain.greeting = settings({});
    ScriptedServer noTls(plain);
    EXPECT_EQ(connect(client, noTls.port()), 4);
    EXPECT_EQ(errorText(client), "the server does not speak TLS");
}

TEST_F(TlsOptions, MinimumVersion) {
    Http2Options options = serverOptions();
    options.server.onlyTls12 = true;
    Http2Server server(options);
    RecordingClient client;
    trust(client);
    setOption(client, HTTP2_MIN_TLS_VERSION, 13);
    EXPECT_EQ(connect(client, server.port()), 4);
    EXPECT_THAT(errorText(client), testing::HasSubstr("version"));
    setOption(client, HTTP2_MIN_TLS_VERSION, 12);
    EXPECT_EQ(connect(client, server.port()), 0) << errorText(client);
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_TLS_VERSION), "TLSv1.2");
}

TEST_F(TlsOptions, ClientsWithOtherOptionsShareNoConnection) {
    Http2Server server(serverOptions());
    RecordingClient first, same, other;
    setOption(first, HTTP2_CA_FILE, m_caFile);
    setOption(same, HTTP2_CA_FILE, m_caFile);
    setOption(other, HTTP2_CA_FILE, m_caFile);
    setOption(other, HTTP2_SERVER_NAME, "localhost");
    for (RecordingClient* client : {&first, &same, &other}) {
        ASSERT_EQ(connect(*client, server.port()), 0) << errorText(*client);
    }
    EXPECT_EQ(getHttp2Number(&same, HTTP2_SHARED), 1);
    EXPECT_EQ(getHttp2Number(&other, HTTP2_SHARED), 0);
}

// What a TLS peer must have seen before it may end: the client has read what was sent before.
void waitForPingAnswer(SSL* ssl) {
    writeAll(ssl, settings({}) + ping(77));
    std::string got;
    while (got.find(ping(77, kAck)) == std::string::npos) {
        const std::string byte = readAll(ssl, 1);
        ASSERT_FALSE(byte.empty()) << toHex(got);
        got += byte;
    }
}

TEST_F(TlsOptions, SessionsAreResumed) {
    for (const bool onlyTls12 : {false, true}) {
        PeerOptions options = peerOptions();
        options.onlyTls12 = onlyTls12;
        std::vector<bool> resumed;
        Counter served;
        {
            TlsPeer peer(options, 2, [&](SSL* ssl) {
                resumed.push_back(SSL_session_reused(ssl) == 1);
                waitForPingAnswer(ssl);
                served.add();
            });
            RecordingClient first, second;
            trust(first);
            trust(second);
            ASSERT_EQ(connect(first, peer.port()), 0) << errorText(first);
            ASSERT_TRUE(served.waitAtLeast(1));
            ASSERT_EQ(connect(second, peer.port()), 0) << errorText(second);
            ASSERT_TRUE(served.waitAtLeast(2));
        }
        EXPECT_EQ(resumed, (std::vector<bool>{false, true})) << onlyTls12;
    }
}

TEST_F(TlsOptions, KeysGoWhereSslkeylogfileSays) {
    Http2Server server(serverOptions());
    const std::string file = m_directory.path() + "/keys";
    RecordingClient unlogged, logged;
    trust(unlogged);
    trust(logged);
    ASSERT_EQ(connect(unlogged, server.port()), 0);
    ASSERT_EQ(setenv("SSLKEYLOGFILE", file.c_str(), 1), 0);
    EXPECT_EQ(connect(logged, server.port()), 0);
    unsetenv("SSLKEYLOGFILE");
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    for (const char* label : {"CLIENT_HANDSHAKE_TRAFFIC_SECRET ", "CLIENT_TRAFFIC_SECRET_0 "}) {
        const size_t at = text.str().find(label);
        ASSERT_NE(at, std::string::npos) << text.str();
        EXPECT_EQ(text.str().find(label, at + 1), std::string::npos) << "more than one connection";
    }
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

class Options : public LibraryTest {};

TEST_F(Options, WindowsAndHeaderLimitAreAnnounced) {
    Http2Server server(answerAll());
    RecordingClient client;
    setOption(client, HTTP2_OWN_CONNECTION, 1);
    setOption(client, HTTP2_STREAM_WINDOW, 100000);
    setOption(client, HTTP2_CONNECTION_WINDOW, 200000);
    setOption(client, HTTP2_MAX_HEADERS, 20000);
    prepareGet(client, server);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kWindowUpdate));
    EXPECT_EQ(server.wire().frames(0, kSettings)[0],
              parseFrames(settings({{2, 0}, {4, 100000}, {6, 20000}}))[0]);
    EXPECT_EQ(server.wire().frames(0, kWindowUpdate), parseFrames(windowUpdate(0, 200000 - 65535)));
}

TEST_F(Options, HeadersAboveTheLimitFailTheirRequest) {
    Http2Server server([](const Request& request) {
        const size_t size = request.field(":path") == "/small" ? 900 : 1100;
        return answerHead(request.stream, 200, hpackLiteral("n", std::string(size, 'v')),
                          kEndHeaders | kEndStream);
    });
    RecordingClient client;
    setOption(client, HTTP2_MAX_HEADERS, 1024);
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitFailed());
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::failed(ERR_FETAL)});
    constexpr uint32_t kEnhanceYourCalm = 11;
    ASSERT_TRUE(server.wire().waitFramesOf(0, kRstStream));
    EXPECT_EQ(server.wire().frames(0, kRstStream), parseFrames(rstStream(1, kEnhanceYourCalm)));
    client.clear();
    ASSERT_EQ(client.setUri("/small", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(server.wire().connections(), 1u);
}

TEST_F(Options, BackgroundThreadsShareTheConnections) {
    destroyHttp2Client();
    RecordingClient client;
    EXPECT_EQ(setHttp2Option(&client, HTTP2_BACKGROUND_THREADS, 3), -1);  // of the process
    ASSERT_EQ(setHttp2Option(nullptr, HTTP2_BACKGROUND_THREADS, 3), 0);
    initHttp2Client(5);
    Http2Server server(answerAll());
    std::set<std::thread::id> threads;
    std::vector<std::unique_ptr<RecordingClient>> clients;
    for (int i = 0; i < 6; ++i) {
        clients.push_back(std::make_unique<RecordingClient>());
        setOption(*clients.back(), HTTP2_OWN_CONNECTION, 1);
        prepareGet(*clients.back(), server);
        ASSERT_EQ(clients.back()->startRequest(nullptr), 0);
        ASSERT_TRUE(clients.back()->waitEnd());
        const std::set<std::thread::id> used = clients.back()->threads();
        EXPECT_EQ(used.size(), 1u);  // a connection has one thread
        threads.insert(used.begin(), used.end());
    }
    EXPECT_EQ(threads.size(), 3u);
    EXPECT_EQ(threads.count(std::this_thread::get_id()), 0u);
    setHttp2Option(nullptr, HTTP2_BACKGROUND_THREADS, 1);
}

TEST_F(Options, DefaultsAreThoseOfLaterClients) {
    Http2Server server(answerAll());
    RecordingClient before;
    ASSERT_EQ(setHttp2Option(nullptr, HTTP2_OWN_CONNECTION, 1), 0);
    RecordingClient first, second;
    ASSERT_EQ(setHttp2Option(nullptr, HTTP2_OWN_CONNECTION, 0), 0);
    for (RecordingClient* client : {&first, &second, &before}) prepareGet(*client, server);
    EXPECT_EQ(getHttp2Number(&second, HTTP2_SHARED), 0);
    RecordingClient after;
    prepareGet(after, server);
    EXPECT_EQ(getHttp2Number(&before, HTTP2_SHARED), 0);  // the first that shares
    EXPECT_EQ(getHttp2Number(&after, HTTP2_SHARED), 1);
}

TEST_F(Options, OwnConnectionEndsWithItsClient) {
    Http2Server server(answerAll());
    auto client = std::make_unique<RecordingClient>();
    setOption(*client, HTTP2_OWN_CONNECTION, 1);
    prepareGet(*client, server);
    ASSERT_EQ(client->startRequest(nullptr), 0);
    ASSERT_TRUE(client->waitEnd());
    client.reset();
    ASSERT_TRUE(server.wire().waitClosedByPeer(0));
    EXPECT_EQ(server.wire().frames(0, kGoaway), parseFrames(goaway(0, kNoErrorCode)));
}

TEST_F(Options, AreRefusedWhenUnknownOrOutOfRange) {
    RecordingClient client;
    for (tiny::HttpClientInterface* of : {static_cast<tiny::HttpClientInterface*>(&client),
                                          static_cast<tiny::HttpClientInterface*>(nullptr)}) {
        EXPECT_EQ(setHttp2Option(of, static_cast<HTTP2_OPTION>(0), 1), -1);
        EXPECT_EQ(setHttp2Option(of, HTTP2_VERIFY, 2), -1);
        EXPECT_EQ(setHttp2Option(of, HTTP2_MIN_TLS_VERSION, 11), -1);
        EXPECT_EQ(setHttp2Option(of, HTTP2_CONNECT_TIMEOUT, 0), -1);
        EXPECT_EQ(setHttp2Option(of, HTTP2_SILENCE_TIMEOUT, -1), -1);
        EXPECT_EQ(setHttp2TextOption(of, static_cast<HTTP2_TEXT_OPTION>(0), ""), -1);
        EXPECT_EQ(setHttp2TextOption(of, HTTP2_METHOD, "GET"), -1);  // not connected
    }
    EXPECT_EQ(setHttp2Option(nullptr, HTTP2_BACKGROUND_THREADS, 0), -1);
    EXPECT_EQ(setHttp2Option(nullptr, HTTP2_BACKGROUND_THREADS, 65), -1);
}

class Questions : public BothTest {};
INSTANTIATE_TEST_SUITE_P(Asking, Questions, testing::Bool(), protocolName);

constexpr HTTP2_NUMBER kNumbers[] = {HTTP2_SHARED,   HTTP2_NAME_TIME,       HTTP2_CONNECT_TIME,
                                     HTTP2_TLS_TIME, HTTP2_FIRST_BYTE_TIME, HTTP2_TOTAL_TIME};
constexpr HTTP2_TEXT kTexts[] = {HTTP2_ERROR, HTTP2_PROTOCOL, HTTP2_TLS_VERSION, HTTP2_PEER};

TEST_P(Questions, HaveNoAnswersBeforeAConnection) {
    RecordingClient client;
    for (const HTTP2_NUMBER number : kNumbers) EXPECT_EQ(getHttp2Number(&client, number), -1);
    for (const HTTP2_TEXT text : kTexts) EXPECT_STREQ(getHttp2Text(&client, text), "");
    EXPECT_EQ(getHttp2Number(&client, static_cast<HTTP2_NUMBER>(0)), -1);
    EXPECT_STREQ(getHttp2Text(&client, static_cast<HTTP2_TEXT>(0)), "");
}

TEST_P(Questions, TellTheConnectionAndTheTimes) {
    Http2Server server(options());
    RecordingClient client;
    const auto now = [] { return std::chrono::steady_clock::now(); };
    const auto begun = now();
    ASSERT_EQ(connect(client, server), 0) << errorText(client);
    // In steps of a thousand: each step may be rounded up.
    const auto connecting =
        std::chrono::duration_cast<std::chrono::microseconds>(now() - begun).count() + 3000;
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_PEER), "127.0.0.1");
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_PROTOCOL), tls() ? "h2" : "h2c");
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_TLS_VERSION), tls() ? "TLSv1.3" : "");
    int64_t sum = 0;
    for (const HTTP2_NUMBER number : {HTTP2_NAME_TIME, HTTP2_CONNECT_TIME, HTTP2_TLS_TIME}) {
        EXPECT_GE(getHttp2Number(&client, number), 0) << number;
        sum += getHttp2Number(&client, number);
    }
    EXPECT_LE(sum, connecting);
    EXPECT_EQ(getHttp2Number(&client, HTTP2_FIRST_BYTE_TIME), -1);
    EXPECT_EQ(getHttp2Number(&client, HTTP2_TOTAL_TIME), -1);

    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    const auto started = now();
    ASSERT_EQ(client.startRequest(nullptr), 0);
    const auto since = [&] {
        return std::chrono::duration_cast<std::chrono::microseconds>(now() - started).count();
    };
    ASSERT_TRUE(server.waitRequests(1));
    EXPECT_EQ(getHttp2Number(&client, HTTP2_FIRST_BYTE_TIME), -1);
    const int64_t headAtLeast = since() / 2;
    server.wire().send(0, answerHead(1));
    ASSERT_TRUE(client.waitHeaders());
    const int64_t headAtMost = since();
    EXPECT_EQ(getHttp2Number(&client, HTTP2_TOTAL_TIME), -1);
    server.wire().send(0, data(1, "ok", kEndStream));
    ASSERT_TRUE(client.waitEnd());
    EXPECT_GE(getHttp2Number(&client, HTTP2_FIRST_BYTE_TIME), headAtLeast);
    EXPECT_LE(getHttp2Number(&client, HTTP2_FIRST_BYTE_TIME), headAtMost);
    EXPECT_GE(getHttp2Number(&client, HTTP2_TOTAL_TIME),
              getHttp2Number(&client, HTTP2_FIRST_BYTE_TIME));
    EXPECT_LE(getHttp2Number(&client, HTTP2_TOTAL_TIME), since());
}

TEST_P(Questions, TellWhyAConnectionWasLost) {
    Http2Server server(options());
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    for (size_t i = 0; i < 2; ++i) {
        const bool truncated = i == 1;
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(server.waitRequests(i + 1));
        EXPECT_EQ(errorText(client), "");
        server.wire().send(i, answerHead(1) + data(1, "part"));
        ASSERT_TRUE(client.waitContent());
        if (truncated) {
            server.wire().closeWithoutCloseNotify(i);
        } else {
            server.wire().close(i);
        }
        ASSERT_TRUE(client.waitClosed());
        EXPECT_EQ(client.callbacks(),
                  (std::vector<Callback>{Callback::headers(200, {{":status", "200"}}),
                                         Callback::content("part", true), Callback::closed()}));
        EXPECT_EQ(errorText(client),
                  tls() && truncated ? "the server ended the connection without TLS's close_notify"
                                     : "the server closed the connection");
    }
}

}  // namespace
