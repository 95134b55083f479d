// The tables that owners outside the ARP and ND modules keep in the adjacency services
// (OpenFlow entries, rules, VSI and VLAN suppression entries), with the refresh protocol:
// a smooth start marks every entry of its scope stale, a refresh makes an entry fresh (adding
// or replacing it), and the smooth end drops the entries of the scope that are still stale.
// A smooth end without a smooth start of its scope drops nothing: the owner never announced
// a full resend. After the smooth end single refreshes and deletes change the table
// directly. A table holds at most kMaxItems entries; a refresh of a new key beyond that is
// refused.
//
// Each table is described by a TableShape: where the key lies in an entry (the delete
// messages place the key fields at the same offsets), where the scope lies in an entry and
// in the smooth messages. Entries are kept as they arrived (network order).
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string_view>
#include <vector>

namespace sim {

// A run of bytes of an entry or a message.
struct ByteRange {
    std::uint16_t off = 0;
    std::uint16_t len = 0;
};

struct TableShape {
    std::string_view name;
    std::uint16_t entry_len;           // bytes of one entry
    std::array<ByteRange, 3> key;      // key fields (len 0: unused)
    ByteRange scope;                   // scope in an entry (len 0: one scope for the table)
    ByteRange smooth_scope;            // scope in a smooth message
};

class SmoothTable {
public:
    // The key fields one after the other, zero after them (a table's keys are all of one
    // shape, at most 24 bytes).
    using Key = std::array<std::uint8_t, 24>;
    struct Item {
        std::vector<std::uint8_t> entry;
        std::uint32_t scope = 0;
        bool stale = false;
    };

    static constexpr std::size_t kMaxItems = 1u << 20;

    explicit SmoothTable(const TableShape& shape) : shape_(&shape) {}

    const TableShape& shape() const noexcept { return *shape_; }
    // The key and scope of an entry (or of a delete message laid out like one).
    Key key_of(std::span<const std::uint8_t> entry) const;
    std::uint32_t scope_of(std::span<const std::uint8_t> entry) const;
    std::uint32_t smooth_scope_of(std::span<const std::uint8_t> payload) const;

    // Adds or replaces the entry, in its own scope or the one given; false when the table
    // is full and the key is new.
    bool refresh(std::span<const std::uint8_t> entry, std::optional<std::uint32_t> scope = std::nullopt);
    // Removes the entry with the key of `entry`; the removed one, if any.
    std::optional<Item> remove(std::span<const std::uint8_t> entry);
    // Smooth start and end of a scope; the end gives the entries it dropped.
    void smooth_start(std::uint32_t scope);
    std::vector<Item> smooth_end(std::uint32_t scope);
    bool smoothing(std::uint32_t scope) const { return smoothing_.count(scope) != 0; }

    std::size_t size() const noexcept { return items_.size(); }
    const std::map<Key, Item>& items() const noexcept { return items_; }

private:
    std::uint32_t read_scope(std::span<const std::uint8_t> bytes, ByteRange r) const;

    const TableShape* shape_;
    std::map<Key, Item> items_;
    std::set<std::uint32_t> smoothing_;
};

}  // namespace sim
