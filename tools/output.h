#ifndef HTTP2CLIENT_TOOLS_OUTPUT_H
#define HTTP2CLIENT_TOOLS_OUTPUT_H

#include <cstdio>
#include <map>
#include <streambuf>
#include <string>

#include "options.h"

// Where answers go: the body (and with -i its head) to standard output or a file, a progress bar
// for large bodies to a terminal on standard error.
class Output {
public:
    ~Output();
    // False, with a message, when the file cannot be written.
    bool open(const Options& options);
    void beginAnswer();
    bool writeHead(int status, const std::map<std::string, std::string>& headers);
    // False, with a message, when the output takes no more.
    bool writeBody(const std::string& bytes);
    bool flush();

private:
    bool check(bool ok);
    void showProgress();
    void endProgress();

    FILE* m_file = stdout;  // owned unless it is stdout
    bool m_showHeaders = false;
    bool m_terminal = false;
    bool m_progressShown = false;
    size_t m_expected = 0;  // content-length; 0 when unknown
    size_t m_received = 0;
};

// Takes the library's console lines off standard output while it lives: it drops them, or sends
// them to standard error. Made before the library starts and destroyed after it has stopped.
class ConsoleLines : public std::streambuf {
public:
    explicit ConsoleLines(bool show);
    ~ConsoleLines() override;

protected:
    int overflow(int ch) override;
    std::streamsize xsputn(const char* text, std::streamsize n) override;

private:
    bool m_show;
    std::streambuf* m_standard;
};

#endif  // HTTP2CLIENT_TOOLS_OUTPUT_H
