#ifndef HTTP2CLIENT_TOOLS_MESSAGE_H
#define HTTP2CLIENT_TOOLS_MESSAGE_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

enum class Colour { RED, GREEN, CYAN };

// Paints text for one descriptor: only when that is a terminal which knows colours, and the
// environment has no NO_COLOR (https://no-color.org: set to anything but nothing).
class Style {
public:
    explicit Style(int fd);
    std::string paint(Colour colour, const std::string& text) const;

private:
    bool m_colours;
};

// How often what waits looks for Ctrl-C and for the end of its time.
constexpr std::chrono::milliseconds kLookPause{20};

using GiveUp = std::function<bool()>;

// Waits until `fd` has one of poll's `events`, or is broken. False when `giveUp` says so before.
bool waitReady(int fd, short events, const GiveUp& giveUp);

// Writes all of it. Returns 0, or errno; EINTR when `giveUp`, if there is one, says so before.
int writeWhole(int fd, const char* data, size_t len, const GiveUp& giveUp = {});

// Writes one line, "h2request: " and the message, to standard error. From any thread; the lines
// of several do not mix.
void complain(const std::string& message);

#endif  // HTTP2CLIENT_TOOLS_MESSAGE_H
