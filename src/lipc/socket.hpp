// Facts of the platform's local-IPC family shared by every client of it: the socket kind,
// flags and options, the 16-byte address, and the connect rules the clients follow.
#pragma once

#include <array>
#include <cstdint>

#include "common/raii.hpp"

namespace ipc::lipc {

inline constexpr int kFamily = 37;
inline constexpr int kTypeDatagram = 2;
inline constexpr int kProtoPointToPoint = 1;
inline constexpr int kProtoGroup = 2;

// Send and receive flags (the platform's values).
inline constexpr int kWaitAll = 0x100;
inline constexpr int kPeekWaitAll = 0x102;
inline constexpr int kDontWait = 64;

// Socket options.
inline constexpr int kLevelSocket = 1;
inline constexpr int kOptServer = 512;
inline constexpr int kOptSendBuffer = 0x1001;
inline constexpr int kOptSendTimeout = 0x1005;
inline constexpr int kOptRecvTimeout = 0x1006;
inline constexpr int kLevelLipc = 275;
inline constexpr int kOptGroupType = 1;
inline constexpr int kOptJoinGroup = 5;
inline constexpr int kOptAddrService = 15;

inline constexpr std::uint16_t kOwnNode = 0x8000;
inline constexpr std::uint16_t kPortIpStack = 1648;
inline constexpr std::uint16_t kPortIpCfg = 1653;
inline constexpr std::uint16_t kPortPortAttack = 4418;

inline constexpr std::uint32_t kAddrLen = 16;
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
