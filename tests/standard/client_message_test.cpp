// What a request may say: RFC 9113, 8.2 and 8.3.1.
#include <gtest/gtest.h>

#include "Http2ClientStandard/client/message.h"

namespace {

using h2::Content;
using h2::Message;
using h2::RequestFields;

std::string fieldsOf(const Message& message) {
    RequestFields fields;
    Content content;
    if (!message.compose(true, "known", fields, content)) return "refused";
    std::string out;
    for (const h2::hpack::Field& field : fields.get()) {
        out += std::string(field.name) + "=" + std::string(field.value) + "\n";
    }
    return out;
}

std::string withPath(const std::string& method, const std::string& path) {
    Message message;
    EXPECT_TRUE(message.setMethod(method));
    EXPECT_TRUE(message.setPath(path)) << path;
    EXPECT_EQ(message.pathSuitsMethod(), path != "*" || method == "OPTIONS");
    const std::string fields = fieldsOf(message);
    return fields.substr(0, fields.find('\n'));
}

TEST(MessagePath, IsAbsoluteOrAStarForOptions) {
    EXPECT_EQ(withPath("GET", "/a?b=c:d@e"), ":path=/a?b=c:d@e");
    EXPECT_EQ(withPath("OPTIONS", "/a"), ":path=/a");
    EXPECT_EQ(withPath("OPTIONS", "*"), ":path=*");
    withPath("GET", "*");
    Message message;
    for (const char* path : {"a", "a/b", "?q", "**", "*/", "http://a/", "/a#b", "#", "/a b", "/a\t",
                             "/\x7f", "/\xc3\xa9", " /"}) {
        EXPECT_FALSE(message.setPath(path)) << path;
    }
}

TEST(MessagePath, OfATargetWithoutOneIsASlashOrAStar) {
    EXPECT_EQ(withPath("GET", ""), ":path=/");
    EXPECT_EQ(withPath("OPTIONS", ""), ":path=*");
    Message message;
    EXPECT_TRUE(message.setMethod("OPTIONS"));
    EXPECT_TRUE(fieldsOf(message).starts_with(":path=*\n"));
}

TEST(MessageAuthority, ReplacesTheHostHeaderAndHasNoUserInformation) {
    for (const char* host : {"a", "a:1", "[::1]:80", "192.0.2.1", "a.b-c_d~e", "x%20y"}) {
        Message message;
        EXPECT_TRUE(message.setMethod("GET"));
        EXPECT_TRUE(message.addHeader("host", host, false)) << host;
        EXPECT_EQ(fieldsOf(message),
                  ":path=/\n:method=GET\n:scheme=https\n:authority=" + std::string(host) + "\n");
    }
    Message message;
    EXPECT_TRUE(message.setMethod("GET"));
    for (const char* host : {"user@a", "user:secret@a", "@", "a/b", "a?b", "a#b", "a b", "a\tb"}) {
        EXPECT_FALSE(message.addHeader("host", host, false)) << host;
    }
    EXPECT_EQ(fieldsOf(message), ":path=/\n:method=GET\n:scheme=https\n:authority=known\n");
}

TEST(MessageFields, AreRefusedWhenTheyMayNotBeSent) {
    Message message;
    EXPECT_TRUE(message.setMethod("GET"));
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const bool inName = byte > 0x20 && byte < 0x7f && !(c >= 'A' && c <= 'Z') &&
                            std::string_view("\"(),/:;<=>?@[\\]{}").find(c) == std::string::npos;
        EXPECT_EQ(Message(message).addHeader(std::string("n") + c, "v", false), inName) << byte;
        const bool inValue = (byte >= 0x20 || byte == '\t') && byte != 0x7f;
        EXPECT_EQ(Message(message).addHeader("n", std::string("v") + c + "v", false), inValue)
            << byte;
        const bool atEdge = inValue && byte != ' ' && byte != '\t';
        EXPECT_EQ(Message(message).addHeader("n", std::string("v") + c, false), atEdge) << byte;
        EXPECT_EQ(Message(message).addHeader("n", c + std::string("v"), false), atEdge) << byte;
    }
    for (const char* name : {"connection", "keep-alive", "proxy-connection", "transfer-encoding",
                             "upgrade", "te", ":path", ":status", ":protocol", ":", ""}) {
        EXPECT_FALSE(message.addHeader(name, "x", false)) << name;
    }
    EXPECT_TRUE(message.addHeader("te", "trailers", false));
    EXPECT_TRUE(fieldsOf(message).ends_with(":authority=known\nte=trailers\n"));
}

TEST(MessageMethod, IsATokenButNotConnect) {
    Message message;
    EXPECT_FALSE(message.setMethod("CONNECT"));
    EXPECT_EQ(message.method(), "");
    EXPECT_TRUE(message.setMethod("connect"));  // methods are case-sensitive (RFC 9110, 9.1)
    EXPECT_TRUE(fieldsOf(message).starts_with(
        ":path=/\n:method=connect\n:scheme=https\n:authority=known\n"));
}

}  // namespace
