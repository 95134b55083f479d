// The simulator as a device: the cost of one address-driver lookup through ipsimd against a
// bare AF_UNIX SOCK_SEQPACKET round trip of the same sizes between the same two processes
// (an echo on the simulator's device channel), and the simulator's memory with 100,000
// addresses.
//
//   ipsim_bench [--benchmark_* options]
//
// Prints Google Benchmark's table, then the ratio and the memory figures.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "e2e/sim_process.hpp"
#include "ipclient/kernel.h"
#include "ipproto/endpoints.hpp"
#include "ipproto/wire.hpp"

namespace {

e2e::SimProcess* g_sim = nullptr;

IPAddrEntry lookup_key() {
    IPAddrEntry e{};
    e.stKey.usVrfIndex = 0xFFFF;
    e.stKey.uiIfIndex = 0xFFFFFFFFu;
    const std::uint8_t addr[4] = {10, 1, 1, 1};
    std::memcpy(&e.stKey.uiAddr, addr, 4);
    return e;
}

// A raw connection to the device channel, greeted, for echo round trips.
int raw_device() {
    sockaddr_un sun{};
    const socklen_t len = ipc::names::device(e2e::instance(), &sun);
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&sun), len) != 0) return -1;
    std::uint8_t hello[12] = {};
    ipc::wire::store_be(hello, std::uint32_t{1});
    std::uint8_t ans[16];
    ::send(fd, hello, sizeof hello, 0);
    ::recv(fd, ans, sizeof ans, 0);
    return fd;
}

// The same sizes as a lookup: a 56-byte request (call word, channel fields, 36-byte body)
// and a 60-byte answer.
void echo(int fd, std::uint8_t* req, std::uint8_t* ans) {
    ::send(fd, req, 56, 0);
    ::recv(fd, ans, 64, 0);
}

void BM_LookupThroughSimulator(benchmark::State& state) {
    const IPAddrEntry key = lookup_key();
    IPAddrInfo info{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(IPAddr_Drvk_LookupAddr(0x8000, &key, &info));
    }
}
BENCHMARK(BM_LookupThroughSimulator);

void BM_BareRoundTrip(benchmark::State& state) {
    const int fd = raw_device();
    std::uint8_t req[56] = {}, ans[64];
    ipc::wire::store_be(req, std::uint32_t{23});
    for (auto _ : state) echo(fd, req, ans);
    ::close(fd);
}
BENCHMARK(BM_BareRoundTrip);

template <class F>
double ns_per_call(F&& f, int n) {
    const auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < n; ++i) f();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count() / n;
}

void ratio() {
    const IPAddrEntry key = lookup_key();
    IPAddrInfo info{};
    const int fd = raw_device();
    std::uint8_t req[56] = {}, ans[64];
    ipc::wire::store_be(req, std::uint32_t{23});
    double best_lookup = 1e18, best_bare = 1e18;
    for (int round = 0; round < 5; ++round) {
        best_bare = std::min(best_bare, ns_per_call([&] { echo(fd, req, ans); }, 50000));
        best_lookup = std::min(best_lookup, ns_per_call([&] { IPAddr_Drvk_LookupAddr(0x8000, &key, &info); }, 50000));
    }
    ::close(fd);
    std::printf("lookup through ipsimd: %.0f ns, bare round trip: %.0f ns, ratio %.2f\n", best_lookup, best_bare,
                best_lookup / best_bare);
}

std::string big_scenario(int addresses) {
    std::string s = "nodes:\n  - {number: 1, role: master}\ninterfaces:\n";
    const int interfaces = addresses / 100;
    for (int i = 1; i <= interfaces; ++i) {
        s += "  - {index: " + std::to_string(i) + ", name: GigabitEthernet1/0/" + std::to_string(i) +
             ", node: 1, type: ethernet}\n";
    }
    s += "addresses:\n";
    for (int i = 0; i < addresses; ++i) {
        const int itf = i / 100 + 1;
        s += "  - {interface: " + std::to_string(itf) + ", address: 10." + std::to_string(itf / 256) + "." +
             std::to_string(itf % 256) + "." + std::to_string(i % 100 + 1) + "/24";
        s += i % 100 == 0 ? "}\n" : ", sub: true}\n";
    }
    return s;
}

void memory() {
    e2e::SimProcess small;
    if (!small.start()) return;
    const long base = small.rss_kib();
    small.stop();
    e2e::SimProcess big;
    const auto t0 = std::chrono::steady_clock::now();
    if (!big.start({"--scenario", e2e::temp_file("addresses-100k.yaml", big_scenario(100000))})) {
        std::printf("the 100,000-address scenario did not start\n%s\n", big.log().c_str());
        return;
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::printf("ipsimd memory: %ld KiB on the default scenario, %ld KiB with 100,000 addresses (ready in %.2f s)\n",
                base, big.rss_kib(), secs);
    const IPAddrEntry key = lookup_key();
    IPAddrInfo info{};
    std::printf("lookup with 100,000 addresses: %.0f ns\n",
                ns_per_call([&] { IPAddr_Drvk_LookupAddr(0x8000, &key, &info); }, 20000));
    big.stop();
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    {
        e2e::SimProcess sim;
        if (!sim.start()) {
            std::fprintf(stderr, "ipsimd did not start:\n%s\n", sim.log().c_str());
            return 1;
        }
        g_sim = &sim;
        benchmark::RunSpecifiedBenchmarks();
        ratio();
        sim.stop();
        g_sim = nullptr;
    }
    memory();
    benchmark::Shutdown();
    return 0;
}
