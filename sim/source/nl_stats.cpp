#include "source/nl_stats.hpp"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstring>

namespace sim::nl {
namespace {

std::string read_all(const ipc::Fd& fd) {
    std::string out;
    if (!fd.valid()) return out;
    char buf[8192];
    off_t at = 0;
    for (;;) {
        const ssize_t n = ::pread(fd.get(), buf, sizeof buf, at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<std::size_t>(n));
        at += n;
    }
    return out;
}

std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> out;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
        const std::size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
        if (i > start) out.push_back(line.substr(start, i - start));
    }
    return out;
}

std::vector<std::string_view> lines(std::string_view text) {
    std::vector<std::string_view> out;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        out.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

bool number(std::string_view w, std::uint64_t* v) {
    // Tcp.MaxConn reads -1: not a counter, and not a number here.
    const auto [p, ec] = std::from_chars(w.data(), w.data() + w.size(), *v);
    return ec == std::errc{} && p == w.data() + w.size();
}

std::uint64_t value(const ProcCounters& c, std::string_view key) {
    const auto it = key.empty() ? c.end() : c.find(key);
    return it != c.end() ? it->second : 0;
}

// The node's IP counters: each IP module counter and the namespace counters it adds up
// (an IPv4 one and an IPv6 one; empty: none).
struct IpMap {
    std::string_view name, v4, v6;
};
constexpr std::array<IpMap, 22> kIpMap{{
    {"in_received", "Ip.InReceives", "Ip6InReceives"},
    {"in_delivered", "Ip.InDelivers", "Ip6InDelivers"},
    {"in_bad_protocol", "Ip.InUnknownProtos", "Ip6InUnknownProtos"},
    {"in_bad_header", "Ip.InHdrErrors", "Ip6InHdrErrors"},
    {"in_bad_checksum", "IpExt.InCsumErrors", ""},
    {"in_address_errors", "Ip.InAddrErrors", "Ip6InAddrErrors"},
    {"in_discards", "Ip.InDiscards", "Ip6InDiscards"},
    {"forwarded", "Ip.ForwDatagrams", "Ip6OutForwDatagrams"},
    {"out_local", "Ip.OutRequests", "Ip6OutRequests"},
    {"out_dropped", "Ip.OutDiscards", "Ip6OutDiscards"},
    {"out_no_route", "Ip.OutNoRoutes", "Ip6OutNoRoutes"},
    {"frag_out", "Ip.FragCreates", "Ip6FragCreates"},
    {"fragmented", "Ip.FragOKs", "Ip6FragOKs"},
    {"frag_failed", "Ip.FragFails", "Ip6FragFails"},
    {"reasm_required", "Ip.ReasmReqds", "Ip6ReasmReqds"},
    {"reasm_ok", "Ip.ReasmOKs", "Ip6ReasmOKs"},
    {"reasm_timeouts", "", "Ip6ReasmTimeout"},
    {"reasm_failed", "Ip.ReasmFails", "Ip6ReasmFails"},
    {"in_multicast", "IpExt.InMcastPkts", "Ip6InMcastPkts"},
    {"out_multicast", "IpExt.OutMcastPkts", "Ip6OutMcastPkts"},
    {"in_broadcast", "IpExt.InBcastPkts", ""},
    {"out_broadcast", "IpExt.OutBcastPkts", ""},
}};

// IPv4 ICMP counters: the IP module's name and the Icmp counter of /proc/net/snmp.
constexpr std::array<std::pair<std::string_view, std::string_view>, 28> kIcmpMap{{
    {"in_msgs", "Icmp.InMsgs"},
    {"in_errors", "Icmp.InErrors"},
    {"in_bad_checksum", "Icmp.InCsumErrors"},
    {"in_unreachable", "Icmp.InDestUnreachs"},
    {"in_time_exceeded", "Icmp.InTimeExcds"},
    {"in_parameter_problem", "Icmp.InParmProbs"},
    {"in_source_quench", "Icmp.InSrcQuenchs"},
    {"in_redirect", "Icmp.InRedirects"},
    {"in_echo", "Icmp.InEchos"},
    {"in_echo_reply", "Icmp.InEchoReps"},
    {"in_timestamp", "Icmp.InTimestamps"},
    {"in_timestamp_reply", "Icmp.InTimestampReps"},
    {"in_mask", "Icmp.InAddrMasks"},
    {"in_mask_reply", "Icmp.InAddrMaskReps"},
    {"out_msgs", "Icmp.OutMsgs"},
    {"out_errors", "Icmp.OutErrors"},
    {"out_unreachable", "Icmp.OutDestUnreachs"},
    {"out_time_exceeded", "Icmp.OutTimeExcds"},
    {"out_parameter_problem", "Icmp.OutParmProbs"},
    {"out_source_quench", "Icmp.OutSrcQuenchs"},
    {"out_redirect", "Icmp.OutRedirects"},
    {"out_echo", "Icmp.OutEchos"},
    {"out_echo_reply", "Icmp.OutEchoReps"},
    {"out_timestamp", "Icmp.OutTimestamps"},
    {"out_timestamp_reply", "Icmp.OutTimestampReps"},
    {"out_mask", "Icmp.OutAddrMasks"},
    {"out_mask_reply", "Icmp.OutAddrMaskReps"},
    {"out_rate_limited", "Icmp.OutRateLimitHost"},
}};

}  // namespace

bool ProcNet::open(std::string* err) {
    snmp_.reset(::open("/proc/thread-self/net/snmp", O_RDONLY | O_CLOEXEC));
    snmp6_.reset(::open("/proc/thread-self/net/snmp6", O_RDONLY | O_CLOEXEC));
    netstat_.reset(::open("/proc/thread-self/net/netstat", O_RDONLY | O_CLOEXEC));
    if (!snmp_.valid()) {
        *err = std::string("cannot open /proc/net/snmp: ") + std::strerror(errno);
        return false;
    }
    // IPv6 may be switched off in the namespace, and netstat is an extension: both optional.
    return true;
}

bool ProcNet::open_settings(bool writable) {
    if (writable) ttl_.reset(::open("/proc/sys/net/ipv4/ip_default_ttl", O_RDWR | O_CLOEXEC));
    if (!ttl_.valid()) ttl_.reset(::open("/proc/sys/net/ipv4/ip_default_ttl", O_RDONLY | O_CLOEXEC));
    forward_.reset(::open("/proc/sys/net/ipv4/ip_forward", O_RDONLY | O_CLOEXEC));
    return ttl_.valid();
}

namespace {

std::optional<std::uint64_t> setting(const ipc::Fd& fd) {
    std::string text = read_all(fd);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    std::uint64_t v = 0;
    if (text.empty() || !number(text, &v)) return std::nullopt;
    return v;
}

}  // namespace

std::optional<unsigned> ProcNet::default_ttl() const {
    const auto v = setting(ttl_);
    if (!v || *v < 1 || *v > 255) return std::nullopt;
    return static_cast<unsigned>(*v);
}

std::optional<bool> ProcNet::forwarding() const {
    const auto v = setting(forward_);
    if (!v) return std::nullopt;
    return *v != 0;
}

int ProcNet::set_default_ttl(unsigned ttl) const {
    const std::string text = std::to_string(ttl) + "\n";
    const ssize_t n = ::pwrite(ttl_.get(), text.data(), text.size(), 0);
    if (n < 0) return errno;
    return static_cast<std::size_t>(n) == text.size() ? 0 : EIO;
}

ProcCounters ProcNet::read() const {
    ProcCounters out;
    parse_pairs(read_all(snmp_), &out);
    parse_pairs(read_all(netstat_), &out);
    parse_lines(read_all(snmp6_), &out);
    return out;
}

void parse_pairs(std::string_view text, ProcCounters* out) {
    const auto all = lines(text);
    for (std::size_t i = 0; i + 1 < all.size(); i += 2) {
        const auto names = words(all[i]);
        const auto values = words(all[i + 1]);
        if (names.empty() || values.size() != names.size() || names[0] != values[0] || names[0].back() != ':') continue;
        const std::string_view group = names[0].substr(0, names[0].size() - 1);
        for (std::size_t k = 1; k < names.size(); ++k) {
            std::uint64_t v = 0;
            if (number(values[k], &v)) (*out)[std::string(group) + "." + std::string(names[k])] = v;
        }
    }
}

void parse_lines(std::string_view text, ProcCounters* out) {
    for (const std::string_view line : lines(text)) {
        const auto w = words(line);
        std::uint64_t v = 0;
        if (w.size() == 2 && number(w[1], &v)) (*out)[std::string(w[0])] = v;
    }
}

Named ip_counters(const ProcCounters& c) {
    Named out;
    for (const IpMap& m : kIpMap) out.emplace_back(m.name, value(c, m.v4) + value(c, m.v6));
    return out;
}

Named icmp_counters(const ProcCounters& c) {
    Named out;
    for (const auto& [name, key] : kIcmpMap) out.emplace_back(name, value(c, key));
    return out;
}

Named mib_counters(const rtnl_link_stats64& s) {
    return {{"in_receives", s.rx_packets}, {"in_octets", s.rx_bytes},    {"in_discards", s.rx_dropped},
            {"out_transmits", s.tx_packets}, {"out_octets", s.tx_bytes}, {"out_discards", s.tx_dropped}};
}

}  // namespace sim::nl
