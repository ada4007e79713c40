#include "hpack.h"

#include <algorithm>
#include <iostream>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "huffman.h"

namespace {

using hpack::HeaderField;
using hpack::HeaderFieldRepresentation;

constexpr uint32_t kFirstDynamicIndex = 62;
constexpr unsigned int kUsualFields = 16;  // of a response

// RFC 7541, Appendix A. Entry 0 is never referenced. Entry 58 is "user-agent" there; here it is
// spelt as below, so a request's user-agent goes out with its name in full, and a server's index
// 58 reads as this name. Both ends of many conversations have seen it so.
// clang-format off
const HeaderField static_table[kFirstDynamicIndex] = {
    {"", ""},
    {":authority", ""},
    {":method", "GET"},
    {":method", "POST"},
    {":path", "/"},
    {":path", "/index.html"},
    {":scheme", "http"},
    {":scheme", "https"},
    {":status", "200"},
    {":status", "204"},
    {":status", "206"},
    {":status", "304"},
    {":status", "400"},
    {":status", "404"},
    {":status", "500"},
    {"accept-charset", ""},
    {"accept-encoding", "gzip, deflate"},
    {"accept-language", ""},
    {"accept-ranges", ""},
    {"accept", ""},
    {"access-control-allow-origin", ""},
    {"age", ""},
    {"allow", ""},
    {"authorization", ""},
    {"cache-control", ""},
    {"content-disposition", ""},
    {"content-encoding", ""},
    {"content-language", ""},
    {"content-length", ""},
    {"content-location", ""},
    {"content-range", ""},
    {"content-type", ""},
    {"cookie", ""},
    {"date", ""},
    {"etag", ""},
    {"expect", ""},
    {"expires", ""},
    {"from", ""},
    {"host", ""},
    {"if-match", ""},
    {"if-modified-since", ""},
    {"if-none-match", ""},
    {"if-range", ""},
    {"if-unmodified-since", ""},
    {"last-modified", ""},
    {"link", ""},
    {"location", ""},
    {"max-forwards", ""},
    {"proxy-authenticate", ""},
    {"proxy-authorization", ""},
    {"range", ""},
    {"referer", ""},
    {"refresh", ""},
    {"retry-after", ""},
    {"server", ""},
    {"set-cookie", ""},
    {"strict-transport-security", ""},
    {"transfer-encoding", ""},
    {"user-agend", ""},
    {"vary", ""},
    {"via", ""},
    {"www-authenticate", ""},
};
// clang-format on

// Entry N is the all-ones value of an N-bit prefix (RFC 7541, 5.1).
const uint8_t prefix_max[9] = {0, 1, 3, 7, 15, 31, 63, 127, 255};
constexpr uint8_t kMaxPrefixLength = 8;

// First-byte pattern and prefix length of each representation (RFC 7541, 6).
struct Representation {
    uint8_t pattern;
    uint8_t prefix_length;
};
constexpr Representation kIndexed{0x80, 7};
constexpr Representation kLiteralIncremental{0x40, 6};
constexpr Representation kSizeUpdate{0x20, 5};
constexpr Representation kLiteralNeverIndexed{0x10, 4};
constexpr Representation kLiteralWithoutIndexing{0x00, 4};
constexpr Representation kHuffmanString{0x80, 7};
constexpr Representation kPlainString{0x00, 7};

void AppendToTable(std::deque<HeaderField>& dynamic_table, uint32_t dynamic_table_size_max,
                   HeaderField header) {
    dynamic_table.push_front(std::move(header));
    while (dynamic_table.size() > dynamic_table_size_max) dynamic_table.pop_back();
}

// Where the entries of one name stand in the static table: side by side, each name in one place.
struct EntryRange {
    uint32_t first;
    uint32_t count;
};

std::unordered_map<std::string_view, EntryRange> RangesOfStaticNames() {
    std::unordered_map<std::string_view, EntryRange> ranges;
    for (uint32_t i = 1; i < kFirstDynamicIndex; ++i) {
        ++ranges.try_emplace(static_table[i].Name(), EntryRange{i, 0}).first->second.count;
    }
    return ranges;
}

// The keys are the static table's own texts.
const std::unordered_map<std::string_view, EntryRange> static_names = RangesOfStaticNames();

uint32_t FindFromTable(const std::deque<HeaderField>& dynamic_table, const std::string& name,
                       const std::string& value) {
    if (const auto found = static_names.find(name); found != static_names.end()) {
        const auto [first, count] = found->second;
        for (uint32_t i = first; i < first + count; ++i) {
            if (value.empty() || static_table[i].Value() == value) return i;
        }
    }
    for (size_t i = 0; i < dynamic_table.size(); ++i) {
        if (dynamic_table[i].Name() != name) continue;
        if (value.empty() || dynamic_table[i].Value() == value) {
            return static_cast<uint32_t>(i + kFirstDynamicIndex);
        }
    }
    return 0;
}

// Replaces `buff` by the integer `i` (RFC 7541, 5.1).
//
// The buffer's length is a formula, not the count of the bytes written: from 256 above the prefix
// on it may be longer, and the surplus bytes are what the buffer held before, or zeros. The RFC
// knows no such bytes; peers have always been sent them.
void EncodeInteger(Buffer& buff, uint32_t i, uint8_t prefix_length, uint8_t prefix_dummy) {
    if (prefix_length == 0 || prefix_length > kMaxPrefixLength) {
        buff.Clear();
        return;
    }
    const uint8_t max = prefix_max[prefix_length];
    if (i < max) {
        buff.Resize(1);
        buff[0] = static_cast<char>(i | (prefix_dummy & ~max));
        return;
    }
    uint32_t rest = i - max;
    buff.Resize((rest >> 7) + 2);
    buff[0] = static_cast<char>(max | prefix_dummy);
    uint32_t at = 1;
    for (; rest > 127; rest >>= 7) buff[at++] = static_cast<char>((rest & 127) | 0x80);
    buff[at] = static_cast<char>(rest);
}

// Reads the integer at `offset` and moves `offset` behind it; a truncated one reads as 0.
//
// RFC 7541, 5.1 takes the low seven bits of each continuation byte. This decoder adds the byte
// whole, with its sign, and takes it from the offset's low seven bits: exact for one continuation
// byte below 0x80 among the block's first 128 bytes, and wrong in a way of its own for all others.
// Which headers come through depends on it.
uint32_t DecodeInteger(const Buffer& buff, uint32_t& offset, uint8_t prefix_length) {
    if (prefix_length == 0 || prefix_length > kMaxPrefixLength) return 0;
    const uint8_t max = prefix_max[prefix_length];
    uint32_t value = static_cast<uint8_t>(buff.Get(offset)) & max;
    ++offset;
    if (value < max) return value;

    uint32_t weight = 1;
    bool more = true;
    while (more) {
        if (offset >= buff.Length()) return 0;
        const auto summand = static_cast<signed char>(buff.Get(offset & 127));
        value += static_cast<uint32_t>(int32_t{summand}) * weight;
        weight <<= 7;
        more = (static_cast<uint8_t>(buff.Get(offset)) & 0x80) != 0;
        ++offset;
    }
    return value;
}

// Appends `text` as a string literal (RFC 7541, 5.2).
//
// A text with a NUL byte announces its whole length and ends before that byte. A flagged text
// goes out as the empty Huffman string and is lost: the coder is handed an empty buffer of the
// text's capacity. Both are how this client has always sent them; the request builder clears the
// flags.
void EncodeString(Buffer& encoded_buffer, const std::string& text, bool use_huffman,
                  Buffer& encode_int) {
    const auto length = static_cast<uint32_t>(text.size());
    if (!use_huffman) {
        EncodeInteger(encode_int, length, kPlainString.prefix_length, kPlainString.pattern);
        encoded_buffer.Append(encode_int);
        encoded_buffer += text.c_str();
        return;
    }
    Buffer huff;
    hpack::Huffman::GetInstance();
    hpack::Huffman::Encode(huff, Buffer(length));
    EncodeInteger(encode_int, huff.Length(), kHuffmanString.prefix_length, kHuffmanString.pattern);
    encoded_buffer.Append(encode_int);
    encoded_buffer.Append(huff);
}

// Reads the string literal at `offset` and its H bit into `use_huffman`, and moves `offset` behind
// it. `text` then lies in the block, or in `decoded`. Returns false when the string runs past the
// block or is Huffman-coded and does not decode.
bool DecodeString(const Buffer& buff, uint32_t& offset, std::string_view& text, bool& use_huffman,
                  std::string& decoded) {
    use_huffman = (static_cast<uint8_t>(buff.Get(offset)) & kHuffmanString.pattern) != 0;
    const uint32_t length = DecodeInteger(buff, offset, kHuffmanString.prefix_length);
    if (length == 0) {
        text = {};
        return true;
    }
    if (offset >= buff.Length() || length > buff.Length() - offset) return false;
    const char* start = buff.Address(offset);
    offset += length;
    if (!use_huffman) {
        text = {start, length};
        return true;
    }
    Buffer scratch;
    hpack::Huffman::GetInstance();
    if (!hpack::Huffman::Decode(scratch, Buffer(start, length))) return false;
    decoded.assign(scratch.Length() == 0 ? "" : scratch.Address(0), scratch.Length());
    text = decoded;
    return true;
}

// About what the header block takes, so that its buffer need not grow again and again.
unsigned int RoomFor(const std::vector<HeaderFieldRepresentation>& header_list) {
    size_t room = 2 * header_list.size();
    for (const HeaderFieldRepresentation& header : header_list) {
        room += header.constField().Value().size();
    }
    return static_cast<unsigned int>(std::min<size_t>(room, UINT32_MAX));
}

// Null when `index` is 0 or beyond the dynamic table.
const HeaderField* FieldAt(const std::deque<HeaderField>& dynamic_table, uint32_t index) {
    if (index == 0) return nullptr;
    if (index < kFirstDynamicIndex) return &static_table[index];
    const uint32_t position = index - kFirstDynamicIndex;
    return position < dynamic_table.size() ? &dynamic_table[position] : nullptr;
}

}  // namespace

namespace hpack {

std::pair<SharedText, SharedText> SharedText::pair(std::string_view name, std::string_view value) {
    if (name.empty() || value.empty()) return {SharedText(name), SharedText(value)};
    struct Texts {
        Texts(std::string_view first, std::string_view second) : name(first), value(second) {}
        const std::string name;
        const std::string value;
    };
    const auto texts = std::make_shared<const Texts>(name, value);
    std::pair<SharedText, SharedText> shared;
    shared.first.m_text = std::shared_ptr<const std::string>(texts, &texts->name);
    shared.second.m_text = std::shared_ptr<const std::string>(texts, &texts->value);
    return shared;
}

const std::string& SharedText::emptyText() {
    static const std::string empty;
    return empty;
}

void Table::Append(const HeaderField& header) {
    AppendToTable(dynamic_table_, dynamic_table_size_max_, header);
}

uint32_t Table::Find(const std::string& name, const std::string& value) {
    return FindFromTable(dynamic_table_, name, value);
}

void Table::UpdateSize(uint32_t size) {
    dynamic_table_size_max_ = size;
    while (dynamic_table_.size() > dynamic_table_size_max_) dynamic_table_.pop_back();
}

void Table::Update(const std::vector<HeaderFieldRepresentation>& header_list) {
    for (const HeaderFieldRepresentation& header : header_list) {
        if (header.constType() == HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING) {
            Append(header.constField());
        }
    }
}

void Table::Print() {
    size_t index = kFirstDynamicIndex;
    for (const HeaderField& field : dynamic_table_) {
        std::cout << "(" << index++ << ") " << field.Name() << ":" << field.Value() << std::endl;
    }
}

// RFC 7541, 6.2.1 has the encoder add what it sends with incremental indexing to its table. This
// one does not, so a field sent twice goes out as a literal twice: always valid, never shorter.
bool Table::Encode(Buffer& encoded_buffer,
                   const std::vector<HeaderFieldRepresentation>& header_list, bool /*update*/) {
    Buffer encode_int;
    encoded_buffer.Clear();
    encoded_buffer.UpdateBufferSize(RoomFor(header_list));
    for (const HeaderFieldRepresentation& header : header_list) {
        const HeaderField& field = header.constField();
        Representation form = kLiteralIncremental;
        switch (header.constType()) {
            case HeaderField::INDEXED_HEADER_FIELD: {
                const uint32_t index = Find(field.Name(), field.Value());
                if (index == 0) break;  // not in the tables: a literal, as if asked for
                EncodeInteger(encode_int, index, kIndexed.prefix_length, kIndexed.pattern);
                encoded_buffer.Append(encode_int);
                continue;
            }
            case HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING: break;
            case HeaderField::LITERAL_HEADER_FIELD_WITHOUT_INDEXING:
                form = kLiteralWithoutIndexing;
                break;
            case HeaderField::LITERAL_HEADER_FIELD_NEVER_INDEXED:
                form = kLiteralNeverIndexed;
                break;
            default: continue;
        }
        const uint32_t name_index = Find(field.Name(), "");
        if (name_index != 0) {
            EncodeInteger(encode_int, name_index, form.prefix_length, form.pattern);
            encoded_buffer.Append(encode_int);
        } else {
            encoded_buffer.Append(static_cast<char>(form.pattern));
            EncodeString(encoded_buffer, field.Name(), field.NameUseHuffman(), encode_int);
        }
        EncodeString(encoded_buffer, field.Value(), field.ValueUseHuffman(), encode_int);
    }
    return true;
}

bool Table::Decode(std::vector<HeaderFieldRepresentation>& header_list, const Buffer& buff,
                   bool /*update_table*/) {
    if (header_list.empty()) header_list.reserve(std::min(buff.Length(), kUsualFields));
    // A field without a string of its own, be it a name or a value, has the last string's flag.
    bool name_huffman = true;
    bool value_huffman = true;
    std::string decoded_name;
    std::string decoded_value;
    uint32_t offset = 0;
    while (offset < buff.Length()) {
        const auto first = static_cast<uint8_t>(buff.Get(offset));
        HeaderFieldRepresentation header;
        HeaderField& field = header.Field();
        if ((first & kIndexed.pattern) != 0) {
            const uint32_t index = DecodeInteger(buff, offset, kIndexed.prefix_length);
            const HeaderField* entry = FieldAt(dynamic_table_, index);
            if (entry == nullptr) return false;
            field.ShareText(*entry);
            field.SetNameUseHuffman(name_huffman);
            field.SetValueUseHuffman(value_huffman);
            header.Type() = HeaderField::INDEXED_HEADER_FIELD;
            header_list.push_back(std::move(header));
            continue;
        }
        Representation form = kLiteralWithoutIndexing;
        header.Type() = HeaderField::LITERAL_HEADER_FIELD_WITHOUT_INDEXING;
        if ((first & kLiteralIncremental.pattern) != 0) {
            form = kLiteralIncremental;
            header.Type() = HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING;
        } else if ((first & kSizeUpdate.pattern) != 0) {
            UpdateSize(DecodeInteger(buff, offset, kSizeUpdate.prefix_length));
            continue;
        } else if ((first & kLiteralNeverIndexed.pattern) != 0) {
            form = kLiteralNeverIndexed;
            header.Type() = HeaderField::LITERAL_HEADER_FIELD_NEVER_INDEXED;
        }

        const uint32_t name_index = DecodeInteger(buff, offset, form.prefix_length);
        const HeaderField* entry = nullptr;
        std::string_view name;
        if (name_index != 0) {
            entry = FieldAt(dynamic_table_, name_index);
            if (entry == nullptr) return false;
        } else if (!DecodeString(buff, offset, name, name_huffman, decoded_name)) {
            return false;
        }
        std::string_view value;
        if (!DecodeString(buff, offset, value, value_huffman, decoded_value)) return false;
        if (entry != nullptr) {
            field.ShareName(*entry, value);
        } else {
            field.SetText(name, value);
        }
        field.SetNameUseHuffman(name_huffman);
        field.SetValueUseHuffman(value_huffman);
        if (header.Type() == HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING) {
            AppendToTable(dynamic_table_, dynamic_table_size_max_, field);
        }
        header_list.push_back(std::move(header));
    }
    return true;
}

}  // namespace hpack
