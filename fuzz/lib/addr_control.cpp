// The address control socket: the answers and interleaved interface-configuration messages
// that an address change waits through, then IPAddr_HandleIfCfgMsg on what was queued and
// on fresh datagrams.
#include "fuzz_support.hpp"
#include "ipclient/ipaddr.h"
#include "ipclient/kernel.h"

namespace {
std::uint32_t on_ifcfg(std::uint32_t, std::uint32_t, std::uint32_t, std::uint16_t) { return 0; }
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ipfuzz::reset_platform();
    FuzzedDataProvider in(data, size);
    {
        ipfuzz::Pair pair;
        if (!pair.ok()) return 0;
        pair.feed(ipfuzz::datagrams(in, 16, 2048));
        pair.hang_up();
        IPAddrEntry entry{};
        entry.stKey.uiIfIndex = 1;
        switch (in.ConsumeIntegralInRange(0, 3)) {
        case 0: (void)IPAddr_AddAddr(pair.theirs, &entry, 0, 0); break;
        case 1: (void)IPAddr_DelAddr(pair.theirs, &entry, 0); break;
        case 2: (void)IPAddr_SmoothStart(pair.theirs, 1, 0); break;
        default: (void)IPAddr_EnableNetProtocol(pair.theirs, 1, 1); break;
        }
        g_pfIFCfg_EvProc = &on_ifcfg;
        for (int i = 0; i < 20; ++i) (void)IPAddr_HandleIfCfgMsg(pair.theirs);
        g_pfIFCfg_EvProc = nullptr;
    }
    {
        ipfuzz::Pair pair;
        if (!pair.ok()) return 0;
        const auto grams = ipfuzz::datagrams(in, 8, 2048);
        pair.feed(grams);
        g_pfIFCfg_EvProc = &on_ifcfg;
        for (std::size_t i = 0; i <= grams.size(); ++i) (void)IPAddr_HandleIfCfgMsg(pair.theirs);
        g_pfIFCfg_EvProc = nullptr;
    }
    IPAddr_Close(-1);  // frees whatever is still queued
    return 0;
}
