#include "modules/addr_table.hpp"

#include <algorithm>

#include "ipproto/wire.hpp"

namespace sim {

std::uint32_t ip_host(std::uint32_t network_order) noexcept { return ipc::wire::load_be<std::uint32_t>(&network_order); }

int prefix_len(std::uint32_t network_mask) noexcept { return std::popcount(ip_host(network_mask)); }

namespace {

bool method_ok(const IPAddrInfo& i, std::uint32_t mask) { return mask == 0 || (i.stEntry.stKey.uiMethod & mask) != 0; }
bool vrf_ok(const IPAddrInfo& i, std::uint16_t vrf) { return vrf == kAnyVrf || i.stEntry.stKey.usVrfIndex == vrf; }
bool if_ok(const IPAddrInfo& i, std::uint32_t ifindex) {
    return ifindex == kAnyIf || ifindex == 0 || i.stEntry.stKey.uiIfIndex == ifindex;
}
// True when the address lies in the record's network.
bool holds(const IPAddrInfo& i, std::uint32_t addr) {
    const IPAddrKey& k = i.stEntry.stKey;
    return (addr & k.uiMask) == (k.uiAddr & k.uiMask);
}
bool is_sub(const IPAddrInfo& i) { return (i.stEntry.uiFlag & kFlagSub) != 0; }

}  // namespace

void AddrTable::index(const IPAddrInfo& info) {
    const IPAddrKey& k = info.stEntry.stKey;
    if_order_.insert({k.uiIfIndex, is_sub(info) ? 1u : 0u, ip_host(k.uiAddr)});
    ip_order_.insert({ip_host(k.uiAddr), k.uiIfIndex});
}

void AddrTable::unindex(const IPAddrInfo& info) {
    const IPAddrKey& k = info.stEntry.stKey;
    if_order_.erase({k.uiIfIndex, is_sub(info) ? 1u : 0u, ip_host(k.uiAddr)});
    ip_order_.erase({ip_host(k.uiAddr), k.uiIfIndex});
}

void AddrTable::put(const IPAddrInfo& info, bool notify) {
    const IPAddrKey& k = info.stEntry.stKey;
    const Key key{k.uiIfIndex, ip_host(k.uiAddr)};
    const auto it = by_key_.find(key);
    const bool existed = it != by_key_.end();
    std::optional<IPAddrInfo> before;
    if (existed) {
        before = it->second;
        unindex(it->second);
        it->second = info;
    } else {
        by_key_.emplace(key, info);
    }
    index(info);
    ++epoch_;
    if (notify && observer_) observer_({existed ? AddrChange::kModify : AddrChange::kAdd, info, before, epoch_});
}

bool AddrTable::remove(std::uint32_t ifindex, std::uint32_t addr, bool notify) {
    const auto it = by_key_.find({ifindex, ip_host(addr)});
    if (it == by_key_.end()) return false;
    const IPAddrInfo gone = it->second;
    unindex(gone);
    by_key_.erase(it);
    ++epoch_;
    if (notify && observer_) observer_({AddrChange::kDelete, gone, gone, epoch_});
    return true;
}

const IPAddrInfo* AddrTable::find(std::uint32_t ifindex, std::uint32_t addr) const {
    const auto it = by_key_.find({ifindex, ip_host(addr)});
    return it == by_key_.end() ? nullptr : &it->second;
}

const IPAddrInfo* AddrTable::conflict(const IPAddrEntry& e) const {
    const IPAddrKey& k = e.stKey;
    for (const auto& [key, rec] : by_key_) {
        const IPAddrKey& r = rec.stEntry.stKey;
        if (r.uiIfIndex == k.uiIfIndex || r.usVrfIndex != k.usVrfIndex) continue;
        const std::uint32_t shorter = prefix_len(r.uiMask) < prefix_len(k.uiMask) ? r.uiMask : k.uiMask;
        if ((r.uiAddr & shorter) == (k.uiAddr & shorter)) return &rec;
    }
    return nullptr;
}

std::vector<const IPAddrInfo*> AddrTable::match(const IPAddrEntry& key, std::size_t limit) const {
    const IPAddrKey& k = key.stKey;
    const std::uint32_t mode = key.uiFlag;
    std::vector<const IPAddrInfo*> out;
    if (mode > 1) return out;
    auto filters = [&](const IPAddrInfo& rec) {
        return vrf_ok(rec, k.usVrfIndex) && method_ok(rec, k.uiMethod) &&
               (k.uiIfIndex == kAnyIf || rec.stEntry.stKey.uiIfIndex == k.uiIfIndex);
    };
    if (k.uiAddr == 0) {
        for (const auto& ik : if_order_) {
            const IPAddrInfo& rec = by_key_.at({std::get<0>(ik), std::get<2>(ik)});
            if (!filters(rec)) continue;
            if (mode == 0 && k.uiMask != 0 && rec.stEntry.stKey.uiMask != k.uiMask) continue;
            out.push_back(&rec);
        }
    } else if (mode == 0) {
        const std::uint32_t a = ip_host(k.uiAddr);
        for (auto it = ip_order_.lower_bound({a, 0}); it != ip_order_.end() && it->first == a; ++it) {
            const IPAddrInfo& rec = by_key_.at({it->second, it->first});
            if (filters(rec) && (k.uiMask == 0 || rec.stEntry.stKey.uiMask == k.uiMask)) out.push_back(&rec);
        }
    } else {
        // The best match first: the address itself, then the longest network holding it.
        const std::uint32_t a = ip_host(k.uiAddr);
        for (auto it = ip_order_.lower_bound({a, 0}); it != ip_order_.end() && it->first == a; ++it) {
            const IPAddrInfo& rec = by_key_.at({it->second, it->first});
            if (filters(rec)) out.push_back(&rec);
        }
        for (int len = 32; len >= 0 && out.size() < limit; --len) {
            const std::uint32_t m = len == 0 ? 0 : ~std::uint32_t{0} << (32 - len);
            const std::uint32_t lo = a & m, hi = lo | ~m;
            for (auto it = ip_order_.lower_bound({lo, 0}); it != ip_order_.end() && it->first <= hi; ++it) {
                if (it->first == a) continue;
                const IPAddrInfo& rec = by_key_.at({it->second, it->first});
                if (prefix_len(rec.stEntry.stKey.uiMask) == len && filters(rec)) out.push_back(&rec);
            }
        }
    }
    if (out.size() > limit) out.resize(limit);
    return out;
}

std::size_t AddrTable::match_count(const IPAddrEntry& key) const { return match(key, SIZE_MAX).size(); }

const IPAddrInfo* AddrTable::best_net(const IPAddrEntry& key) const {
    const IPAddrKey& k = key.stKey;
    const std::uint32_t a = ip_host(k.uiAddr);
    for (int len = 32; len >= 0; --len) {
        const std::uint32_t m = len == 0 ? 0 : ~std::uint32_t{0} << (32 - len);
        const std::uint32_t lo = a & m, hi = lo | ~m;
        for (auto it = ip_order_.lower_bound({lo, 0}); it != ip_order_.end() && it->first <= hi; ++it) {
            const IPAddrInfo& rec = by_key_.at({it->second, it->first});
            if (prefix_len(rec.stEntry.stKey.uiMask) != len) continue;
            if (!vrf_ok(rec, k.usVrfIndex) || !method_ok(rec, k.uiMethod)) continue;
            if (k.uiIfIndex != kAnyIf && rec.stEntry.stKey.uiIfIndex != k.uiIfIndex) continue;
            return &rec;
        }
    }
    return nullptr;
}

AddrTable::IfKey AddrTable::if_key_of(std::uint32_t ifindex, std::uint32_t addr) const {
    const IPAddrInfo* at = find(ifindex, addr);
    return {ifindex, (at != nullptr && is_sub(*at)) ? 1u : 0u, ip_host(addr)};
}

const IPAddrInfo* AddrTable::next(std::uint32_t ifindex, std::uint32_t mask, bool if_order, std::uint32_t key_ifindex,
                                  std::uint32_t key_addr) const {
    const bool all = ifindex == 0 || ifindex == kAnyIf;
    if (if_order) {
        IfKey from = key_addr == 0 && key_ifindex == 0 ? IfKey{0, 0, 0} : if_key_of(key_ifindex, key_addr);
        if (!all && std::get<0>(from) != ifindex) from = {ifindex, 0, 0};
        for (auto it = if_order_.upper_bound(from); it != if_order_.end(); ++it) {
            if (!all && std::get<0>(*it) != ifindex) return nullptr;
            const IPAddrInfo& rec = by_key_.at({std::get<0>(*it), std::get<2>(*it)});
            if (method_ok(rec, mask)) return &rec;
        }
        return nullptr;
    }
    for (auto it = ip_order_.upper_bound({ip_host(key_addr), key_ifindex}); it != ip_order_.end(); ++it) {
        if (!all && it->second != ifindex) continue;
        const IPAddrInfo& rec = by_key_.at({it->second, it->first});
        if (method_ok(rec, mask)) return &rec;
    }
    return nullptr;
}

std::vector<const IPAddrInfo*> AddrTable::after(std::uint32_t ifindex, std::uint32_t mask, std::uint32_t key_ifindex,
                                                std::uint32_t key_addr, std::size_t limit, bool* last) const {
    std::vector<const IPAddrInfo*> out;
    std::uint32_t ki = key_ifindex, ka = key_addr;
    *last = true;
    while (const IPAddrInfo* rec = next(ifindex, mask, true, ki, ka)) {
        if (out.size() == limit) {
            *last = false;
            break;
        }
        out.push_back(rec);
        ki = rec->stEntry.stKey.uiIfIndex;
        ka = rec->stEntry.stKey.uiAddr;
    }
    return out;
}

const IPAddrInfo* AddrTable::prior(std::uint32_t ifindex, std::uint32_t mask) const {
    const IPAddrInfo* first = nullptr;
    for (auto it = if_order_.lower_bound({ifindex, 0, 0}); it != if_order_.end() && std::get<0>(*it) == ifindex; ++it) {
        const IPAddrInfo& rec = by_key_.at({ifindex, std::get<2>(*it)});
        if (!method_ok(rec, mask)) continue;
        if (!is_sub(rec)) return &rec;
        if (first == nullptr) first = &rec;
    }
    return first;
}

const IPAddrInfo* AddrTable::next_in_vrf(std::uint16_t vrf, std::uint32_t mask, const IPAddrEntry& pos) const {
    const IPAddrKey& k = pos.stKey;
    const IfKey from = (k.uiIfIndex == 0 && k.uiAddr == 0) ? IfKey{0, 0, 0} : if_key_of(k.uiIfIndex, k.uiAddr);
    for (auto it = if_order_.upper_bound(from); it != if_order_.end(); ++it) {
        const IPAddrInfo& rec = by_key_.at({std::get<0>(*it), std::get<2>(*it)});
        if (vrf_ok(rec, vrf) && method_ok(rec, mask)) return &rec;
    }
    return nullptr;
}

const IPAddrInfo* AddrTable::max_in_vrf(std::uint16_t vrf, std::uint32_t mask, std::uint32_t ifindex) const {
    for (auto it = ip_order_.rbegin(); it != ip_order_.rend(); ++it) {
        const IPAddrInfo& rec = by_key_.at({it->second, it->first});
        if (vrf_ok(rec, vrf) && method_ok(rec, mask) && if_ok(rec, ifindex)) return &rec;
    }
    return nullptr;
}

const IPAddrInfo* AddrTable::first_in_vrf(std::uint16_t vrf, std::uint32_t loopback_ifindex_hint) const {
    (void)loopback_ifindex_hint;
    for (const auto& ik : ip_order_) {
        const IPAddrInfo& rec = by_key_.at({ik.second, ik.first});
        if (vrf_ok(rec, vrf)) return &rec;
    }
    return nullptr;
}

const IPAddrInfo* AddrTable::by_ip(std::uint32_t addr, std::uint16_t vrf, std::uint32_t after_ifindex,
                                   bool strictly_after) const {
    const std::uint32_t a = ip_host(addr);
    auto it = strictly_after ? ip_order_.upper_bound({a, after_ifindex}) : ip_order_.lower_bound({a, 0});
    for (; it != ip_order_.end() && it->first == a; ++it) {
        const IPAddrInfo& rec = by_key_.at({it->second, it->first});
        if (vrf_ok(rec, vrf)) return &rec;
    }
    return nullptr;
}

const IPAddrInfo* AddrTable::gateway(std::uint32_t ifindex, std::uint32_t gw, std::uint16_t vrf) const {
    const IPAddrInfo* best = nullptr;
    for (const auto& [key, rec] : by_key_) {
        if (!if_ok(rec, ifindex) || !vrf_ok(rec, vrf) || !holds(rec, gw)) continue;
        if (best == nullptr || prefix_len(rec.stEntry.stKey.uiMask) > prefix_len(best->stEntry.stKey.uiMask)) {
            best = &rec;
        }
    }
    return best;
}

std::uint32_t AddrTable::next_interface(std::uint32_t ifindex) const {
    const auto it = if_order_.upper_bound({ifindex, 2, 0});
    return it == if_order_.end() ? 0 : std::get<0>(*it);
}

std::uint32_t AddrTable::count(std::uint32_t ifindex, std::uint32_t mask, std::uint16_t vrf) const {
    std::uint32_t n = 0;
    for (auto it = if_order_.lower_bound({ifindex, 0, 0}); it != if_order_.end() && std::get<0>(*it) == ifindex; ++it) {
        const IPAddrInfo& rec = by_key_.at({ifindex, std::get<2>(*it)});
        if (method_ok(rec, mask) && vrf_ok(rec, vrf)) ++n;
    }
    return n;
}

std::uint32_t AddrTable::methods_on(std::uint32_t ifindex) const {
    std::uint32_t bits = 0;
    for (auto it = if_order_.lower_bound({ifindex, 0, 0}); it != if_order_.end() && std::get<0>(*it) == ifindex; ++it) {
        bits |= by_key_.at({ifindex, std::get<2>(*it)}).stEntry.stKey.uiMethod;
    }
    if (const IfSettings* s = find_settings(ifindex)) bits |= s->cfg_methods | s->drv_method;
    return bits;
}

const IfSettings* AddrTable::find_settings(std::uint32_t ifindex) const {
    const auto it = settings_.find(ifindex);
    return it == settings_.end() ? nullptr : &it->second;
}

void AddrTable::settings_changed(std::uint32_t ifindex) {
    ++epoch_;
    if (settings_observer_) settings_observer_(ifindex, settings_[ifindex]);
}

}  // namespace sim
