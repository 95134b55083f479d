// Neighbour resolution as the device does it when asked to send an ARP request or an ND
// solicitation: a host that the scenario lists behind the interface answers, and its entry
// becomes reachable with the host's MAC address; an address nobody answers for gets an
// incomplete entry that ages out after kIncompleteLife. Both changes reach the neighbour
// table's observers, so subscribers see them as events. On a device that mirrors a
// writable live system (ipsimd --source linux --writable) the system is asked to resolve
// the neighbour instead, and its neighbour table's changes reach the table.
#pragma once

#include <chrono>
#include <cstdint>

#include "modules/neigh_table.hpp"

namespace sim {

struct Context;

// How long an unanswered resolution leaves its incomplete entry in the table.
inline constexpr std::chrono::milliseconds kIncompleteLife{3000};

// Resolves the address on the interface (family 2 or 10). Returns true when a host
// answered. An interface the device does not have resolves nothing.
bool resolve_neighbour(Context& ctx, std::uint8_t family, std::uint32_t ifindex, const NeighAddr& addr);

}  // namespace sim
