#include "Http2Client/buffer.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <string>
#include <type_traits>

#include "tests/support/capture.h"
#include "tests/support/guarded.h"

namespace {

std::string text(const Buffer& buffer) { return std::string(buffer.buffer, buffer.len); }

std::string memory(const Buffer& buffer) { return std::string(buffer.buffer, buffer.max_len); }

std::string zeros(size_t n) { return std::string(n, '\0'); }

TEST(Buffer, HasThreePlainFieldsInOrder) {
    EXPECT_EQ(offsetof(Buffer, buffer), 0U);
    EXPECT_EQ(offsetof(Buffer, len), 8U);
    EXPECT_EQ(offsetof(Buffer, max_len), 12U);
    EXPECT_TRUE((std::is_same_v<decltype(Buffer::buffer), char*>));
    EXPECT_TRUE((std::is_same_v<decltype(Buffer::len), uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(Buffer::max_len), uint32_t>));
}

TEST(Buffer, IsEmptyAndZeroedWhenNew) {
    const Buffer buffer;
    EXPECT_EQ(buffer.Length(), 0U);
    EXPECT_EQ(memory(buffer), zeros(8));
    const Buffer reserved(100U);
    EXPECT_EQ(reserved.Length(), 0U);
    EXPECT_EQ(memory(reserved), zeros(128));
}

TEST(Buffer, CapacityIsTheSmallestEightTimesPowerOfTwo) {
    const std::pair<unsigned int, uint32_t> cases[] = {{0, 8},   {1, 8},   {8, 8},      {9, 16},
                                                       {16, 16}, {17, 32}, {1000, 1024}};
    for (const auto& [wanted, capacity] : cases) EXPECT_EQ(Buffer(wanted).max_len, capacity);
}

TEST(Buffer, CopiesTextsAndBlocks) {
    EXPECT_EQ(memory(Buffer("hello, you")), "hello, you" + zeros(6));  // no terminator counts
    EXPECT_EQ(Buffer("hello, you").Length(), 10U);
    EXPECT_EQ(text(Buffer("a\0b", 3)), std::string("a\0b", 3));
    const h2test::GuardedBytes input("0123456789");
    EXPECT_EQ(text(Buffer(input.data(), 10)), "0123456789");
    Buffer copied;
    copied.Copy(input.data(), 10, 3);
    copied.Append(input.data(), 10);
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
    const Buffer copy(original);
    original[0] = 'X';
    EXPECT_EQ(text(copy), "abc");
    EXPECT_EQ(text(original), "Xbc");
}

TEST(Buffer, ResizeSetsLengthAndCapacity) {
    Buffer buffer(1024U);
    buffer.Resize(20);
    EXPECT_EQ(buffer.max_len, 32U);
    EXPECT_EQ(buffer.Length(), 20U);
    buffer = "12345678";
    buffer.Resize(20);
    EXPECT_EQ(memory(buffer), "12345678" + zeros(24));
    buffer.Resize(2);
    EXPECT_EQ(memory(buffer), "12345678");
    buffer.Resize(16);
    EXPECT_EQ(memory(buffer), "12345678" + zeros(8));
    buffer.Clear();
    EXPECT_EQ(buffer.Length(), 0U);
    EXPECT_EQ(buffer.max_len, 8U);
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

TEST(Buffer, CopyEndsTheBufferBehindWhatItWrote) {
    Buffer buffer("0123456789");
    buffer.Copy(Buffer("ab"), 3);
    EXPECT_EQ(text(buffer), "012ab");
    EXPECT_EQ(buffer.max_len, 16U);
    buffer.Copy("xyz", 3, 1);
    EXPECT_EQ(text(buffer), "0xyz");
}

TEST(Buffer, CopyBeyondTheLengthLeavesTheBytesBetween) {
    Buffer buffer("0123456789");
    buffer.Resize(2);
    buffer.Copy(Buffer("ab"), 5);
    EXPECT_EQ(text(buffer), "01234ab");
    buffer.Copy("c", 1, 30);
    EXPECT_EQ(text(buffer), "01234ab7" + zeros(22) + "c");
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

TEST(Buffer, MayBeItsOwnSource) {
    Buffer buffer("0123456789");
    buffer.Copy(buffer, 4);
    EXPECT_EQ(text(buffer), "01230123456789");
    buffer.Copy(buffer.buffer + 2, 5, 0);
    EXPECT_EQ(text(buffer), "23012");
    buffer = "12345678";
    buffer += buffer;  // its block moves
    EXPECT_EQ(text(buffer), "1234567812345678");
    buffer.Append(buffer.buffer + 6, 10);
    EXPECT_EQ(text(buffer).substr(16), "7812345678");
    const Buffer& itself = buffer;
    buffer = itself;
    EXPECT_EQ(buffer.Length(), 26U);
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
    char* writable = buffer.Address(2);
    const char* readable = buffer.Address(0);
    EXPECT_EQ(writable, buffer.buffer + 2);
    EXPECT_EQ(readable, buffer.buffer);
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
    EXPECT_FALSE(buffer.SetValue(1, 9, 0));
    EXPECT_EQ(buffer.Get(0), 1);
}

TEST(Buffer, SetValueReachesItsEndAndNeverShortens) {
    Buffer buffer("0123456789");
    EXPECT_TRUE(buffer.SetValue(0x4142, 2, 0));
    EXPECT_TRUE(buffer.SetValue(0, 0, 4));
    EXPECT_TRUE(buffer.SetValue(0, -3, 4));
    EXPECT_TRUE(buffer.SetValue(0, -3, 2));
    EXPECT_EQ(text(buffer), "AB23456789");
    EXPECT_TRUE(buffer.SetValue(0xFF, 0, 12));
    EXPECT_EQ(text(buffer), "AB23456789" + zeros(2));
    EXPECT_TRUE(buffer.SetValue(0xFF, -3, 17));
    EXPECT_EQ(text(buffer), "AB23456789" + zeros(4));
}

TEST(Buffer, GetValueExtendsEachBytesSign) {
    EXPECT_EQ(Buffer("\x01\x80").GetValue(2, 0), 0xFFFFFFFFFFFFFF80ULL);
    const Buffer low("\x01\x7F");
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

TEST(Buffer, PrintsHexAndTextEightBytesALine) {
    h2test::CoutCapture out;
    Buffer::PrintBuffer("\x41\x00\xFF", 3);
    Buffer("ABCDEFGH\x7F\x1F !").Print();
    Buffer("12345678").Print();
    Buffer::PrintBuffer("x", 0);
    Buffer().Print();
    EXPECT_EQ(out.str(),
              "41 00 FF                A..\n"
              "41 42 43 44 45 46 47 48 ABCDEFGH\n"
              "7F 1F 20 21             .. !\n"
              "31 32 33 34 35 36 37 38 12345678\n");
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

// Assigns to storage full of ones. The value's low bits are kept, the storage's bits above stay.
template <typename Holder, typename Value>
void expectHolder(Value value, Value kept, Value above) {
    static_assert(sizeof(Holder) == sizeof(Value));
    Value storage = ~Value{0};
    Holder holder;
    std::memcpy(&holder, &storage, sizeof(holder));
    EXPECT_EQ(&(holder = value), &holder);
    EXPECT_EQ(holder.value_, kept);
    std::memcpy(&storage, &holder, sizeof(holder));
    EXPECT_EQ(storage, above | kept);
}

TEST(Buffer, FixedWidthHoldersKeepTheirLowBits) {
    const uint64_t value = 0x12EEDDCCBBAA9988;
    expectHolder<uint24_t>(uint32_t{0x1234567}, uint32_t{0x234567}, uint32_t{0xFF000000});
    expectHolder<uint40_t>(value, uint64_t{0xCCBBAA9988}, uint64_t{0xFFFFFF0000000000});
    expectHolder<uint48_t>(value, uint64_t{0xDDCCBBAA9988}, uint64_t{0xFFFF000000000000});
    expectHolder<uint52_t>(value, uint64_t{0xEDDCCBBAA9988}, uint64_t{0xFFF0000000000000});
}

}  // namespace
