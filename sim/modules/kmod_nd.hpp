// The kernel's ND module (commands 0x110001, 0x110002, 0x110004, 0x110005 and 0x110013):
// the IPv6 neighbour table (ND entries of the neighbour tables, family 10), the global ND
// parameters, the per-node attack and alarm counters, the ND configuration of the
// interfaces, and the packets the module sends.
//
// Which node answers an entry: the master (and the master's endpoint) keeps every entry;
// any other node keeps the entries of the interfaces it serves (it owns the interface or the
// interface spans nodes) and the entries whose member interface (second index) it serves.
// A node asked for an entry it does not keep answers as for an entry that does not exist.
//
// Entry lookups: 0x110004 exact, 0x110005 next, request NdEntryKey (24 bytes: the address,
// BE32 interface index, BE32 selector); anything else answers 0x40010001. Selectors:
//   0  every entry; "next" moves through the whole table in table order (interface index,
//      then address), from one interface to the next;
//   1  every entry; "next" stays on the key's interface and ends with its last entry;
//   2  dynamic entries only; "next" stays on the key's interface. An exact lookup with
//      selector 2 finds a dynamic entry only;
//   above 2: 0x40010001.
// Reply NdEntryInfo (56 bytes, words big-endian):
//    0 address; 16 interface index; 20 second interface index: the member of an aggregate
//    that holds the entry (0 none); 24 the entry's VRF index; 28 its VLAN id (0 none);
//    30 the number of the node whose module answered; 32 the link-layer address (zero for an
//    incomplete entry that never learnt one); 38 state (0 incomplete, 1 reachable, 2 stale,
//    3 delay, 4 probe); 39 1 for a link-local neighbour (fe80::/10), else 0; 40 kind: 1
//    dynamic, 2 static, 4 OpenFlow, 8 rule, 10 set by the ARP daemon, 6 an entry whose
//    interface the device does not have; 41-43 zero; 44 last update (seconds since the
//    device started); 48 refresh time: the second (same clock) at which the entry is due to
//    be refreshed or to age out, that is last update + aging time, 0 for an entry that never
//    ages and for an incomplete one (it goes when its resolution fails); 52-55 zero.
//
// Batch (0x110013): request 20 bytes {the address, BE32 interface index}; the entries after
// that key in whole-table order (an all-zero key with interface 0 starts at the first), as
// many whole 48-byte records as the reply capacity holds, none at the end of the table
// (status 0 with nothing returned). Record, words big-endian:
//    0 address; 16 interface index; 20 second interface index; 24 link-layer address;
//    30 state; 31 kind (as in NdEntryInfo); 32 last update; 36 refresh time; 40 VLAN id;
//    42 VRF index; 44 the entry's VSI index (0xFFFFFFFF none).
//
// Module messages (0x110001): BE32 operation, BE32 length word, payload. The length word
// must equal the bytes received, except for operations 4 and 6, whose length word is 20
// while 28 bytes arrive (exactly that is accepted). Global parameters are the device's, the
// same on every node:
//    0  {address, BE32 interface index} -> NdInfo of the entry, if the node keeps it;
//   38  {address, BE32 0} -> NdInfo of the address's entry on the lowest interface the node
//       keeps it on. NdInfo (32 bytes, words big-endian): 0 interface index; 4 VRF index;
//       6 VLAN id; 8 link-layer address (6 bytes), state byte, kind byte; 16 age (seconds
//       since the last update); 20 seconds left before the entry ages out (0: never);
//       24 second interface index; 28 number of the answering node; 30-31 zero;
//    1  hop limit (1 byte; 64);
//   10  stale aging time, in the unit of operation 13 (BE32; 240);
//   13  stale aging unit (BE32; 0 seconds, 1 minutes; 1);
//   11  link-local flags (1 byte; bit 0x04 keeps link-local entries to a minimum; 0);
//   28  log flags (1 byte; bit 0x01 logs entries on and off, 0x02 records entry moves; 0);
//   29  conflict flags (1 byte; bit 0x80 records address conflicts; 0);
//   31  snooping DAD retransmit time, seconds (BE32; 1);
//   32  snooping lifetime of an invalid entry, seconds (BE32; 60);
//   33  snooping lifetime of a valid entry, seconds (BE32; 86400);
//   36  ND packet rate limit, packets per second (BE32; 100);
//   39  extension bitmap (BE32; 0): 0x2 RA broadcast over tunnels, 0x4000 topology-change
//       handling off, 0x8000 resolving routes off;
//   45  {selector byte, 3 zero bytes} -> BE64 the node's alarm counter of that selector;
//   46  {selector byte, 3 zero bytes} -> four BE64: the node's attack counters of that
//       selector (a selector names one of the module's counter sets; unknown sets read 0).
// Sending (each counted per interface: RA, NA, NS, specified; see the control operation
// nd.sent). RA, NA, resolve and specified packets are sent by a node that serves the
// interface (another node answers 0x40010001); NS and deletion are served by any node:
//    2  RA {BE32 interface, address, link-layer address, BE16 parameter};
//    3  NA {BE32 interface, address, link-layer address, 2 zero bytes};
//    4  delete {address, BE32 interface}: removes a dynamic entry; a static or missing one
//       answers 0x40010001;
//    6  resolve {address, BE32 interface}: an NS; a scenario host behind the interface
//       answers and its entry becomes reachable with the host's MAC, otherwise the entry
//       stays incomplete and goes after a while;
//    8  NS {BE32 interface, address} (28 bytes): as resolve, answered at once with BE32 1
//       when a host answered, else 0;
//    The unspecified address :: is refused by 6 and 8 (0x40010001): it names no neighbour.
//   12  specified packet {the 100-byte record}: its BE32 at record offset 48 is the
//       interface; the record is kept as the interface's last specified packet.
// Every operation of an unknown interface, of a wrong length, or unknown answers 0x40010001.
//
// Interface configuration (0x110002): request {BE32 interface index}; served for interfaces
// of the ND layer-3 types only (0x40010001 otherwise). Reply NdIfConfigInfo (200 bytes,
// words big-endian): 0 retransmit interval ms (1000); 4 reachable time ms (1200000); 8 RA
// minimum interval s (200); 12 DAD attempts (1); 16 RA interval s (600); 20 RA hop limit
// (64); 24 RA lifetime s (1800); 28 RA router preference (0 medium); 32 flags (0x40: the RA
// lines are shown); 36 zero; 40 destination-guard mode (0); 44 the interface's limit of
// learnt entries (0 none); 48 the interface's name (128 bytes, zero-padded); 176 interface
// index; 180 owning node; 184 zero; 186 the interface's MTU; 188 its VRF index; 192 the ND
// entries on the interface; 196 the dynamic ones among them.
//
// Control operations (docs/ipsimd.md): nd.params, nd.counters, nd.if_config, nd.sent,
// nd.entry.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <utility>

#include "ipproto/kmod_nd.hpp"
#include "modules/neigh_table.hpp"

namespace sim {

struct Context;

// The global ND parameters (the defaults of a device as it leaves the factory).
struct NdParams {
    std::uint8_t hop_limit = 64;
    std::uint32_t stale_aging = 240;
    std::uint32_t stale_aging_unit = 1;
    std::uint8_t link_local_flags = 0;
    std::uint8_t log_flags = 0;
    std::uint8_t conflict_flags = 0;
    std::uint32_t snp_dad_retrans = 1;
    std::uint32_t snp_invalid = 60;
    std::uint32_t snp_valid = 86400;
    std::uint32_t rate = 100;
    std::uint32_t ext3_bitmap = 0;
};

// The ND configuration of one interface.
struct NdIfConfig {
    std::uint32_t retransmit_ms = 1000;
    std::uint32_t reachable_ms = 1200000;
    std::uint32_t ra_min_interval = 200;
    std::uint32_t dad_attempts = 1;
    std::uint32_t ra_interval = 600;
    std::uint32_t ra_hop_limit = 64;
    std::uint32_t ra_lifetime = 1800;
    std::uint32_t ra_preference = 0;
    std::uint32_t flags = 0x40;
    std::uint32_t dest_guard = 0;
    std::uint32_t entry_limit = 0;
};

// What the module sent on one interface.
struct NdSent {
    std::uint64_t ra = 0, na = 0, ns = 0, specified = 0;
    NeighAddr last_addr{};                    // target of the last RA, NA or NS
    std::array<std::uint8_t, 6> last_mac{};   // link-layer address of the last RA or NA
    std::uint16_t ra_param = 0;               // parameter of the last RA
    std::array<std::uint8_t, 100> specified_record{};  // the last specified packet, as received
};

class NdModule {
public:
    static constexpr std::uint32_t kMessage = ipc::proto::nd::kCmdInfo;
    static constexpr std::uint32_t kIfConfig = ipc::proto::nd::kCmdIfConfig;
    static constexpr std::uint32_t kExact = ipc::proto::nd::kCmdEntryInfo;
    static constexpr std::uint32_t kNext = ipc::proto::nd::kCmdNextEntryInfo;
    static constexpr std::uint32_t kBatch = ipc::proto::nd::kCmdInfoBatch;
    static constexpr std::size_t kBatchRecordLen = ipc::proto::nd::batch::kLen;

    static bool serves_command(std::uint32_t command) noexcept {
        return command == kMessage || command == kIfConfig || command == kExact || command == kNext ||
               command == kBatch;
    }
    // True for an interface type code of the ND layer-3 list.
    static bool l3_type(std::uint32_t type) noexcept;

    // One request to the module on a node; writes at most reply.size() bytes.
    std::uint32_t handle(Context& ctx, std::uint16_t node, std::uint32_t command,
                         std::span<const std::uint8_t> request, std::span<std::uint8_t> reply,
                         std::uint32_t* returned);
    // Registers the module's control operations.
    void attach(Context& ctx);

    NdParams params;
    std::map<std::uint32_t, NdIfConfig> if_config;  // interfaces configured otherwise than the default
    std::map<std::uint32_t, NdSent> sent;           // by interface
    // Per node and selector: the alarm counter and the four attack counters.
    std::map<std::pair<std::uint16_t, std::uint8_t>, std::uint64_t> alarm;
    std::map<std::pair<std::uint16_t, std::uint8_t>, std::array<std::uint64_t, 4>> attack;
    // Overlay suppression by VSI index (the service on port 1667 keeps it here).
    std::map<std::uint32_t, bool> overlay_suppression;
};

}  // namespace sim
