// The FIB module's table: routes in sorted chunks with shared tails, checked against an
// ordered map of the same routes through random changes.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <tuple>
#include <random>

#include "modules/fib_table.hpp"
#include "modules/sorted_chunks.hpp"

namespace sim {
namespace {

Route v4(std::uint32_t host_prefix, std::uint8_t len, std::uint16_t vrf = 0, std::uint16_t node = 0) {
    Route r;
    r.family = 2;
    r.vrf = vrf;
    r.node = node;
    r.prefix_len = len;
    r.prefix[0] = static_cast<std::uint8_t>(host_prefix >> 24);
    r.prefix[1] = static_cast<std::uint8_t>(host_prefix >> 16);
    r.prefix[2] = static_cast<std::uint8_t>(host_prefix >> 8);
    r.prefix[3] = static_cast<std::uint8_t>(host_prefix);
    r.ifindex = 3;
    r.via_ifindex = 3;
    r.next_hop = {10, 0, 0, 1};
    r.own_mac = {2, 0, 0, 0, 0, 3};
    return r;
}

Route v6(std::uint8_t first, std::uint8_t len) {
    Route r;
    r.family = 10;
    r.prefix_len = len;
    r.prefix = {0x20, 0x01, 0x0d, 0xb8, first};
    r.ifindex = 4;
    return r;
}

bool same(const Route& a, const Route& b) {
    return FibTable::key_of(a) == FibTable::key_of(b) && a.next_hop == b.next_hop && a.ifindex == b.ifindex &&
           a.label == b.label && a.tunnel == b.tunnel && a.via_ifindex == b.via_ifindex && a.mac == b.mac &&
           a.own_mac == b.own_mac && a.vlan == b.vlan && a.port == b.port && a.active == b.active && a.type == b.type &&
           a.metric == b.metric && a.more == b.more;
}

// Every route of a family on a node, walked as a dump walks them.
std::vector<Route> walk(const FibTable& t, std::uint8_t family, std::uint16_t node) {
    std::vector<Route> out;
    std::optional<FibTable::Key> at;
    FibTable::Position pos;
    while (const std::optional<Route> r = t.next(family, node, at, &pos)) {
        at = FibTable::key_of(*r);
        out.push_back(*r);
    }
    return out;
}

TEST(FibTable, ARouteReadBackIsTheRoutePut) {
    FibTable t;
    Route r = v4(0x0A010000, 16, 7, 0);
    r.label = 100;
    r.tunnel = 5;
    r.via_ifindex = 9;
    r.mac = {0, 1, 2, 3, 4, 5};
    r.vlan = 12;
    r.port = 2;
    r.active = false;
    r.type = FIB_ROUTE_BLACKHOLE;
    r.metric = 1024;
    r.more.push_back(Hop{{10, 0, 0, 2}, 5, {1, 1, 1, 1, 1, 1}, {2, 2, 2, 2, 2, 2}});
    ASSERT_TRUE(t.put(r));
    const std::optional<Route> back = t.find(FibTable::key_of(r));
    ASSERT_TRUE(back.has_value());
    EXPECT_TRUE(same(*back, r));
    Route six = v6(0x10, 64);
    six.next_hop = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    ASSERT_TRUE(t.put(six));
    ASSERT_TRUE(t.find(FibTable::key_of(six)).has_value());
    EXPECT_TRUE(same(*t.find(FibTable::key_of(six)), six));
    EXPECT_EQ(t.count(2), 1u);
    EXPECT_EQ(t.count(10), 1u);
}

TEST(FibTable, RoutesThatShareTheirTailHoldItOnce) {
    FibTable t;
    for (std::uint32_t i = 0; i < 5000; ++i) ASSERT_TRUE(t.put(v4(0x10000000 + (i << 8), 24)));
    EXPECT_EQ(t.tails(), 1u);
    Route other = v4(0x20000000, 8);
    other.own_mac = {2, 0, 0, 0, 0, 4};
    ASSERT_TRUE(t.put(other));
    EXPECT_EQ(t.tails(), 2u);
    // The last route of a tail lets it go; a route that changes tail moves to the new one.
    other.own_mac = {2, 0, 0, 0, 0, 3};
    ASSERT_TRUE(t.put(other));
    EXPECT_EQ(t.tails(), 1u);
    for (std::uint32_t i = 0; i < 5000; ++i) ASSERT_TRUE(t.remove(FibTable::key_of(v4(0x10000000 + (i << 8), 24))));
    EXPECT_EQ(t.tails(), 1u);
    ASSERT_TRUE(t.remove(FibTable::key_of(other)));
    EXPECT_EQ(t.tails(), 0u);
    EXPECT_EQ(t.size(), 0u);
}

TEST(FibTable, ARouteThatAloneHoldsItsTailKeepsItWhenPutAgain) {
    FibTable t;
    Route r = v4(0x0A000000, 8);
    r.label = 77;
    r.more.push_back(Hop{{10, 0, 0, 2}, 5, {1, 2, 3, 4, 5, 6}, {}});
    ASSERT_TRUE(t.put(r));
    ASSERT_TRUE(t.put(r));  // the same tail: held again before the old hold is let go
    r.active = false;
    ASSERT_TRUE(t.put(r));
    EXPECT_EQ(t.tails(), 1u);
    const std::optional<Route> back = t.find(FibTable::key_of(r));
    ASSERT_TRUE(back.has_value());
    EXPECT_TRUE(same(*back, r));
}

TEST(FibTable, ARouteCostsItsRecordAndLittleMore) {
    FibTable t;
    constexpr std::uint32_t kRoutes = 100000;
    for (std::uint32_t i = 0; i < kRoutes; ++i) ASSERT_TRUE(t.put(v4(0x10000000 + (i << 8), 24)));
    // Loaded in order: every chunk full.
    EXPECT_LE(t.record_bytes(), kRoutes * 28 + kRoutes * 28 / 50);
}

TEST(FibTable, RandomChangesKeepTheTableInOrder) {
    FibTable t;
    std::map<FibTable::Key, Route> model;
    std::minstd_rand rng(7);
    for (int step = 0; step < 60000; ++step) {
        const auto pick = static_cast<std::uint32_t>(rng() % 3000);
        Route r = pick % 5 == 0 ? v6(static_cast<std::uint8_t>(pick % 251), static_cast<std::uint8_t>(48 + pick % 3))
                                : v4(0x0A000000 + ((pick % 1000) << 8), static_cast<std::uint8_t>(22 + pick % 3),
                                     static_cast<std::uint16_t>(pick % 4), static_cast<std::uint16_t>(pick % 7 == 0 ? 2 : 0));
        r.ifindex = static_cast<std::uint32_t>(rng() % 4 + 1);
        r.metric = static_cast<std::uint32_t>(rng() % 3);
        // Tails that routes share, and change between.
        r.mac[5] = static_cast<std::uint8_t>(rng() % 5);
        r.label = static_cast<std::uint32_t>(rng() % 3);
        if (rng() % 50 == 0) r.more.push_back(Hop{{10, 0, 0, 9}, 6, {}, {}});
        if (rng() % 3 == 0) {
            EXPECT_EQ(t.remove(FibTable::key_of(r)), model.erase(FibTable::key_of(r)) == 1);
        } else {
            ASSERT_TRUE(t.put(r));
            model.insert_or_assign(FibTable::key_of(r), r);
        }
    }
    ASSERT_EQ(t.size(), model.size());
    // Each distinct tail held once, none left over.
    std::set<std::tuple<std::uint32_t, std::uint8_t, std::size_t, std::uint32_t, std::uint8_t>> tails;
    for (const auto& [k, r] : model) tails.emplace(r.label, r.mac[5], r.more.size(), r.via_ifindex, r.own_mac[5]);
    EXPECT_EQ(t.tails(), tails.size());
    for (const std::uint16_t node : {std::uint16_t{1}, std::uint16_t{2}}) {
        for (const std::uint8_t family : {std::uint8_t{2}, std::uint8_t{10}}) {
            std::vector<Route> expected;
            for (const auto& [k, r] : model) {
                if (r.family == family && (r.node == 0 || r.node == node)) expected.push_back(r);
            }
            const std::vector<Route> got = walk(t, family, node);
            ASSERT_EQ(got.size(), expected.size());
            for (std::size_t i = 0; i < got.size(); ++i) ASSERT_TRUE(same(got[i], expected[i])) << i;
        }
    }
}

TEST(FibTable, AWalkGoesOnAfterTheTableChanged) {
    FibTable t;
    for (std::uint32_t i = 0; i < 1000; ++i) ASSERT_TRUE(t.put(v4(0x10000000 + (i << 8), 24)));
    std::optional<FibTable::Key> at;
    FibTable::Position pos;
    std::vector<std::uint32_t> seen;
    while (const std::optional<Route> r = t.next(2, 1, at, &pos)) {
        at = FibTable::key_of(*r);
        seen.push_back(static_cast<std::uint32_t>(r->prefix[2]) | static_cast<std::uint32_t>(r->prefix[1]) << 8);
        if (seen.size() == 500) {
            // Behind the walk, the route it stands on, and ahead of it.
            ASSERT_TRUE(t.remove(FibTable::key_of(v4(0x10000000 + (10u << 8), 24))));
            ASSERT_TRUE(t.remove(*at));
            ASSERT_TRUE(t.put(v4(0x10000000 + (1500u << 8), 24)));
        }
    }
    // Every route once, the new one last; what went behind the walk changes nothing of it.
    ASSERT_EQ(seen.size(), 1001u);
    for (std::size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], i < 1000 ? i : 1500u) << i;
}

TEST(FibTable, ExactFindsAPrefixInEveryVrf) {
    FibTable t;
    for (std::uint16_t vrf : {std::uint16_t{0}, std::uint16_t{3}, std::uint16_t{900}}) {
        ASSERT_TRUE(t.put(v4(0xC0A80000, 16, vrf)));
        ASSERT_TRUE(t.put(v4(0xC0A80000, 24, vrf)));
        ASSERT_TRUE(t.put(v4(0xC0A90000, 16, vrf)));
    }
    ASSERT_TRUE(t.put(v4(0xC0A80000, 16, 3, 2)));  // one node's own
    std::array<std::uint8_t, 16> prefix{192, 168};
    std::vector<std::pair<std::uint16_t, std::uint16_t>> found;  // VRF, node
    t.exact(2, ipc::proto::fib::kEveryInstance, prefix, 16, 2, [&](const Route& r) {
        found.emplace_back(r.vrf, r.node);
        return true;
    });
    EXPECT_EQ(found, (std::vector<std::pair<std::uint16_t, std::uint16_t>>{{0, 0}, {3, 0}, {3, 2}, {900, 0}}));
    found.clear();
    t.exact(2, 3, prefix, 16, 1, [&](const Route& r) {
        found.emplace_back(r.vrf, r.node);
        return true;
    });
    EXPECT_EQ(found, (std::vector<std::pair<std::uint16_t, std::uint16_t>>{{3, 0}}));
    found.clear();
    t.exact(2, 0x10000, prefix, 16, 1, [&](const Route& r) {
        found.emplace_back(r.vrf, r.node);
        return true;
    });
    EXPECT_TRUE(found.empty());
}

TEST(FibTable, AFullTableRefusesNewRoutesButTakesChanges) {
    FibTable t;
    t.set_capacity(2);
    ASSERT_TRUE(t.put(v4(0x0A000000, 8)));
    ASSERT_TRUE(t.put(v4(0x0B000000, 8)));
    EXPECT_FALSE(t.put(v4(0x0C000000, 8)));
    EXPECT_EQ(t.refused(), 1u);
    Route changed = v4(0x0A000000, 8);
    changed.ifindex = 9;
    EXPECT_TRUE(t.put(changed));
    EXPECT_EQ(t.find(FibTable::key_of(changed))->ifindex, 9u);
    EXPECT_EQ(t.size(), 2u);
}

TEST(FibTable, EachChangeMovesItsFamilysSequenceNumber) {
    FibTable t;
    ASSERT_TRUE(t.put(v4(0x0A000000, 8)));
    ASSERT_TRUE(t.put(v4(0x0A000000, 8)));
    EXPECT_TRUE(t.remove(FibTable::key_of(v4(0x0A000000, 8))));
    EXPECT_FALSE(t.remove(FibTable::key_of(v4(0x0A000000, 8))));
    EXPECT_EQ(t.change_seq(2), 3u);
    EXPECT_EQ(t.change_seq(10), 0u);
}

// The chunks on their own: splits in the middle, appends at the end, erasures to nothing.
struct IntKey {
    static const int& key(const int& v) noexcept { return v; }
};

TEST(SortedChunks, InsertionsAnywhereKeepOrderAndChunksBounded) {
    SortedChunks<int, IntKey, 8> s;
    std::mt19937 rng(3);
    std::map<int, bool> model;
    for (int i = 0; i < 5000; ++i) {
        const int v = static_cast<int>(rng() % 2000);
        if (rng() % 4 == 0) {
            const auto p = s.find(v);
            EXPECT_EQ(!s.at_end(p), model.erase(v) == 1);
            if (!s.at_end(p)) s.erase(p);
        } else {
            EXPECT_EQ(s.insert_or_assign(v), model.emplace(v, true).second);
        }
    }
    std::vector<int> got;
    s.each([&](int v) { got.push_back(v); });
    std::vector<int> expected;
    for (const auto& [v, unused] : model) expected.push_back(v);
    EXPECT_EQ(got, expected);
    EXPECT_EQ(s.size(), expected.size());
    // No chunk grows beyond its eight records (the list of chunks may hold twice its count).
    EXPECT_LE(s.bytes(), s.chunks() * (8 * sizeof(int) + 2 * sizeof(std::vector<int>)));
    for (int v : expected) {
        const auto p = s.upper_bound(v);
        if (!s.at_end(p)) {
            EXPECT_GT(s.at(p), v);
        }
        EXPECT_EQ(s.at(s.lower_bound(v)), v);
    }
    for (int v : expected) s.erase(s.find(v));
    EXPECT_TRUE(s.empty());
    EXPECT_EQ(s.chunks(), 0u);
}

TEST(SortedChunks, InOrderLoadsFillEveryChunk) {
    SortedChunks<int, IntKey, 8> s;
    for (int i = 0; i < 800; ++i) s.insert_or_assign(i);
    EXPECT_EQ(s.chunks(), 100u);
}

}  // namespace
}  // namespace sim
