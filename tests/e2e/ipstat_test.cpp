// IP statistics and settings read through the library from the simulated device's IP
// module: counters moved by traffic injected on the control channel, summed over the nodes
// that are up, cleared per interface; settings set, read back and kept across a restart.
#include <array>
#include <cstring>

#include "e2e/e2e_support.hpp"
#include "ipclient/ipstat.h"
#include "ipclient/lipc.h"
#include "ipplat/platform.h"
#include "ipproto/wire.hpp"
#include "support/statuses.hpp"

namespace e2e {
namespace {

using json = nlohmann::json;

// Request words of the settings the library reads with its caller's word.
constexpr std::uint32_t kEcmpWord = 23;
constexpr std::uint32_t kEcmpModeWord = 32;
constexpr std::uint32_t kLoadSharingWord = 66;

// Places of a few counters in their sets.
constexpr std::size_t kIpInReceived = 0, kIpInDelivered = 1, kIpInAddressErrors = 6, kIpForwarded = 8,
                      kIpOutLocal = 9, kIpOutBroadcast = 25;
constexpr std::size_t kMibInReceives = 0, kMibInOctets = 1, kMibInDelivers = 4, kMibInAddrErrors = 5,
                      kMibInForw = 8, kMibOutRequests = 13, kMibOutTransmits = 17, kMibOutOctets = 18;
constexpr std::size_t kIcmpInMsgs = 0, kIcmpInEcho = 9, kIcmpOutMsgs = 21, kIcmpOutUnreachable = 23,
                      kIcmpOutMulticast = 42;

using IpWords = std::array<std::uint32_t, IP_STAT_COUNTERS>;
using FwWords = std::array<std::uint64_t, IP_FWIF_COUNTERS>;
using IcmpWords = std::array<std::uint32_t, IP_ICMPIF_COUNTERS>;
using MibWords = std::array<std::uint64_t, IP_MIBIF_COUNTERS>;
using BpaWords = std::array<std::uint64_t, IP_BPA_RECORDS * IP_BPA_COUNTERS>;

IpWords ip_stat(std::uint16_t node, std::uint32_t op) {
    IpWords c{};
    EXPECT_EQ(IP_GetIPStat(node, op, c.data()), 0u) << "node " << node << " op " << op;
    return c;
}

using IpStatE2E = SimTest;

TEST_F(IpStatE2E, NodeCountersAreTheInjectedOnesInHostOrder) {
    ok({{"op", "ipstat.traffic"},
        {"node", 1},
        {"ip", {{"in_received", 0x01020304}, {"forwarded", 0x0A0B0C0D}, {"out_broadcast", 0x11223344}}}});
    for (const std::uint32_t op : {0u, 1u}) {
        const IpWords c = ip_stat(1, op);
        EXPECT_EQ(c[kIpInReceived], 0x01020304u);
        EXPECT_EQ(c[kIpForwarded], 0x0A0B0C0Du);
        EXPECT_EQ(c[kIpOutBroadcast], 0x11223344u);
        EXPECT_EQ(c[kIpInDelivered], 0u);
    }
    // The own-node alias reaches the same node; node 2 counted nothing.
    EXPECT_EQ(ip_stat(0x8000, 1)[kIpForwarded], 0x0A0B0C0Du);
    EXPECT_EQ(ip_stat(2, 1), IpWords{});
}

TEST_F(IpStatE2E, TrafficMovesTheNodeAndInterfaceCountersTogether) {
    ok({{"op", "ipstat.traffic"},
        {"interface", "GigabitEthernet1/0/1"},
        {"in", 100},
        {"out", 40},
        {"forwarded", 10},
        {"icmp_in", 3},
        {"icmp_out", 2},
        {"icmp_type", "unreachable"},
        {"size", 200}});
    const IpWords ip = ip_stat(1, 1);
    EXPECT_EQ(ip[kIpInReceived], 113u);
    EXPECT_EQ(ip[kIpInDelivered], 103u);
    EXPECT_EQ(ip[kIpForwarded], 10u);
    EXPECT_EQ(ip[kIpOutLocal], 42u);

    MibWords mib{};
    ASSERT_EQ(IP_GetMibIfStat(kGe1, mib.data()), 0u);
    EXPECT_EQ(mib[kMibInReceives], 113u);
    EXPECT_EQ(mib[kMibInOctets], 113u * 200u);
    EXPECT_EQ(mib[kMibInDelivers], 103u);
    EXPECT_EQ(mib[kMibInForw], 10u);
    EXPECT_EQ(mib[kMibOutRequests], 42u);
    EXPECT_EQ(mib[kMibOutTransmits], 42u);
    EXPECT_EQ(mib[kMibOutOctets], 42u * 200u);

    FwWords fw{};
    ASSERT_EQ(IP_GetIPFWIfStat(kGe1, fw.data()), 0u);
    EXPECT_EQ(fw, (FwWords{10, 2000, 10, 2000, 0, 0, 0, 0}));

    IcmpWords icmp{};
    ASSERT_EQ(IP_GetICMPIfStat(kGe1, icmp.data()), 0u);
    EXPECT_EQ(icmp[kIcmpInMsgs], 3u);
    EXPECT_EQ(icmp[kIcmpOutMsgs], 2u);
    EXPECT_EQ(icmp[kIcmpOutUnreachable], 2u);
    EXPECT_EQ(icmp[kIcmpInEcho], 0u) << "the type named is counted, not echo";
    EXPECT_EQ(icmp[4], 3u) << "received unreachables";

    // Another interface counted nothing.
    MibWords other{};
    ASSERT_EQ(IP_GetMibIfStat(kGeVpn, other.data()), 0u);
    EXPECT_EQ(other, MibWords{});
}

TEST_F(IpStatE2E, ForwardedPacketsAreAddressErrorsWhileForwardingIsOff) {
    ok({{"op", "ipstat.set"}, {"node", 1}, {"forwarding", false}});
    ok({{"op", "ipstat.traffic"}, {"interface", kGe1}, {"forwarded", 7}, {"size", 64}});
    const IpWords ip = ip_stat(1, 1);
    EXPECT_EQ(ip[kIpForwarded], 0u);
    EXPECT_EQ(ip[kIpInAddressErrors], 7u);
    MibWords mib{};
    ASSERT_EQ(IP_GetMibIfStat(kGe1, mib.data()), 0u);
    EXPECT_EQ(mib[kMibInAddrErrors], 7u);
    EXPECT_EQ(mib[kMibInForw], 0u);
    FwWords fw{};
    ASSERT_EQ(IP_GetIPFWIfStat(kGe1, fw.data()), 0u);
    EXPECT_EQ(fw, (FwWords{7, 448, 0, 0, 7, 448, 0, 0}));
}

TEST_F(IpStatE2E, SumsCoverTheLocalNodeAndEveryNodeThatIsUp) {
    ok({{"op", "ipstat.traffic"}, {"node", 1}, {"ip", {{"in_received", 0x01020304}, {"out_local", 5}}}});
    ok({{"op", "ipstat.traffic"}, {"node", 2}, {"ip", {{"in_received", 0x00010001}, {"out_broadcast", 0x7F000000}}}});
    IpWords sum{};
    sum.fill(0xFFFFFFFFu);
    IP_GetStat(sum.data());
    EXPECT_EQ(sum[kIpInReceived], 0x01030305u);
    EXPECT_EQ(sum[kIpOutLocal], 5u);
    EXPECT_EQ(sum[kIpOutBroadcast], 0x7F000000u);
    EXPECT_EQ(sum[kIpForwarded], 0u) << "zeroed before the sum";
    IpWords shown{};
    IP_GetShowIpStat(shown.data());
    EXPECT_EQ(shown, sum);
}

TEST_F(IpStatE2E, DisplayedCountersStartAgainAfterAResetWhileTheTotalsGoOn) {
    ok({{"op", "ipstat.traffic"}, {"node", 2}, {"in", 1000}});
    ok({{"op", "ipstat.reset"}, {"node", 2}});
    ok({{"op", "ipstat.traffic"}, {"node", 2}, {"in", 0x00020003}});
    EXPECT_EQ(ip_stat(2, 0)[kIpInDelivered], 0x00020003u);
    EXPECT_EQ(ip_stat(2, 1)[kIpInDelivered], 0x00020003u + 1000u);
    IpWords shown{};
    IP_GetShowIpStat(shown.data());
    EXPECT_EQ(shown[kIpInReceived], 0x00020003u);
    IpWords total{};
    IP_GetStat(total.data());
    EXPECT_EQ(total[kIpInReceived], 0x00020003u + 1000u);
}

TEST_F(IpStatE2E, InterfaceCountersKeepEveryWordInPlace) {
    ok({{"op", "ipstat.traffic"},
        {"interface", "GigabitEthernet1/0/1"},
        {"fw",
         {{"in_packets", 0x0102030405060708ull},
          {"in_octets", 0x1112131415161718ull},
          {"forwarded_packets", 0x2122232425262728ull},
          {"forwarded_octets", 0x3132333435363738ull},
          {"dropped_packets", 0x41},
          {"dropped_octets", 0x4200000000ull},
          {"no_route", 0x43},
          {"ttl_exceeded", 0x8000000000000001ull}}},
        {"icmp", {{"in_msgs", 0x01020304}, {"out_multicast", 0x05060708}}}});
    FwWords fw{};
    ASSERT_EQ(IP_GetIPFWIfStat(kGe1, fw.data()), 0u);
    EXPECT_EQ(fw, (FwWords{0x0102030405060708ull, 0x1112131415161718ull, 0x2122232425262728ull, 0x3132333435363738ull,
                           0x41, 0x4200000000ull, 0x43, 0x8000000000000001ull}));
    // The per-node reader adds into what the caller holds and says so.
    FwWords held{};
    held.fill(1);
    std::uint16_t done = 0;
    (void)IP_GetIPFWIfStat_ByNode(1, kGe1, held.data(), &done);
    EXPECT_EQ(done, 1u);
    EXPECT_EQ(held[0], 0x0102030405060709ull);
    EXPECT_EQ(held[6], 0x44u);

    IcmpWords icmp{};
    ASSERT_EQ(IP_GetICMPIfStat(kGe1, icmp.data()), 0u);
    EXPECT_EQ(icmp[kIcmpInMsgs], 0x01020304u);
    EXPECT_EQ(icmp[kIcmpOutMulticast], 0x05060708u);
    EXPECT_EQ(icmp[1], 0u);
}

TEST_F(IpStatE2E, ForwardingCountersOfABoardPortAddTheLocalNodes) {
    ok({{"op", "ipstat.traffic"}, {"node", 2}, {"interface", kGeNode2}, {"fw", {{"in_packets", 0x100000005ull}}}});
    ok({{"op", "ipstat.traffic"}, {"node", 1}, {"interface", kGeNode2}, {"fw", {{"in_packets", 7}, {"no_route", 2}}}});
    FwWords fw{};
    ASSERT_EQ(IP_GetIPFWIfStat(kGeNode2, fw.data()), 0u);
    EXPECT_EQ(fw[0], 0x10000000Cull);
    EXPECT_EQ(fw[6], 2u);
    // An interface spanning the nodes adds every node.
    ok({{"op", "ipstat.traffic"}, {"node", 1}, {"interface", kVlan1}, {"forwarded", 3}});
    ok({{"op", "ipstat.traffic"}, {"node", 2}, {"interface", kVlan1}, {"forwarded", 4}});
    FwWords vlan{};
    ASSERT_EQ(IP_GetIPFWIfStat(kVlan1, vlan.data()), 0u);
    EXPECT_EQ(vlan[2], 7u);
    EXPECT_EQ(IP_GetIPFWIfStat(0, vlan.data()), kFailed);
}

TEST_F(IpStatE2E, MibCountersOfABoardPortTakeOnlyTheFifthFromTheLocalNode) {
    json board = json::object();
    json local = json::object();
    const char* names[] = {"in_receives",  "in_octets",         "in_hdr_errors",  "in_no_routes",
                           "in_delivers",  "in_addr_errors",    "in_unknown_protos", "in_truncated",
                           "in_forw_datagrams", "reasm_reqds",  "reasm_oks",      "reasm_fails",
                           "in_discards",  "out_requests",      "out_forw_datagrams", "out_discards",
                           "out_frag_reqds", "out_transmits",   "out_octets"};
    MibWords expected{};
    for (std::size_t i = 0; i < IP_MIBIF_COUNTERS; ++i) {
        const std::uint64_t v = 0x0102030400000000ull + i * 0x101u;
        board[names[i]] = v;
        local[names[i]] = 1000 + i;
        expected[i] = v;
    }
    expected[4] += 1004;
    ok({{"op", "ipstat.traffic"}, {"node", 2}, {"interface", kGeNode2}, {"mib", board}});
    ok({{"op", "ipstat.traffic"}, {"node", 1}, {"interface", kGeNode2}, {"mib", local}});
    MibWords mib{};
    ASSERT_EQ(IP_GetMibIfStat(kGeNode2, mib.data()), 0u);
    EXPECT_EQ(mib, expected);
    // Each node's reply on its own.
    MibWords one{};
    EXPECT_EQ(IP_GetIPIfMIBStat(1, kGeNode2, one.data()), 19u);
    EXPECT_EQ(one[0], 1000u);
    EXPECT_EQ(one[18], 1018u);
}

TEST_F(IpStatE2E, ClearingForwardingCountersReachesTheOwnerAndTheStandbyNodes) {
    for (const int node : {1, 2}) {
        ok({{"op", "ipstat.traffic"}, {"node", node}, {"interface", kGe1}, {"forwarded", 5}});
        ok({{"op", "ipstat.traffic"}, {"node", node}, {"interface", kGeNode2}, {"forwarded", 10 * node}});
    }
    EXPECT_TRUE(ok({{"op", "ipstat.show"}, {"node", 1}, {"interface", kGe1}}).at("fw_cleared").is_null());
    ASSERT_EQ(IP_ClearIPFWIfStat(kGe1), 0u);
    for (const int node : {1, 2}) {
        const json s = ok({{"op", "ipstat.show"}, {"node", node}, {"interface", kGe1}});
        EXPECT_EQ(s.at("fw").at("forwarded_packets"), 0) << "node " << node;
        EXPECT_TRUE(s.at("fw_cleared").is_number()) << "node " << node;
    }
    // The board port: its owner is the standby node, so only node 2 clears; the local
    // node's counters remain.
    ASSERT_EQ(IP_ClearIPFWIfStat(kGeNode2), 0u);
    FwWords fw{};
    ASSERT_EQ(IP_GetIPFWIfStat(kGeNode2, fw.data()), 0u);
    EXPECT_EQ(fw[2], 10u);
    EXPECT_EQ(ok({{"op", "ipstat.show"}, {"node", 2}, {"interface", kGeNode2}}).at("fw").at("forwarded_packets"), 0);
    EXPECT_EQ(IP_ClearIPFWIfStat(0), kFailed);
}

TEST_F(IpStatE2E, BpaStatisticsAddOverNodesAndKeepTheLastNodesStamp) {
    ok({{"op", "ipstat.traffic"},
        {"node", 1},
        {"interface", kGe1},
        {"bpa",
         json::array({{{"index", 1},
           {"in_packets", 0x01020304},
           {"in_bytes", 0x0102030405ull},
           {"out_packets", 3},
           {"out_bytes", 4},
           {"stamp", 0x11}},
          {{"index", 64}, {"out_bytes", 0x0A0B0C0D0E0F1011ull}, {"stamp", 0x22}}})}});
    ok({{"op", "ipstat.traffic"},
        {"node", 2},
        {"interface", kGeNode2},
        {"bpa", json::array({{{"index", 1}, {"in_packets", 6}, {"out_packets", 1}, {"stamp", 0x05}}})}});
    BpaWords port{};
    ASSERT_EQ(IP_GetBpaStat(kGe1, port.data()), 0u);
    EXPECT_EQ(port[0], 0x01020304u);
    EXPECT_EQ(port[1], 0x0102030405ull);
    EXPECT_EQ(port[2], 3u);
    EXPECT_EQ(port[3], 4u);
    EXPECT_EQ(port[4], 0x11u);
    EXPECT_EQ(port[63 * 5 + 3], 0x0A0B0C0D0E0F1011ull);
    EXPECT_EQ(port[63 * 5 + 4], 0x22u);
    EXPECT_EQ(port[5], 0u);

    BpaWords all{};
    ASSERT_EQ(IP_GetBpaStat(0, all.data()), 0u);
    EXPECT_EQ(all[0], 0x01020304u + 6u);
    EXPECT_EQ(all[2], 4u);
    EXPECT_EQ(all[4], 0x05u) << "node 2 is read last";
    EXPECT_EQ(all[63 * 5 + 3], 0x0A0B0C0D0E0F1011ull);
    EXPECT_EQ(all[63 * 5 + 4], 0u) << "node 2 never counted index 64";
}

TEST_F(IpStatE2E, BpaConfigurationComesFromTheIpDaemon) {
    std::uint8_t payload[8];
    ipc::wire::Writer(payload).be(kGe1).be(std::uint16_t{0x0102}).be(std::uint16_t{0x0304});
    ASSERT_EQ(IP_SendAndRecvMsgToDaemon(14, payload, sizeof payload), 0u);
    std::uint32_t value = 0;
    ASSERT_EQ(IP_GetBpaCfg(kGe1, &value), 4u);
    std::uint16_t halves[2];
    std::memcpy(halves, &value, sizeof halves);
    EXPECT_EQ(halves[0], 0x0102u);
    EXPECT_EQ(halves[1], 0x0304u);
}

TEST_F(IpStatE2E, SettingsHaveTheDeviceDefaults) {
    std::array<std::uint32_t, 2> ecmp{};
    ASSERT_EQ(IP_GetEcmp(1, kEcmpWord, ecmp.data()), 0u);
    EXPECT_EQ(ecmp, (std::array<std::uint32_t, 2>{8, 64}));
    std::array<std::uint32_t, 8> mode{};
    ASSERT_EQ(IP_GetEcmpMode(kEcmpModeWord, mode.data()), 0u);
    EXPECT_EQ(mode, (std::array<std::uint32_t, 8>{0, 8, 64, 0, 0x1F, 0, 1, 0}));
    std::array<std::uint32_t, 4> ls{};
    ASSERT_EQ(IP_GetLoadSharingMode(2, kLoadSharingWord, ls.data()), 0u);
    EXPECT_EQ(ls, (std::array<std::uint32_t, 4>{0, 0x1F, 0, 1}));
    std::array<std::uint32_t, 4> conf{};
    ASSERT_EQ(IP_GetConf(16, conf.data()), 0u);
    EXPECT_EQ(conf, (std::array<std::uint32_t, 4>{1, 255, 8, 0}));
    std::uint16_t fw = 0;
    ASSERT_EQ(IP_GetIPFWConf(&fw), 0u);
    EXPECT_EQ(fw, 1u);
    EXPECT_EQ(IP_GetDefTTL(), 255u);
    std::uint32_t mtu = 0;
    ASSERT_EQ(IP_GetIfMTU(kGe1, &mtu), 0u);
    EXPECT_EQ(mtu, 1500u);
    EXPECT_EQ(IP_GetForwarding(), 1u);
}

TEST_F(IpStatE2E, RequestsTheModuleDoesNotKnowAreRefused) {
    std::array<std::uint32_t, 2> ecmp{};
    EXPECT_EQ(IP_GetEcmp(1, 0x00040000u | kEcmpWord, ecmp.data()), kFailed) << "a length with no data";
    IpWords c{};
    EXPECT_EQ(IP_GetIPStat(1, 77, c.data()), kFailed);
    std::uint32_t mtu = 0;
    EXPECT_EQ(IP_GetIfMTU(999, &mtu), kFailed);
    IcmpWords icmp{};
    EXPECT_EQ(IP_GetICMPIfStat(999, icmp.data()), kFailed);
    EXPECT_EQ(IP_SetIPDefaultTTL(0, 1), kFailed);
    EXPECT_EQ(IP_SetIPDefaultTTL(256, 1), kFailed);
    EXPECT_EQ(IP_GetDefTTL(), 255u);
    EXPECT_FALSE(control({{"op", "ipstat.traffic"}, {"node", 1}, {"icmp_in", 1}}).value("ok", true))
        << "ICMP counters are an interface's";
    EXPECT_FALSE(control({{"op", "ipstat.traffic"}, {"node", 1}, {"ip", {{"no_such", 1}}}}).value("ok", true));
    EXPECT_FALSE(control({{"op", "ipstat.set"}, {"ecmp_paths", 65}}).value("ok", true));
}

TEST_F(IpStatE2E, TtlSetOnANodeIsThatNodesOnly) {
    ASSERT_EQ(IP_SetIPDefaultTTL(0x40, 1), 0u);
    ASSERT_EQ(IP_SetIPDefaultTTL(0x21, 2), 0u);
    EXPECT_EQ(IP_GetDefTTL(), 0x40u);
    std::array<std::uint32_t, 4> conf{};
    ASSERT_EQ(IP_GetConf(16, conf.data()), 0u);
    EXPECT_EQ(conf[1], 0x40u);
    EXPECT_EQ(ok({{"op", "ipstat.show"}, {"node", 2}}).at("settings").at("ttl"), 0x21);
}

TEST_F(IpStatE2E, SettingsSurviveARestartWithTheSameState) {
    ASSERT_EQ(IP_SetIPDefaultTTL(0x7E, 0x8000), 0u);
    ok({{"op", "ipstat.set"},
        {"ecmp_paths", 32},
        {"ecmp_mode", 2},
        {"load_sharing", 1},
        {"hash_fields", 0x13},
        {"hash_seed", 0x01020304},
        {"local_first", false},
        {"forwarding", false},
        {"directed_broadcast", true}});
    ok({{"op", "ipstat.set"}, {"node", 2}, {"ecmp_paths", 3}, {"interface", "GigabitEthernet1/0/1"}, {"mtu", 9000}});
    auto check = [] {
        EXPECT_EQ(IP_GetDefTTL(), 0x7Eu);
        std::array<std::uint32_t, 2> ecmp{};
        ASSERT_EQ(IP_GetEcmp(1, kEcmpWord, ecmp.data()), 0u);
        EXPECT_EQ(ecmp, (std::array<std::uint32_t, 2>{32, 64}));
        ASSERT_EQ(IP_GetEcmp(2, kEcmpWord, ecmp.data()), 0u);
        EXPECT_EQ(ecmp, (std::array<std::uint32_t, 2>{3, 64}));
        std::array<std::uint32_t, 8> mode{};
        ASSERT_EQ(IP_GetEcmpMode(kEcmpModeWord, mode.data()), 0u);
        EXPECT_EQ(mode, (std::array<std::uint32_t, 8>{2, 32, 64, 1, 0x13, 0x01020304, 0, 0}));
        std::array<std::uint32_t, 4> ls{};
        ASSERT_EQ(IP_GetLoadSharingMode(1, kLoadSharingWord, ls.data()), 0u);
        EXPECT_EQ(ls, (std::array<std::uint32_t, 4>{1, 0x13, 0x01020304, 0}));
        std::array<std::uint32_t, 4> conf{};
        ASSERT_EQ(IP_GetConf(16, conf.data()), 0u);
        EXPECT_EQ(conf, (std::array<std::uint32_t, 4>{0, 0x7E, 32, 2}));
        std::uint16_t fw = 0xFFFF;
        ASSERT_EQ(IP_GetIPFWConf(&fw), 0u);
        EXPECT_EQ(fw, 2u) << "forwarding off, directed broadcasts on";
        std::uint32_t mtu = 0;
        ASSERT_EQ(IP_GetIfMTU(kGe1, &mtu), 0u);
        EXPECT_EQ(mtu, 9000u);
        ASSERT_EQ(IP_GetIfMTU(kGeVpn, &mtu), 0u);
        EXPECT_EQ(mtu, 1500u);
    };
    check();
    ok({{"op", "ipstat.traffic"}, {"node", 1}, {"in", 9}});
    ASSERT_EQ(sim.stop(), 0);
    ASSERT_TRUE(sim.start()) << sim.log();
    check();
    EXPECT_EQ(ip_stat(1, 1), IpWords{}) << "counters start again with the device";
}

// The default device with its second board down.
class IpStatDownNodeE2E : public SimTest {
protected:
    std::vector<std::string> args() override { return node_two_down_args("ipstat_down.yaml"); }
};

TEST_F(IpStatDownNodeE2E, SumsLeaveOutTheNodeThatIsDown) {
    ok({{"op", "ipstat.traffic"}, {"node", 1}, {"ip", {{"in_received", 0x01020304}}}});
    EXPECT_FALSE(control({{"op", "ipstat.traffic"}, {"node", 2}, {"in", 5}}).value("ok", true)) << "node 2 is down";
    IpWords sum{};
    IP_GetStat(sum.data());
    EXPECT_EQ(sum[kIpInReceived], 0x01020304u);
    IpWords shown{};
    IP_GetShowIpStat(shown.data());
    EXPECT_EQ(shown[kIpInReceived], 0x01020304u);

    IpWords c{};
    EXPECT_EQ(IP_GetIPStat(2, 1, c.data()), kFailed);
    std::array<std::uint32_t, 2> ecmp{};
    EXPECT_EQ(IP_GetEcmp(2, kEcmpWord, ecmp.data()), kFailed);
    EXPECT_EQ(IP_SetIPDefaultTTL(9, 2), kFailed);

    // Per-node readers leave a node that is down alone.
    FwWords fw{};
    std::uint16_t done = 0;
    EXPECT_EQ(IP_GetIPFWIfStat_ByNode(2, kGeNode2, fw.data(), &done), 0u);
    EXPECT_EQ(done, 0u);
    ok({{"op", "ipstat.traffic"}, {"node", 1}, {"interface", kGeNode2}, {"fw", {{"in_packets", 3}}}});
    ASSERT_EQ(IP_GetIPFWIfStat(kGeNode2, fw.data()), 0u);
    EXPECT_EQ(fw[0], 3u) << "the local node's alone";
    BpaWords bpa{};
    EXPECT_EQ(IP_GetBpaStat(kGeNode2, bpa.data()), 0u);
    EXPECT_EQ(bpa, BpaWords{});
}

// A device with a tunnel (a statistics interface type) of its own MTU.
class IpStatTunnelE2E : public SimTest {
protected:
    std::vector<std::string> args() override {
        return {"--scenario", temp_file("ipstat_tunnel.yaml", R"(
device:
  master: 1
nodes:
  - {number: 1, chassis: 1, slot: 0, role: master}
interfaces:
  - {index: 1, name: GigabitEthernet1/0/1, node: 1, type: ethernet}
  - {index: 2, name: Tunnel1, node: 1, type: tunnel, mtu: 1400}
  - {index: 3, name: LoopBack0, node: 1, type: loopback}
)")};
    }
};

TEST_F(IpStatTunnelE2E, MtuComesFromTheScenarioAndInterfaceTypesSelectTheCountedOnes) {
    std::uint32_t mtu = 0;
    ASSERT_EQ(IP_GetIfMTU(2, &mtu), 0u);
    EXPECT_EQ(mtu, 1400u);
    ASSERT_EQ(IP_GetIfMTU(1, &mtu), 0u);
    EXPECT_EQ(mtu, 1500u);
    EXPECT_EQ(IP_StatIfIndexValidCheck(2), 1u) << "a tunnel is counted";
    EXPECT_EQ(IP_StatIfIndexValidCheck(1), 0u);
    EXPECT_EQ(IP_IsBpaSupportedIf(1), 1u);
    EXPECT_EQ(IP_IsBpaSupportedIf(3), 0u);
}

}  // namespace
}  // namespace e2e
