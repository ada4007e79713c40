#ifndef HTTP2CLIENT_TESTS_SUPPORT_CAPTURE_H
#define HTTP2CLIENT_TESTS_SUPPORT_CAPTURE_H

#include <ios>
#include <mutex>
#include <streambuf>
#include <string>
#include <vector>

namespace h2test {

// Catches what is written to std::cout as long as it lives, from any thread.
//
// Make it before another thread may write to std::cout and destroy it when none does any more: the
// stream's buffer is swapped without a lock. Captures nest; the inner one sees the output.
class CoutCapture {
public:
    CoutCapture();
    ~CoutCapture();  // puts the former buffer and number format back
    CoutCapture(const CoutCapture&) = delete;
    CoutCapture& operator=(const CoutCapture&) = delete;

    // All text so far.
    std::string str() const { return m_sink.str(); }
    // The same, cut at its line ends; text after the last line end is one line more.
    std::vector<std::string> lines() const;
    // Forgets the text so far.
    void clear() { m_sink.clear(); }

private:
    // Has no put area, so every character passes through the lock.
    class Sink : public std::streambuf {
    public:
        std::string str() const;
        void clear();

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* text, std::streamsize size) override;

    private:
        mutable std::mutex m_lock;  // guards m_text
        std::string m_text;
    };

    Sink m_sink;
    std::streambuf* m_former;
    std::ios m_formerFormat{nullptr};
};

// Keeps std::cout quiet as long as it lives; the same rules.
class NullCout {
public:
    NullCout();
    ~NullCout();
    NullCout(const NullCout&) = delete;
    NullCout& operator=(const NullCout&) = delete;

private:
    class Sink : public std::streambuf {
    protected:
        int_type overflow(int_type c) override { return traits_type::not_eof(c); }
        std::streamsize xsputn(const char*, std::streamsize size) override { return size; }
    };

    Sink m_sink;
    std::streambuf* m_former;
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_CAPTURE_H
