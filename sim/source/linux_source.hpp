// The Linux source (ipsimd --source linux [--netns NAME] [--writable]): the simulated
// device mirrors a Linux network namespace, read through route netlink, and follows it
// while it runs.
//
// The device is one node: node 1, the master and its own endpoint, up, chassis 1 slot 0
// CPU 0, running the IPStack service. What the namespace holds becomes the device's:
//  - links become interfaces of node 1: index = the Linux ifindex, name = the link name,
//    MAC = the link address (zero when the link has none of six bytes), MTU = the link's.
//    Type: 24 loopback for ARPHRD_LOOPBACK; 35 vlan-interface for links of kind "vlan" and
//    "bridge" (layer-3 interfaces over a layer-2 domain); 6 ethernet for the other
//    ARPHRD_ETHER links (veth, dummy, physical ports); 71 tunnel for ARPHRD_TUNNEL,
//    TUNNEL6, IPGRE, IP6GRE, SIT and NONE (layer-3 tunnels); 1 null for any other link
//    type. Flags word: the link's IFF_* flags without bit 0x10 (IFF_POINTOPOINT shares it
//    with the device's "spans nodes" bit, and no link spans nodes). Links enslaved to a
//    bridge or a bond are layer-2 ports (l2). Kind code 0;
//  - VRF devices (link kind "vrf") are VRFs, not interfaces: at start the VRF devices take
//    the indexes 1, 2, ... in ifindex order, with the device's name; a VRF device that
//    appears later takes the next free index. Its routing table (IFLA_VRF_TABLE) maps to
//    it, and links enslaved to it sit in it (as do their addresses and neighbours);
//  - routing tables: main (254), default (253) and unspecified (0) are the public VRF 0;
//    local (255) is skipped; a VRF device's table is its VRF; any other table (policy
//    routing without a VRF device) becomes a VRF of its own, named "table<N>", at the next
//    free index when its first route is seen. Should a VRF device for that table appear
//    later, the VRF keeps its index and takes the device's name. A VRF stays known until
//    ipsimd stops;
//  - IPv4 addresses become address module records: the link's ifindex, the link's VRF,
//    the local address (IFA_LOCAL, else IFA_ADDRESS), the mask of the prefix length,
//    method 1 (manual), the sub flag when the kernel marks the address IFA_F_SECONDARY
//    when the device learns it (an address the device holds keeps its main or sub role:
//    Linux promotes a secondary when the primary of its subnet goes, the device does not).
//    IPv6 addresses are not the address module's: the device keeps no IPv6 address state
//    of an interface (its IPv6 neighbours and routes are mirrored);
//  - routes of every kept table, IPv4 and IPv6, become FIB entries of every node (node 0):
//    prefix and length, type (unicast, blackhole, unreachable, prohibit: FIB_ROUTE_* of
//    ipclient/fib.h; other types and cached (RTM_F_CLONED) routes are skipped), gateway
//    (RTA_GATEWAY), out interface (RTA_OIF) also as the interface at dump offset 20, the
//    out interface's MAC, and the gateway's MAC when the neighbour table knows it when the
//    route is learnt. A multipath route (RTA_MULTIPATH) keeps every path: the first is the
//    route's gateway and interface, the others its further hops (a search entry carries 3
//    of them and the count of all; the table dump delivers an entry a path, one after the
//    other). A route is inactive while the kernel marks it RTNH_F_DEAD or RTNH_F_LINKDOWN;
//    a multipath route while every path is. The FIB keeps one route per (VRF, prefix,
//    length): of the namespace's routes of a prefix (differing in metric, out interface or
//    gateway), the one the kernel uses, the lowest metric, of equal metrics the first
//    learnt; when it is deleted the next takes its place. IPv6 keeps a route of one prefix
//    on each link (fe80::/64): the IPv6 routes of the lowest metric are all paths of the
//    device's entry, the first learnt first;
//  - neighbours: AF_INET into the ARP table, AF_INET6 into the ND table, with the link's
//    VRF, node 1, the link-layer address. States: NUD_REACHABLE reachable, NUD_STALE
//    stale, NUD_DELAY delay, NUD_PROBE probe, NUD_INCOMPLETE incomplete (kind dynamic,
//    aging 1200 s); NUD_PERMANENT a static entry (reachable, never ages); NUD_NOARP
//    entries and proxy entries are skipped; NUD_FAILED and NUD_NONE entries are removed,
//    as are deleted ones. The last update is kept while state, MAC and kind stay. The
//    kernel tells nothing when an entry becomes incomplete, nor of most moves between
//    reachable, stale, delay and probe: the table is read again with the counters, every
//    second, and 20 ms after a resolution asked of the kernel;
//  - counters: every second the IP module's counters of node 1 move by what the namespace
//    counted since the last reading (so a reset through "ipstat.reset" keeps working, and
//    at start they equal the namespace's). IP counters: the sum of the IPv4
//    (/proc/net/snmp "Ip", /proc/net/netstat "IpExt") and IPv6 (/proc/net/snmp6) counters:
//      in_received InReceives, in_delivered InDelivers, in_bad_protocol InUnknownProtos,
//      in_bad_header InHdrErrors, in_bad_checksum IpExt.InCsumErrors, in_address_errors
//      InAddrErrors, in_discards InDiscards, forwarded ForwDatagrams (Ip6OutForwDatagrams),
//      out_local OutRequests, out_dropped OutDiscards, out_no_route OutNoRoutes, frag_out
//      FragCreates, fragmented FragOKs, frag_failed FragFails, reasm_required ReasmReqds,
//      reasm_ok ReasmOKs, reasm_timeouts Ip6ReasmTimeout, reasm_failed ReasmFails,
//      in_multicast / out_multicast In/OutMcastPkts, in_broadcast / out_broadcast
//      IpExt.In/OutBcastPkts; in_bad_options, ttl_exceeded, frag_in and frag_dropped have
//      no Linux counter and stay 0.
//    ICMP counters: Linux counts IPv4 ICMP for the whole namespace; they are the loopback
//    interface's (the lowest-indexed one): in_/out_msgs, errors, and each message type
//    from the "Icmp" line (InDestUnreachs -> in_unreachable, InEchos -> in_echo, ...),
//    in_bad_checksum InCsumErrors, out_rate_limited OutRateLimitHost.
//    MIB counters of each interface from its link counters (IFLA_STATS64): in_receives
//    rx_packets, in_octets rx_bytes, in_discards rx_dropped, out_transmits tx_packets,
//    out_octets tx_bytes, out_discards tx_dropped. Forwarding and BPA counters have no
//    Linux counterpart and move only with "ipstat.traffic".
//  - settings: with the counters, node 1's default TTL and forwarding are the namespace's
//    (/proc/sys/net/ipv4/ip_default_ttl, ip_forward); an interface's MTU is its link's.
//
// Following the namespace: notifications of RTMGRP_LINK, RTMGRP_IPV4_IFADDR,
// RTMGRP_IPV4_ROUTE, RTMGRP_IPV6_ROUTE and RTMGRP_NEIGH are read on the daemon's own loop
// and change the tables, whose observers publish the events. A deleted link takes its
// addresses, neighbours and routes with it. When a link goes up or down or its carrier
// changes, or it loses its last IPv4 address, the routes are read again and compared: Linux
// drops the IPv4 routes of a link taken down or left without an IPv4 address, and clears a
// route's link-down flag when the carrier comes, without a notification. Should the kernel drop notifications (a full
// socket), the source reads the namespace again and compares: links, addresses,
// neighbours and routes are brought up to date, and those the namespace no longer has are
// dropped (of the addresses, those it had; of the neighbours, dynamic ones).
//
// Table changes that come from the namespace are the system's, not a client's: they are
// not kept in the state directory. Read only unless writable: then an address that a
// client adds or deletes through the address configuration service is also added
// (RTM_NEWADDR) or deleted (RTM_DELADDR) in the namespace, before the table changes, and
// a client's request refused by the kernel is refused (a deletion runs with the
// interface's promote_secondaries set, put back after, so that the kernel keeps the
// secondaries of a primary the device replaces); an ARP request, ND solicitation or
// ND resolution asks the kernel to resolve the neighbour (RTM_NEWNEIGH with NTF_USE) and
// the tables follow the kernel's answer; a default TTL set through the IP module
// (IP_SetIPDefaultTTL) is written to the namespace's ip_default_ttl first (refused when it
// cannot be). Without --writable nothing is written.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "context.hpp"
#include "scenario/scenario.hpp"
#include "source/mirror.hpp"
#include "source/netlink.hpp"
#include "source/nl_stats.hpp"

namespace sim {

struct LinuxSourceOptions {
    std::string netns;     // /run/netns/NAME; empty: the namespace ipsimd runs in
    bool writable = false;
    // The notification socket's receive buffer: what the namespace may tell while the daemon
    // is busy, before notifications are lost and the namespace is read again.
    int event_buffer = 32 << 20;
};

class LinuxSource final : public Watch, public Mirror, private nl::Sink {
public:
    // Opens the namespace's sockets and reads its links and addresses. Null, with the
    // reason in *err, when the namespace cannot be reached.
    static std::unique_ptr<LinuxSource> open(const LinuxSourceOptions& opts, std::string* err);
    ~LinuxSource() override;
    LinuxSource(const LinuxSource&) = delete;
    LinuxSource& operator=(const LinuxSource&) = delete;

    // The device as the namespace has it: the node, VRFs, interfaces and IPv4 addresses.
    const scenario::Scenario& scenario() const noexcept { return scenario_; }
    // Reads the routes, neighbours and counters into the device's tables and follows the
    // namespace from now on. An error text when the namespace cannot be read.
    std::optional<std::string> attach(Context& ctx);
    std::string describe() const;

    // The loop found the notification socket readable.
    void ready(std::uint32_t events) override;

    bool applying() const noexcept override { return applying_; }
    bool writable() const noexcept override { return opts_.writable; }
    int add_address(const IPAddrInfo& info) override;
    int delete_address(std::uint32_t ifindex, std::uint32_t addr, std::uint32_t mask) override;
    int resolve(std::uint8_t family, std::uint32_t ifindex, const NeighAddr& addr) override;
    int set_default_ttl(std::uint8_t ttl) override;

private:
    explicit LinuxSource(LinuxSourceOptions opts) : opts_(std::move(opts)) {}

    void link(const nl::Link& l, bool gone) override;
    void addr(const nl::Addr& a, bool gone) override;
    void route(const nl::Route& r, bool gone) override;
    void neigh(const nl::Neigh& n, bool gone) override;

    void build_scenario();
    scenario::Interface interface_of(const nl::Link& l) const;
    std::uint16_t vrf_of_link(const nl::Link& l) const;
    std::optional<std::uint16_t> vrf_of_table(std::uint32_t table, bool create);
    void vrf_device(const nl::Link& l);
    void drop_link(std::uint32_t ifindex);
    void drop_routes_via(std::uint32_t ifindex);
    // Puts the route the kernel uses for a FIB key into the FIB, or removes the entry when
    // the namespace has none left.
    void choose(const FibTable::Key& key);
    // Whether the FIB's entry a is already b (the fields a route of the namespace sets).
    static bool same_entry(const Route& a, const Route& b);
    // Reads the routes again and drops those the namespace no longer has.
    void reread_routes();
    // The same, at once and again shortly after (kRoutesSettle): for changes the kernel tells
    // of before it drops the routes they take with them.
    void reread_routes_twice();
    // Drops the FIB entries that a reading of the namespace's routes did not see.
    void drop_unseen_routes();
    void move_to_vrf(std::uint32_t ifindex, std::uint16_t vrf);
    void resync();
    void refresh_counters();
    void schedule_counters(std::chrono::milliseconds delay);
    void add_counts(const char* set, std::uint32_t ifindex, const nl::Named& values);

    LinuxSourceOptions opts_;
    std::unique_ptr<nl::Socket> events_;   // member of the notification groups
    std::unique_ptr<nl::Socket> requests_; // dumps and changes
    nl::ProcNet proc_;
    Context* ctx_ = nullptr;               // null until attach()
    bool applying_ = false;
    scenario::Scenario scenario_;

    // What the namespace told about its links, by ifindex.
    std::map<std::uint32_t, nl::Link> links_;
    std::vector<nl::Addr> first_addrs_;     // the addresses read before the device exists
    // VRF devices and routing tables, and the VRF each stands for.
    std::map<std::uint32_t, std::uint16_t> vrf_of_device_;
    std::map<std::uint32_t, std::uint16_t> vrf_of_table_;
    std::uint16_t next_vrf_ = 1;
    // Routes seen during a resync (the others are dropped at its end).
    std::optional<std::set<FibTable::Key>> seen_routes_;
    // Links, addresses and neighbours seen while the whole namespace is read again: what it
    // no longer has is dropped at the end.
    struct Seen {
        std::set<std::uint32_t> links;
        std::set<std::pair<std::uint32_t, std::uint32_t>> addrs;  // interface, address
        std::set<std::tuple<std::uint8_t, std::uint32_t, NeighAddr>> neighs;
    };
    std::optional<Seen> seen_;
    // The addresses the namespace has (interface, address): the others are clients' of a
    // read-only device, which a reading of the namespace leaves alone.
    std::set<std::pair<std::uint32_t, std::uint32_t>> ns_addrs_;
    void drop_unseen();
    // Every route the namespace has for a FIB key that has more than one: the device's entry
    // is the one the kernel uses, the lowest metric (of equal metrics the first learnt); when
    // it goes, the next one takes its place. Routes of one key differ in metric, out
    // interface or gateway. A key with one route has nothing here: the FIB's entry is that
    // route, metric included (and a route the FIB refused waits here).
    struct Candidate {
        std::uint32_t metric = 0;
        std::uint64_t order = 0;  // when it was learnt
        Route route;
    };
    std::map<FibTable::Key, std::vector<Candidate>> candidates_;
    std::uint64_t learnt_ = 0;
    std::uint64_t reread_latest_ = 0;  // the latest second reading of the routes asked for
    // The namespace's counters at the last reading, by set, interface and name.
    std::map<std::string, std::uint64_t, std::less<>> last_counts_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace sim
