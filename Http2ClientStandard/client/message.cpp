#include "Http2ClientStandard/client/message.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>

#include "Http2ClientStandard/hpack/field_rules.h"

namespace h2 {

namespace {

constexpr size_t kMaxOctets = size_t{64} * 1024;
constexpr size_t kFieldOverhead = 32;  // octets, as RFC 9113, 6.5.2 counts a field
constexpr size_t kPathOverhead = std::string_view(":path").size() + kFieldOverhead;

// RFC 9110, 5.6.2. Names of fields are tokens in lower case; a method may have upper case.
bool isToken(std::string_view text) {
    std::string lower(text);
    for (char& byte : lower) {
        if (byte >= 'A' && byte <= 'Z') byte = static_cast<char>(byte - 'A' + 'a');
    }
    return !text.starts_with(':') && hpack::isValidName(lower);
}

// RFC 9113, 8.3.1: an absolute path and perhaps a query; "*" is for OPTIONS. A fragment is no part
// of either (RFC 3986, 3.5).
bool isPath(std::string_view text) {
    const auto visible = [](char c) { return c > ' ' && c <= '~' && c != '#'; };
    return text == "*" || (text.starts_with('/') && std::all_of(text.begin(), text.end(), visible));
}

// RFC 3986, 3.2, without user information (RFC 9113, 8.3.1) and without what ends an authority.
bool isAuthority(std::string_view text) {
    return text.find_first_of("@/?# \t") == std::string_view::npos;
}

}  // namespace

void RequestFields::clear() {
    m_message = 0;
    m_texts.clear();
    m_sizes.clear();
    m_fields.clear();
    m_kept.clear();
}

void RequestFields::add(std::string_view name, std::string_view value, bool neverIndexed) {
    m_texts.append(name).append(value);
    m_sizes.push_back({name.size(), value.size(), neverIndexed});
}

void RequestFields::finish(const Source& source) {
    m_message = source.message;
    m_tls = source.tls;
    m_authority = source.authority;
    m_fields.push_back({":path", m_path});
    std::string_view rest = m_texts;
    for (const Sizes& sizes : m_sizes) {
        m_fields.push_back(
            {rest.substr(0, sizes.name), rest.substr(sizes.name, sizes.value), sizes.neverIndexed});
        rest.remove_prefix(sizes.name + sizes.value);
    }
}

void RequestFields::setPath(std::string_view path) {
    m_path = path;
    if (!m_fields.empty()) m_fields.front().value = m_path;
}

uint64_t Message::newVersion() {
    static std::atomic<uint64_t> versions{0};
    return versions.fetch_add(1, std::memory_order_relaxed) + 1;
}

bool Message::setPath(std::string_view path) {
    if (!path.empty() && !isPath(path)) return false;
    const size_t octets = std::max(path.size(), size_t{1});  // an empty one is sent as "/" or "*"
    if (octets + m_headerOctets > kMaxOctets - kPathOverhead) return false;
    m_path = path;
    return true;
}

bool Message::setMethod(std::string_view method) {
    if (!isToken(method) || method == "CONNECT" || method.size() > kMaxOctets) return false;
    if (m_method == method) return true;
    m_method = method;
    m_version = newVersion();
    return true;
}

std::string_view Message::path() const {
    if (!m_path.empty()) return m_path;
    return m_method == "OPTIONS" ? "*" : "/";
}

bool Message::isIdempotent() const {
    constexpr std::array<std::string_view, 6> kIdempotent = {"GET",    "HEAD",    "PUT",
                                                             "DELETE", "OPTIONS", "TRACE"};
    return std::find(kIdempotent.begin(), kIdempotent.end(), m_method) != kIdempotent.end();
}

bool Message::addHeader(std::string_view name, std::string_view value, bool neverIndexed) {
    const hpack::NameId id = hpack::identify(name);
    const size_t octets = name.size() + value.size() + kFieldOverhead;
    const size_t others = path().size() + kPathOverhead + m_headerOctets;
    if (name.starts_with(':') || !hpack::isValidName(name) || !hpack::isValidValue(value) ||
        id == hpack::NameId::kConnectionSpecific ||
        (id == hpack::NameId::kTe && value != "trailers") || octets > kMaxOctets - others ||
        (name == "host" && !isAuthority(value))) {
        return false;
    }
    m_headerOctets += octets;
    m_version = newVersion();
    if (name == "host") {
        m_authority = value;
    } else if (id == hpack::NameId::kContentLength) {
        m_lengthWrong |= !declareLength(value);
    } else {
        m_headers.push_back({std::string(name), std::string(value), neverIndexed});
    }
    return true;
}

bool Message::declareLength(std::string_view value) {
    uint64_t length = 0;
    const char* end = value.data() + value.size();
    const auto [parsed, error] = std::from_chars(value.data(), end, length);
    if (error != std::errc() || parsed != end) return false;
    if (m_content.length.value_or(length) != length) return false;
    m_content.length = length;
    return true;
}

void Message::setBlock(std::string_view block) {
    m_content.block = std::make_shared<const std::string>(block);
    m_content.reader = nullptr;
    m_version = newVersion();
}

void Message::setReader(int (*reader)(char* buf, size_t len, void* opaque), void* opaque) {
    m_content.block.reset();
    m_content.reader = reader;
    m_content.opaque = opaque;
    m_version = newVersion();
}

bool Message::compose(bool tls, std::string_view authority, RequestFields& fields,
                      Content& content) const {
    content = m_content;
    if (m_lengthWrong) return false;
    if (content.reader == nullptr) {
        const uint64_t size = content.block != nullptr ? content.block->size() : 0;
        if (content.length.value_or(size) != size) return false;
        if (content.block != nullptr) content.length = size;
    }
    fields.setPath(path());
    const RequestFields::Source source{m_version, tls,
                                       m_authority.empty() ? authority : m_authority};
    if (fields.areMadeOf(source)) return true;
    fields.clear();
    fields.add(":method", m_method);
    fields.add(":scheme", tls ? "https" : "http");
    fields.add(":authority", source.authority);
    for (const Header& header : m_headers) {
        fields.add(header.name, header.value, header.neverIndexed);
    }
    if (content.length.has_value()) {
        char text[24];
        const char* end = std::to_chars(text, text + sizeof text, *content.length).ptr;
        fields.add("content-length", {text, static_cast<size_t>(end - text)});
    }
    fields.finish(source);
    return true;
}

}  // namespace h2
