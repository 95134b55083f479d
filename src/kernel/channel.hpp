// The library's use of the kernel control channel: node words, the address module's
// private entry, fixed-size reads and the per-node summing of counters.
#pragma once

#include <cstdint>
#include <span>

#include "ipclient/status.h"
#include "ipproto/lipc.hpp"

namespace ipc::kernel {

// The node number that addresses the caller's own node; the platform routes it.
inline constexpr std::uint16_t kLocalNode = proto::lipc::kOwnNode;

// A 16-bit node as the channel takes it: sign-extended, so 0x8000 becomes 0xFFFF8000.
constexpr std::uint32_t node_word(std::uint16_t node) noexcept {
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<std::int16_t>(node)));
}

inline constexpr std::uint32_t kLocalNodeWord = node_word(kLocalNode);
static_assert(kLocalNodeWord == 0xFFFF8000u);

// One request to the address module on node 0xFFFF8000 (command 0x260001).
std::uint32_t ipaddr_DrvkCioctl(std::uint32_t request_len, const void* request, std::uint32_t reply_cap,
                                void* reply, std::uint32_t* returned_len) noexcept;

// A request whose reply has exactly reply.size() bytes: a status of 0 with any other
// returned length is a failure, reported as wrong_length (0x40010001 unless the reader's
// own code differs, 0x40010005 for the ARP readers). Other statuses pass through unchanged;
// readers that fold them into a code of their own do so themselves.
std::uint32_t read_fixed(std::uint32_t node, std::uint32_t command, std::span<const std::uint8_t> request,
                         std::span<std::uint8_t> reply, std::uint32_t wrong_length = IPSTATUS_FAILED) noexcept;

// How a per-node counter reader treats the nodes and their replies.
enum class NodeWalk {
    // Alarm-threshold readers: skip nodes that are not up; count only 8-byte replies.
    kUpNodesExactReply,
    // Connection-check reader: every node of the list, the returned length unchecked.
    kAllNodesAnyReply,
};

// Sends the same request (8-byte reply capacity) to every node of the device's node list
// and returns the sum of the nodes' 64-bit big-endian counters. Nodes whose request fails
// add nothing and do not stop the walk. Without a node list the sum is 0.
std::uint64_t sum_over_nodes(std::uint32_t command, std::span<const std::uint8_t> request,
                             NodeWalk walk) noexcept;

}  // namespace ipc::kernel
