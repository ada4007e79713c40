// Any bytes as header blocks, one after another, against one table.
#include "Http2Client/hpack.h"

#include "fuzz_support.h"

namespace {

const h2fuzz::QuietCout quiet;

using List = std::vector<hpack::HeaderFieldRepresentation>;

std::string entries(const hpack::Table& table) {
    std::string out = std::to_string(table.dynamic_table_size_max_);
    for (const hpack::HeaderField& field : table.dynamic_table_) {
        out += "|" + field.Name() + "=" + field.Value();
    }
    return out;
}

// A block buys no more text than it has bytes, but for what it takes from the tables.
void checkTexts(const List& list, size_t before, size_t blockLength) {
    size_t literal = 0;
    for (size_t i = before; i < list.size(); ++i) {
        const hpack::HeaderField& field = list[i].constField();
        if (list[i].constType() != hpack::HeaderField::INDEXED_HEADER_FIELD) {
            literal += field.Value().size();
        }
    }
    h2fuzz::require(literal <= blockLength, "literal values come from the block");
    h2fuzz::require(list.size() - before <= blockLength, "a field costs at least one byte");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    h2fuzz::Input input(data, size);
    hpack::Table table;
    List list;
    while (!input.empty()) {
        const uint8_t control = input.byte();
        const std::string_view bytes = (control & 0x80) != 0 ? input.rest() : input.bytes(control);
        const h2fuzz::ExactBuffer block(bytes);
        hpack::Table twin = table;
        const size_t before = list.size();

        const bool decoded = table.Decode(list, block.get(), (control & 1) != 0);
        h2fuzz::require(table.dynamic_table_.size() <= table.dynamic_table_size_max_,
                        "the table keeps to its limit");
        checkTexts(list, before, bytes.size());

        List again;
        h2fuzz::require(twin.Decode(again, block.get(), false) == decoded,
                        "the same block has the same result");
        h2fuzz::require(
            h2fuzz::describe(again) ==
                h2fuzz::describe(List(list.begin() + static_cast<long>(before), list.end())),
            "the same block has the same fields");
        h2fuzz::require(entries(twin) == entries(table), "the same block has the same effect");
        if (list.size() > 4096) list.clear();
    }
    return 0;
}
