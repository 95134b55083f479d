// ipctl neigh: the ARP and IPv6 neighbour (ND) tables.
//
//   ipctl neigh show [-4|-6] [dev IF]
//   ipctl neigh resolve ADDR dev IF
//
// show walks the ARP table (ARP_GetFirstEntry/GetNextEntry) and the ND table
// (ND_GetNextEntryInfo from the all-zero key), one entry a call, with a progress line on a
// terminal; resolve sends an ARP request (ARP_Request) or starts ND resolution
// (ND_Resolve) on the interface, then prints the entry as the table then holds it.
//
// The ARP walk returns the module's 36-byte entry as it travelled (big-endian words); a
// lookup by address returns the other layout, in host order; ARP_GetConf's block gives the
// table's size (the total of the progress). ipproto/kmod_arp.hpp places every field.
#include <time.h>

#include <cstring>
#include <memory>
#include <string>

#include "inet.hpp"
#include "ipclient/arp.h"
#include "ipclient/nd.h"
#include "ipctl.hpp"
#include "ipproto/kmod_arp.hpp"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "progress.hpp"

namespace ipctl {

namespace {

using ipc::wire::load_be;
namespace arp = ipc::proto::arp;

const char* state_name(unsigned state) {
    switch (state) {
        case 0: return "incomplete";
        case 1: return "reachable";
        case 2: return "stale";
        case 3: return "delay";
        case 4: return "probe";
        default: return "unknown";
    }
}

const char* kind_name(unsigned kind) {
    switch (kind) {
        case 1: return "dynamic";
        case 2: return "static";
        case 4: return "openflow";
        case 8: return "rule";
        case 10: return "authorized";
        case ND_KIND_INVALID: return "invalid";
        default: return "other";
    }
}

Record neighbour(const char* family, const std::string& dst, std::uint32_t ifindex, const std::uint8_t* mac,
                 unsigned state, unsigned kind, unsigned vlan, unsigned vrf) {
    const std::string lladdr = mac_text(mac);
    Record r;
    r.add("dst", dst, dst)
        .json_only("family", family)
        .json_only("ifindex", ifindex)
        .add("dev", interface_name(ifindex), interface_name(ifindex), "dev")
        .add("lladdr", lladdr, lladdr, "lladdr")
        .add("state", state_name(state), state_name(state))
        .add("kind", kind_name(kind), kind_name(kind))
        .add("vlan", vlan, std::to_string(vlan), "vlan")
        .add("vrf", vrf, std::to_string(vrf), "vrf");
    return r;
}

void pause_50ms() {
    const timespec pause{0, 50'000'000};
    ::nanosleep(&pause, nullptr);
}

std::uint64_t arp_table_size() {
    std::uint8_t conf[ARP_CONF_LEN] = {};
    if (ARP_GetConf(sizeof conf, conf) != 0) return 0;
    return load_be<std::uint32_t>(conf + arp::kConfEntries);
}

void walk_arp(Context& ctx, std::uint32_t ifindex) {
    const std::uint64_t size = arp_table_size();
    Progress progress("entries", size > 0 ? std::optional<std::uint64_t>(size) : std::nullopt);
    ARP_ENTRY_S e{};
    std::uint64_t done = 0;
    for (std::uint32_t rc = ARP_GetFirstEntry(&e); rc == 0; rc = ARP_GetNextEntry(&e)) {
        progress.update(++done);
        const ArpEntry entry = arp_from_table(e.aucData);
        if (ifindex == 0 || entry.ifindex == ifindex) ctx.out->row(arp_record(entry));
        if (done > 100'000'000) break;  // a module that never ends its walk
    }
    progress.finish();
}

void walk_nd(Context& ctx, std::uint32_t ifindex) {
    Progress progress("entries", std::nullopt);
    NdEntryInfo e{};
    std::uint64_t done = 0;
    while (ND_GetNextEntryInfo(0, &e) == 0) {
        progress.update(++done);
        if (ifindex == 0 || e.uiIfIndex == ifindex) ctx.out->row(nd_record(e));
        if (done > 100'000'000) break;
    }
    progress.finish();
}

void neigh_show(Context& ctx, const CLI::App& verb, Words words, bool v4, bool v6) {
    std::optional<std::string> dev;
    while (!words.done()) {
        if (words.next() == "dev") words.value_of("dev", &dev);
        else words.unexpected();
    }
    if (!v4 && !v6) v4 = v6 = true;
    require_device();
    const std::uint32_t ifindex = dev ? interface_index(verb, *dev) : 0;
    if (v4) walk_arp(ctx, ifindex);
    if (v6) walk_nd(ctx, ifindex);
    ctx.out->flush();
}

void neigh_resolve(Context& ctx, const CLI::App& verb, Words words) {
    const std::string target = words.next();
    std::optional<std::string> dev;
    while (!words.done()) {
        if (words.next() == "dev") words.value_of("dev", &dev);
        else words.unexpected();
    }
    if (!dev) usage_error(verb, "\"dev IF\" is required");
    const std::uint32_t ifindex = interface_index(verb, *dev);
    if (const auto a4 = parse_inet4(target)) {
        const std::uint32_t rc = ARP_Request(ifindex, 0, *a4, nullptr);
        if (rc != 0) status_error("resolving " + target + " on " + *dev, rc);
        // The answer comes as the table changes: the entry, once it left the incomplete
        // state or after a second.
        std::optional<Record> found;
        for (int i = 0; i < 20; ++i) {
            ARP_ENTRY_S e{};
            if (ARP_GetEntryByIP(*a4, &e) == 0) {
                const ArpEntry entry = arp_from_lookup(e.aucData);
                found = neighbour("inet", target, entry.ifindex, entry.mac, entry.state, entry.kind, entry.vlan,
                                  entry.vrf);
                if (entry.state != 0) break;
            }
            pause_50ms();
        }
        if (found) ctx.out->row(std::move(*found));
    } else if (const auto a6 = parse_inet6(target)) {
        NdIPv6Addr addr{};
        std::memcpy(&addr, a6->data(), sizeof addr);
        const std::uint32_t rc = ND_Resolve(addr, ifindex);
        if (rc != 0) status_error("resolving " + target + " on " + *dev, rc);
        std::optional<Record> found;
        for (int i = 0; i < 20; ++i) {
            NdEntryInfo e{};
            if (ND_GetEntryInfo(ND_ENTRY_CMD_EXACT, 0, ifindex, a6->data(), &e) == 0) {
                found = nd_record(e);
                if (e.ucState != ND_STATE_INCOMPLETE) break;
            }
            pause_50ms();
        }
        if (found) ctx.out->row(std::move(*found));
    } else {
        usage_error(verb, "\"" + target + "\" is not an IPv4 or IPv6 address");
    }
    ctx.out->flush();
}

}  // namespace

ArpEntry arp_from_table(const std::uint8_t* entry) {
    namespace at = arp::entry;
    return ArpEntry{host_at<std::uint32_t>(entry + at::kAddr),
                    load_be<std::uint32_t>(entry + at::kIfIndex),
                    entry + at::kMac,
                    entry[at::kState],
                    entry[at::kKind],
                    load_be<std::uint16_t>(entry + at::kVlan),
                    load_be<std::uint16_t>(entry + at::kVrf)};
}

ArpEntry arp_from_lookup(const std::uint8_t* entry) {
    namespace at = arp::by_address;
    return ArpEntry{host_at<std::uint32_t>(entry + at::kAddr),
                    host_at<std::uint32_t>(entry + at::kIfIndex),
                    entry + at::kMac,
                    host_at<std::uint16_t>(entry + at::kState),
                    entry[at::kKind],
                    host_at<std::uint16_t>(entry + at::kVlan),
                    host_at<std::uint16_t>(entry + at::kVrf)};
}

ArpEntry arp_from_event(const std::uint8_t* entry, unsigned vrf) {
    namespace at = ipc::proto::adj4::event;
    // State and kind are words in the event; the table keeps them as bytes.
    return ArpEntry{host_at<std::uint32_t>(entry + at::kAddr),
                    host_at<std::uint32_t>(entry + at::kIfIndex),
                    entry + at::kMac,
                    static_cast<std::uint8_t>(host_at<std::uint32_t>(entry + at::kState)),
                    static_cast<std::uint8_t>(host_at<std::uint32_t>(entry + at::kKind)),
                    host_at<std::uint16_t>(entry + at::kVlan),
                    vrf};
}

Record arp_record(const ArpEntry& e) {
    return neighbour("inet", inet4_text(e.addr), e.ifindex, e.mac, e.state, e.kind, e.vlan, e.vrf);
}

Record nd_record(const NdEntryInfo& e) {
    return neighbour("inet6", inet6_text(e.aucAddr), e.uiIfIndex, e.aucLinkAddr, e.ucState, e.ucKind, e.usHalf28,
                     e.uiWord24);
}

void add_neigh(CLI::App& app, Context& ctx) {
    CLI::App* object = add_object(app, "neigh", "ARP and IPv6 neighbour entries", "neigh { show | resolve } ...");
    auto v4 = std::make_shared<bool>(false);
    auto v6 = std::make_shared<bool>(false);
    CLI::App* show = add_verb(object, "show", "the neighbour tables", "neigh show [-4|-6] [dev IF]", ctx,
                              [&ctx, v4, v6](const CLI::App& verb, Words w) {
                                  neigh_show(ctx, verb, std::move(w), *v4, *v6);
                              });
    CLI::Option* o4 = show->add_flag("-4", *v4, "ARP entries only");
    show->add_flag("-6", *v6, "ND entries only")->excludes(o4);
    add_verb(object, "resolve", "resolves a neighbour on an interface", "neigh resolve ADDR dev IF", ctx,
             [&ctx](const CLI::App& verb, Words w) { neigh_resolve(ctx, verb, std::move(w)); });
}

}  // namespace ipctl
