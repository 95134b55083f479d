#include "services/adj_tables.hpp"

#include <algorithm>

#include "ipproto/wire.hpp"

namespace sim {

SmoothTable::Key SmoothTable::key_of(std::span<const std::uint8_t> entry) const {
    Key k{};
    std::size_t at = 0;
    for (const ByteRange& r : shape_->key) {
        if (r.len == 0) continue;
        if (std::size_t{r.off} + r.len > entry.size() || at + r.len > k.size()) return Key{};
        std::copy_n(entry.begin() + r.off, r.len, k.begin() + static_cast<std::ptrdiff_t>(at));
        at += r.len;
    }
    return k;
}

std::uint32_t SmoothTable::read_scope(std::span<const std::uint8_t> bytes, ByteRange r) const {
    if (r.len == 0) return 0;
    const ipc::wire::View v(bytes.data(), bytes.size());
    switch (r.len) {
        case 1: return v.be<std::uint8_t>(r.off).value_or(0);
        case 2: return v.be<std::uint16_t>(r.off).value_or(0);
        default: return v.be<std::uint32_t>(r.off).value_or(0);
    }
}

std::uint32_t SmoothTable::scope_of(std::span<const std::uint8_t> entry) const {
    return read_scope(entry, shape_->scope);
}

std::uint32_t SmoothTable::smooth_scope_of(std::span<const std::uint8_t> payload) const {
    return read_scope(payload, shape_->smooth_scope);
}

bool SmoothTable::refresh(std::span<const std::uint8_t> entry, std::optional<std::uint32_t> scope) {
    Item fresh{std::vector<std::uint8_t>(entry.begin(), entry.end()), scope ? *scope : scope_of(entry), false};
    Key key = key_of(entry);
    const auto it = items_.find(key);
    if (it != items_.end()) {
        it->second = std::move(fresh);
        return true;
    }
    if (items_.size() >= kMaxItems) return false;
    items_.emplace(std::move(key), std::move(fresh));
    return true;
}

std::optional<SmoothTable::Item> SmoothTable::remove(std::span<const std::uint8_t> entry) {
    const auto it = items_.find(key_of(entry));
    if (it == items_.end()) return std::nullopt;
    Item gone = std::move(it->second);
    items_.erase(it);
    return gone;
}

void SmoothTable::smooth_start(std::uint32_t scope) {
    smoothing_.insert(scope);
    for (auto& [k, item] : items_) {
        if (item.scope == scope) item.stale = true;
    }
}

std::vector<SmoothTable::Item> SmoothTable::smooth_end(std::uint32_t scope) {
    std::vector<Item> dropped;
    // An end without its start drops nothing: the owner never announced a full resend.
    if (smoothing_.erase(scope) == 0) return dropped;
    for (auto it = items_.begin(); it != items_.end();) {
        if (it->second.scope == scope && it->second.stale) {
            dropped.push_back(std::move(it->second));
            it = items_.erase(it);
        } else {
            ++it;
        }
    }
    return dropped;
}

}  // namespace sim
