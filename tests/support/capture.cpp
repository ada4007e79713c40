#include "capture.h"

#include <iostream>
#include <sstream>

namespace h2test {

std::string CoutCapture::Sink::str() const {
    const std::lock_guard<std::mutex> hold(m_lock);
    return m_text;
}

void CoutCapture::Sink::clear() {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_text.clear();
}

std::streambuf::int_type CoutCapture::Sink::overflow(int_type c) {
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        const std::lock_guard<std::mutex> hold(m_lock);
        m_text.push_back(traits_type::to_char_type(c));
    }
    return traits_type::not_eof(c);
}

std::streamsize CoutCapture::Sink::xsputn(const char* text, std::streamsize size) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_text.append(text, static_cast<size_t>(size));
    return size;
}

CoutCapture::CoutCapture() : m_former(std::cout.rdbuf(&m_sink)) {
    m_formerFormat.copyfmt(std::cout);
}

CoutCapture::~CoutCapture() {
    std::cout.rdbuf(m_former);
    std::cout.copyfmt(m_formerFormat);
}

std::vector<std::string> CoutCapture::lines() const {
    std::istringstream text(str());
    std::vector<std::string> out;
    for (std::string line; std::getline(text, line);) out.push_back(line);
    return out;
}

NullCout::NullCout() : m_former(std::cout.rdbuf(&m_sink)) {}

NullCout::~NullCout() { std::cout.rdbuf(m_former); }

}  // namespace h2test
