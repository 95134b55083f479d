#include "modules/fib_table.hpp"

namespace sim {

bool FibTable::put(const Route& r) {
    const std::size_t before = routes_.size();
    if (capacity_ && before >= *capacity_ && routes_.find(key_of(r)) == routes_.end()) {
        ++refused_;
        return false;
    }
    const auto it = routes_.insert_or_assign(hint_, key_of(r), r);
    hint_ = std::next(it);
    if (routes_.size() != before) ++(r.family == 10 ? count6_ : count4_);
    ++(r.family == 10 ? seq6_ : seq4_);
    return true;
}

bool FibTable::remove(const Key& k) {
    const auto it = routes_.find(k);
    if (it == routes_.end()) return false;
    if (hint_ == it) hint_ = routes_.end();
    routes_.erase(it);
    const bool v6 = std::get<0>(k) == 10;
    --(v6 ? count6_ : count4_);
    ++(v6 ? seq6_ : seq4_);
    return true;
}

const Route* FibTable::next(std::uint8_t family, std::uint16_t node, const std::optional<Key>& after) const {
    auto it = after ? routes_.upper_bound(*after) : routes_.lower_bound(Key{family, 0, {}, 0, 0});
    for (; it != routes_.end() && std::get<0>(it->first) == family; ++it) {
        if (it->second.node == 0 || it->second.node == node) return &it->second;
    }
    return nullptr;
}

}  // namespace sim
