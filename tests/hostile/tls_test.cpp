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
        return {Callback::headers(200, {{":status", "200"}}), Callback::content("part", true),
                Callback::closed()};
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

TEST_P(HostileTls, GarbageIsAnEnd) {
    playHalf();
    m_server.sendRaw(kVictim, "this is no record of TLS at all");
    expectDroppedNow(halfThenClosed());
}

TEST_P(HostileTls, PlainFramesAreAnEnd) {
    playHalf();
    m_server.sendRaw(kVictim, data(1, "forged", kEndStream));
    expectDroppedNow(halfThenClosed());
}

TEST_P(HostileTls, ForgedRecordIsAnEnd) {
    playHalf();
    m_server.sendRaw(kVictim, hex("17 03 03 00 20") + std::string(32, '\x5A'));
    expectDroppedNow(halfThenClosed());
}

TEST_P(HostileTls, ForgedAlertIsAnEnd) {
    playHalf();
    m_server.sendRaw(kVictim, hex("15 03 03 00 02 02 28"));
    expectDroppedNow(halfThenClosed());
}

// A record that announces more than it may hold, and then nothing.
TEST_P(HostileTls, OverlongRecordIsAnEnd) {
    playHalf();
    m_server.sendRaw(kVictim, hex("17 03 03 FF FF 00"));
    expectDroppedNow(halfThenClosed());
}

class HostileTls13 : public HostileTest {
protected:
    HostileTls13() : HostileTest(tlsOptions(false)) {}
};

TEST_F(HostileTls13, KeyUpdatesAreBorne) {
    play(headers(1, hpackIndexed(8)));
    for (int i = 0; i < 20; ++i) {
        m_server.updateKeys(kVictim);
        play(data(1, "x"));
    }
    play(data(1, "", kEndStream));
    ASSERT_TRUE(m_victim.waitEnd());
    EXPECT_EQ(m_victim.body(), std::string(20, 'x'));
    expectUsable();
}

class HostileTls12 : public HostileTest {
protected:
    HostileTls12() : HostileTest(tlsOptions(true)) {}
};

TEST_F(HostileTls12, RenegotiationInTheBodyIsBorne) {
    play(headers(1, hpackIndexed(8)) + data(1, "be"));
    ASSERT_TRUE(m_victim.waitContent());
    m_server.renegotiate(kVictim, false);
    play(data(1, "tween"));
    play(data(1, "", kEndStream));
    ASSERT_TRUE(m_victim.waitEnd());
    EXPECT_EQ(m_victim.body(), "between");
    expectUsable();
    EXPECT_FALSE(m_server.tlsFailed(kVictim));
}

TEST_F(HostileTls12, AlertInTheBodyIsAnEnd) {
    play(headers(1, hpackIndexed(8)) + data(1, "part"));
    ASSERT_TRUE(m_victim.waitContent());
    m_server.renegotiate(kVictim, true);
    expectDroppedNow({Callback::headers(200, {{":status", "200"}}), Callback::content("part", true),
                      Callback::closed()});
    EXPECT_TRUE(m_server.tlsFailed(kVictim));  // it has sent the alert
}

}  // namespace
}  // namespace h2test
