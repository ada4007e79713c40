// Servers that misuse TLS.
#include "hostile_support.h"

namespace h2test {
namespace {

ServerOptions tlsOptions(bool onlyTls12) {
    ServerOptions options = serverOptions(true);
    options.onlyTls12 = onlyTls12;
    return options;
}

class HostileTls : public HostileTest, public testing::WithParamInterface<bool> {
protected:
    HostileTls() : HostileTest(tlsOptions(GetParam())) {}

    // The response up to the middle of its body.
    void playHalf() {
        play(headers(1, hpackIndexed(8)) + data(1, "part"));
        ASSERT_TRUE(m_victim.waitContent());
    }
    static Callbacks halfThenClosed() {
        return {okHeaders(), Callback::content("part", true), Callback::closed()};
    }
};

INSTANTIATE_TEST_SUITE_P(Version, HostileTls, testing::Bool(),
                         [](const auto& info) { return info.param ? "Tls12" : "Tls13"; });

TEST_P(HostileTls, CloseWithoutCloseNotifyIsAnEndLikeAnyOther) {
    playHalf();
    m_server.closeWithoutCloseNotify(kVictim);
    expectDroppedNow(halfThenClosed());
}

TEST_P(HostileTls, CloseNotifyInTheBodyIsAnEnd) {
    playHalf();
    m_server.sendCloseNotify(kVictim);
    expectDroppedNow(halfThenClosed());
}

// A real alert, that is: the client takes the record, and hears from it that the server is through.
TEST_P(HostileTls, FatalAlertInTheBodyIsAnEnd) {
    playHalf();
    m_server.sendFatalAlert(kVictim);
    expectDroppedNow(halfThenClosed());
    EXPECT_TRUE(m_server.tlsFailed(kVictim));
}

TEST_P(HostileTls, GarbageRightAfterTheHandshakeIsAnEnd) {
    const size_t index = kVictim + 1;
    RecordingClient client;
    ASSERT_EQ(connectTo(client, m_server, true), 0);
    m_server.sendRaw(index, "this is no record of TLS at all");
    ASSERT_TRUE(m_server.waitSent(index));
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(m_server.waitClosedByPeer(index));
    EXPECT_EQ(client.callbacks(), Callbacks{Callback::closed()});
    EXPECT_EQ(client.startRequest(nullptr), 2);
    EXPECT_EQ(m_server.received(index), "");  // the first step reads before it writes
}

// One connection's failure after another; the error that it leaves must not be taken for one of
// the bystander's, which is served in between on the same thread.
TEST_P(HostileTls, FailuresInARowHarmNobodyElse) {
    RecordingClient other;
    start(other, kVictim + 1);
    for (size_t i = 0; i < 6; ++i) {
        const size_t index = kVictim + 2 + i;
        RecordingClient broken;
        start(broken, index);
        switch (i % 3) {
            case 0: m_server.sendRaw(index, "garbage that is long enough"); break;
            case 1: m_server.sendFatalAlert(index); break;
            default: m_server.closeWithoutCloseNotify(index); break;
        }
        m_server.send(kVictim + 1, data(1, "x"));
        ASSERT_TRUE(broken.waitClosed());
        EXPECT_EQ(broken.callbacks(), Callbacks{Callback::closed()});
        ASSERT_TRUE(other.waitContent(i + 1));
    }
    m_server.send(kVictim + 1, data(1, "", kEndStream));
    ASSERT_TRUE(other.waitEnd());
    EXPECT_EQ(other.callbacks(),
              Callbacks(6, Callback::content("x", true)) + Callbacks{Callback::content("", false)});
}

class HostileRecord
    : public HostileTest,
      public testing::WithParamInterface<std::tuple<bool, std::pair<const char*, std::string>>> {
protected:
    HostileRecord() : HostileTest(tlsOptions(std::get<0>(GetParam()))) {}
};

INSTANTIATE_TEST_SUITE_P(
    Version, HostileRecord,
    testing::Combine(
        testing::Bool(),
        testing::Values(std::pair("Garbage", std::string("this is no record of TLS at all")),
                        std::pair("PlainFrames", data(1, "forged", kEndStream)),
                        std::pair("ForgedRecord", hex("17 03 03 00 20") + std::string(32, '\x5A')),
                        std::pair("ForgedAlert", hex("15 03 03 00 02 02 28")),
                        // Announces more than a record may hold, and then nothing comes.
                        std::pair("OverlongRecord", hex("17 03 03 FF FF 00")))),
    [](const auto& info) {
        return std::get<1>(info.param).first + std::string(std::get<0>(info.param) ? "12" : "13");
    });

TEST_P(HostileRecord, InTheBodyIsAnEnd) {
    play(headers(1, hpackIndexed(8)) + data(1, "part"));
    ASSERT_TRUE(m_victim.waitContent());
    m_server.sendRaw(kVictim, std::get<1>(GetParam()).second);
    expectDroppedNow({okHeaders(), Callback::content("part", true), Callback::closed()});
}

class HostileTls13 : public HostileTest {
protected:
    HostileTls13() : HostileTest(tlsOptions(false)) {}
};

TEST_F(HostileTls13, KeyUpdatesAreTolerated) {
    play(headers(1, hpackIndexed(8)));
    for (int i = 0; i < 20; ++i) {
        m_server.updateKeys(kVictim);
        play(data(1, "x"));
    }
    expectHeard(data(1, "", kEndStream), Callbacks{okHeaders()} +
                                             Callbacks(20, Callback::content("x", true)) +
                                             Callbacks{Callback::content("", false)});
    EXPECT_FALSE(m_server.tlsFailed(kVictim));
}

class HostileTls12 : public HostileTest {
protected:
    HostileTls12() : HostileTest(tlsOptions(true)) {}
};

TEST_F(HostileTls12, RenegotiationInTheBodyIsTolerated) {
    play(headers(1, hpackIndexed(8)) + data(1, "be"));
    ASSERT_TRUE(m_victim.waitContent());
    m_server.renegotiate(kVictim, false);
    play(data(1, "tween"));
    expectHeard(data(1, "", kEndStream),
                {okHeaders(), Callback::content("be", true), Callback::content("tween", true),
                 Callback::content("", false)});
    EXPECT_FALSE(m_server.tlsFailed(kVictim));
}

TEST_F(HostileTls12, AlertInTheBodyIsAnEnd) {
    play(headers(1, hpackIndexed(8)) + data(1, "part"));
    ASSERT_TRUE(m_victim.waitContent());
    m_server.renegotiate(kVictim, true);
    expectDroppedNow({okHeaders(), Callback::content("part", true), Callback::closed()});
    EXPECT_TRUE(m_server.tlsFailed(kVictim));  // it has sent the alert
}

}  // namespace
}  // namespace h2test
