// The ARP client given bad arguments: event subscriptions, entry queries and counters,
// packet sending, the OpenFlow, rule and suppression tables, the layer-2 VPN bridge and the
// interface display.
#include <cstdint>

#include "ipclient/arp.h"
#include "ipclient/status.h"
#include "support/neigh_surface_rows.hpp"
#include "surface/neigh_rows.hpp"
#include "surface/surface.hpp"

namespace {

using ipt::surface::Case;
using ipt::surface::Exempt;
using ipt::surface::voided;

constexpr std::int32_t kNoSocket = -1;
constexpr std::uint32_t kNoDescriptor = 0xFFFFFFFFu;  // -1 as the row's word
constexpr std::uint32_t kAddr = 0x0A000001u;
constexpr std::uint8_t kMac[6] = {0, 1, 2, 3, 4, 5};
constexpr const char* kNoArgument = "no pointer, descriptor or ranged argument";

uint32_t on_arp_event(uint32_t, void*, uint16_t) { return 0; }

const bool registered = ipt::surface::add({
    // ---- Event subscriptions
    voided("ARP_DeregEvent", "iFd -1", [] { ARP_DeregEvent(kNoSocket); }),
    Case{"ARP_ProcEvent", "iFd -1 (no subscription)", [] { return ARP_ProcEvent(kNoSocket); }},
    Case{"arp_EventProc", "iFd -1", [] { return arp_EventProc(kNoSocket, on_arp_event); }},
    Case{"arp_EventProc", "pfCallback null", [] { return arp_EventProc(5, nullptr); }},
    Case{"ARP_AddConcernedIP", "iFd -1", [] { return ARP_AddConcernedIP(kNoSocket, kAddr, 1); }},
    Case{"ARP_DelConcernedIP", "iFd -1", [] { return ARP_DelConcernedIP(kNoSocket, kAddr, 1); }},
    voided("ARP_RequestBatchEvent", "iFd -1", [] { ARP_RequestBatchEvent(kNoSocket); }),
    Case{"ARP_RequestBatchByVlan", "iFd -1", [] { return ARP_RequestBatchByVlan(kNoSocket, 1, 10); }},

    // ---- Entry queries and counters
    Case{"ARP_GetEntry", "pstEntry null", [] { return ARP_GetEntry(1, kAddr, nullptr); }},
    Case{"ARP_GetEntry", "uiAddr 0",
         [] {
             ARP_ENTRY_S entry{};
             return ARP_GetEntry(1, 0, &entry);
         }},
    Case{"ARP_GetFirstEntry", "pstEntry null", [] { return ARP_GetFirstEntry(nullptr); }},
    Case{"ARP_GetNextEntry", "pstEntry null", [] { return ARP_GetNextEntry(nullptr); }},
    Case{"arp_GetEntryExtend", "pstEntry null", [] { return arp_GetEntryExtend(1, kAddr, nullptr); }},
    Case{"arp_GetEntryExtend", "uiAddr 0",
         [] {
             ARP_ENTRY_S entry{};
             return arp_GetEntryExtend(1, 0, &entry);
         }},
    Case{"ARP_GetRefreshTime", "puiTime null", [] { return ARP_GetRefreshTime(1, kAddr, nullptr); }},
    Case{"ARP_GetEntryByIP", "pstEntry null", [] { return ARP_GetEntryByIP(kAddr, nullptr); }},
    Case{"ARP_GetEntryByIP", "uiAddr 0",
         [] {
             ARP_ENTRY_S entry{};
             return ARP_GetEntryByIP(0, &entry);
         }},
    Case{"ARP_GetConf", "pBuffer null", [] { return ARP_GetConf(ARP_CONF_LEN, nullptr); }},
    Case{"ARP_GetConf", "uiLength 111",
         [] {
             std::uint8_t conf[ARP_CONF_LEN + 1] = {};
             return ARP_GetConf(ARP_CONF_LEN - 1, conf);
         }},
    Case{"ARP_GetConf", "uiLength 113",
         [] {
             std::uint8_t conf[ARP_CONF_LEN + 1] = {};
             return ARP_GetConf(ARP_CONF_LEN + 1, conf);
         }},
    Case{"ARP_GetFirstIPAddr", "pucMac null",
         [] {
             std::uint32_t addr = 0;
             return ARP_GetFirstIPAddr(10, nullptr, &addr);
         }},
    Case{"ARP_GetFirstIPAddr", "puiAddr null", [] { return ARP_GetFirstIPAddr(10, kMac, nullptr); }},
    Case{"ARP_SetEntry", "pEntry null",
         [] {
             std::uint8_t reply[4];
             return ARP_SetEntry(nullptr, reply);
         }},
    Case{"ARP_SetEntry", "pReply null",
         [] {
             const std::uint8_t entry[300] = {};
             return ARP_SetEntry(entry, nullptr);
         }},
    voided("ARP_GetArpAttackStat", "pulCounters null", [] { ARP_GetArpAttackStat(1, nullptr); }),
    voided("ARP_GetAlarmThresholdStat", "pulCounter null", [] { ARP_GetAlarmThresholdStat(1, nullptr); }),
    Case{"ARP_GetTimeStampFromPData", "pData null",
         [] {
             std::uint32_t time = 0;
             return ARP_GetTimeStampFromPData(4, nullptr, &time);
         }},
    Case{"ARP_GetTimeStampFromPData", "puiTime null",
         [] {
             const std::uint8_t data[4] = {};
             return ARP_GetTimeStampFromPData(sizeof data, data, nullptr);
         }},

    // ---- Packet sending
    Case{"ARP_SendSpecify", "pstDesc null", [] { return ARP_SendSpecify(nullptr); }},

    // ---- OpenFlow, rule and suppression tables
    Case{"ARP_OpenFlowConnect", "puiVersion null",
         [] { return static_cast<std::uint32_t>(ARP_OpenFlowConnect(nullptr)); }, kNoDescriptor},
    voided("ARP_OpenFlowDisconnect", "iFd -1", [] { ARP_OpenFlowDisconnect(kNoSocket); }),
    voided("ARP_OpenFlowVerify", "iFd -1", [] { ARP_OpenFlowVerify(kNoSocket); }),
    Case{"ARP_OpenFlowSmoothStart", "iFd -1", [] { return ARP_OpenFlowSmoothStart(kNoSocket); }},
    Case{"ARP_OpenFlowSmoothEnd", "iFd -1", [] { return ARP_OpenFlowSmoothEnd(kNoSocket); }},
    Case{"ARP_DisOpenFlowArpCount", "puiCount null", [] { return ARP_DisOpenFlowArpCount(nullptr); }},
    voided("ARP_RuleDisconnect", "iFd -1", [] { ARP_RuleDisconnect(kNoSocket); }),
    Case{"ARP_RefreshRule", "iFd -1",
         [] {
             ARP_RULE_S rule{};
             rule.uiAddr = kAddr;
             return ARP_RefreshRule(kNoSocket, &rule);
         }},
    Case{"ARP_RefreshRule", "pstRule null", [] { return ARP_RefreshRule(5, nullptr); }},
    Case{"ARP_RefreshRule", "class 9",
         [] {
             ARP_RULE_S rule{};
             rule.uiAddr = kAddr;
             rule.ucClass = ARP_RULE_CLASS_MAX + 1;
             return ARP_RefreshRule(5, &rule);
         }},
    Case{"ARP_DeleteRule", "iFd -1", [] { return ARP_DeleteRule(kNoSocket, 1, kAddr, 1); }},
    Case{"ARP_DeleteVsiSupEntry", "iFd -1", [] { return ARP_DeleteVsiSupEntry(kNoSocket, 1, 2, 1); }},
    Case{"ARP_VsiSupEntrySmoothStart", "iFd -1", [] { return ARP_VsiSupEntrySmoothStart(kNoSocket, 1); }},
    Case{"ARP_VsiSupEntrySmoothEnd", "iFd -1", [] { return ARP_VsiSupEntrySmoothEnd(kNoSocket, 1); }},
    Case{"ARP_VlanSupRefreshEntry", "iFd -1",
         [] {
             const ARP_VLAN_SUP_ENTRY_S entry{};
             return ARP_VlanSupRefreshEntry(kNoSocket, &entry);
         }},
    Case{"ARP_VlanSupRefreshEntry", "pstEntry null", [] { return ARP_VlanSupRefreshEntry(5, nullptr); }},
    Case{"ARP_VlanSupDeleteEntry", "iFd -1", [] { return ARP_VlanSupDeleteEntry(kNoSocket, 1, 10); }},
    Case{"ARP_VlanSupEntrySmoothStart", "iFd -1", [] { return ARP_VlanSupEntrySmoothStart(kNoSocket); }},
    Case{"ARP_VlanSupEntrySmoothEnd", "iFd -1", [] { return ARP_VlanSupEntrySmoothEnd(kNoSocket); }},
    Case{"ARP_SetEviSuppression", "uiInstance 0", [] { return ARP_SetEviSuppression(1, 0); }},
    Case{"ARP_GetEviSuppression", "puiState null", [] { return ARP_GetEviSuppression(1, nullptr); }},
    Case{"ARP_SetOverlaySuppression", "uiIfIndex 0xFFFFFFFF", [] { return ARP_SetOverlaySuppression(0xFFFFFFFFu, 1); }},
    Case{"ARP_GetOverlaySuppression", "uiIfIndex 0xFFFFFFFF",
         [] {
             std::uint32_t state = 0;
             return ARP_GetOverlaySuppression(0xFFFFFFFFu, &state);
         }},
    Case{"ARP_GetOverlaySuppression", "puiState null", [] { return ARP_GetOverlaySuppression(7, nullptr); }},
    Case{"ARP_GetVlanSuppression", "usVlan 0xFFFF",
         [] {
             std::uint32_t state = 0;
             return ARP_GetVlanSuppression(0xFFFF, &state);
         }},
    Case{"ARP_GetVlanSuppression", "puiState null", [] { return ARP_GetVlanSuppression(10, nullptr); }},

    // ---- Layer-2 VPN bridge: the predicates never report errors, every failure reads as 0.
    Case{"ARP_L2VPNAddRef", "ppHandle null",
         [] {
             ARP_L2VPN_FUNC_S table{};
             return ARP_L2VPNAddRef(&table, nullptr);
         }},
    Case{"ARP_L2VPNAddRef", "pstFunc null",
         [] {
             void* handle = &handle;
             const std::uint32_t result = ARP_L2VPNAddRef(nullptr, &handle);
             return handle == nullptr ? result : 0xDEADu;  // the handle out is cleared first
         }},
    voided("ARP_L2VPNRelease", "pHandle null", [] { ARP_L2VPNRelease(nullptr); }),
    Case{"ARP_IsAcIfAndSrvIDInVsiByName", "pstFunc null",
         [] {
             const std::uint8_t key[16] = {};
             return ARP_IsAcIfAndSrvIDInVsiByName(nullptr, key, "vsi1");
         },
         0u},
    Case{"ARP_IsAcIfAndSrvIDInVsiByName", "pEvcKey null",
         [] {
             const ARP_L2VPN_FUNC_S table{};
             return ARP_IsAcIfAndSrvIDInVsiByName(&table, nullptr, "vsi1");
         },
         0u},
    Case{"ARP_CheckVsiIndexAndLinkId", "pstFunc null",
         [] {
             const std::uint8_t key[16] = {};
             std::uint32_t link = 0;
             return ARP_CheckVsiIndexAndLinkId(nullptr, key, 1, &link);
         },
         0u},
    Case{"ARP_CheckVsiIndexAndLinkId", "puiLinkId null",
         [] {
             const ARP_L2VPN_FUNC_S table{};
             const std::uint8_t key[16] = {};
             return ARP_CheckVsiIndexAndLinkId(&table, key, 1, nullptr);
         },
         0u},

    // ---- Interface display: the number of characters written, 0 for nothing.
    Case{"ARP_GetIfDisplayInfo", "pcBuf null", [] { return ARP_GetIfDisplayInfo(1, 64, nullptr); }, 0u},
    Case{"ARP_GetIfDisplayInfo", "uiSize 0",
         [] {
             char buf[8] = {};
             return ARP_GetIfDisplayInfo(1, 0, buf);
         },
         0u},
});

// The keyed batch replays, OpenFlow batches, rule smooth messages and roaming detection, as
// the other client has them.
const bool registered_shared = [] {
    using namespace ipt::surface;
    add(keyed_batch_rows<ARP_RequestBatchByAc, ARP_BATCH_REQ_S>("ARP_RequestBatchByAc", "pstReq"));
    add(keyed_batch_rows<ARP_RequestBatchByVsi, ARP_BATCH_VSI_REQ_S>("ARP_RequestBatchByVsi", "pstReq"));
    add(ipt::neigh::pdata_rows<ARP_GetPDataFromIPCIM>("ARP_GetPDataFromIPCIM"));
    add(ipt::neigh::vsi_refresh_rows<ARP_RefreshVsiSupEntry, ARP_VSI_SUP_ENTRY_S>("ARP_RefreshVsiSupEntry"));
    add(ipt::neigh::if_in_vsi_rows<ARP_IsVsiIfInVsi>("ARP_IsVsiIfInVsi", "pcVsiName"));
    add(ipt::neigh::ac_in_vsi_rows<ARP_IsAcIfAndSrvIDInVsi>("ARP_IsAcIfAndSrvIDInVsi"));
    return ipt::neigh::add_table_rows<ipt::neigh::ArpTables, ARP_RuleSmoothStart, ARP_RuleSmoothEnd,
                                      ARP_RULE_CLASS_MAX>("ARP_");
}();

const bool exempted = ipt::surface::exempt({
    {"ARP_GetNextInfoBatch",
     "the buffer and the reply length go to the control request as they stand; a null buffer asks with capacity 0"},
    {"ARP_DeleteDynamicEntry", "two keys passed as given; no pointer or descriptor"},
    {"ARP_DeleteAuthorizedEntry", "two keys passed as given; no pointer or descriptor"},
    {"ARP_Request", "the hardware address may be null (the zero address); an unknown interface gives the directory's status"},
    {"ARP_Reply", "the hardware address may be null (the zero address); an unknown interface gives the directory's status"},
    {"ARP_Probe", "the hardware address may be null (the zero address); an unknown interface gives the directory's status"},
    {"ARP_RequestWithVlan", "both hardware addresses may be null (the zero address); no descriptor"},
    {"ARP_RuleConnect", kNoArgument},
    {"ARP_RegEvent", "a null callback is allowed: the subscription is kept and its drain reads nothing"},
    {"ARP_MADDispalyCfg", "a flag: any value other than 1 leaves the interface names out"},
});

}  // namespace
