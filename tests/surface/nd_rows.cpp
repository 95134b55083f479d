// The ND client given bad arguments: event subscriptions and error notifications, entry
// queries and the network-to-physical table, packet sending, the OpenFlow, rule and
// suppression tables, and the interface configuration reads.
#include <cstdint>

#include "ipclient/nd.h"
#include "ipclient/status.h"
#include "support/neigh_surface_rows.hpp"
#include "surface/neigh_rows.hpp"
#include "surface/surface.hpp"

namespace {

using namespace ipt::surface;

constexpr std::int32_t kNoSocket = -1;
constexpr std::uint32_t kNoDescriptor = 0xFFFFFFFFu;  // -1 as the row's word
constexpr NdIPv6Addr kAddr{{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
constexpr const char* kNoArgument = "no pointer, descriptor or ranged argument";

uint32_t on_nd_event(uint32_t, NdEventRecord*) { return 0; }

// The reads of one setting into a 32-bit or 16-bit word: each refuses a null output.
template <typename T, std::uint32_t (*Get)(T*)>
Case null_output(const char* function, const char* argument) {
    return Case{function, argument, [] { return Get(nullptr); }};
}

const bool registered = ipt::surface::add({
    // ---- Event subscriptions and error notifications
    voided("ND_DeregEvent", "iFd -1", [] { ND_DeregEvent(kNoSocket); }),
    Case{"ND_ProcEvent", "uiFd 0xFFFFFFFF (no subscription)", [] { return ND_ProcEvent(0xFFFFFFFFu); }},
    Case{"nd_RecvEvents", "iFd -1", [] { return nd_RecvEvents(kNoSocket, on_nd_event); }},
    Case{"nd_RecvEvents", "pfProc null", [] { return nd_RecvEvents(5, nullptr); }},
    voided("ND_RequestBatchEvent", "iFd -1", [] { ND_RequestBatchEvent(kNoSocket); }),
    Case{"ND_AddConcernedIPv6", "iFd -1", [] { return ND_AddConcernedIPv6(kNoSocket, 1, kAddr); }},
    Case{"ND_DelConcernedIPv6", "iFd -1", [] { return ND_DelConcernedIPv6(kNoSocket, 1, kAddr); }},
    // A negative descriptor is handed back unchanged.
    Case{"ND_DeRegErrorAsyncNotify", "iFd -1",
         [] { return static_cast<std::uint32_t>(ND_DeRegErrorAsyncNotify(kNoSocket)); }, kNoDescriptor},
    // The result of the last handler call, 0 when none was made.
    Case{"ND_ErrorAsyncNotifyProc", "iFd -1",
         [] { return static_cast<std::uint32_t>(ND_ErrorAsyncNotifyProc(kNoSocket)); }, 0u},
    // The VSI predicates never report errors: every failure reads as 0.
    Case{"ND_IsVsiContainVxlanID", "pstFunc null", [] { return ND_IsVsiContainVxlanID(nullptr, 1); }, 0u},

    // ---- Entry queries and the network-to-physical table
    Case{"ND_GetEntryInfo", "pucAddr null",
         [] {
             NdEntryInfo info{};
             return ND_GetEntryInfo(ND_ENTRY_CMD_EXACT, 0, 1, nullptr, &info);
         }},
    Case{"ND_GetEntryInfo", "pstInfo null", [] { return ND_GetEntryInfo(ND_ENTRY_CMD_EXACT, 0, 1, kAddr.aucAddr, nullptr); }},
    Case{"ND_GetEntryInfo", "uiCommand neither lookup command",
         [] {
             NdEntryInfo info{};
             return ND_GetEntryInfo(ND_ENTRY_CMD_NEXT + 1, 0, 1, kAddr.aucAddr, &info);
         }},
    Case{"ND_GetNextEntryInfo", "pstInfo null", [] { return ND_GetNextEntryInfo(0, nullptr); }},
    Case{"ND_GetNextInfoBatch", "pucAddr null",
         [] {
             std::uint8_t buf[64];
             std::uint32_t returned = 0;
             return ND_GetNextInfoBatch(nullptr, 1, sizeof buf, buf, &returned);
         }},
    Case{"ND_GetNextInfoBatch", "pBuffer null",
         [] {
             std::uint32_t returned = 0;
             return ND_GetNextInfoBatch(kAddr.aucAddr, 1, 64, nullptr, &returned);
         }},
    Case{"ND_GetNextInfoBatch", "puiReturnedLen null",
         [] {
             std::uint8_t buf[64];
             return ND_GetNextInfoBatch(kAddr.aucAddr, 1, sizeof buf, buf, nullptr);
         }},
    Case{"ND_GetInfo", "pstInfo null", [] { return ND_GetInfo(1, kAddr, nullptr); }},
    Case{"ND_GetInfoByIP", "pucAddr null",
         [] {
             NdInfo info{};
             return ND_GetInfoByIP(nullptr, &info);
         }},
    Case{"ND_GetInfoByIP", "pstInfo null", [] { return ND_GetInfoByIP(kAddr.aucAddr, nullptr); }},
    Case{"ND_GetRefreshTime", "puiTime null", [] { return ND_GetRefreshTime(1, kAddr, nullptr); }},
    Case{"ND_GetNetToPhysicalTable", "pucAddr null",
         [] {
             NdNetToPhysicalRow row{};
             return ND_GetNetToPhysicalTable(1, nullptr, &row);
         }},
    Case{"ND_GetNetToPhysicalTable", "pstRow null", [] { return ND_GetNetToPhysicalTable(1, kAddr.aucAddr, nullptr); }},
    Case{"ND_GetFirstNetToPhysicalTable", "pstRow null", [] { return ND_GetFirstNetToPhysicalTable(0, nullptr); }},
    Case{"ND_GetFirstNetToPhysicalTable", "ucSelector 3",
         [] {
             NdNetToPhysicalRow row{};
             return ND_GetFirstNetToPhysicalTable(ND_ENTRY_SELECTOR_MAX + 1, &row);
         }},
    Case{"ND_GetNextNetToPhysicalTable", "pstRow null", [] { return ND_GetNextNetToPhysicalTable(0, nullptr); }},
    Case{"ND_GetNextNetToPhysicalTable", "ucSelector 3",
         [] {
             NdNetToPhysicalRow row{};
             return ND_GetNextNetToPhysicalTable(ND_ENTRY_SELECTOR_MAX + 1, &row);
         }},
    voided("ND_GetNdAttackStat", "pulCounters null", [] { ND_GetNdAttackStat(1, nullptr); }),
    voided("ND_GetAlarmThresholdStat", "pulCounter null", [] { ND_GetAlarmThresholdStat(1, nullptr); }),
    null_output<std::uint32_t, nd_GetExt3Bitmap>("nd_GetExt3Bitmap", "puiBitmap null"),
    // Always 0, null pointers included: nothing is read or stored then.
    Case{"ND_GetTimeStampFromPData", "pData null",
         [] {
             std::uint32_t time = 0x5A5A5A5A;
             const std::uint32_t result = ND_GetTimeStampFromPData(4, nullptr, &time);
             return time == 0x5A5A5A5A ? result : 0xDEADu;
         },
         0u},
    Case{"ND_GetTimeStampFromPData", "puiTime null",
         [] {
             const std::uint8_t data[4] = {1, 2, 3, 4};
             return ND_GetTimeStampFromPData(sizeof data, data, nullptr);
         },
         0u},

    // ---- Packet sending
    Case{"ND_SendRA", "pucMac null", [] { return ND_SendRA(1, kAddr, nullptr, 0); }},
    Case{"ND_SendNA", "pucMac null", [] { return ND_SendNA(1, kAddr, nullptr); }},
    Case{"ND_SendSpecify", "pstInfo null", [] { return ND_SendSpecify(nullptr); }},
    Case{"ND_Resolve", "the unspecified address", [] { return ND_Resolve(NdIPv6Addr{}, 1); }},

    // ---- OpenFlow, rule and suppression tables
    Case{"ND_OpenFlowConnect", "puiVersion null",
         [] { return static_cast<std::uint32_t>(ND_OpenFlowConnect(nullptr)); }, kNoDescriptor},
    voided("ND_OpenFlowDisconnect", "iFd -1", [] { ND_OpenFlowDisconnect(kNoSocket); }),
    Case{"ND_OpenFlowSmoothStart", "iFd -1", [] { return ND_OpenFlowSmoothStart(kNoSocket); }},
    Case{"ND_OpenFlowSmoothEnd", "iFd -1", [] { return ND_OpenFlowSmoothEnd(kNoSocket); }},
    voided("ND_RuleDisconnect", "iFd -1", [] { ND_RuleDisconnect(kNoSocket); }),
    Case{"ND_RefreshRule", "iFd -1",
         [] {
             const NdRuleInfo rule{};
             return ND_RefreshRule(kNoSocket, &rule);
         }},
    Case{"ND_RefreshRule", "pstRule null", [] { return ND_RefreshRule(5, nullptr); }},
    Case{"ND_DeleteRule", "iFd -1", [] { return ND_DeleteRule(kNoSocket, 1, kAddr, 1); }},
    Case{"ND_DeleteVsiSupEntry", "iFd -1", [] { return ND_DeleteVsiSupEntry(kNoSocket, 1, &kAddr, 1); }},
    Case{"ND_DeleteVsiSupEntry", "pstAddr null", [] { return ND_DeleteVsiSupEntry(5, 1, nullptr, 1); }},
    Case{"ND_VsiSupEntrySmoothBegin", "iFd -1", [] { return ND_VsiSupEntrySmoothBegin(kNoSocket, 1); }},
    Case{"ND_VsiSupEntrySmoothEnd", "iFd -1", [] { return ND_VsiSupEntrySmoothEnd(kNoSocket, 1); }},
    Case{"ND_SetOverlaySuppression", "uiVsiIndex 0xFFFFFFFF", [] { return ND_SetOverlaySuppression(ND_VSI_INDEX_NONE, 1); }},
    Case{"ND_GetOverlaySuppression", "uiVsiIndex 0xFFFFFFFF",
         [] {
             std::uint32_t state = 0;
             return ND_GetOverlaySuppression(ND_VSI_INDEX_NONE, &state);
         }},
    Case{"ND_GetOverlaySuppression", "puiState null", [] { return ND_GetOverlaySuppression(7, nullptr); }},

    // ---- Interface configuration and display
    Case{"ND_SelectL3IfType", "pstSelect null", [] { return ND_SelectL3IfType(nullptr); }},
    Case{"ND_RA_SelectL3IfType", "pstSelect null", [] { return ND_RA_SelectL3IfType(nullptr); }},
    Case{"ND_RA_SelectL3IfTypeIncludeVT", "pstSelect null", [] { return ND_RA_SelectL3IfTypeIncludeVT(nullptr); }},
    Case{"ND_RA_SelectL3IfTypeIncludeRETH", "pstSelect null", [] { return ND_RA_SelectL3IfTypeIncludeRETH(nullptr); }},
    Case{"ND_SelectL3IfTypeForRtAdvertise", "pstSelect null", [] { return ND_SelectL3IfTypeForRtAdvertise(nullptr); }},
    Case{"ND_GetIfConfigInfo", "pstInfo null", [] { return ND_GetIfConfigInfo(1, nullptr); }},
    // The number of characters written, 0 for nothing.
    Case{"ND_GetIfDisplayInfo", "pcBuf null", [] { return ND_GetIfDisplayInfo(1, 64, nullptr); }, 0u},
    null_output<std::uint32_t, ND_GetStaleAging>("ND_GetStaleAging", "puiValue null"),
    null_output<std::uint32_t, ND_GetStaleAgingUnit>("ND_GetStaleAgingUnit", "puiValue null"),
    null_output<std::uint32_t, ND_GetSnpDadRetTime>("ND_GetSnpDadRetTime", "puiValue null"),
    null_output<std::uint32_t, ND_GetSnpInvalidTime>("ND_GetSnpInvalidTime", "puiValue null"),
    null_output<std::uint32_t, ND_GetSnpValidTime>("ND_GetSnpValidTime", "puiValue null"),
    null_output<std::uint32_t, ND_GetRate>("ND_GetRate", "puiValue null"),
    null_output<std::uint16_t, ND_GetLinkLocalMinimize>("ND_GetLinkLocalMinimize", "pusValue null"),
    null_output<std::uint16_t, ND_GetIPConflictRecord>("ND_GetIPConflictRecord", "pusValue null"),
    Case{"ND_GetOnOffLogAndMoveRecord", "pusOnOffLog null",
         [] {
             std::uint16_t move = 0;
             return ND_GetOnOffLogAndMoveRecord(nullptr, &move);
         }},
    Case{"ND_GetOnOffLogAndMoveRecord", "pusMoveRecord null",
         [] {
             std::uint16_t log = 0;
             return ND_GetOnOffLogAndMoveRecord(&log, nullptr);
         }},
    null_output<std::uint16_t, ND_GetRaTunnelBroadCast>("ND_GetRaTunnelBroadCast", "pusValue null"),
    null_output<std::uint16_t, ND_GetResolvingRoute>("ND_GetResolvingRoute", "pusValue null"),
    null_output<std::uint16_t, ND_GetTopoChgEnable>("ND_GetTopoChgEnable", "pusValue null"),
});

const bool exempted = ipt::surface::exempt({
    {"ND_RegEvent", "the handler is stored as given and may be null; the selectors are the service's"},
    {"ND_RegErrorAsyncNotify", "the handler is stored as given and may be null; no descriptor"},
    {"ND_SendNS", "an interface index and an address by value; no pointer or descriptor"},
    {"ND_DeleteDynamicEntry", "an address by value and an interface index; no pointer or descriptor"},
    {"ND_RuleConnect", kNoArgument},
    {"nd_IsConcernedL3If", "an interface index: an unknown one is simply not concerned (0)"},
    {"ND_GetHopLimit", kNoArgument},
    {"ND_MADDispalyCfg", "a flag: any value other than 1 leaves the interface names out"},
});

// The keyed batch replays, OpenFlow batches, rule smooth messages and roaming detection, as
// the other client has them.
const bool registered_shared = [] {
    using namespace ipt::surface;
    add(keyed_batch_rows<ND_RequestBatchByVsi, NdBatchKey>("ND_RequestBatchByVsi", "pstKey"));
    add(keyed_batch_rows<ND_RequestBatchByIF, NdBatchKey>("ND_RequestBatchByIF", "pstKey"));
    // The VSI predicates never report errors: every failure reads as 0.
    add(ipt::neigh::ac_in_vsi_rows<ND_IsAcIfAndSrvIDInVsi>("ND_IsAcIfAndSrvIDInVsi"));
    add(ipt::neigh::if_in_vsi_rows<ND_IsVsiIfInVsi>("ND_IsVsiIfInVsi", "pcVsiKey"));
    add(ipt::neigh::vsi_refresh_rows<ND_RefreshVsiSupEntry, NdVsiSupInfo>("ND_RefreshVsiSupEntry"));
    add(ipt::neigh::pdata_rows<ND_GetPDataFromIPCIM>("ND_GetPDataFromIPCIM"));
    return ipt::neigh::add_table_rows<ipt::neigh::NdTables, ND_RuleSmoothStart, ND_RuleSmoothEnd, ND_RULE_CLASS_MAX>(
        "ND_");
}();

}  // namespace
