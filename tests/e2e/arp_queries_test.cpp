// The ARP module and the ARP daemon of the simulated device through the library's public
// ARP API: entry lookups, the table walk, batches, the configuration block, counters summed
// over nodes, the interface display, packet sending and resolution, entries set through
// the daemon, and the suppression switches.
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/arp.h"
#include "ipproto/wire.hpp"
#include "support/statuses.hpp"

namespace e2e {
namespace {

using nlohmann::json;
using ipc::wire::load_be;

constexpr std::uint32_t kNoEntry = 0x40010005u;
// State and kind codes of the module's entries.
constexpr std::uint8_t kIncomplete = 0, kReachable = 1, kStale = 2;
constexpr std::uint8_t kDynamic = 1, kStatic = 2, kOpenFlow = 4, kSet = 10;

using Mac = std::array<std::uint8_t, 6>;

Mac mac_at(const std::uint8_t* p) {
    Mac m{};
    std::memcpy(m.data(), p, 6);
    return m;
}

// An interface index as key B: the way it travels, big-endian.
std::uint32_t key_b(std::uint32_t ifindex) {
    std::uint32_t v = 0;
    ipc::wire::store_be(&v, ifindex);
    return v;
}

template <class T>
T host_at(const std::uint8_t* p) {
    T v{};
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Polls until the condition holds, at most `limit`.
template <class F>
bool eventually(F cond, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

bool present(const char* addr) {
    ARP_ENTRY_S e{};
    return ARP_GetEntryByIP(ip(addr), &e) == 0;
}

// One display line as the library formats it: the label left-aligned in 25 columns, the
// number right-aligned in 11.
std::string display_line(const std::string& label, unsigned n) {
    const std::string num = std::to_string(n);
    return label + std::string(25 - label.size(), ' ') + std::string(11 - num.size(), ' ') + num + "\r\n";
}

std::string display_text(unsigned in, unsigned requests, unsigned replies, unsigned unknown) {
    return display_line("ARP packet input number:", in) + display_line("  Request packet:", requests) +
           display_line("  Reply packet:", replies) + display_line("  Unknown packet:", unknown);
}

std::string display(std::uint32_t ifindex, std::uint32_t* written = nullptr) {
    char buf[512] = {};
    const std::uint32_t n = ARP_GetIfDisplayInfo(ifindex, sizeof buf, buf);
    if (written != nullptr) *written = n;
    return std::string(buf, n);
}

// The 300-byte entry of the ARP daemon: address, interface, MAC, VLAN, member, ageing,
// operation.
std::array<std::uint8_t, ARP_SET_ENTRY_LEN> daemon_entry(const char* addr, std::uint32_t ifindex, const Mac& mac,
                                                         std::uint16_t vlan, std::uint32_t member,
                                                         std::uint32_t aging, std::uint8_t op = 0) {
    std::array<std::uint8_t, ARP_SET_ENTRY_LEN> e{};
    const std::uint32_t a = ip(addr);
    std::memcpy(e.data(), &a, 4);
    ipc::wire::store_be(e.data() + 4, ifindex);
    std::memcpy(e.data() + 8, mac.data(), 6);
    ipc::wire::store_be(e.data() + 14, vlan);
    ipc::wire::store_be(e.data() + 16, member);
    ipc::wire::store_be(e.data() + 20, aging);
    e[24] = op;
    return e;
}

std::uint32_t set_entry(const std::array<std::uint8_t, ARP_SET_ENTRY_LEN>& e, std::uint32_t* word) {
    std::uint8_t reply[4] = {};
    const std::uint32_t status = ARP_SetEntry(e.data(), reply);
    *word = load_be<std::uint32_t>(reply);
    return status;
}

using ArpQueries = SimTest;

TEST_F(ArpQueries, GetEntryReturnsTheScenarioNeighbourRaw) {
    ARP_ENTRY_S e{};
    ASSERT_EQ(ARP_GetEntry(0, ip("10.1.1.2"), &e), 0u);
    const std::uint8_t* d = e.aucData;
    EXPECT_EQ(host_at<std::uint32_t>(d), ip("10.1.1.2"));
    EXPECT_EQ(load_be<std::uint32_t>(d + 4), kGe1);
    EXPECT_EQ(load_be<std::uint32_t>(d + 8), 0u) << "no member interface";
    EXPECT_EQ(mac_at(d + 16), (Mac{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}));
    EXPECT_EQ(load_be<std::uint16_t>(d + 22), 0u) << "VLAN";
    EXPECT_EQ(load_be<std::uint16_t>(d + 24), 0u) << "VRF";
    EXPECT_EQ(d[26], kReachable);
    EXPECT_EQ(d[27], kDynamic);
    EXPECT_EQ(load_be<std::uint32_t>(d + 28), 1200u) << "the refresh time of a dynamic entry";
    EXPECT_EQ(load_be<std::uint16_t>(d + 32), 1u) << "owning node";

    // Key B names the interface, big-endian; another interface has no such entry.
    ARP_ENTRY_S on_if{};
    ASSERT_EQ(ARP_GetEntry(key_b(kGe1), ip("10.1.1.2"), &on_if), 0u);
    EXPECT_EQ(std::memcmp(on_if.aucData, e.aucData, 12), 0);
    EXPECT_EQ(ARP_GetEntry(key_b(kGeVpn), ip("10.1.1.2"), &on_if), kFailed);
    EXPECT_EQ(ARP_GetEntry(0, ip("10.1.1.99"), &on_if), kFailed);
}

TEST_F(ArpQueries, NextEntryWalksTheScenarioTableInInterfaceOrder) {
    ARP_ENTRY_S e{};
    std::vector<std::pair<std::uint32_t, std::string>> seen;
    std::uint32_t status = ARP_GetFirstEntry(&e);
    while (status == 0 && seen.size() < 100) {
        seen.emplace_back(load_be<std::uint32_t>(e.aucData + 4), dotted(host_at<std::uint32_t>(e.aucData)));
        if (seen.back().second == "10.2.1.3") {
            EXPECT_EQ(mac_at(e.aucData + 16), (Mac{0x00, 0x11, 0x22, 0x33, 0x66, 0x03})) << "the run counts the MAC up";
            EXPECT_EQ(e.aucData[26], kStale);
            EXPECT_EQ(load_be<std::uint16_t>(e.aucData + 32), 2u) << "served by node 2";
        }
        if (seen.back().second == "192.168.1.10") {
            EXPECT_EQ(e.aucData[27], kStatic);
            EXPECT_EQ(load_be<std::uint16_t>(e.aucData + 22), 1u) << "VLAN 1";
            EXPECT_EQ(load_be<std::uint32_t>(e.aucData + 28), 0u) << "a static entry never ages";
        }
        status = ARP_GetNextEntry(&e);
    }
    EXPECT_EQ(status, kNoEntry);
    const std::vector<std::pair<std::uint32_t, std::string>> expected{
        {kGe1, "10.1.1.2"}, {kGeNode2, "10.2.1.2"}, {kGeNode2, "10.2.1.3"}, {kGeNode2, "10.2.1.4"},
        {kVlan1, "192.168.1.10"}};
    EXPECT_EQ(seen, expected);
}

TEST_F(ArpQueries, EntryByAddressIsConvertedInItsOwnLayout) {
    ARP_ENTRY_S e{};
    ASSERT_EQ(ARP_GetEntryByIP(ip("10.2.1.3"), &e), 0u);
    const std::uint8_t* d = e.aucData;
    EXPECT_EQ(host_at<std::uint32_t>(d), ip("10.2.1.3"));
    EXPECT_EQ(host_at<std::uint32_t>(d + 4), kGeNode2);
    EXPECT_EQ(host_at<std::uint32_t>(d + 8), 0u);
    EXPECT_EQ(host_at<std::uint16_t>(d + 12), 0u) << "VLAN";
    EXPECT_EQ(host_at<std::uint16_t>(d + 14), 0u) << "VRF";
    EXPECT_EQ(host_at<std::uint16_t>(d + 16), 2u) << "owning node";
    EXPECT_EQ(mac_at(d + 18), (Mac{0x00, 0x11, 0x22, 0x33, 0x66, 0x03}));
    EXPECT_EQ(host_at<std::uint16_t>(d + 24), kStale);
    EXPECT_EQ(d[26], kDynamic);
    EXPECT_EQ(host_at<std::uint32_t>(d + 32), 1200u);

    ASSERT_EQ(ARP_GetEntryByIP(ip("192.168.1.10"), &e), 0u);
    EXPECT_EQ(host_at<std::uint32_t>(d + 4), kVlan1);
    EXPECT_EQ(host_at<std::uint16_t>(d + 12), 1u) << "VLAN";
    EXPECT_EQ(host_at<std::uint16_t>(d + 24), kReachable);
    EXPECT_EQ(d[26], kStatic);
    EXPECT_EQ(host_at<std::uint32_t>(d + 32), 0u);

    EXPECT_EQ(ARP_GetEntryByIP(ip("10.2.1.5"), &e), kFailed) << "past the end of the run";
    EXPECT_EQ(ARP_GetEntryByIP(0, &e), kFailed);
}

TEST_F(ArpQueries, RefreshTimeIsAskedWhereTheInterfaceIsServed) {
    std::uint32_t t = 0;
    ASSERT_EQ(ARP_GetRefreshTime(kGe1, ip("10.1.1.2"), &t), 0u);
    EXPECT_EQ(t, 1200u);
    t = 7;
    ASSERT_EQ(ARP_GetRefreshTime(kVlan1, ip("192.168.1.10"), &t), 0u);
    EXPECT_EQ(t, 0u) << "a static entry never ages";

    // The interface of board 2: the request goes to node 2, which holds the entry.
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kGeNode2, ip("10.2.1.4"), &e), 0u);
    EXPECT_EQ(host_at<std::uint32_t>(e.aucData), ip("10.2.1.4"));
    EXPECT_EQ(host_at<std::uint32_t>(e.aucData + 4), kGeNode2);
    EXPECT_EQ(host_at<std::uint32_t>(e.aucData + 8), 0u);
    EXPECT_EQ(mac_at(e.aucData + 16), (Mac{0x00, 0x11, 0x22, 0x33, 0x66, 0x04}));
    EXPECT_EQ(host_at<std::uint32_t>(e.aucData + 28), 1200u);

    EXPECT_EQ(ARP_GetRefreshTime(kGe1, ip("10.2.1.4"), &t), kFailed) << "not an entry of that interface";
}

TEST_F(ArpQueries, BatchReturnsWholeRecordsAfterTheKey) {
    constexpr std::size_t kRecord = 24;
    std::vector<std::string> seen;
    std::uint32_t key_a = 0, key_b_host = 0;
    std::uint8_t buf[2 * kRecord + 10];
    for (int round = 0; round < 10; ++round) {
        std::uint32_t len = 0;
        ASSERT_EQ(ARP_GetNextInfoBatch(key_a, key_b_host, sizeof buf, buf, &len), 0u);
        ASSERT_EQ(len % kRecord, 0u) << "whole records only";
        EXPECT_LE(len, 2 * kRecord);
        if (len == 0) break;
        for (std::size_t at = 0; at < len; at += kRecord) {
            const std::uint8_t* r = buf + at;
            seen.push_back(dotted(host_at<std::uint32_t>(r)));
            if (seen.back() == "192.168.1.10") {
                EXPECT_EQ(load_be<std::uint32_t>(r + 4), kVlan1);
                EXPECT_EQ(mac_at(r + 8), (Mac{0x00, 0x11, 0x22, 0x33, 0x66, 0x10}));
                EXPECT_EQ(load_be<std::uint16_t>(r + 14), 1u) << "VLAN";
                EXPECT_EQ(r[18], kReachable);
                EXPECT_EQ(r[19], kStatic);
            }
            key_a = host_at<std::uint32_t>(r);
            key_b_host = load_be<std::uint32_t>(r + 4);
        }
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"10.1.1.2", "10.2.1.2", "10.2.1.3", "10.2.1.4", "192.168.1.10"}));
}

TEST_F(ArpQueries, ConfigurationBlockDescribesTheTable) {
    std::uint8_t conf[ARP_CONF_LEN] = {};
    ASSERT_EQ(ARP_GetConf(ARP_CONF_LEN, conf), 0u);
    EXPECT_EQ(load_be<std::uint32_t>(conf + 0), 1200u) << "ageing time of dynamic entries";
    EXPECT_EQ(load_be<std::uint32_t>(conf + 4), 3000u) << "life of an unanswered entry, ms";
    EXPECT_EQ(load_be<std::uint32_t>(conf + 8), 5u) << "entries";
    EXPECT_EQ(load_be<std::uint32_t>(conf + 12), 4u) << "dynamic";
    EXPECT_EQ(load_be<std::uint32_t>(conf + 16), 1u) << "static";
    EXPECT_EQ(load_be<std::uint32_t>(conf + 20), 0u) << "set through the daemon";
    EXPECT_EQ(load_be<std::uint32_t>(conf + 24), 0u) << "OpenFlow";
    EXPECT_EQ(load_be<std::uint32_t>(conf + 32), 0u) << "incomplete";
    EXPECT_EQ(load_be<std::uint32_t>(conf + 36), 1u) << "the asking node";
    EXPECT_EQ(ARP_GetConf(ARP_CONF_LEN - 1, conf), kFailed);
    EXPECT_EQ(ARP_GetConf(ARP_CONF_LEN + 1, conf), kFailed);
}

TEST_F(ArpQueries, FirstAddressMatchesMacAndVlan) {
    const Mac first{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    const Mac in_vlan{0x00, 0x11, 0x22, 0x33, 0x66, 0x10};
    std::uint32_t addr = 0;
    ASSERT_EQ(ARP_GetFirstIPAddr(0, first.data(), &addr), 0u);
    EXPECT_EQ(dotted(addr), "10.1.1.2");
    ASSERT_EQ(ARP_GetFirstIPAddr(1, in_vlan.data(), &addr), 0u);
    EXPECT_EQ(dotted(addr), "192.168.1.10");
    EXPECT_EQ(ARP_GetFirstIPAddr(0, in_vlan.data(), &addr), kNoEntry) << "the MAC is known in VLAN 1 only";
    EXPECT_EQ(ARP_GetFirstIPAddr(1, first.data(), &addr), kNoEntry);
}

TEST_F(ArpQueries, AttackAndAlarmCountersAreSummedOverTheNodes) {
    ok({{"op", "arp.counters"}, {"node", 1}, {"alarm", 5}, {"attack", {1, 2, 3, 0x100000000ull}}});
    ok({{"op", "arp.counters"}, {"node", 2}, {"alarm", 7}, {"attack", {10, 20, 30, 40}}});
    ok({{"op", "arp.counters"}, {"node", 1}, {"selector", 3}, {"alarm", 100}});
    std::uint64_t alarm = 0;
    ARP_GetAlarmThresholdStat(0, &alarm);
    EXPECT_EQ(alarm, 12u);
    std::uint64_t attack[ARP_ATTACK_COUNTERS] = {};
    ARP_GetArpAttackStat(0, attack);
    EXPECT_EQ(attack[0], 11u);
    EXPECT_EQ(attack[1], 22u);
    EXPECT_EQ(attack[2], 33u);
    EXPECT_EQ(attack[3], 0x100000000ull + 40u);
    alarm = 0;
    ARP_GetAlarmThresholdStat(3, &alarm);
    EXPECT_EQ(alarm, 100u) << "selector 3 is a counter set of its own";
    std::uint64_t none[ARP_ATTACK_COUNTERS] = {};
    ARP_GetArpAttackStat(9, none);
    EXPECT_EQ(none[0] + none[1] + none[2] + none[3], 0u);
}

TEST_F(ArpQueries, InterfaceDisplayShowsThePacketCounters) {
    EXPECT_EQ(display(kGe1), display_text(0, 0, 0, 0));
    ok({{"op", "arp.counters"}, {"node", 1}, {"interface", kGe1}, {"packets", {70000, 3, 4, 69993}}});
    std::uint32_t written = 0;
    EXPECT_EQ(display(kGe1, &written), display_text(70000, 3, 4, 69993));
    EXPECT_EQ(written, 4 * ARP_IF_DISPLAY_LINE_LEN);
    // Counters of another node stay out of a port's display.
    ok({{"op", "arp.counters"}, {"node", 2}, {"interface", kGe1}, {"packets", {9, 9, 0, 0}}});
    EXPECT_EQ(display(kGe1), display_text(70000, 3, 4, 69993));
    EXPECT_EQ(display(kLoop0), "") << "a loopback has no ARP display";
}

TEST_F(ArpQueries, RequestForAScenarioHostMakesItsEntryReachable) {
    ASSERT_FALSE(present("10.1.1.3"));
    ASSERT_EQ(ARP_Request(kGe1, ip("10.1.1.1"), ip("10.1.1.3"), nullptr), 0u);
    ASSERT_TRUE(eventually([] { return present("10.1.1.3"); }));
    ARP_ENTRY_S e{};
    ASSERT_EQ(ARP_GetEntryByIP(ip("10.1.1.3"), &e), 0u);
    EXPECT_EQ(host_at<std::uint32_t>(e.aucData + 4), kGe1);
    EXPECT_EQ(mac_at(e.aucData + 18), (Mac{0x00, 0x11, 0x22, 0x33, 0x66, 0x03})) << "the host's MAC";
    EXPECT_EQ(host_at<std::uint16_t>(e.aucData + 24), kReachable);
    EXPECT_EQ(e.aucData[26], kDynamic);
    // One request out, the host's reply in.
    EXPECT_EQ(display(kGe1), display_text(2, 1, 1, 0));
}

TEST_F(ArpQueries, RequestForAnUnknownAddressLeavesAnIncompleteEntryThatAgesOut) {
    ASSERT_EQ(ARP_Request(kGe1, ip("10.1.1.1"), ip("10.1.1.77"), nullptr), 0u);
    ASSERT_TRUE(eventually([] { return present("10.1.1.77"); }));
    ARP_ENTRY_S e{};
    ASSERT_EQ(ARP_GetEntryByIP(ip("10.1.1.77"), &e), 0u);
    EXPECT_EQ(host_at<std::uint16_t>(e.aucData + 24), kIncomplete);
    EXPECT_EQ(mac_at(e.aucData + 18), Mac{});
    EXPECT_TRUE(eventually([] { return !present("10.1.1.77"); }, std::chrono::milliseconds(8000)))
        << "an unanswered entry ages out";
    EXPECT_EQ(display(kGe1), display_text(1, 1, 0, 0)) << "the request went out, nothing came back";
}

TEST_F(ArpQueries, ProbesVlanRequestsAndSpecifiedPacketsAreSentAndCounted) {
    ASSERT_EQ(ARP_Probe(kGe1, ip("10.1.1.3"), nullptr), 0u);
    ASSERT_TRUE(eventually([] { return present("10.1.1.3"); }));
    ASSERT_EQ(ARP_Reply(kGe1, ip("10.1.1.1"), ip("10.1.1.2"), nullptr), 0u);
    const Mac own{0x00, 0xe0, 0xfc, 0x00, 0x00, 0x02};
    ASSERT_EQ(ARP_RequestWithVlan(kGe1, 10, 20, ip("10.1.1.1"), ip("10.1.1.3"), own.data(), nullptr), 0u);

    ARP_SEND_SPECIFY_S desc{};
    desc.uiIfIndex = kGe1;
    desc.uiWord12 = 1;  // a request
    const std::uint32_t sender = ip("10.1.1.1"), target = ip("10.1.1.3");
    std::memcpy(desc.aucTail + 12, &sender, 4);
    std::memcpy(desc.aucTail + 16, &target, 4);
    ASSERT_EQ(ARP_SendSpecify(&desc), 0u);
    desc.uiWord12 = 7;  // an opcode the module does not know
    ASSERT_EQ(ARP_SendSpecify(&desc), 0u);

    // Requests: probe, VLAN request, specified request (each answered by the host); one
    // reply sent; one unknown packet.
    const std::string want = display_text(2 + 1 + 2 + 2 + 1, 3, 1 + 3, 1);
    EXPECT_TRUE(eventually([&] { return display(kGe1) == want; })) << display(kGe1);
    // A packet for an interface the device does not have fails where the node is asked.
    EXPECT_NE(ARP_Request(999, ip("10.1.1.1"), ip("10.1.1.3"), nullptr), 0u);
}

TEST_F(ArpQueries, DeleteDynamicEntryRemovesOnlyDynamicEntries) {
    ASSERT_EQ(ARP_DeleteDynamicEntry(ip("10.1.1.2"), 0), 0u);
    ASSERT_TRUE(eventually([] { return !present("10.1.1.2"); }));
    // Requests of one thread are handled in order: once the last is seen done, the
    // earlier ones are too.
    ASSERT_EQ(ARP_DeleteDynamicEntry(ip("192.168.1.10"), 0), 0u);      // static: stays
    ASSERT_EQ(ARP_DeleteDynamicEntry(ip("10.2.1.3"), key_b(kGe1)), 0u);  // not on that interface
    ASSERT_EQ(ARP_DeleteDynamicEntry(ip("10.2.1.2"), key_b(kGeNode2)), 0u);
    ASSERT_TRUE(eventually([] { return !present("10.2.1.2"); }));
    EXPECT_TRUE(present("192.168.1.10"));
    EXPECT_TRUE(present("10.2.1.3"));
    // Address 0 on an interface: every dynamic entry there.
    ASSERT_EQ(ARP_DeleteDynamicEntry(0, key_b(kGeNode2)), 0u);
    ASSERT_TRUE(eventually([] { return !present("10.2.1.3") && !present("10.2.1.4"); }));
    EXPECT_TRUE(present("192.168.1.10"));
}

TEST_F(ArpQueries, EntrySetThroughTheDaemonIsFoundAndDeletedAsAuthorized) {
    const Mac mac{0x02, 0x00, 0x00, 0x00, 0x00, 0x40};
    std::uint32_t word = 1;
    ASSERT_EQ(set_entry(daemon_entry("10.1.1.40", kGe1, mac, 30, 0, 600), &word), 0u);
    EXPECT_EQ(word, 0u);
    ARP_ENTRY_S e{};
    ASSERT_EQ(ARP_GetEntryByIP(ip("10.1.1.40"), &e), 0u);
    EXPECT_EQ(host_at<std::uint32_t>(e.aucData + 4), kGe1);
    EXPECT_EQ(host_at<std::uint16_t>(e.aucData + 12), 30u) << "VLAN";
    EXPECT_EQ(mac_at(e.aucData + 18), mac);
    EXPECT_EQ(host_at<std::uint16_t>(e.aucData + 24), kReachable);
    EXPECT_EQ(e.aucData[26], kSet);
    EXPECT_EQ(host_at<std::uint32_t>(e.aucData + 32), 600u);

    const json list = ok({{"op", "neigh.list"}, {"family", 2}, {"interface", kGe1}});
    bool listed = false;
    for (const auto& n : list.at("entries")) {
        if (n.at("address") == "10.1.1.40") {
            listed = true;
            EXPECT_EQ(n.at("kind"), "set");
            EXPECT_EQ(n.at("mac"), "02:00:00:00:00:40");
        }
    }
    EXPECT_TRUE(listed) << list.dump();

    // A dynamic delete leaves it; an authorized delete takes it.
    ASSERT_EQ(ARP_DeleteDynamicEntry(ip("10.1.1.40"), 0), 0u);
    ASSERT_EQ(ARP_DeleteAuthorizedEntry(ip("10.1.1.2"), 0), 0u);  // dynamic: stays
    ASSERT_EQ(ARP_DeleteAuthorizedEntry(ip("10.1.1.40"), key_b(kGe1)), 0u);
    ASSERT_TRUE(eventually([] { return !present("10.1.1.40"); }));
    EXPECT_TRUE(present("10.1.1.2"));

    // Refused: an interface the device does not have, a zero address, removing what is not there.
    ASSERT_EQ(set_entry(daemon_entry("10.1.1.41", 999, mac, 0, 0, 0), &word), 0u);
    EXPECT_EQ(word, kFailed);
    ASSERT_EQ(set_entry(daemon_entry("0.0.0.0", kGe1, mac, 0, 0, 0), &word), 0u);
    EXPECT_EQ(word, kFailed);
    ASSERT_EQ(set_entry(daemon_entry("10.1.1.2", kGe1, mac, 0, 0, 0, 1), &word), 0u);
    EXPECT_EQ(word, kFailed) << "only entries set through the daemon are removed through it";
}

TEST_F(ArpQueries, SuppressionSwitchesKeepWhatWasSet) {
    std::uint32_t state = 9;
    ASSERT_EQ(ARP_GetEviSuppression(7, &state), 0u);
    EXPECT_EQ(state, 0u);
    EXPECT_EQ(ARP_SetEviSuppression(1, 7), 0u);
    ASSERT_EQ(ARP_GetEviSuppression(7, &state), 0u);
    EXPECT_EQ(state, 1u);
    ASSERT_EQ(ARP_GetEviSuppression(8, &state), 0u);
    EXPECT_EQ(state, 0u) << "another instance";
    EXPECT_EQ(ARP_SetEviSuppression(2, 7), 0u) << "anything but 1 switches off";
    ASSERT_EQ(ARP_GetEviSuppression(7, &state), 0u);
    EXPECT_EQ(state, 0u);

    EXPECT_EQ(ARP_SetOverlaySuppression(kGe1, 1), 0u);
    ASSERT_EQ(ARP_GetOverlaySuppression(kGe1, &state), 0u);
    EXPECT_EQ(state, 1u);
    ASSERT_EQ(ARP_GetOverlaySuppression(kGeVpn, &state), 0u);
    EXPECT_EQ(state, 0u);
    EXPECT_EQ(ARP_SetOverlaySuppression(999, 1), kFailed) << "an interface the device does not have";
}

TEST_F(ArpQueries, OpenFlowCountCountsTheEntriesInstalledByOpenFlow) {
    std::uint32_t count = 99;
    ASSERT_EQ(ARP_DisOpenFlowArpCount(&count), 0u);
    EXPECT_EQ(count, 0u);

    std::uint32_t version = 0;
    const int fd = ARP_OpenFlowConnect(&version);
    ASSERT_GE(fd, 0);
    std::vector<std::uint8_t> buf(6 + 2 * sizeof(ARP_OPENFLOW_ENTRY_S));
    for (std::uint8_t i = 0; i < 2; ++i) {
        ARP_OPENFLOW_ENTRY_S e{};
        e.uiField0 = kGe1;
        e.uiAddr = ip(i == 0 ? "10.1.1.120" : "10.1.1.121");
        const std::uint8_t mac[6] = {0x02, 0, 0, 0, 0x02, i};
        std::memcpy(e.aucField12, mac, 6);
        std::memcpy(buf.data() + 6 + i * sizeof e, &e, sizeof e);
    }
    EXPECT_EQ(ARP_RefreshOpenFlowEntry(fd, buf.data(), 2), 0u);
    ARP_OpenFlowVerify(fd);
    ARP_OpenFlowDisconnect(fd);

    ASSERT_EQ(ARP_DisOpenFlowArpCount(&count), 0u);
    EXPECT_EQ(count, 2u);
    ARP_ENTRY_S e{};
    ASSERT_EQ(ARP_GetEntry(key_b(kGe1), ip("10.1.1.121"), &e), 0u);
    EXPECT_EQ(e.aucData[27], kOpenFlow);
    std::uint8_t conf[ARP_CONF_LEN] = {};
    ASSERT_EQ(ARP_GetConf(ARP_CONF_LEN, conf), 0u);
    EXPECT_EQ(load_be<std::uint32_t>(conf + 24), 2u);
}

TEST_F(ArpQueries, NeighbourListShowsBothTables) {
    const json all = ok({{"op", "neigh.list"}});
    bool arp = false, nd = false;
    for (const auto& n : all.at("entries")) {
        if (n.at("address") == "10.1.1.2") {
            arp = true;
            EXPECT_EQ(n.at("family"), 2);
            EXPECT_EQ(n.at("interface"), kGe1);
            EXPECT_EQ(n.at("mac"), "00:11:22:33:44:55");
            EXPECT_EQ(n.at("state"), "reachable");
            EXPECT_EQ(n.at("kind"), "dynamic");
        }
        if (n.at("address") == "fe80::2") {
            nd = true;
            EXPECT_EQ(n.at("family"), 10);
            EXPECT_EQ(n.at("state"), "stale");
        }
    }
    EXPECT_TRUE(arp && nd) << all.dump();
    const json v4 = ok({{"op", "neigh.list"}, {"family", 2}});
    EXPECT_EQ(v4.at("entries").size(), 5u);
    const json on_port = ok({{"op", "neigh.list"}, {"family", 2}, {"interface", "GigabitEthernet1/1/1"}});
    EXPECT_EQ(on_port.at("entries").size(), 3u);
    EXPECT_FALSE(control({{"op", "neigh.list"}, {"family", 3}}).value("ok", true));
}

// A device with an aggregate interface and a third board that is down.
constexpr std::uint32_t kPort1 = 1;      // GigabitEthernet1/0/1, node 1
constexpr std::uint32_t kPort2 = 2;      // GigabitEthernet1/1/1, node 2
constexpr std::uint32_t kAggregate = 3;  // Route-Aggregation1, type 41

class ArpAggregate : public SimTest {
protected:
    std::vector<std::string> args() override {
        return {"--scenario", temp_file("arp_aggregate.yaml", R"(
device:
  master: 1
nodes:
  - {number: 1, chassis: 1, slot: 0, role: master}
  - {number: 2, chassis: 1, slot: 1, role: standby}
  - {number: 3, chassis: 1, slot: 2, state: down}
interfaces:
  - {index: 1, name: GigabitEthernet1/0/1, node: 1, type: ethernet, kind: 4}
  - {index: 2, name: GigabitEthernet1/1/1, node: 2, type: ethernet, kind: 4}
  - {index: 3, name: Route-Aggregation1, node: 1, type: 41, kind: 4}
)")};
    }
};

TEST_F(ArpAggregate, ExtendedEntryOfAnAggregateComesFromItsMember) {
    const Mac mac{0x02, 0x00, 0x00, 0x00, 0x09, 0x02};
    std::uint32_t word = 1;
    ASSERT_EQ(set_entry(daemon_entry("10.9.0.2", kAggregate, mac, 0, kPort2, 900), &word), 0u);
    ASSERT_EQ(word, 0u);
    ASSERT_EQ(set_entry(daemon_entry("10.9.0.3", kAggregate, mac, 0, kPort1, 450), &word), 0u);
    ASSERT_EQ(word, 0u);

    // Member on board 2: asked at the master, then at node 2.
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kAggregate, ip("10.9.0.2"), &e), 0u);
    EXPECT_EQ(host_at<std::uint32_t>(e.aucData + 4), kAggregate);
    EXPECT_EQ(host_at<std::uint32_t>(e.aucData + 8), kPort2) << "the member that holds it";
    EXPECT_EQ(host_at<std::uint32_t>(e.aucData + 28), 900u);
    std::uint32_t t = 0;
    ASSERT_EQ(ARP_GetRefreshTime(kAggregate, ip("10.9.0.3"), &t), 0u);
    EXPECT_EQ(t, 450u) << "member on the local board";

    // A plain port's entry is answered only where the port is served.
    ASSERT_EQ(set_entry(daemon_entry("10.9.1.2", kPort2, mac, 0, 0, 0), &word), 0u);
    ASSERT_EQ(arp_GetEntryExtend(kPort2, ip("10.9.1.2"), &e), 0u);
    EXPECT_EQ(host_at<std::uint32_t>(e.aucData + 4), kPort2);
}

TEST_F(ArpAggregate, CountersOfABoardThatIsDownAreNotAdded) {
    ok({{"op", "arp.counters"}, {"node", 1}, {"alarm", 1}, {"attack", {1, 1, 1, 1}}});
    ok({{"op", "arp.counters"}, {"node", 2}, {"alarm", 2}, {"attack", {2, 0, 0, 2}}});
    ok({{"op", "arp.counters"}, {"node", 3}, {"alarm", 40}, {"attack", {40, 40, 40, 40}}});
    std::uint64_t alarm = 0;
    ARP_GetAlarmThresholdStat(0, &alarm);
    EXPECT_EQ(alarm, 3u);
    std::uint64_t attack[ARP_ATTACK_COUNTERS] = {};
    ARP_GetArpAttackStat(0, attack);
    EXPECT_EQ(attack[0], 3u);
    EXPECT_EQ(attack[1], 1u);
    EXPECT_EQ(attack[2], 1u);
    EXPECT_EQ(attack[3], 3u);

    // The aggregate's display adds the counters of every board that answers.
    ok({{"op", "arp.counters"}, {"node", 1}, {"interface", kAggregate}, {"packets", {2, 1, 1, 0}}});
    ok({{"op", "arp.counters"}, {"node", 2}, {"interface", kAggregate}, {"packets", {5, 2, 2, 1}}});
    ok({{"op", "arp.counters"}, {"node", 3}, {"interface", kAggregate}, {"packets", {50, 50, 0, 0}}});
    EXPECT_EQ(display(kAggregate), display_text(7, 3, 3, 1));
    EXPECT_EQ(display(kPort2), display_text(0, 0, 0, 0)) << "a port is asked at its own board only";
}

}  // namespace
}  // namespace e2e
