#include "output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace {

constexpr size_t kProgressFrom = 1000000;  // bytes; smaller bodies are there before one looks
constexpr int kBarWidth = 40;

}  // namespace

Output::~Output() {
    if (m_file != stdout) fclose(m_file);
}

bool Output::open(const Options& options) {
    m_showHeaders = options.showHeaders;
    m_terminal = isatty(STDERR_FILENO) == 1;
    if (options.outputFile.empty()) return true;
    FILE* file = fopen(options.outputFile.c_str(), "wb");
    if (file == nullptr) {
        std::cerr << "h2request: cannot write " << options.outputFile << ": "
                  << std::strerror(errno) << "; choose another file with -o\n";
        return false;
    }
    m_file = file;
    return true;
}

void Output::beginAnswer() {
    m_expected = 0;
    m_received = 0;
}

bool Output::writeHead(int status, const std::map<std::string, std::string>& headers) {
    const auto length = headers.find("content-length");
    if (length != headers.end()) {
        m_expected = std::strtoull(length->second.c_str(), nullptr, 10);
    }
    if (!m_showHeaders) return true;
    std::string head = "status: " + std::to_string(status) + "\n";
    for (const auto& [name, value] : headers) {
        if (name != ":status") head.append(name).append(": ").append(value).append("\n");
    }
    head += "\n";
    return check(fwrite(head.data(), 1, head.size(), stdout) == head.size());
}

bool Output::writeBody(const std::string& bytes) {
    if (bytes.empty()) return true;
    m_received += bytes.size();
    if (m_terminal && (m_expected > kProgressFrom || m_received > kProgressFrom)) showProgress();
    return check(fwrite(bytes.data(), 1, bytes.size(), m_file) == bytes.size());
}

bool Output::flush() {
    endProgress();
    const bool ok = fflush(m_file) == 0 && fflush(stdout) == 0;
    return check(ok);
}

bool Output::check(bool ok) {
    if (ok) return true;
    endProgress();
    std::cerr << "h2request: cannot write the answer: " << std::strerror(errno) << "\n";
    return false;
}

void Output::showProgress() {
    m_progressShown = true;
    if (m_expected == 0 || m_received > m_expected) {
        std::cerr << "\r" << m_received << " bytes" << std::flush;
        return;
    }
    const auto filled = static_cast<int>(m_received * kBarWidth / m_expected);
    std::cerr << "\r[" << std::string(static_cast<size_t>(filled), '#')
              << std::string(static_cast<size_t>(kBarWidth - filled), '.') << "] "
              << m_received * 100 / m_expected << "%" << std::flush;
}

void Output::endProgress() {
    if (m_progressShown) std::cerr << "\n";
    m_progressShown = false;
}

ConsoleLines::ConsoleLines(bool show) : m_show(show), m_standard(std::cout.rdbuf(this)) {}

ConsoleLines::~ConsoleLines() { std::cout.rdbuf(m_standard); }

int ConsoleLines::overflow(int ch) {
    if (m_show && ch != traits_type::eof()) std::cerr.put(static_cast<char>(ch));
    return ch == traits_type::eof() ? 0 : ch;
}

std::streamsize ConsoleLines::xsputn(const char* text, std::streamsize n) {
    if (m_show) std::cerr.write(text, n);
    return n;
}
