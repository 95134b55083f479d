// The FIB module's state: IPv4 and IPv6 routes per VRF, each on every node or on one node.
//
// A route is kept once; a route of node 0 is on every node. Routes are ordered by
// (family, VRF, prefix, prefix length), the order in which a dump delivers them, and a
// dump's cursor is the key of the last route it delivered, so that a table can change
// while it is dumped and the dump holds no copy of it. Each change moves the family's
// route-change sequence number.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <tuple>
#include <vector>

#include "ipproto/kmod_fib.hpp"

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
    std::array<std::uint8_t, 16> prefix{};    // network order
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
    Hops more;                              // the further paths of a multipath route
};

class FibTable {
public:
    // family, VRF, prefix bytes, prefix length, node
    using Key = std::tuple<std::uint8_t, std::uint16_t, std::array<std::uint8_t, 16>, std::uint8_t, std::uint16_t>;

    static Key key_of(const Route& r) { return {r.family, r.vrf, r.prefix, r.prefix_len, r.node}; }

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
    std::size_t size() const noexcept { return routes_.size(); }
    std::size_t count(std::uint8_t family) const noexcept { return family == 10 ? count6_ : count4_; }
    // The route of a key, or null.
    const Route* find(const Key& k) const {
        const auto it = routes_.find(k);
        return it == routes_.end() ? nullptr : &it->second;
    }
    // Visits every route; the visitor may change a route's fields but not its key.
    template <class F>
    void each_mutable(F&& f) {
        for (auto& [k, r] : routes_) f(r);
    }
    std::uint32_t change_seq(std::uint8_t family) const noexcept { return family == 10 ? seq6_ : seq4_; }

    // The first route after `after` (or the first of all) of a family on a node.
    const Route* next(std::uint8_t family, std::uint16_t node, const std::optional<Key>& after) const;
    // Routes of a family with exactly this prefix, in a VRF (or every VRF: kEveryInstance of
    // ipproto/kmod_fib.hpp), on a node.
    // Each VRF's routes of the prefix sit together in table order: one search per VRF, not a
    // walk of the table.
    template <class F>
    void exact(std::uint8_t family, std::uint32_t vrf, const std::array<std::uint8_t, 16>& prefix,
               std::uint8_t len, std::uint16_t node, F&& f) const {
        constexpr std::uint32_t kEvery = ipc::proto::fib::kEveryInstance;
        if (vrf != kEvery && vrf > 0xFFFFu) return;
        std::uint32_t v = vrf == kEvery ? 0 : vrf;
        while (v <= 0xFFFFu) {
            const auto at = static_cast<std::uint16_t>(v);
            for (auto it = routes_.lower_bound(Key{family, at, prefix, len, 0});
                 it != routes_.end() && it->first < Key{family, at, prefix, static_cast<std::uint8_t>(len + 1), 0};
                 ++it) {
                const Route& r = it->second;
                if (r.prefix_len != len || (r.node != 0 && r.node != node)) continue;
                if (!f(r)) return;
            }
            if (vrf != kEvery || at == 0xFFFFu) return;
            // The next VRF that has routes of the family.
            const auto next = routes_.lower_bound(Key{family, static_cast<std::uint16_t>(at + 1), {}, 0, 0});
            if (next == routes_.end() || std::get<0>(next->first) != family) return;
            v = std::get<1>(next->first);
        }
    }

private:
    std::map<Key, Route> routes_;
    // Where the last put landed: routes that arrive in table order (a bulk load) are
    // placed without a search.
    std::map<Key, Route>::iterator hint_ = routes_.end();
    std::uint32_t seq4_ = 0, seq6_ = 0;
    std::optional<std::size_t> capacity_;
    std::uint64_t refused_ = 0;
    std::size_t count4_ = 0, count6_ = 0;
};

}  // namespace sim
