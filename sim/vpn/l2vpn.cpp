// libl2vpn.so of the simulated device: the layer-2 VPN entry points, answered from the
// running simulator's VSIs (vpn_libs.h).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "control_client.hpp"
#include "ipclient/arp.h"
#include "vpn_libs.h"

// The records are the ones the IP client library reads.
static_assert(L2VPN_SIM_INFO_SIZE == sizeof(L2VPN_VSI_INFO_S));
static_assert(L2VPN_SIM_INFO_INDEX == offsetof(L2VPN_VSI_INFO_S, uiVsiIndex));
static_assert(L2VPN_SIM_INFO_IF_NUMBER == offsetof(L2VPN_VSI_INFO_S, uiVsiIfNumber));
static_assert(L2VPN_SIM_KEY_SIZE == sizeof(L2VPN_L2VIF_KEY_S));
static_assert(L2VPN_SIM_NONE == L2VPN_VSI_INDEX_NONE && L2VPN_SIM_NONE == L2VPN_VSI_IF_NONE);
static_assert(L2VPN_SIM_LINK_NONE == L2VPN_LINK_ID_NONE);
static_assert(sizeof(L2VPN_SIM_EVC_KEY_S) == 8);
// The entry points have the types the client calls them by.
static_assert(std::is_same_v<decltype(&L2VPN_GetVsiInfoByName), L2VPN_GET_VSI_INFO_PF>);
static_assert(std::is_same_v<decltype(&L2VPN_GetVsiIndexByName), L2VPN_GET_VSI_INDEX_PF>);
static_assert(std::is_same_v<decltype(&L2VPN_GetL2vifKeyByEvcKey), L2VPN_GET_L2VIF_KEY_PF>);
static_assert(std::is_same_v<decltype(&L2VPN_GetVxlanByVsiIndex), L2VPN_GET_VXLAN_PF>);

namespace {

using nlohmann::json;

void put32(void* record, std::size_t offset, std::uint32_t value) noexcept {
    std::memcpy(static_cast<std::uint8_t*>(record) + offset, &value, sizeof value);
}

// A 32-bit field that may be null (none).
std::uint32_t or_none(const json& answer, const char* key, std::uint32_t none) noexcept {
    return ipsim_vpn::u32(answer, key).value_or(none);
}

// Fills the VSI information record for the VSI named `name`.
std::uint32_t vsi_info(const char* name, void* info) noexcept {
    if (name == nullptr || info == nullptr) return L2VPN_SIM_FAILED;
    try {
        const auto answer = ipsim_vpn::ask({{"op", "vpn.vsi"}, {"name", name}});
        if (!answer) return L2VPN_SIM_FAILED;
        const auto index = ipsim_vpn::u32(*answer, "index");
        const auto it = answer->find("name");
        if (!index || it == answer->end() || !it->is_string()) return L2VPN_SIM_FAILED;
        const auto& vsi_name = it->get_ref<const std::string&>();
        const auto circuits = answer->find("circuits");
        const std::size_t count = circuits != answer->end() && circuits->is_array() ? circuits->size() : 0;
        std::memset(info, 0, L2VPN_SIM_INFO_SIZE);
        put32(info, L2VPN_SIM_INFO_INDEX, *index);
        std::memcpy(static_cast<char*>(info) + L2VPN_SIM_INFO_NAME, vsi_name.data(),
                    std::min<std::size_t>(vsi_name.size(), L2VPN_SIM_NAME_SIZE - 1));
        put32(info, L2VPN_SIM_INFO_VXLAN, or_none(*answer, "vxlan", L2VPN_SIM_NONE));
        put32(info, L2VPN_SIM_INFO_CIRCUITS, static_cast<std::uint32_t>(count));
        put32(info, L2VPN_SIM_INFO_IF_NUMBER, or_none(*answer, "vsi_interface", L2VPN_SIM_NONE));
        return 0;
    } catch (...) {
        return L2VPN_SIM_FAILED;
    }
}

}  // namespace

extern "C" {

uint32_t L2VPN_GetVsiInfoByName(const char* pcName, L2VPN_VSI_INFO_S* pInfo) { return vsi_info(pcName, pInfo); }

uint32_t L2VPN_GetVsiIndexByName(const char* pcName, L2VPN_VSI_INFO_S* pInfo, uint32_t uiIfIndex) {
    (void)uiIfIndex;
    return vsi_info(pcName, pInfo);
}

uint32_t L2VPN_GetL2vifKeyByEvcKey(const void* pEvcKey, L2VPN_L2VIF_KEY_S* pKey, uint32_t uiVsiIndex) {
    (void)uiVsiIndex;
    if (pEvcKey == nullptr || pKey == nullptr) return L2VPN_SIM_FAILED;
    L2VPN_SIM_EVC_KEY_S evc;
    std::memcpy(&evc, pEvcKey, sizeof evc);
    put32(pKey, 0, L2VPN_SIM_NONE);
    put32(pKey, 4, L2VPN_SIM_LINK_NONE);
    try {
        const auto answer =
            ipsim_vpn::ask({{"op", "vpn.circuit"}, {"interface", evc.uiIfIndex}, {"service", evc.uiServiceId}});
        if (!answer) return L2VPN_SIM_FAILED;
        const auto vsi = ipsim_vpn::u32(*answer, "vsi");
        if (!vsi) return L2VPN_SIM_FAILED;
        put32(pKey, 0, *vsi);
        put32(pKey, 4, or_none(*answer, "link", L2VPN_SIM_LINK_NONE));
        return 0;
    } catch (...) {
        return L2VPN_SIM_FAILED;
    }
}

uint32_t L2VPN_GetVxlanByVsiIndex(uint32_t uiVsiIndex) {
    try {
        const auto answer = ipsim_vpn::ask({{"op", "vpn.vsi"}, {"index", uiVsiIndex}});
        return answer ? or_none(*answer, "vxlan", L2VPN_SIM_NONE) : L2VPN_SIM_NONE;
    } catch (...) {
        return L2VPN_SIM_NONE;
    }
}

// The entry points the simulated device does not serve.
#define L2VPN_SIM_UNSERVED(name) \
    uint32_t name(void) { return L2VPN_SIM_FAILED; }

L2VPN_SIM_UNSERVED(L2VPN_Init)
L2VPN_SIM_UNSERVED(L2VPN_Fini)
L2VPN_SIM_UNSERVED(L2VPN_Register)
L2VPN_SIM_UNSERVED(L2VPN_Deregister)
L2VPN_SIM_UNSERVED(L2VPN_HandleMsg)
L2VPN_SIM_UNSERVED(L2VPN_FinalStatusNotify)
L2VPN_SIM_UNSERVED(L2VPN_RequestBatch)
L2VPN_SIM_UNSERVED(L2VPN_GetVsiIndexByXcgName)
L2VPN_SIM_UNSERVED(L2VPN_GetXcgNameByVsiIndex)
L2VPN_SIM_UNSERVED(L2VPN_XConnOpen)
L2VPN_SIM_UNSERVED(L2VPN_XConnClose)
L2VPN_SIM_UNSERVED(L2VPN_GetFirstXConnByXcgName)
L2VPN_SIM_UNSERVED(L2VPN_GetNextXConnByXcgName)
L2VPN_SIM_UNSERVED(L2VPN_GetNextVsiByName)
L2VPN_SIM_UNSERVED(L2VPN_GetNameByVsiIndex)
L2VPN_SIM_UNSERVED(L2VPN_RegEvcEvent)
L2VPN_SIM_UNSERVED(L2VPN_DeregEvcEvent)
L2VPN_SIM_UNSERVED(L2VPN_RegL2vifEvent)
L2VPN_SIM_UNSERVED(L2VPN_DeregL2vifEvent)
L2VPN_SIM_UNSERVED(L2VPN_SelectType_Set)
L2VPN_SIM_UNSERVED(L2VPN_GetEvcEncap)
L2VPN_SIM_UNSERVED(L2VPN_GetVsiIndexByNameExt)
L2VPN_SIM_UNSERVED(L2VPN_GetVsiIFByVsiIndex)
L2VPN_SIM_UNSERVED(L2VPN_GetL2vifInfo)
L2VPN_SIM_UNSERVED(L2VPN_IsTunnelInVsi)
L2VPN_SIM_UNSERVED(L2VPN_GetAcByPortVlanAndEncapTypeExt)
L2VPN_SIM_UNSERVED(L2VPN_GetVlanVxlanMappingByVlan)

}  // extern "C"
