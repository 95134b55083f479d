// The kernel's ARP module: entry queries, configuration and counters, and packet sending
// (command 0x140001), the per-interface packet counters (0x140002) and the count of entries
// installed by OpenFlow (0x140004), answered from the device's ARP table (the neighbour
// table, family 2). The module also keeps the suppression switches of the ARP daemon
// (services/arp_daemon.cpp), which serves them on port 1639.
//
// The ARP table is the device's: every node answers the queries from the same table, except
// the extended entry (sub-op 10), which only the node that holds the entry answers.
// Requests start [sub-op][header byte][0][0]; a request whose length or header byte is
// not the one of its sub-operation is refused (0x40010001). An entry that is not there is
// an empty reply with status 0.
//
// Meanings the module gives to what the library only carries:
//  - entry, 36 bytes, big-endian (sub-ops 1, 7 and 10):
//      0 address (network order), 4 interface index, 8 member interface of an aggregate
//      that holds the entry (0 none), 12 age: seconds since the entry last changed,
//      16 MAC, 22 VLAN (16 bits), 24 VRF (16 bits), 26 state byte (0 incomplete,
//      1 reachable, 2 stale, 3 delay, 4 probe), 27 kind byte (1 dynamic, 2 static,
//      4 OpenFlow, 8 rule, 10 set through the ARP daemon), 28 refresh time: the seconds a
//      dynamic entry lives between refreshes (its ageing time; 0 for an entry that never
//      ages), 32 node that owns the interface (16 bits), 34 two zero bytes;
//  - entry by address, 36 bytes, big-endian (sub-op 28):
//      0 address, 4 interface index, 8 member interface (0 none), 12 VLAN (16 bits),
//      14 VRF (16 bits), 16 owning node (16 bits), 18 MAC, 24 state (16 bits), 26 kind
//      byte, 27 zero, 28 age in seconds, 32 refresh time (as at entry offset 28);
//  - key A is an address in network order; key B is an interface index, big-endian
//    (what word 1 of an entry holds), 0 meaning any interface. The library carries key B
//    of sub-ops 0, 1 and 9 as the caller gives it: a caller names an interface there in
//    network order. Sub-op 1 finds the entry of
//    the address on that interface (0: the lowest interface that has one); sub-op 7
//    answers the entry after (key B, key A) in table order (interface, then address), the
//    first when both are 0; sub-op 28 finds the address on any interface;
//  - sub-op 0 deletes dynamic entries, sub-op 9 authorized entries (those set through the
//    ARP daemon): of address key A (0: every address) on interface key B (0: every
//    interface); other kinds stay;
//  - sub-op 10 (extended entry, key B the interface): an entry on an aggregate interface
//    (type 41) is answered by every node, so the first request of the library learns the
//    member; any other entry only by a node that serves the interface or the member;
//  - configuration block, 112 bytes, big-endian (sub-op 12): 0 ageing time of dynamic
//    entries in seconds (1200), 4 life of an unanswered entry in milliseconds (3000),
//    8 entries in the table, 12 dynamic, 16 static, 20 set through the ARP daemon,
//    24 OpenFlow, 28 rule entries, 32 incomplete entries (any kind), 36 the asking node;
//    the rest zero;
//  - batch (sub-op 29, key A address, key B interface, big-endian): the entries after
//    (key B, key A) in table order, as many whole 24-byte records as the reply holds:
//      0 address, 4 interface index, 8 MAC, 14 VLAN (16 bits), 16 VRF (16 bits), 18 state
//      byte, 19 kind byte, 20 age in seconds;
//    an empty reply once the table has no more;
//  - sub-op 31: the first entry in table order with that MAC and VLAN; the reply is its
//    address (4 bytes), empty when there is none;
//  - sub-ops 37 and 38 (per node): byte 3 of the request selects a set of counters (any
//    value 0-255); each node keeps one alarm-threshold counter (BE64) and four attack
//    counters (4 x BE64) per selector, all 0 until the control operation "arp.counters"
//    sets them;
//  - sending (sub-ops 2 request, 3 reply, 33 probe, 21 VLAN request, 22 specified send):
//    the interface must be one of the device's (0x40010001 otherwise). A request, a
//    probe, a VLAN request (its second address word is the target) and a specified send
//    of opcode 1 to a non-zero target resolve the target on the interface: a scenario
//    host answers and the entry becomes reachable with the host's MAC, otherwise an
//    incomplete entry appears and ages out;
//  - specified send, the caller's 60-byte description at request offset 4 (offsets in it):
//    0 destination MAC, 6 two zero bytes, 8 interface index, 12 ARP opcode (1 request,
//    2 reply, any other unknown), 16 zero, 20 outer VLAN (16 bits), 22 inner VLAN
//    (16 bits), 24, 28 and 32 zero, 36 sender MAC, 42 target MAC, 48 sender address,
//    52 target address (network order), 56 four zero bytes;
//  - VLAN request: the first address word is the sender's address, the second the
//    target's; the first MAC the sender's, the second the target's;
//  - interface counters (0x140002, request the interface index, big-endian; reply four
//    BE32 words): every ARP packet of the interface that passed through the node's module:
//    0 packets in all, 4 requests, 8 replies, 12 packets of an unknown opcode. Sending a
//    request, probe or VLAN request counts one request; a reply one reply; a specified
//    send by its opcode; the answer of a scenario host one reply more. Each node counts
//    its own; "arp.counters" sets them;
//  - OpenFlow count (0x140004, the 28-byte request with bytes 0-1 = 1, 8): 16 bytes, BE:
//    0 the value 1, 4 the number of entries installed by OpenFlow, 8 the node named at
//    request offset 18, 12 zero.
// Control operations (docs/ipsimd.md): "arp.counters" and "neigh.list".
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <utility>

#include "ipproto/kmod_arp.hpp"

namespace sim {

struct Context;

class ArpModule {
public:
    static constexpr std::uint32_t kQueryCommand = ipc::proto::arp::kCmdInfo;
    static constexpr std::uint32_t kIfCountersCommand = ipc::proto::arp::kCmdIfDisplay;
    static constexpr std::uint32_t kOpenFlowCountCommand = ipc::proto::arp::kCmdOpenFlowCount;
    static constexpr std::size_t kEntryLen = ipc::proto::arp::entry::kLen;
    static constexpr std::size_t kConfLen = ipc::proto::arp::kConfLen;
    static constexpr std::size_t kBatchRecordLen = ipc::proto::arp::batch::kLen;
    static constexpr std::size_t kAttackCounters = ipc::proto::arp::kAttackCounters;

    // Packet counters of one interface on one node.
    struct IfCounters {
        std::uint32_t in = 0, requests = 0, replies = 0, unknown = 0;
    };
    // Counters of one node, by selector.
    struct NodeCounters {
        std::map<std::uint8_t, std::uint64_t> alarm;
        std::map<std::uint8_t, std::array<std::uint64_t, kAttackCounters>> attack;
    };

    // One request to the module on a node; writes at most reply.size() bytes.
    std::uint32_t handle(Context& ctx, std::uint16_t node, std::uint32_t command,
                         std::span<const std::uint8_t> request, std::span<std::uint8_t> reply,
                         std::uint32_t* returned);

    IfCounters& if_counters(std::uint16_t node, std::uint32_t ifindex) { return if_counters_[{node, ifindex}]; }
    NodeCounters& node_counters(std::uint16_t node) { return node_counters_[node]; }

    // Suppression switches of the ARP daemon: EVI suppression by instance, overlay
    // suppression by interface (absent: off).
    std::map<std::uint32_t, bool> evi_suppression;
    std::map<std::uint32_t, bool> overlay_suppression;

private:
    std::uint32_t query(Context& ctx, std::uint16_t node, std::span<const std::uint8_t> request,
                        std::span<std::uint8_t> reply, std::uint32_t* returned);
    std::uint32_t send(Context& ctx, std::uint16_t node, std::uint8_t sub_op, std::span<const std::uint8_t> request);

    std::map<std::pair<std::uint16_t, std::uint32_t>, IfCounters> if_counters_;
    std::map<std::uint16_t, NodeCounters> node_counters_;
};

// Registers the control operations "arp.counters" (the module's counters) and
// "neigh.list" (the entries of both neighbour tables).
void register_arp_controls(Context& ctx);

}  // namespace sim
