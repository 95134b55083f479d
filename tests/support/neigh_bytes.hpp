// Reading test bytes in either order: values as they lie in this host's memory, and values
// written big-endian on the wire; and IPv4 addresses and words that travel as given.
#pragma once

#include <cstdint>
#include <cstring>

#include "support/fake_kernel.hpp"

namespace ipt {

// The 32 or 16 bits at p + off as this host reads them.
inline std::uint32_t host32(const void* p, std::size_t off) {
    std::uint32_t v = 0;
    std::memcpy(&v, static_cast<const std::uint8_t*>(p) + off, sizeof v);
    return v;
}
inline std::uint16_t host16(const void* p, std::size_t off) {
    std::uint16_t v = 0;
    std::memcpy(&v, static_cast<const std::uint8_t*>(p) + off, sizeof v);
    return v;
}
inline std::uint32_t host32(const Bytes& b, std::size_t off) { return host32(b.data(), off); }
inline std::uint16_t host16(const Bytes& b, std::size_t off) { return host16(b.data(), off); }

// The big-endian 32 or 16 bits at off.
inline std::uint32_t be32_at(const Bytes& b, std::size_t off) {
    std::uint32_t v = 0;
    for (std::size_t i = 0; i < 4; ++i) v = v << 8 | b[off + i];
    return v;
}
inline std::uint16_t be16_at(const Bytes& b, std::size_t off) {
    return static_cast<std::uint16_t>(b[off] << 8 | b[off + 1]);
}

// A word whose bytes in memory are a.b.c.d: an IPv4 address in network order.
inline std::uint32_t ipv4(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    const std::uint8_t bytes[4] = {a, b, c, d};
    return host32(bytes, 0);
}

// A 32-bit value as it lies in memory: what a field passed "as given" puts on the wire.
inline void put_as_given(Bytes& b, std::uint32_t v) { putraw(b, &v, sizeof v); }

}  // namespace ipt
