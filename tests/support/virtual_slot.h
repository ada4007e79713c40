#ifndef HTTP2CLIENT_TESTS_SUPPORT_VIRTUAL_SLOT_H
#define HTTP2CLIENT_TESTS_SUPPORT_VIRTUAL_SLOT_H

#include <cstddef>
#include <cstring>

namespace h2test {

// The slot of a virtual function in its class's table. A virtual destructor in front of it takes
// two. A pointer to a virtual member is 1 more than the offset of its slot (Itanium C++ ABI, 2.3).
template <typename Member>
size_t virtualSlot(Member member) {
    size_t offset = 0;
    std::memcpy(&offset, &member, sizeof(offset));
    return (offset - 1) / sizeof(void*);
}

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_VIRTUAL_SLOT_H
