// libl3vpn.so of the simulated device: VRF names from the running simulator (vpn_libs.h).
#include <cstdint>
#include <cstring>
#include <string>

#include "control_client.hpp"
#include "vpn_libs.h"

extern "C" uint32_t L3VPN_GetNameByVrfIndex(uint16_t usVrf, uint32_t uiSize, char* pcName) {
    if (pcName == nullptr || uiSize == 0) return L2VPN_SIM_FAILED;
    try {
        const auto answer = ipsim_vpn::ask({{"op", "vpn.vrf"}, {"index", usVrf}});
        if (!answer) return L2VPN_SIM_FAILED;
        const auto it = answer->find("name");
        if (it == answer->end() || !it->is_string()) return L2VPN_SIM_FAILED;
        const auto& name = it->get_ref<const std::string&>();
        if (name.size() >= uiSize) return L2VPN_SIM_FAILED;
        std::memcpy(pcName, name.c_str(), name.size() + 1);
        return 0;
    } catch (...) {
        return L2VPN_SIM_FAILED;
    }
}
