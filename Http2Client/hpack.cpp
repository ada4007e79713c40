#include "hpack.h"

#include <algorithm>
#include <iostream>
#include <utility>

#include "huffman.h"

namespace {

using hpack::HeaderField;
using hpack::HeaderFieldRepresentation;

constexpr uint32_t kFirstDynamicIndex = 62;

// RFC 7541, Appendix A, behind an entry 0 that no index refers to. Entry 58 is "user-agent" there.
// Here it is spelt as below, so a request's user-agent goes out with its name in full, and a
// server's index 58 reads as this name. Existing programs and servers see these names, so it stays.
// clang-format off
const HeaderField static_table[kFirstDynamicIndex] = {
    {"", ""}, {":authority", ""}, {":method", "GET"}, {":method", "POST"}, {":path", "/"},
    {":path", "/index.html"}, {":scheme", "http"}, {":scheme", "https"}, {":status", "200"},
    {":status", "204"}, {":status", "206"}, {":status", "304"}, {":status", "400"},
    {":status", "404"}, {":status", "500"}, {"accept-charset", ""},
    {"accept-encoding", "gzip, deflate"}, {"accept-language", ""}, {"accept-ranges", ""},
    {"accept", ""}, {"access-control-allow-origin", ""}, {"age", ""}, {"allow", ""},
    {"authorization", ""}, {"cache-control", ""}, {"content-disposition", ""},
    {"content-encoding", ""}, {"content-language", ""}, {"content-length", ""},
    {"content-location", ""}, {"content-range", ""}, {"content-type", ""}, {"cookie", ""},
    {"date", ""}, {"etag", ""}, {"expect", ""}, {"expires", ""}, {"from", ""}, {"host", ""},
    {"if-match", ""}, {"if-modified-since", ""}, {"if-none-match", ""}, {"if-range", ""},
    {"if-unmodified-since", ""}, {"last-modified", ""}, {"link", ""}, {"location", ""},
    {"max-forwards", ""}, {"proxy-authenticate", ""}, {"proxy-authorization", ""}, {"range", ""},
    {"referer", ""}, {"refresh", ""}, {"retry-after", ""}, {"server", ""}, {"set-cookie", ""},
    {"strict-transport-security", ""}, {"transfer-encoding", ""}, {"user-agend", ""}, {"vary", ""},
    {"via", ""}, {"www-authenticate", ""},
};
// clang-format on

// Entry N is the all-ones value of an N-bit prefix (RFC 7541, 5.1).
const uint8_t prefix_max[9] = {0, 1, 3, 7, 15, 31, 63, 127, 255};
constexpr uint8_t kMaxPrefixLength = 8;

constexpr unsigned int kUsualFields = 16;  // of a header block

// First-byte pattern and prefix length of each representation (RFC 7541, 6), indexed by
// HEADER_FIELD_TYPE; the size update, which stands for no field, comes last. No pattern begins
// like another, and every first byte begins like one of them.
struct Representation {
    uint8_t pattern;
    uint8_t prefix_length;
};
const Representation representations[] = {{0x80, 7}, {0x40, 6}, {0x00, 4}, {0x10, 4}, {0x20, 5}};
constexpr uint32_t kSizeUpdate = 4;

constexpr uint8_t kHuffmanBit = 0x80;
constexpr uint8_t kStringPrefixLength = 7;

uint32_t RepresentationOf(uint8_t first_byte) {
    uint32_t type = 0;
    while ((first_byte ^ representations[type].pattern) >> representations[type].prefix_length) {
        ++type;
    }
    return type;
}

void AppendToTable(std::deque<HeaderField>& dynamic_table, uint32_t dynamic_table_size_max,
                   HeaderField header) {
    dynamic_table.push_front(std::move(header));
    while (dynamic_table.size() > dynamic_table_size_max) dynamic_table.pop_back();
}

// Null for index 0 and beyond the dynamic table.
const HeaderField* EntryAt(const std::deque<HeaderField>& dynamic_table, size_t index) {
    if (index == 0) return nullptr;
    if (index < kFirstDynamicIndex) return &static_table[index];
    const size_t position = index - kFirstDynamicIndex;
    return position < dynamic_table.size() ? &dynamic_table[position] : nullptr;
}

uint32_t FindFromTable(const std::deque<HeaderField>& dynamic_table, const std::string& name,
                       const std::string& value) {
    for (uint32_t i = 1; const HeaderField* entry = EntryAt(dynamic_table, i); ++i) {
        if (entry->Name() == name && (value.empty() || entry->Value() == value)) return i;
    }
    return 0;
}

// Replaces `buff` by the integer `i` (RFC 7541, 5.1).
//
// The buffer's length comes from a formula, not from the bytes written. From 256 above the prefix
// on it may be too long; the surplus bytes are what the buffer held before, or zeros. The RFC has
// no such bytes; existing servers get them, so they stay.
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
// RFC 7541, 5.1 takes the low seven bits of each continuation byte. This decoder adds the whole
// byte, with its sign, and takes it from position `offset` modulo 128. That is exact for a single
// continuation byte below 0x80 among the block's first 128 bytes, and wrong for all others. Which
// headers an application sees depends on that, so it stays.
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
// A text with a NUL byte announces its whole length and ends before that byte. A flagged text is
// lost and goes out as the empty Huffman string: the coder is given an empty buffer of the text's
// capacity. Existing servers get these bytes, so they stay. The request builder clears the flags.
void EncodeString(Buffer& encoded_buffer, const std::string& text, bool use_huffman,
                  Buffer& encode_int, Buffer& huff) {
    const auto length = static_cast<uint32_t>(text.size());
    if (!use_huffman) {
        EncodeInteger(encode_int, length, kStringPrefixLength, 0x00);
        encoded_buffer.Append(encode_int);
        encoded_buffer += text.c_str();
        return;
    }
    hpack::Huffman::GetInstance();
    hpack::Huffman::Encode(huff, Buffer(length));
    EncodeInteger(encode_int, huff.Length(), kStringPrefixLength, kHuffmanBit);
    encoded_buffer.Append(encode_int);
    encoded_buffer.Append(huff);
}

// Reads the string literal at `offset` into `text` and its H bit into `use_huffman`, and moves
// `offset` behind it. Returns false when the string runs past the block or is Huffman-coded and
// does not decode.
bool DecodeString(const Buffer& buff, uint32_t& offset, std::string& text, bool& use_huffman) {
    use_huffman = (static_cast<uint8_t>(buff.Get(offset)) & kHuffmanBit) != 0;
    const uint32_t length = DecodeInteger(buff, offset, kStringPrefixLength);
    text.clear();
    if (length == 0) return true;
    if (offset >= buff.Length() || length > buff.Length() - offset) return false;
    const char* start = buff.Address(offset);
    offset += length;
    if (!use_huffman) {
        text.assign(start, length);
        return true;
    }
    Buffer decoded;
    hpack::Huffman::GetInstance();
    if (!hpack::Huffman::Decode(decoded, Buffer(start, length))) return false;
    // The coder decodes no string but the empty one. GCOVR_EXCL_START
    text.append(decoded.buffer, decoded.len);
    return true;
    // GCOVR_EXCL_STOP
}

}  // namespace

namespace hpack {

SharedText& SharedText::operator=(const SharedText& other) {
    if (this == &other) return *this;
    if (hasNoCopies()) {
        m_text->text = other.str();
    } else {
        share(other);
    }
    return *this;
}

void SharedText::set(const std::string& text) {
    if (hasNoCopies()) {
        m_text->text = text;
    } else {
        share(SharedText(text));
    }
}

void SharedText::share(const SharedText& other) {
    if (m_text == other.m_text) return;
    SharedText former(other);
    std::swap(m_text, former.m_text);
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

void Table::Update(std::vector<HeaderFieldRepresentation> header_list) {
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
bool Table::Encode(Buffer& encoded_buffer, std::vector<HeaderFieldRepresentation> header_list,
                   bool /*update*/) {
    Buffer encode_int;
    Buffer huff;
    encoded_buffer.Clear();
    for (HeaderFieldRepresentation& header : header_list) {
        const HeaderField& field = header.constField();
        HeaderField::HEADER_FIELD_TYPE& type = header.Type();
        uint32_t index = 0;
        if (type == HeaderField::INDEXED_HEADER_FIELD) {
            index = Find(field.Name(), field.Value());
            if (index == 0) type = HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING;
        }
        if (static_cast<uint32_t>(type) >= kSizeUpdate) continue;
        const Representation& form = representations[type];
        const bool literal = type != HeaderField::INDEXED_HEADER_FIELD;
        if (literal) index = Find(field.Name(), "");
        if (index != 0) {
            EncodeInteger(encode_int, index, form.prefix_length, form.pattern);
            encoded_buffer.Append(encode_int);
        } else {
            encoded_buffer.Append(static_cast<char>(form.pattern));
            EncodeString(encoded_buffer, field.Name(), field.NameUseHuffman(), encode_int, huff);
        }
        if (!literal) continue;
        EncodeString(encoded_buffer, field.Value(), field.ValueUseHuffman(), encode_int, huff);
    }
    return true;
}

// Each field starts as a copy of the one before, so a name or value that is no string of its own
// has the flag of the last string. All empty strings share the texts of entry 0.
bool Table::Decode(std::vector<HeaderFieldRepresentation>& header_list, const Buffer& buff,
                   bool /*update_table*/) {
    if (header_list.empty()) header_list.reserve(std::min(buff.Length(), kUsualFields));
    HeaderFieldRepresentation header;
    HeaderField& field = header.Field();
    std::string text;
    bool use_huffman = false;
    uint32_t offset = 0;
    while (offset < buff.Length()) {
        const uint32_t type = RepresentationOf(static_cast<uint8_t>(buff.Get(offset)));
        const uint32_t index = DecodeInteger(buff, offset, representations[type].prefix_length);
        if (type == kSizeUpdate) {
            UpdateSize(index);
            continue;
        }
        header.Type() = static_cast<HeaderField::HEADER_FIELD_TYPE>(type);
        const bool literal = type != HeaderField::INDEXED_HEADER_FIELD;
        const bool new_name = literal && index == 0;
        const HeaderField* entry = EntryAt(dynamic_table_, index);
        if (entry == nullptr && !new_name) return false;
        if (new_name) {
            if (!DecodeString(buff, offset, text, use_huffman)) return false;
            text.empty() ? field.ShareName(static_table[0]) : field.SetName(text);
            field.SetNameUseHuffman(use_huffman);
        } else {
            field.ShareName(*entry);
        }
        if (literal) {
            if (!DecodeString(buff, offset, text, use_huffman)) return false;
            text.empty() ? field.ShareValue(static_table[0]) : field.SetValue(text);
            field.SetValueUseHuffman(use_huffman);
        } else {
            field.ShareValue(*entry);
        }
        header_list.push_back(header);
        if (type == HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING) Append(field);
    }
    return true;
}

}  // namespace hpack
