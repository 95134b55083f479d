// ipctl neigh: the ARP and IPv6 neighbour (ND) tables.
//
//   ipctl neigh show [-4|-6] [dev IF]
//   ipctl neigh resolve ADDR dev IF
//
// show reads the ARP table (ARP_GetNextInfoBatch) and the ND table (ND_GetNextInfoBatch from
// the all-zero key) a batch of entries a call, printing them as they come, with a progress
// line on a terminal; resolve sends an ARP request (ARP_Request) or starts ND resolution
// (ND_Resolve) on the interface, then follows the entry for up to 5 s until it leaves the
// incomplete state, and prints it: resolved, still incomplete, or "failed" when an entry
// seen incomplete left the table (nobody answered).
//
// A batch holds the module's 24-byte ARP records and 48-byte ND records as they travelled
// (big-endian words); a lookup by address returns the ARP entry's other layout, in host order; ARP_GetConf's block gives the
// table's size (the total of the progress). ipproto/kmod_arp.hpp places every field.
#include <time.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "inet.hpp"
#include "ipclient/arp.h"
#include "ipclient/nd.h"
#include "ipctl.hpp"
#include "ipproto/kmod_arp.hpp"
#include "ipproto/kmod_nd.hpp"
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

// The name of an interface, asked once for a run of entries of the same interface (a table
// is read in interface order).
const std::string& name_of(std::uint32_t ifindex) {
    static std::uint32_t last = 0;
    static std::string name;
    if (ifindex != last || name.empty()) {
        name = interface_name(ifindex);
        last = ifindex;
    }
    return name;
}

// One line an entry, as ip writes a brief listing: address, interface, link-layer address
// and state (the tool's -br).
bool g_brief = false;

Record neighbour(const char* family, const std::string& dst, std::uint32_t ifindex, const std::uint8_t* mac,
                 unsigned state, unsigned kind, unsigned vlan, unsigned vrf) {
    const std::string lladdr = mac_text(mac);
    const std::string& dev = name_of(ifindex);
    const Record::Paint inet = family[4] == '6' ? Record::Paint::kInet6 : Record::Paint::kInet;
    Record r;
    if (g_brief) {
        r.add("dst", dst, dst).paint(inet);
        r.add("dev", dev, dev).paint(Record::Paint::kIfname);
        r.add("lladdr", lladdr, lladdr).paint(Record::Paint::kMac);
        r.add("state", state_name(state), state_name(state));
        return r;
    }
    r.add("dst", dst, dst)
        .paint(inet)
        .json_only("family", family)
        .json_only("ifindex", ifindex)
        .add("dev", dev, dev, "dev")
        .paint(Record::Paint::kIfname)
        .add("lladdr", lladdr, lladdr, "lladdr")
        .paint(Record::Paint::kMac)
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

// Room for one batch: as much as one device answer carries, whole records of either table.
constexpr std::uint32_t kBatchRoom = 65536;

// The ARP table a batch at a time (ARP_GetNextInfoBatch), each batch printed as it comes;
// the next batch starts after the last entry of this one (its address and interface).
void walk_arp(Context& ctx, std::uint32_t ifindex) {
    namespace at = arp::batch;
    const std::uint64_t size = arp_table_size();
    Progress progress("entries", size > 0 ? std::optional<std::uint64_t>(size) : std::nullopt);
    const auto buf = std::make_unique<std::uint8_t[]>(kBatchRoom);
    std::uint32_t key_addr = 0, key_if = 0;
    std::uint64_t done = 0;
    for (;;) {
        std::uint32_t len = 0;
        if (ARP_GetNextInfoBatch(key_addr, key_if, kBatchRoom, buf.get(), &len) != 0) break;
        const std::size_t records = std::min<std::size_t>(len, kBatchRoom) / at::kLen;
        if (records == 0 || done > 100'000'000) break;  // the end, or a module that never ends
        for (std::size_t i = 0; i < records; ++i) {
            const std::uint8_t* r = buf.get() + i * at::kLen;
            const ArpEntry entry = arp_from_batch(r);
            if (ifindex == 0 || entry.ifindex == ifindex) ctx.out->row(arp_record(entry));
            key_addr = entry.addr;
            key_if = entry.ifindex;
        }
        done += records;
        progress.update(done);
    }
    progress.finish();
}

// The ND table a batch at a time (ND_GetNextInfoBatch), as the ARP table.
void walk_nd(Context& ctx, std::uint32_t ifindex) {
    namespace at = ipc::proto::nd::batch;
    Progress progress("entries", std::nullopt);
    const auto buf = std::make_unique<std::uint8_t[]>(kBatchRoom);
    std::uint8_t key_addr[16] = {};
    std::uint32_t key_if = 0;
    std::uint64_t done = 0;
    for (;;) {
        std::uint32_t len = 0;
        if (ND_GetNextInfoBatch(key_addr, key_if, kBatchRoom, buf.get(), &len) != 0) break;
        const std::size_t records = std::min<std::size_t>(len, kBatchRoom) / at::kLen;
        if (records == 0 || done > 100'000'000) break;
        for (std::size_t i = 0; i < records; ++i) {
            const std::uint8_t* r = buf.get() + i * at::kLen;
            const std::uint32_t entry_if = load_be<std::uint32_t>(r + at::kIfIndex);
            if (ifindex == 0 || entry_if == ifindex) {
                ctx.out->row(neighbour("inet6", inet6_text(r + at::kAddr), entry_if, r + at::kMac, r[at::kState],
                                       r[at::kKind], load_be<std::uint16_t>(r + at::kVlan),
                                       load_be<std::uint16_t>(r + at::kVrf)));
            }
            std::memcpy(key_addr, r + at::kAddr, sizeof key_addr);
            key_if = entry_if;
        }
        done += records;
        progress.update(done);
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
    g_brief = ctx.brief;
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
    // The answer comes as the table changes. The entry is followed until it leaves the
    // incomplete state, for as long as a device tries to resolve (3 probes a second apart)
    // and a little more; an entry seen incomplete that then goes failed.
    constexpr int kPolls = 100;  // 5 s of 50 ms
    std::optional<Record> found;
    bool seen = false, settled = false;
    const auto follow = [&](const std::function<std::optional<std::pair<Record, bool>>()>& look) {
        for (int i = 0; i < kPolls && !settled; ++i) {
            if (auto now = look()) {
                found = std::move(now->first);
                seen = true;
                settled = !now->second;
            } else if (seen) {
                found.reset();
                break;  // an incomplete entry that left the table: nobody answered
            }
            if (!settled) pause_50ms();
        }
    };
    if (const auto a4 = parse_inet4(target)) {
        const std::uint32_t rc = ARP_Request(ifindex, 0, *a4, nullptr);
        if (rc != 0) status_error("resolving " + target + " on " + *dev, rc);
        follow([&]() -> std::optional<std::pair<Record, bool>> {
            ARP_ENTRY_S e{};
            if (ARP_GetEntryByIP(*a4, &e) != 0) return std::nullopt;
            const ArpEntry entry = arp_from_lookup(e.aucData);
            return std::pair{neighbour("inet", target, entry.ifindex, entry.mac, entry.state, entry.kind, entry.vlan, entry.vrf),
                             entry.state == 0};
        });
    } else if (const auto a6 = parse_inet6(target)) {
        NdIPv6Addr addr{};
        std::memcpy(&addr, a6->data(), sizeof addr);
        const std::uint32_t rc = ND_Resolve(addr, ifindex);
        if (rc != 0) status_error("resolving " + target + " on " + *dev, rc);
        follow([&]() -> std::optional<std::pair<Record, bool>> {
            NdEntryInfo e{};
            if (ND_GetEntryInfo(ND_ENTRY_CMD_EXACT, 0, ifindex, a6->data(), &e) != 0) return std::nullopt;
            return std::pair{nd_record(e), e.ucState == ND_STATE_INCOMPLETE};
        });
    } else {
        usage_error(verb, "\"" + target + "\" is not an IPv4 or IPv6 address");
    }
    if (found) {
        ctx.out->row(std::move(*found));
    } else if (seen) {
        Record failed;
        failed.add("dst", target, target).add("dev", *dev, *dev, "dev").add("state", "failed", "failed");
        ctx.out->row(std::move(failed));
    }
    ctx.out->flush();
}

}  // namespace

ArpEntry arp_from_batch(const std::uint8_t* record) {
    namespace at = arp::batch;
    return ArpEntry{host_at<std::uint32_t>(record + at::kAddr),
                    load_be<std::uint32_t>(record + at::kIfIndex),
                    record + at::kMac,
                    record[at::kState],
                    record[at::kKind],
                    load_be<std::uint16_t>(record + at::kVlan),
                    load_be<std::uint16_t>(record + at::kVrf)};
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
