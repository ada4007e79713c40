#ifndef HTTP2CLIENT_TOOLS_OUTPUT_H
#define HTTP2CLIENT_TOOLS_OUTPUT_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <streambuf>
#include <string>

#include "exchange.h"
#include "options.h"

// Opens what is closed among the descriptors 0, 1 and 2, so that no socket or file takes their
// place: a closed standard output then refuses every byte. Call it first.
void occupyStandardDescriptors();

// A bar on standard error for a transfer of more than 1 MB.
class Progress {
public:
    void enable(bool enabled) { m_enabled = enabled; }
    bool isEnabled() const { return m_enabled; }
    // `total` is 0 when unknown. Draws at most ten times a second, and always when it is complete.
    void show(const char* what, uint64_t done, uint64_t total);
    // Leaves the bar as it is and goes to the next line.
    void end();

private:
    bool m_enabled = false;
    bool m_shown = false;
    std::chrono::steady_clock::time_point m_next;
};

// Where answers go: the head (with -i) to standard output, the body to standard output or a file.
// Nothing is held back. False, with a message on standard error, when the output takes no more.
class Output {
public:
    Output() = default;
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // The file is created, but keeps what it has until there is an answer.
    bool open(const Options& options);
    void beginAnswer();
    bool writeHead(int status, const HeaderMap& headers);
    bool writeBody(const std::string& bytes);
    // Reports what the system only says at the end. To be called once, after the last answer.
    bool close();

    void showUpload(uint64_t sent, uint64_t size);
    bool showsUpload() const { return m_upload.isEnabled(); }
    void endProgress();

private:
    bool write(int fd, const std::string& bytes);
    bool complain(int error);

    int m_body = 1;  // descriptor; owned unless it is standard output
    std::string m_name = "standard output";
    bool m_showHeaders = false;
    bool m_truncated = false;
    uint64_t m_expected = 0;  // content-length; 0 when unknown
    uint64_t m_received = 0;
    Progress m_upload;
    Progress m_download;
};

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

#endif  // HTTP2CLIENT_TOOLS_OUTPUT_H
