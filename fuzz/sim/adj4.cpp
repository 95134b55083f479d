// The request parser of the IPv4 adjacency service (its ARP table channel) on node 1 or 2: subscriptions,
// concerned addresses, batch replays, the OpenFlow, rule and suppression tables.
#include "ipproto/lipc.hpp"
#include "sim_support.hpp"

namespace port = ipc::proto::port;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return ipfuzz::simfuzz::service_input(data, size, {.port = port::kArpTable, .longest = 1100});
}
