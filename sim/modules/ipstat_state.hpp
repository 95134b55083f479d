// What the kernel's IP module keeps (modules/kmod_ipstat.hpp says how it answers): the
// counter sets with the name of each word, the settings of a node and the row they are
// stored in, and how a piece of traffic moves the counters.
//
// Counter sets (the index is the counter's place in the module's reply):
//  - IP counters of a node, 26 x u32 (they wrap at 2^32):
//      0 in_received      packets received (every packet that reached the IP layer)
//      1 in_delivered     received and delivered to the node's own protocols
//      2 in_bad_protocol  received for an unknown protocol
//      3 in_bad_header    received with a bad header format
//      4 in_bad_checksum  received with a bad header checksum
//      5 in_bad_options   received with bad options
//      6 in_address_errors received for another host while forwarding is off
//      7 in_discards      received and discarded for lack of resources
//      8 forwarded        received and forwarded
//      9 out_local        sent by the node itself
//     10 out_dropped      dropped on the way out for lack of resources
//     11 out_no_route     dropped for want of a route
//     12 ttl_exceeded     dropped while forwarding because their TTL ran out
//     13 frag_in 14 frag_out 15 frag_dropped 16 fragmented 17 frag_failed
//     18 reasm_required 19 reasm_ok 20 reasm_timeouts 21 reasm_failed
//     22 in_multicast 23 out_multicast 24 in_broadcast 25 out_broadcast
//  - forwarding counters of an interface on a node, 8 x u64, the interface taken as the
//    one the packets came in on:
//      0 in_packets 1 in_octets (received to be forwarded), 2 forwarded_packets
//      3 forwarded_octets, 4 dropped_packets 5 dropped_octets (forwarding off),
//      6 no_route (packets), 7 ttl_exceeded (packets)
//  - ICMP counters of an interface, 43 x u32, the device's (not a node's):
//      0 in_msgs 1 in_errors 2 in_bad_checksum 3 in_too_short, 4-18 received by type:
//      unreachable, time_exceeded, parameter_problem, source_quench, redirect, echo,
//      echo_reply, timestamp, timestamp_reply, mask, mask_reply, info, info_reply,
//      router_advert, router_solicit; 19 in_unknown_type 20 in_rate_limited 21 out_msgs
//      22 out_errors, 23-37 sent by type in the same order, 38 out_rate_limited
//      39 in_broadcast 40 in_multicast 41 out_broadcast 42 out_multicast
//  - MIB counters of an interface on a node, 19 x u64:
//      0 in_receives 1 in_octets 2 in_hdr_errors 3 in_no_routes 4 in_delivers
//      5 in_addr_errors 6 in_unknown_protos 7 in_truncated 8 in_forw_datagrams
//      9 reasm_reqds 10 reasm_oks 11 reasm_fails 12 in_discards 13 out_requests
//      14 out_forw_datagrams 15 out_discards 16 out_frag_reqds 17 out_transmits
//      18 out_octets
//  - BPA statistics of an interface on a node: 64 records, record r for traffic index
//    r + 1, each 5 x u64: 0 in_packets 1 in_bytes 2 out_packets 3 out_bytes 4 stamp (the
//    second since the device started at which the node last counted traffic of that
//    index; not a sum).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "ipproto/kmod_ipstat.hpp"

namespace sim::ipstat {

using ipc::proto::ipstat::kBpaCounters;
using ipc::proto::ipstat::kBpaRecords;
using ipc::proto::ipstat::kFwCounters;
using ipc::proto::ipstat::kIcmpCounters;
using ipc::proto::ipstat::kIpCounters;
using ipc::proto::ipstat::kMibCounters;

using IpCounters = std::array<std::uint32_t, kIpCounters>;
using FwCounters = std::array<std::uint64_t, kFwCounters>;
using IcmpCounters = std::array<std::uint32_t, kIcmpCounters>;
using MibCounters = std::array<std::uint64_t, kMibCounters>;
using BpaRecord = std::array<std::uint64_t, kBpaCounters>;
using BpaRecords = std::array<BpaRecord, kBpaRecords>;

using ipc::proto::ipstat::kBpaNames;
using ipc::proto::ipstat::kFwNames;
using ipc::proto::ipstat::kIcmpNames;
using ipc::proto::ipstat::kIpNames;
using ipc::proto::ipstat::kMibNames;

// The place of a named counter in its set, or nothing.
template <std::size_t N>
std::optional<std::size_t> index_of(const std::array<std::string_view, N>& names, std::string_view name) {
    for (std::size_t i = 0; i < N; ++i) {
        if (names[i] == name) return i;
    }
    return std::nullopt;
}

// The ICMP message type of a name ("echo", "unreachable", ...; the names of counters 4-18
// without "in_"), or nothing.
std::optional<std::uint8_t> icmp_type_named(std::string_view name);

// Settings of a node.
struct Settings {
    std::uint32_t ttl = 255;             // default TTL, 1..255
    bool forwarding = true;              // IP forwarding
    bool directed_broadcast = false;     // forwarding of directed broadcasts
    std::uint32_t ecmp_paths = 8;        // most equal-cost paths, 1..kEcmpBound
    std::uint32_t ecmp_mode = 0;         // 0 classic, 1 enhanced, 2 weighted
    std::uint32_t load_sharing = 0;      // 0 per flow, 1 per packet
    std::uint32_t hash_fields = 0x1F;    // bits: 1 source address, 2 destination address,
                                         // 4 source port, 8 destination port, 16 protocol
    std::uint32_t hash_seed = 0;
    bool local_first = true;             // prefer paths through the receiving node
    bool operator==(const Settings&) const = default;
};

// Most equal-cost paths the device supports.
inline constexpr std::uint32_t kEcmpBound = 64;
inline constexpr std::uint32_t kEcmpModeMax = 2;
inline constexpr std::uint32_t kLoadSharingMax = 1;
inline constexpr std::uint32_t kHashFieldsAll = 0x1F;

// Store rows, table "ipset": key [BE16 node], value (28 bytes) [BE32 TTL][BE16 flags: 1
// forwarding, 2 directed broadcasts, 4 local first][BE16 0][BE32 ECMP paths][BE32 ECMP
// mode][BE32 load-sharing mode][BE32 hash fields][BE32 hash seed]; table "ipmtu": key
// [BE32 interface index], value [BE32 MTU].
inline constexpr const char* kSettingsTable = "ipset";
inline constexpr const char* kMtuTable = "ipmtu";
std::vector<std::uint8_t> settings_key(std::uint16_t node);
std::optional<std::uint16_t> decode_settings_key(std::span<const std::uint8_t> key);
std::vector<std::uint8_t> encode_settings(const Settings& s);
// Nothing for a value of the wrong length or with a setting out of its range.
std::optional<Settings> decode_settings(std::span<const std::uint8_t> value);
std::vector<std::uint8_t> mtu_key(std::uint32_t ifindex);
std::optional<std::uint32_t> decode_mtu_key(std::span<const std::uint8_t> key);
std::vector<std::uint8_t> encode_mtu(std::uint32_t mtu);
std::optional<std::uint32_t> decode_mtu(std::span<const std::uint8_t> value);

// Packets that pass through a node, by what became of them. Every packet is `size` bytes.
struct Traffic {
    std::uint64_t in = 0;            // received and delivered to the node
    std::uint64_t out = 0;           // sent by the node
    std::uint64_t forwarded = 0;     // received to be forwarded
    std::uint64_t no_route = 0;      // received to be forwarded, no route
    std::uint64_t ttl_exceeded = 0;  // received to be forwarded, TTL ran out
    std::uint64_t dropped = 0;       // received and discarded for lack of resources
    std::uint64_t bad_header = 0;    // received with a bad header
    std::uint64_t icmp_in = 0;       // ICMP messages of icmp_type received and delivered
    std::uint64_t icmp_out = 0;      // ICMP messages of icmp_type sent
    std::uint8_t icmp_type = 8;
    std::uint64_t size = 100;
};

// The counters one piece of traffic moves: the node's IP counters, and those of the
// interface when there is one (null pointers otherwise). With forwarding off, packets to
// be forwarded are address errors and are dropped.
struct Counted {
    IpCounters* ip = nullptr;
    MibCounters* mib = nullptr;
    FwCounters* fw = nullptr;
    IcmpCounters* icmp = nullptr;
};
void count(const Traffic& t, bool forwarding, const Counted& c);

}  // namespace sim::ipstat
