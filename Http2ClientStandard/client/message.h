#ifndef HTTP2CLIENTSTANDARD_CLIENT_MESSAGE_H
#define HTTP2CLIENTSTANDARD_CLIENT_MESSAGE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Http2ClientStandard/hpack/encoder.h"

namespace h2 {

// A request's fields: the path, which often differs from request to request, and behind it those
// that often do not, which are kept. Their texts are in one piece of memory, which is reused.
class RequestFields {
public:
    // What the fields behind the path are made of.
    struct Source {
        uint64_t message;  // Message's version
        bool tls;
        std::string_view authority;
    };

    RequestFields() = default;
    RequestFields(const RequestFields&) = delete;
    RequestFields& operator=(const RequestFields&) = delete;

    bool areMadeOf(const Source& source) const {
        return m_message == source.message && m_tls == source.tls &&
               m_authority == source.authority;
    }
    // Drops all fields; add() and finish() fill them in.
    void clear();
    void add(std::string_view name, std::string_view value, bool neverIndexed = false);
    // After the last add().
    void finish(const Source& source);
    // Any time: the path of the next request.
    void setPath(std::string_view path);

    static constexpr size_t kFirstKept = 1;
    std::span<const hpack::Field> get() const { return m_fields; }
    // Of the fields from kFirstKept on.
    hpack::KeptFields& kept() { return m_kept; }

private:
    struct Sizes {
        size_t name;
        size_t value;
        bool neverIndexed;
    };
    uint64_t m_message = 0;  // 0: there are none
    bool m_tls = false;
    std::string m_authority;
    std::string m_path;
    std::string m_texts;  // of the fields behind the path
    std::vector<Sizes> m_sizes;
    std::vector<hpack::Field> m_fields;
    hpack::KeptFields m_kept;
};

// A request's content: nothing, a block, or what a reader gives.
struct Content {
    std::shared_ptr<const std::string> block;
    int (*reader)(char* buf, size_t len, void* opaque) = nullptr;
    void* opaque = nullptr;
    std::optional<uint64_t> length;  // that content-length says
};

// A request as the application describes it. What may not be sent (RFC 9113, 8.2 and 8.3) is
// refused here.
class Message {
public:
    // False: refused, and nothing has changed.
    bool setPath(std::string_view path);      // empty: the target has none
    bool setMethod(std::string_view method);  // any token but CONNECT
    bool addHeader(std::string_view name, std::string_view value, bool neverIndexed);

    void setBlock(std::string_view block);
    void setReader(int (*reader)(char* buf, size_t len, void* opaque), void* opaque);
    void clear() { *this = Message(); }

    const std::string& method() const { return m_method; }  // empty: not set
    std::string_view path() const;                          // as it is sent
    // False: the path is "*", which only OPTIONS has.
    bool pathSuitsMethod() const { return m_path != "*" || m_method == "OPTIONS"; }
    bool isIdempotent() const;  // RFC 9110, 9.2.2

    // Puts the whole request together. `authority` is used when there was no host header. False:
    // content-length and content differ. Fields that are the same as in `fields` already stay.
    bool compose(bool tls, std::string_view authority, RequestFields& fields,
                 Content& content) const;

private:
    struct Header {
        std::string name;
        std::string value;
        bool neverIndexed;
    };

    static uint64_t newVersion();
    bool declareLength(std::string_view value);

    std::string m_method;
    std::string m_path;
    std::string m_authority;
    std::vector<Header> m_headers;
    size_t m_headerOctets = 0;  // name, value and 32 each
    Content m_content;
    bool m_lengthWrong = false;  // content-length is no number, or two numbers
    // Another one after each change but the path's. Two messages never have the same, unless they
    // are copies.
    uint64_t m_version = newVersion();
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_CLIENT_MESSAGE_H
