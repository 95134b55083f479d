// The IPv4 (port 11537) and IPv6 (port 11554) adjacency services, listening on every node
// that is up; their tables are the device's. Messages in both directions are adjacency
// messages: [type][reserved][BE16 payload length][BE16 count][payload]; a message whose
// length disagrees with its header, or of a type the service does not know, is dropped
// (and counted in the capture), the connection stays.
//
// Event subscription (IPv4 type 34, IPv6 type 19; payload [BE32 first][4 zero][BE32 second]):
//   first  - the event types wanted, one bit per type (bit t for type t); 0 wants them all;
//   second - the interface index whose entries are wanted; 0 wants every interface.
// The subscriber then receives every change of the neighbour table of its family as event
// datagrams of at most 4096 bytes, records packed back to back: [BE32 length][BE32 type]
// [entry]. Changes of one round of the service's loop share datagrams.
// Event types (IPv4 0..20 and IPv6 0..15 are delivered by the client library):
//   0 added, 1 changed, 2 deleted, 3 present (an entry of a batch replay),
//   4 end of a batch replay (a record of its 8-byte header alone).
// IPv4 entry (52 bytes; the record is 60): 0 BE32 interface index, 4 the IPv4 address,
//   8 BE32 VSI index (all ones: none), 12 BE32 link id (0x0000FFFF: none), 16 BE16 VLAN,
//   18 BE16 0, 20 the MAC and 2 zero bytes, 28 BE32 state (0 incomplete, 1 reachable,
//   2 stale, 3 delay, 4 probe), 32 BE32 kind (1 learnt, 2 static, 4 OpenFlow, 8 rule,
//   10 set through the ARP daemon), 36 BE32 ageing time in seconds (0: never ages),
//   40 BE32 member port (0: none), 44 2 zero bytes, 46 BE16 the interface's node,
//   48 BE16 VRF index (the callback's third argument), 50 2 zero bytes.
// IPv6 entry (64 bytes; the record is 72): 0 BE32 interface index, 4 the IPv6 address,
//   20 BE32 VSI index, 24 BE32 link id, 28 BE16 VLAN, 30 BE16 VRF index, 32 the MAC and
//   2 zero bytes, 40 BE32 state, 44 BE32 kind, 48 BE32 ageing time, 52 BE32 member port,
//   56 2 zero bytes, 58 BE16 node, 60 BE16 0, 62 2 zero bytes.
// Concerned addresses (IPv4 44/45: [scope word in the sender's byte order][BE32 address];
// IPv6 67/68: [address][BE32 scope]): the scope is a VRF index, all ones for any. Once a
// subscriber has named a concerned address, changes reach it only for its concerned
// addresses; removing the last one restores every change.
// Batch replays answer with type-3 records of the matching entries and one type-4 record:
//   IPv4 52 and IPv6 36: every entry;
//   IPv4 56 and IPv6 40 (by VSI): word A the VSI index, word B the link id (all ones: any);
//   IPv4 75 (by attachment circuit): word A the VSI index, word B the link id, word D the
//     VLAN (0xFFFF: any);
//   IPv4 98 (by VLAN): the VLAN id;
//   IPv6 65 (by interface): word A the interface index.
// Replays obey the subscription's filters (the end record too) but not the concerned
// addresses; a connection that has not subscribed gets no replay. A subscriber names at
// most 4096 concerned addresses.
//
// Tables (every one device-wide; the refresh protocol of services/adj_tables.hpp):
//   IPv4 OpenFlow entries (42 refresh, 43 delete, n x 40 bytes; 63/64 smooth, no payload):
//     0 BE32 interface index, 4 the IPv4 address, 8 BE32 VRF index, 12 the MAC, 18 BE16
//     VLAN, 20 BE32 member port, 24 BE32 ageing time, 28-35 the owner's, 36 BE32 cookie.
//     Key: interface and address. Each entry is also a neighbour of kind OpenFlow in the
//     ARP table. Entry messages are answered with [BE32 status] (0, or 0x40010001 for a
//     payload that is not n whole entries); 53 (verify) is answered with the bare header
//     of type 54 once everything sent before it was applied.
//   IPv6 OpenFlow entries (27 refresh, 28 delete, n x 48; 11 smooth with byte 0 = 2 start,
//     3 end, answered with [BE32 status]): 0 BE32 interface index, 4 the IPv6 address,
//     20 BE32 VRF index, 24 the MAC, 30 BE16 VLAN, 32 BE32 member port, 36 BE32 ageing
//     time, 40-43 the owner's, 44 BE32 cookie. Also neighbours of kind OpenFlow.
//   Rules (IPv4 30/31 52 bytes, 32/33 smooth; IPv6 15/16 64 bytes, 17/18 smooth): key the
//     address, interface index and class (IPv4 byte 29, IPv6 byte 41); scope the owner and
//     the class (smooth messages [BE16 owner][class][0]): a rule belongs to the owner of the
//     last smooth start sent on its connection (owner 0 before any).
//   VSI suppression (IPv4 48/49 32 bytes, 50/51 smooth; IPv6 60/61 44 bytes, 62/63 smooth):
//     key the VSI index (word 0) and the address (IPv4 bytes 8-11, IPv6 bytes 8-23); scope
//     the class (IPv4 byte 28, IPv6 byte 40; smooth messages [class][3 zero bytes]).
//   IPv4 VLAN suppression (94/95 16 bytes, 96/97 smooth): key the address (bytes 0-3) and
//     the VLAN (bytes 8-9); one scope.
//   Roaming detection (IPv4 100, IPv6 80): the reports are counted.
//   IPv4 type 0 with request code 152 (VLAN suppression query, VLAN at payload offset 14):
//     answered with 16 bytes whose last word is 1 when a VLAN suppression entry has that
//     VLAN, else 0.
// Every table holds at most 1,048,576 entries; a refresh of a new entry beyond that is
// dropped (an OpenFlow message is answered 0x40010001).
// The control operation "adj.tables" {"family": 4|6} shows every table and its entries.
#pragma once

#include <memory>
#include <sys/types.h>

#include "ipproto/lipc.hpp"
#include "services/adj_tables.hpp"

namespace sim {

struct Context;
class Conn;
class Loop;
struct Endpoint;
struct NeighChange;

inline constexpr std::uint16_t kPortAdj4 = ipc::proto::port::kArpTable;
inline constexpr std::uint16_t kPortAdj6 = ipc::proto::port::kNdTable;

// The tables and subscribers of one family's adjacency service.
struct AdjState;

// The services' state, kept in the context: one per family.
class AdjServices {
public:
    AdjServices();
    ~AdjServices();
    AdjServices(const AdjServices&) = delete;
    AdjServices& operator=(const AdjServices&) = delete;
    AdjState& of(bool v6) noexcept { return *state_[v6 ? 1 : 0]; }

private:
    std::unique_ptr<AdjState> state_[2];
};

// A client of the IPv4 or IPv6 adjacency service (the ARP or ND table channel).
std::unique_ptr<Conn> make_adj4_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
std::unique_ptr<Conn> make_adj6_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
// Hands a neighbour-table change to the subscribers of its family.
void publish_neigh_change(Context& ctx, const NeighChange& change);
// Registers the control operations of the services ("adj.tables").
void register_adj_control(Context& ctx);
// A restarted service keeps its tables but awaits the owners' smooth resend: every entry is
// stale, each scope that holds one is in a smooth start, and a smooth end drops what the
// owner did not send again. Its roaming counts start from zero.
void adj4_restarted(Context& ctx);
void adj6_restarted(Context& ctx);

}  // namespace sim
