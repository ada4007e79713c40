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

// A request's fields with their texts in one piece of memory, which is reused.
class RequestFields {
public:
    RequestFields() = default;
    RequestFields(const RequestFields&) = delete;
    RequestFields& operator=(const RequestFields&) = delete;

    void clear();
    void add(std::string_view name, std::string_view value, bool neverIndexed = false);
    // After the last add().
    void finish();
    std::span<const hpack::Field> get() const { return m_fields; }

private:
    struct Sizes {
        size_t name;
        size_t value;
        bool neverIndexed;
    };
    std::string m_texts;
    std::vector<Sizes> m_sizes;
    std::vector<hpack::Field> m_fields;
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
    bool setPath(std::string_view path);
    bool setMethod(std::string_view method);  // any token but CONNECT
    bool addHeader(std::string_view name, std::string_view value, bool neverIndexed);

    void setBlock(std::string_view block);
    void setReader(int (*reader)(char* buf, size_t len, void* opaque), void* opaque);
    void clear() { *this = Message(); }

    const std::string& method() const { return m_method; }  // empty: not set
    bool isIdempotent() const;                              // RFC 9110, 9.2.2

    // Puts the whole request together. `authority` is used when there was no host header. False:
    // content-length and content differ.
    bool compose(bool tls, std::string_view authority, RequestFields& fields,
                 Content& content) const;

private:
    struct Header {
        std::string name;
        std::string value;
        bool neverIndexed;
    };

    bool declareLength(std::string_view value);

    std::string m_method;
    std::string m_path = "/";
    std::string m_authority;
    std::vector<Header> m_headers;
    size_t m_headerOctets = 0;  // name, value and 32 each
    Content m_content;
    bool m_lengthWrong = false;  // content-length is no number, or two numbers
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_CLIENT_MESSAGE_H
