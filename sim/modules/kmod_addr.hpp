// The kernel's address module (command 0x260001): every operation of the address driver
// answered from the address table.
//
// Meanings the module gives to the words that the library only places:
//  - match key mode (uiFlag of the key): 0 exact (address and mask, each when non-zero),
//    1 best match (networks holding the address, the address itself first, then the
//    longest network); other modes match nothing;
//  - next mode of op 7: 1 interface order, 0 IP order; interface 0 or 0xFFFFFFFF walks all
//    interfaces; an all-zero key starts the walk;
//  - ops 12/13: interface index, method bits to switch on/off for the interface;
//  - ops 15/17: interface index (0 or 0xFFFFFFFF all), method mask; the batch holds the
//    addresses after the key in interface order; 0x60010023 marks the last batch;
//    op 17's records are address events [BE32 1 add][BE32 epoch][BE32 node][entry];
//  - op 18: [BE32 epoch][BE32 number of addresses][BE32 number of interfaces with addresses];
//  - op 20: interface index, method mask (0 any), VRF (0xFFFF any);
//  - ops 21/22: per-node debug words by item (half 1); half 2 of a set is 0 assign, 1 OR,
//    2 clear bits;
//  - op 23: moves the epoch by one; op 24 answers its low byte;
//  - op 25: the given address when the interface (or VRF) holds it, else the interface's
//    address whose network holds the destination, else the interface's main address;
//    without an interface the longest network in the VRF;
//  - op 26/27: served by the interface's node only (another node answers 0x40010001);
//    op 27 answers 1 for a loopback interface, else 0;
//  - ops 30/31: interface index, protocol bits, action 1 enable / 2 disable;
//  - op 32: VRF, method mask (0 any), interface (0 any): the highest address;
//  - ops 33/34: virtual-firewall addresses by id (word);
//  - ops 35/36: the word is the interface index; op 35 answers the interface's MAC and its
//    MAC type (op 36), and refuses an address the interface does not hold;
//  - ops 37/38: the word is the VRF (0xFFFF any).
// Every status other than 0 is 0x40010001 (no such entry, bad request), 0x43160041
// (conflict) or 0x60010023 (last batch).
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <utility>

#include <optional>
#include <string>

#include "device/device.hpp"
#include "ipproto/kmod_addr.hpp"
#include "modules/addr_table.hpp"

namespace sim {

class Store;

class AddrModule {
public:
    static constexpr std::uint32_t kCommand = ipc::proto::addr::kCmd;

    AddrModule(Device& device, AddrTable& table) : device_(device), table_(table) {}

    // One request to the module on a node; writes at most reply.size() bytes.
    std::uint32_t handle(std::uint16_t node, std::span<const std::uint8_t> request, std::span<std::uint8_t> reply,
                         std::uint32_t* returned);

    // Adds an address after the conflict check: 0, 0x43160041 (and the other address), or
    // kNoResources when its interface holds as many addresses as the limit allows.
    std::uint32_t add(const IPAddrInfo& info, const IPAddrInfo** other = nullptr);
    // The most addresses of one interface (limit.set "addresses"); none: no bound. A limit
    // below what an interface holds removes nothing: new addresses are refused.
    void set_capacity(std::optional<std::size_t> c) noexcept { capacity_ = c; }
    std::optional<std::size_t> capacity() const noexcept { return capacity_; }
    // True when a new address on the interface would be refused (and counts the refusal).
    bool full(std::uint32_t ifindex);
    std::uint64_t refused() const noexcept { return refused_; }
    std::size_t on_interface(std::uint32_t ifindex) const;

    std::uint32_t debug_word(std::uint16_t node, std::uint16_t item) const;

    // What the store keeps of the table (modules/addr_store.cpp): the addresses and the
    // interfaces' settings. restore() reads them back before any request (the whole load is
    // refused on one row that does not fit: a half-restored device would be worse); persist
    // and persist_settings store a change within the request's unit of work and undo it in
    // the table should the work be rolled back.
    std::optional<std::string> restore(Store& store);
    void persist(Store& store, const AddrChange& change);
    void persist_settings(Store& store, std::uint32_t ifindex, const IfSettings& s);

private:
    Device& device_;
    AddrTable& table_;
    std::optional<std::size_t> capacity_;
    std::uint64_t refused_ = 0;
    // The settings as the store has them: what a rolled-back change goes back to.
    std::map<std::uint32_t, IfSettings> stored_settings_;
    std::map<std::pair<std::uint16_t, std::uint16_t>, std::uint32_t> debug_;  // (node, item) -> word
    std::map<std::uint32_t, std::pair<std::uint16_t, std::uint32_t>> vfw_;    // id -> (half, address)
};

}  // namespace sim
