#include "inputs.h"

#include <algorithm>
#include <cstring>

#include "tests/support/bytes.h"

namespace bench {

using namespace h2test;  // the vocabulary of wire bytes

namespace {

constexpr size_t kStreamSize = size_t{1} << 20;
constexpr size_t kMixedDataSize = 1000;
constexpr size_t kMixedFields = 10;
// "user-agent" to most, and another name in this client's table: both sides need the same fields.
constexpr uint64_t kDisputedIndex = 58;

const Fields kRequest = {
    {":method", "GET"},
    {":scheme", "http"},
    {":path", "/articles/2026/november/index.html?page=7"},
    {"host", "www.example.com"},
    {"user-agent", "Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0"},
    {"accept", "text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8"},
    {"accept-language", "en-GB,en;q=0.7,de;q=0.3"},
    {"accept-encoding", "gzip, deflate, br, zstd"},
};

const Fields kResponse = {
    {":status", "200"},
    {"server", "nghttpd nghttp2/1.52.0"},
    {"date", "Sat, 21 Nov 2026 07:55:19 GMT"},
    {"content-type", "text/html; charset=utf-8"},
    {"content-length", "10485760"},
    {"cache-control", "max-age=3600, must-revalidate"},
    {"last-modified", "Fri, 20 Nov 2026 21:12:47 GMT"},
    {"etag", "\"5f3e6b1c-2a9d40\""},
    {"vary", "accept-encoding"},
    {"via", "2 proxy.example.com"},
};

// '&', '*', 'X' and 'Z' have Huffman codes of 8 bits (RFC 7541, Appendix B).
std::string incompressible(size_t length, const char* two) {
    std::string out(length, two[0]);
    for (size_t i = 1; i < length; i += 2) out[i] = two[1];
    return out;
}

std::string numbered(std::string text, size_t number) {
    text[text.size() - 2] = static_cast<char>('0' + number / 10 % 10);
    text[text.size() - 1] = static_cast<char>('0' + number % 10);
    return text;
}

// As many frames as come to about kStreamSize bytes.
std::string repeatedToSize(const std::string& frames) {
    std::string out;
    while (out.size() + frames.size() / 2 < kStreamSize) out += frames;
    return out;
}

}  // namespace

Fields requestFields(size_t count, Text text) {
    const bool plain = text == Text::kIncompressible;
    Fields fields = kRequest;
    for (size_t i = 2; plain && i < fields.size(); ++i) {
        fields[i].second = incompressible(fields[i].second.size(), "XZ");
    }
    const std::string name = plain ? incompressible(14, "&*") : "x-custom-field";
    const std::string value = plain ? incompressible(26, "XZ") : "a value of a usual length.";
    for (size_t i = fields.size(); i < count; ++i) {
        fields.emplace_back(numbered(name + "00", i), value);
    }
    return fields;
}

Fields responseFields(size_t count) {
    Fields fields = kResponse;
    for (size_t i = fields.size(); i < count; ++i) {
        fields.emplace_back(numbered("x-custom-field00", i), "a value of a usual length.");
    }
    fields.resize(count);
    return fields;
}

std::string literalBlock(const Fields& fields) {
    std::string block;
    for (const auto& [name, value] : fields) block += hpackLiteral(name, value);
    return block;
}

std::string incrementalBlock(const Fields& fields) {
    std::string block;
    for (const auto& [name, value] : fields) {
        block += hpackLiteral(name, value, Literal::kIncremental);
    }
    return block;
}

std::string indexedBlock(size_t count) {
    std::string block;
    for (uint64_t index = 2; count > 0; ++index) {
        if (index == kDisputedIndex) continue;
        block += hpackIndexed(index);
        --count;
    }
    return block;
}

std::string openedStream() { return settings({}) + headers(1, literalBlock(mixedStreamFields())); }

std::string dataStream(size_t frameSize) {
    return repeatedToSize(data(1, std::string(frameSize, 'd')));
}

Fields mixedStreamFields() { return responseFields(kMixedFields); }

std::string mixedStream() {
    return repeatedToSize(headers(1, literalBlock(mixedStreamFields())) +
                          data(1, std::string(kMixedDataSize, 'd')));
}

size_t BodySource::read(char* buffer, size_t size) {
    const size_t count = std::min(size, m_body.size() - m_offset);
    std::memcpy(buffer, m_body.data() + m_offset, count);
    m_offset += count;
    return count;
}

}  // namespace bench
