// Requests to the kernel's IP module (command 0x5b0001) and the conversions of its replies.
#pragma once

#include <cstdint>
#include <cstring>

#include "ipplat/platform.h"
#include "ipproto/kmod_ipstat.hpp"
#include "ipproto/wire.hpp"
#include "kernel/channel.hpp"

namespace ipc::ipstat {

using proto::ipstat::Op;

// [BE16 op][BE16 4][BE32 data].
inline wire::Frame<8> request(Op op, std::uint32_t data) noexcept {
    wire::Frame<8> f;
    f.be<0>(static_cast<std::uint16_t>(op));
    f.be<2>(std::uint16_t{4});
    f.be<4>(data);
    return f;
}

// [BE16 op][BE16 0].
inline wire::Frame<4> request(Op op) noexcept {
    wire::Frame<4> f;
    f.be<0>(static_cast<std::uint16_t>(op));
    return f;
}

// A caller's request word: its low half is the operation, its high half the length field.
inline wire::Frame<4> word_request(std::uint32_t word) noexcept {
    wire::Frame<4> f;
    f.be<0>(static_cast<std::uint16_t>(word & 0xFFFFu));
    f.be<2>(static_cast<std::uint16_t>(word >> 16));
    return f;
}

template <std::size_t N>
std::uint32_t call(std::uint32_t node_word, const wire::Frame<N>& req, std::uint32_t cap = 0, void* reply = nullptr,
                   std::uint32_t* returned = nullptr) noexcept {
    return CIOCTL(node_word, ipc::proto::ipstat::kCmd, static_cast<std::uint32_t>(N), req.data(), cap, reply, returned);
}

// Big-endian words converted in place.
template <class U>
void to_host(U* words, std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; ++i) words[i] = wire::swap_be(words[i]);
}

// Adds `count` big-endian 64-bit counters from src into dst.
inline void add_be64(std::uint64_t* dst, const std::uint8_t* src, std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; ++i) dst[i] += wire::load_be<std::uint64_t>(src + i * 8);
}

inline bool node_is_up(std::uint32_t value) noexcept { return (value & 0xFFFFu) == 1; }

}  // namespace ipc::ipstat
