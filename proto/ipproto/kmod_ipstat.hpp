// The kernel's IP module: its command code, its operations, its BPA dump, and the counter
// sets it answers with the name of each counter (the index is the counter's place in the
// module's reply; what each counts is described where the simulator keeps them).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "ipclient/ipstat.h"

namespace ipc::proto::ipstat {

inline constexpr std::uint32_t kCmd = 0x5b0001;
// The BPA statistics as a dump: request [BE16 25][BE16 4][BE32 interface].
inline constexpr std::uint32_t kBpaDumpRequest = 0x2a0001;

// Operations: a request is [BE16 operation][BE16 length of the data that follows][data].
enum class Op : std::uint16_t {
    kShowIpStat = 0,
    kIpStat = 1,
    kFwIfStat = 2,
    kIcmpIfStat = 9,
    kIfMtu = 11,
    kSetDefTtl = 14,
    kGetDefTtl = 15,
    kEcmp = 23,         // reached through a caller's request word
    kBpaCfg = 24,
    kBpaStat = 25,
    kEcmpMode = 32,     // reached through a caller's request word
    kConf = 35,
    kMibIfStat = 37,
    kClearFwIfStat = 62,
    kLoadSharing = 66,  // reached through a caller's request word
    kFwConf = 108,
};

inline constexpr std::size_t kIpCounters = IP_STAT_COUNTERS;
inline constexpr std::size_t kFwCounters = IP_FWIF_COUNTERS;
inline constexpr std::size_t kIcmpCounters = IP_ICMPIF_COUNTERS;
inline constexpr std::size_t kMibCounters = IP_MIBIF_COUNTERS;
inline constexpr std::size_t kBpaRecords = IP_BPA_RECORDS;
inline constexpr std::size_t kBpaCounters = IP_BPA_COUNTERS;

// IP counters of a node (u32 each).
inline constexpr std::array<std::string_view, kIpCounters> kIpNames = {
    "in_received",    "in_delivered",   "in_bad_protocol", "in_bad_header", "in_bad_checksum", "in_bad_options",
    "in_address_errors", "in_discards", "forwarded",       "out_local",     "out_dropped",     "out_no_route",
    "ttl_exceeded",   "frag_in",        "frag_out",        "frag_dropped",  "fragmented",      "frag_failed",
    "reasm_required", "reasm_ok",       "reasm_timeouts",  "reasm_failed",  "in_multicast",    "out_multicast",
    "in_broadcast",   "out_broadcast"};
// Forwarding counters of an interface on a node (u64 each).
inline constexpr std::array<std::string_view, kFwCounters> kFwNames = {
    "in_packets",      "in_octets", "forwarded_packets", "forwarded_octets", "dropped_packets",
    "dropped_octets",  "no_route",  "ttl_exceeded"};
// ICMP counters of an interface (u32 each).
inline constexpr std::array<std::string_view, kIcmpCounters> kIcmpNames = {
    "in_msgs",           "in_errors",          "in_bad_checksum",     "in_too_short",
    "in_unreachable",    "in_time_exceeded",   "in_parameter_problem", "in_source_quench",
    "in_redirect",       "in_echo",            "in_echo_reply",       "in_timestamp",
    "in_timestamp_reply", "in_mask",           "in_mask_reply",       "in_info",
    "in_info_reply",     "in_router_advert",   "in_router_solicit",   "in_unknown_type",
    "in_rate_limited",   "out_msgs",           "out_errors",          "out_unreachable",
    "out_time_exceeded", "out_parameter_problem", "out_source_quench", "out_redirect",
    "out_echo",          "out_echo_reply",     "out_timestamp",       "out_timestamp_reply",
    "out_mask",          "out_mask_reply",     "out_info",            "out_info_reply",
    "out_router_advert", "out_router_solicit", "out_rate_limited",    "in_broadcast",
    "in_multicast",      "out_broadcast",      "out_multicast"};
// MIB counters of an interface on a node (u64 each).
inline constexpr std::array<std::string_view, kMibCounters> kMibNames = {
    "in_receives",  "in_octets",    "in_hdr_errors",      "in_no_routes", "in_delivers",
    "in_addr_errors", "in_unknown_protos", "in_truncated", "in_forw_datagrams", "reasm_reqds",
    "reasm_oks",    "reasm_fails",  "in_discards",        "out_requests", "out_forw_datagrams",
    "out_discards", "out_frag_reqds", "out_transmits",    "out_octets"};
// The counters of one BPA record (u64 each).
inline constexpr std::array<std::string_view, kBpaCounters> kBpaNames = {"in_packets", "in_bytes", "out_packets", "out_bytes",
                                                               "stamp"};

}  // namespace ipc::proto::ipstat
