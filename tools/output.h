#ifndef HTTP2CLIENT_TOOLS_OUTPUT_H
#define HTTP2CLIENT_TOOLS_OUTPUT_H

#include <cstdint>
#include <string>

#include "message.h"
#include "options.h"
#include "progress.h"
#include "request.h"

// Opens what is closed among the descriptors 0, 1 and 2, so that no socket or file takes their
// place: a closed standard output then refuses every byte. Call it first.
void occupyStandardDescriptors();

// Writes all of `text` to standard output. False, with a message, when that takes no more.
bool writeOut(const std::string& text);

// Where successive answers go: the head (with -i) to standard output, the body to standard output
// or a file. Nothing is held back, but with --json: then a body without a file is kept, for the
// object that it belongs to.
class Output : public AnswerSink {
public:
    Output();
    ~Output() override;

    // The file is created, but keeps what it has until there is an answer.
    bool open(const Options& options);
    void beginAnswer();
    bool writeHead(int status, const HeaderMap& headers) override;
    bool writeBody(const std::string& bytes) override;
    const std::string& keptBody() const { return m_kept; }
    // Reports what the system only says at the end. To be called once, after the last answer.
    bool close();

    void showUpload(uint64_t sent, uint64_t size) override;
    bool showsUpload() const override { return m_upload.isEnabled(); }
    void endProgress() override;

private:
    bool emptyFile();
    bool write(int fd, const std::string& name, const std::string& bytes);

    const Style m_style;  // of standard output
    int m_body = 1;       // descriptor; owned unless it is standard output
    std::string m_name = "standard output";
    bool m_showHeaders = false;
    bool m_keepsBody = false;
    std::string m_kept;
    bool m_emptied = false;   // the file has lost its old content
    uint64_t m_expected = 0;  // content-length; 0 when unknown
    uint64_t m_received = 0;
    Progress m_upload;
    Progress m_download;
};

#endif  // HTTP2CLIENT_TOOLS_OUTPUT_H
