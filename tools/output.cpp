#include "output.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t kProgressFrom = 1000000;  // smaller transfers are over before one looks
constexpr uint64_t kBarWidth = 40;
constexpr std::chrono::milliseconds kProgressPause{100};

// Writes all. Returns 0, or errno.
int writeWhole(int fd, const char* data, size_t len) {
    while (len > 0) {
        const ssize_t n = ::write(fd, data, len);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

}  // namespace

void occupyStandardDescriptors() {
    for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1) continue;
        // Takes the lowest free number. Not writable, but for standard error: what goes there is
        // for nobody to miss.
        open("/dev/null", fd == STDERR_FILENO ? O_WRONLY : O_RDONLY);
    }
}

void Progress::show(const char* what, uint64_t done, uint64_t total) {
    if (!m_enabled || (done <= kProgressFrom && total <= kProgressFrom)) return;
    const auto now = std::chrono::steady_clock::now();
    if (m_shown && now < m_next && done != total) return;
    m_shown = true;
    m_next = now + kProgressPause;
    std::string line = std::string("\r") + what + " ";
    if (total == 0 || done > total) {
        line += std::to_string(done) + " bytes";
    } else {
        const uint64_t filled = done * kBarWidth / total;
        line += "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] " +
                std::to_string(done * 100 / total) + "%";
    }
    std::cerr << line << std::flush;
}

void Progress::end() {
    if (m_shown) std::cerr << "\n";
    m_shown = false;
}

Output::~Output() {
    if (m_body != STDOUT_FILENO && m_body != -1) ::close(m_body);
}

bool Output::open(const Options& options) {
    m_showHeaders = options.showHeaders;
    if (!options.outputFile.empty()) {
        m_name = options.outputFile;
        m_body = ::open(m_name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        if (m_body == -1) {
            std::cerr << "h2request: cannot write " << m_name << ": " << std::strerror(errno)
                      << "; choose another file with -o\n";
            return false;
        }
    }
    // The log of -v and a bar would write over each other, as would a body on the same terminal.
    const bool bars = isatty(STDERR_FILENO) == 1 && !options.verbose;
    m_upload.enable(bars);
    m_download.enable(bars && isatty(m_body) == 0);
    return true;
}

void Output::beginAnswer() {
    m_expected = 0;
    m_received = 0;
}

bool Output::writeHead(int status, const HeaderMap& headers) {
    m_upload.end();
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
    return write(STDOUT_FILENO, head);
}

bool Output::writeBody(const std::string& bytes) {
    if (m_body != STDOUT_FILENO && !m_truncated) {
        m_truncated = true;
        struct stat status {};
        if (fstat(m_body, &status) == 0 && S_ISREG(status.st_mode) && ftruncate(m_body, 0) != 0) {
            return complain(errno);
        }
    }
    m_received += bytes.size();
    if (!bytes.empty()) m_download.show("received", m_received, m_expected);
    return write(m_body, bytes);
}

bool Output::close() {
    if (m_body == STDOUT_FILENO) return true;
    const int result = ::close(m_body);
    m_body = -1;
    return result == 0 || complain(errno);
}

void Output::showUpload(uint64_t sent, uint64_t size) { m_upload.show("sent", sent, size); }

void Output::endProgress() {
    m_upload.end();
    m_download.end();
}

bool Output::write(int fd, const std::string& bytes) {
    const int error = writeWhole(fd, bytes.data(), bytes.size());
    return error == 0 || complain(error);
}

bool Output::complain(int error) {
    endProgress();
    std::cerr << "h2request: cannot write the answer to " << m_name << ": " << std::strerror(error)
              << "; the rest of it is lost\n";
    return false;
}

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
    m_text.append(text, static_cast<size_t>(n));
    writeLinesLocked();
    return n;
}

void ConsoleLines::writeLinesLocked() {
    const auto end = m_text.rfind('\n');
    if (end == std::string::npos) return;
    writeWhole(STDERR_FILENO, m_text.data(), end + 1);
    m_text.erase(0, end + 1);
}
