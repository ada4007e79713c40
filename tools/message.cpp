#include "message.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string_view>

#include <poll.h>
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

bool waitReady(int fd, short events, const GiveUp& giveUp) {
    pollfd ready{fd, events, 0};
    while (poll(&ready, 1, static_cast<int>(kLookPause.count())) != 1) {
        if (giveUp()) return false;
    }
    return true;
}

int writeWhole(int fd, const char* data, size_t len, const GiveUp& giveUp) {
    while (len > 0) {
        if (giveUp && !waitReady(fd, POLLOUT, giveUp)) return EINTR;
        // A pipe that is ready takes this much at once.
        const ssize_t n = write(fd, data, giveUp ? std::min<size_t>(len, PIPE_BUF) : len);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

void complain(const std::string& message) {
    const std::string line =
        Style(STDERR_FILENO).paint(Colour::RED, "h2request:") + " " + message + "\n";
    writeWhole(STDERR_FILENO, line.data(), line.size());  // there is nowhere to complain of it
}
