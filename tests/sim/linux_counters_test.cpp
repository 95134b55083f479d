// The Linux source's counters: the namespace's /proc/net files read into named counters,
// and the names the IP module's counters take from them.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>

#include "source/nl_stats.hpp"

namespace sim::nl {
namespace {

std::map<std::string, std::uint64_t> as_map(const Named& values) {
    std::map<std::string, std::uint64_t> out;
    for (const auto& [name, v] : values) out[std::string(name)] = v;
    return out;
}

constexpr const char* kSnmp =
    "Ip: Forwarding DefaultTTL InReceives InHdrErrors InAddrErrors ForwDatagrams InUnknownProtos InDiscards "
    "InDelivers OutRequests OutDiscards OutNoRoutes ReasmTimeout ReasmReqds ReasmOKs ReasmFails FragOKs FragFails "
    "FragCreates OutTransmits\n"
    "Ip: 2 64 1000 1 2 3 4 5 900 800 6 7 0 8 9 10 11 12 13 810\n"
    "Icmp: InMsgs InErrors InCsumErrors InDestUnreachs InEchos OutMsgs OutEchoReps OutRateLimitHost\n"
    "Icmp: 40 1 0 5 30 31 30 2\n"
    "Tcp: RtoAlgorithm RtoMin RtoMax MaxConn ActiveOpens\n"
    "Tcp: 1 200 120000 -1 3\n";

constexpr const char* kNetstat =
    "IpExt: InNoRoutes InTruncatedPkts InMcastPkts OutMcastPkts InBcastPkts OutBcastPkts InCsumErrors\n"
    "IpExt: 0 0 14 15 16 17 18\n";

constexpr const char* kSnmp6 =
    "Ip6InReceives                   \t100\n"
    "Ip6InDelivers                   \t90\n"
    "Ip6OutRequests                  \t70\n"
    "Ip6OutForwDatagrams             \t3\n"
    "Ip6InMcastPkts                  \t20\n"
    "Ip6ReasmTimeout                 \t4\n";

TEST(LinuxCounters, ProcFilesReadAsGroupAndNamePairs) {
    ProcCounters c;
    parse_pairs(kSnmp, &c);
    parse_pairs(kNetstat, &c);
    parse_lines(kSnmp6, &c);
    EXPECT_EQ(c.at("Ip.InReceives"), 1000u);
    EXPECT_EQ(c.at("Ip.FragCreates"), 13u);
    EXPECT_EQ(c.at("Icmp.InDestUnreachs"), 5u);
    EXPECT_EQ(c.at("IpExt.InCsumErrors"), 18u);
    EXPECT_EQ(c.at("Ip6InReceives"), 100u);
    EXPECT_EQ(c.count("Tcp.MaxConn"), 0u) << "-1 is no counter";
    EXPECT_EQ(c.at("Tcp.ActiveOpens"), 3u);
}

TEST(LinuxCounters, IpCountersAddIpv4AndIpv6) {
    ProcCounters c;
    parse_pairs(kSnmp, &c);
    parse_pairs(kNetstat, &c);
    parse_lines(kSnmp6, &c);
    const auto ip = as_map(ip_counters(c));
    EXPECT_EQ(ip.at("in_received"), 1100u);
    EXPECT_EQ(ip.at("in_delivered"), 990u);
    EXPECT_EQ(ip.at("out_local"), 870u);
    EXPECT_EQ(ip.at("forwarded"), 6u);
    EXPECT_EQ(ip.at("in_bad_header"), 1u);
    EXPECT_EQ(ip.at("in_bad_checksum"), 18u);
    EXPECT_EQ(ip.at("frag_out"), 13u);
    EXPECT_EQ(ip.at("reasm_timeouts"), 4u) << "Ip.ReasmTimeout is a setting, not a counter";
    EXPECT_EQ(ip.at("in_multicast"), 34u);
    EXPECT_EQ(ip.at("out_broadcast"), 17u);
    EXPECT_EQ(ip.count("ttl_exceeded"), 0u) << "no Linux counter";
    const auto icmp = as_map(icmp_counters(c));
    EXPECT_EQ(icmp.at("in_msgs"), 40u);
    EXPECT_EQ(icmp.at("in_unreachable"), 5u);
    EXPECT_EQ(icmp.at("in_echo"), 30u);
    EXPECT_EQ(icmp.at("out_echo_reply"), 30u);
    EXPECT_EQ(icmp.at("out_rate_limited"), 2u);
    EXPECT_EQ(icmp.at("in_timestamp"), 0u) << "absent from the file";
}

TEST(LinuxCounters, LinkCountersAreTheInterfaceMibCounters) {
    rtnl_link_stats64 s{};
    s.rx_packets = 11;
    s.rx_bytes = 1100;
    s.rx_dropped = 1;
    s.tx_packets = 22;
    s.tx_bytes = 2200;
    s.tx_dropped = 2;
    const auto mib = as_map(mib_counters(s));
    EXPECT_EQ(mib.at("in_receives"), 11u);
    EXPECT_EQ(mib.at("in_octets"), 1100u);
    EXPECT_EQ(mib.at("in_discards"), 1u);
    EXPECT_EQ(mib.at("out_transmits"), 22u);
    EXPECT_EQ(mib.at("out_octets"), 2200u);
    EXPECT_EQ(mib.at("out_discards"), 2u);
}

}  // namespace
}  // namespace sim::nl
