#ifndef HTTP2CLIENT_TOOLS_CONSOLE_LINES_H
#define HTTP2CLIENT_TOOLS_CONSOLE_LINES_H

#include <mutex>
#include <streambuf>
#include <string>

// Takes the library's console lines off standard output while it lives: they are dropped, or go to
// standard error line by line. Make it before the library starts, destroy it after it has stopped.
class ConsoleLines : public std::streambuf {
public:
    explicit ConsoleLines(bool show);
    ~ConsoleLines() override;

protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* text, std::streamsize n) override;

private:
    void writeLinesLocked();

    const bool m_show;
    std::mutex m_mutex;  // guards m_text: the library writes from two threads
    std::string m_text;  // of the line that is not whole yet
    std::streambuf* m_standard;
};

#endif  // HTTP2CLIENT_TOOLS_CONSOLE_LINES_H
