// Neighbour event records as the adjacency service packs them (a BE32 length, a BE32 type and
// the family's body), and the model of what a subscriber's handler must see of them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>

#include "support/fake_kernel.hpp"

namespace ipt::neigh {

constexpr std::size_t kRecordHead = 8;

// A field of a body that travels big-endian.
struct Field {
    std::size_t off;
    std::size_t width;
};

// Body bytes as the service sends them: byte k is k + 1, so that every multi-byte field
// reads differently in the two byte orders; the first word carries a marker (big-endian).
inline Bytes event_body(std::size_t len, std::uint32_t marker) {
    Bytes b(len);
    for (std::size_t k = 0; k < len; ++k) b[k] = static_cast<std::uint8_t>(k + 1);
    for (std::size_t k = 0; k < 4; ++k) b[k] = static_cast<std::uint8_t>(marker >> (24 - 8 * k));
    return b;
}

// Body bytes of another pattern: base, base + step, base + 2 * step, ...
inline Bytes body_pattern(std::size_t len, std::uint8_t base, int step) {
    Bytes b(len);
    for (std::size_t k = 0; k < len; ++k) b[k] = static_cast<std::uint8_t>(base + step * static_cast<int>(k));
    return b;
}

// One event record of `len` bytes: the head, then the body cut to fit, or followed by 0xEE
// filler when the length exceeds a whole record. A length below 8 still gives the whole
// 8-byte head, which then claims fewer bytes than it has.
inline Bytes event_record(std::uint32_t len, std::uint32_t type, const Bytes& body) {
    Bytes r;
    put32(r, len);
    put32(r, type);
    if (len <= kRecordHead) return r;
    r.resize(len, 0xEE);
    std::memcpy(r.data() + kRecordHead, body.data(), std::min<std::size_t>(len - kRecordHead, body.size()));
    return r;
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// What a handler must see for a record of `len` bytes carrying `wire`: the bytes the record
// does not reach take the defaults (zero, but the raw bytes FF FF FF FF 00 00 FF FF at
// `defaults_at`, which read 0xFFFFFFFF and 0x0000FFFF once converted), then every
// big-endian field is reversed into this host's order.
inline Bytes expected_body(const Bytes& wire, std::size_t len, std::span<const Field> fields,
                           std::size_t defaults_at) {
    Bytes e(wire.size(), 0);
    const std::uint8_t dflt[8] = {0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0xFF, 0xFF};
    std::memcpy(e.data() + defaults_at, dflt, sizeof dflt);
    const std::size_t present = std::min(len - kRecordHead, wire.size());
    std::memcpy(e.data(), wire.data(), present);
    for (const Field& f : fields) {
        const auto at = e.begin() + static_cast<std::ptrdiff_t>(f.off);
        std::reverse(at, at + static_cast<std::ptrdiff_t>(f.width));
    }
    return e;
}

}  // namespace ipt::neigh
