// The kernel's WLAN adjacency module (command 0x150001): the IPv4 adjacencies of wireless
// clients, one table per node, installed and removed by the owner of the wireless side and
// reported through the module's observers to the WLAN adjacency service (port 1641).
//
// Requests (the module header of the ARP module: sub-op byte, header byte = request length
// minus 4, two zero bytes; the words behind it in host order, as the library copies them):
//   sub-op 0 refresh, 212 bytes, header byte 208:
//     4 first word, 8 interface index, 12-211 the 200-byte entry;
//   sub-op 1 delete, 12 bytes, header byte 8:
//     4 first word, 8 interface index;
//   sub-op 2 delete by interface, 212 bytes, header byte 208:
//     8 interface index, 34 the 16-bit selector (host order); every other byte is ignored.
// Any other sub-op, length or header byte answers 0x40010001.
//
// Meanings the module gives to what the library only carries:
//  - first word: the wireless client's IPv4 address, kept as the 32-bit value the owner
//    gives; with the interface index it is the key of an entry;
//  - interface index (the second word of a refresh): the interface the client is attached
//    through; it must be non-zero and an interface of the device, else 0x40010001;
//  - entry: 200 bytes that belong to the owner and are kept and reported unchanged; the
//    module reads only its 16-bit word at entry offset 22 (request offset 34, host order):
//    the client's VLAN;
//  - a refresh of a key already present replaces the entry and reports it again; a node
//    keeps at most kMaxEntries (1,048,576) entries, a new one beyond that answers 0x40010001;
//  - a delete of a key that is not present answers 0x40010001;
//  - delete by interface: selector 0 removes every entry of the interface, any other
//    selector the entries whose VLAN equals it; removing nothing still answers 0;
//  - reply (when the capacity holds 4 bytes): BE32 the number of entries refreshed or
//    removed.
// Changes reported to the observers: kRefresh (one entry, new or replaced), kDelete (the
// entries removed by one request, in table order), kCleared (the node's table was emptied
// by the simulator's control channel, not by a request).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <tuple>
#include <vector>

#include "device/device.hpp"
#include "ipproto/kmod_wlan.hpp"
#include "ipproto/svc_adj.hpp"

namespace sim {

struct WlanEntry {
    static constexpr std::size_t kLen = 200;
    static constexpr std::size_t kVlanOffset = 22;

    std::uint16_t node = 0;
    std::uint32_t first = 0;     // the client's IPv4 address as given
    std::uint32_t ifindex = 0;
    std::array<std::uint8_t, kLen> data{};

    std::uint16_t vlan() const;
    bool operator==(const WlanEntry&) const = default;
};

struct WlanChange {
    enum Kind : std::uint8_t {
        kRefresh = ipc::proto::wlan_events::kRefresh,
        kDelete = ipc::proto::wlan_events::kDelete,
        kCleared = ipc::proto::wlan_events::kClear,
    } kind;
    std::uint16_t node;
    std::vector<WlanEntry> entries;  // empty for kCleared
};

class WlanModule {
public:
    static constexpr std::uint32_t kCommand = ipc::proto::wlan::kCmdAdjacency;
    static constexpr std::size_t kMaxEntries = 1u << 20;
    using Key = std::tuple<std::uint16_t, std::uint32_t, std::uint32_t>;  // node, interface, first word
    using Observer = std::function<void(const WlanChange&)>;

    std::uint32_t handle(const Device& device, std::uint16_t node, std::span<const std::uint8_t> request,
                         std::span<std::uint8_t> reply, std::uint32_t* returned);

    // Empties the tables of one node (every node when none is given); each node that had
    // entries reports kCleared. The number of entries removed.
    std::size_t clear(std::optional<std::uint16_t> node);
    std::size_t size() const noexcept { return table_.size(); }
    // Visits the entries in table order (node, interface, first word).
    template <class F>
    void each(F&& visit) const {
        for (const auto& [k, e] : table_) visit(e);
    }
    // Observers are called after the table changed, in the order they were added.
    void add_observer(Observer o) { observers_.push_back(std::move(o)); }

private:
    std::uint32_t refresh(const Device& device, std::uint16_t node, std::span<const std::uint8_t> request,
                          std::uint32_t* count);
    std::uint32_t remove(std::uint16_t node, std::span<const std::uint8_t> request, std::uint32_t* count);
    std::uint32_t remove_by_if(std::uint16_t node, std::span<const std::uint8_t> request, std::uint32_t* count);
    void report(const WlanChange& c) const;

    std::map<Key, WlanEntry> table_;
    std::vector<Observer> observers_;
};

}  // namespace sim
