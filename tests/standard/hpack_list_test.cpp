#include "Http2ClientStandard/hpack/field_list.h"

#include <gtest/gtest.h>

#include "Http2ClientStandard/base/load.h"
#include "hpack_support.h"

namespace {

using namespace h2test;
using namespace h2::hpack;
using h2::Bytes;
using std::string;
using std::string_view;

constexpr string_view kToken = "!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyz";

TEST(FieldRules, ANameIsALowerCaseToken) {
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const bool allowed = kToken.find(c) != string_view::npos;
        for (const string& name : {string(1, c), "ab" + string(1, c), string(1, c) + "ab",
                                   string(20, 'a') + c + string(20, 'b')}) {
            // A colon may stand first: then it is a pseudo-header field's.
            const bool pseudo = c == ':' && name[0] == ':' && name.size() > 1;
            EXPECT_EQ(isValidName(GuardedBytes(name).view()), allowed || pseudo) << byte;
        }
    }
    EXPECT_FALSE(isValidName(""));
    EXPECT_FALSE(isValidName(":"));
    EXPECT_FALSE(isValidName("::a"));
    EXPECT_FALSE(isValidName(":a:"));
    EXPECT_TRUE(isValidName(":status"));
}

TEST(FieldRules, AValueHasNoControlBytesAndNoBlanksAround) {
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const bool blank = c == ' ' || c == '\t';
        const bool inside = blank || (byte > 0x20 && byte != 0x7F);
        for (size_t size = 1; size <= 40; ++size) {
            for (size_t at = 0; at < size; ++at) {
                string value(size, 'v');
                value[at] = c;
                const bool edge = at == 0 || at == size - 1;
                ASSERT_EQ(isValidValue(value), inside && !(edge && blank))
                    << byte << " at " << at << " of " << size;
            }
        }
    }
    EXPECT_TRUE(isValidValue(""));
    EXPECT_FALSE(isValidValue(" "));
}

TEST(FieldRules, ReadNothingBesideTheText) {
    for (size_t size = 0; size <= 70; ++size) {
        EXPECT_TRUE(isValidValue(GuardedBytes(string(size, 'v')).view())) << size;
        // A bad byte right in front of the text, or right behind.
        const string value = "\n" + string(size, 'v') + "\n";
        EXPECT_TRUE(isValidValue(string_view(value).substr(1, size))) << size;
    }
}

TEST(FieldRules, TellNamesApart) {
    const std::pair<const char*, NameId> kNames[] = {
        {":status", NameId::kStatus},
        {":path", NameId::kOtherPseudo},
        {":", NameId::kOtherPseudo},
        {"connection", NameId::kConnectionSpecific},
        {"keep-alive", NameId::kConnectionSpecific},
        {"proxy-connection", NameId::kConnectionSpecific},
        {"transfer-encoding", NameId::kConnectionSpecific},
        {"upgrade", NameId::kConnectionSpecific},
        {"te", NameId::kTe},
        {"content-length", NameId::kContentLength},
        {"cookie", NameId::kCookie},
        {"set-cookie", NameId::kSetCookie},
        {"", NameId::kOther},
        {"status", NameId::kOther},
    };
    for (const auto& [text, id] : kNames) {
        EXPECT_EQ(identify(text), id) << text;
        string other(text);
        if (other.empty() || other[0] == ':') continue;
        other.back() = '~';
        EXPECT_EQ(identify(other), NameId::kOther) << other;
    }
}

TEST(FieldList, StoresFieldsWithinItsLimit) {
    FieldList list;
    list.setLimit(100);
    list.add("a", "1");
    list.add("b", string(33, '2'), true);  // 34 and 66: just full
    EXPECT_FALSE(list.overflow());
    EXPECT_EQ(list.octets(), 100U);
    list.add("", "");
    EXPECT_TRUE(list.overflow());
    EXPECT_EQ(list.octets(), 132U);
    EXPECT_EQ(fieldsOf(list), (TestFields{{"a", "1"}, {"b", string(33, '2'), true}}));
    EXPECT_TRUE(list.malformed());  // an empty name
    list.clear();
    EXPECT_TRUE(list.empty());
    EXPECT_FALSE(list.overflow());
    EXPECT_FALSE(list.malformed());
    EXPECT_EQ(list.octets(), 0U);
}

TEST(FieldList, IsReusedWithoutNewMemory) {
    FieldList list;
    const auto fill = [&list] {
        for (int i = 0; i < 100; ++i) list.add("name" + std::to_string(i), string(20, 'v'));
    };
    fill();
    const char* const texts = list.m_texts.data();
    const auto* const fields = list.m_fields.get();
    for (int i = 0; i < 10; ++i) {
        list.clear();
        fill();
    }
    EXPECT_EQ(list.m_texts.data(), texts);
    EXPECT_EQ(list.m_fields.get(), fields);
    EXPECT_EQ(list.size(), 100U);
    EXPECT_EQ(list.name(99), "name99");
    list.release();
    EXPECT_EQ(list.m_texts.capacity(), 0U);
    EXPECT_TRUE(list.empty());
    list.add("a", "b");
    EXPECT_EQ(fieldsOf(list), (TestFields{{"a", "b"}}));
}

TEST(Bytes, AreFilledAtTheEndAndEmptiedFromTheFront) {
    Bytes bytes;
    EXPECT_TRUE(bytes.empty());
    string expected;
    for (int i = 0; i < 1000; ++i) {
        const string piece(static_cast<size_t>(i) % 37, static_cast<char>('a' + i % 26));
        bytes.append(piece);
        bytes.append('-');
        expected += piece + "-";
        const size_t gone = expected.size() * 2 / 3;
        bytes.consume(gone);
        expected.erase(0, gone);
        ASSERT_EQ(bytes.view(), expected) << i;
    }
    EXPECT_LE(bytes.capacity(), 256U);
    bytes.truncate(1);
    EXPECT_EQ(bytes.view(), expected.substr(0, 1));
    Bytes moved = std::move(bytes);
    EXPECT_EQ(moved.view(), expected.substr(0, 1));
    moved.release();
    EXPECT_EQ(moved.capacity(), 0U);
}

TEST(Bytes, AreWrittenInPlace) {
    Bytes bytes;
    bytes.append("abc");
    char* const at = bytes.room(1000);
    std::memset(at, 'x', 1000);
    bytes.commit(2);
    EXPECT_EQ(bytes.view(), "abcxx");
    EXPECT_GE(bytes.capacity(), 1003U);
    bytes.clear();
    EXPECT_GE(bytes.capacity(), 1003U);
    EXPECT_EQ(bytes.size(), 0U);
}

TEST(Load, ComparesTextsOfAnyLength) {
    for (size_t size = 0; size <= 40; ++size) {
        const string text(size, 't');
        const GuardedBytes a(text);
        const GuardedBytes b(text);
        EXPECT_TRUE(h2::sameText(a.view(), b.view())) << size;
        EXPECT_FALSE(h2::sameText(a.view(), text + "t")) << size;
        for (size_t at = 0; at < size; ++at) {
            string other = text;
            other[at] = 'u';
            EXPECT_FALSE(h2::sameText(a.view(), GuardedBytes(other).view())) << size << " " << at;
        }
    }
}

}  // namespace
