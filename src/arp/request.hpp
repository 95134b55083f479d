// Requests to the kernel ARP module (command 0x140001): sub-operation, header byte, two zero
// bytes, then the operation's words.
#pragma once

#include <cstdint>

#include "ipproto/wire.hpp"

namespace ipc::arp {

template <std::size_t N>
class Request : public wire::Frame<N> {
public:
    Request(std::uint8_t sub_op, std::uint8_t header_byte) noexcept {
        this->data()[0] = sub_op;
        this->data()[1] = header_byte;
    }
};

}  // namespace ipc::arp
