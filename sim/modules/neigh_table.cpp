#include "modules/neigh_table.hpp"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdio>

namespace sim {

std::string address_text(const Neighbour& n) {
    char buf[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(n.family == AF_INET6 ? AF_INET6 : AF_INET, n.addr.data(), buf, sizeof buf);
    return buf;
}

std::string mac_text(const std::array<std::uint8_t, 6>& mac) {
    char buf[18];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return buf;
}

void NeighTable::report(NeighChange::Kind kind, const Neighbour& n) const {
    if (muted_) return;
    const NeighChange c{kind, n};
    for (const auto& o : observers_) o(c);
}

void NeighTable::put(const Neighbour& n) {
    auto& t = table(n.family);
    const auto [it, fresh] = t.try_emplace(key_of(n), n);
    if (fresh) {
        by_addr(n.family).emplace(n.addr, n.ifindex);
        report(NeighChange::kAdd, n);
        return;
    }
    if (it->second == n) return;
    it->second = n;
    report(NeighChange::kUpdate, n);
}

bool NeighTable::remove(std::uint8_t family, std::uint32_t ifindex, const NeighAddr& addr) {
    auto& t = table(family);
    const auto it = t.find({ifindex, addr});
    if (it == t.end()) return false;
    const Neighbour gone = it->second;
    t.erase(it);
    by_addr(family).erase({addr, ifindex});
    report(NeighChange::kDelete, gone);
    return true;
}

const Neighbour* NeighTable::find(std::uint8_t family, std::uint32_t ifindex, const NeighAddr& addr) const {
    const auto& t = table(family);
    const auto it = t.find({ifindex, addr});
    return it == t.end() ? nullptr : &it->second;
}

const Neighbour* NeighTable::find_addr(std::uint8_t family, const NeighAddr& addr) const {
    const auto& idx = by_addr(family);
    const auto it = idx.lower_bound({addr, 0});
    if (it == idx.end() || it->first != addr) return nullptr;
    return find(family, it->second, addr);
}

const Neighbour* NeighTable::next(std::uint8_t family, const std::optional<Key>& after) const {
    const auto& t = table(family);
    const auto it = after ? t.upper_bound(*after) : t.begin();
    return it == t.end() ? nullptr : &it->second;
}

}  // namespace sim
