#include "output.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool complainOf(const std::string& name, int error) {
    std::string advice = "; the rest of it is lost";
    if (error == ENOSPC) advice += ": make room, or choose another file with -o";
    if (error == EBADF || error == EIO) advice += ": choose a file with -o";
    complain("cannot write the answer to " + name + ": " + std::strerror(error) + advice);
    return false;
}

}  // namespace

void occupyStandardDescriptors() {
    for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1) continue;
        // Takes the lowest free number. Not writable, but for standard error: what goes there is
        // for nobody to miss. It stays open as long as the process lives.
        // cppcheck-suppress leakReturnValNotUsed
        open("/dev/null", fd == STDERR_FILENO ? O_WRONLY : O_RDONLY);
    }
}

bool writeOut(const std::string& text) {
    const int error = writeWhole(STDOUT_FILENO, text.data(), text.size());
    return error == 0 || complainOf("standard output", error);
}

Output::Output() : m_style(STDOUT_FILENO) {}

Output::~Output() {
    if (m_body != STDOUT_FILENO && m_body != -1) ::close(m_body);
}

bool Output::open(const Options& options) {
    m_showHeaders = options.showHeaders;
    m_keepsBody = options.json && options.outputFile.empty();
    if (!options.outputFile.empty()) {
        m_name = options.outputFile;
        m_body = ::open(m_name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        if (m_body == -1) {
            complain("cannot write " + m_name + ": " + std::strerror(errno) +
                     "; choose another file with -o");
            return false;
        }
    }
    // The log of -v and a bar would write over each other, as would a body on the same terminal.
    const bool bars = isatty(STDERR_FILENO) == 1 && !options.verbose;
    m_upload.enable(bars);
    m_download.enable(bars && (m_keepsBody || isatty(m_body) == 0));
    return true;
}

void Output::beginAnswer() {
    m_expected = 0;
    m_received = 0;
    m_kept.clear();
}

bool Output::writeHead(int status, const HeaderMap& headers) {
    m_upload.end();
    const auto length = headers.find("content-length");
    if (length != headers.end()) {
        m_expected = std::strtoull(length->second.c_str(), nullptr, 10);
    }
    if (!m_showHeaders) return true;
    const Colour colour = status < kFirstErrorStatus ? Colour::GREEN : Colour::RED;
    std::string head = m_style.paint(colour, "status: " + std::to_string(status)) + "\n";
    for (const auto& [name, value] : headers) {
        if (name == ":status") continue;
        head += m_style.paint(Colour::CYAN, name + ":");
        head.append(" ").append(value).append("\n");
    }
    return write(STDOUT_FILENO, "standard output", head + "\n");
}

bool Output::writeBody(const std::string& bytes) {
    if (!emptyFile()) return false;
    m_received += bytes.size();
    if (!bytes.empty()) m_download.show("received", m_received, m_expected);
    if (m_keepsBody) {
        m_kept += bytes;
        return true;
    }
    return write(m_body, m_name, bytes);
}

bool Output::emptyFile() {
    if (m_body == STDOUT_FILENO || m_emptied) return true;
    m_emptied = true;
    struct stat status {};
    if (fstat(m_body, &status) != 0 || !S_ISREG(status.st_mode)) return true;
    return ftruncate(m_body, 0) == 0 || complainOf(m_name, errno);
}

bool Output::close() {
    if (m_body == STDOUT_FILENO) return true;
    const int result = ::close(m_body);
    m_body = -1;
    return result == 0 || complainOf(m_name, errno);
}

void Output::showUpload(uint64_t sent, uint64_t size) { m_upload.show("sent", sent, size); }

void Output::endProgress() {
    m_upload.end();
    m_download.end();
}

bool Output::write(int fd, const std::string& name, const std::string& bytes) {
    const int error = writeWhole(fd, bytes.data(), bytes.size());
    if (error == 0) return true;
    endProgress();
    return complainOf(name, error);
}
