#include "Http2Client/buffer.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <string>

#include "tests/support/capture.h"
#include "tests/support/guarded.h"

namespace {

std::string text(const Buffer& buffer) { return std::string(buffer.buffer, buffer.len); }

std::string memory(const Buffer& buffer) { return std::string(buffer.buffer, buffer.max_len); }

std::string zeros(size_t n) { return std::string(n, '\0'); }

TEST(Buffer, IsEmptyWithCapacityEightWhenNew) {
    const Buffer buffer;
    EXPECT_EQ(buffer.Length(), 0U);
    EXPECT_EQ(buffer.max_len, 8U);
    EXPECT_EQ(memory(buffer), zeros(8));
}

TEST(Buffer, KeepsItsFieldsInOrder) {
    EXPECT_EQ(offsetof(Buffer, buffer), 0U);
    EXPECT_EQ(offsetof(Buffer, len), 8U);
    EXPECT_EQ(offsetof(Buffer, max_len), 12U);
}

TEST(Buffer, ReservesZeroedRoomWithoutLength) {
    const Buffer buffer(100U);
    EXPECT_EQ(buffer.Length(), 0U);
    EXPECT_EQ(buffer.max_len, 128U);
    EXPECT_EQ(memory(buffer), zeros(128));
}

TEST(Buffer, CapacityIsTheSmallestEightTimesPowerOfTwo) {
    const std::pair<unsigned int, uint32_t> cases[] = {{0, 8},   {1, 8},   {8, 8},      {9, 16},
                                                       {16, 16}, {17, 32}, {1000, 1024}};
    for (const auto& [wanted, capacity] : cases) EXPECT_EQ(Buffer(wanted).max_len, capacity);
}

TEST(Buffer, CopiesTextWithoutItsTerminator) {
    const Buffer buffer("hello, you");
    EXPECT_EQ(text(buffer), "hello, you");
    EXPECT_EQ(memory(buffer), "hello, you" + zeros(6));
}

TEST(Buffer, CopiesBlockWithEmbeddedZeros) {
    const Buffer buffer("a\0b", 3);
    EXPECT_EQ(text(buffer), std::string("a\0b", 3));
    EXPECT_EQ(buffer.max_len, 8U);
}

TEST(Buffer, ReadsNoByteBeyondTheBlockItCopies) {
    const h2test::GuardedBytes input("0123456789");
    const Buffer made(input.data(), 10);
    Buffer copied;
    copied.Copy(input.data(), 10, 3);
    copied.Append(input.data(), 10);
    EXPECT_EQ(text(made), "0123456789");
    EXPECT_EQ(text(copied), zeros(3) + "01234567890123456789");
}

TEST(Buffer, TreatsNullTextAsEmpty) {
    Buffer buffer(static_cast<const char*>(nullptr));
    EXPECT_EQ(buffer.Length(), 0U);
    EXPECT_EQ(Buffer(nullptr, 5).Length(), 0U);
    buffer += static_cast<const char*>(nullptr);
    buffer.Append(nullptr, 7);
    buffer = static_cast<const char*>(nullptr);
    EXPECT_EQ(buffer.Length(), 0U);
}

TEST(Buffer, CopyIsDeep) {
    Buffer original("abc");
    Buffer copy(original);
    original[0] = 'X';
    EXPECT_EQ(text(copy), "abc");
    EXPECT_NE(copy.buffer, original.buffer);
}

TEST(Buffer, ResizeShrinksCapacityToo) {
    Buffer buffer(1024U);
    EXPECT_EQ(buffer.max_len, 1024U);
    buffer.Resize(20);
    EXPECT_EQ(buffer.max_len, 32U);
    EXPECT_EQ(buffer.Length(), 20U);
}

TEST(Buffer, ResizeKeepsOldContentsAndZeroesNewMemory) {
    Buffer buffer("12345678");
    buffer.Resize(20);
    EXPECT_EQ(memory(buffer), "12345678" + zeros(24));
    buffer.Resize(2);
    EXPECT_EQ(memory(buffer), "12345678");
    buffer.Resize(16);
    EXPECT_EQ(memory(buffer), "12345678" + zeros(8));
}

TEST(Buffer, UpdateBufferSizeCutsTheLengthToTheNewCapacity) {
    Buffer buffer("0123456789");
    buffer.UpdateBufferSize(17);
    EXPECT_EQ(buffer.max_len, 32U);
    EXPECT_EQ(text(buffer), "0123456789");
    buffer.UpdateBufferSize(0);
    EXPECT_EQ(buffer.max_len, 8U);
    EXPECT_EQ(text(buffer), "01234567");
}

TEST(Buffer, ClearFallsBackToCapacityEight) {
    Buffer buffer("a text of more than eight bytes");
    buffer.Clear();
    EXPECT_EQ(buffer.Length(), 0U);
    EXPECT_EQ(buffer.max_len, 8U);
}

TEST(Buffer, CopyBelowTheLengthTruncates) {
    Buffer buffer("0123456789");
    buffer.Copy(Buffer("ab"), 3);
    EXPECT_EQ(text(buffer), "012ab");
    EXPECT_EQ(buffer.max_len, 16U);
    buffer.Copy("xyz", 3, 1);
    EXPECT_EQ(text(buffer), "0xyz");
}

TEST(Buffer, CopiesAStretchOfItselfOverItself) {
    Buffer buffer("0123456789");
    buffer.Copy(buffer, 4);
    EXPECT_EQ(text(buffer), "01230123456789");
    buffer.Copy(buffer.buffer + 2, 5, 0);
    EXPECT_EQ(text(buffer), "23012");
}

TEST(Buffer, CopyBeyondTheLengthLeavesTheBytesBetween) {
    Buffer buffer("0123456789");
    buffer.Resize(2);
    buffer.Copy(Buffer("ab"), 5);
    EXPECT_EQ(text(buffer), "01234ab");
    buffer.Copy("c", 1, 30);
    EXPECT_EQ(text(buffer), "01234ab7" + zeros(22) + "c");
    EXPECT_EQ(buffer.max_len, 32U);
}

TEST(Buffer, CopyOfOneCharacterNeverShortens) {
    Buffer buffer("0123");
    buffer.Copy('x', 1);
    EXPECT_EQ(text(buffer), "0x23");
    buffer.Set('y', 6);
    EXPECT_EQ(text(buffer), "0x23" + zeros(2) + "y");
}

TEST(Buffer, AppendsBuffersBlocksAndCharacters) {
    Buffer buffer("ab");
    buffer.Append(Buffer("cd"));
    buffer.Append("efg", 2);
    buffer.Append('g');
    EXPECT_EQ(text(buffer), "abcdefg");
}

TEST(Buffer, AppendsItself) {
    Buffer buffer("12345678");
    buffer.Append(buffer);
    EXPECT_EQ(text(buffer), "1234567812345678");
    buffer += buffer;
    EXPECT_EQ(text(buffer), "12345678123456781234567812345678");
    buffer.Append(buffer.buffer + 6, 26);
    EXPECT_EQ(text(buffer).substr(32), "78123456781234567812345678");
    const Buffer& itself = buffer;
    buffer = itself;
    EXPECT_EQ(buffer.Length(), 58U);
    Buffer withTerminator("0123456789abcdefgh\0rest", 23);
    withTerminator = withTerminator.buffer + 2;
    EXPECT_EQ(text(withTerminator), "23456789abcdefgh");
}

TEST(Buffer, PlusChangesItsLeftOperand) {
    Buffer a("a");
    const Buffer b("b");
    Buffer& sum = a + b;
    // This operator returns its left operand, and no temporary.
    // cppcheck-suppress danglingTempReference
    // cppcheck-suppress danglingTemporaryLifetime
    EXPECT_EQ(&sum, &a);
    EXPECT_EQ(&(a + "cd"), &a);
    EXPECT_EQ(&(a + 'e'), &a);
    EXPECT_EQ(text(a), "abcde");
    EXPECT_EQ(&(a += b), &a);
    EXPECT_EQ(&(a += "xy"), &a);
    EXPECT_EQ(&(a += 'z'), &a);
    EXPECT_EQ(text(a), "abcdebxyz");
    EXPECT_EQ(text(b), "b");
}

TEST(Buffer, AssignmentShrinksToTheSource) {
    Buffer buffer(1000U);
    buffer = Buffer("abc");
    EXPECT_EQ(text(buffer), "abc");
    EXPECT_EQ(buffer.max_len, 8U);
    buffer = "a longer text than that";
    EXPECT_EQ(text(buffer), "a longer text than that");
    EXPECT_EQ(buffer.max_len, 32U);
}

TEST(Buffer, AnswersReadsPastTheLength) {
    const Buffer buffer("abc");
    EXPECT_EQ(buffer.Get(2), 'c');
    EXPECT_EQ(buffer.Get(3), '\0');
    EXPECT_EQ(buffer.Address(0), buffer.buffer);
    EXPECT_EQ(buffer.Address(2), buffer.buffer + 2);
    EXPECT_EQ(buffer.Address(3), nullptr);
    EXPECT_EQ(Buffer().Address(0), nullptr);
}

TEST(Buffer, SetValueWritesBigEndian) {
    Buffer buffer;
    EXPECT_TRUE(buffer.SetValue(0x0102030405, 5, 0));
    EXPECT_EQ(text(buffer), "\x01\x02\x03\x04\x05");
    EXPECT_TRUE(buffer.SetValue(0xAABBCCDD, 2, 4));  // only the low bytes
    EXPECT_EQ(text(buffer), "\x01\x02\x03\x04\xCC\xDD");
    EXPECT_TRUE(buffer.SetValue(0x1122334455667788, 8, 6));
    EXPECT_EQ(text(buffer).substr(6), "\x11\x22\x33\x44\x55\x66\x77\x88");
}

TEST(Buffer, SetValueRefusesMoreThanEightBytes) {
    Buffer buffer("abc");
    EXPECT_FALSE(buffer.SetValue(1, 9, 0));
    EXPECT_EQ(text(buffer), "abc");
    EXPECT_EQ(buffer.max_len, 8U);
}

TEST(Buffer, SetValueNeverShortens) {
    Buffer buffer("0123456789");
    EXPECT_TRUE(buffer.SetValue(0x4142, 2, 0));
    EXPECT_EQ(text(buffer), "AB23456789");
    EXPECT_TRUE(buffer.SetValue(0, 0, 4));
    EXPECT_TRUE(buffer.SetValue(0, -3, 4));
    EXPECT_TRUE(buffer.SetValue(0, -3, 2));
    EXPECT_EQ(text(buffer), "AB23456789");
}

TEST(Buffer, SetValueOfNoBytesStillReachesItsPosition) {
    Buffer buffer("0123");
    EXPECT_TRUE(buffer.SetValue(0xFF, 0, 6));
    EXPECT_EQ(text(buffer), "0123" + zeros(2));
    EXPECT_TRUE(buffer.SetValue(0xFF, -3, 12));
    EXPECT_EQ(text(buffer), "0123" + zeros(5));
    EXPECT_EQ(buffer.max_len, 16U);
}

TEST(Buffer, GetValueExtendsEachBytesSign) {
    const Buffer high("\x01\x80", 2);
    EXPECT_EQ(high.GetValue(2, 0), 0xFFFFFFFFFFFFFF80ULL);
    const Buffer low("\x01\x7F", 2);
    EXPECT_EQ(low.GetValue(2, 0), 0x017FULL);
    EXPECT_EQ(low.GetValue(1, 1), 0x7FULL);
    EXPECT_EQ(low.GetValue(9, 0), 0ULL);
    EXPECT_EQ(low.GetValue(0, 0), 0ULL);
}

TEST(Buffer, GetValueIsBoundedByTheCapacityOnly) {
    Buffer buffer("12345678");
    buffer.Resize(1);
    EXPECT_EQ(buffer.GetValue(2, 0), 0x3132ULL);
    EXPECT_EQ(buffer.GetValue(4, 6), 0x37380000ULL);
    EXPECT_EQ(buffer.GetValue(8, 0xFFFFFFFF), 0ULL);
}

TEST(Buffer, PrintsHexAndText) {
    h2test::CoutCapture out;
    Buffer::PrintBuffer("\x41\x00\xFF", 3);
    EXPECT_EQ(out.str(), "41 00 FF                A..\n");
}

TEST(Buffer, PrintsEightBytesALine) {
    h2test::CoutCapture out;
    Buffer("ABCDEFGH\x7F\x1F !").Print();
    EXPECT_EQ(out.str(),
              "41 42 43 44 45 46 47 48 ABCDEFGH\n"
              "7F 1F 20 21             .. !\n");
    out.clear();
    Buffer("12345678").Print();
    EXPECT_EQ(out.str(), "31 32 33 34 35 36 37 38 12345678\n");
    out.clear();
    Buffer::PrintBuffer("x", 0);
    Buffer().Print();
    EXPECT_EQ(out.str(), "");
}

TEST(Buffer, PrintLeavesItsSettingsOnTheStream) {
    h2test::CoutCapture out;
    std::cout << std::dec << std::nouppercase << std::setfill(' ');
    Buffer("a").Print();
    out.clear();
    std::cout << std::setw(4) << 0xAB;
    EXPECT_EQ(out.str(), "00AB");
    std::cout << std::dec << std::nouppercase << std::setfill(' ');
}

TEST(Buffer, FixedWidthHoldersKeepTheirLowBits) {
    uint24_t a{};
    EXPECT_EQ(&(a = 0x1234567U), &a);
    EXPECT_EQ(a.value_, 0x234567U);
    uint40_t b{};
    EXPECT_EQ(&(b = uint64_t{0xFFEEDDCCBBAA9988}), &b);
    EXPECT_EQ(b.value_, 0xCCBBAA9988ULL);
    uint48_t c{};
    EXPECT_EQ(&(c = uint64_t{0xFFEEDDCCBBAA9988}), &c);
    EXPECT_EQ(c.value_, 0xDDCCBBAA9988ULL);
    uint52_t d{};
    EXPECT_EQ(&(d = uint64_t{0xFFEEDDCCBBAA9988}), &d);
    EXPECT_EQ(d.value_, 0xEDDCCBBAA9988ULL);
}

// The bytes of `holder` after `value` was assigned to storage full of ones.
template <typename Holder, typename Value, typename Storage>
Storage storageAfter(Value value, Storage ones) {
    static_assert(sizeof(Holder) == sizeof(Storage));
    Holder holder;
    std::memcpy(&holder, &ones, sizeof(holder));
    holder = value;
    std::memcpy(&ones, &holder, sizeof(holder));
    return ones;
}

TEST(Buffer, FixedWidthHoldersLeaveTheBitsAboveAlone) {
    const uint64_t ones = ~uint64_t{0};
    EXPECT_EQ(storageAfter<uint24_t>(uint32_t{0x1234567}, ~uint32_t{0}), 0xFF234567U);
    EXPECT_EQ(storageAfter<uint40_t>(uint64_t{5}, ones), 0xFFFFFF0000000005ULL);
    EXPECT_EQ(storageAfter<uint48_t>(uint64_t{5}, ones), 0xFFFF000000000005ULL);
    EXPECT_EQ(storageAfter<uint52_t>(uint64_t{5}, ones), 0xFFF0000000000005ULL);
}

}  // namespace
