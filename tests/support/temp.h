#ifndef HTTP2CLIENT_TESTS_SUPPORT_TEMP_H
#define HTTP2CLIENT_TESTS_SUPPORT_TEMP_H

#include <string>
#include <string_view>

namespace h2test {

// A new directory, removed with its contents when this object is destroyed.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // Absolute, without a slash at its end.
    const std::string& path() const { return m_path; }
    // Writes a file into the directory; returns its absolute path.
    std::string write(std::string_view name, std::string_view content) const;

private:
    std::string m_path;
};

// A certificate and its private key, both as PEM text.
struct Certificate {
    std::string certificate;
    std::string key;

    // Both in one, as some servers want their file.
    std::string combined() const { return certificate + key; }
};

// A new self-signed certificate for "localhost", 127.0.0.1 and ::1 with a new P-256 key: valid from
// an hour ago for a day, or expired an hour ago.
Certificate makeCertificate();
Certificate makeExpiredCertificate();

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_TEMP_H
