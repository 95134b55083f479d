// Replies of the address module as the address driver converts them: lookups, conflicts,
// matches, walks, batches and the IP summary, scripted reply by reply.
#include "fuzz_support.hpp"
#include "ipclient/ipaddr.h"
#include "ipclient/kernel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ipfuzz::reset_platform();
    FuzzedDataProvider in(data, size);
    const int which = in.ConsumeIntegralInRange(0, 13);
    const std::uint32_t count_in = in.ConsumeIntegralInRange<std::uint32_t>(0, 40);
    const std::uint32_t cap = in.ConsumeIntegralInRange<std::uint32_t>(0, 4096);
    const ipfuzz::ScriptedKernel kernel(in, 8);
    IPAddrEntry key{};
    key.stKey.uiIfIndex = 1;
    IPAddrEntry out{};
    IPAddrInfo info{};
    IPAddrConflict conflict{};
    std::vector<IPAddrEntry> entries(count_in);
    std::vector<std::uint8_t> buf(cap);
    std::uint32_t count = count_in;
    std::uint32_t returned = 0;
    std::uint8_t mac[6] = {};
    std::uint32_t word = 0;
    switch (which) {
    case 0: (void)IPAddr_Drvk_LookupAddr(1, &key, &info); break;
    case 1: (void)IPAddr_Drvk_GetConflictAddr(&key, &out, &conflict); break;
    case 2: (void)IPAddr_Drvk_GetMatchAddr(1, &key, &count, entries.empty() ? nullptr : entries.data()); break;
    case 3: (void)IPAddr_Drvk_GetMatchAddrNum(&key, &count); break;
    case 4: (void)IPAddr_Drvk_GetNextAddrOnIf(1, 0xFFFFFFFFu, 0, &key.stKey, &info); break;
    case 5: (void)IPAddr_Drvk_GetBatchAddrOnIF(1, 0, &key.stKey, cap, buf.empty() ? nullptr : buf.data(), &returned); break;
    case 6: (void)IPAddr_Drvk_GetBatchEvNotify(1, 0, &key.stKey, cap, buf.empty() ? nullptr : buf.data(), &returned); break;
    case 7: (void)IPAddr_Drvk_GetRTEvNotifyInfo(cap, buf.empty() ? nullptr : buf.data(), &returned); break;
    case 8: (void)IPAddr_Drvk_GetNextAddrInVrf(0, 0, &out); break;
    case 9: (void)IPAddr_Drvk_GetMac(0, 0, 0, nullptr, mac, &word); break;
    case 10: (void)IPAddr_GetAddrByKey(&key.stKey, 0, &count, entries.empty() ? nullptr : entries.data()); break;
    case 11: {
        // A walk until the module says it ended (bounded: a reply that never ends it stops here).
        IPAddrEntry e{};
        for (int i = 0; i < 8 && IPAddr_GetNextAddr(1, 0xFFFFFFFFu, &e) == 0; ++i) {
        }
        break;
    }
    case 12: (void)IPAddr_Drvk_GetMatchBestNet(&key, &out); break;
    default: {
        // The IP summary text, in a buffer of the fuzzer's size.
        std::vector<char> text(cap);
        (void)IPAddr_GetIpSummary(cap, text.empty() ? nullptr : text.data());
        break;
    }
    }
    return 0;
}
