// ipctl stats: IP statistics and forwarding settings.
//
//   ipctl stats show [ip]            the IP counters summed over the running nodes
//                                    (IP_GetShowIpStat), or of the node of -n (IP_GetIPStat)
//   ipctl stats show icmp [dev IF]   the ICMP counters of an interface (IP_GetICMPIfStat), or
//                                    their sum over the device's interfaces
//   ipctl stats show if IF           the interface's MIB and forwarding counters over the
//                                    nodes that carry it (IP_GetMibIfStat, IP_GetIPFWIfStat)
//   ipctl stats ttl                  the default TTL (IP_GetDefTTL)
//   ipctl stats ecmp                 ECMP and load sharing of the node (IP_GetEcmp,
//                                    IP_GetEcmpMode, IP_GetLoadSharingMode)
//   ipctl stats mtu dev IF           the interface's MTU (IP_GetIfMTU)
//
// The names of the counters are the device's: the IP module's counters in the order of its
// replies.
#include <array>
#include <string>
#include <string_view>

#include "ipclient/ipstat.h"
#include "ipctl.hpp"
#include "ipplat/platform.h"
#include "ipproto/kmod_ipstat.hpp"

namespace ipctl {

namespace {

using ipc::proto::ipstat::kFwNames;
using ipc::proto::ipstat::kIcmpNames;
using ipc::proto::ipstat::kIpNames;
using ipc::proto::ipstat::kMibNames;

// Request words of the settings readers: the IP module's operations, length 0.
using ipc::proto::ipstat::Op;
constexpr auto kOpEcmp = static_cast<std::uint32_t>(Op::kEcmp);
constexpr auto kOpEcmpMode = static_cast<std::uint32_t>(Op::kEcmpMode);
constexpr auto kOpLoadSharing = static_cast<std::uint32_t>(Op::kLoadSharing);

template <class T, std::size_t N>
void counters(Record& r, const std::array<std::string_view, N>& names, const T* values, std::string_view prefix = {}) {
    for (std::size_t i = 0; i < N; ++i) {
        const std::string name(names[i]);
        if (prefix.empty()) r.add(name, values[i], std::to_string(values[i]));
        else r.text_only(std::string(prefix) + name, std::to_string(values[i]));
    }
}

template <class T, std::size_t N>
Json counters_json(const std::array<std::string_view, N>& names, const T* values) {
    Json j = Json::object();
    for (std::size_t i = 0; i < N; ++i) j[std::string(names[i])] = values[i];
    return j;
}

std::uint16_t own_node(const Context& ctx) {
    return ctx.node ? *ctx.node : static_cast<std::uint16_t>(LIP_GetLocalLip() & 0xFFFFu);
}

void show_ip(Context& ctx) {
    require_device();
    std::uint32_t c[IP_STAT_COUNTERS] = {};
    Record r;
    if (ctx.node) {
        const std::uint32_t rc = IP_GetIPStat(*ctx.node, 0, c);
        if (rc != 0) status_error("reading the IP counters of node " + std::to_string(*ctx.node), rc);
        r.add("node", *ctx.node, std::to_string(*ctx.node));
    } else {
        IP_GetShowIpStat(c);
        r.add("node", "all", "all");
    }
    counters(r, kIpNames, c);
    ctx.out->object(r);
}

void show_icmp(Context& ctx, const CLI::App& verb, Words& words) {
    std::optional<std::string> dev;
    while (!words.done()) {
        if (words.next() == "dev") words.value_of("dev", &dev);
        else words.unexpected();
    }
    require_device();
    std::uint32_t sum[IP_ICMPIF_COUNTERS] = {};
    Record r;
    if (dev) {
        const std::uint32_t ifindex = interface_index(verb, *dev);
        const std::string name = interface_name(ifindex);
        const std::uint32_t rc = IP_GetICMPIfStat(ifindex, sum);
        if (rc != 0) status_error("reading the ICMP counters of " + name, rc);
        r.add("ifname", name, name, "dev");
    } else {
        // Every interface of the device: indexes are given densely, so the walk ends after
        // a run of 64 indexes the directory does not know.
        unsigned missing = 0;
        for (std::uint32_t ifindex = 1; missing < 64 && ifindex != 0; ++ifindex) {
            if (IF_IsValidIfIndex(ifindex) == 0) {
                ++missing;
                continue;
            }
            missing = 0;
            std::uint32_t one[IP_ICMPIF_COUNTERS] = {};
            if (IP_GetICMPIfStat(ifindex, one) != 0) continue;
            for (std::size_t i = 0; i < IP_ICMPIF_COUNTERS; ++i) sum[i] += one[i];
        }
        r.add("ifname", "all", "all", "dev");
    }
    counters(r, kIcmpNames, sum);
    ctx.out->object(r);
}

void show_if(Context& ctx, const CLI::App& verb, Words& words) {
    const std::string dev = words.next();
    words.expect_end();
    const std::uint32_t ifindex = interface_index(verb, dev);
    const std::string name = interface_name(ifindex);
    std::uint64_t mib[IP_MIBIF_COUNTERS] = {};
    std::uint64_t fw[IP_FWIF_COUNTERS] = {};
    std::uint32_t rc = IP_GetMibIfStat(ifindex, mib);
    if (rc != 0) status_error("reading the MIB counters of " + name, rc);
    rc = IP_GetIPFWIfStat(ifindex, fw);
    if (rc != 0) status_error("reading the forwarding counters of " + name, rc);
    Record r;
    r.add("ifname", name, name, "dev").json_only("ifindex", ifindex);
    r.json_only("mib", counters_json(kMibNames, mib));
    r.json_only("forwarding", counters_json(kFwNames, fw));
    counters(r, kMibNames, mib, "mib.");
    counters(r, kFwNames, fw, "forwarding.");
    ctx.out->object(r);
}

void stats_show(Context& ctx, const CLI::App& verb, Words words) {
    const std::string what = words.done() ? "ip" : words.next();
    if (what == "ip") {
        words.expect_end();
        show_ip(ctx);
    } else if (what == "icmp") {
        show_icmp(ctx, verb, words);
    } else if (what == "if") {
        show_if(ctx, verb, words);
    } else {
        words.unexpected();
    }
}

void stats_ttl(Context& ctx, Words words) {
    words.expect_end();
    require_device();
    const std::uint32_t ttl = IP_GetDefTTL();
    Record r;
    r.add("ttl", ttl, std::to_string(ttl), "ttl");
    ctx.out->object(r);
}

void stats_ecmp(Context& ctx, Words words) {
    words.expect_end();
    const std::uint16_t node = own_node(ctx);
    std::uint32_t ecmp[2] = {}, mode[8] = {}, sharing[4] = {};
    std::uint32_t rc = IP_GetEcmp(node, kOpEcmp, ecmp);
    if (rc != 0) status_error("reading ECMP of node " + std::to_string(node), rc);
    rc = IP_GetEcmpMode(kOpEcmpMode, mode);
    if (rc != 0) status_error("reading the ECMP mode", rc);
    rc = IP_GetLoadSharingMode(node, kOpLoadSharing, sharing);
    if (rc != 0) status_error("reading the load-sharing mode of node " + std::to_string(node), rc);
    static constexpr const char* kEcmpModes[] = {"classic", "enhanced", "weighted"};
    const std::string ecmp_mode = mode[0] < 3 ? kEcmpModes[mode[0]] : std::to_string(mode[0]);
    const std::string sharing_mode = sharing[0] == 0 ? "per-flow" : sharing[0] == 1 ? "per-packet"
                                                                                     : std::to_string(sharing[0]);
    Record r;
    r.add("node", node, std::to_string(node))
        .add("max_paths", ecmp[0], std::to_string(ecmp[0]))
        .add("supported_paths", ecmp[1], std::to_string(ecmp[1]))
        .add("ecmp_mode", ecmp_mode, ecmp_mode)
        .add("load_sharing", sharing_mode, sharing_mode)
        .add("hash_fields", sharing[1], std::to_string(sharing[1]))
        .add("hash_seed", sharing[2], std::to_string(sharing[2]))
        .add("local_first", sharing[3] != 0, sharing[3] != 0 ? "on" : "off");
    ctx.out->object(r);
}

void stats_mtu(Context& ctx, const CLI::App& verb, Words words) {
    std::optional<std::string> dev;
    while (!words.done()) {
        if (words.next() == "dev") words.value_of("dev", &dev);
        else words.unexpected();
    }
    if (!dev) usage_error(verb, "\"dev IF\" is required");
    const std::uint32_t ifindex = interface_index(verb, *dev);
    // The interface as the device names it, whether it was given by name or by index.
    const std::string name = interface_name(ifindex);
    std::uint32_t mtu = 0;
    const std::uint32_t rc = IP_GetIfMTU(ifindex, &mtu);
    if (rc != 0) status_error("reading the MTU of " + name, rc);
    Record r;
    r.add("ifname", name, name, "dev").add("mtu", mtu, std::to_string(mtu), "mtu");
    ctx.out->object(r);
}

}  // namespace

void add_stats(CLI::App& app, Context& ctx) {
    CLI::App* object = add_object(app, "stats", "IP statistics and forwarding settings", "stats { show | ttl | ecmp | mtu } ...");
    add_verb(object, "show", "IP, ICMP or interface counters", "stats show [ip | icmp [dev IF] | if IF]", ctx,
             [&ctx](const CLI::App& verb, Words w) { stats_show(ctx, verb, std::move(w)); });
    add_verb(object, "ttl", "the default TTL", "stats ttl", ctx,
             [&ctx](const CLI::App&, Words w) { stats_ttl(ctx, std::move(w)); });
    add_verb(object, "ecmp", "ECMP and load sharing of the node", "stats ecmp", ctx,
             [&ctx](const CLI::App&, Words w) { stats_ecmp(ctx, std::move(w)); });
    add_verb(object, "mtu", "the MTU of an interface", "stats mtu dev IF", ctx,
             [&ctx](const CLI::App& verb, Words w) { stats_mtu(ctx, verb, std::move(w)); });
}

}  // namespace ipctl
