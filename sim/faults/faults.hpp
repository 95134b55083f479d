// The control operations of the device's faults and limits.
//
// Faults (core/faults.hpp): fault.set, fault.clear, fault.list.
// Limits: limit.set {"table", "capacity", ...}, limit.list. The tables and what a limit
// bounds:
//   arp, nd       the entries of the ARP or ND table (the device's whole table); for nd with
//                 "interface", the ND entry limit of that interface (nd.if_config's
//                 entry_limit, 0: none);
//   fib           the routes of the FIB (both families, every VRF and node);
//   addresses     the IPv4 addresses of each interface;
//   subscribers   the clients of a family-37 service ("port") at once on each node.
// A capacity of null removes the bound. A new entry past a limit is refused with nothing of
// its request done and counted: the address module and the address configuration service
// answer kNoResources (ipproto/device_status.hpp, 0x40010006), the ARP daemon too; the
// resolution of a neighbour that does not fit learns nothing; a control operation is refused
// in words; a service past its client limit closes the new connection at once. Entries the
// device already holds stay when a limit is lowered below them.
#pragma once

#include <nlohmann/json.hpp>

#include "core/faults.hpp"

namespace sim {

struct Context;

// The most faults the device plays at once (each request is matched against the list).
inline constexpr std::size_t kFaultsMost = 1024;

// A fault from the arguments of fault.set (or a scenario's faults item); throws
// std::invalid_argument in words for one it refuses.
Fault fault_of(const Context& ctx, const nlohmann::json& req);
nlohmann::json faults_json(const Faults& faults);
// Sets a limit from the arguments of limit.set (or a scenario's limits item); its state.
nlohmann::json apply_limit(Context& ctx, const nlohmann::json& req);
nlohmann::json limits_json(const Context& ctx);

void register_fault_control(Context& ctx);
void register_limit_control(Context& ctx);

}  // namespace sim
