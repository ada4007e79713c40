// The standard edition's decoder: any bytes as header blocks, one after another against one table,
// whose limit changes on the way. What it decodes goes through the encoder and back.
#include "Http2ClientStandard/hpack/decoder.h"
#include "Http2ClientStandard/hpack/encoder.h"

#include "fuzz_support.h"

namespace {

using h2fuzz::require;
using namespace h2::hpack;

constexpr uint32_t kListLimit = 2048;

std::string describe(const FieldList& list) {
    std::string out;
    for (size_t i = 0; i < list.size(); ++i) {
        const std::string_view name = list.name(i);
        const std::string_view value = list.value(i);
        require(name.data()[name.size()] == '\0' && value.data()[value.size()] == '\0',
                "a NUL follows each text");
        out.append(name).append(1, '\0').append(value).append(1, '\0');
    }
    return out;
}

std::string describe(Decoder& decoder) {
    std::string out = std::to_string(decoder.m_table.maxSize());
    for (uint64_t i = decoder.m_table.oldest(); i != decoder.m_table.end(); ++i) {
        const auto& entry = decoder.m_table.entry(i);
        out.append(1, '|').append(entry.name()).append(1, '=').append(entry.value());
    }
    return out;
}

void checkTable(Decoder& decoder, uint32_t largest) {
    auto& table = decoder.m_table;
    uint64_t octets = 0;
    for (uint64_t i = table.oldest(); i != table.end(); ++i) octets += table.entry(i).octets();
    require(table.size() == octets, "the table counts its octets");
    require(octets <= table.maxSize(), "the table keeps to its size");
    require(table.m_textsCapacity <= std::max<size_t>(480, 2 * size_t{largest}),
            "the table's memory is bounded");
}

void checkList(const FieldList& list) {
    uint64_t octets = 0;
    bool malformed = false;
    for (size_t i = 0; i < list.size(); ++i) {
        octets += list.name(i).size() + list.value(i).size() + kFieldOverhead;
        malformed |= !isValidName(list.name(i)) || !isValidValue(list.value(i));
        require(list.id(i) == identify(list.name(i)), "a name is known for what it is");
    }
    require(list.overflow() == (list.octets() > kListLimit), "the list knows its limit");
    require(octets <= kListLimit, "the list keeps to its limit");
    if (list.overflow()) return;
    require(octets == list.octets(), "the list counts its octets");
    require(malformed == list.malformed(), "bad texts are found wherever they come from");
}

// One encoder and one decoder that follow each other over all lists.
class RoundTrip {
public:
    void play(const FieldList& list) {
        std::vector<Field> fields;
        for (size_t i = 0; i < list.size(); ++i) {
            fields.push_back({list.name(i), list.value(i), list.neverIndexed(i)});
        }
        h2::Bytes block;
        m_encoder.encode(block, fields);
        const h2fuzz::ExactBytes bytes(block.view());
        FieldList back;
        back.setLimit(kListLimit);
        require(m_decoder.decode({bytes.data(), bytes.size()}, back), "what we encode is good");
        require(describe(back) == describe(list), "what we encode is what was given");
        for (size_t i = 0; i < list.size(); ++i) {
            require(back.neverIndexed(i) || !list.neverIndexed(i), "never-indexed stays so");
        }
    }
    void resize(uint32_t octets) {
        m_encoder.setPeerTableSize(octets);
        m_decoder.setMaxTableSize(octets);
    }

private:
    Encoder m_encoder{8192};
    Decoder m_decoder{8192};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    h2fuzz::Input input(data, size);
    Decoder decoder;
    Decoder twin;
    RoundTrip roundTrip;
    FieldList lists[2];
    for (FieldList& list : lists) list.setLimit(kListLimit);
    size_t blocks = 0;
    uint32_t largest = 4096;
    while (!input.empty()) {
        const uint8_t control = input.byte();
        if (control == 0) {
            const uint32_t limit = input.word();
            largest = std::max(largest, limit);
            decoder.setMaxTableSize(limit);
            twin.setMaxTableSize(limit);
            roundTrip.resize(limit);
            continue;
        }
        const std::string_view text = (control & 0x80) != 0 ? input.rest() : input.bytes(control);
        const h2fuzz::ExactBytes block(text);

        // The list before stays as it is, whatever becomes of the table.
        FieldList& list = lists[blocks % 2];
        const FieldList& former = lists[++blocks % 2];
        const std::string kept = describe(former);
        if (list.size() > 8) list.release();
        list.clear();
        const bool decoded = decoder.decode({block.data(), block.size()}, list);
        require(describe(former) == kept, "a list keeps its texts");
        checkTable(decoder, largest);

        FieldList again;
        again.setLimit(kListLimit);
        require(twin.decode({block.data(), block.size()}, again) == decoded,
                "the same block has the same result");
        if (!decoded) return 0;
        require(describe(again) == describe(list), "the same block has the same fields");
        require(describe(twin) == describe(decoder), "the same block has the same effect");
        checkList(list);
        roundTrip.play(list);
    }
    return 0;
}
