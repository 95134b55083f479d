// Shared internals of the platform substitute: call counting, fault injection, the socket
// call log and the reset hooks of each facility.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ipplat/testctl.h"

namespace ipp {

void count(ipp_call call) noexcept;
// Consumes one injected fault of a call kind; yields the errno to fail with.
std::optional<int> take_fault(ipp_call call) noexcept;
// Consumes one short-send fault; yields how many bytes the send may carry.
std::optional<std::uint32_t> take_short_send() noexcept;
void log_sock(const ipp_sock_event& ev) noexcept;

// An AF_UNIX socket of the device's channels (socket(AF_UNIX, type, 0)), made in the network
// namespace that IPCLIENT_NETNS names (channel_socket.cpp), else in the process's own.
int channel_socket(int type) noexcept;

// The local-IPC namespace of this process.
std::string current_instance();

// The node that 0x8000 stands for.
std::uint16_t local_node() noexcept;

void reset_calls() noexcept;
void reset_kernel() noexcept;
void reset_directory() noexcept;
void reset_lipc() noexcept;
void reset_services() noexcept;
void reset_dump() noexcept;
void reset_dbm() noexcept;
void reset_kevent() noexcept;
void reset_anchor() noexcept;
void reset_runtime() noexcept;

// Node words carry the node in their low 16 bits.
constexpr std::uint16_t node_of(std::uint32_t word) noexcept { return static_cast<std::uint16_t>(word & 0xFFFFu); }

}  // namespace ipp
