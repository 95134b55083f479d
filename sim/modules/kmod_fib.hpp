// The kernel's FIB module (commands 0x380001 to 0x38000C) and its table dump (dump request
// 0x640001), answered from the FIB table.
//
// Meanings the module gives to what the library only carries:
//  - global data, IPv4 (80 bytes, big-endian): 0 IPv4 routes on the node, 4 active ones,
//    8 VRFs, 16 route-change sequence, 24 node number; 16-bit at 20 the most equal-cost
//    paths (8); every other field 0. IPv6 (44 bytes): 0 IPv6 routes on the node, 4 active
//    ones, 8 VRFs, 12 sequence, 20 node number, 16-bit at 16 the most equal-cost paths;
//  - search key (host order, as the library copies it): instance (VRF, 0xFFFFFFFF any),
//    family, then the destination and mask (IPv4) or destination and prefix length byte
//    (IPv6, key bytes 8-23 and 24); routes whose prefix is exactly that are returned;
//  - search entry (128 bytes, host order): 0 VRF (u32), 4 outgoing interface, 8 prefix
//    length (u8), 12 family (u16), 16 next hop (16 bytes), 32 destination (16 bytes),
//    48 node, 52 flags (bit 0: active);
//  - 0x38000B per node, selector 2 or 10: the node's routes of that family; 0x38000C per
//    node, selector a VRF index: the node's routes in that VRF;
//  - dump entry (48 bytes, big-endian as the library reads it): 16 a label (all ones
//    none), 20 the interface a tunnel rides on, 24 the tunnel (all ones none), 28 the next
//    hop's MAC, 34 the outgoing interface's MAC, 40 the VLAN, 42 the port (65535 none),
//    44 the outgoing interface.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "device/device.hpp"
#include "device/dumps.hpp"
#include "ipproto/kmod_fib.hpp"
#include "modules/fib_table.hpp"

namespace sim {

class FibModule {
public:
    static constexpr std::uint32_t kFirstCommand = ipc::proto::fib::kCmdFirst;
    static constexpr std::uint32_t kLastCommand = ipc::proto::fib::kCmdLast;
    static constexpr std::uint32_t kDumpRequest = ipc::proto::fib::kDumpRequest;
    static constexpr std::size_t kDumpEntryLen = ipc::proto::fib::kDumpEntryLen;

    FibModule(const Device& device, FibTable& table) : device_(device), table_(table) {}

    std::uint32_t handle(std::uint16_t node, std::uint32_t command, std::span<const std::uint8_t> request,
                         std::span<std::uint8_t> reply, std::uint32_t* returned);
    // A dump of the node's IPv4 table, or nothing for a request the module does not know.
    std::unique_ptr<DumpCursor> dump(std::uint16_t node, std::span<const std::uint8_t> request) const;

private:
    std::size_t routes_on(std::uint16_t node, std::uint8_t family, bool active_only,
                          std::optional<std::uint16_t> vrf = std::nullopt) const;

    const Device& device_;
    FibTable& table_;
};

}  // namespace sim
