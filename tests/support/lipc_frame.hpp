// A local-IPC message as it travels: BE16 type, BE16 total length (the 4 header bytes
// included), then the payload.
#pragma once

#include <cstdint>

#include "support/fake_kernel.hpp"

namespace ipt {

inline Bytes framed(std::uint16_t type, const Bytes& payload) {
    Bytes b;
    put16(b, type);
    put16(b, static_cast<std::uint16_t>(payload.size() + 4));
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

}  // namespace ipt
