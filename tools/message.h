#ifndef HTTP2CLIENT_TOOLS_MESSAGE_H
#define HTTP2CLIENT_TOOLS_MESSAGE_H

#include <cstddef>
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

// Writes all of it. Returns 0, or errno.
int writeWhole(int fd, const char* data, size_t len);

// What complain writes, with the line's end.
std::string complaint(const std::string& message);

// Writes one line, "h2request: " and the message, to standard error. From any thread; the lines
// of several do not mix.
void complain(const std::string& message);

#endif  // HTTP2CLIENT_TOOLS_MESSAGE_H
