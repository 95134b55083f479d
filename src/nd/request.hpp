// Messages of the kernel ND module (command ipc::proto::nd::kCmdInfo).
#pragma once

#include <cstdint>

#include "ipproto/kmod_nd.hpp"
#include "ipproto/wire.hpp"

namespace ipc::nd {

using proto::nd::kHeadLen;

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
