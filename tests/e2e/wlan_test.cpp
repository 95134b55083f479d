// WLAN adjacency entries and their events through the library's public API: entries
// refreshed and deleted in the kernel module, events delivered by the WLAN adjacency
// service to the process's callback.
#include <poll.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/adj.h"
#include "ipproto/wire.hpp"
#include "support/statuses.hpp"

namespace e2e {
namespace {

// Wireless clients attach through VLAN interfaces (the library refuses deletes on the
// Ethernet ports, whose kind is 4).
constexpr std::uint32_t kVlan10 = 6;
// What the callback sees of an entry record: the first word (host order), the interface
// index (big-endian) and the 200-byte entry.
constexpr std::size_t kSeenLen = 8 + WADJ4_ENTRY_LEN;

struct Seen {
    std::uint32_t type = 0;
    bool has_entry = false;
    std::array<std::uint8_t, kSeenLen> bytes{};
};

std::vector<Seen> g_seen;

std::uint32_t record_event(std::uint32_t type, void* entry) {
    Seen s;
    s.type = type;
    s.has_entry = entry != nullptr;
    if (entry != nullptr) std::memcpy(s.bytes.data(), entry, kSeenLen);
    g_seen.push_back(s);
    return 0;
}

// A 200-byte entry: a pattern that starts at `seed`, with the client's VLAN at offset 22
// in host order.
std::array<std::uint8_t, WADJ4_ENTRY_LEN> entry_of(std::uint8_t seed, std::uint16_t vlan) {
    std::array<std::uint8_t, WADJ4_ENTRY_LEN> e{};
    for (std::size_t i = 0; i < e.size(); ++i) e[i] = static_cast<std::uint8_t>(seed + i);
    std::memcpy(e.data() + 22, &vlan, sizeof vlan);
    return e;
}

std::string hex_of(const std::uint8_t* p, std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", p[i]);
        s += two;
    }
    return s;
}

class WlanAdjacency : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        g_seen.clear();
    }
    void TearDown() override {
        if (fd_ >= 0) WADJ4_DeregEvent(fd_);
        SimTest::TearDown();
    }

    // Subscribes and waits until the service has taken the subscription.
    void subscribe(std::uint32_t selector) {
        fd_ = WADJ4_RegEvent(selector, record_event);
        ASSERT_GE(fd_, 0);
        ASSERT_TRUE(wait_subscribers(1));
    }

    static bool wait_subscribers(std::size_t n) {
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (std::chrono::steady_clock::now() < until) {
            const auto a = control({{"op", "wlan.list"}});
            if (a.value("ok", false) && a["subscribers"].get<std::size_t>() == n) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    // Processes datagrams as they become readable until `n` events were seen (at most 5 s).
    bool wait_events(std::size_t n) {
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (g_seen.size() < n && std::chrono::steady_clock::now() < until) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) continue;
            if (WADJ4_ProcEvent(fd_) != 0) return false;
        }
        return g_seen.size() >= n;
    }

    bool readable_now() const {
        pollfd p{fd_, POLLIN, 0};
        return ::poll(&p, 1, 0) == 1;
    }

    static nlohmann::json entries() { return control({{"op", "wlan.list"}})["entries"]; }

    // Checks what the callback saw against the entry refreshed.
    static void expect_entry(const Seen& s, std::uint32_t type, std::uint32_t first, std::uint32_t ifindex,
                             const std::array<std::uint8_t, WADJ4_ENTRY_LEN>& e) {
        EXPECT_EQ(s.type, type);
        ASSERT_TRUE(s.has_entry);
        std::uint32_t seen_first = 0;
        std::memcpy(&seen_first, s.bytes.data(), 4);
        EXPECT_EQ(seen_first, first) << "the first word arrives in host order";
        std::uint8_t be_ifindex[4];
        ipc::wire::store_be(be_ifindex, ifindex);
        EXPECT_EQ(0, std::memcmp(s.bytes.data() + 4, be_ifindex, 4)) << "the interface index is big-endian";
        EXPECT_EQ(0, std::memcmp(s.bytes.data() + 8, e.data(), e.size())) << "the entry arrives as refreshed";
    }

    int fd_ = -1;
};

TEST_F(WlanAdjacency, RefreshIsReportedWithItsEntryAndListed) {
    subscribe(0);
    const std::uint32_t client = ip("192.168.1.50");
    const auto e = entry_of(0x30, 100);
    ASSERT_EQ(WADJ4_Refresh(client, kVlan1, e.data()), 0u);
    ASSERT_TRUE(wait_events(1));
    ASSERT_EQ(g_seen.size(), 1u);
    expect_entry(g_seen[0], 0, client, kVlan1, e);

    const auto list = entries();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["node"], 1);
    EXPECT_EQ(list[0]["first"].get<std::uint32_t>(), client);
    EXPECT_EQ(list[0]["ifindex"], kVlan1);
    EXPECT_EQ(list[0]["vlan"], 100);
    EXPECT_EQ(list[0]["entry"], hex_of(e.data(), e.size()));

    // A refresh of the same client replaces the entry and is reported again.
    const auto changed = entry_of(0x90, 100);
    ASSERT_EQ(WADJ4_Refresh(client, kVlan1, changed.data()), 0u);
    ASSERT_TRUE(wait_events(2));
    expect_entry(g_seen[1], 0, client, kVlan1, changed);
    const auto after = entries();
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0]["entry"], hex_of(changed.data(), changed.size()));
}

TEST_F(WlanAdjacency, DeleteReportsTheEntryAndRemovesIt) {
    subscribe(0);
    const std::uint32_t client = ip("192.168.1.51");
    const auto e = entry_of(0x01, 7);
    ASSERT_EQ(WADJ4_Refresh(client, kVlan1, e.data()), 0u);
    ASSERT_EQ(entries().size(), 1u);
    ASSERT_EQ(WADJ4_Delete(client, kVlan1), 0u);
    ASSERT_TRUE(wait_events(2));
    expect_entry(g_seen[0], 0, client, kVlan1, e);
    expect_entry(g_seen[1], 1, client, kVlan1, e);
    EXPECT_TRUE(entries().empty());
    EXPECT_EQ(WADJ4_Delete(client, kVlan1), kFailed) << "the entry is gone";
}

TEST_F(WlanAdjacency, DeleteByInterfaceRemovesTheEntriesOfTheSelectedVlanTogether) {
    const std::uint32_t a = ip("192.168.1.60"), b = ip("192.168.1.61"), c = ip("192.168.1.62"), d = ip("192.168.10.60");
    const auto ea = entry_of(0x10, 10), eb = entry_of(0x20, 10), ec = entry_of(0x30, 20), ed = entry_of(0x40, 10);
    ASSERT_EQ(WADJ4_Refresh(a, kVlan1, ea.data()), 0u);
    ASSERT_EQ(WADJ4_Refresh(b, kVlan1, eb.data()), 0u);
    ASSERT_EQ(WADJ4_Refresh(c, kVlan1, ec.data()), 0u);
    ASSERT_EQ(WADJ4_Refresh(d, kVlan10, ed.data()), 0u);
    subscribe(0);

    ASSERT_EQ(WADJ4_DeleteByIf(kVlan1, 10), 0u);
    pollfd p{fd_, POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    ASSERT_EQ(WADJ4_ProcEvent(fd_), 0u);
    ASSERT_EQ(g_seen.size(), 2u) << "both removed entries travel in one datagram";
    // In table order: by first word, as the host holds it.
    const bool a_first = a < b;
    expect_entry(g_seen[a_first ? 0 : 1], 1, a, kVlan1, ea);
    expect_entry(g_seen[a_first ? 1 : 0], 1, b, kVlan1, eb);

    auto list = entries();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0]["first"].get<std::uint32_t>(), c);
    EXPECT_EQ(list[0]["vlan"], 20);
    EXPECT_EQ(list[1]["first"].get<std::uint32_t>(), d);
    EXPECT_EQ(list[1]["ifindex"], kVlan10);

    // Selector 0: every entry of the interface.
    ASSERT_EQ(WADJ4_DeleteByIf(kVlan1, 0), 0u);
    ASSERT_TRUE(wait_events(3));
    expect_entry(g_seen[2], 1, c, kVlan1, ec);
    list = entries();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["ifindex"], kVlan10);
}

TEST_F(WlanAdjacency, ManyRemovedEntriesAreSplitIntoDatagramsOfAtMost4096Bytes) {
    const std::uint32_t base = 0x0A010100;  // any 32-bit values serve as first words
    for (std::uint32_t i = 0; i < 20; ++i) {
        const auto e = entry_of(static_cast<std::uint8_t>(i), 5);
        ASSERT_EQ(WADJ4_Refresh(base + i, kVlan1, e.data()), 0u);
    }
    subscribe(0);
    ASSERT_EQ(WADJ4_DeleteByIf(kVlan1, 0), 0u);
    pollfd p{fd_, POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    ASSERT_EQ(WADJ4_ProcEvent(fd_), 0u);
    ASSERT_EQ(g_seen.size(), 18u) << "18 records of 216 bytes fill one datagram";
    ASSERT_TRUE(wait_events(20));
    for (std::uint32_t i = 0; i < 20; ++i) {
        expect_entry(g_seen[i], 1, base + i, kVlan1, entry_of(static_cast<std::uint8_t>(i), 5));
    }
    EXPECT_TRUE(entries().empty());
}

TEST_F(WlanAdjacency, TheSelectorFollowsOneInterface) {
    subscribe(kVlan10);
    const auto other = entry_of(0x55, 1), wanted = entry_of(0x66, 2);
    ASSERT_EQ(WADJ4_Refresh(ip("192.168.1.70"), kVlan1, other.data()), 0u);
    ASSERT_EQ(WADJ4_Refresh(ip("192.168.10.70"), kVlan10, wanted.data()), 0u);
    ASSERT_TRUE(wait_events(1));
    ASSERT_EQ(g_seen.size(), 1u);
    expect_entry(g_seen[0], 0, ip("192.168.10.70"), kVlan10, wanted);
    EXPECT_FALSE(readable_now()) << "the entry of the other interface is not reported";
    EXPECT_EQ(entries().size(), 2u);
}

TEST_F(WlanAdjacency, ClearingTheTableSendsTheEntrylessEvent) {
    subscribe(0);
    const auto e = entry_of(0x11, 3);
    ASSERT_EQ(WADJ4_Refresh(ip("192.168.1.80"), kVlan1, e.data()), 0u);
    ASSERT_EQ(WADJ4_Refresh(ip("192.168.1.81"), kVlan1, e.data()), 0u);
    const auto cleared = control({{"op", "wlan.clear"}});
    ASSERT_TRUE(cleared.value("ok", false)) << cleared.dump();
    EXPECT_EQ(cleared["removed"], 2);
    ASSERT_TRUE(wait_events(3));
    EXPECT_EQ(g_seen[2].type, 2u);
    EXPECT_FALSE(g_seen[2].has_entry);
    EXPECT_TRUE(entries().empty());
}

TEST_F(WlanAdjacency, RefreshNeedsAnInterfaceOfTheDevice) {
    const auto e = entry_of(0x22, 1);
    EXPECT_EQ(WADJ4_Refresh(ip("192.168.1.90"), 0, e.data()), kFailed);
    EXPECT_EQ(WADJ4_Refresh(ip("192.168.1.90"), 999, e.data()), kFailed);
    EXPECT_TRUE(entries().empty());
}

TEST_F(WlanAdjacency, DeregisteringEndsTheSubscription) {
    subscribe(0);
    WADJ4_DeregEvent(fd_);
    fd_ = -1;
    EXPECT_EQ(g_pfWADJ4EventProc, nullptr);
    EXPECT_TRUE(wait_subscribers(0));
}

}  // namespace
}  // namespace e2e
