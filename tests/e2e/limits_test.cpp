// Limits of the simulated device's tables and services (ipsimd's limit.set): a new entry past
// a limit is refused with nothing of its request done, counted in limit.list, and taken again
// once the limit is lifted. Each test sets the limit at what the device already holds, checks
// the refusal through the library's public API, lifts the limit and checks recovery.
#include <arpa/inet.h>
#include <poll.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipproto/device_status.hpp"
#include "ipclient/arp.h"
#include "ipclient/fib.h"
#include "ipclient/ipaddr.h"
#include "ipclient/ipcfg.h"
#include "ipclient/kernel.h"
#include "ipclient/nd.h"
#include "ipproto/wire.hpp"
#include "support/statuses.hpp"

namespace e2e::limit_tests {
namespace {

using nlohmann::json;

// What a table answers for an entry it has no room for.
constexpr std::uint32_t kNoResources = ipc::device_status::kNoResources;
constexpr std::uint32_t kVlan10 = 6;  // Vlan-interface10, node 1

json set_limit(json request) {
    request["op"] = "limit.set";
    return ok(request);
}

// A table's entry of limit.list (for "subscribers", the one of the port), or null.
json limit_of(const std::string& table, std::uint32_t port = 0) {
    const json answer = ok({{"op", "limit.list"}});
    for (const json& l : answer.value("limits", json::array())) {
        if (l.value("table", "") == table && (port == 0 || l.value("port", 0u) == port)) return l;
    }
    return nullptr;
}

// A control request the device must refuse: its error text (empty when it was taken).
std::string refusal(const json& request) {
    const json answer = control(request);
    EXPECT_FALSE(answer.value("ok", true)) << request.dump() << " was taken: " << answer.dump();
    return answer.value("error", "");
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

bool address_found(const char* addr) {
    IPAddrInfo info{};
    return lookup_any(ip(addr), &info) == 0;
}

// ---- Addresses -------------------------------------------------------------------------

IPAddrInfo driver_record(std::uint32_t ifindex, const char* addr, const char* mask) {
    IPAddrInfo info{};
    info.stEntry.stKey.uiIfIndex = ifindex;
    info.stEntry.stKey.uiAddr = ip(addr);
    info.stEntry.stKey.uiMask = ip(mask);
    info.stEntry.stKey.uiMethod = IPADDR_METHOD_MANUAL;
    info.stEntry.uiFlag = 1;
    return info;
}

using Limits = SimTest;

TEST_F(Limits, LimitAddresses) {
    // GigabitEthernet1/0/1 holds two addresses, the most of any interface.
    const json set = set_limit({{"table", "addresses"}, {"capacity", 2}});
    EXPECT_EQ(set.value("capacity", 0u), 2u) << set.dump();
    EXPECT_EQ(set.value("used", 0u), 2u) << set.dump();
    EXPECT_EQ(set.value("interface", 0u), kGe1) << set.dump();
    EXPECT_EQ(set.value("refused", 99u), 0u) << set.dump();

    // The address configuration service refuses a third address and keeps nothing of it.
    EXPECT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), kNoResources);
    EXPECT_FALSE(address_found("10.9.9.1"));
    EXPECT_EQ(limit_of("addresses").value("refused", 0u), 1u) << limit_of("addresses").dump();
    // So does the address module.
    const IPAddrInfo third = driver_record(kGe1, "10.9.8.1", "255.255.255.0");
    EXPECT_EQ(IPAddr_Drvk_AddIP(&third), kNoResources);
    EXPECT_FALSE(address_found("10.9.8.1"));
    EXPECT_EQ(limit_of("addresses").value("refused", 0u), 2u);
    // The limit is each interface's: LoopBack0 holds one and takes a second.
    ASSERT_EQ(IPCfg_AddManualAddr(kLoop0, ip("2.2.2.2"), ip("255.255.255.255"), 1), 0u);
    EXPECT_TRUE(address_found("2.2.2.2"));
    // What an interface holds stays; a change of an address it holds is no new address.
    EXPECT_TRUE(address_found("10.1.1.1"));
    EXPECT_TRUE(address_found("10.1.3.1"));

    const json lifted = set_limit({{"table", "addresses"}, {"capacity", nullptr}});
    EXPECT_TRUE(lifted.at("capacity").is_null()) << lifted.dump();
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    IPAddrInfo info{};
    ASSERT_EQ(lookup_any(ip("10.9.9.1"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, kGe1);
    ASSERT_EQ(IPAddr_Drvk_AddIP(&third), 0u);
    EXPECT_TRUE(address_found("10.9.8.1"));
    EXPECT_EQ(limit_of("addresses").value("used", 0u), 4u);
    EXPECT_EQ(limit_of("addresses").value("refused", 0u), 2u) << "refusals stay counted";
}

// ---- ARP -------------------------------------------------------------------------------

using Mac = std::array<std::uint8_t, 6>;

// The ARP daemon's 300-byte entry: address, interface, MAC, VLAN, member, ageing, operation.
std::uint32_t daemon_set(const char* addr, std::uint32_t ifindex, const Mac& mac, std::uint32_t* word) {
    std::array<std::uint8_t, ARP_SET_ENTRY_LEN> e{};
    const std::uint32_t a = ip(addr);
    std::memcpy(e.data(), &a, 4);
    ipc::wire::store_be(e.data() + 4, ifindex);
    std::memcpy(e.data() + 8, mac.data(), 6);
    ipc::wire::store_be(e.data() + 20, std::uint32_t{600});
    std::uint8_t reply[4] = {};
    const std::uint32_t status = ARP_SetEntry(e.data(), reply);
    *word = ipc::wire::load_be<std::uint32_t>(reply);
    return status;
}

bool arp_present(const char* addr) {
    ARP_ENTRY_S e{};
    return ARP_GetEntryByIP(ip(addr), &e) == 0;
}

std::uint32_t arp_entries() {
    std::uint8_t conf[ARP_CONF_LEN] = {};
    EXPECT_EQ(ARP_GetConf(ARP_CONF_LEN, conf), 0u);
    return ipc::wire::load_be<std::uint32_t>(conf + 8);
}

TEST_F(Limits, LimitArp) {
    ASSERT_EQ(arp_entries(), 5u);
    const json set = set_limit({{"table", "arp"}, {"capacity", 5}});
    EXPECT_EQ(set.value("capacity", 0u), 5u) << set.dump();
    EXPECT_EQ(set.value("used", 0u), 5u) << set.dump();

    // The ARP daemon answers an entry past the capacity with kNoResources.
    const Mac mac{0x02, 0x00, 0x00, 0x00, 0x00, 0x40};
    std::uint32_t word = 0;
    ASSERT_EQ(daemon_set("10.1.1.40", kGe1, mac, &word), 0u);
    EXPECT_EQ(word, kNoResources);
    EXPECT_FALSE(arp_present("10.1.1.40"));
    // A control request is refused in words.
    const std::string why = refusal({{"op", "neigh.add"},
                                     {"interface", "GigabitEthernet1/0/1"},
                                     {"address", "10.1.1.41"},
                                     {"mac", "02:00:00:00:00:41"}});
    EXPECT_TRUE(has(why, "the ARP table is full (5 entries, capacity 5)")) << why;
    EXPECT_FALSE(arp_present("10.1.1.41"));
    // A change of an entry the table holds is no new entry.
    ok({{"op", "neigh.add"},
        {"interface", "GigabitEthernet1/0/1"},
        {"address", "10.1.1.2"},
        {"mac", "00:11:22:33:44:55"},
        {"state", "stale"}});
    EXPECT_EQ(arp_entries(), 5u);
    const json listed = limit_of("arp");
    EXPECT_EQ(listed.value("refused", 0u), 2u) << listed.dump();
    EXPECT_EQ(listed.value("used", 0u), 5u) << listed.dump();

    set_limit({{"table", "arp"}, {"capacity", nullptr}});
    ASSERT_EQ(daemon_set("10.1.1.40", kGe1, mac, &word), 0u);
    EXPECT_EQ(word, 0u);
    EXPECT_TRUE(arp_present("10.1.1.40"));
    ok({{"op", "neigh.add"}, {"interface", "GigabitEthernet1/0/1"}, {"address", "10.1.1.41"}, {"mac", "02:00:00:00:00:41"}});
    EXPECT_TRUE(arp_present("10.1.1.41"));
    EXPECT_EQ(arp_entries(), 7u);
}

// ---- ND --------------------------------------------------------------------------------

std::uint32_t nd_exact(std::uint32_t ifindex, const char* addr) {
    NdIPv6Addr a{};
    EXPECT_EQ(::inet_pton(AF_INET6, addr, a.aucAddr), 1) << addr;
    NdEntryInfo e{};
    return ND_GetEntryInfo(ND_ENTRY_CMD_EXACT, 0, ifindex, a.aucAddr, &e);
}

NdIfConfigInfo nd_config(std::uint32_t ifindex) {
    NdIfConfigInfo c{};
    EXPECT_EQ(ND_GetIfConfigInfo(ifindex, &c), 0u);
    return c;
}

TEST_F(Limits, LimitNdPerInterface) {
    // Vlan-interface1 holds two ND entries.
    ASSERT_EQ(nd_config(kVlan1).uiWord192, 2u);
    EXPECT_EQ(nd_config(kVlan1).uiWord44, 0u) << "no entry limit";
    const json set = set_limit({{"table", "nd"}, {"interface", "Vlan-interface1"}, {"capacity", 2}});
    ASSERT_EQ(set.value("interfaces", json::array()).size(), 1u) << set.dump();
    EXPECT_EQ(set["interfaces"][0].value("interface", 0u), kVlan1) << set.dump();
    EXPECT_EQ(set["interfaces"][0].value("limit", 0u), 2u) << set.dump();
    EXPECT_EQ(set["interfaces"][0].value("used", 0u), 2u) << set.dump();
    EXPECT_EQ(nd_config(kVlan1).uiWord44, 2u) << "the interface's entry limit";

    const std::string by_module = refusal({{"op", "nd.entry"},
                                           {"interface", "Vlan-interface1"},
                                           {"address", "2001:db8:5::8"},
                                           {"mac", "00:11:22:33:55:08"}});
    EXPECT_TRUE(has(by_module, "the ND table of interface 5 is full (2 entries, limit 2)")) << by_module;
    const std::string by_neigh = refusal({{"op", "neigh.add"},
                                          {"interface", "Vlan-interface1"},
                                          {"address", "2001:db8:5::9"},
                                          {"mac", "00:11:22:33:55:09"}});
    EXPECT_TRUE(has(by_neigh, "the ND table of interface 5 is full (2 entries, limit 2)")) << by_neigh;
    EXPECT_EQ(nd_exact(kVlan1, "2001:db8:5::8"), kFailed);
    EXPECT_EQ(nd_exact(kVlan1, "2001:db8:5::9"), kFailed);
    EXPECT_EQ(nd_config(kVlan1).uiWord192, 2u);
    EXPECT_EQ(limit_of("nd").value("refused", 0u), 2u) << limit_of("nd").dump();
    // Another interface has no limit.
    ok({{"op", "nd.entry"}, {"interface", "Vlan-interface10"}, {"address", "2001:db8:10::8"}, {"mac", "00:11:22:33:55:18"}});
    EXPECT_EQ(nd_exact(kVlan10, "2001:db8:10::8"), 0u);
    // The entries the interface holds stay.
    EXPECT_EQ(nd_exact(kVlan1, "2001:db8:5::2"), 0u);
    EXPECT_EQ(nd_exact(kVlan1, "2001:db8:5::3"), 0u);

    const json lifted = set_limit({{"table", "nd"}, {"interface", "Vlan-interface1"}, {"capacity", nullptr}});
    EXPECT_EQ(lifted.value("interfaces", json::array()).size(), 0u) << lifted.dump();
    EXPECT_EQ(nd_config(kVlan1).uiWord44, 0u);
    ok({{"op", "nd.entry"}, {"interface", "Vlan-interface1"}, {"address", "2001:db8:5::8"}, {"mac", "00:11:22:33:55:08"}});
    ok({{"op", "neigh.add"}, {"interface", "Vlan-interface1"}, {"address", "2001:db8:5::9"}, {"mac", "00:11:22:33:55:09"}});
    EXPECT_EQ(nd_exact(kVlan1, "2001:db8:5::8"), 0u);
    EXPECT_EQ(nd_exact(kVlan1, "2001:db8:5::9"), 0u);
    EXPECT_EQ(nd_config(kVlan1).uiWord192, 4u);
}

// ---- FIB -------------------------------------------------------------------------------

std::uint64_t routes_found(const char* dest, const char* mask) {
    FIB4_SEARCH_KEY_S k{};
    k.uiInstance = 0xFFFFFFFFu;
    k.usFamily = 2;
    k.uiDest = ip(dest);
    k.uiMask = ip(mask);
    std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
    std::uint64_t count = 4;
    EXPECT_EQ(FIB4_SearchInfo(&k, &count, entries), 0u);
    return count;
}

std::uint32_t node_routes4() {
    FIB4_SPEC_DATA_S data{};
    EXPECT_EQ(FIB4_Get_SpecData(&data), 0u);
    std::uint32_t routes = 0;
    std::memcpy(&routes, data.aucData, 4);
    return routes;
}

TEST_F(Limits, LimitFib) {
    const std::uint32_t seq = FIB4_GetRouteChangeSeq();
    // The scenario's six routes: five IPv4 routes and one IPv6 route.
    const json set = set_limit({{"table", "fib"}, {"capacity", 6}});
    EXPECT_EQ(set.value("used", 0u), 6u) << set.dump();
    EXPECT_EQ(set.value("capacity", 0u), 6u) << set.dump();

    const json route = {{"op", "route.add"}, {"prefix", "10.77.0.0/16"}, {"next_hop", "10.1.1.2"},
                        {"interface", "GigabitEthernet1/0/1"}};
    const std::string why = refusal(route);
    EXPECT_TRUE(has(why, "the FIB is full (6 routes, capacity 6)")) << why;
    EXPECT_EQ(routes_found("10.77.0.0", "255.255.0.0"), 0u);
    EXPECT_EQ(FIB4_GetRouteChangeSeq(), seq) << "a refused route is no change";
    EXPECT_EQ(node_routes4(), 4u);
    const json listed = limit_of("fib");
    EXPECT_EQ(listed.value("refused", 0u), 1u) << listed.dump();
    EXPECT_EQ(listed.value("used", 0u), 6u) << listed.dump();
    // A route the table holds may change.
    ok({{"op", "route.add"}, {"prefix", "10.8.0.0/16"}, {"next_hop", "10.1.1.2"}, {"interface", "GigabitEthernet1/0/1"},
        {"mac", "00:11:22:33:44:55"}});
    EXPECT_EQ(routes_found("10.8.0.0", "255.255.0.0"), 1u);

    set_limit({{"table", "fib"}, {"capacity", nullptr}});
    const json added = ok(route);
    EXPECT_EQ(added.value("routes4", 0u), 6u) << added.dump();
    EXPECT_EQ(routes_found("10.77.0.0", "255.255.0.0"), 1u);
    EXPECT_EQ(node_routes4(), 5u);
    EXPECT_TRUE(ok({{"op", "route.del"}, {"prefix", "10.77.0.0/16"}}).value("removed", false));
    EXPECT_EQ(node_routes4(), 4u);
    EXPECT_EQ(limit_of("fib").value("used", 0u), 6u);
}

// ---- Subscribers -----------------------------------------------------------------------

std::vector<std::string> g_seen;

std::uint32_t on_address_event(std::uint32_t event, IPAddrEntry* e, std::uint32_t, std::uint32_t, std::uint32_t,
                               std::uint32_t) {
    g_seen.push_back(std::to_string(event) + " " + std::to_string(e->stKey.uiIfIndex) + " " + dotted(e->stKey.uiAddr));
    return 0;
}

TEST_F(Limits, LimitSubscribers) {
    g_seen.clear();
    // One subscriber in another process.
    Child first({SUBSCRIBER_PATH, "1"});
    std::string line;
    ASSERT_TRUE(first.line(&line)) << sim.log();
    ASSERT_EQ(line, "ready");

    const json set = set_limit({{"table", "subscribers"}, {"port", IPADDR_PORT_EVENTS}, {"capacity", 1}});
    EXPECT_EQ(set.value("used", 0u), 1u) << set.dump();
    EXPECT_EQ(set.value("service", ""), "address events service") << set.dump();

    // The second subscription is turned away.
    const std::int32_t refused = IPAddr_RegisterEvent(0, 0, 0, 0, on_address_event);
    EXPECT_EQ(refused, -1);
    if (refused >= 0) IPAddr_DeregisterEvent(refused);
    const json listed = limit_of("subscribers", IPADDR_PORT_EVENTS);
    EXPECT_EQ(listed.value("refused", 0u), 1u) << listed.dump();
    EXPECT_EQ(listed.value("used", 0u), 1u) << listed.dump();

    set_limit({{"table", "subscribers"}, {"port", IPADDR_PORT_EVENTS}, {"capacity", nullptr}});
    const std::int32_t fd = IPAddr_RegisterEvent(0, 0, 0, 0, on_address_event);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(limit_of("subscribers", IPADDR_PORT_EVENTS).value("used", 0u), 2u);
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    EXPECT_EQ(IPAddr_HandleEvent(fd), 0u);
    EXPECT_EQ(g_seen, (std::vector<std::string>{"1 2 10.9.9.1"}));
    IPAddr_DeregisterEvent(fd);
    // Both subscribers saw the address.
    ASSERT_TRUE(first.line(&line));
    EXPECT_EQ(line.rfind("event 1 2 10.9.9.1 255.255.255.0 1 1 ", 0), 0u) << line;
    ASSERT_TRUE(first.line(&line));
    EXPECT_EQ(line, "done 1");
    EXPECT_EQ(first.wait(), 0);
}

}  // namespace
}  // namespace e2e::limit_tests

namespace e2e::limit_tests {
namespace {

// At the limit, changes of entries held are taken: a burst that only changes them too.
TEST_F(Limits, ABurstOfChangesIsTakenAtTheLimit) {
    ok({{"op", "neigh.burst"}, {"interface", "GigabitEthernet1/0/2"}, {"first", "10.1.2.50"},
        {"mac", "02:00:00:00:50:00"}, {"count", 3}});
    const json set = ok({{"op", "limit.set"}, {"table", "arp"}, {"capacity", 8}});
    ASSERT_EQ(set.value("used", 0u), 8u) << set.dump();
    const json again = control({{"op", "neigh.burst"}, {"interface", "GigabitEthernet1/0/2"}, {"first", "10.1.2.50"},
                                {"mac", "02:00:00:00:60:00"}, {"count", 3}});
    EXPECT_TRUE(again.value("ok", false)) << again.dump();
    EXPECT_EQ(again.value("changed", 0u), 3u) << again.dump();
    const json more = control({{"op", "neigh.burst"}, {"interface", "GigabitEthernet1/0/2"}, {"first", "10.1.2.52"},
                               {"mac", "02:00:00:00:70:00"}, {"count", 2}});
    EXPECT_FALSE(more.value("ok", true)) << "one of them is new: " << more.dump();
}

}  // namespace
}  // namespace e2e::limit_tests
