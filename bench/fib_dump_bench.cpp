// Writing the forwarding table of one node with many routes: routes per second, and the
// process's peak memory, which must not grow with the number of routes (the dump streams
// one chunk and one line at a time).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "ipclient/fib.h"
#include "ipplat/testctl.h"
#include "ipproto/wire.hpp"

namespace {

constexpr std::uint32_t kEntrySize = 48;
constexpr std::uint32_t kDumpRequestId = 0x640001;

struct Table {
    std::uint64_t routes;
    std::uint64_t produced;
};

void put32(std::uint8_t* p, std::uint32_t v) { ipc::wire::store_be(p, v); }

// Fills one chunk with as many routes as fit, generated on the fly.
int produce(void* ctx, uint32_t, uint8_t* buf, uint32_t cap, uint32_t* len) {
    auto* t = static_cast<Table*>(ctx);
    if (t->produced >= t->routes) return 0;
    const std::uint32_t fit = (cap - 8) / kEntrySize;
    const auto n = static_cast<std::uint32_t>(std::min<std::uint64_t>(fit, t->routes - t->produced));
    std::memset(buf, 0, 8 + std::size_t{n} * kEntrySize);
    std::memcpy(buf + 4, &kEntrySize, 4);
    for (std::uint32_t i = 0; i < n; ++i) {
        std::uint8_t* e = buf + 8 + std::size_t{i} * kEntrySize;
        const auto r = static_cast<std::uint32_t>(t->produced + i);
        // 10.x.y.0: the route's number in the two middle bytes of the prefix.
        put32(e + 4, 0x0A000000u + (r & 0xFFFFu) * 256u);
        put32(e + 8, 0xFFFFFF00u);
        e[12] = 10, e[15] = 1;
        put32(e + 16, 7);
        put32(e + 20, 0xFFFFFFFFu);
        put32(e + 24, 0xFFFFFFFFu);
        put32(e + 44, 99);
    }
    t->produced += n;
    *len = 8 + n * kEntrySize;
    return 1;
}

long peak_rss_kib() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

void BM_SaveForwardingTable(benchmark::State& state) {
    ipp_reset();
    const std::uint16_t nodes[] = {1};
    ipp_dir_set_nodes(nodes, 1);
    ipp_dir_set_node_up(1, 1);
    ipp_dir_set_node_location(1, 1, 2, 0);
    const std::string path = "/tmp/ipclient-fib-bench-" + std::to_string(::getpid());
    Table table{static_cast<std::uint64_t>(state.range(0)), 0};
    for (auto _ : state) {
        table.produced = 0;
        ipp_dump_set_producer(1, kDumpRequestId, &produce, &table);
        if (FIB_SaveForwardingTable(path.c_str()) != 0) state.SkipWithError("dump failed");
    }
    state.counters["routes/s"] =
        benchmark::Counter(static_cast<double>(table.routes), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["peak_rss_KiB"] = static_cast<double>(peak_rss_kib());
    std::remove(path.c_str());
    ipp_reset();
}
BENCHMARK(BM_SaveForwardingTable)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
