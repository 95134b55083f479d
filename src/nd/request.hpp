// Messages of the kernel ND module (command 0x110001): BE32 operation, BE32 total length
// (header included), then the operation's payload.
#pragma once

#include <cstdint>

#include "common/wire.hpp"

namespace ipc::nd {

inline constexpr std::size_t kHeadLen = 8;

// A message of Total bytes whose length word says `claimed` (some operations send more
// bytes than their length word counts).
template <std::size_t Total>
class Request : public wire::Frame<Total> {
public:
    explicit Request(std::uint32_t op, std::uint32_t claimed = Total) noexcept {
        this->template be<0>(op);
        this->template be<4>(claimed);
    }
};

}  // namespace ipc::nd
