// The neighbour tables of the device: ARP entries (IPv4) and ND entries (IPv6), one table
// per family, shared by the ARP and ND kernel modules, the adjacency services that publish
// their changes, and the daemons that set entries.
//
// An entry is keyed by (interface index, address); the table's order, which every walk
// follows, is interface index, then address bytes. A second index finds the entries of an
// address on any interface. Each change (add, update, delete) is reported to the
// observers: the adjacency services turn it into events.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ipproto/svc_adj.hpp"

namespace sim {

// Neighbour states, as the ND module numbers them (and the ARP module too).
enum class NeighState : std::uint8_t { kIncomplete = 0, kReachable = 1, kStale = 2, kDelay = 3, kProbe = 4 };

// How an entry was made.
enum class NeighKind : std::uint8_t {
    kDynamic = 1,    // learnt (odd: the ND module's "dynamic" bit)
    kStatic = 2,     // configured
    kOpenFlow = 4,   // installed by an OpenFlow owner through the adjacency service
    kRule = 8,       // installed by a rule owner through the adjacency service
    kSet = 10,       // set through the ARP daemon
};

using NeighAddr = std::array<std::uint8_t, 16>;  // network order; IPv4 in the first 4 bytes

struct Neighbour {
    std::uint8_t family = 2;         // 2 IPv4 (ARP), 10 IPv6 (ND)
    std::uint32_t ifindex = 0;
    NeighAddr addr{};
    std::uint16_t vrf = 0;
    std::array<std::uint8_t, 6> mac{};
    NeighState state = NeighState::kReachable;
    NeighKind kind = NeighKind::kDynamic;
    std::uint16_t vlan = 0;
    std::uint32_t vsi = ipc::proto::adj::kNoVsi;    // VSI the entry was learnt in
    std::uint16_t link = ipc::proto::adj::kNoLink;  // attachment circuit link id within the VSI
    std::uint32_t port = 0;          // member interface of an aggregate that holds it (0 none)
    std::uint16_t node = 0;          // node that owns the interface
    std::uint32_t updated = 0;       // seconds since the device started, at the last change
    std::uint32_t aging = 1200;      // seconds an entry lives without a refresh (0: never ages)
    std::uint32_t incomplete_since = 0;  // for an incomplete entry: when resolution started

    bool operator==(const Neighbour&) const = default;
};

// The entry's address as text ("10.1.1.1", "fe80::1") and a MAC as "00:11:22:33:44:55", for
// logs and control answers.
std::string address_text(const Neighbour& n);
std::string mac_text(const std::array<std::uint8_t, 6>& mac);

// The refusal of a new entry that its table or interface has no room for, in words: "the ARP
// table is full (N entries, capacity C)" or "the ND table of interface I is full (N entries,
// limit L)".
std::string neigh_full_text(const class NeighTable& t, const Neighbour& n);

struct NeighChange {
    enum Kind : std::uint8_t { kAdd = 0, kUpdate = 1, kDelete = 2 } kind;
    Neighbour entry;
};

class NeighTable {
public:
    using Key = std::pair<std::uint32_t, NeighAddr>;  // interface index, address
    using Observer = std::function<void(const NeighChange&)>;

    static Key key_of(const Neighbour& n) { return {n.ifindex, n.addr}; }

    // Adds or replaces an entry; reports kAdd or kUpdate (nothing when nothing changed).
    // False, and counted, when the entry is new and its table or its interface holds as many
    // as its capacity allows (a change of an entry is always taken).
    [[nodiscard]] bool put(const Neighbour& n);
    // Room for `count` more entries of a family on an interface.
    bool room(std::uint8_t family, std::uint32_t ifindex, std::size_t count) const;
    // The most entries of a family's table (limit.set); none: no bound. A capacity below the
    // entries held removes none: new ones are refused until there is room.
    void set_capacity(std::uint8_t family, std::optional<std::size_t> c) noexcept { limit(family).capacity = c; }
    std::optional<std::size_t> capacity(std::uint8_t family) const noexcept { return limit(family).capacity; }
    // The most entries of a family on one interface, by interface (the ND module's entry
    // limit; 0: none).
    void set_interface_capacity(std::uint8_t family, std::function<std::size_t(std::uint32_t ifindex)> c) {
        limit(family).per_interface = std::move(c);
    }
    // While lifted, the interface capacities of a family do not apply.
    void lift_interface_capacity(std::uint8_t family, bool lifted) noexcept { limit(family).lifted = lifted; }
    std::size_t on_interface(std::uint8_t family, std::uint32_t ifindex) const;
    std::size_t interface_capacity(std::uint8_t family, std::uint32_t ifindex) const {
        return limit(family).per_interface ? limit(family).per_interface(ifindex) : 0;
    }
    std::uint64_t refused(std::uint8_t family) const noexcept { return limit(family).refused; }
    // Removes an entry; reports kDelete. False when there was none.
    bool remove(std::uint8_t family, std::uint32_t ifindex, const NeighAddr& addr);
    const Neighbour* find(std::uint8_t family, std::uint32_t ifindex, const NeighAddr& addr) const;
    // The first entry of the address on any interface (lowest interface index).
    const Neighbour* find_addr(std::uint8_t family, const NeighAddr& addr) const;
    // The entry after `after` in table order (the first when none).
    const Neighbour* next(std::uint8_t family, const std::optional<Key>& after) const;
    std::size_t size(std::uint8_t family) const { return table(family).size(); }
    // Visits the entries of a family in table order; the visitor must not change the table.
    template <class F>
    void each(std::uint8_t family, F&& visit) const {
        for (const auto& [k, n] : table(family)) visit(n);
    }

    // Observers are called after the table changed, in the order they were added.
    void add_observer(Observer o) { observers_.push_back(std::move(o)); }
    // While muted no observer is called (loading a scenario or restoring state).
    void mute(bool on) noexcept { muted_ = on; }

private:
    using Map = std::map<Key, Neighbour>;
    struct Limit {
        std::optional<std::size_t> capacity;
        std::function<std::size_t(std::uint32_t)> per_interface;
        bool lifted = false;
        std::uint64_t refused = 0;
        std::map<std::uint32_t, std::size_t> counts;  // entries by interface
    };
    Limit& limit(std::uint8_t family) noexcept { return family == 10 ? limit6_ : limit4_; }
    const Limit& limit(std::uint8_t family) const noexcept { return family == 10 ? limit6_ : limit4_; }
    Map& table(std::uint8_t family) { return family == 10 ? v6_ : v4_; }
    const Map& table(std::uint8_t family) const { return family == 10 ? v6_ : v4_; }
    std::set<std::pair<NeighAddr, std::uint32_t>>& by_addr(std::uint8_t family) {
        return family == 10 ? v6_addr_ : v4_addr_;
    }
    const std::set<std::pair<NeighAddr, std::uint32_t>>& by_addr(std::uint8_t family) const {
        return family == 10 ? v6_addr_ : v4_addr_;
    }
    void report(NeighChange::Kind kind, const Neighbour& n) const;

    Map v4_, v6_;
    std::set<std::pair<NeighAddr, std::uint32_t>> v4_addr_, v6_addr_;
    std::vector<Observer> observers_;
    bool muted_ = false;
    Limit limit4_, limit6_;
};

}  // namespace sim
