// What the simulated device does on its own, played from the control channel and seen
// through the library's public API: a board pulled out and put back (node.set), a master
// board pulled out with a switchover, a link that goes down and comes up (link.set), a
// service that restarts (service.restart); and the warning that faults are set.
#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/arp.h"
#include "ipclient/fib.h"
#include "ipclient/ipaddr.h"
#include "ipclient/ipcfg.h"
#include "ipclient/kernel.h"
#include "ipclient/nd.h"
#include "ipplat/host.h"
#include "ipplat/platform.h"
#include "support/statuses.hpp"

namespace e2e::device_event_tests {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr const char* kNode2Port = "GigabitEthernet1/1/1";

template <class F>
bool soon(F cond, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
    const auto end = Clock::now() + limit;
    while (!cond()) {
        if (Clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// ---- Address events --------------------------------------------------------------------

std::vector<std::string> g_events;

std::uint32_t on_event(std::uint32_t event, IPAddrEntry* e, std::uint32_t, std::uint32_t, std::uint32_t,
                       std::uint32_t) {
    g_events.push_back(std::to_string(event) + " " + std::to_string(e->stKey.uiIfIndex) + " " + dotted(e->stKey.uiAddr));
    return 0;
}

// Handles what arrives on the event socket until `count` events were seen or a second
// passed without anything.
void take_events(std::int32_t fd, std::size_t count) {
    while (g_events.size() < count) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 1000) != 1) return;
        if (IPAddr_HandleEvent(fd) != 0) return;
    }
}

// ---- The addresses an application sees ------------------------------------------------

using Seen = std::vector<std::pair<std::uint32_t, std::string>>;

// Every address of every interface, with the address driver's walk in interface order; the
// status that ended it in *end.
Seen driver_walk(std::uint32_t* end) {
    Seen out;
    IPAddrKey key{};
    key.usVrfIndex = IPADDR_ANY_VRF;
    IPAddrInfo info{};
    std::uint32_t rc = 0;
    while ((rc = IPAddr_Drvk_GetNextAddrOnIf(0, 0, 1, &key, &info)) == 0 && out.size() < 100) {
        out.emplace_back(info.stEntry.stKey.uiIfIndex, dotted(info.stEntry.stKey.uiAddr));
        key = info.stEntry.stKey;
    }
    *end = rc;
    return out;
}

// The addresses each running node's address module reports, asked node by node as an
// application that walks the whole device does; a node that answers with an error fails the
// test.
Seen per_node_walk(std::vector<std::uint16_t>* asked) {
    Seen out;
    std::uint32_t count = 0;
    std::uint16_t* nodes = DEV_GetAllNodes(&count);
    EXPECT_NE(nodes, nullptr);
    for (std::uint32_t i = 0; nodes != nullptr && i < count; ++i) {
        if ((IF_IsNodeUp(nodes[i]) & 0xFFFFu) != 1) continue;
        asked->push_back(nodes[i]);
        IPAddrEntry any{};
        any.stKey.usVrfIndex = IPADDR_ANY_VRF;
        any.stKey.uiIfIndex = IPADDR_ANY_IFINDEX;
        IPAddrEntry entries[32] = {};
        std::uint32_t n = 32;
        EXPECT_EQ(IPAddr_Drvk_GetMatchAddr(nodes[i], &any, &n, entries), 0u) << "node " << nodes[i];
        for (std::uint32_t k = 0; k < n && k < 32; ++k) {
            out.emplace_back(entries[k].stKey.uiIfIndex, dotted(entries[k].stKey.uiAddr));
        }
    }
    std::free(nodes);
    return out;
}

bool arp_present(const char* addr) {
    ARP_ENTRY_S e{};
    return ARP_GetEntryByIP(ip(addr), &e) == 0;
}

std::uint32_t nd_exact(std::uint32_t ifindex, const char* addr) {
    NdIPv6Addr a{};
    EXPECT_EQ(::inet_pton(AF_INET6, addr, a.aucAddr), 1) << addr;
    NdEntryInfo e{};
    return ND_GetEntryInfo(ND_ENTRY_CMD_EXACT, 0, ifindex, a.aucAddr, &e);
}

using DeviceEvents = SimTest;

TEST_F(DeviceEvents, NodeDownTakesItsInterfacesAndAddresses) {
    g_events.clear();
    ASSERT_EQ(IF_IsNodeUp(2), 1u);
    ASSERT_EQ(IF_GetIfIndexByFullName(kNode2Port), kGeNode2);
    IPAddrInfo before{};
    ASSERT_EQ(lookup_any(ip("10.2.1.1"), &before), 0u);
    ASSERT_EQ(before.stEntry.stKey.uiIfIndex, kGeNode2);
    std::uint32_t end_before = 0;
    const Seen walked_before = driver_walk(&end_before);
    ASSERT_EQ(walked_before.size(), 7u);
    std::vector<std::uint16_t> asked;
    const Seen nodes_before = per_node_walk(&asked);
    EXPECT_EQ(asked, (std::vector<std::uint16_t>{1, 2}));
    const std::int32_t fd = IPAddr_RegisterEvent(0, 0, 0, 0, on_event);
    ASSERT_GE(fd, 0);

    const json down = ok({{"op", "node.set"}, {"node", 2}, {"state", "down"}});
    EXPECT_EQ(down.value("changed", false), true) << down.dump();
    EXPECT_EQ(down.value("master", 0u), 1u) << down.dump();
    EXPECT_EQ(down.value("addresses", 0u), 1u) << down.dump();
    EXPECT_EQ(down.value("neighbours", 0u), 4u) << "10.2.1.2 to 10.2.1.4 and fe80::4: " << down.dump();
    EXPECT_EQ(down.value("routes", 0u), 1u) << "10.2.1.0/24: " << down.dump();

    EXPECT_EQ(IF_IsNodeUp(2), 0u);
    EXPECT_EQ(IF_GetIfIndexByFullName(kNode2Port), 0u) << "the port left the directory";
    EXPECT_EQ(IF_IsValidIfIndex(kGeNode2), 0u);
    EXPECT_EQ(IF_IsNodeUp(1), 1u);
    EXPECT_EQ(IF_GetIfIndexByFullName("GigabitEthernet1/0/1"), kGe1);
    EXPECT_EQ(IF_GetIfIndexByFullName("Vlan-interface1"), kVlan1) << "an interface that spans nodes stays";
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.2.1.1"), &info), kFailed);
    IPAddrEntry first{};
    EXPECT_EQ(IPAddr_GetFirstAddr(kGeNode2, 0, &first), kFailed);
    EXPECT_FALSE(arp_present("10.2.1.3"));

    // A walk of the whole device sees no address of node 2, and no error.
    std::uint32_t end_down = 0;
    Seen expected = walked_before;
    std::erase(expected, std::make_pair(kGeNode2, std::string("10.2.1.1")));
    EXPECT_EQ(driver_walk(&end_down), expected);
    EXPECT_EQ(end_down, end_before) << "the walk ended as a whole walk does";
    asked.clear();
    const Seen nodes_down = per_node_walk(&asked);
    EXPECT_EQ(asked, (std::vector<std::uint16_t>{1}));
    for (const auto& [ifindex, addr] : nodes_down) EXPECT_NE(ifindex, kGeNode2) << addr;
    EXPECT_EQ(nodes_down.size(), 6u);

    take_events(fd, 1);
    EXPECT_EQ(g_events, (std::vector<std::string>{"2 4 10.2.1.1"})) << "the address's delete event";

    const json up = ok({{"op", "node.set"}, {"node", 2}, {"state", "up"}});
    EXPECT_EQ(up.value("changed", false), true) << up.dump();
    EXPECT_EQ(up.value("addresses", 0u), 1u) << up.dump();
    EXPECT_EQ(up.value("neighbours", 0u), 4u) << up.dump();
    EXPECT_EQ(up.value("routes", 0u), 1u) << up.dump();
    EXPECT_EQ(IF_IsNodeUp(2), 1u);
    EXPECT_EQ(IF_GetIfIndexByFullName(kNode2Port), kGeNode2);
    EXPECT_EQ(IF_IsValidIfIndex(kGeNode2), 1u);
    IPAddrInfo after{};
    ASSERT_EQ(lookup_any(ip("10.2.1.1"), &after), 0u);
    EXPECT_EQ(std::memcmp(&after, &before, sizeof before), 0) << "the address came back as it was";
    std::uint32_t end_up = 0;
    EXPECT_EQ(driver_walk(&end_up), walked_before);
    EXPECT_EQ(end_up, end_before);
    asked.clear();
    EXPECT_EQ(per_node_walk(&asked), nodes_before);
    EXPECT_EQ(asked, (std::vector<std::uint16_t>{1, 2}));
    EXPECT_TRUE(arp_present("10.2.1.3"));
    EXPECT_EQ(nd_exact(kGeNode2, "fe80::4"), 0u);
    take_events(fd, 2);
    EXPECT_EQ(g_events, (std::vector<std::string>{"2 4 10.2.1.1", "1 4 10.2.1.1"}));
    IPAddr_DeregisterEvent(fd);

    // Putting back a board that is in is no change.
    EXPECT_EQ(ok({{"op", "node.set"}, {"node", 2}, {"state", "up"}}).value("changed", true), false);
}

TEST_F(DeviceEvents, NodeDownOfMasterNeedsSwitchover) {
    ASSERT_EQ(DEV_GetSystemMaster(), 1u);
    const json refused = control({{"op", "node.set"}, {"node", 1}, {"state", "down"}});
    EXPECT_FALSE(refused.value("ok", true)) << refused.dump();
    EXPECT_NE(refused.value("error", "").find("\"switchover\": true"), std::string::npos) << refused.dump();
    EXPECT_EQ(DEV_GetSystemMaster(), 1u);
    EXPECT_EQ(IF_IsNodeUp(1), 1u);
    EXPECT_EQ(IF_GetIfIndexByFullName("GigabitEthernet1/0/1"), kGe1) << "a refused request changed the device";

    const json down = ok({{"op", "node.set"}, {"node", 1}, {"state", "down"}, {"switchover", true}});
    EXPECT_EQ(down.value("master", 0u), 2u) << down.dump();
    EXPECT_EQ(DEV_GetSystemMaster(), 2u);
    EXPECT_EQ(DEV_GetSystemMasterEP(), 2u);
    EXPECT_EQ(IF_IsNodeUp(1), 0u);
    EXPECT_EQ(IF_IsNodeUp(2), 1u);
    EXPECT_EQ(IF_GetIfIndexByFullName("GigabitEthernet1/0/1"), 0u);
    EXPECT_EQ(IF_GetIfIndexByFullName(kNode2Port), kGeNode2);

    // Back in, the board stands by: the switchover is not undone.
    ok({{"op", "node.set"}, {"node", 1}, {"state", "up"}});
    EXPECT_EQ(IF_IsNodeUp(1), 1u);
    EXPECT_EQ(DEV_GetSystemMaster(), 2u);
    std::uint32_t count = 0;
    std::uint16_t* standby = DEV_GetAllStandbyNodes(&count);
    ASSERT_NE(standby, nullptr);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(standby[0], 1u);
    std::free(standby);
    EXPECT_EQ(IF_GetIfIndexByFullName("GigabitEthernet1/0/1"), kGe1);
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.1.1.1"), &info), 0u);
}

// A word of the FIB's global data record of node 1 (IPv4 or IPv6): at 0 the routes, at 4
// the active ones among them.
std::uint32_t fib_global_word(bool v6, std::size_t at) {
    std::uint32_t v = 0;
    if (v6) {
        FIB6_SPEC_DATA_S d{};
        EXPECT_EQ(FIB6_Get_SpecData(&d), 0u);
        std::memcpy(&v, d.aucData + at, 4);
    } else {
        FIB4_SPEC_DATA_S d{};
        EXPECT_EQ(FIB4_Get_SpecData(&d), 0u);
        std::memcpy(&v, d.aucData + at, 4);
    }
    return v;
}

// The flags word of the one route of a prefix (bit 0: active); 0xFFFFFFFF when there is not
// exactly one.
std::uint32_t route_flags(const char* dest, const char* mask) {
    FIB4_SEARCH_KEY_S k{};
    k.uiInstance = 0xFFFFFFFFu;
    k.usFamily = 2;
    k.uiDest = ip(dest);
    k.uiMask = ip(mask);
    std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
    std::uint64_t count = 4;
    if (FIB4_SearchInfo(&k, &count, entries) != 0 || count != 1) return 0xFFFFFFFFu;
    std::uint32_t flags = 0;
    std::memcpy(&flags, entries + FIB_ENTRY_FLAGS_OFFSET, 4);
    return flags;
}

TEST_F(DeviceEvents, LinkDownFlushesNeighboursAndDeactivatesRoutes) {
    ASSERT_TRUE(arp_present("10.1.1.2"));
    ASSERT_EQ(nd_exact(kGe1, "fe80::2"), 0u);
    ASSERT_EQ(nd_exact(kGe1, "2001:db8:1::2"), 0u);
    ASSERT_EQ(fib_global_word(false, 0), 4u) << "node 1's IPv4 routes";
    ASSERT_EQ(fib_global_word(false, 4), 4u) << "all active";
    ASSERT_EQ(fib_global_word(true, 4), 1u);
    ASSERT_EQ(route_flags("10.8.0.0", "255.255.0.0") & 1u, 1u);

    const json down = ok({{"op", "link.set"}, {"interface", "GigabitEthernet1/0/1"}, {"state", "down"}});
    EXPECT_EQ(down.value("changed", false), true) << down.dump();
    EXPECT_EQ(down.value("neighbours", 0u), 3u) << "10.1.1.2, fe80::2 and 2001:db8:1::2: " << down.dump();
    EXPECT_EQ(down.value("routes", 0u), 3u) << "10.1.1.0/24, 10.8.0.0/16 and 2001:db8:1::/64: " << down.dump();

    EXPECT_FALSE(arp_present("10.1.1.2"));
    EXPECT_EQ(nd_exact(kGe1, "fe80::2"), kFailed);
    EXPECT_EQ(nd_exact(kGe1, "2001:db8:1::2"), kFailed);
    EXPECT_TRUE(arp_present("10.2.1.2")) << "neighbours of other links stay";
    EXPECT_EQ(nd_exact(kVlan1, "2001:db8:5::2"), 0u);
    EXPECT_EQ(fib_global_word(false, 0), 4u) << "the routes stay in the table";
    EXPECT_EQ(fib_global_word(false, 4), 2u) << "two of them inactive";
    EXPECT_EQ(fib_global_word(true, 0), 1u);
    EXPECT_EQ(fib_global_word(true, 4), 0u);
    EXPECT_EQ(route_flags("10.8.0.0", "255.255.0.0") & 1u, 0u);
    EXPECT_EQ(route_flags("0.0.0.0", "0.0.0.0") & 1u, 1u) << "a route through another interface";
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.1.1.1"), &info), 0u) << "the addresses are the interface's, not the link's";
    EXPECT_EQ(ok({{"op", "link.set"}, {"interface", "GigabitEthernet1/0/1"}, {"state", "down"}}).value("changed", true),
              false);

    const json up = ok({{"op", "link.set"}, {"interface", 2}, {"state", "up"}});
    EXPECT_EQ(up.value("changed", false), true) << up.dump();
    EXPECT_EQ(up.value("neighbours", 99u), 0u) << up.dump();
    EXPECT_EQ(up.value("routes", 0u), 3u) << up.dump();
    EXPECT_EQ(fib_global_word(false, 0), 4u);
    EXPECT_EQ(fib_global_word(false, 4), 4u);
    EXPECT_EQ(fib_global_word(true, 4), 1u);
    EXPECT_EQ(route_flags("10.8.0.0", "255.255.0.0") & 1u, 1u);
    // Flushed neighbours are learnt again, not given back.
    EXPECT_FALSE(arp_present("10.1.1.2"));
    ok({{"op", "neigh.add"}, {"interface", "GigabitEthernet1/0/1"}, {"address", "10.1.1.2"}, {"mac", "00:11:22:33:44:55"}});
    EXPECT_TRUE(arp_present("10.1.1.2"));
}

TEST_F(DeviceEvents, ServiceRestartEndsConnections) {
    g_events.clear();
    const std::int32_t fd = IPAddr_RegisterEvent(0, 0, 0, 0, on_event);
    ASSERT_GE(fd, 0);

    const json restart = ok({{"op", "service.restart"}, {"service", "address events service"}, {"after_ms", 1000}});
    EXPECT_EQ(restart.value("port", 0u), IPADDR_PORT_EVENTS) << restart.dump();
    EXPECT_EQ(restart.value("closed", 0u), 3u) << "the listeners of both nodes and this subscriber: " << restart.dump();

    // The subscriber's socket ends: readable at its end, and the handler fails.
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    EXPECT_NE(p.revents & (POLLIN | POLLHUP), 0);
    EXPECT_EQ(IPAddr_HandleEvent(fd), kFailed);
    EXPECT_TRUE(g_events.empty());
    IPAddr_DeregisterEvent(fd);

    // Away for a while; then a new subscription is served.
    const std::int32_t early = IPAddr_RegisterEvent(0, 0, 0, 0, on_event);
    EXPECT_LT(early, 0) << "subscribed while the service restarts";
    if (early >= 0) IPAddr_DeregisterEvent(early);
    std::int32_t again = -1;
    EXPECT_TRUE(soon([&] { return (again = IPAddr_RegisterEvent(0, 0, 0, 0, on_event)) >= 0; },
                     std::chrono::milliseconds(10000)));
    ASSERT_GE(again, 0);
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    take_events(again, 1);
    EXPECT_EQ(g_events, (std::vector<std::string>{"1 2 10.9.9.1"}));
    IPAddr_DeregisterEvent(again);
}

TEST_F(DeviceEvents, StatusWarnsOfFaults) {
    std::uint32_t count = 99;
    ASSERT_EQ(ipp_device_faults(&count), 0);
    EXPECT_EQ(count, 0u);
    std::string out, err;
    ASSERT_EQ(run({IPCTL_PATH, "status"}, &out, &err), 0) << out << err;
    EXPECT_EQ(err.find("warning"), std::string::npos) << err;

    ok({{"op", "fault.set"}, {"module", "fib"}, {"error", "0x4316007a"}, {"times", 1}});
    ok({{"op", "fault.set"}, {"port", IPADDR_PORT_CONTROL}, {"delay_ms", 10}});
    ASSERT_EQ(ipp_device_faults(&count), 0);
    EXPECT_EQ(count, 2u);
    out.clear();
    err.clear();
    ASSERT_EQ(run({IPCTL_PATH, "status"}, &out, &err), 0) << out << err;
    EXPECT_NE(err.find("warning"), std::string::npos) << err;
    EXPECT_NE(err.find("ipctl: warning: the device plays 2 faults"), std::string::npos) << err;

    // A spent fault plays no more.
    FIB4_SPEC_DATA_S data{};
    EXPECT_EQ(FIB4_Get_SpecData(&data), 0x4316007Au);
    ASSERT_EQ(ipp_device_faults(&count), 0);
    EXPECT_EQ(count, 1u);
    out.clear();
    err.clear();
    ASSERT_EQ(run({IPCTL_PATH, "status"}, &out, &err), 0) << out << err;
    EXPECT_NE(err.find("ipctl: warning: the device plays 1 fault ("), std::string::npos) << err;

    EXPECT_EQ(ok({{"op", "fault.clear"}}).value("cleared", 0u), 2u);
    ASSERT_EQ(ipp_device_faults(&count), 0);
    EXPECT_EQ(count, 0u);
    out.clear();
    err.clear();
    ASSERT_EQ(run({IPCTL_PATH, "status"}, &out, &err), 0) << out << err;
    EXPECT_EQ(err.find("warning"), std::string::npos) << err;
    EXPECT_EQ(FIB4_Get_SpecData(&data), 0u);
}

}  // namespace
}  // namespace e2e::device_event_tests

namespace e2e::device_event_tests {
namespace {

std::size_t neighbour_count() {
    const json list = ok({{"op", "neigh.list"}});
    return list.value("entries", json::array()).size();
}

json limit_of(const std::string& table) {
    const json list = ok({{"op", "limit.list"}});
    for (const json& l : list["limits"]) {
        if (l.value("table", "") == table) return l;
    }
    return json::object();
}

// A board put back brings back all it held, whatever limit was lowered while it was out;
// the limits apply again to what comes after.
TEST_F(DeviceEvents, NodeBackBringsAllItHeldPastALowerLimit) {
    const std::size_t neighbours = neighbour_count();
    const std::uint64_t routes = limit_of("fib").value("used", 0u);
    ASSERT_GT(neighbours, 4u);
    ok({{"op", "node.set"}, {"node", 2}, {"state", "down"}});
    ASSERT_EQ(neighbour_count(), neighbours - 4);
    ok({{"op", "limit.set"}, {"table", "arp"}, {"capacity", 2}});
    ok({{"op", "limit.set"}, {"table", "fib"}, {"capacity", 5}});

    const json up = ok({{"op", "node.set"}, {"node", 2}, {"state", "up"}});
    EXPECT_EQ(up.value("neighbours", 0u), 4u) << up.dump();
    EXPECT_EQ(neighbour_count(), neighbours);
    EXPECT_EQ(limit_of("fib").value("used", 0u), routes);
    EXPECT_EQ(limit_of("arp").value("refused", 1u), 0u);
    EXPECT_EQ(limit_of("fib").value("refused", 1u), 0u);
    EXPECT_EQ(limit_of("arp").value("capacity", 0u), 2u) << "the limit holds again";
    const json refused = control({{"op", "neigh.add"}, {"interface", kGe1}, {"address", "10.1.1.77"}});
    EXPECT_FALSE(refused.value("ok", true)) << refused.dump();
    EXPECT_NE(refused.value("error", "").find("the ARP table is full"), std::string::npos) << refused.dump();
}

// What a client stored on a pulled board's interface stays stored: a device restarted while
// the board is out has it again, its board in.
TEST_F(DeviceEvents, NodePulledKeepsWhatClientsStored) {
    ASSERT_EQ(IPCfg_AddManualAddr(kGeNode2, ip("10.2.9.1"), ip("255.255.255.0"), 1), 0u);
    ok({{"op", "node.set"}, {"node", 2}, {"state", "down"}});
    IPAddrInfo info{};
    ASSERT_EQ(lookup_any(ip("10.2.9.1"), &info), kFailed);
    ASSERT_EQ(sim.stop(), 0) << sim.log();
    ASSERT_TRUE(sim.start(args())) << sim.log();
    EXPECT_EQ(IF_IsNodeUp(2), 1u);
    ASSERT_EQ(lookup_any(ip("10.2.9.1"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, kGeNode2);
}

}  // namespace
}  // namespace e2e::device_event_tests

namespace e2e::device_event_tests {
namespace {

// An application that walks every address while node 2 is pulled out goes on from where it
// was: no error, no record of the pulled board after that, the same end as a whole walk.
TEST_F(DeviceEvents, NodeDownWhileAnApplicationWalksAllAddresses) {
    std::uint32_t whole_end = 0;
    const Seen whole = driver_walk(&whole_end);
    ASSERT_EQ(whole.size(), 7u);
    const auto node2_at = std::find(whole.begin(), whole.end(), std::make_pair(kGeNode2, std::string("10.2.1.1")));
    ASSERT_NE(node2_at, whole.end());
    const auto before_node2 = static_cast<std::size_t>(node2_at - whole.begin());
    ASSERT_GE(before_node2, 2u);

    Seen seen;
    IPAddrKey key{};
    key.usVrfIndex = IPADDR_ANY_VRF;
    IPAddrInfo info{};
    std::uint32_t rc = 0;
    while ((rc = IPAddr_Drvk_GetNextAddrOnIf(0, 0, 1, &key, &info)) == 0 && seen.size() < 100) {
        seen.emplace_back(info.stEntry.stKey.uiIfIndex, dotted(info.stEntry.stKey.uiAddr));
        key = info.stEntry.stKey;
        // Midway, before the walk reaches the board's interface, the board goes.
        if (seen.size() == before_node2) ok({{"op", "node.set"}, {"node", 2}, {"state", "down"}});
    }
    EXPECT_EQ(rc, whole_end);
    Seen expected = whole;
    expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(before_node2));
    EXPECT_EQ(seen, expected);
    ok({{"op", "node.set"}, {"node", 2}, {"state", "up"}});
    std::uint32_t end_up = 0;
    EXPECT_EQ(driver_walk(&end_up), whole);
}

}  // namespace
}  // namespace e2e::device_event_tests

namespace e2e::device_event_tests {
namespace {

// What a client made while a board was out stays: the board's address, which would now
// conflict with it, does not come back.
TEST_F(DeviceEvents, NodeBackKeepsWhatClientsMadeMeanwhile) {
    ok({{"op", "node.set"}, {"node", 2}, {"state", "down"}});
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.2.1.9"), ip("255.255.255.0"), 1), 0u) << "no conflict while it is out";
    const json up = ok({{"op", "node.set"}, {"node", 2}, {"state", "up"}});
    EXPECT_EQ(up.value("changed", false), true);
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.2.1.1"), &info), kFailed) << "it would conflict with 10.2.1.9/24";
    ASSERT_EQ(lookup_any(ip("10.2.1.9"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, kGe1);
    EXPECT_TRUE(arp_present("10.2.1.3")) << "its neighbours came back";
}

}  // namespace
}  // namespace e2e::device_event_tests
