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

std::size_t NeighTable::on_interface(std::uint8_t family, std::uint32_t ifindex) const {
    const auto& counts = limit(family).counts;
    const auto it = counts.find(ifindex);
    return it == counts.end() ? 0 : it->second;
}

bool NeighTable::room(std::uint8_t family, std::uint32_t ifindex, std::size_t count) const {
    if (count == 0) return true;  // changes of entries held are always taken
    const Limit& l = limit(family);
    if (l.capacity && (table(family).size() >= *l.capacity || *l.capacity - table(family).size() < count)) return false;
    const std::size_t per = l.per_interface && !l.lifted ? l.per_interface(ifindex) : 0;
    const std::size_t used = on_interface(family, ifindex);
    return per == 0 || (used < per && per - used >= count);
}

std::string neigh_full_text(const NeighTable& t, const Neighbour& n) {
    const char* table = n.family == 10 ? "ND" : "ARP";
    if (const auto c = t.capacity(n.family); c && t.size(n.family) >= *c) {
        return std::string("the ") + table + " table is full (" + std::to_string(t.size(n.family)) + " entries, capacity " +
               std::to_string(*c) + ")";
    }
    return std::string("the ") + table + " table of interface " + std::to_string(n.ifindex) + " is full (" +
           std::to_string(t.on_interface(n.family, n.ifindex)) + " entries, limit " +
           std::to_string(t.interface_capacity(n.family, n.ifindex)) + ")";
}

bool NeighTable::put(const Neighbour& n) {
    auto& t = table(n.family);
    if (const auto it = t.find(key_of(n)); it != t.end()) {
        if (it->second == n) return true;
        it->second = n;
        report(NeighChange::kUpdate, n);
        return true;
    }
    Limit& l = limit(n.family);
    if (!room(n.family, n.ifindex, 1)) {
        ++l.refused;
        return false;
    }
    t.emplace(key_of(n), n);
    ++l.counts[n.ifindex];
    by_addr(n.family).emplace(n.addr, n.ifindex);
    report(NeighChange::kAdd, n);
    return true;
}

bool NeighTable::remove(std::uint8_t family, std::uint32_t ifindex, const NeighAddr& addr) {
    auto& t = table(family);
    const auto it = t.find({ifindex, addr});
    if (it == t.end()) return false;
    const Neighbour gone = it->second;
    t.erase(it);
    by_addr(family).erase({addr, ifindex});
    auto& counts = limit(family).counts;
    if (const auto c = counts.find(ifindex); c != counts.end() && --c->second == 0) counts.erase(c);
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
