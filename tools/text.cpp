#include "text.h"

#include <utility>

namespace {

// The length of the UTF-8 character that `first` starts; 0 when none can start so.
size_t lengthFrom(unsigned char first) {
    if (first < 0x80) return 1;
    if (first >= 0xc2 && first <= 0xdf) return 2;
    if (first >= 0xe0 && first <= 0xef) return 3;
    if (first >= 0xf0 && first <= 0xf4) return 4;
    return 0;
}

// The second byte's range is narrower after some first bytes (RFC 3629, 4): no overlong forms, no
// surrogates, nothing above U+10FFFF.
bool isSecondByte(unsigned char first, unsigned char second) {
    const unsigned char low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
    const unsigned char high = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
    return second >= low && second <= high;
}

// How many bytes of a UTF-8 character `text` starts with: all of its `length`, or fewer when the
// text ends, or goes on with something else.
size_t matchCharacter(std::string_view text, size_t& length) {
    const auto first = static_cast<unsigned char>(text[0]);
    length = lengthFrom(first);
    if (length == 0) return 0;
    size_t matched = 1;
    while (matched < length && matched < text.size()) {
        const auto byte = static_cast<unsigned char>(text[matched]);
        if (matched == 1 ? !isSecondByte(first, byte) : (byte & 0xc0) != 0x80) break;
        ++matched;
    }
    return matched;
}

bool isControl(std::string_view character) {
    const auto first = static_cast<unsigned char>(character[0]);
    if (character.size() == 1) return first < 0x20 || first == 0x7f;
    // C1: U+0080 to U+009F.
    return first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0;
}

std::string escaped(std::string_view bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    std::string result;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        switch (c) {
            case '\n': result += "\\n"; break;
            case '\r': result += "\\r"; break;
            case '\t': result += "\\t"; break;
            default: result += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xf]};
        }
    }
    return result;
}

}  // namespace

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        size_t length = 0;
        const size_t matched = matchCharacter(text, length);
        if (matched == 0 || matched < length) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string printable(std::string_view text, std::string_view allowed) {
    std::string result;
    while (!text.empty()) {
        size_t length = 0;
        const bool whole = matchCharacter(text, length) == length && length != 0;
        const std::string_view character = text.substr(0, whole ? length : 1);
        const bool stays =
            whole && (!isControl(character) || allowed.find(character) != std::string_view::npos);
        result += stays ? std::string(character) : escaped(character);
        text.remove_prefix(character.size());
    }
    return result;
}

std::string TerminalText::add(std::string_view piece) {
    m_rest += piece;
    // What waits: a CR at the end, or the start of a character that the piece's end cuts.
    size_t waiting = 0;
    for (size_t back = 1; back <= 3 && back <= m_rest.size() && waiting == 0; ++back) {
        size_t length = 0;
        const std::string_view end = std::string_view(m_rest).substr(m_rest.size() - back);
        if (matchCharacter(end, length) == back && length > back) waiting = back;
    }
    if (!m_rest.empty() && m_rest.back() == '\r') waiting = 1;
    std::string shown = m_rest.substr(0, m_rest.size() - waiting);
    m_rest.erase(0, shown.size());
    for (size_t at = 0; (at = shown.find("\r\n", at)) != std::string::npos;) shown.erase(at, 1);
    return printable(shown, "\n\t");
}

std::string TerminalText::end() { return printable(std::exchange(m_rest, {}), "\n\t"); }
