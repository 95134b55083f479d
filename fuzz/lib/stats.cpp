// Replies of the IP module (statistics, BPA, settings) and of the FIB module's searches,
// counters and global data, scripted reply by reply.
#include "fuzz_support.hpp"
#include "ipclient/fib.h"
#include "ipclient/ipstat.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ipfuzz::reset_platform();
    FuzzedDataProvider in(data, size);
    const int which = in.ConsumeIntegralInRange(0, 13);
    const std::uint32_t ifindex = in.ConsumeIntegralInRange<std::uint32_t>(0, 5);
    const ipfuzz::ScriptedKernel kernel(in, 4);
    std::uint32_t words[IP_ICMPIF_COUNTERS + 8] = {};
    std::uint64_t longs[IP_BPA_RECORDS * IP_BPA_COUNTERS] = {};
    std::uint16_t half = 0;
    switch (which) {
    case 0: (void)IP_GetIPStat(1, 0, words); break;
    case 1: IP_GetShowIpStat(words); break;
    case 2: (void)IP_GetIPFWIfStat(ifindex, longs); break;
    case 3: (void)IP_GetICMPIfStat(ifindex, words); break;
    case 4: (void)IP_GetMibIfStat(ifindex, longs); break;
    case 5: (void)IP_GetBpaStat(ifindex, longs); break;
    case 6: (void)IP_GetEcmp(1, 0, words); break;
    case 7: (void)IP_GetConf(16, words); break;
    case 8: (void)IP_GetDefTTL(); break;
    case 9: (void)IP_GetIfMTU(ifindex, words); break;
    case 10: (void)IP_GetIPFWConf(&half); break;
    case 11: (void)IP_GetIPIfMIBStat(2, ifindex, longs); break;
    case 12: {
        std::uint8_t key[FIB6_SEARCH_KEY_SIZE] = {};
        std::uint64_t count = in.ConsumeIntegralInRange<std::uint64_t>(0, 4);
        static std::uint8_t entries[4 * 128 + 16];
        (void)FIB6_SearchInfo(key, &count, entries);
        break;
    }
    default: {
        std::uint8_t key[FIB4_SEARCH_KEY_SIZE] = {};
        std::uint64_t count = in.ConsumeIntegralInRange<std::uint64_t>(0, 4);
        static std::uint8_t entries[4 * 128 + 16];
        (void)FIB4_SearchInfo(key, &count, entries);
        break;
    }
    }
    return 0;
}
