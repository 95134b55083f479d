// The adjacency services' OpenFlow, rule and suppression tables against a running ipsimd:
// the refresh protocol (smooth start, refreshes, smooth end), single refreshes and deletes,
// and the queries answered from the tables.
#include <arpa/inet.h>

#include <array>
#include <chrono>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/arp.h"
#include "ipclient/nd.h"

namespace e2e {
namespace {

nlohmann::json tables(int family) {
    auto r = control({{"op", "adj.tables"}, {"family", family}});
    EXPECT_TRUE(r.value("ok", false)) << r.dump();
    return r;
}

// Waits until the condition on the family's tables holds (the service applies the messages
// of a connection in order, but the control channel is another connection).
bool tables_reach(int family, const std::function<bool(const nlohmann::json&)>& cond) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    for (;;) {
        if (cond(tables(family))) return true;
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::uint8_t hex_byte(const std::string& hex, std::size_t at) {
    return static_cast<std::uint8_t>(std::stoul(hex.substr(at * 2, 2), nullptr, 16));
}

// The IPv4 addresses (entry bytes 4-7, or 0-3 for rules) of a table's entries.
std::set<std::uint32_t> addrs_of(const nlohmann::json& table, std::size_t at) {
    std::set<std::uint32_t> out;
    for (const auto& e : table) {
        const auto hex = e.at("entry").get<std::string>();
        std::uint8_t b[4];
        for (std::size_t i = 0; i < 4; ++i) b[i] = hex_byte(hex, at + i);
        std::uint32_t v = 0;
        std::memcpy(&v, b, 4);
        out.insert(v);
    }
    return out;
}

// A buffer of n OpenFlow entries with room for the header, entry i for 10.1.1.(100+i).
std::vector<std::uint8_t> openflow_buffer(const std::vector<int>& hosts) {
    std::vector<std::uint8_t> buf(6 + hosts.size() * sizeof(ARP_OPENFLOW_ENTRY_S));
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        ARP_OPENFLOW_ENTRY_S e{};
        e.uiField0 = kGe1;
        e.uiAddr = ip(("10.1.1." + std::to_string(100 + hosts[i])).c_str());
        e.uiField8 = 0;
        const std::uint8_t mac[6] = {0x02, 0, 0, 0, 0x01, static_cast<std::uint8_t>(hosts[i])};
        std::memcpy(e.aucField12, mac, 6);
        e.usField18 = 40;
        e.uiField24 = 300;
        e.uiField36 = 0xC0C0A000u + static_cast<std::uint32_t>(hosts[i]);
        std::memcpy(buf.data() + 6 + i * sizeof e, &e, sizeof e);
    }
    return buf;
}

std::set<std::uint32_t> hosts_set(const std::vector<int>& hosts) {
    std::set<std::uint32_t> out;
    for (int h : hosts) out.insert(ip(("10.1.1." + std::to_string(100 + h)).c_str()));
    return out;
}

using AdjacencyTables = SimTest;

TEST_F(AdjacencyTables, ArpOpenFlowSmoothResendLeavesExactlyTheRefreshedEntries) {
    std::uint32_t version = 0;
    const int fd = ARP_OpenFlowConnect(&version);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(version, 6u);
    auto five = openflow_buffer({1, 2, 3, 4, 5});
    EXPECT_EQ(ARP_RefreshOpenFlowEntry(fd, five.data(), 5), 0u);
    EXPECT_EQ(addrs_of(tables(4)["openflow"], 4), hosts_set({1, 2, 3, 4, 5}));
    // The entry's words arrived big-endian: the cookie of host 1 at bytes 36-39.
    const auto first = tables(4)["openflow"][0]["entry"].get<std::string>();
    EXPECT_EQ(first.substr(72, 8), "c0c0a001");
    EXPECT_EQ(first.substr(36, 4), "0028");  // VLAN 40

    ASSERT_EQ(ARP_OpenFlowSmoothStart(fd), 0u);
    auto three = openflow_buffer({1, 3, 5});
    EXPECT_EQ(ARP_RefreshOpenFlowEntry(fd, three.data(), 3), 0u);
    ASSERT_EQ(ARP_OpenFlowSmoothEnd(fd), 0u);
    ARP_OpenFlowVerify(fd);  // returns once the service has applied everything before it
    EXPECT_EQ(addrs_of(tables(4)["openflow"], 4), hosts_set({1, 3, 5}));

    std::uint32_t count = 0;
    EXPECT_EQ(ARP_DisOpenFlowArpCount(&count), 0u);
    EXPECT_EQ(count, 3u);

    auto one = openflow_buffer({3});
    EXPECT_EQ(ARP_DeleteOpenFlowEntry(fd, one.data(), 1), 0u);
    ARP_OpenFlowVerify(fd);
    EXPECT_EQ(addrs_of(tables(4)["openflow"], 4), hosts_set({1, 5}));
    ARP_OpenFlowDisconnect(fd);
}

TEST_F(AdjacencyTables, ArpOpenFlowEntryIsANeighbourOfTheArpTable) {
    std::uint32_t version = 0;
    const int fd = ARP_OpenFlowConnect(&version);
    ASSERT_GE(fd, 0);
    auto one = openflow_buffer({9});
    EXPECT_EQ(ARP_RefreshOpenFlowEntry(fd, one.data(), 1), 0u);
    ARP_OpenFlowVerify(fd);
    ARP_ENTRY_S entry{};
    ASSERT_EQ(ARP_GetEntryByIP(ip("10.1.1.109"), &entry), 0u);
    ARP_OpenFlowDisconnect(fd);
}

ARP_RULE_S arp_rule(int host, std::uint8_t cls) {
    ARP_RULE_S r{};
    r.uiAddr = ip(("10.1.1." + std::to_string(host)).c_str());
    r.uiIfIndex = kGe1;
    r.ucKind = 1;
    r.ucClass = cls;
    return r;
}

// An owner's full resend of its rules of one class: smooth start, the rules, smooth end.
void resend_rules(int fd, std::uint8_t cls, std::uint16_t owner, const std::vector<int>& hosts) {
    EXPECT_EQ(ARP_RuleSmoothStart(fd, cls, owner), 0u);
    for (int h : hosts) {
        const ARP_RULE_S r = arp_rule(h, cls);
        EXPECT_EQ(ARP_RefreshRule(fd, &r), 0u);
    }
    EXPECT_EQ(ARP_RuleSmoothEnd(fd, cls, owner), 0u);
    ARP_OpenFlowVerify(fd);  // the service has applied everything sent on fd before it
}

TEST_F(AdjacencyTables, ArpRulesSmoothResendDropsOnlyTheStaleRulesOfItsOwnerAndClass) {
    const int fd = ARP_RuleConnect();
    const int other = ARP_RuleConnect();
    ASSERT_GE(fd, 0);
    ASSERT_GE(other, 0);
    resend_rules(fd, 1, 7, {1, 2, 3, 4, 5});
    const ARP_RULE_S steady = arp_rule(9, 2);  // a single refresh after the resend: owner 7's
    EXPECT_EQ(ARP_RefreshRule(fd, &steady), 0u);
    resend_rules(other, 1, 9, {20});            // another owner, the same class
    ARP_OpenFlowVerify(fd);
    EXPECT_EQ(tables(4)["rules"].size(), 7u);

    resend_rules(fd, 1, 7, {2, 4, 5});
    const std::set<std::uint32_t> want{ip("10.1.1.2"), ip("10.1.1.4"), ip("10.1.1.5"), ip("10.1.1.9"), ip("10.1.1.20")};
    EXPECT_EQ(addrs_of(tables(4)["rules"], 0), want);

    EXPECT_EQ(ARP_DeleteRule(fd, kGe1, ip("10.1.1.9"), 2), 0u);
    ARP_OpenFlowVerify(fd);
    EXPECT_EQ(tables(4)["rules"].size(), 4u);
    ARP_RuleDisconnect(fd);
    ARP_RuleDisconnect(other);
}

TEST_F(AdjacencyTables, ArpVsiAndVlanSuppressionEntriesAndTheVlanQuery) {
    const int fd = ARP_RuleConnect();
    ASSERT_GE(fd, 0);
    ARP_VSI_SUP_ENTRY_S v{};
    v.uiFirst = 5;
    v.uiSecond = ip("10.1.1.20");
    v.ucClass = 3;
    EXPECT_EQ(ARP_RefreshVsiSupEntry(fd, &v), 0u);
    v.uiSecond = ip("10.1.1.21");
    EXPECT_EQ(ARP_RefreshVsiSupEntry(fd, &v), 0u);
    EXPECT_EQ(ARP_DeleteVsiSupEntry(fd, 5, ip("10.1.1.20"), 3), 0u);

    ARP_VLAN_SUP_ENTRY_S l{};
    l.uiFirst = ip("10.1.1.30");
    l.usVlan = 30;
    EXPECT_EQ(ARP_VlanSupRefreshEntry(fd, &l), 0u);
    ARP_OpenFlowVerify(fd);
    const auto t = tables(4);
    ASSERT_EQ(t["vsi-suppression"].size(), 1u);
    // The VSI index travels big-endian, the address as given.
    EXPECT_EQ(t["vsi-suppression"][0]["entry"].get<std::string>().substr(0, 24), "00000005" "00000000" "0a010115");
    std::uint32_t state = 7;
    EXPECT_EQ(ARP_GetVlanSuppression(30, &state), 0u);
    EXPECT_EQ(state, 1u);
    EXPECT_EQ(ARP_GetVlanSuppression(31, &state), 0u);
    EXPECT_EQ(state, 0u);
    EXPECT_EQ(ARP_VlanSupDeleteEntry(fd, ip("10.1.1.30"), 30), 0u);
    ARP_OpenFlowVerify(fd);
    EXPECT_EQ(ARP_GetVlanSuppression(30, &state), 0u);
    EXPECT_EQ(state, 0u);
    ARP_RuleDisconnect(fd);
}

TEST_F(AdjacencyTables, ArpRoamingDetectionReportsAreCounted) {
    const int fd = ARP_RuleConnect();
    ASSERT_GE(fd, 0);
    const std::uint8_t records[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    EXPECT_EQ(ARP_RoamingDetection(fd, records, 16, 2), 0u);
    ASSERT_TRUE(tables_reach(4, [](const nlohmann::json& t) {
        return t.value("roaming_reports", 0) == 1 && t.value("roaming_records", 0) == 2;
    }));
    ARP_RuleDisconnect(fd);
}

std::vector<std::uint8_t> nd_openflow_buffer(const std::vector<int>& hosts) {
    std::vector<std::uint8_t> buf(6 + hosts.size() * sizeof(NdOpenFlowEntry));
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        NdOpenFlowEntry e{};
        e.uiField0 = kGe1;
        const std::string a = "2001:db8:1::" + std::to_string(100 + hosts[i]);
        EXPECT_EQ(::inet_pton(AF_INET6, a.c_str(), e.aucAddr), 1);
        e.usField30 = 50;
        std::memcpy(buf.data() + 6 + i * sizeof e, &e, sizeof e);
    }
    return buf;
}

std::set<std::string> nd_openflow_addrs() {
    std::set<std::string> out;
    const auto t = tables(6);
    for (const auto& e : t["openflow"]) {
        const auto hex = e.at("entry").get<std::string>();
        std::uint8_t a[16];
        for (std::size_t i = 0; i < 16; ++i) a[i] = hex_byte(hex, 4 + i);
        char text[INET6_ADDRSTRLEN];
        ::inet_ntop(AF_INET6, a, text, sizeof text);
        out.insert(text);
    }
    return out;
}

TEST_F(AdjacencyTables, NdOpenFlowSmoothResendLeavesExactlyTheRefreshedEntries) {
    std::uint32_t version = 0;
    const int fd = ND_OpenFlowConnect(&version);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(version, 6u);
    auto five = nd_openflow_buffer({1, 2, 3, 4, 5});
    EXPECT_EQ(ND_RefreshOpenFlowEntry(fd, five.data(), 5), 0u);
    EXPECT_EQ(nd_openflow_addrs().size(), 5u);
    EXPECT_EQ(ND_OpenFlowSmoothStart(fd), 0u);
    auto three = nd_openflow_buffer({2, 3, 4});
    EXPECT_EQ(ND_RefreshOpenFlowEntry(fd, three.data(), 3), 0u);
    EXPECT_EQ(ND_OpenFlowSmoothEnd(fd), 0u);
    EXPECT_EQ(nd_openflow_addrs(), (std::set<std::string>{"2001:db8:1::102", "2001:db8:1::103", "2001:db8:1::104"}));
    ND_OpenFlowDisconnect(fd);
}

TEST_F(AdjacencyTables, NdRulesAndVsiSuppressionFollowTheirSmoothMessages) {
    const int fd = ND_RuleConnect();
    ASSERT_GE(fd, 0);
    auto rule = [](int host, std::uint8_t cls) {
        NdRuleInfo r{};
        const std::string a = "2001:db8:1::" + std::to_string(host);
        EXPECT_EQ(::inet_pton(AF_INET6, a.c_str(), r.aucAddr), 1);
        r.uiIfIndex = kGe1;
        r.ucKind = 2;
        r.ucClass = cls;
        return r;
    };
    for (int h = 1; h <= 5; ++h) {
        const NdRuleInfo r = rule(h, 4);
        EXPECT_EQ(ND_RefreshRule(fd, &r), 0u);
    }
    ASSERT_TRUE(tables_reach(6, [](const nlohmann::json& t) { return t["rules"].size() == 5; }));
    // Rules refreshed before any resend was announced belong to owner 0.
    EXPECT_EQ(ND_RuleSmoothStart(fd, 4, 0), 0u);
    for (int h : {1, 2, 3}) {
        const NdRuleInfo r = rule(h, 4);
        EXPECT_EQ(ND_RefreshRule(fd, &r), 0u);
    }
    EXPECT_EQ(ND_RuleSmoothEnd(fd, 4, 0), 0u);
    EXPECT_TRUE(tables_reach(6, [](const nlohmann::json& t) { return t["rules"].size() == 3; }));

    NdVsiSupInfo v{};
    v.uiVsiIndex = 8;
    EXPECT_EQ(::inet_pton(AF_INET6, "2001:db8:1::40", v.aucAddr), 1);
    v.ucClass = 2;
    EXPECT_EQ(ND_RefreshVsiSupEntry(fd, &v), 0u);
    EXPECT_TRUE(tables_reach(6, [](const nlohmann::json& t) { return t["vsi-suppression"].size() == 1; }));
    NdIPv6Addr a{};
    std::memcpy(&a, v.aucAddr, 16);
    EXPECT_EQ(ND_DeleteVsiSupEntry(fd, 8, &a, 2), 0u);
    EXPECT_TRUE(tables_reach(6, [](const nlohmann::json& t) { return t["vsi-suppression"].empty(); }));
    ND_RuleDisconnect(fd);
}

}  // namespace
}  // namespace e2e
