// A command payload struct as the bytes that travel on the bus, and back.
#ifndef USBMGR_TEST_PAYLOAD_BYTES_H
#define USBMGR_TEST_PAYLOAD_BYTES_H

#include <algorithm>
#include <cstring>
#include <vector>

namespace testing_support {

template <typename Cmd>
std::vector<unsigned char> bytes_of(const Cmd& c) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&c);
    return std::vector<unsigned char>(p, p + sizeof c);
}

// A shorter payload leaves the rest of the struct zero.
template <typename Cmd>
Cmd cmd_of(const std::vector<unsigned char>& p) {
    Cmd c{};
    std::memcpy(&c, p.data(), std::min(p.size(), sizeof c));
    return c;
}

}  // namespace testing_support

#endif
