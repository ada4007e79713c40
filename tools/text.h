#ifndef HTTP2CLIENT_TOOLS_TEXT_H
#define HTTP2CLIENT_TOOLS_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

bool isUtf8(std::string_view text);

// A server's text for the user to see: control characters (C0, DEL, and C1 as UTF-8) and bytes
// that are not UTF-8 are shown escaped, as in \n or \x1b, so that a terminal does not obey them.
// The characters of `allowed` stay.
std::string printable(std::string_view text, std::string_view allowed = {});

// A body on a terminal, piece by piece.
class TerminalText {
public:
    // What to show of a further piece. A character, or a CR LF, that is cut at its end waits for
    // the next one.
    std::string add(std::string_view piece);
    // What still waits.
    std::string end();

private:
    std::string m_rest;
};

#endif  // HTTP2CLIENT_TOOLS_TEXT_H
