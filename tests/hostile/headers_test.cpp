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

// 1.6 GB of text for 114 KB on the wire, were each reference a copy that is kept.
TEST_F(HostileBlock, BombOfReferencesToALargeFieldIsOneField) {
    const std::string value(16382, 'v');
    const std::string bomb = hex("40 01 6E")    // incremental indexing, new name "n"
                             + hex("7F FF 7F")  // 127 - 1 + 127 * 128 bytes
                             + value + std::string(100'000, '\xBE');
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

// Each continuation byte counts with its sign, modulo 2^32: 127 - 128 * 2^7 - 127 * 2^14 -
// 127 * 2^21 + 17 * 2^28 + (first byte) is the first byte and 127 again.
constexpr std::string_view kOverflowTail = "80 81 81 11";

TEST_F(HostileBlock, IndexThatOverflowsMayHitAnEntry) {
    play(headers(1, hex("FF 89") + hex(kOverflowTail) +  // 127 - 119: entry 8
                        hex("FF 89 00")) +               // the same without an overflow
         data(1, "ok", kEndStream));
    ASSERT_TRUE(m_victim.waitEnd());
    EXPECT_EQ(m_victim.callbacks(), okCallbacks());
    expectUsable();
    expectSent({});
}

TEST_F(HostileBlock, LengthThatOverflowsMayFitTheBlock) {
    expectBorne(headers(1, hex("00 01 6E 7F 84") + hex(kOverflowTail) + "abc" +  // 127 - 124: 3
                               hpackLiteral("z", "1")),
                {Callback::headers(0, {{"n", "abc"}, {"z", "1"}})});
}

// An index that a literal's prefix leaves open: 0 where the block ends, so a new name, without
// text as is its value.
TEST_F(HostileBlock, NameIndexWithoutEndIsANewName) {
    for (const char first : {'\x7F', '\x0F', '\x1F'}) {
        play(headers(1, first + std::string(100'000, '\xFF')));
    }
    const Callback empty = Callback::headers(0, {{"", ""}});
    expectBorne("", {empty, empty, empty});
}

TEST_F(HostileBlock, NameIndexThatOverflowsEndsTheBlock) {
    for (const char* first : {"7F", "0F", "1F"}) {
        play(headers(1, hpackLiteral("a", "b") + hex(first) + hex("FF FF FF FF 7F 01 64")));
    }
    const Callback cut = Callback::headers(0, {{"a", "b"}});
    expectBorne("", {cut, cut, cut});
}

TEST_F(HostileBlock, SizeUpdateWithoutEndIsBorne) {
    play(headers(1, hpackLiteral("a", "b") + '\x3F' + std::string(100'000, '\x80')));
    expectBorne("", {Callback::headers(0, {{"a", "b"}})});
}

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
                {Callback::headers(-1, {{":status", "99999999999999999999"}}),
                 Callback::headers(0, {{":status", "-99999999999999999999"}}),
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
