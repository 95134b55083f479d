// The address service's sockets: connecting, sending whole messages, and the queue of
// interface-configuration messages that arrive while a request waits for its answer.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <span>

#include "ipproto/lipc.hpp"
#include "ipproto/svc_addr.hpp"
#include "ipproto/wire.hpp"

namespace ipc::ipaddr {

inline constexpr std::uint16_t kPortControl = proto::port::kAddrCfg;
inline constexpr std::uint16_t kPortEvents = proto::port::kAddrEvents;
using proto::addr_svc::kHeadLen;
using proto::addr_svc::kMsgMax;
using proto::addr_svc::Op;

// socket, the address-service option, then connect until it is not interrupted: the
// descriptor, -1 after a failed connect, or the failed socket call's own result.
int connect_service(std::uint16_t node, std::uint16_t port) noexcept;

// A message of PayloadLen bytes behind the 8-byte header (operation or type, payload length).
template <std::size_t PayloadLen>
class Message : public wire::Frame<kHeadLen + PayloadLen> {
public:
    explicit Message(std::uint32_t op) noexcept {
        this->template be<0>(op);
        this->template be<4>(static_cast<std::uint32_t>(PayloadLen));
    }
    explicit Message(Op op) noexcept : Message(static_cast<std::uint32_t>(op)) {}
};

// One send of the whole frame: the number of bytes sent, or -1.
template <std::size_t N>
long send_frame(int fd, const wire::Frame<N>& f) noexcept {
    return ::send(fd, f.data(), N, 0);
}

// Appends a copy of a received message to g_stCfgList; dropped silently when memory runs out.
void queue_message(std::span<const std::uint8_t> bytes) noexcept;

}  // namespace ipc::ipaddr
