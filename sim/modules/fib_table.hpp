// The FIB module's state: IPv4 and IPv6 routes per VRF, each on every node or on one node.
//
// A route is kept once; a route of node 0 is on every node. Routes are ordered by
// (family, VRF, prefix, prefix length, node), the order in which a dump delivers them, and
// a dump's cursor is the key of the last route it delivered, so that a table can change
// while it is dumped and the dump holds no copy of it. Each change moves the family's
// route-change sequence number.
//
// A device may hold a full Internet table, so a route is kept small: each family's routes
// are records of fixed size in sorted chunks (28 bytes an IPv4 route, 52 an IPv6 one), and
// what routes share (the dump entry's label, tunnel, MACs, VLAN and port, and the further
// paths of a multipath route) is held once, as a "tail" that records point to. A route
// read from the table is a Route made from its record and tail.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "ipproto/kmod_fib.hpp"
#include "modules/sorted_chunks.hpp"

namespace sim {

// A further path of a multipath route.
struct Hop {
    std::array<std::uint8_t, 16> next_hop{};  // network order; all zero: none
    std::uint32_t ifindex = 0;
    std::array<std::uint8_t, 6> mac{};      // next hop's MAC
    std::array<std::uint8_t, 6> own_mac{};  // outgoing interface's MAC
    bool operator==(const Hop&) const = default;
};

// The further paths of a route: none for almost every route, so a route holds one pointer
// for them (a table of a million routes keeps no empty lists).
class Hops {
public:
    Hops() = default;
    Hops(const Hops& o) : list_(o.list_ ? std::make_unique<std::vector<Hop>>(*o.list_) : nullptr) {}
    Hops& operator=(const Hops& o) {
        if (this != &o) list_ = o.list_ ? std::make_unique<std::vector<Hop>>(*o.list_) : nullptr;
        return *this;
    }
    Hops(Hops&&) noexcept = default;
    Hops& operator=(Hops&&) noexcept = default;

    std::size_t size() const noexcept { return list_ ? list_->size() : 0; }
    bool empty() const noexcept { return size() == 0; }
    const Hop& operator[](std::size_t i) const { return (*list_)[i]; }
    Hop& operator[](std::size_t i) { return (*list_)[i]; }
    const Hop* begin() const noexcept { return list_ ? list_->data() : nullptr; }
    const Hop* end() const noexcept { return list_ ? list_->data() + list_->size() : nullptr; }
    void push_back(const Hop& h) {
        if (!list_) list_ = std::make_unique<std::vector<Hop>>();
        list_->push_back(h);
    }
    void append(const Hops& o) {
        for (const Hop& h : o) push_back(h);
    }
    bool operator==(const Hops& o) const { return std::equal(begin(), end(), o.begin(), o.end()); }

private:
    std::unique_ptr<std::vector<Hop>> list_;
};

struct Route {
    std::uint16_t vrf = 0;
    std::uint8_t family = 2;           // 2 IPv4, 10 IPv6
    std::uint8_t prefix_len = 0;
    std::array<std::uint8_t, 16> prefix{};    // network order; an IPv4 prefix's last 12 bytes zero
    std::array<std::uint8_t, 16> next_hop{};  // network order; all zero: none
    std::uint32_t ifindex = 0;         // outgoing interface, 0 none
    std::uint16_t node = 0;            // 0: every node
    // Carried by a dump entry (ipproto/kmod_fib.hpp, dump_entry); all ones: none.
    std::uint32_t label = ipc::proto::fib::dump_entry::kNone;
    std::uint32_t tunnel = ipc::proto::fib::dump_entry::kNone;  // printed instead of via_ifindex
    std::uint32_t via_ifindex = 0;          // interface printed when there is no tunnel
    std::array<std::uint8_t, 6> mac{};      // next hop's MAC
    std::array<std::uint8_t, 6> own_mac{};  // outgoing interface's MAC
    std::uint16_t vlan = ipc::proto::fib::dump_entry::kNoneHalf;  // none: prints as 0
    std::uint16_t port = ipc::proto::fib::dump_entry::kNoneHalf;
    bool active = true;
    std::uint8_t type = FIB_ROUTE_UNICAST;  // FIB_ROUTE_* of ipclient/fib.h
    // The source's preference among routes of one key, the lowest first (a mirrored
    // namespace's metric). No entry carries it.
    std::uint32_t metric = 0;
    Hops more;                              // the further paths of a multipath route
};

class FibTable {
public:
    // family, VRF, prefix bytes, prefix length, node
    using Key = std::tuple<std::uint8_t, std::uint16_t, std::array<std::uint8_t, 16>, std::uint8_t, std::uint16_t>;

    static Key key_of(const Route& r) { return {r.family, r.vrf, r.prefix, r.prefix_len, r.node}; }

    // Where a walk with next() stands: lets the next call start from there instead of
    // searching, while the table's records have not moved.
    struct Position {
        std::uint64_t layout = 0;
        std::size_t chunk = 0, index = 0;
        std::size_t family = 0;  // the record size of its family's table: 4 or 16
        bool valid = false;
    };

    FibTable() = default;
    FibTable(const FibTable&) = delete;
    FibTable& operator=(const FibTable&) = delete;

    // Adds or replaces a route; false (and counted) when the route is new and the table holds
    // as many as its capacity allows.
    [[nodiscard]] bool put(const Route& r);
    bool remove(const Key& k);
    // The most routes the table holds (limit.set); none: no bound. A capacity below the
    // routes held removes none: new ones are refused until there is room.
    void set_capacity(std::optional<std::size_t> c) noexcept { capacity_ = c; }
    std::optional<std::size_t> capacity() const noexcept { return capacity_; }
    std::uint64_t refused() const noexcept { return refused_; }
    std::size_t size() const noexcept { return v4_.size() + v6_.size(); }
    std::size_t count(std::uint8_t family) const noexcept { return family == 10 ? v6_.size() : v4_.size(); }
    // The route of a key.
    std::optional<Route> find(const Key& k) const;
    // Visits every route, IPv4 first, in table order.
    template <class F>
    void each(F&& f) const {
        v4_.each([&](const Packed4& p) { f(decode(p)); });
        v6_.each([&](const Packed6& p) { f(decode(p)); });
    }
    std::uint32_t change_seq(std::uint8_t family) const noexcept { return family == 10 ? seq6_ : seq4_; }

    // The first route after `after` (or the first of all) of a family on a node. A walk that
    // passes the same Position to each call finds each next route without a search.
    std::optional<Route> next(std::uint8_t family, std::uint16_t node, const std::optional<Key>& after,
                              Position* at = nullptr) const;
    // Routes of a family with exactly this prefix, in a VRF (or every VRF: kEveryInstance of
    // ipproto/kmod_fib.hpp), on a node, until f returns false.
    // Each VRF's routes of the prefix sit together in table order: one search per VRF, not a
    // walk of the table.
    template <class F>
    void exact(std::uint8_t family, std::uint32_t vrf, const std::array<std::uint8_t, 16>& prefix,
               std::uint8_t len, std::uint16_t node, F&& f) const {
        if (family == 10) {
            exact_in(v6_, vrf, prefix, len, node, f);
        } else {
            exact_in(v4_, vrf, prefix, len, node, f);
        }
    }

    // What the routes cost: bytes of records and chunks, and the tails held.
    std::size_t record_bytes() const noexcept { return v4_.bytes() + v6_.bytes(); }
    std::size_t tails() const noexcept { return tails_.size(); }

private:
    // A record's key, in table order within its family.
    template <std::size_t N>
    struct PackedKey {
        std::uint16_t vrf;
        std::array<std::uint8_t, N> prefix;
        std::uint8_t len;
        std::uint16_t node;
        auto operator<=>(const PackedKey&) const = default;
    };
    // A route as the table keeps it.
    template <std::size_t N>
    struct Packed {
        PackedKey<N> key;
        std::array<std::uint8_t, N> next_hop;
        std::uint8_t type;
        bool active;
        std::uint32_t ifindex;
        std::uint32_t metric;
        std::uint32_t tail;  // in tails_
    };
    using Packed4 = Packed<4>;
    using Packed6 = Packed<16>;
    static_assert(sizeof(Packed4) == 28 && sizeof(Packed6) == 52);
    struct KeyOf {
        template <std::size_t N>
        static const PackedKey<N>& key(const Packed<N>& p) noexcept { return p.key; }
    };

    // What routes share, held once with the number of records that point to it.
    struct Tail {
        std::uint32_t label, tunnel, via_ifindex;
        std::array<std::uint8_t, 6> mac, own_mac;
        std::uint16_t vlan, port;
        Hops more;
        bool operator==(const Tail&) const = default;
    };
    class Tails {
    public:
        std::uint32_t hold(Tail t);
        void release(std::uint32_t i);
        const Tail& operator[](std::uint32_t i) const { return slots_[i].tail; }
        std::size_t size() const noexcept { return slots_.size() - free_.size(); }

    private:
        struct Slot {
            Tail tail;
            std::uint32_t refs = 0;
        };
        static std::uint64_t hash(const Tail& t) noexcept;
        std::vector<Slot> slots_;
        std::vector<std::uint32_t> free_;
        std::unordered_multimap<std::uint64_t, std::uint32_t> index_;  // hash of a tail: its slot
    };

    template <std::size_t N>
    static PackedKey<N> packed_key(const Key& k) noexcept {
        PackedKey<N> out{std::get<1>(k), {}, std::get<3>(k), std::get<4>(k)};
        std::copy_n(std::get<2>(k).begin(), N, out.prefix.begin());
        return out;
    }
    template <std::size_t N>
    Route decode(const Packed<N>& p) const {
        const Tail& t = tails_[p.tail];
        Route r;
        r.vrf = p.key.vrf;
        r.family = N == 4 ? 2 : 10;
        r.prefix_len = p.key.len;
        std::copy_n(p.key.prefix.begin(), N, r.prefix.begin());
        std::copy_n(p.next_hop.begin(), N, r.next_hop.begin());
        r.ifindex = p.ifindex;
        r.node = p.key.node;
        r.label = t.label;
        r.tunnel = t.tunnel;
        r.via_ifindex = t.via_ifindex;
        r.mac = t.mac;
        r.own_mac = t.own_mac;
        r.vlan = t.vlan;
        r.port = t.port;
        r.active = p.active;
        r.type = p.type;
        r.metric = p.metric;
        r.more = t.more;
        return r;
    }
    template <std::size_t N>
    bool put_in(SortedChunks<Packed<N>, KeyOf>& table, const Route& r);
    template <std::size_t N>
    std::optional<Route> next_in(const SortedChunks<Packed<N>, KeyOf>& table, std::uint16_t node,
                                 const std::optional<Key>& after, Position* at) const;
    template <std::size_t N, class F>
    void exact_in(const SortedChunks<Packed<N>, KeyOf>& table, std::uint32_t vrf, const std::array<std::uint8_t, 16>& prefix,
                  std::uint8_t len, std::uint16_t node, F& f) const {
        constexpr std::uint32_t kEvery = ipc::proto::fib::kEveryInstance;
        if (vrf != kEvery && vrf > 0xFFFFu) return;
        PackedKey<N> want{0, {}, len, 0};
        std::copy_n(prefix.begin(), N, want.prefix.begin());
        std::uint32_t v = vrf == kEvery ? 0 : vrf;
        while (v <= 0xFFFFu) {
            want.vrf = static_cast<std::uint16_t>(v);
            want.node = 0;
            for (auto p = table.lower_bound(want); !table.at_end(p); p = table.advance(p)) {
                const Packed<N>& rec = table.at(p);
                if (rec.key.vrf != want.vrf || rec.key.prefix != want.prefix || rec.key.len != len) break;
                if (rec.key.node != 0 && rec.key.node != node) continue;
                if (!f(decode(rec))) return;
            }
            if (vrf != kEvery || v == 0xFFFFu) return;
            // The next VRF that has routes of the family.
            const auto p = table.lower_bound(PackedKey<N>{static_cast<std::uint16_t>(v + 1), {}, 0, 0});
            if (table.at_end(p)) return;
            v = table.at(p).key.vrf;
        }
    }

    SortedChunks<Packed4, KeyOf> v4_;
    SortedChunks<Packed6, KeyOf> v6_;
    Tails tails_;
    std::uint32_t seq4_ = 0, seq6_ = 0;
    std::optional<std::size_t> capacity_;
    std::uint64_t refused_ = 0;
};

}  // namespace sim
