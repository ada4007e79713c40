#ifndef HTTP2CLIENT_TOOLS_OUTPUT_H
#define HTTP2CLIENT_TOOLS_OUTPUT_H

#include <cstdint>
#include <string>
#include <utility>

#include "message.h"
#include "options.h"
#include "progress.h"
#include "request.h"
#include "text.h"

// Opens what is closed among the descriptors 0, 1 and 2, so that no socket or file takes their
// place: a closed standard output then refuses every byte. Call it first.
void occupyStandardDescriptors();

// Writes all of `text` to standard output, until `giveUp` says no. False when that takes no more,
// with a message unless it was given up.
bool writeOut(const std::string& text, const GiveUp& giveUp);

// Where successive answers go: the head (with -i) to standard output, the body to standard output
// or a file. Nothing is held back, but with --json: then a body without a file is kept, for the
// object that it belongs to.
//
// A file is written beside its place, and takes it when all answers are there. On a terminal,
// control characters of a body are escaped, and a binary body is left out.
class Output : public AnswerSink {
public:
    Output();
    ~Output() override { close(false); }

    bool open(const Options& options);
    // Writing ends when it says so. Without it, it waits as long as it takes.
    void setGiveUp(GiveUp giveUp) { m_giveUp = std::move(giveUp); }
    void beginAnswer();
    bool writeHead(int status, const HeaderList& headers) override;
    bool writeBody(const std::string& bytes) override;
    bool writeJson(const std::string& line) { return writeOut(line, m_giveUp); }
    const std::string& keptBody() const { return m_kept; }
    // Puts the file into its place, or removes it when not all that belongs to it has come.
    // Reports what the system only says at the end.
    bool close(bool whole);

    void showUpload(uint64_t sent, uint64_t size) override { m_upload.show("sent", sent, size); }
    void endProgress() override;

private:
    bool openFile(const std::string& name);
    bool writeToTerminal(const std::string& bytes);
    bool write(int fd, const std::string& name, const std::string& bytes);

    const Style m_style;  // of standard output
    int m_body = 1;       // descriptor; owned unless it is standard output
    std::string m_name = "standard output";
    std::string m_temporary;  // the file's name until it takes its place; empty when it has it
    bool m_toTerminal = false;
    bool m_showHeaders = false;
    bool m_keepsBody = false;
    bool m_binary = false;  // the answer's body is, so nothing of it goes to the terminal
    std::string m_kept;
    TerminalText m_text;
    uint64_t m_expected = 0;  // content-length; 0 when unknown
    uint64_t m_received = 0;
    Progress m_upload;
    Progress m_download;
    GiveUp m_giveUp = [] { return false; };
};

#endif  // HTTP2CLIENT_TOOLS_OUTPUT_H
