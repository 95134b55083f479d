// The layer-2 VPN bridge: loading the layer-2 VPN library at run time into the caller's
// table of entry points, and the VSI membership predicates answered through that table.
#include <dlfcn.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "ipclient/arp.h"
#include "ipplat/platform.h"

namespace {

// The entry points in slot order; the order is part of the table's interface.
constexpr std::array<const char*, L2VPN_FUNC_COUNT> kSymbols{{
    "L2VPN_Init",                          // 0
    "L2VPN_Fini",                          // 1
    "L2VPN_Register",                      // 2
    "L2VPN_Deregister",                    // 3
    "L2VPN_HandleMsg",                     // 4
    "L2VPN_FinalStatusNotify",             // 5
    "L2VPN_RequestBatch",                  // 6
    "L2VPN_GetVsiIndexByXcgName",          // 7
    "L2VPN_GetXcgNameByVsiIndex",          // 8
    "L2VPN_XConnOpen",                     // 9
    "L2VPN_XConnClose",                    // 10
    "L2VPN_GetFirstXConnByXcgName",        // 11
    "L2VPN_GetNextXConnByXcgName",         // 12
    "L2VPN_GetVsiIndexByName",             // 13
    "L2VPN_GetNextVsiByName",              // 14
    "L2VPN_GetNameByVsiIndex",             // 15
    "L2VPN_GetVsiInfoByName",              // 16
    "L2VPN_RegEvcEvent",                   // 17
    "L2VPN_DeregEvcEvent",                 // 18
    "L2VPN_RegL2vifEvent",                 // 19
    "L2VPN_DeregL2vifEvent",               // 20
    "L2VPN_SelectType_Set",                // 21
    "L2VPN_GetL2vifKeyByEvcKey",           // 22
    "L2VPN_GetEvcEncap",                   // 23
    "L2VPN_GetVxlanByVsiIndex",            // 24
    "L2VPN_GetVsiIndexByNameExt",          // 25
    "L2VPN_GetVsiIFByVsiIndex",            // 26
    "L2VPN_GetL2vifInfo",                  // 27
    "L2VPN_IsTunnelInVsi",                 // 28
    "L2VPN_GetAcByPortVlanAndEncapTypeExt", // 29
    "L2VPN_GetVlanVxlanMappingByVlan",     // 30
}};

using Slot = L2VPN_FUNC_PF;
static_assert(sizeof(ARP_L2VPN_FUNC_S) == kSymbols.size() * sizeof(Slot));
static_assert(sizeof(Slot) == sizeof(void*));
static_assert(offsetof(ARP_L2VPN_FUNC_S, pfGetVsiInfoByName) == 16 * sizeof(Slot));
static_assert(offsetof(ARP_L2VPN_FUNC_S, pfGetL2vifKeyByEvcKey) == 22 * sizeof(Slot));

// Slot n of the table, as the pointer-sized bytes it is made of.
std::uint8_t* slot_bytes(ARP_L2VPN_FUNC_S* table, std::size_t n) noexcept {
    return reinterpret_cast<std::uint8_t*>(table) + n * sizeof(Slot);
}

// The circuit's layer-2 virtual interface key, or false when it cannot be had. The key is
// cleared before the call.
bool l2vif_key(const ARP_L2VPN_FUNC_S* table, const void* evc_key, std::uint32_t vsi_index,
               L2VPN_L2VIF_KEY_S& key) noexcept {
    if (table == nullptr || evc_key == nullptr || table->pfGetL2vifKeyByEvcKey == nullptr) return false;
    key = L2VPN_L2VIF_KEY_S{};
    return table->pfGetL2vifKeyByEvcKey(evc_key, &key, vsi_index) == 0;
}

// The named VSI's information, or false. The record is cleared before the call.
bool vsi_info(const ARP_L2VPN_FUNC_S* table, const char* name, L2VPN_VSI_INFO_S& info) noexcept {
    if (table == nullptr || name == nullptr || table->pfGetVsiInfoByName == nullptr) return false;
    info = L2VPN_VSI_INFO_S{};
    return table->pfGetVsiInfoByName(name, &info) == 0;
}

// The circuit is in the VSI vsi_index (never the index of no VSI); its key in `key`.
bool in_vsi(const ARP_L2VPN_FUNC_S* table, const void* evc_key, std::uint32_t vsi_index,
            L2VPN_L2VIF_KEY_S& key) noexcept {
    return l2vif_key(table, evc_key, vsi_index, key) && key.uiVsiIndex != L2VPN_VSI_INDEX_NONE &&
           key.uiVsiIndex == vsi_index;
}

}  // namespace

extern "C" {

uint32_t ARP_L2VPNAddRef(ARP_L2VPN_FUNC_S* pstFunc, void** ppHandle) {
    if (ppHandle == nullptr) return IPSTATUS_FAILED;
    *ppHandle = nullptr;
    if (pstFunc == nullptr) return IPSTATUS_FAILED;
    void* handle = dlopen(L2VPN_LIBRARY_PATH, RTLD_LAZY);
    if (handle == nullptr) return IPSTATUS_BAD_REPLY;
    *ppHandle = handle;
    for (std::size_t n = 0; n < kSymbols.size(); ++n) {
        void* const symbol = dlsym(handle, kSymbols[n]);
        std::memcpy(slot_bytes(pstFunc, n), &symbol, sizeof symbol);
    }
    for (std::size_t n = 0; n < kSymbols.size(); ++n) {
        void* symbol = nullptr;
        std::memcpy(&symbol, slot_bytes(pstFunc, n), sizeof symbol);
        if (symbol == nullptr) return IPSTATUS_MORE_DATA;
    }
    return IPSTATUS_OK;
}

void ARP_L2VPNRelease(void* pHandle) {
    if (pHandle != nullptr) (void)dlclose(pHandle);
}

uint32_t ARP_IsVsiIfInVsi(const ARP_L2VPN_FUNC_S* pstFunc, const char* pcVsiName, uint32_t uiIfIndex) {
    L2VPN_VSI_INFO_S info;
    if (!vsi_info(pstFunc, pcVsiName, info)) return 0;
    if (info.uiVsiIfNumber == L2VPN_VSI_IF_NONE) return 0;
    char name[L2VPN_VSI_IF_NAME_SIZE];
    (void)scnprintf(name, sizeof name, "Vsi-interface%d", static_cast<int>(info.uiVsiIfNumber));
    const std::uint32_t found = IF_GetIfIndexByFullName(name);
    // A name that resolves to no interface gives 0, which an interface index of 0 matches.
    return found == uiIfIndex ? 1u : 0u;
}

uint32_t ARP_IsAcIfAndSrvIDInVsiByName(const ARP_L2VPN_FUNC_S* pstFunc, const void* pEvcKey, const char* pcVsiName) {
    L2VPN_L2VIF_KEY_S key;
    if (!l2vif_key(pstFunc, pEvcKey, L2VPN_VSI_INDEX_NONE, key)) return 0;
    if (key.uiVsiIndex == L2VPN_VSI_INDEX_NONE) return 0;
    L2VPN_VSI_INFO_S info;
    if (!vsi_info(pstFunc, pcVsiName, info)) return 0;
    return key.uiVsiIndex == info.uiVsiIndex ? 1u : 0u;
}

uint32_t ARP_IsAcIfAndSrvIDInVsi(const ARP_L2VPN_FUNC_S* pstFunc, const void* pEvcKey, uint32_t uiVsiIndex) {
    L2VPN_L2VIF_KEY_S key;
    return in_vsi(pstFunc, pEvcKey, uiVsiIndex, key) ? 1u : 0u;
}

uint32_t ARP_CheckVsiIndexAndLinkId(const ARP_L2VPN_FUNC_S* pstFunc, const void* pEvcKey, uint32_t uiVsiIndex,
                                    uint32_t* puiLinkId) {
    if (puiLinkId == nullptr) return 0;
    L2VPN_L2VIF_KEY_S key;
    if (!in_vsi(pstFunc, pEvcKey, uiVsiIndex, key)) return 0;
    if (key.uiLinkId == L2VPN_LINK_ID_NONE) return 0;
    *puiLinkId = key.uiLinkId;
    return 1;
}

}  // extern "C"
