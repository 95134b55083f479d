// The FIB of the simulated device: searches, sequence numbers, per-node counters and the
// forwarding-table file, through the library's public API.
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "e2e/e2e_support.hpp"
#include "ipclient/fib.h"
#include "ipproto/wire.hpp"

namespace e2e {
namespace {

using FibE2E = SimTest;

FIB4_SEARCH_KEY_S key4(const char* dest, const char* mask, std::uint32_t instance = 0xFFFFFFFFu) {
    FIB4_SEARCH_KEY_S k{};
    k.uiInstance = instance;
    k.usFamily = 2;
    k.uiDest = ip(dest);
    k.uiMask = ip(mask);
    return k;
}

TEST_F(FibE2E, SearchFindsTheDefaultRouteWithItsNextHop) {
    const FIB4_SEARCH_KEY_S key = key4("0.0.0.0", "0.0.0.0");
    std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
    std::uint64_t count = 4;
    ASSERT_EQ(FIB4_SearchInfo(&key, &count, entries), 0u);
    ASSERT_EQ(count, 1u);
    std::uint16_t family = 0;
    std::memcpy(&family, entries + FIB_ENTRY_FAMILY_OFFSET, 2);
    EXPECT_EQ(family, 2u);
    EXPECT_EQ(dotted(*reinterpret_cast<const std::uint32_t*>(entries + FIB_ENTRY_NEXTHOP_OFFSET)), "192.168.0.254");
    std::uint32_t flags = 0;
    std::memcpy(&flags, entries + FIB_ENTRY_FLAGS_OFFSET, 4);
    EXPECT_EQ(flags & 1u, 1u);

    const FIB4_SEARCH_KEY_S vpn = key4("10.1.2.0", "255.255.255.0", 1);
    count = 4;
    ASSERT_EQ(FIB4_SearchInfo(&vpn, &count, entries), 0u);
    EXPECT_EQ(count, 1u);
    const FIB4_SEARCH_KEY_S wrong_vrf = key4("10.1.2.0", "255.255.255.0", 0);
    count = 4;
    ASSERT_EQ(FIB4_SearchInfo(&wrong_vrf, &count, entries), 0u);
    EXPECT_EQ(count, 0u);
    const FIB4_SEARCH_KEY_S node2_only = key4("10.2.1.0", "255.255.255.0");
    count = 4;
    ASSERT_EQ(FIB4_SearchInfo(&node2_only, &count, entries), 0u);
    EXPECT_EQ(count, 0u) << "the route is known to node 2 only; this process runs on node 1";
}

TEST_F(FibE2E, GlobalDataAndSequenceNumbers) {
    FIB4_SPEC_DATA_S data{};
    ASSERT_EQ(FIB4_Get_SpecData(&data), 0u);
    std::uint32_t routes = 0, vrfs = 0, node = 0;
    std::memcpy(&routes, data.aucData, 4);
    std::memcpy(&vrfs, data.aucData + 8, 4);
    std::memcpy(&node, data.aucData + 24, 4);
    EXPECT_EQ(routes, 4u) << "node 1's IPv4 routes";
    EXPECT_EQ(vrfs, 2u);
    EXPECT_EQ(node, 1u);
    FIB6_SPEC_DATA_S data6{};
    ASSERT_EQ(FIB6_Get_SpecData(&data6), 0u);
    std::memcpy(&routes, data6.aucData, 4);
    EXPECT_EQ(routes, 1u);
    // The sequence number travels unconverted: the scenario's five IPv4 routes, big-endian.
    const std::uint32_t seq = FIB4_GetRouteChangeSeq();
    std::uint8_t bytes[4];
    std::memcpy(bytes, &seq, 4);
    EXPECT_EQ(bytes[3], 5u);
    EXPECT_EQ(bytes[0], 0u);
}

TEST_F(FibE2E, PerNodeCountersSumEveryNode) {
    std::uint64_t total = 0;
    FIB_GetConCheckStat(2, &total);
    EXPECT_EQ(total, 4u + 5u) << "node 1: four IPv4 routes; node 2: the same four and its own";
    total = 0;
    FIB_GetAlarmThresholdStat(1, &total);
    EXPECT_EQ(total, 2u) << "the VPN's route on each node";
}

TEST_F(FibE2E, ForwardingTableFileOfTwoNodes) {
    const std::string path = sim.state_dir() + "/fib.txt";
    ASSERT_EQ(FIB_SaveForwardingTable(path.c_str()), 0u);
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    auto line = [](const char* where, const char* vpn, const char* dest, const char* hop, const char* via,
                   const char* mac1, const char* mac2, const char* out) {
        return std::string("{") + where + "}, {" + vpn + ", " + dest + "} -> {" + hop + ", " + via + ", Null}, {" +
               mac1 + ", " + mac2 + ", 0/0, " + out + "}\r\n";
    };
    const char* none = "00-00-00-00-00-00";
    std::string expected = "[FIB Info]\r\n";
    for (const char* where : {"1, 0, 0", "1, 1, 0"}) {
        const bool node2 = std::strcmp(where, "1, 1, 0") == 0;
        expected += line(where, "public", "0.0.0.0/0", "192.168.0.254", "M-GigabitEthernet0/0/0", none,
                         "00-e0-fc-00-00-01", "M-GigabitEthernet0/0/0");
        expected += line(where, "public", "10.1.1.0/24", "0.0.0.0", "GigabitEthernet1/0/1", none, "00-e0-fc-00-00-02",
                         "GigabitEthernet1/0/1");
        if (node2) {
            expected += line(where, "public", "10.2.1.0/24", "0.0.0.0", "GigabitEthernet1/1/1", none,
                             "00-e0-fc-00-00-04", "GigabitEthernet1/1/1");
        }
        expected += line(where, "public", "10.8.0.0/16", "10.1.1.2", "GigabitEthernet1/0/1", "00-11-22-33-44-55",
                         "00-e0-fc-00-00-02", "GigabitEthernet1/0/1");
        expected += line(where, "vpn-a", "10.1.2.0/24", "0.0.0.0", "GigabitEthernet1/0/2", none, "00-e0-fc-00-00-03",
                         "GigabitEthernet1/0/2");
    }
    EXPECT_EQ(ss.str(), expected);
}

TEST_F(FibE2E, RoutesChangedWhileRunningMoveTheSequenceAndAreFound) {
    auto be_seq = [] {
        const std::uint32_t raw = FIB4_GetRouteChangeSeq();
        return ipc::wire::load_be<std::uint32_t>(&raw);
    };
    const std::uint32_t before = be_seq();
    const auto added = control({{"op", "route.add"},
                                {"prefix", "10.77.0.0/16"},
                                {"next_hop", "10.1.1.2"},
                                {"interface", "GigabitEthernet1/0/1"},
                                {"mac", "00:11:22:33:44:55"}});
    ASSERT_TRUE(added.value("ok", false)) << added.dump();
    EXPECT_EQ(added["seq4"].get<std::uint32_t>(), before + 1);
    EXPECT_EQ(be_seq(), before + 1) << "the number travels big-endian and moved by one";

    const FIB4_SEARCH_KEY_S key = key4("10.77.0.0", "255.255.0.0");
    std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
    std::uint64_t count = 4;
    ASSERT_EQ(FIB4_SearchInfo(&key, &count, entries), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(dotted(*reinterpret_cast<const std::uint32_t*>(entries + FIB_ENTRY_NEXTHOP_OFFSET)), "10.1.1.2");
    std::uint32_t ifindex = 0;
    std::memcpy(&ifindex, entries + 4, 4);
    EXPECT_EQ(ifindex, 2u);

    const std::string path = sim.state_dir() + "/fib-added.txt";
    ASSERT_EQ(FIB_SaveForwardingTable(path.c_str()), 0u);
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string line =
        "{1, 0, 0}, {public, 10.77.0.0/16} -> {10.1.1.2, GigabitEthernet1/0/1, Null}, "
        "{00-11-22-33-44-55, 00-e0-fc-00-00-02, 0/0, GigabitEthernet1/0/1}\r\n";
    EXPECT_NE(ss.str().find(line), std::string::npos) << ss.str();

    const auto removed = control({{"op", "route.del"}, {"prefix", "10.77.0.0/16"}});
    EXPECT_TRUE(removed.value("removed", false)) << removed.dump();
    EXPECT_EQ(be_seq(), before + 2);
    count = 4;
    ASSERT_EQ(FIB4_SearchInfo(&key, &count, entries), 0u);
    EXPECT_EQ(count, 0u);
    const auto again = control({{"op", "route.del"}, {"prefix", "10.77.0.0/16"}});
    EXPECT_FALSE(again.value("removed", true)) << "nothing left to remove";
    EXPECT_EQ(be_seq(), before + 2) << "a removal of nothing is no change";
}

TEST_F(FibE2E, ARouteOfTheWrongShapeIsRefused) {
    EXPECT_FALSE(control({{"op", "route.add"}, {"prefix", "10.77.0.0/33"}}).value("ok", true));
    EXPECT_FALSE(control({{"op", "route.add"}, {"prefix", "10.77.0.0/16"}, {"next_hop", "2001:db8::1"}}).value("ok", true));
    EXPECT_FALSE(control({{"op", "route.add"}, {"prefix", "10.77.0.0/16"}, {"interface", "Nope0"}}).value("ok", true));
    EXPECT_FALSE(control({{"op", "route.add"}, {"prefix", "10.77.0.0/16"}, {"node", 9}}).value("ok", true));
}

// Every control operation that takes a MAC reads it the same way: six hexadecimal numbers up
// to ff, nothing after them; the refusal names the text it could not read.
TEST_F(FibE2E, ABadMacIsRefusedByEveryOperationThatTakesOne) {
    const nlohmann::json route = {{"op", "route.add"}, {"prefix", "10.78.0.0/16"}, {"interface", "GigabitEthernet1/0/1"}};
    const nlohmann::json neigh = {{"op", "neigh.add"}, {"interface", "GigabitEthernet1/0/1"}, {"address", "10.1.1.77"}};
    const nlohmann::json nd = {{"op", "nd.entry"}, {"ifindex", 2}, {"address", "2001:db8::77"}};
    for (const char* bad : {"00:11:22:33:44", "00:11:22:33:44:55:66", "00:11:22:33:44:100", "zz:11:22:33:44:55"}) {
        for (nlohmann::json req : {route, neigh, nd}) {
            req["mac"] = bad;
            const auto answer = control(req);
            EXPECT_FALSE(answer.value("ok", true)) << req.dump();
            EXPECT_NE(answer.value("error", "").find(bad), std::string::npos) << answer.dump();
        }
    }
    for (nlohmann::json req : {route, neigh, nd}) {
        req["mac"] = "0:a:Bc:d:e:ff";
        const auto answer = control(req);
        EXPECT_TRUE(answer.value("ok", false)) << req.dump() << " " << answer.dump();
    }
}

}  // namespace
}  // namespace e2e
