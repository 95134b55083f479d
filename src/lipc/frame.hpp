// The 4-byte local-IPC message header and the framing shared by the senders.
#pragma once

#include <cstdint>

#include "ipproto/raii.hpp"

namespace ipc::lipc {

inline constexpr std::uint16_t kHeadLen = 4;

// The framed total of a payload: payload plus header, kept to 16 bits (a payload of 65532
// bytes or more wraps; the wrapped total is what is allocated and sent).
std::uint16_t frame_total(std::uint32_t payload_len) noexcept;

// A block of `total` bytes holding the header (type, total) and as much of the payload as
// fits; null when allocation fails.
CBlock<std::uint8_t> frame(std::uint16_t type, const void* payload, std::uint32_t payload_len,
                           std::uint16_t total) noexcept;

// Frames and sends in one send with the wait-all flag; true when the whole total was sent.
bool send_framed(int fd, std::uint16_t type, const void* payload, std::uint32_t payload_len) noexcept;

}  // namespace ipc::lipc
