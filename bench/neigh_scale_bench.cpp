// The neighbour tables at scale, through the public API against a running ipsimd:
//  - a scenario of 256,000 ARP and 256,000 ND entries: time to ready and the simulator's
//    memory before and after;
//  - a full walk of each table in batches (ARP_GetNextInfoBatch, ND_GetNextInfoBatch,
//    64 KiB a call) and the first 20,000 entries one by one (ARP_GetNextEntry,
//    ND_GetNextEntryInfo): entries per second;
//  - an event burst: the simulator adds 100,000 entries in one control request and a
//    subscriber's ARP_ProcEvent / ND_ProcEvent drains them: events per second from the
//    request to the last callback.
//
//   ipsim_neigh_bench [ENTRIES]    (default 256000 per family)
#include <arpa/inet.h>
#include <poll.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "e2e/sim_process.hpp"
#include "ipclient/arp.h"
#include "ipclient/nd.h"
#include "ipproto/wire.hpp"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

std::string scenario(unsigned entries) {
    return "nodes:\n  - {number: 1, role: master}\n"
           "interfaces:\n  - {index: 1, name: GigabitEthernet1/0/1, node: 1, type: ethernet}\n"
           "neighbours:\n"
           "  - {interface: 1, address: 10.0.0.1, mac: 02:00:00:00:00:01, count: " +
           std::to_string(entries) +
           "}\n"
           "  - {interface: 1, address: \"2001:db8::1\", mac: 02:00:00:00:00:01, count: " +
           std::to_string(entries) + "}\n";
}

constexpr std::uint32_t kBatchBytes = 64 * 1024;

std::size_t walk_arp_batches() {
    std::vector<std::uint8_t> buf(kBatchBytes);
    std::uint32_t key_a = 0, key_b = 0;
    std::size_t total = 0;
    for (;;) {
        std::uint32_t len = 0;
        if (ARP_GetNextInfoBatch(key_a, key_b, kBatchBytes, buf.data(), &len) != 0 || len < 24) break;
        const std::size_t n = len / 24;
        total += n;
        const std::uint8_t* last = buf.data() + (n - 1) * 24;
        std::memcpy(&key_a, last, 4);  // the address as the module gave it
        key_b = ipc::wire::load_be<std::uint32_t>(last + 4);
    }
    return total;
}

std::size_t walk_nd_batches() {
    std::vector<std::uint8_t> buf(kBatchBytes);
    std::uint8_t addr[16] = {};
    std::uint32_t ifindex = 0;
    std::size_t total = 0;
    for (;;) {
        std::uint32_t len = 0;
        if (ND_GetNextInfoBatch(addr, ifindex, kBatchBytes, buf.data(), &len) != 0 || len < 48) break;
        const std::size_t n = len / 48;
        total += n;
        const std::uint8_t* last = buf.data() + (n - 1) * 48;
        std::memcpy(addr, last, 16);
        ifindex = ipc::wire::load_be<std::uint32_t>(last + 16);
    }
    return total;
}

std::size_t walk_arp_single(std::size_t limit) {
    ARP_ENTRY_S e{};
    std::size_t n = 0;
    while (n < limit && ARP_GetNextEntry(&e) == 0) ++n;
    return n;
}

std::size_t walk_nd_single(std::size_t limit) {
    NdEntryInfo e{};
    std::size_t n = 0;
    while (n < limit && ND_GetNextEntryInfo(0, &e) == 0) ++n;
    return n;
}

std::size_t g_events = 0;
std::uint32_t on_arp(std::uint32_t type, void*, std::uint16_t) {
    if (type == 0) ++g_events;
    return 0;
}
std::uint32_t on_nd(std::uint32_t type, NdEventRecord*) {
    if (type == 0) ++g_events;
    return 0;
}

void burst(bool nd, unsigned count) {
    g_events = 0;
    const int fd = nd ? ND_RegEvent(0, 0, on_nd) : ARP_RegEvent(0, 0, on_arp);
    if (fd < 0) {
        std::printf("%s: no subscription\n", nd ? "ND" : "ARP");
        return;
    }
    // The subscription travels on a connection of its own: wait until the service has it.
    for (int i = 0; i < 300; ++i) {
        const auto t = e2e::control({{"op", "adj.tables"}, {"family", nd ? 6 : 4}});
        if (t.value("subscribers", 0) >= 1) break;
        ::poll(nullptr, 0, 10);
    }
    const auto t0 = Clock::now();
    const auto r = e2e::control({{"op", "neigh.burst"}, {"interface", 1}, {"first", nd ? "2001:db8:7::1" : "10.200.0.1"},
                                 {"mac", "02:00:00:00:00:01"}, {"count", count}});
    if (!r.value("ok", false)) std::printf("burst refused: %s\n", r.dump().c_str());
    while (g_events < count && seconds_since(t0) < 60) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        if (nd) {
            ND_ProcEvent(static_cast<std::uint32_t>(fd));
        } else {
            ARP_ProcEvent(fd);
        }
    }
    const double s = seconds_since(t0);
    std::printf("%s event burst: %zu of %u events in %.3f s, %.0f events/s\n", nd ? "ND " : "ARP", g_events, count, s,
                static_cast<double>(g_events) / s);
    if (nd) {
        ND_DeregEvent(fd);
    } else {
        ARP_DeregEvent(fd);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned entries = argc > 1 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)) : 256000;
    e2e::SimProcess sim;
    const auto t0 = Clock::now();
    if (!sim.start({"--scenario", e2e::temp_file("neighbours.yaml", scenario(entries))})) {
        std::fprintf(stderr, "ipsimd did not start:\n%s\n", sim.log().c_str());
        return 1;
    }
    std::printf("ipsimd with %u ARP and %u ND entries: ready in %.2f s, %ld KiB resident\n", entries, entries,
                seconds_since(t0), sim.rss_kib());

    for (int round = 0; round < 3; ++round) {
        auto t = Clock::now();
        const std::size_t arp = walk_arp_batches();
        const double arp_s = seconds_since(t);
        t = Clock::now();
        const std::size_t nd = walk_nd_batches();
        const double nd_s = seconds_since(t);
        std::printf("batch walk: ARP %zu entries in %.3f s (%.0f/s), ND %zu entries in %.3f s (%.0f/s)\n", arp, arp_s,
                    static_cast<double>(arp) / arp_s, nd, nd_s, static_cast<double>(nd) / nd_s);
    }
    auto t = Clock::now();
    const std::size_t arp1 = walk_arp_single(20000);
    const double arp1_s = seconds_since(t);
    t = Clock::now();
    const std::size_t nd1 = walk_nd_single(20000);
    const double nd1_s = seconds_since(t);
    std::printf("entry by entry: ARP %zu in %.3f s (%.0f/s), ND %zu in %.3f s (%.0f/s)\n", arp1, arp1_s,
                static_cast<double>(arp1) / arp1_s, nd1, nd1_s, static_cast<double>(nd1) / nd1_s);
    std::printf("ipsimd after the walks: %ld KiB resident\n", sim.rss_kib());

    burst(false, 100000);
    burst(true, 100000);
    std::printf("ipsimd after the bursts: %ld KiB resident\n", sim.rss_kib());
    sim.stop(std::chrono::milliseconds(10000));
    return 0;
}
