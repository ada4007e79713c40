#ifndef HTTP2CLIENT_HPACK_H
#define HTTP2CLIENT_HPACK_H

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "buffer.h"

namespace hpack {

// A text that its copies share and nobody changes. A header list that refers to one table entry
// thousands of times, at a byte a reference, holds the entry's text once.
class SharedText {
public:
    SharedText() = default;
    explicit SharedText(std::string_view text) {
        if (!text.empty()) m_text = std::make_shared<const std::string>(text);
    }
    // A name and a value, in one block of memory where neither is empty.
    static std::pair<SharedText, SharedText> pair(std::string_view name, std::string_view value);
    const std::string& str() const { return m_text == nullptr ? emptyText() : *m_text; }

private:
    static const std::string& emptyText();

    std::shared_ptr<const std::string> m_text;  // null for the empty text
};

// A header name and value, and whether each is (to be) sent Huffman-coded.
class HeaderField {
public:
    HeaderField() = default;
    HeaderField(const std::string& name, const std::string& value) { SetText(name, value); }
    HeaderField(bool nameUseHuffman, bool valueUseHuffman, const std::string& name,
                const std::string& value)
        : m_nameUseHuffman(nameUseHuffman), m_valueUseHuffman(valueUseHuffman) {
        SetText(name, value);
    }

    // How a field stands in a header block (RFC 7541, 6).
    enum HEADER_FIELD_TYPE : int {
        INDEXED_HEADER_FIELD = 0,
        LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING = 1,
        LITERAL_HEADER_FIELD_WITHOUT_INDEXING = 2,
        LITERAL_HEADER_FIELD_NEVER_INDEXED = 3
    };

    // The texts stay valid until they are set again or the field ends.
    const std::string& Name() const { return m_name.str(); }
    const std::string& Value() const { return m_value.str(); }
    void SetName(const std::string& name) { m_name = SharedText(name); }
    void SetValue(const std::string& value) { m_value = SharedText(value); }
    void SetText(std::string_view name, std::string_view value) {
        std::tie(m_name, m_value) = SharedText::pair(name, value);
    }
    // Takes over the other field's name, or name and value, without copying a byte of it.
    void ShareName(const HeaderField& other, std::string_view value) {
        m_name = other.m_name;
        m_value = SharedText(value);
    }
    void ShareText(const HeaderField& other) {
        m_name = other.m_name;
        m_value = other.m_value;
    }
    bool NameUseHuffman() const { return m_nameUseHuffman; }
    bool ValueUseHuffman() const { return m_valueUseHuffman; }
    bool SetNameUseHuffman(bool use) {
        m_nameUseHuffman = use;
        return true;
    }
    bool SetValueUseHuffman(bool use) {
        m_valueUseHuffman = use;
        return true;
    }

private:
    bool m_nameUseHuffman = true;
    bool m_valueUseHuffman = true;
    SharedText m_name;
    SharedText m_value;
};

// A header field and the representation it is sent as or came in.
class HeaderFieldRepresentation {
public:
    HeaderField& Field() { return m_headerField; }
    HeaderField::HEADER_FIELD_TYPE& Type() { return m_type; }
    const HeaderField& constField() const { return m_headerField; }
    const HeaderField::HEADER_FIELD_TYPE& constType() const { return m_type; }

private:
    HeaderField m_headerField;
    HeaderField::HEADER_FIELD_TYPE m_type = HeaderField::INDEXED_HEADER_FIELD;
};

// The static table and one dynamic table, and the header-block coder over both (RFC 7541).
//
// Indexes 1 to 61 are the static table, 62 is the newest dynamic entry. Not locked: belongs to
// one thread at a time.
class Table {
public:
    // Makes `header` entry 62 and drops the oldest entries above the limit (at a limit of 0 the
    // new one too).
    void Append(const HeaderField& header);

    // With a value: the lowest index whose name and value match. With an empty value: the lowest
    // index whose name matches. 0 when there is none.
    uint32_t Find(const std::string& name, const std::string& value);

    // Sets the limit, in entries, and drops the oldest entries above it.
    void UpdateSize(uint32_t size);

    // Appends the fields of those elements that are literals with incremental indexing.
    void Update(const std::vector<HeaderFieldRepresentation>& header_list);

    // Writes the dynamic entries to standard output, a line each, newest first.
    void Print();

    // Replaces `encoded_buffer` by the header block of `header_list`. Returns true. Never changes
    // the table, whatever `update` says. An element whose type is none of the four emits nothing.
    bool Encode(Buffer& encoded_buffer, const std::vector<HeaderFieldRepresentation>& header_list,
                bool update);

    // Appends the fields of the block in `buff` to `header_list`. Returns false at the first field
    // that cannot be decoded: index 0, an index beyond the table, a string beyond the block, or a
    // Huffman-coded string other than the empty one. Fields and table entries from before it stay.
    // The table takes up literals with incremental indexing whatever `update_table` says.
    bool Decode(std::vector<HeaderFieldRepresentation>& header_list, const Buffer& buff,
                bool update_table);

private:
    // RFC 7541, 4.1 counts the table's limit in octets, 32 an entry on top of its text. This table
    // counts entries, and no server's size update means to it what the server meant. Which
    // references resolve follows from that, so it stays.
    uint32_t dynamic_table_size_max_ = 4096;
    std::deque<HeaderField> dynamic_table_;  // newest first; at most dynamic_table_size_max_ long
};

}  // namespace hpack

#endif  // HTTP2CLIENT_HPACK_H
