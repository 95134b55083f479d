// Walking an interface's addresses, batches, and the directed-broadcast test.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ipclient/ipaddr.h"
#include "ipproto/kmod_addr.hpp"
#include "ipproto/raii.hpp"

namespace {

constexpr std::uint16_t kInterfaceOrder = 1;
constexpr std::uint16_t kIPOrder = 0;

IPAddrKey start_key() noexcept {
    IPAddrKey k{};
    k.usVrfIndex = IPADDR_ANY_VRF;
    return k;
}

std::uint32_t next(std::uint32_t ifindex, std::uint32_t mask, std::uint16_t mode, const IPAddrKey& key,
                   IPAddrEntry* entry) noexcept {
    IPAddrInfo info{};
    const std::uint32_t status = IPAddr_Drvk_GetNextAddrOnIf(ifindex, mask, mode, &key, &info);
    if (status == IPSTATUS_OK) std::memcpy(entry, &info.stEntry, sizeof *entry);
    return status;
}

std::uint32_t network_word(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) noexcept {
    const std::uint8_t bytes[4] = {a, b, c, d};
    std::uint32_t w;
    std::memcpy(&w, bytes, sizeof w);
    return w;
}

}  // namespace

extern "C" {

uint32_t IPAddr_GetFirstAddr(uint32_t uiIfIndex, uint32_t uiMethodMask, IPAddrEntry* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    return next(uiIfIndex, uiMethodMask, kInterfaceOrder, start_key(), pstEntry);
}

uint32_t IPAddr_GetNextAddr(uint32_t uiIfIndex, uint32_t uiMethodMask, IPAddrEntry* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    return next(uiIfIndex, uiMethodMask, kInterfaceOrder, pstEntry->stKey, pstEntry);
}

uint32_t IPAddr_GetFirstAddrIPOrder(uint32_t uiIfIndex, uint32_t uiMethodMask, IPAddrEntry* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    return next(uiIfIndex, uiMethodMask, kIPOrder, start_key(), pstEntry);
}

uint32_t IPAddr_GetNextAddrIPOrder(uint32_t uiIfIndex, uint32_t uiMethodMask, IPAddrEntry* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    return next(uiIfIndex, uiMethodMask, kIPOrder, pstEntry->stKey, pstEntry);
}

uint32_t IPAddr_GetFirstBatchAddr(uint32_t uiIfIndex, uint32_t uiWord, uint32_t uiCount, IPAddrEntry* pstEntries,
                                  uint32_t* puiCountOut) {
    const IPAddrKey key = start_key();
    return IPAddr_GetNextBatchAddr(uiIfIndex, uiWord, &key, uiCount, pstEntries, puiCountOut);
}

uint32_t IPAddr_GetNextBatchAddr(uint32_t uiIfIndex, uint32_t uiWord, const IPAddrKey* pstKey, uint32_t uiCount,
                                 IPAddrEntry* pstEntries, uint32_t* puiCountOut) {
    using ipc::proto::addr::kInfoLen;
    if (pstEntries == nullptr || puiCountOut == nullptr || pstKey == nullptr) return IPSTATUS_FAILED;
    const std::uint64_t capacity = std::uint64_t{uiCount} * kInfoLen;
    if (capacity > UINT32_MAX) return IPSTATUS_FAILED;
    const ipc::CBlock<std::uint8_t> buf(static_cast<std::uint8_t*>(std::malloc(capacity != 0 ? capacity : 1)));
    if (!buf) return IPSTATUS_FAILED;
    std::uint32_t returned = 0;
    const std::uint32_t status = IPAddr_Drvk_GetBatchAddrOnIF(uiIfIndex, uiWord, pstKey,
                                                              static_cast<std::uint32_t>(capacity), buf.get(), &returned);
    if (status == IPSTATUS_OK || status == IPADDR_LAST_BATCH) {
        // Only records inside the buffer are read, whatever length the module claims.
        const std::uint32_t n = static_cast<std::uint32_t>(std::min<std::uint64_t>(returned, capacity) / kInfoLen);
        for (std::uint32_t i = 0; i < n; ++i) {
            IPAddrInfo info;
            std::memcpy(&info, buf.get() + std::size_t{i} * kInfoLen, sizeof info);
            ipc::proto::addr::to_host(&info);
            pstEntries[i] = info.stEntry;
        }
        *puiCountOut = n;
    }
    return status;
}

uint32_t IPAddr_IsBroadcast(uint32_t uiIfIndex, uint32_t uiMethodMask, uint32_t uiAddr) {
    if (uiAddr == 0 || uiAddr == 0xFFFFFFFFu) return 1;
    const std::uint32_t host32 = network_word(255, 255, 255, 255);
    const std::uint32_t host31 = network_word(255, 255, 255, 254);
    IPAddrEntry entry{};
    entry.stKey.usVrfIndex = 0xFFFF;
    entry.stKey.usReserved = 0xFFFF;
    entry.stKey.uiIfIndex = uiIfIndex;
    entry.stKey.uiMethod = uiMethodMask;
    for (;;) {
        const IPAddrKey previous = entry.stKey;
        if (IPAddr_GetNextAddr(uiIfIndex, uiMethodMask, &entry) != IPSTATUS_OK) return 0;
        // A module that does not move on would hold the walk forever.
        if (std::memcmp(&previous, &entry.stKey, sizeof previous) == 0) return 0;
        const std::uint32_t mask = entry.stKey.uiMask;
        if (mask == host32 || mask == host31) continue;  // such networks have no broadcast address
        if (uiAddr == ((entry.stKey.uiAddr & mask) | ~mask)) return 1;
    }
}

}  // extern "C"
