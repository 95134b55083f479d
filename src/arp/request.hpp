// Requests to the kernel ARP module (command ipc::proto::arp::kCmdInfo): sub-operation, header
// byte, two zero bytes, then the operation's words. The length and the header byte are the
// sub-operation's own (ipproto/kmod_arp.hpp), so a request cannot be built with others.
#pragma once

#include <cstdint>

#include "ipproto/kmod_arp.hpp"
#include "ipproto/wire.hpp"

namespace ipc::arp {

template <std::uint8_t SubOp>
class Request : public wire::Frame<proto::arp::shape_of(SubOp)->length> {
public:
    Request() noexcept {
        this->data()[0] = SubOp;
        this->data()[1] = proto::arp::shape_of(SubOp)->header;
    }
    static constexpr std::uint32_t kLen = static_cast<std::uint32_t>(proto::arp::shape_of(SubOp)->length);
};

}  // namespace ipc::arp
