#include "modules/fib_table.hpp"

#include <cstring>

namespace sim {

// ---- Tails ------------------------------------------------------------------------------------

std::uint64_t FibTable::Tails::hash(const Tail& t) noexcept {
    // FNV-1a over the fields, then over each further path.
    std::uint64_t h = 1469598103934665603ull;
    const auto mix = [&h](const void* p, std::size_t n) {
        const auto* b = static_cast<const std::uint8_t*>(p);
        for (std::size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 1099511628211ull;
    };
    mix(&t.label, 4);
    mix(&t.tunnel, 4);
    mix(&t.via_ifindex, 4);
    mix(t.mac.data(), 6);
    mix(t.own_mac.data(), 6);
    mix(&t.vlan, 2);
    mix(&t.port, 2);
    for (const Hop& hop : t.more) {
        mix(hop.next_hop.data(), 16);
        mix(&hop.ifindex, 4);
        mix(hop.mac.data(), 6);
        mix(hop.own_mac.data(), 6);
    }
    return h;
}

std::uint32_t FibTable::Tails::hold(Tail t) {
    const std::uint64_t h = hash(t);
    for (auto [it, end] = index_.equal_range(h); it != end; ++it) {
        Slot& s = slots_[it->second];
        if (s.tail == t) {
            ++s.refs;
            return it->second;
        }
    }
    std::uint32_t i = 0;
    if (!free_.empty()) {
        i = free_.back();
        free_.pop_back();
        slots_[i] = Slot{std::move(t), 1};
    } else {
        i = static_cast<std::uint32_t>(slots_.size());
        slots_.push_back(Slot{std::move(t), 1});
    }
    index_.emplace(h, i);
    return i;
}

void FibTable::Tails::release(std::uint32_t i) {
    Slot& s = slots_[i];
    if (--s.refs != 0) return;
    for (auto [it, end] = index_.equal_range(hash(s.tail)); it != end; ++it) {
        if (it->second == i) {
            index_.erase(it);
            break;
        }
    }
    s.tail = Tail{};
    free_.push_back(i);
}

// ---- The table --------------------------------------------------------------------------------

template <std::size_t N>
bool FibTable::put_in(SortedChunks<Packed<N>, KeyOf>& table, const Route& r) {
    Packed<N> rec{};
    rec.key.vrf = r.vrf;
    std::copy_n(r.prefix.begin(), N, rec.key.prefix.begin());
    rec.key.len = r.prefix_len;
    rec.key.node = r.node;
    std::copy_n(r.next_hop.begin(), N, rec.next_hop.begin());
    rec.type = r.type;
    rec.active = r.active;
    rec.ifindex = r.ifindex;
    rec.metric = r.metric;
    const auto at = table.find(rec.key);
    if (table.at_end(at) && capacity_ && size() >= *capacity_) {
        ++refused_;
        return false;
    }
    // The new tail is held before the old one is let go: a route that keeps its tail never
    // frees it on the way.
    rec.tail = tails_.hold(Tail{r.label, r.tunnel, r.via_ifindex, r.mac, r.own_mac, r.vlan, r.port, r.more});
    if (!table.at_end(at)) {
        tails_.release(table.at(at).tail);
        table.at(at) = rec;
    } else {
        (void)table.insert_or_assign(rec);
    }
    ++(N == 4 ? seq4_ : seq6_);
    return true;
}

bool FibTable::put(const Route& r) { return r.family == 10 ? put_in(v6_, r) : put_in(v4_, r); }

bool FibTable::remove(const Key& k) {
    const auto gone = [&](auto& table, auto key, std::uint32_t& seq) {
        const auto at = table.find(key);
        if (table.at_end(at)) return false;
        tails_.release(table.at(at).tail);
        table.erase(at);
        ++seq;
        return true;
    };
    if (std::get<0>(k) == 10) return gone(v6_, packed_key<16>(k), seq6_);
    return gone(v4_, packed_key<4>(k), seq4_);
}

std::optional<Route> FibTable::find(const Key& k) const {
    if (std::get<0>(k) == 10) {
        const auto at = v6_.find(packed_key<16>(k));
        return v6_.at_end(at) ? std::nullopt : std::optional<Route>(decode(v6_.at(at)));
    }
    const auto at = v4_.find(packed_key<4>(k));
    return v4_.at_end(at) ? std::nullopt : std::optional<Route>(decode(v4_.at(at)));
}

template <std::size_t N>
std::optional<Route> FibTable::next_in(const SortedChunks<Packed<N>, KeyOf>& table, std::uint16_t node,
                                       const std::optional<Key>& after, Position* at) const {
    using Pos = typename SortedChunks<Packed<N>, KeyOf>::Pos;
    Pos p = table.begin();
    if (after) {
        const PackedKey<N> k = packed_key<N>(*after);
        const Pos was{at != nullptr ? at->chunk : 0, at != nullptr ? at->index : 0};
        // Where the walk stood, while nothing moved and it still holds `after`.
        if (at != nullptr && at->valid && at->family == N && at->layout == table.layout() && table.holds(was) &&
            table.at(was).key == k) {
            p = table.advance(was);
        } else {
            p = table.upper_bound(k);
        }
    }
    for (; !table.at_end(p); p = table.advance(p)) {
        const Packed<N>& rec = table.at(p);
        if (rec.key.node != 0 && rec.key.node != node) continue;
        if (at != nullptr) *at = Position{table.layout(), p.chunk, p.index, N, true};
        return decode(rec);
    }
    if (at != nullptr) at->valid = false;
    return std::nullopt;
}

std::optional<Route> FibTable::next(std::uint8_t family, std::uint16_t node, const std::optional<Key>& after,
                                    Position* at) const {
    if (after && std::get<0>(*after) != family) {
        // A key of the other family: IPv4 keys come before IPv6 ones.
        if (std::get<0>(*after) > family) return std::nullopt;
        return next(family, node, std::nullopt, at);
    }
    return family == 10 ? next_in(v6_, node, after, at) : next_in(v4_, node, after, at);
}

}  // namespace sim
