// The protocol-to-CPU service (port 1680, and its local variant on port 11557, on every node
// that is up): which protocols' packets the node delivers to the CPU, globally or on one
// interface, as the protocol modules asked (services/proen.cpp serves the channel).
//
// Message (every word big-endian): [BE32 type][BE32 reply flag][BE32 1][BE32 20]
// [bytes 00 60][2 zero bytes][payload]. The constants 1 and 20 are the header's version
// and length, 00 60 the size of the enable record the channel carries (96); a message whose
// header differs is malformed. Reply flag 0: the service answers one BE32 status word;
// 1: it answers nothing; any other value is malformed (and answered).
//   type 1 enable request, 96-byte payload:
//     0 action: non-zero enables, 0 disables (removes the entry whatever its owner);
//     4 the protocol (the third argument of the enabling call);
//     8-31 zero (not checked);
//     32 bytes 00 38: the length of the match part (bytes 40 to 95), checked;
//     36 request form: 0 single or list request, 3 extended request; other forms malformed;
//     40, 44, 48, 52, 56 five match words (packet type, ports, address, mask and the like,
//       as the protocol module chooses), kept as given;
//     60 interface index, 0 for a global request; an index the device does not have is
//       refused with 0x40010001;
//     64, 68 (16-bit), 72: three more match words of the extended form (zero otherwise);
//     88 the extended call's own word, kept as an attribute ("ex_word");
//     92 (16-bit) 1 for a request made through the local variant, else 0; other values
//       malformed.
//     An entry is identified by (node, interface, protocol, the eight match words); an
//     enable adds it or takes it over (owner, form, ex_word, local, port are the latest
//     request's) and clears its smooth mark.
//   type 4 application smooth start, type 6 end, 8-byte payload [BE32 interface scope]
//     [BE32 protocol scope] (0: any): start marks every entry of the requesting process
//     (its pid is the owner) on the node within the scope; end drops the entries of that
//     process in the scope that are still marked, that is those it did not enable again
//     in between.
// Status: 0 for a good request, 0x40010001 for a malformed one or an unknown interface.
//
// Control operation "proen.list" {"node": N optional} -> {"entries": [{"node", "ifindex",
// "protocol", "match": [8 numbers: 40, 44, 48, 52, 56, 64, 68, 72], "form", "ex_word",
// "local", "port", "owner", "marked"}]} in the order node, interface, protocol, match.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <tuple>

namespace sim {

struct ProenEntry {
    std::uint16_t node = 0;
    std::uint32_t ifindex = 0;
    std::uint32_t protocol = 0;
    std::array<std::uint32_t, 8> match{};
    std::uint32_t form = 0;
    std::uint32_t ex_word = 0;
    bool local = false;
    std::uint16_t port = 0;  // where the latest request arrived
    pid_t owner = 0;
    bool marked = false;
};

class ProenTable {
public:
    using Key = std::tuple<std::uint16_t, std::uint32_t, std::uint32_t, std::array<std::uint32_t, 8>>;

    static Key key_of(const ProenEntry& e) { return {e.node, e.ifindex, e.protocol, e.match}; }

    static constexpr std::size_t kMaxEntries = 1u << 20;

    // Adds or takes over an entry and clears its mark; false for a new entry beyond
    // kMaxEntries (the request is then answered 0x40010001).
    bool enable(ProenEntry e) {
        e.marked = false;
        const Key k = key_of(e);
        if (entries_.size() >= kMaxEntries && entries_.count(k) == 0) return false;
        entries_[k] = e;
        return true;
    }
    // Removes an entry; false when there was none.
    bool disable(const Key& k) { return entries_.erase(k) != 0; }
    // Marks (start) or drops the marked (end) entries of an owner on a node within a scope
    // (0: any); the number of entries marked or dropped.
    std::size_t smooth_start(std::uint16_t node, pid_t owner, std::uint32_t ifindex, std::uint32_t protocol);
    std::size_t smooth_end(std::uint16_t node, pid_t owner, std::uint32_t ifindex, std::uint32_t protocol);

    template <class F>
    void each(F&& visit) const {
        for (const auto& [k, e] : entries_) visit(e);
    }
    std::size_t size() const noexcept { return entries_.size(); }

private:
    std::map<Key, ProenEntry> entries_;
};

}  // namespace sim
