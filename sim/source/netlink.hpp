// The route netlink objects the Linux source reads, as plain records, and one dump function
// and one event function per object. Each object file (nl_links.cpp, nl_addrs.cpp,
// nl_routes.cpp, nl_neigh.cpp) parses its messages with a per-type callback run by
// mnl_cb_run(), validating every attribute before it is used, and hands each record to a
// Sink. Addresses travel as the kernel gives them (network order); everything else is in
// host order, as netlink carries it.
#pragma once

#include <linux/if_link.h>
#include <libmnl/libmnl.h>
#include <linux/netlink.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <vector>
#include <string>

#include "source/nl_socket.hpp"

namespace sim::nl {

struct Link {
    std::uint32_t index = 0;
    std::string name;
    std::uint16_t arphrd = 0;          // ARPHRD_* link type
    std::uint32_t flags = 0;           // IFF_* flags
    std::optional<std::array<std::uint8_t, 6>> mac;
    std::uint32_t mtu = 0;
    std::uint32_t master = 0;          // the device it is enslaved to (0 none)
    std::string kind;                  // IFLA_INFO_KIND ("vrf", "bridge", "veth", ...), empty none
    std::string slave_kind;            // IFLA_INFO_SLAVE_KIND of an enslaved link ("vrf", "bridge")
    std::optional<std::uint32_t> vrf_table;  // the table of a VRF device
    std::optional<rtnl_link_stats64> stats;
};

struct Addr {
    std::uint32_t ifindex = 0;
    std::uint8_t prefix_len = 0;
    std::uint32_t addr = 0;            // IPv4, network order (the local address)
    std::uint32_t flags = 0;           // IFA_F_*
};

struct Route {
    std::uint8_t family = 0;           // AF_INET or AF_INET6
    std::uint32_t table = 0;
    std::uint8_t type = 0;             // RTN_*
    std::uint8_t dst_len = 0;
    std::uint32_t flags = 0;           // RTM_F_* and RTNH_F_*
    std::array<std::uint8_t, 16> dst{};
    std::optional<std::array<std::uint8_t, 16>> gateway;
    std::uint32_t oif = 0;
    std::uint32_t priority = 0;        // the metric (RTA_PRIORITY); 0 when none
    bool replace = false;              // NLM_F_REPLACE: it replaced the route of its metric
    // The paths of a multipath route (RTA_MULTIPATH), the first one also as gateway and oif.
    struct Path {
        std::optional<std::array<std::uint8_t, 16>> gateway;
        std::uint32_t oif = 0;
        std::uint8_t flags = 0;        // RTNH_F_*
    };
    std::vector<Path> paths;
};

struct Neigh {
    std::uint8_t family = 0;           // AF_INET or AF_INET6
    std::uint32_t ifindex = 0;
    std::uint16_t state = 0;           // NUD_*
    std::uint8_t flags = 0;            // NTF_*
    std::array<std::uint8_t, 16> addr{};
    std::optional<std::array<std::uint8_t, 6>> mac;
};

// Where parsed records go; `gone` for a deletion.
class Sink {
public:
    virtual ~Sink() = default;
    virtual void link(const Link& l, bool gone) = 0;
    virtual void addr(const Addr& a, bool gone) = 0;
    virtual void route(const Route& r, bool gone) = 0;
    virtual void neigh(const Neigh& n, bool gone) = 0;
};

// Dumps: every object of the kind in the socket's namespace, handed to the sink. 0, or the
// errno of the failure.
int dump_links(Socket& s, Sink& sink);
int dump_addrs(Socket& s, Sink& sink);
int dump_routes(Socket& s, Sink& sink);
int dump_neighs(Socket& s, Sink& sink);

// Events: one notification of the object's kind (RTM_NEWLINK / RTM_DELLINK, ...).
int link_event(const nlmsghdr* nlh, Sink& sink);
int addr_event(const nlmsghdr* nlh, Sink& sink);
int route_event(const nlmsghdr* nlh, Sink& sink);
int neigh_event(const nlmsghdr* nlh, Sink& sink);

// Any notification of a subscribed socket, sent to its object's event function
// (an mnl_cb_t whose data is the Sink).
int event_cb(const nlmsghdr* nlh, void* sink);

// The bytes of a receive that are whole messages: each at least a header long and no longer
// than what remains; the first that is not ends them.
std::size_t whole_messages(const void* buf, std::size_t n);
// mnl_cb_run over the whole messages of a receive only.
int run_messages(const void* buf, std::size_t n, unsigned seq, unsigned portid, mnl_cb_t cb, void* data);

// Requests that change the namespace (a writable source). 0, or the kernel's errno.
int add_addr(Socket& s, const Addr& a);
int del_addr(Socket& s, const Addr& a);
// Asks the kernel to resolve a neighbour (it sends the ARP request or the solicitation).
int use_neigh(Socket& s, const Neigh& n);

// A dump is repeated when the kernel reports that its table changed during it.
template <class F>
int repeat_interrupted(F&& once) {
    int rc = 0;
    for (int tries = 0; tries < 5; ++tries) {
        rc = once();
        if (rc != EINTR) return rc;
    }
    return rc;
}

}  // namespace sim::nl
