#include "output.h"

#include <cerrno>
#include <cstdio>
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

bool writeOut(const std::string& text, const GiveUp& giveUp) {
    const int error = writeWhole(STDOUT_FILENO, text.data(), text.size(), giveUp);
    return error == 0 || (error != EINTR && complainOf("standard output", error));
}

Output::Output() : m_style(STDOUT_FILENO) {}

bool Output::open(const Options& options) {
    m_showHeaders = options.showHeaders;
    m_keepsBody = options.keepsBody();
    if (!options.outputFile.empty() && !openFile(options.outputFile)) {
        complain("cannot write " + options.outputFile + ": " + std::strerror(errno) +
                 "; choose another file with -o");
        return false;
    }
    m_toTerminal = isatty(m_body) == 1;
    // The log of -v and a bar would write over each other, as would a body on the same terminal.
    const bool bars = isatty(STDERR_FILENO) == 1 && !options.verbose;
    m_upload.enable(bars);
    m_download.enable(bars && (m_keepsBody || !m_toTerminal));
    return true;
}

// A device or a pipe is written at once. A link stays, and what it leads to is replaced.
bool Output::openFile(const std::string& name) {
    m_name = name;
    struct stat old {};
    const bool exists = stat(name.c_str(), &old) == 0;
    if (exists && !S_ISREG(old.st_mode)) {
        m_body = ::open(name.c_str(), O_WRONLY | O_CLOEXEC);
        return m_body != -1;
    }
    if (exists && access(name.c_str(), W_OK) != 0) return false;
    char* const path = realpath(name.c_str(), nullptr);
    if (path != nullptr) m_name = path;
    std::free(path);
    m_temporary = m_name + ".XXXXXX";
    m_body = mkostemp(m_temporary.data(), O_CLOEXEC);
    if (m_body == -1) {
        m_temporary.clear();
        return false;
    }
    const mode_t mask = umask(0);
    umask(mask);
    return fchmod(m_body, exists ? old.st_mode & 07777 : 0666 & ~mask) == 0;
}

void Output::beginAnswer() {
    m_expected = 0;
    m_received = 0;
    m_binary = false;
    m_kept.clear();
    if (m_toTerminal) write(m_body, m_name, m_text.end());
}

bool Output::writeHead(int status, const HeaderList& headers) {
    m_upload.end();
    if (const std::string* length = findHeader(headers, "content-length")) {
        m_expected = std::strtoull(length->c_str(), nullptr, 10);
    }
    if (!m_showHeaders) return true;
    const Colour colour = status < kFirstErrorStatus ? Colour::GREEN : Colour::RED;
    std::string head = m_style.paint(colour, "status: " + std::to_string(status)) + "\n";
    for (const auto& [name, value] : headers) {
        if (name == ":status") continue;
        head += m_style.paint(Colour::CYAN, printable(name) + ":");
        head.append(" ").append(printable(value)).append("\n");
    }
    return write(STDOUT_FILENO, "standard output", head + "\n");
}

bool Output::writeBody(const std::string& bytes) {
    m_received += bytes.size();
    if (!bytes.empty()) m_download.show("received", m_received, m_expected);
    if (m_keepsBody) {
        m_kept += bytes;
        return true;
    }
    return m_toTerminal ? writeToTerminal(bytes) : write(m_body, m_name, bytes);
}

bool Output::writeToTerminal(const std::string& bytes) {
    if (m_binary) return true;
    if (bytes.find('\0') == std::string::npos) return write(m_body, m_name, m_text.add(bytes));
    m_binary = true;
    m_text.end();
    complain("the body is binary, which is not for a terminal: write it with -o FILE");
    return true;
}

bool Output::close(bool whole) {
    if (m_body == STDOUT_FILENO) return write(m_body, m_name, m_text.end()) || !whole;
    if (m_body == -1) return true;
    bool ok = ::close(std::exchange(m_body, -1)) == 0;
    if (m_temporary.empty()) return ok || complainOf(m_name, errno);
    if (ok && whole) ok = rename(m_temporary.c_str(), m_name.c_str()) == 0;
    const int error = errno;
    if (!ok || !whole) unlink(m_temporary.c_str());
    return ok || complainOf(m_name, error);
}

void Output::endProgress() {
    m_upload.end();
    m_download.end();
}

bool Output::write(int fd, const std::string& name, const std::string& bytes) {
    const int error = writeWhole(fd, bytes.data(), bytes.size(), m_giveUp);
    if (error == 0) return true;
    endProgress();
    if (error == EINTR) return false;
    return complainOf(name, error);
}
