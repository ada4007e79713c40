// Header lists through the encoder, and back where the coding is exact.
#include "Http2Client/hpack.h"

#include "fuzz_support.h"

namespace {

const h2fuzz::QuietCout quiet;

using hpack::HeaderField;
using hpack::HeaderFieldRepresentation;
using List = std::vector<HeaderFieldRepresentation>;

constexpr size_t kOneByteLength = 126;      // the longest text whose length is one byte
constexpr size_t kExactContinuation = 128;  // continuation bytes are read exactly before this
constexpr uint32_t kOneByteIndex = 14;      // the highest index in a prefix of four bits
constexpr int kTypes = 5;                   // the four representations, and one that is none

const char* const kNames[] = {
    ":path", ":status", "host", "user-agent", "user-agend", "cookie", "www-authenticate",
    "x-a",   ""};

HeaderFieldRepresentation readField(h2fuzz::Input& input) {
    HeaderFieldRepresentation entry;
    const uint8_t control = input.byte();
    entry.Type() = static_cast<HeaderField::HEADER_FIELD_TYPE>(input.byte() % kTypes);
    HeaderField& field = entry.Field();
    field.SetNameUseHuffman((control & 1) != 0);
    field.SetValueUseHuffman((control & 2) != 0);
    field.SetName((control & 4) != 0 ? std::string(input.bytes(input.byte()))
                                     : kNames[(control >> 3) % std::size(kNames)]);
    field.SetValue(std::string(input.bytes(input.byte())));
    return entry;
}

bool isExact(const std::string& text, bool useHuffman) {
    return !useHuffman && text.size() <= kOneByteLength && text.find('\0') == std::string::npos;
}

// Whether the field comes back as it went in: its texts, and its index in a four-bit prefix.
bool isExact(hpack::Table& table, const HeaderFieldRepresentation& entry, size_t blockLength) {
    const HeaderField& field = entry.constField();
    const uint32_t index = table.Find(field.Name(), "");
    const bool fourBits = entry.constType() == HeaderField::LITERAL_HEADER_FIELD_WITHOUT_INDEXING ||
                          entry.constType() == HeaderField::LITERAL_HEADER_FIELD_NEVER_INDEXED;
    if (fourBits && index > kOneByteIndex && blockLength > kExactContinuation) return false;
    return (index != 0 || isExact(field.Name(), field.NameUseHuffman())) &&
           isExact(field.Value(), field.ValueUseHuffman());
}

void checkSame(hpack::Table& table, const List& sent, const List& received) {
    size_t at = 0;
    for (const HeaderFieldRepresentation& entry : sent) {
        if (entry.constType() > HeaderField::LITERAL_HEADER_FIELD_NEVER_INDEXED) continue;
        h2fuzz::require(at < received.size(), "every field comes back");
        const HeaderFieldRepresentation& back = received[at++];
        const HeaderField& field = entry.constField();
        h2fuzz::require(back.constField().Name() == field.Name(), "names come back");
        const bool indexed = entry.constType() == HeaderField::INDEXED_HEADER_FIELD;
        const bool found = indexed && table.Find(field.Name(), field.Value()) != 0;
        if (!found || !field.Value().empty()) {
            h2fuzz::require(back.constField().Value() == field.Value(), "values come back");
        }
        const auto type = indexed && !found
                              ? HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING
                              : entry.constType();
        h2fuzz::require(back.constType() == type, "representations come back");
    }
    h2fuzz::require(at == received.size(), "no field is added");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    h2fuzz::Input input(data, size);
    hpack::Table table;
    List sent;
    while (!input.empty() && sent.size() < 64) sent.push_back(readField(input));

    Buffer block;
    h2fuzz::require(table.Encode(block, sent, true), "encoding succeeds");
    h2fuzz::require(table.dynamic_table_.empty(), "encoding leaves the table alone");
    Buffer again("old contents");
    hpack::Table(table).Encode(again, sent, false);
    h2fuzz::require(h2fuzz::textOf(again) == h2fuzz::textOf(block), "encoding is repeatable");

    List received;
    const h2fuzz::ExactBuffer exact(h2fuzz::textOf(block));
    hpack::Table decoding;
    const bool decoded = decoding.Decode(received, exact.get(), true);
    for (const HeaderFieldRepresentation& entry : sent) {
        if (!isExact(table, entry, block.Length())) return 0;
    }
    h2fuzz::require(decoded, "what is coded exactly decodes");
    checkSame(table, sent, received);
    return 0;
}
