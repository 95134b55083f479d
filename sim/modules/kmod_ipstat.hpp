// The kernel's IP module (command 0x5b0001): the IP, forwarding, ICMP, MIB and BPA
// counters, and the node's IP settings (default TTL, forwarding, ECMP and load sharing,
// interface MTU); the BPA statistics also as a dump (dump request 0x2a0001). The counter
// sets are in modules/ipstat_state.hpp, the name of each counter in ipproto/kmod_ipstat.hpp.
//
// Request: [BE16 operation][BE16 length of the data that follows][data]. The length must
// be 0 or 4 and equal the bytes that follow; an operation that takes an interface index or
// a value needs the 4 bytes, the others none. Anything else, an interface the device does
// not have, a reply that does not fit the caller's room and an unknown operation answer
// 0x40010001. Every reply is big-endian. Operations:
//    0  the node's 26 IP counters counted since they were last reset (control operation
//       "ipstat.reset"; what a display shows);
//    1  the node's 26 IP counters since the node started (what management reads);
//    2  {interface} the node's forwarding counters of the interface, 112 bytes: 0 the
//       8 counters (BE64), 64 the interface index (BE32), 68 the node (BE32), 72 the second
//       since the device started at which they were last cleared (BE64; all ones: never),
//       80-111 zero;
//    9  {interface} the interface's 43 ICMP counters (BE32, 172 bytes). They are the
//       device's: every node answers the same;
//   11  {interface} the interface's MTU (BE32): the scenario's `mtu`, or the one set with
//       "ipstat.set";
//   14  {TTL} sets the node's default TTL, 1 to 255 (any other 0x40010001); no reply;
//   15  the node's default TTL (BE32; 255 until one is set);
//   23  ECMP, 2 x BE32: the most equal-cost paths (8), the most the device supports (64);
//   32  ECMP mode, 8 x BE32: 0 mode (0 classic, 1 enhanced, 2 weighted), 1 the most
//       equal-cost paths, 2 the most supported, 3 load-sharing mode, 4 hash fields,
//       5 hash seed, 6 local first (1 on), 7 zero;
//   35  configuration, 4 x BE32: 0 forwarding (1 on, 0 off), 1 default TTL, 2 the most
//       equal-cost paths, 3 ECMP mode;
//   37  {interface} the node's 19 MIB counters of the interface (BE64, 152 bytes);
//   62  {interface} clears the node's forwarding counters of the interface; no reply;
//   66  load-sharing mode, 4 x BE32: 0 mode (0 per flow, 1 per packet), 1 hash fields
//       (bits: 1 source address, 2 destination address, 4 source port, 8 destination port,
//       16 protocol; all five by default), 2 hash seed (0), 3 local first (1 on);
//  108  forwarding configuration, BE16: bit 0 forwarding on (the default), bit 1 directed
//       broadcasts forwarded (off by default).
// The library sends the operation of ECMP (23), ECMP mode (32) and load-sharing mode (66)
// as its caller's request word gives it; the length half of that word must be 0.
// Operations 24 (the BPA configuration, served by the IPStack daemon) and 25 (the BPA
// statistics, served as a dump) answer 0x40010001 here.
//
// Every node keeps its own IP counters, and its own forwarding, MIB and BPA counters of
// every interface of the device (a node counts what passed through it, whoever owns the
// interface); all are zero when the device starts and move only with traffic (control
// operation "ipstat.traffic"). Settings are the node's own and persist in the state
// directory (modules/ipstat_state.hpp gives the rows); the MTU is the interface's.
//
// BPA dump (0x2a0001): request [BE16 25][BE16 4][BE32 interface]; interface 0 reads the
// node's records of every interface (counters 1-4 summed, counter 5 the latest), any other
// must be an interface of the device. One pull gives the 64 records (5 x BE64 each, 2560
// bytes, status 0x40010009) and the next ends the dump (status 0). A pull with less room
// than 2560 bytes fails (0x40010001).
// Control operations (docs/ipsimd.md): "ipstat.traffic", "ipstat.show", "ipstat.reset",
// "ipstat.set".
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "device/dumps.hpp"
#include "ipproto/kmod_ipstat.hpp"
#include "modules/ipstat_state.hpp"

namespace sim {

struct Context;

class IpStatModule {
public:
    static constexpr std::uint32_t kCommand = ipc::proto::ipstat::kCmd;
    static constexpr std::uint32_t kBpaDumpRequest = ipc::proto::ipstat::kBpaDumpRequest;

    // One request to the module on a node; writes at most reply.size() bytes.
    std::uint32_t handle(Context& ctx, std::uint16_t node, std::span<const std::uint8_t> request,
                         std::span<std::uint8_t> reply, std::uint32_t* returned);
    // A dump of the node's BPA statistics, or nothing for a request the module refuses.
    std::unique_ptr<DumpCursor> dump(const Context& ctx, std::uint16_t node,
                                     std::span<const std::uint8_t> request) const;
    // Restores the stored settings: an error text when a stored row does not fit the device.
    std::optional<std::string> restore(Context& ctx);
    // Registers the control operations.
    void attach(Context& ctx);

    // IP counters of a node since it started, and their value at the last reset.
    struct NodeCounters {
        ipstat::IpCounters total{};
        ipstat::IpCounters at_reset{};
    };
    struct FwState {
        ipstat::FwCounters counters{};
        std::uint64_t cleared_at = ~std::uint64_t{0};
    };
    using NodeIf = std::pair<std::uint16_t, std::uint32_t>;

    const ipstat::Settings& settings(std::uint16_t node) const;
    std::uint32_t mtu(const Context& ctx, std::uint32_t ifindex) const;

    // Counts by counter name added to a node's IP counters (set "ip", interface 0) or to an
    // interface's ("mib", "fw", "icmp"), as "ipstat.traffic" adds them: the way the mirrored
    // system's own counts come in. An error text, and nothing added, for a node that is
    // down, an interface the device does not have or a name that the set does not have.
    using NamedCounts = std::span<const std::pair<std::string_view, std::uint64_t>>;
    std::optional<std::string> add_counts(const Context& ctx, std::uint16_t node, std::string_view set,
                                          std::uint32_t ifindex, NamedCounts counts);

    // The mirrored system's default TTL and forwarding of a node (none: as they are): its
    // own, not a client's, so not stored.
    void mirror_settings(std::uint16_t node, std::optional<unsigned> ttl, std::optional<bool> forwarding);

private:
    void set_settings(Context& ctx, std::uint16_t node, const ipstat::Settings& s);
    void set_mtu(Context& ctx, std::uint32_t ifindex, std::uint32_t mtu);
    ipstat::BpaRecords bpa_of(std::uint16_t node, std::uint32_t ifindex) const;

    std::map<std::uint16_t, NodeCounters> ip_;
    std::map<NodeIf, FwState> fw_;
    std::map<NodeIf, ipstat::MibCounters> mib_;
    std::map<NodeIf, ipstat::BpaRecords> bpa_;
    std::map<std::uint32_t, ipstat::IcmpCounters> icmp_;
    std::map<std::uint16_t, ipstat::Settings> settings_;
    std::map<std::uint32_t, std::uint32_t> mtu_;
};

}  // namespace sim
