// Sample address records with distinct bytes in every field, and their wire forms built
// field by field (independently of the library's codec).
#pragma once

#include <cstring>

#include "ipclient/kernel.h"
#include "support/fake_kernel.hpp"

namespace ipt {

inline IPAddrKey sample_key() {
    IPAddrKey k{};
    k.usVrfIndex = 0x0102;
    k.usReserved = 0xA1A2;
    k.uiIfIndex = 0x03040506;
    const std::uint8_t addr[4] = {10, 1, 2, 3};
    const std::uint8_t mask[4] = {255, 255, 255, 0};
    std::memcpy(&k.uiAddr, addr, 4);
    std::memcpy(&k.uiMask, mask, 4);
    k.uiMethod = 0x00040001;
    return k;
}

inline IPAddrEntry sample_entry() {
    IPAddrEntry e{};
    e.stKey = sample_key();
    e.uiFlag = 0x0708090A;
    e.uiReserved = 0xB1B2B3B4;
    return e;
}

inline IPAddrInfo sample_info() {
    IPAddrInfo i{};
    i.stEntry = sample_entry();
    i.uiInfo1 = 0x11121314;
    i.uiInfo2 = 0x21222324;
    i.uiInfo3 = 0x31323334;
    for (int n = 0; n < 12; ++n) i.aucInfoData[n] = static_cast<std::uint8_t>(0xC0 + n);
    return i;
}

inline void put_key(Bytes& b, const IPAddrKey& k) {
    put16(b, k.usVrfIndex);
    putraw(b, &k.usReserved, 2);
    put32(b, k.uiIfIndex);
    putraw(b, &k.uiAddr, 4);
    putraw(b, &k.uiMask, 4);
    put32(b, k.uiMethod);
}

inline void put_entry(Bytes& b, const IPAddrEntry& e) {
    put_key(b, e.stKey);
    put32(b, e.uiFlag);
    putraw(b, &e.uiReserved, 4);
}

inline void put_info(Bytes& b, const IPAddrInfo& i) {
    put_entry(b, i.stEntry);
    put32(b, i.uiInfo1);
    put32(b, i.uiInfo2);
    put32(b, i.uiInfo3);
    putraw(b, i.aucInfoData, 12);
}

inline Bytes header(std::uint32_t op, std::uint32_t payload_len) {
    Bytes b;
    put32(b, op);
    put32(b, payload_len);
    return b;
}

template <class T>
bool same_bytes(const T& a, const T& b) {
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

}  // namespace ipt
