// The address module's state: the interface addresses of the device, in host order, with
// the orders its walks use, the global epoch, and the per-interface settings that the
// address configuration service and the module's set operations change.
//
// Every address lives in one table for the whole device (each node's module holds the same
// table). Addresses are unique per (interface, address). Orders:
//  - interface order: interface index, then the main address before sub addresses
//    (flag kFlagSub), then IPv4 address;
//  - IP order: IPv4 address, then interface index.
// A change moves the global epoch and is reported to the observer (events, persistence).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <vector>

#include "ipclient/ipaddr.h"
#include "ipclient/kernel.h"
#include "ipclient/status.h"

namespace sim {

// Address flag bits kept by the module (uiFlag).
inline constexpr std::uint32_t kFlagSub = 0x1;     // a sub (secondary) address
// Statuses of the address module.
inline constexpr std::uint32_t kAddrOk = 0;
inline constexpr std::uint32_t kAddrFailure = IPSTATUS_FAILED;   // no such entry, bad request
inline constexpr std::uint32_t kAddrConflict = IPSTATUS_ADDR_CONFLICT;  // conflicts with an address of another interface
inline constexpr std::uint32_t kAddrLastBatch = IPADDR_LAST_BATCH; // the batch holds the last entries

inline constexpr std::uint16_t kAnyVrf = 0xFFFF;
inline constexpr std::uint32_t kAnyIf = IPADDR_ANY_IFINDEX;

// Per-interface settings, kept with the addresses.
struct IfSettings {
    std::uint32_t cfg_methods = 0;   // methods switched on for the interface (DHCP, BOOTP, ...)
    std::uint32_t drv_method = 0;    // set by the interface's node driver
    std::uint32_t net_proto = 0;     // network protocol bits
    std::uint16_t mac_type = 0;
    std::uint32_t unnumbered = 0;    // interface whose address is borrowed, 0 none
    std::uint16_t nego = 0;
    std::uint8_t cellular = 0;
    std::uint8_t autocfg = 0;
    std::uint16_t bpa_in = 0, bpa_out = 0;
    std::uint32_t port_attack = 0;
    std::vector<std::pair<std::uint32_t, std::uint16_t>> contexts;  // context addresses
    bool operator==(const IfSettings&) const = default;
};

struct AddrChange {
    enum Kind : std::uint32_t { kAdd = 1, kDelete = 2, kModify = 3 } kind;
    IPAddrInfo info;
    // What the table held for the key before the change (a modify's old record, a
    // delete's removed one): what putting the change back restores.
    std::optional<IPAddrInfo> before;
    // The global epoch right after the change (events carry it, also when sent later).
    std::uint32_t epoch = 0;
};

class AddrTable {
public:
    using Observer = std::function<void(const AddrChange&)>;
    using SettingsObserver = std::function<void(std::uint32_t ifindex, const IfSettings&)>;

    void set_observer(Observer o) { observer_ = std::move(o); }
    void set_settings_observer(SettingsObserver o) { settings_observer_ = std::move(o); }

    // The vrf of an interface's addresses when the caller does not name one.
    std::function<std::uint16_t(std::uint32_t ifindex)> interface_vrf = [](std::uint32_t) { return std::uint16_t{0}; };

    std::size_t size() const noexcept { return by_key_.size(); }
    std::uint32_t epoch() const noexcept { return epoch_; }
    void bump_epoch() noexcept { ++epoch_; }

    // Adds or replaces the address of (interface, address); no conflict check.
    void put(const IPAddrInfo& info, bool notify = true);
    // Removes the address of (interface, address); false when absent.
    bool remove(std::uint32_t ifindex, std::uint32_t addr, bool notify = true);
    const IPAddrInfo* find(std::uint32_t ifindex, std::uint32_t addr) const;

    // The address of another interface in the same VRF whose network overlaps the entry's.
    const IPAddrInfo* conflict(const IPAddrEntry& e) const;

    // The match of a match key (mode 0 exact, 1 best match); up to `limit` entries.
    std::vector<const IPAddrInfo*> match(const IPAddrEntry& key, std::size_t limit) const;
    std::size_t match_count(const IPAddrEntry& key) const;
    // The longest network holding the key's address among the key's filters.
    const IPAddrInfo* best_net(const IPAddrEntry& key) const;
    // The first address after (ifindex, addr) in interface order (if_order) or IP order,
    // on one interface or on all (ifindex 0 or kAnyIf), with method bits in mask (0: any).
    const IPAddrInfo* next(std::uint32_t ifindex, std::uint32_t mask, bool if_order, std::uint32_t key_ifindex,
                           std::uint32_t key_addr) const;
    // Every address, in interface order.
    template <class F>
    void each(F&& f) const {
        for (const auto& k : if_order_) f(by_key_.at({std::get<0>(k), std::get<2>(k)}));
    }
    // Addresses after a position in interface order, with a filter.
    std::vector<const IPAddrInfo*> after(std::uint32_t ifindex, std::uint32_t mask, std::uint32_t key_ifindex,
                                         std::uint32_t key_addr, std::size_t limit, bool* last) const;
    const IPAddrInfo* prior(std::uint32_t ifindex, std::uint32_t mask) const;
    const IPAddrInfo* next_in_vrf(std::uint16_t vrf, std::uint32_t mask, const IPAddrEntry& pos) const;
    const IPAddrInfo* max_in_vrf(std::uint16_t vrf, std::uint32_t mask, std::uint32_t ifindex) const;
    const IPAddrInfo* first_in_vrf(std::uint16_t vrf, std::uint32_t type_filter_ifindex_loopback) const;
    const IPAddrInfo* by_ip(std::uint32_t addr, std::uint16_t vrf, std::uint32_t after_ifindex, bool strictly_after) const;
    const IPAddrInfo* gateway(std::uint32_t ifindex, std::uint32_t gw, std::uint16_t vrf) const;
    std::uint32_t next_interface(std::uint32_t ifindex) const;
    std::uint32_t count(std::uint32_t ifindex, std::uint32_t mask, std::uint16_t vrf) const;
    std::uint32_t methods_on(std::uint32_t ifindex) const;

    IfSettings& settings(std::uint32_t ifindex) { return settings_[ifindex]; }
    const IfSettings* find_settings(std::uint32_t ifindex) const;
    // Reports a settings change (persistence) and moves the epoch.
    void settings_changed(std::uint32_t ifindex);
    const std::map<std::uint32_t, IfSettings>& all_settings() const noexcept { return settings_; }

private:
    using Key = std::pair<std::uint32_t, std::uint32_t>;                  // ifindex, address (host)
    using IfKey = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>;  // ifindex, sub, address
    using IpKey = std::pair<std::uint32_t, std::uint32_t>;                // address, ifindex

    void unindex(const IPAddrInfo& info);
    void index(const IPAddrInfo& info);
    IfKey if_key_of(std::uint32_t ifindex, std::uint32_t addr) const;

    std::map<Key, IPAddrInfo> by_key_;
    std::set<IfKey> if_order_;
    std::set<IpKey> ip_order_;
    std::map<std::uint32_t, IfSettings> settings_;
    std::uint32_t epoch_ = 0;
    Observer observer_;
    SettingsObserver settings_observer_;
};

// Host value of a network-order IPv4 word, for ordering and arithmetic.
std::uint32_t ip_host(std::uint32_t network_order) noexcept;
// Number of leading one bits of a network-order mask.
int prefix_len(std::uint32_t network_mask) noexcept;

}  // namespace sim
