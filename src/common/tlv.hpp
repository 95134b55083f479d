// Values of tag-length-value sequences read through the platform's reader.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

#include "ipplat/platform.h"
#include "ipproto/wire.hpp"

namespace ipc {

// The value of the first element with `tag`, at most 8 bytes, as a big-endian number (a
// shorter value fills the high-order bytes). Nothing when no element carries the tag or an
// element does not fit what remains. Each element consumes at least its header, so the
// walk ends.
inline std::optional<std::uint64_t> tlv_value(const void* data, std::uint32_t length, std::uint16_t tag) noexcept {
    const auto* at = static_cast<const std::uint8_t*>(data);
    std::uint32_t remaining = length;
    for (;;) {
        std::uint16_t type = 0, len = 0;
        const void* value = nullptr;
        if (STLV_Get(at, remaining, &type, &len, &value) != 0 || value == nullptr) return std::nullopt;
        if (type == tag) {
            std::uint8_t bytes[8] = {};
            std::memcpy(bytes, value, std::min<std::size_t>(len, sizeof bytes));
            return wire::load_be<std::uint64_t>(bytes);
        }
        // The next element starts at this value's end, in what remains.
        const auto* next = static_cast<const std::uint8_t*>(value) + len;
        remaining -= static_cast<std::uint32_t>(next - at);
        at = next;
    }
}

}  // namespace ipc
