// Traffic counters of a Linux network namespace: the protocol counters of its /proc/net
// files and the counters of its links, named as the IP module names its counters
// (modules/ipstat_state.hpp). linux_source.hpp gives the map.
#pragma once

#include <linux/if_link.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ipproto/raii.hpp"

namespace sim::nl {

// Counters by "Group.Name" ("Ip.InReceives", "IpExt.InMcastPkts", "Icmp.InEchos") for
// /proc/net/snmp and /proc/net/netstat, and by their own name ("Ip6InReceives") for
// /proc/net/snmp6.
using ProcCounters = std::map<std::string, std::uint64_t, std::less<>>;

class ProcNet {
public:
    // Opens the namespace's files; call it from inside the namespace. The files keep
    // reading that namespace afterwards. False with a reason when one cannot be opened.
    bool open(std::string* err);
    // Every counter of the three files as they read now.
    ProcCounters read() const;
    // The namespace's IPv4 settings (/proc/sys/net/ipv4/ip_default_ttl and ip_forward), as
    // they read now; none when a file cannot be read. Opened with the counters, for writing
    // too when `writable` (where the process may).
    std::optional<unsigned> default_ttl() const;
    std::optional<bool> forwarding() const;
    // Writes the default TTL: 0, or the errno of the write.
    int set_default_ttl(unsigned ttl) const;

    bool open_settings(bool writable);

private:
    ipc::Fd snmp_, snmp6_, netstat_, ttl_, forward_;
};

// Parses files of header and value line pairs ("Ip: Forwarding DefaultTTL ..." then
// "Ip: 1 64 ..."), and files of "Name value" lines.
void parse_pairs(std::string_view text, ProcCounters* out);
void parse_lines(std::string_view text, ProcCounters* out);

using Named = std::vector<std::pair<std::string_view, std::uint64_t>>;

// The node's IP counters (IPv4 and IPv6 added together) and the IPv4 ICMP counters.
Named ip_counters(const ProcCounters& c);
Named icmp_counters(const ProcCounters& c);
// An interface's MIB counters from its link counters.
Named mib_counters(const rtnl_link_stats64& s);

}  // namespace sim::nl
