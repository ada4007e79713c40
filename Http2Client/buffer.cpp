#include "buffer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>

namespace {

constexpr uint32_t kMinCapacity = 8;
constexpr uint32_t kMaxPowerCapacity = 0x80000000;
constexpr unsigned int kMaxIntegerBytes = 8;
constexpr int kDumpColumns = 8;

// The process ends here, and so counts nothing. GCOVR_EXCL_START
[[noreturn]] void EndForLackOfMemory() {
    std::fputs("Http2Client: out of memory\n", stderr);
    std::abort();
}
// GCOVR_EXCL_STOP

uint32_t TextLength(const char* str) {
    const size_t n = str == nullptr ? 0 : std::strlen(str);
    if (n > UINT32_MAX) EndForLackOfMemory();
    return static_cast<uint32_t>(n);
}

uint32_t CapacityFor(uint32_t min) {
    if (min > kMaxPowerCapacity) return UINT32_MAX;
    uint32_t capacity = kMinCapacity;
    while (capacity < min) capacity *= 2;
    return capacity;
}

bool IsPrintable(char ch) {
    const auto value = static_cast<signed char>(ch);
    return value > 31 && value != 127;
}

}  // namespace

Buffer::Buffer() : Buffer(0U) {}

Buffer::Buffer(unsigned int buff_len) : buffer(nullptr), len(0), max_len(0) {
    UpdateBufferSize(buff_len);
}

Buffer::Buffer(const char* str) : Buffer(str, TextLength(str)) {}

Buffer::Buffer(const char* str, unsigned int str_len) : Buffer(str_len) { Copy(str, str_len, 0); }

Buffer::Buffer(const Buffer& a) : Buffer(a.buffer, a.len) {}

Buffer::~Buffer() { free(buffer); }

void Buffer::Append(const Buffer& a) { Copy(a, len); }

void Buffer::Append(const char* buff, unsigned int buff_len) { Copy(buff, buff_len, len); }

void Buffer::Append(char ch) { Copy(ch, len); }

void Buffer::Copy(const Buffer& a, unsigned int at) { Write(a.buffer, a.len, at); }

void Buffer::Copy(const char* buff, unsigned int buff_len, unsigned int at) {
    Write(buff, buff == nullptr ? 0 : buff_len, at);
}

void Buffer::Copy(char ch, unsigned int at) { Set(ch, at); }

void Buffer::Resize(unsigned int buff_len) {
    UpdateBufferSize(buff_len);
    len = buff_len;
}

void Buffer::Set(char ch, unsigned int idx) { SetValue(static_cast<unsigned char>(ch), 1, idx); }

uint64_t Buffer::GetValue(unsigned int bytes, unsigned int idx) const {
    if (bytes > kMaxIntegerBytes) return 0;
    uint64_t value = 0;
    for (unsigned int i = 0; i < bytes; ++i) {
        const uint64_t at = uint64_t{idx} + i;
        const auto byte = static_cast<signed char>(at < max_len ? buffer[at] : 0);
        value = (value << 8) | static_cast<uint64_t>(int64_t{byte});
    }
    return value;
}

bool Buffer::SetValue(uint64_t value, int bytes, unsigned int idx) {
    if (bytes > static_cast<int>(kMaxIntegerBytes)) return false;
    const int64_t end = int64_t{idx} + bytes;
    if (end <= 0) return true;
    GrowTo(static_cast<uint64_t>(end));
    for (int i = 0; i < bytes; ++i) {
        buffer[uint64_t{idx} + static_cast<unsigned int>(i)] =
            static_cast<char>(value >> (8 * (bytes - 1 - i)));
    }
    if (len < end) len = static_cast<uint32_t>(end);
    return true;
}

Buffer& Buffer::operator=(const Buffer& a) {
    UpdateBufferSize(a.len);
    if (this != &a) std::memcpy(buffer, a.buffer, a.len);
    len = a.len;
    return *this;
}

// The text may lie in this very buffer, so it is copied before the block may move.
Buffer& Buffer::operator=(const char* str) { return *this = Buffer(str); }

Buffer& Buffer::operator+=(const Buffer& a) {
    Append(a);
    return *this;
}

Buffer& Buffer::operator+=(const char* str) {
    Append(str, TextLength(str));
    return *this;
}

Buffer& Buffer::operator+=(char ch) {
    Append(ch);
    return *this;
}

void Buffer::Print() const { PrintBuffer(buffer, static_cast<int>(len)); }

void Buffer::PrintBuffer(const char* buff, int len) {
    int column = 0;
    for (int i = 0; i < len; ++i) {
        std::cout << std::uppercase << std::hex << std::setfill('0') << std::setw(2)
                  << static_cast<unsigned int>(static_cast<unsigned char>(buff[i])) << " ";
        ++column;
        if (column < kDumpColumns && i + 1 < len) continue;
        for (int missing = column; missing < kDumpColumns; ++missing) std::cout << "   ";
        for (int shown = i + 1 - column; shown <= i; ++shown) {
            std::cout << (IsPrintable(buff[shown]) ? buff[shown] : '.');
        }
        std::cout << '\n';
        column = 0;
    }
    std::cout.flush();
}

void Buffer::UpdateBufferSize(unsigned int min) {
    const uint32_t capacity = CapacityFor(min);
    if (buffer != nullptr && capacity == max_len) return;
    auto* block = static_cast<char*>(realloc(buffer, capacity));
    if (block == nullptr) EndForLackOfMemory();
    buffer = block;
    if (capacity > max_len) std::memset(buffer + max_len, 0, capacity - max_len);
    max_len = capacity;
    if (len > max_len) len = max_len;
}

void Buffer::GrowTo(uint64_t min) {
    if (min > UINT32_MAX) EndForLackOfMemory();
    if (max_len < min) UpdateBufferSize(static_cast<uint32_t>(min));
}

// `src` may point into this buffer, whose block moves when it grows.
void Buffer::Write(const char* src, uint32_t n, unsigned int at) {
    const bool own = src >= buffer && src < buffer + max_len;
    const size_t own_offset = own ? static_cast<size_t>(src - buffer) : 0;
    GrowTo(uint64_t{at} + n);
    if (n != 0) std::memmove(buffer + at, own ? buffer + own_offset : src, n);
    len = at + n;
}
