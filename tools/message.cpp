#include "message.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include <unistd.h>

namespace {

std::string_view environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string_view() : value;
}

bool wantsColours(int fd) {
    return isatty(fd) == 1 && environment("NO_COLOR").empty() && environment("TERM") != "dumb";
}

const char* startOf(Colour colour) {
    switch (colour) {
        case Colour::RED: return "\033[31m";
        case Colour::GREEN: return "\033[32m";
        case Colour::CYAN: break;
    }
    return "\033[36m";
}

}  // namespace

Style::Style(int fd) : m_colours(wantsColours(fd)) {}

std::string Style::paint(Colour colour, const std::string& text) const {
    return m_colours ? startOf(colour) + text + "\033[0m" : text;
}

int writeWhole(int fd, const char* data, size_t len) {
    while (len > 0) {
        const ssize_t n = write(fd, data, len);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

std::string complaint(const std::string& message) {
    return Style(STDERR_FILENO).paint(Colour::RED, "h2request:") + " " + message + "\n";
}

void complain(const std::string& message) {
    const std::string line = complaint(message);
    writeWhole(STDERR_FILENO, line.data(), line.size());  // there is nowhere to complain of it
}
