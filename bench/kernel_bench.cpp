// Per-call cost of the address driver through an in-process kernel backend that answers at
// once, and of the channel alone.
#include <benchmark/benchmark.h>

#include <cstring>

#include "ipclient/kernel.h"
#include "ipplat/testctl.h"

namespace {

std::uint32_t answer_at_once(void*, const ipp_kcall* call, std::uint8_t* reply, std::uint32_t* returned) {
    if (reply != nullptr) std::memset(reply, 0x5A, call->reply_cap);
    *returned = call->reply_cap;
    return 0;
}

void BM_LookupAddr(benchmark::State& state) {
    ipp_reset();
    ipp_kernel_set_handler(&answer_at_once, nullptr);
    IPAddrEntry entry{};
    entry.stKey.usVrfIndex = 1;
    entry.stKey.uiIfIndex = 5;
    entry.stKey.uiMethod = IPADDR_METHOD_MANUAL;
    IPAddrInfo info{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(IPAddr_Drvk_LookupAddr(0x8000, &entry, &info));
        benchmark::ClobberMemory();
    }
    ipp_reset();
}
BENCHMARK(BM_LookupAddr);

void BM_ChannelOnly(benchmark::State& state) {
    ipp_reset();
    ipp_kernel_set_handler(&answer_at_once, nullptr);
    std::uint8_t request[36] = {};
    std::uint8_t reply[52];
    std::uint32_t returned = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(CIOCTL(0xFFFF8000u, 0x260001u, sizeof request, request, sizeof reply, reply, &returned));
        benchmark::ClobberMemory();
    }
    ipp_reset();
}
BENCHMARK(BM_ChannelOnly);

void BM_GetMatchAddr64(benchmark::State& state) {
    ipp_reset();
    ipp_kernel_set_handler(&answer_at_once, nullptr);
    IPAddrEntry key{};
    IPAddrEntry out[64];
    for (auto _ : state) {
        std::uint32_t count = 64;
        benchmark::DoNotOptimize(IPAddr_Drvk_GetMatchAddr(1, &key, &count, out));
        benchmark::ClobberMemory();
    }
    ipp_reset();
}
BENCHMARK(BM_GetMatchAddr64);

}  // namespace

BENCHMARK_MAIN();
