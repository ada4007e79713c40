#ifndef HTTP2CLIENT_BUFFER_H
#define HTTP2CLIENT_BUFFER_H

#include <cstdint>

// A growable array of bytes with big-endian integer access. Every layer builds and parses wire data
// with it.
//
// The capacity is the smallest 8 * 2^k that was enough. Resize, Clear and assignment may shrink it,
// everything else only grows it. Memory that growth adds is zero. Without memory, or for a size
// that 32 bits cannot count, the process ends with a message. Belongs to one thread at a time.
class Buffer {
public:
    Buffer();
    // An empty buffer with room for `buff_len` bytes.
    explicit Buffer(unsigned int buff_len);
    // Copies the text up to its NUL byte; null counts as empty.
    Buffer(const char* str);
    Buffer(const char* str, unsigned int str_len);
    Buffer(const Buffer& a);
    ~Buffer();

    void Append(const Buffer& a);
    void Append(const char* buff, unsigned int buff_len);
    void Append(char ch);

    // Overwrite from byte `at` on. The block forms end the buffer behind what they wrote, so they
    // may shorten it; bytes between the old end and `at` keep what the memory holds.
    void Copy(const Buffer& a, unsigned int at);
    void Copy(const char* buff, unsigned int buff_len, unsigned int at);
    void Copy(char ch, unsigned int at);

    // Sets length and capacity. New bytes are old contents of the memory, or zeros.
    void Resize(unsigned int buff_len);
    void Clear() { Resize(0); }

    unsigned int Length() const { return len; }
    // Null when `idx` is not below the length. Valid until the buffer changes.
    char* Address(unsigned int idx) const { return idx >= len ? nullptr : buffer + idx; }
    // 0 when `idx` is not below the length.
    char Get(unsigned int idx) const { return idx >= len ? '\0' : buffer[idx]; }
    void Set(char ch, unsigned int idx);

    // Reads `bytes` bytes, most significant first; 0 when `bytes` is above 8. Each byte is widened
    // with its sign, so the result is exact only when all bytes are below 0x80. Not bounded by
    // the length; bytes past the capacity read as 0.
    uint64_t GetValue(unsigned int bytes, unsigned int idx) const;
    // Writes the low `bytes` bytes of `value`, most significant first, growing the buffer to hold
    // them; never shortens it. Returns false, and changes nothing, when `bytes` is above 8. A
    // negative `bytes` writes nothing, and the buffer still reaches to `idx` + `bytes`.
    bool SetValue(uint64_t value, int bytes, unsigned int idx);

    char& operator[](unsigned int i) { return buffer[i]; }  // unchecked

    Buffer& operator=(const Buffer& a);
    Buffer& operator=(const char* str);

    // Both operators append to this buffer and return it: `a + b` changes `a`.
    Buffer& operator+(const Buffer& a) { return *this += a; }
    Buffer& operator+(const char* str) { return *this += str; }
    Buffer& operator+(char ch) { return *this += ch; }
    Buffer& operator+=(const Buffer& a);
    Buffer& operator+=(const char* str);
    Buffer& operator+=(char ch);

    // Writes a hex dump to standard output, eight bytes a line, their text beside them. Leaves
    // the stream in upper-case hexadecimal with fill character "0".
    void Print() const;
    static void PrintBuffer(const char* buff, int len);

    // Sets the capacity to the smallest 8 * 2^k of at least `min` (2^32 - 1 when that is above
    // 2^31). A length above the new capacity is cut to it.
    void UpdateBufferSize(unsigned int min);

    char* buffer;      // malloc'ed block of max_len bytes, never null
    uint32_t len;      // bytes in use; <= max_len
    uint32_t max_len;  // 8 * 2^k

private:
    // Writes `n` bytes from `at` on and ends the buffer behind them.
    void Write(const char* src, uint32_t n, unsigned int at);
    void GrowTo(uint64_t min);  // never shrinks; ends the process past 32 bits
};

// Holders that keep only the low bits of what is assigned to them.
class uint24_t {
public:
    uint24_t& operator=(const uint32_t& value) {
        value_ = value & 0xFFFFFF;
        return *this;
    }
    uint32_t value_ : 24;
};

class uint40_t {
public:
    uint40_t& operator=(const uint64_t& value) {
        value_ = value & 0xFFFFFFFFFF;
        return *this;
    }
    uint64_t value_ : 40;
};

class uint48_t {
public:
    uint48_t& operator=(const uint64_t& value) {
        value_ = value & 0xFFFFFFFFFFFF;
        return *this;
    }
    uint64_t value_ : 48;
};

class uint52_t {
public:
    uint52_t& operator=(const uint64_t& value) {
        value_ = value & 0xFFFFFFFFFFFFF;
        return *this;
    }
    uint64_t value_ : 52;
};

#endif  // HTTP2CLIENT_BUFFER_H
