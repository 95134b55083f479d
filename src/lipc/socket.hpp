// Facts of the platform's local-IPC family shared by every client of it: the socket kind,
// flags and options, the 16-byte address, and the connect rules the clients follow.
#pragma once

#include <array>
#include <cstdint>

#include "ipproto/lipc.hpp"
#include "ipproto/raii.hpp"

namespace ipc::lipc {

using proto::lipc::kDontWait;
using proto::lipc::kFamily;
using proto::lipc::kLevelLipc;
using proto::lipc::kLevelSocket;
using proto::lipc::kOptAddrService;
using proto::lipc::kOptGroupType;
using proto::lipc::kOptJoinGroup;
using proto::lipc::kOptRecvTimeout;
using proto::lipc::kOptSendBuffer;
using proto::lipc::kOptSendTimeout;
using proto::lipc::kOptServer;
using proto::lipc::kOwnNode;
using proto::lipc::kPeekWaitAll;
using proto::lipc::kProtoGroup;
using proto::lipc::kProtoPointToPoint;
using proto::lipc::kTypeDatagram;
using proto::lipc::kWaitAll;

inline constexpr std::uint16_t kPortIpStack = proto::port::kIpStack;
inline constexpr std::uint16_t kPortIpCfg = proto::port::kAddrCfg;
inline constexpr std::uint16_t kPortPortAttack = proto::port::kPortAttack;

inline constexpr std::uint32_t kAddrLen = proto::lipc::kAddrLen;
using Address = std::array<std::uint8_t, kAddrLen>;

// {length, 37, port BE, node BE, zeros}. Servers bind with a length byte of 0.
Address address(std::uint16_t node, std::uint16_t port, std::uint8_t length_byte = kAddrLen) noexcept;

// A new point-to-point socket (invalid on failure).
Fd open_point_to_point() noexcept;

// How a client reacts to a failed connect.
enum class ConnectRule {
    // Up to 11 attempts; EINTR retries at once; EISCONN is connected; anything else ends.
    kClient,
    // As kClient, and EPERM sleeps one second (counted against the 11 attempts) and retries.
    kPull,
    // EINTR retries at once without limit; EISCONN is connected; anything else ends.
    kUntilNotInterrupted,
};

inline constexpr int kConnectAttempts = 11;

// Connects fd to the address under the rule; true when connected.
bool connect_with(int fd, const Address& addr, ConnectRule rule) noexcept;

// A client socket connected to (node, port) under the rule, or an invalid Fd.
Fd open_connected(std::uint16_t node, std::uint16_t port, ConnectRule rule) noexcept;

// recv that repeats while it fails with EINTR.
long recv_retrying(int fd, void* buf, std::size_t len, int flags) noexcept;

}  // namespace ipc::lipc
