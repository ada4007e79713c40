#include "console_lines.h"

#include <iostream>
#include <string_view>

#include <unistd.h>

#include "message.h"
#include "text.h"

ConsoleLines::ConsoleLines(bool show) : m_show(show), m_standard(std::cout.rdbuf(this)) {}

ConsoleLines::~ConsoleLines() {
    std::cout.rdbuf(m_standard);
    if (!m_text.empty()) {
        m_text += '\n';
        writeLinesLocked();  // nobody else is left
    }
}

ConsoleLines::int_type ConsoleLines::overflow(int_type c) {
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        const char text = traits_type::to_char_type(c);
        xsputn(&text, 1);
    }
    return traits_type::not_eof(c);
}

std::streamsize ConsoleLines::xsputn(const char* text, std::streamsize n) {
    if (!m_show) return n;
    const std::lock_guard<std::mutex> lock(m_mutex);
    // The library's own line ends come last in what it writes; any other is a server's.
    std::string_view piece(text, static_cast<size_t>(n));
    const bool endsLine = !piece.empty() && piece.back() == '\n';
    if (endsLine) piece.remove_suffix(1);
    m_text += printable(piece);
    if (endsLine) m_text += '\n';
    writeLinesLocked();
    return n;
}

void ConsoleLines::writeLinesLocked() {
    const auto end = m_text.rfind('\n');
    if (end == std::string::npos) return;
    writeWhole(STDERR_FILENO, m_text.data(), end + 1);
    m_text.erase(0, end + 1);
}
