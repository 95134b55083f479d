// ARP and ND event subscriptions against a running ipsimd: batch replays, changes made on
// the device while it runs, bursts, filters, and several subscriber processes at once.
#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/arp.h"
#include "ipclient/nd.h"
#include "ipproto/wire.hpp"

namespace e2e {
namespace {

// What one ARP callback was handed, copied during the call.
struct ArpSeen {
    std::uint32_t type;
    std::array<std::uint8_t, ARP_EVENT_ENTRY_LEN> entry;
    std::uint16_t third;

    template <class T>
    T at(std::size_t off) const {
        T v{};
        std::memcpy(&v, entry.data() + off, sizeof v);
        return v;
    }
    std::uint32_t addr() const { return at<std::uint32_t>(4); }
};

struct NdSeen {
    std::uint32_t type;
    NdEventRecord rec;
};

// An address in network order as the host-order word ARP_AddConcernedIP takes.
std::uint32_t host_order(std::uint32_t network_order) { return ipc::wire::load_be<std::uint32_t>(&network_order); }

std::vector<ArpSeen> g_arp;
std::vector<ArpSeen> g_arp_second;
std::vector<NdSeen> g_nd;

std::uint32_t on_arp(std::uint32_t type, void* entry, std::uint16_t third) {
    ArpSeen s{type, {}, third};
    std::memcpy(s.entry.data(), entry, s.entry.size());
    g_arp.push_back(s);
    return 0;
}

std::uint32_t on_arp_second(std::uint32_t type, void* entry, std::uint16_t third) {
    ArpSeen s{type, {}, third};
    std::memcpy(s.entry.data(), entry, s.entry.size());
    g_arp_second.push_back(s);
    return 0;
}

std::uint32_t on_nd(std::uint32_t type, NdEventRecord* rec) {
    g_nd.push_back({type, *rec});
    return 0;
}

// Processes the subscription's events until `done` holds or `limit` passes.
bool drain(int fd, bool nd, const std::function<bool()>& done,
           std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= until) return false;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0) continue;
        EXPECT_EQ(nd ? ND_ProcEvent(static_cast<std::uint32_t>(fd)) : ARP_ProcEvent(fd), 0u);
    }
    return true;
}

// Gives a subscription time to receive what may still come, then processes it.
void settle(int fd, bool nd) {
    drain(fd, nd, [] { return false; }, std::chrono::milliseconds(200));
}

bool has_type(const std::vector<ArpSeen>& v, std::uint32_t type) {
    for (const auto& s : v) {
        if (s.type == type) return true;
    }
    return false;
}

std::array<std::uint8_t, 16> ip6(const char* text) {
    std::array<std::uint8_t, 16> a{};
    EXPECT_EQ(::inet_pton(AF_INET6, text, a.data()), 1) << text;
    return a;
}

// Waits until the family's adjacency service counts `n` subscribers: a subscription travels
// on its own connection, so a change made on another channel right after ARP_RegEvent or
// ND_RegEvent could otherwise be handled first.
void wait_subscribers(int family, std::size_t n) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (std::chrono::steady_clock::now() < until) {
        const auto r = control({{"op", "adj.tables"}, {"family", family}});
        if (r.value("subscribers", std::size_t{0}) >= n) return;
        ::usleep(5000);
    }
    ADD_FAILURE() << "the adjacency service did not count " << n << " subscribers";
}

class AdjacencyEvents : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        g_arp.clear();
        g_arp_second.clear();
        g_nd.clear();
    }
};

TEST_F(AdjacencyEvents, ArpBatchReplayDeliversTheScenarioEntriesInHostOrder) {
    const int fd = ARP_RegEvent(0, 0, on_arp);
    ASSERT_GE(fd, 0);
    wait_subscribers(4, 1);
    ARP_RequestBatchEvent(fd);
    ASSERT_TRUE(drain(fd, false, [] { return has_type(g_arp, 4); })) << sim.log();
    const ArpSeen* seen = nullptr;
    for (const auto& s : g_arp) {
        if (s.type == 3 && s.addr() == ip("10.1.1.2")) seen = &s;
    }
    ASSERT_NE(seen, nullptr);
    EXPECT_EQ(seen->at<std::uint32_t>(0), kGe1);
    EXPECT_EQ(seen->at<std::uint32_t>(8), 0xFFFFFFFFu);   // no VSI
    EXPECT_EQ(seen->at<std::uint32_t>(12), 0x0000FFFFu);  // no link
    const std::uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(std::memcmp(seen->entry.data() + 20, mac, 6), 0);
    EXPECT_EQ(seen->at<std::uint32_t>(28), 1u);  // reachable
    EXPECT_EQ(seen->at<std::uint32_t>(32), 1u);  // learnt
    EXPECT_EQ(seen->at<std::uint16_t>(46), 1u);  // node of GigabitEthernet1/0/1
    EXPECT_EQ(seen->third, 0u);                  // public VRF
    EXPECT_EQ(g_arp.back().type, 4u);
    ARP_DeregEvent(fd);
}

TEST_F(AdjacencyEvents, ArpChangeOnTheDeviceReachesTheSubscriberWithItsFields) {
    const int fd = ARP_RegEvent(0, 0, on_arp);
    ASSERT_GE(fd, 0);
    wait_subscribers(4, 1);
    ok({{"op", "neigh.add"}, {"interface", kGeVpn}, {"address", "10.1.2.9"}, {"mac", "02:00:00:00:01:09"},
        {"vlan", 10}, {"vsi", 0x01020304}, {"link", 0x0506}});
    ASSERT_TRUE(drain(fd, false, [] { return !g_arp.empty(); })) << sim.log();
    const ArpSeen& s = g_arp.front();
    EXPECT_EQ(s.type, 0u);
    EXPECT_EQ(s.at<std::uint32_t>(0), kGeVpn);
    EXPECT_EQ(s.addr(), ip("10.1.2.9"));
    EXPECT_EQ(s.at<std::uint32_t>(8), 0x01020304u);
    EXPECT_EQ(s.at<std::uint32_t>(12), 0x0506u);
    EXPECT_EQ(s.at<std::uint16_t>(16), 10u);
    EXPECT_EQ(s.at<std::uint16_t>(48), 1u);
    EXPECT_EQ(s.third, 1u);  // the interface's VRF, vpn-a
    ok({{"op", "neigh.del"}, {"interface", kGeVpn}, {"address", "10.1.2.9"}});
    ASSERT_TRUE(drain(fd, false, [] { return g_arp.size() >= 2; }));
    EXPECT_EQ(g_arp[1].type, 2u);
    EXPECT_EQ(g_arp[1].addr(), ip("10.1.2.9"));
    ARP_DeregEvent(fd);
}

TEST_F(AdjacencyEvents, ArpBurstOfTenThousandChangesLosesNone) {
    const int fd = ARP_RegEvent(0, 0, on_arp);
    ASSERT_GE(fd, 0);
    wait_subscribers(4, 1);
    const auto r = ok({{"op", "neigh.burst"}, {"interface", kGe1}, {"first", "10.9.0.1"}, {"mac", "02:00:00:00:00:01"},
                       {"count", 10000}});
    EXPECT_EQ(r.value("changed", 0), 10000);
    ASSERT_TRUE(drain(fd, false, [] { return g_arp.size() >= 10000; }, std::chrono::seconds(20))) << g_arp.size();
    settle(fd, false);
    ASSERT_EQ(g_arp.size(), 10000u);
    std::set<std::uint32_t> addrs;
    for (const auto& s : g_arp) {
        EXPECT_EQ(s.type, 0u);
        addrs.insert(s.addr());
    }
    EXPECT_EQ(addrs.size(), 10000u);
    EXPECT_EQ(addrs.count(ip("10.9.0.1")), 1u);
    EXPECT_EQ(addrs.count(ip("10.9.39.16")), 1u);  // the 10,000th
    ARP_DeregEvent(fd);
}

TEST_F(AdjacencyEvents, ArpConcernedAddressNarrowsTheChangesUntilRemoved) {
    const int fd = ARP_RegEvent(0, 0, on_arp);
    ASSERT_GE(fd, 0);
    wait_subscribers(4, 1);
    EXPECT_EQ(ARP_AddConcernedIP(fd, host_order(ip("10.1.1.50")), 0xFFFFFFFFu), 0u);
    ok({{"op", "neigh.add"}, {"interface", kGe1}, {"address", "10.1.1.50"}, {"mac", "02:00:00:00:00:50"}});
    ok({{"op", "neigh.add"}, {"interface", kGe1}, {"address", "10.1.1.51"}, {"mac", "02:00:00:00:00:51"}});
    ARP_RequestBatchEvent(fd);  // its end marker comes after every change made before it
    ASSERT_TRUE(drain(fd, false, [] { return has_type(g_arp, 4); }));
    std::vector<std::uint32_t> changed;
    for (const auto& s : g_arp) {
        if (s.type == 0) changed.push_back(s.addr());
    }
    EXPECT_EQ(changed, std::vector<std::uint32_t>{ip("10.1.1.50")});
    EXPECT_EQ(ARP_DelConcernedIP(fd, host_order(ip("10.1.1.50")), 0xFFFFFFFFu), 0u);
    g_arp.clear();
    ok({{"op", "neigh.add"}, {"interface", kGe1}, {"address", "10.1.1.52"}, {"mac", "02:00:00:00:00:52"}});
    ASSERT_TRUE(drain(fd, false, [] { return !g_arp.empty(); }));
    EXPECT_EQ(g_arp.front().addr(), ip("10.1.1.52"));
    ARP_DeregEvent(fd);
}

TEST_F(AdjacencyEvents, ArpSubscriptionWordsSelectEventTypesAndInterface) {
    const int deletes_on_ge1 = ARP_RegEvent(1u << 2, kGe1, on_arp);
    const int everything = ARP_RegEvent(0, 0, on_arp_second);
    ASSERT_GE(deletes_on_ge1, 0);
    ASSERT_GE(everything, 0);
    wait_subscribers(4, 2);
    for (const auto* a : {"10.1.1.60", "10.1.1.61"}) {
        ok({{"op", "neigh.add"}, {"interface", kGe1}, {"address", a}, {"mac", "02:00:00:00:00:60"}});
    }
    ok({{"op", "neigh.add"}, {"interface", kGeVpn}, {"address", "10.1.2.60"}, {"mac", "02:00:00:00:00:60"}});
    ok({{"op", "neigh.del"}, {"interface", kGeVpn}, {"address", "10.1.2.60"}});
    ok({{"op", "neigh.del"}, {"interface", kGe1}, {"address", "10.1.1.61"}});
    ASSERT_TRUE(drain(everything, false, [] { return g_arp_second.size() >= 5; }));
    settle(deletes_on_ge1, false);
    ASSERT_EQ(g_arp.size(), 1u);
    EXPECT_EQ(g_arp[0].type, 2u);
    EXPECT_EQ(g_arp[0].addr(), ip("10.1.1.61"));
    ARP_DeregEvent(deletes_on_ge1);
    ARP_DeregEvent(everything);
}

TEST_F(AdjacencyEvents, ArpBatchesByVlanVsiAndAttachmentCircuit) {
    const int fd = ARP_RegEvent(0, 0, on_arp);
    ASSERT_GE(fd, 0);
    wait_subscribers(4, 1);
    ok({{"op", "neigh.add"}, {"interface", kGe1}, {"address", "10.1.1.70"}, {"mac", "02:00:00:00:00:70"}, {"vlan", 20}});
    ok({{"op", "neigh.add"}, {"interface", kGe1}, {"address", "10.1.1.71"}, {"mac", "02:00:00:00:00:71"}, {"vsi", 5},
        {"link", 7}, {"vlan", 30}});
    ok({{"op", "neigh.add"}, {"interface", kGe1}, {"address", "10.1.1.72"}, {"mac", "02:00:00:00:00:72"}, {"vsi", 5},
        {"link", 8}});
    auto replayed = [&](const std::function<void()>& ask) {
        g_arp.clear();
        ask();
        EXPECT_TRUE(drain(fd, false, [] { return has_type(g_arp, 4); }));
        std::set<std::uint32_t> out;
        for (const auto& s : g_arp) {
            if (s.type == 3) out.insert(s.addr());
        }
        return out;
    };
    EXPECT_EQ(replayed([&] { EXPECT_EQ(ARP_RequestBatchByVlan(fd, 0, 20), 0u); }), std::set<std::uint32_t>{ip("10.1.1.70")});
    ARP_BATCH_VSI_REQ_S by_vsi{};
    by_vsi.uiWordA = 5;
    by_vsi.uiWordB = 0xFFFFFFFFu;
    EXPECT_EQ(replayed([&] { EXPECT_EQ(ARP_RequestBatchByVsi(fd, &by_vsi), 0u); }),
              (std::set<std::uint32_t>{ip("10.1.1.71"), ip("10.1.1.72")}));
    ARP_BATCH_REQ_S by_ac{};
    by_ac.uiWordA = 5;
    by_ac.uiWordB = 7;
    by_ac.uiWordD = 0xFFFF;
    EXPECT_EQ(replayed([&] { EXPECT_EQ(ARP_RequestBatchByAc(fd, &by_ac), 0u); }), std::set<std::uint32_t>{ip("10.1.1.71")});
    ARP_DeregEvent(fd);
}

TEST_F(AdjacencyEvents, NdBatchReplayDeliversTheScenarioEntriesInHostOrder) {
    const int fd = ND_RegEvent(0, 0, on_nd);
    ASSERT_GE(fd, 0);
    wait_subscribers(6, 1);
    ND_RequestBatchEvent(fd);
    ASSERT_TRUE(drain(fd, true, [] { return !g_nd.empty() && g_nd.back().type == 4; })) << sim.log();
    const auto want = ip6("fe80::2");
    const NdSeen* seen = nullptr;
    for (const auto& s : g_nd) {
        if (s.type == 3 && std::memcmp(s.rec.aucAddr, want.data(), 16) == 0) seen = &s;
    }
    ASSERT_NE(seen, nullptr);
    EXPECT_EQ(seen->rec.uiField0, kGe1);
    EXPECT_EQ(seen->rec.uiField20, 0xFFFFFFFFu);
    EXPECT_EQ(seen->rec.uiField24, 0x0000FFFFu);
    EXPECT_EQ(seen->rec.usField30, 0u);  // VRF
    const std::uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(std::memcmp(seen->rec.aucField32, mac, 6), 0);
    EXPECT_EQ(seen->rec.uiField40, 2u);  // stale
    EXPECT_EQ(seen->rec.uiField44, 1u);  // learnt
    EXPECT_EQ(seen->rec.usField58, 1u);  // node
    ND_DeregEvent(fd);
}

TEST_F(AdjacencyEvents, NdBurstOfTenThousandChangesLosesNone) {
    const int fd = ND_RegEvent(0, 0, on_nd);
    ASSERT_GE(fd, 0);
    wait_subscribers(6, 1);
    ok({{"op", "neigh.burst"}, {"interface", kGe1}, {"first", "2001:db8:9::1"}, {"mac", "02:00:00:00:00:01"},
        {"count", 10000}});
    ASSERT_TRUE(drain(fd, true, [] { return g_nd.size() >= 10000; }, std::chrono::seconds(20))) << g_nd.size();
    settle(fd, true);
    ASSERT_EQ(g_nd.size(), 10000u);
    std::set<std::array<std::uint8_t, 16>> addrs;
    for (const auto& s : g_nd) {
        EXPECT_EQ(s.type, 0u);
        std::array<std::uint8_t, 16> a{};
        std::memcpy(a.data(), s.rec.aucAddr, 16);
        addrs.insert(a);
    }
    EXPECT_EQ(addrs.size(), 10000u);
    EXPECT_EQ(addrs.count(ip6("2001:db8:9::2710")), 1u);  // the 10,000th
    ND_DeregEvent(fd);
}

TEST_F(AdjacencyEvents, NdBatchByInterfaceAndConcernedAddress) {
    const int fd = ND_RegEvent(0, 0, on_nd);
    ASSERT_GE(fd, 0);
    wait_subscribers(6, 1);
    ok({{"op", "neigh.add"}, {"interface", kGeVpn}, {"address", "2001:db8:2::5"}, {"mac", "02:00:00:00:00:05"}});
    NdBatchKey key{};
    key.uiWord0 = kGeVpn;
    EXPECT_EQ(ND_RequestBatchByIF(fd, &key), 0u);
    ASSERT_TRUE(drain(fd, true, [] { return !g_nd.empty() && g_nd.back().type == 4; }));
    std::vector<std::uint32_t> ifs;
    for (const auto& s : g_nd) {
        if (s.type == 3) ifs.push_back(s.rec.uiField0);
    }
    EXPECT_EQ(ifs, std::vector<std::uint32_t>{kGeVpn});

    g_nd.clear();
    NdIPv6Addr concerned{};
    const auto c = ip6("2001:db8:2::6");
    std::memcpy(&concerned, c.data(), 16);
    EXPECT_EQ(ND_AddConcernedIPv6(fd, 0xFFFFFFFFu, concerned), 0u);
    ok({{"op", "neigh.add"}, {"interface", kGeVpn}, {"address", "2001:db8:2::7"}, {"mac", "02:00:00:00:00:07"}});
    ok({{"op", "neigh.add"}, {"interface", kGeVpn}, {"address", "2001:db8:2::6"}, {"mac", "02:00:00:00:00:06"}});
    ASSERT_TRUE(drain(fd, true, [] { return !g_nd.empty(); }));
    settle(fd, true);
    ASSERT_EQ(g_nd.size(), 1u);
    EXPECT_EQ(std::memcmp(g_nd[0].rec.aucAddr, c.data(), 16), 0);
    ND_DeregEvent(fd);
}

TEST_F(AdjacencyEvents, ArpRequestResolvesAScenarioHostAndTheSubscriberSeesIt) {
    const int fd = ARP_RegEvent(0, 0, on_arp);
    ASSERT_GE(fd, 0);
    wait_subscribers(4, 1);
    EXPECT_EQ(ARP_Request(kGe1, ip("10.1.1.1"), ip("10.1.1.3"), nullptr), 0u);
    ASSERT_TRUE(drain(fd, false, [] { return !g_arp.empty(); })) << sim.log();
    const ArpSeen& s = g_arp.front();
    EXPECT_EQ(s.type, 0u);
    EXPECT_EQ(s.at<std::uint32_t>(0), kGe1);
    EXPECT_EQ(s.addr(), ip("10.1.1.3"));
    const std::uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x66, 0x03};
    EXPECT_EQ(std::memcmp(s.entry.data() + 20, mac, 6), 0);
    EXPECT_EQ(s.at<std::uint32_t>(28), 1u);  // reachable
    EXPECT_EQ(s.at<std::uint32_t>(32), 1u);  // learnt
    ARP_DeregEvent(fd);
}

TEST_F(AdjacencyEvents, ArpRequestForAnUnknownHostIsIncompleteThenAgesOut) {
    const int fd = ARP_RegEvent(0, 0, on_arp);
    ASSERT_GE(fd, 0);
    wait_subscribers(4, 1);
    EXPECT_EQ(ARP_Request(kGe1, ip("10.1.1.1"), ip("10.1.1.99"), nullptr), 0u);
    ASSERT_TRUE(drain(fd, false, [] { return !g_arp.empty(); }));
    EXPECT_EQ(g_arp.front().type, 0u);
    EXPECT_EQ(g_arp.front().addr(), ip("10.1.1.99"));
    EXPECT_EQ(g_arp.front().at<std::uint32_t>(28), 0u);  // incomplete
    ASSERT_TRUE(drain(fd, false, [] { return g_arp.size() >= 2; }, std::chrono::seconds(6)));
    EXPECT_EQ(g_arp[1].type, 2u);
    EXPECT_EQ(g_arp[1].addr(), ip("10.1.1.99"));
    ARP_DeregEvent(fd);
}

TEST_F(AdjacencyEvents, NdSolicitationResolvesAScenarioHostAndTheSubscriberSeesIt) {
    const int fd = ND_RegEvent(0, 0, on_nd);
    ASSERT_GE(fd, 0);
    wait_subscribers(6, 1);
    NdIPv6Addr target{};
    const auto host = ip6("2001:db8:1::3");
    std::memcpy(&target, host.data(), 16);
    EXPECT_EQ(ND_SendNS(kGe1, target), 0u);
    ASSERT_TRUE(drain(fd, true, [] { return !g_nd.empty(); })) << sim.log();
    const NdSeen& s = g_nd.front();
    EXPECT_EQ(s.type, 0u);
    EXPECT_EQ(s.rec.uiField0, kGe1);
    EXPECT_EQ(std::memcmp(s.rec.aucAddr, host.data(), 16), 0);
    const std::uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x77};
    EXPECT_EQ(std::memcmp(s.rec.aucField32, mac, 6), 0);
    EXPECT_EQ(s.rec.uiField40, 1u);  // reachable
    ND_DeregEvent(fd);
}

TEST_F(AdjacencyEvents, TwoSubscriberProcessesBothSeeEveryEvent) {
    Child first({NEIGH_SUBSCRIBER_PATH, "4", "1000"});
    Child second({NEIGH_SUBSCRIBER_PATH, "4", "1000"});
    std::string line;
    ASSERT_TRUE(first.line(&line)) << sim.log();
    ASSERT_EQ(line, "ready");
    ASSERT_TRUE(second.line(&line));
    ASSERT_EQ(line, "ready");
    wait_subscribers(4, 2);
    ok({{"op", "neigh.burst"}, {"interface", kGe1}, {"first", "10.7.0.1"}, {"mac", "02:00:00:00:00:01"}, {"count", 1000}});
    ASSERT_TRUE(first.line(&line, std::chrono::seconds(10)));
    EXPECT_EQ(line, "seen 1000 distinct 1000");
    ASSERT_TRUE(second.line(&line, std::chrono::seconds(10)));
    EXPECT_EQ(line, "seen 1000 distinct 1000");
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
}

}  // namespace
}  // namespace e2e
