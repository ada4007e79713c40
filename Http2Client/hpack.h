#ifndef HTTP2CLIENT_HPACK_H
#define HTTP2CLIENT_HPACK_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "buffer.h"

namespace hpack {

// A text that its copies share, so that a received block with a million one-byte references to a
// long table entry stores that entry's text once.
//
// A change affects no copy. A text without copies changes in place, so that earlier references
// from str() show the new contents; otherwise they show the former contents as long as a copy has
// them. Several threads may copy and destroy copies of one text. Moving copies.
class SharedText {
public:
    explicit SharedText(const std::string& text) : m_text(new Text{{1}, text}) {}
    // cppcheck-suppress copyCtorPointerCopying ; the copies share the text
    SharedText(const SharedText& other) : m_text(other.m_text) {
        m_text->holders.fetch_add(1, std::memory_order_relaxed);
    }
    ~SharedText() {
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): it does not follow the count
        if (m_text->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) delete m_text;
    }
    // In place, like set(), when this text has no copies.
    SharedText& operator=(const SharedText& other);

    const std::string& str() const { return m_text->text; }
    void set(const std::string& text);
    void share(const SharedText& other);  // becomes a copy, whatever references show then

private:
    struct Text {
        std::atomic<size_t> holders;
        std::string text;
    };
    bool hasNoCopies() const { return m_text->holders.load(std::memory_order_acquire) == 1; }

    Text* m_text;  // never null
};

// A header name and value, and whether each is (to be) sent Huffman-coded.
class HeaderField {
public:
    HeaderField() : HeaderField(std::string(), std::string()) {}
    HeaderField(const std::string& name, const std::string& value)
        : HeaderField(true, true, name, value) {}
    HeaderField(bool nameUseHuffman, bool valueUseHuffman, const std::string& name,
                const std::string& value)
        : m_nameUseHuffman(nameUseHuffman),
          m_valueUseHuffman(valueUseHuffman),
          m_name(name),
          m_value(value) {}

    // How a field stands in a header block (RFC 7541, 6).
    enum HEADER_FIELD_TYPE : int {
        INDEXED_HEADER_FIELD = 0,
        LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING = 1,
        LITERAL_HEADER_FIELD_WITHOUT_INDEXING = 2,
        LITERAL_HEADER_FIELD_NEVER_INDEXED = 3
    };

    // A reference stays valid when the text is set again. It then shows the new text, unless
    // another field shares the former one: then it shows that, as long as that field has it.
    const std::string& Name() const { return m_name.str(); }
    const std::string& Value() const { return m_value.str(); }
    void SetName(const std::string& name) { m_name.set(name); }
    void SetValue(const std::string& value) { m_value.set(value); }
    // Take over the other field's text without copying a byte of it.
    void ShareName(const HeaderField& other) { m_name.share(other.m_name); }
    void ShareValue(const HeaderField& other) { m_value.share(other.m_value); }
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
    bool m_nameUseHuffman;
    bool m_valueUseHuffman;
    SharedText m_name;
    SharedText m_value;
};

// A header field and the representation it is sent as or came in.
//
// Received lists have up to one entry for each byte of a block, so its size matters.
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
static_assert(sizeof(HeaderFieldRepresentation) == 32, "an entry of a received list stays small");

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
    void Update(std::vector<HeaderFieldRepresentation> header_list);

    // Writes the dynamic entries to standard output, a line each, newest first.
    void Print();

    // Replaces `encoded_buffer` by the header block of `header_list`. Returns true. Never changes
    // the table, whatever `update` says. An element whose type is none of the four emits nothing.
    bool Encode(Buffer& encoded_buffer, std::vector<HeaderFieldRepresentation> header_list,
                bool update);

    // Appends the fields of the block in `buff` to `header_list`. Returns false at the first field
    // that cannot be decoded: index 0, an index beyond the table, a string beyond the block, or a
    // Huffman-coded string other than the empty one. Fields and table entries from before it stay.
    // The table takes up literals with incremental indexing whatever `update_table` says.
    bool Decode(std::vector<HeaderFieldRepresentation>& header_list, const Buffer& buff,
                bool update_table);

private:
    // RFC 7541, 4.1 counts the table's limit in octets, 32 for each entry on top of its text. This
    // table counts entries, also in a server's size update. Which references resolve depends on
    // that, so it stays.
    uint32_t dynamic_table_size_max_ = 4096;
    // Newest first; at most dynamic_table_size_max_ long. A deque, since a server's every literal
    // may put an entry in front, which a vector would make room for by moving all others.
    std::deque<HeaderField> dynamic_table_;
};

}  // namespace hpack

#endif  // HTTP2CLIENT_HPACK_H
