// Header blocks that try to buy more than they pay for, or that lie about their lengths.
#include "hostile_support.h"

namespace h2test {
namespace {

class HostileBlock : public HostileTest {
protected:
    // The answer repeats the headers heard before: they stay with the request.
    void expectTolerated(const std::string& bytes, const Callbacks& heard) {
        Callback last = okHeaders();
        for (const auto& field : heard.back().headerList) last.headerList.push_back(field);
        std::sort(last.headerList.begin(), last.headerList.end());
        expectHeard(bytes + okResponse(1), heard + Callbacks{last, Callback::content("ok", false)});
    }
};

TEST_F(HostileBlock, BombOfReferencesIsOneField) {
    const std::string value(250, 'v');
    const std::string bomb =
        hpackLiteral("n", value, Literal::kIncremental) + std::string(200'000, '\xBE');
    expectTolerated(headers(1, bomb), {Callback::headers(0, {{"n", value}})});
}

// 1.6 GB of text for 114 KB on the wire, were each reference a copy that is kept.
TEST_F(HostileBlock, BombOfReferencesToALargeFieldIsOneField) {
    const std::string value(16382, 'v');
    const std::string bomb = hex("40 01 6E")    // incremental indexing, new name "n"
                             + hex("7F FF 7F")  // 127 - 1 + 127 * 128 bytes
                             + value + std::string(100'000, '\xBE');
    expectTolerated(headers(1, bomb), {Callback::headers(0, {{"n", value}})});
}

TEST_F(HostileBlock, NamesOfNoLengthAreKept) {
    const std::string field = hex("00 00 01 76");  // a new name of length 0, value "v"
    expectTolerated(headers(1, repeated(field, 10'000)), {Callback::headers(0, {{"", "v"}})});
}

TEST_F(HostileBlock, EmptyNameAndValueAreKept) {
    expectTolerated(headers(1, hex("40 00 00")), {Callback::headers(0, {{"", ""}})});
}

// Reads as index 0 when the block ends inside it.
TEST_F(HostileBlock, IndexWithoutEndEndsTheBlock) {
    expectTolerated(headers(1, hpackLiteral("a", "b") + '\xFF' + std::string(100'000, '\x80')),
                    {Callback::headers(0, {{"a", "b"}})});
}

TEST_F(HostileBlock, LengthWithoutEndIsAnEmptyString) {
    expectTolerated(
        headers(1, hpackLiteral("a", "b") + hex("00 01 63 7F") + std::string(100'000, '\xFF')),
        {Callback::headers(0, {{"a", "b"}, {"c", ""}})});
}

// Each continuation byte counts with its sign, modulo 2^32: 127 - 128 * 2^7 - 127 * 2^14 -
// 127 * 2^21 + 17 * 2^28 + (first byte) is the first byte and 127 again.
constexpr std::string_view kOverflowTail = "80 81 81 11";

TEST_F(HostileBlock, IndexThatOverflowsMayHitAnEntry) {
    expectHeard(headers(1, hex("FF 89") + hex(kOverflowTail) +  // 127 - 119: entry 8
                               hex("FF 89 00")) +               // the same without an overflow
                    data(1, "ok", kEndStream),
                okCallbacks());
}

TEST_F(HostileBlock, LengthThatOverflowsMayFitTheBlock) {
    expectTolerated(headers(1, hex("00 01 6E 7F 84") + hex(kOverflowTail) + "abc" +  // 127 - 124: 3
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
    expectTolerated("", {empty, empty, empty});
}

TEST_F(HostileBlock, NameIndexThatOverflowsEndsTheBlock) {
    for (const char* first : {"7F", "0F", "1F"}) {
        play(headers(1, hpackLiteral("a", "b") + hex(first) + hex("FF FF FF FF 7F 01 64")));
    }
    const Callback cut = Callback::headers(0, {{"a", "b"}});
    expectTolerated("", {cut, cut, cut});
}

TEST_F(HostileBlock, SizeUpdateWithoutEndIsTolerated) {
    play(headers(1, hpackLiteral("a", "b") + '\x3F' + std::string(100'000, '\x80')));
    expectTolerated("", {Callback::headers(0, {{"a", "b"}})});
}

TEST_F(HostileBlock, SizeUpdateThatOverflowsIsTaken) {
    expectTolerated(headers(1, hex("3F FF FF FF FF 7F") + hpackLiteral("a", "b")),
                    {Callback::headers(0, {{"a", "b"}})});
}

// Fields in front of the broken one are heard; the frame is otherwise taken as any other.
TEST_F(HostileBlock, BrokenFieldsEndTheBlock) {
    const std::vector<std::string> broken = {
        hex("FF FF FF FF FF 7F"),           // an index that overflows
        hex("80"),                          // index 0
        hex("BE"),                          // an index beyond the table
        hex("00 7E"),                       // a name beyond the block
        hex("00 01 63 7E"),                 // a value beyond the block
        hex("00 01 63 7F FF FF FF FF 0F"),  // a length that overflows
        hex("00 82 94 E7 01 64"),           // a Huffman-coded name
    };
    std::string bytes;
    for (const std::string& field : broken) {
        bytes += headers(1, hpackLiteral("a", "b") + field + hpackLiteral("c", "d"));
    }
    expectTolerated(bytes, Callbacks(broken.size(), Callback::headers(0, {{"a", "b"}})));
}

TEST_F(HostileBlock, SizeUpdatesAreFree) {
    expectTolerated(headers(1, std::string(200'000, '\x20') + hpackLiteral("a", "b")),
                    {Callback::headers(0, {{"a", "b"}})});
}

// The table keeps 4096 entries; all go with the call that decoded them.
TEST_F(HostileBlock, TableOfManyEntriesIsGoneWithItsFrame) {
    const std::string fill = repeated(hpackLiteral(1, "", Literal::kIncremental), 100'000);
    expectTolerated(headers(1, fill + hpackLiteral("a", "b")),
                    {Callback::headers(0, {{":authority", ""}, {"a", "b"}})});
}

TEST_F(HostileBlock, BytesOfZeroEndTheTextThatIsHandedOver) {
    const std::string value("x\0y", 3);
    expectHeard(
        headers(1, hpackIndexed(8) + hpackLiteral("n", value)) + data(1, "ok", kEndStream),
        {Callback::headers(200, {{":status", "200"}, {"n", "x"}}), Callback::content("ok", false)});
}

}  // namespace
}  // namespace h2test
