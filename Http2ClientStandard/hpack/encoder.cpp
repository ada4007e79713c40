#include "Http2ClientStandard/hpack/encoder.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>

#include "Http2ClientStandard/base/load.h"
#include "Http2ClientStandard/hpack/huffman.h"
#include "Http2ClientStandard/hpack/static_table.h"

namespace h2::hpack {

namespace {

// First-byte pattern and prefix length of each representation (RFC 7541, 6).
struct Representation {
    uint8_t pattern;
    uint8_t prefixBits;
};
constexpr Representation kIndexed{0x80, 7};
constexpr Representation kIncremental{0x40, 6};
constexpr Representation kSizeUpdate{0x20, 5};
constexpr Representation kNeverIndexed{0x10, 4};
constexpr Representation kWithoutIndexing{0x00, 4};
constexpr Representation kHuffmanString{0x80, 7};
constexpr Representation kPlainString{0x00, 7};

constexpr size_t kMaxIntegerSize = 6;      // of 32 bits behind any prefix
constexpr uint32_t kOneByteLengths = 127;  // strings below this length

// Writes `value` and returns where it ends (RFC 7541, 5.1).
char* writeInteger(char* out, Representation representation, uint32_t value) {
    const uint32_t prefixMax = (1U << representation.prefixBits) - 1;
    if (value < prefixMax) {
        *out++ = static_cast<char>(representation.pattern | value);
        return out;
    }
    *out++ = static_cast<char>(representation.pattern | prefixMax);
    for (value -= prefixMax; value >= 0x80; value >>= 7) {
        *out++ = static_cast<char>(0x80 | (value & 0x7F));
    }
    *out++ = static_cast<char>(value);
    return out;
}

// Writes `text` as it takes fewer bytes, and returns where it ends.
char* writeString(char* out, std::string_view text) {
    // The length stands in front, and mostly takes one byte: the text is moved when it takes more.
    char* const begin = out + 1;
    if (char* const end = encodeHuffman(text, begin)) {
        const auto size = static_cast<uint32_t>(end - begin);
        if (size >= kOneByteLengths) {
            char head[kMaxIntegerSize];
            std::memmove(writeInteger(head, kHuffmanString, size) - head + out, begin, size);
        }
        return writeInteger(out, kHuffmanString, size) + size;
    }
    out = writeInteger(out, kPlainString, static_cast<uint32_t>(text.size()));
    if (!text.empty()) std::memcpy(out, text.data(), text.size());
    return out + text.size();
}

// Depends on the text's length and on 24 bytes of it. What is found by it is compared in full, and
// the table is so small that this also bounds what texts made to collide can cost.
constexpr uint64_t digest(std::string_view text) {
    const char* bytes = text.data();
    const size_t size = text.size();
    if (size <= 8) return loadUpTo8(bytes, size) + size;
    uint64_t mixed = load64(bytes) + std::rotl(load64(bytes + size - 8), 29);
    if (size > 16) mixed += std::rotl(load64(bytes + size / 2 - 4), 41);
    return mixed + size;
}

constexpr uint32_t hashOf(uint64_t nameDigest, uint64_t valueDigest = 0) {
    const uint64_t sum = nameDigest * 0x9E3779B97F4A7C15 + valueDigest * 0xC2B2AE3D27D4EB4F;
    return static_cast<uint32_t>((sum ^ sum >> 32) * 0x9E3779B97F4A7C15 >> 32);
}

// Indexes of the static table by hash; 0: free. Who does not find the index looked for in its slot
// goes on to the next.
constexpr size_t kSlots = 256;
using Slots = std::array<uint8_t, kSlots>;

constexpr void enter(Slots& slots, uint8_t index, uint32_t hash) {
    size_t slot = hash % kSlots;
    while (slots[slot] != 0) slot = (slot + 1) % kSlots;
    slots[slot] = index;
}

constexpr Slots kStaticFieldSlots = [] {
    Slots slots{};
    for (uint8_t index = 1; index <= kStaticFields; ++index) {
        const auto& [name, value] = kStaticTable[index - 1];
        enter(slots, index, hashOf(digest(name), digest(value)));
    }
    return slots;
}();

// The first index of each name.
constexpr Slots kStaticNameSlots = [] {
    Slots slots{};
    for (uint8_t index = 1; index <= kStaticFields; ++index) {
        const std::string_view name = kStaticTable[index - 1].name;
        if (index > 1 && kStaticTable[index - 2].name == name) continue;
        enter(slots, index, hashOf(digest(name)));
    }
    return slots;
}();

// The index of the field in the static table; 0 when it is not there.
uint32_t findStaticField(const Field& field, uint32_t hash) {
    for (size_t slot = hash % kSlots; kStaticFieldSlots[slot] != 0; slot = (slot + 1) % kSlots) {
        const auto& [name, value] = kStaticTable[kStaticFieldSlots[slot] - 1];
        if (sameText(name, field.name) && sameText(value, field.value)) {
            return kStaticFieldSlots[slot];
        }
    }
    return 0;
}

uint32_t findStaticName(std::string_view name, uint32_t hash) {
    for (size_t slot = hash % kSlots; kStaticNameSlots[slot] != 0; slot = (slot + 1) % kSlots) {
        if (sameText(kStaticTable[kStaticNameSlots[slot] - 1].name, name)) {
            return kStaticNameSlots[slot];
        }
    }
    return 0;
}

enum class Policy : uint8_t {
    kIndex,
    kVaries,  // differs from request to request, and would push out what does not
    kSecret,  // worth guessing: RFC 7541, 7.1.3
};

constexpr Policy policyOf(std::string_view name) {
    for (const char* secret : {"authorization", "proxy-authorization"}) {
        if (name == secret) return Policy::kSecret;
    }
    for (const char* varying :
         {":path", "age", "content-length", "content-range", "date", "etag", "if-modified-since",
          "if-none-match", "if-range", "if-unmodified-since", "last-modified", "location", "range",
          "set-cookie"}) {
        if (name == varying) return Policy::kVaries;
    }
    return Policy::kIndex;
}

constexpr std::array<Policy, kStaticFields + 1> kPolicies = [] {
    std::array<Policy, kStaticFields + 1> policies{};  // [0]: names that are not in the table
    for (uint32_t i = 1; i <= kStaticFields; ++i) policies[i] = policyOf(kStaticTable[i - 1].name);
    return policies;
}();

constexpr uint32_t kCookie = 32;         // its index in the static table
constexpr size_t kGuessableCookie = 20;  // bytes below which a cookie is worth guessing

Representation representationOf(const Field& field, uint32_t staticName, uint32_t tableSize) {
    const Policy policy = kPolicies[staticName];
    if (field.neverIndexed || policy == Policy::kSecret) return kNeverIndexed;
    if (staticName == kCookie && field.value.size() < kGuessableCookie) return kNeverIndexed;
    // An entry that takes more than half of the table would push out too many others.
    const uint64_t size = DynamicTable<int>::entrySize(field.name, field.value);
    if (policy == Policy::kVaries || size > tableSize / 2) return kWithoutIndexing;
    return kIncremental;
}

}  // namespace

Encoder::Encoder(uint32_t maxTableSize)
    : m_table(kInitialTableSize),
      m_ownLimit(maxTableSize),
      m_size(std::min(maxTableSize, kInitialTableSize)),
      m_smallestSize(m_size) {
    changeState();
}

void Encoder::setPeerTableSize(uint32_t octets) {
    m_size = std::min(octets, m_ownLimit);
    m_smallestSize = std::min(m_smallestSize, m_size);
}

void Encoder::encode(Bytes& out, std::span<const Field> fields) {
    begin(out);
    add(out, fields);
}

void Encoder::begin(Bytes& out) {
    if (m_smallestSize < m_table.maxSize()) setTableSize(out, m_smallestSize);
    if (m_size != m_table.maxSize()) setTableSize(out, m_size);
    m_smallestSize = m_size;
}

void Encoder::add(Bytes& out, std::span<const Field> fields) {
    for (const Field& field : fields) encodeField(out, field);
}

void Encoder::add(Bytes& out, KeptFields& kept, std::span<const Field> fields) {
    if (kept.m_tableState == m_state) {
        out.append(kept.m_bytes.view());
        return;
    }
    const uint64_t before = m_state;
    const size_t start = out.size();
    add(out, fields);
    kept.clear();
    if (m_state != before) return;
    kept.m_bytes.clear();
    kept.m_bytes.append(out.view().substr(start));
    kept.m_tableState = m_state;
}

// A field that must be a literal is looked up all the same: what must not be indexed is in neither
// table, but for empty values, which give nothing away.
void Encoder::encodeField(Bytes& out, const Field& field) {
    const uint64_t name = digest(field.name);
    Hashes hashes{{0, hashOf(name, digest(field.value))}};
    uint32_t index = 0;
    if (!field.neverIndexed) {
        index = findStaticField(field, hashes.by[kNameAndValue]);
        if (index == 0) index = findEntry(kNameAndValue, hashes, field);
    }
    if (index == 0) {
        hashes.by[kName] = hashOf(name);
        encodeLiteral(out, field, hashes);
        return;
    }
    char* const begin = out.room(kMaxIntegerSize);
    out.commit(static_cast<size_t>(writeInteger(begin, kIndexed, index) - begin));
}

void Encoder::encodeLiteral(Bytes& out, const Field& field, const Hashes& hashes) {
    const uint32_t staticName = findStaticName(field.name, hashes.by[kName]);
    const uint32_t nameIndex = staticName != 0 ? staticName : findEntry(kName, hashes, field);
    const Representation literal = representationOf(field, staticName, m_table.maxSize());

    const size_t room = field.name.size() + field.value.size() + 3 * kMaxIntegerSize;
    char* const begin = out.room(room + kHuffmanSlack);
    char* at = writeInteger(begin, literal, nameIndex);
    if (nameIndex == 0) at = writeString(at, field.name);
    at = writeString(at, field.value);
    out.commit(static_cast<size_t>(at - begin));
    if (literal.pattern == kIncremental.pattern) insert(field, hashes);
}

// The index of the newest entry with the field's name, or with its name and value; 0: none.
uint32_t Encoder::findEntry(Key key, const Hashes& hashes, const Field& field) {
    if (m_bucketCount == 0) return 0;
    const uint32_t hash = hashes.by[key];
    uint64_t number = m_buckets[key * m_bucketCount + (hash & (m_bucketCount - 1))];
    while (m_table.contains(number)) {
        const auto& entry = m_table.entry(number);
        if (entry.tag.hashes.by[key] == hash && sameText(entry.name(), field.name) &&
            (key == kName || sameText(entry.value(), field.value))) {
            return static_cast<uint32_t>(kStaticFields + (m_table.end() - number));
        }
        number = entry.tag.older[key];
    }
    return 0;
}

void Encoder::insert(const Field& field, const Hashes& hashes) {
    m_table.insert(field.name, field.value, Links{hashes, {}});
    changeState();
    if (2 * m_table.count() > m_bucketCount) {
        growBuckets();
        return;
    }
    const uint64_t number = m_table.end() - 1;
    for (size_t key = 0; key < kKeys; ++key) {
        uint64_t& bucket = m_buckets[key * m_bucketCount + (hashes.by[key] & (m_bucketCount - 1))];
        m_table.entry(number).tag.older[key] = bucket;
        bucket = number;
    }
}

// Chains all entries anew.
void Encoder::growBuckets() {
    m_bucketCount = std::max<uint64_t>(16, 2 * m_bucketCount);
    m_buckets.reset(new uint64_t[kKeys * m_bucketCount]());
    for (uint64_t number = m_table.oldest(); number != m_table.end(); ++number) {
        Links& links = m_table.entry(number).tag;
        for (size_t key = 0; key < kKeys; ++key) {
            uint64_t& bucket =
                m_buckets[key * m_bucketCount + (links.hashes.by[key] & (m_bucketCount - 1))];
            links.older[key] = bucket;
            bucket = number;
        }
    }
}

void Encoder::setTableSize(Bytes& out, uint32_t octets) {
    char* const begin = out.room(kMaxIntegerSize);
    out.commit(static_cast<size_t>(writeInteger(begin, kSizeUpdate, octets) - begin));
    m_table.setMaxSize(octets);
    changeState();
}

// States are never used twice in a process, so that what is kept of one connection's block is not
// taken for another's. Each encoder counts through 2^32 states and then takes another such range.
void Encoder::changeState() {
    static std::atomic<uint64_t> ranges{0};
    if (static_cast<uint32_t>(++m_state) > 1) return;
    m_state = (ranges.fetch_add(1, std::memory_order_relaxed) + 1) << 32 | 1;
}

}  // namespace h2::hpack
