// The ARP and ND modules' replies to entry queries, walks and batches, and the TLV reader
// behind the entry data, scripted reply by reply.
#include "fuzz_support.hpp"
#include "ipclient/arp.h"
#include "ipclient/nd.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ipfuzz::reset_platform();
    FuzzedDataProvider in(data, size);
    const int which = in.ConsumeIntegralInRange(0, 13);
    const std::uint32_t cap = in.ConsumeIntegralInRange<std::uint32_t>(0, 4096);
    const std::uint32_t ifindex = in.ConsumeIntegralInRange<std::uint32_t>(0, 5);
    if (which >= 10) {
        // The TLV reader over bytes the caller holds.
        const std::uint16_t tag = in.ConsumeIntegral<std::uint16_t>();
        const auto tlv = in.ConsumeRemainingBytes<std::uint8_t>();
        const auto len = static_cast<std::uint32_t>(tlv.size());
        std::uint64_t value = 0;
        std::uint32_t time = 0;
        const void* p = tlv.empty() ? nullptr : tlv.data();
        switch (which) {
        case 10: (void)ARP_GetPDataFromIPCIM(len, p, tag, &value); break;
        case 11: (void)ARP_GetTimeStampFromPData(len, p, &time); break;
        case 12: (void)ND_GetPDataFromIPCIM(len, p, tag, &value); break;
        default: (void)ND_GetTimeStampFromPData(len, p, &time); break;
        }
        return 0;
    }
    const ipfuzz::ScriptedKernel kernel(in, 6);
    ARP_ENTRY_S arp{};
    NdEntryInfo nd{};
    NdInfo summary{};
    NdNetToPhysicalRow row{};
    std::vector<std::uint8_t> buf(cap);
    std::uint32_t returned = 0;
    std::uint32_t word = 0;
    const std::uint8_t addr[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    NdIPv6Addr v6{};
    std::memcpy(&v6, addr, sizeof v6);
    switch (which) {
    case 0: (void)ARP_GetEntry(0, 0x0100000Au, &arp); break;
    case 1: (void)ARP_GetNextEntry(&arp); break;
    case 2: (void)arp_GetEntryExtend(ifindex, 0x0100000Au, &arp); break;
    case 3: (void)ARP_GetEntryByIP(0x0100000Au, &arp); break;
    case 4: (void)ARP_GetNextInfoBatch(0, 0, cap, buf.empty() ? nullptr : buf.data(), &returned); break;
    case 5: (void)ND_GetEntryInfo(ND_ENTRY_CMD_EXACT, 0, ifindex, addr, &nd); break;
    case 6: (void)ND_GetNextEntryInfo(0, &nd); break;
    case 7: (void)ND_GetInfo(ifindex, v6, &summary); break;
    case 8: (void)ND_GetFirstNetToPhysicalTable(0, &row); break;
    default: (void)ND_GetRefreshTime(ifindex, v6, &word); break;
    }
    return 0;
}
