// Address lookups: each checks its pointers, builds a key and asks the address module.
#include <cstdint>
#include <cstring>

#include "ipclient/ipaddr.h"
#include "ipplat/platform.h"

namespace {

constexpr std::uint32_t kModeBest = 1;

IPAddrKey key_of(std::uint16_t vrf, std::uint32_t ifindex, std::uint32_t addr, std::uint32_t method) noexcept {
    IPAddrKey k{};
    k.usVrfIndex = vrf;
    k.uiIfIndex = ifindex;
    k.uiAddr = addr;
    k.uiMethod = method;
    return k;
}

IPAddrEntry match_key(const IPAddrKey& key, std::uint32_t mode) noexcept {
    IPAddrEntry e{};
    e.stKey = key;
    e.uiFlag = mode;
    return e;
}

std::uint32_t best_one(const IPAddrKey& key, IPAddrEntry* entry) noexcept {
    std::uint32_t count = 1;
    return IPAddr_GetAddrByKey(&key, kModeBest, &count, entry);
}

}  // namespace

extern "C" {

uint32_t IPAddr_GetAddrByKey(const IPAddrKey* pstKey, uint32_t uiMode, uint32_t* puiCount, IPAddrEntry* pstEntries) {
    if (pstKey == nullptr || puiCount == nullptr) return IPSTATUS_FAILED;
    const IPAddrEntry match = match_key(*pstKey, uiMode);
    if (pstEntries == nullptr) return IPAddr_Drvk_GetMatchAddrNum(&match, puiCount);
    const auto local = static_cast<std::uint16_t>(LIP_GetLocalLip());
    return IPAddr_Drvk_GetMatchAddr(local, &match, puiCount, pstEntries);
}

uint32_t IPAddr_GetAddrInVrf(uint16_t usVrf, uint32_t uiAddr, uint32_t uiMethod, IPAddrEntry* pstEntry) {
    return best_one(key_of(usVrf, IPADDR_ANY_IFINDEX, uiAddr, uiMethod), pstEntry);
}

uint32_t IPAddr_GetAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMethod, IPAddrEntry* pstEntry) {
    return best_one(key_of(IPADDR_ANY_VRF, uiIfIndex, uiAddr, uiMethod), pstEntry);
}

uint32_t IPAddr_MatchBestNetByKey(const IPAddrKey* pstKey, uint32_t uiMode, IPAddrEntry* pstEntry) {
    if (pstKey == nullptr) return IPSTATUS_FAILED;
    const IPAddrEntry match = match_key(*pstKey, uiMode);
    IPAddrEntry result{};
    const std::uint32_t status = IPAddr_Drvk_GetMatchBestNet(&match, &result);
    if (pstEntry != nullptr) std::memcpy(pstEntry, &result, sizeof result);
    return status;
}

uint32_t IPAddr_MatchBestNetInVrf(uint16_t usVrf, uint32_t uiAddr, uint32_t uiMethod, IPAddrEntry* pstEntry) {
    const IPAddrKey key = key_of(usVrf, IPADDR_ANY_IFINDEX, uiAddr, uiMethod);
    return IPAddr_MatchBestNetByKey(&key, kModeBest, pstEntry);
}

uint32_t IPAddr_MatchBestNet(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMethod, IPAddrEntry* pstEntry) {
    const IPAddrKey key = key_of(IPADDR_ANY_VRF, uiIfIndex, uiAddr, uiMethod);
    return IPAddr_MatchBestNetByKey(&key, kModeBest, pstEntry);
}

uint32_t IPAddr_SelectSrcAddr(uint32_t uiDestination, uint16_t usVrf, uint32_t uiIfIndex, uint32_t uiAddr,
                              uint32_t* puiSource) {
    if (puiSource == nullptr) return IPSTATUS_FAILED;
    return IPAddr_Drvk_SelectSrcAddr(uiDestination, usVrf, uiIfIndex, uiAddr, puiSource);
}

uint32_t IPAddr_SearchGatewayAddr(uint32_t uiIfIndex, uint32_t uiGateway, uint16_t usVrf, IPAddrEntry* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    return IPAddr_Drvk_SearchGWAddr(uiIfIndex, uiGateway, usVrf, pstEntry);
}

uint32_t IPAddr_GetPriorAddr(uint32_t uiIfIndex, uint32_t uiMethodMask, IPAddrEntry* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    return IPAddr_Drvk_GetPriorAddrOnIf(uiIfIndex, uiMethodMask, pstEntry);
}

uint32_t IPAddr_GetFwdAddrInVrf(uint16_t usVrf, IPAddrEntry* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    return IPAddr_Drvk_GetFwdAddrInVrf(usVrf, pstEntry);
}

uint32_t IPAddr_GetMaxAddrInVrf(uint16_t usVrf, uint32_t uiWord1, uint32_t uiWord2, IPAddrEntry* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    return IPAddr_Drvk_GetMaxAddrInVrf(usVrf, uiWord1, uiWord2, pstEntry);
}

uint32_t IPAddr_GetAddrByIP(uint32_t uiAddr, uint32_t uiWord, IPAddrEntry* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    return IPAddr_Drvk_GetMatchAddrByIP(uiAddr, uiWord, pstEntry);
}

uint32_t IPAddr_GetNextAddrByIP(uint32_t uiWord, IPAddrEntry* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    return IPAddr_Drvk_GetNextMatchAddrByIP(uiWord, pstEntry);
}

uint32_t IPAddr_GetFirstAddrInVrf(uint16_t usVrf, uint32_t uiWord, IPAddrEntry* pstEntry) {
    return IPAddr_GetNextAddrInVrf(usVrf, uiWord, pstEntry);
}

uint32_t IPAddr_GetNextAddrInVrf(uint16_t usVrf, uint32_t uiWord, IPAddrEntry* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    return IPAddr_Drvk_GetNextAddrInVrf(usVrf, uiWord, pstEntry);
}

uint32_t IPAddr_GetMac(uint32_t uiWord, uint16_t usHalf, uint32_t uiValue, const uint8_t* pucAddr, uint8_t* pucMac,
                       uint32_t* puiWord) {
    if (pucMac == nullptr || puiWord == nullptr) return IPSTATUS_FAILED;
    return IPAddr_Drvk_GetMac(uiWord, usHalf, uiValue, pucAddr, pucMac, puiWord);
}

}  // extern "C"
