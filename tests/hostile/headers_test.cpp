// Header blocks that try to buy more than they pay for, or that lie about their lengths.
#include "hostile_support.h"

namespace h2test {
namespace {

class HostileBlock : public HostileTest {
protected:
    // Fields in front of the broken one are heard; the frame is otherwise taken as any other.
    void expectCutOff(const std::string& brokenField) {
        expectBorne(headers(1, hpackLiteral("a", "b") + brokenField + hpackLiteral("c", "d")),
                    {Callback::headers(0, {{"a", "b"}})});
    }
    // expectBorne repeats the headers heard before: they stay with the request.
    void expectBorne(const std::string& bytes, const Callbacks& heard) {
        play(bytes + okResponse(1));
        ASSERT_TRUE(m_victim.waitEnd(kLongLimit));
        Callback last = Callback::headers(200, {{":status", "200"}});
        if (!heard.empty()) {
            for (const auto& field : heard.back().headerList) {
                if (field.first != ":status") last.headerList.push_back(field);
            }
        }
        std::sort(last.headerList.begin(), last.headerList.end());
        EXPECT_EQ(m_victim.callbacks(), (heard + Callbacks{last, Callback::content("ok", false)}));
        expectUsable();
        expectSent({});
    }
};

TEST_F(HostileBlock, BombOfReferencesIsOneField) {
    const std::string value(250, 'v');
    const std::string bomb =
        hpackLiteral("n", value, Literal::kIncremental) + std::string(200'000, '\xBE');
    expectBorne(headers(1, bomb), {Callback::headers(0, {{"n", value}})});
}

TEST_F(HostileBlock, NamesOfNoLengthAreKept) {
    const std::string field = hex("00 00 01 76");  // a new name of length 0, value "v"
    expectBorne(headers(1, repeated(field, 10'000)), {Callback::headers(0, {{"", "v"}})});
}

TEST_F(HostileBlock, EmptyNameAndValueAreKept) {
    expectBorne(headers(1, hex("40 00 00")), {Callback::headers(0, {{"", ""}})});
}

// Reads as index 0 when the block ends inside it.
TEST_F(HostileBlock, IndexWithoutEndEndsTheBlock) {
    expectBorne(headers(1, hpackLiteral("a", "b") + '\xFF' + std::string(100'000, '\x80')),
                {Callback::headers(0, {{"a", "b"}})});
}

TEST_F(HostileBlock, LengthWithoutEndIsAnEmptyString) {
    expectBorne(
        headers(1, hpackLiteral("a", "b") + hex("00 01 63 7F") + std::string(100'000, '\xFF')),
        {Callback::headers(0, {{"a", "b"}, {"c", ""}})});
}

TEST_F(HostileBlock, IndexThatOverflowsEndsTheBlock) { expectCutOff(hex("FF FF FF FF FF 7F")); }

TEST_F(HostileBlock, SizeUpdateThatOverflowsIsTaken) {
    expectBorne(headers(1, hex("3F FF FF FF FF 7F") + hpackLiteral("a", "b")),
                {Callback::headers(0, {{"a", "b"}})});
}

TEST_F(HostileBlock, NameBeyondTheBlockEndsIt) { expectCutOff(hex("00 7E")); }

TEST_F(HostileBlock, ValueBeyondTheBlockEndsIt) { expectCutOff(hex("00 01 63 7E")); }

TEST_F(HostileBlock, LengthThatOverflowsEndsTheBlock) {
    expectCutOff(hex("00 01 63 7F FF FF FF FF 0F"));
}

TEST_F(HostileBlock, IndexZeroEndsTheBlock) { expectCutOff(hex("80")); }

TEST_F(HostileBlock, IndexBeyondTheTableEndsTheBlock) { expectCutOff(hex("BE")); }

TEST_F(HostileBlock, HuffmanCodedNameEndsTheBlock) { expectCutOff(hex("00 82 94 E7 01 64")); }

TEST_F(HostileBlock, SizeUpdatesAreFree) {
    expectBorne(headers(1, std::string(200'000, '\x20') + hpackLiteral("a", "b")),
                {Callback::headers(0, {{"a", "b"}})});
}

// The table keeps 4096 entries; all go with the call that decoded them.
TEST_F(HostileBlock, TableOfManyEntriesIsGoneWithItsFrame) {
    const std::string fill = repeated(hpackLiteral(1, "", Literal::kIncremental), 100'000);
    expectBorne(headers(1, fill + hpackLiteral("a", "b")),
                {Callback::headers(0, {{":authority", ""}, {"a", "b"}})});
}

TEST_F(HostileBlock, StatusThatIsNoNumberIsZero) {
    expectBorne(headers(1, hpackLiteral(8, "99999999999999999999")) +
                    headers(1, hpackLiteral(8, "-99999999999999999999")) +
                    headers(1, hpackLiteral(8, "abc")),
                {Callback::headers(2147483647, {{":status", "99999999999999999999"}}),
                 Callback::headers(-2147483647 - 1, {{":status", "-99999999999999999999"}}),
                 Callback::headers(0, {{":status", "abc"}})});
}

TEST_F(HostileBlock, BytesOfZeroEndTheTextThatIsHandedOver) {
    const std::string value("x\0y", 3);
    play(headers(1, hpackIndexed(8) + hpackLiteral("n", value)) + data(1, "ok", kEndStream));
    ASSERT_TRUE(m_victim.waitEnd());
    EXPECT_EQ(m_victim.callbacks(),
              (Callbacks{Callback::headers(200, {{":status", "200"}, {"n", "x"}}),
                         Callback::content("ok", false)}));
}

}  // namespace
}  // namespace h2test
