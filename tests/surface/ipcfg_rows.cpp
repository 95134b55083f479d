// The address configuration client given bad arguments: the two exchanges, the debug and
// unnumbered messages, the interface type tables and the database reads.
#include <cstdint>

#include "ipclient/ipcfg.h"
#include "surface/surface.hpp"

namespace {

using ipt::surface::Case;
using ipt::surface::Exempt;

constexpr const char* kNoArgument = "no pointer, descriptor or ranged argument";
constexpr const char* kExtOptional = "the extended reply may be null: the result is returned either way";

const bool registered = ipt::surface::add({
    Case{"IPCfg_SendAndRevFromPort", "pReq null",
         [] {
             std::uint32_t result = 0;
             return IPCfg_SendAndRevFromPort(nullptr, 28, &result);
         }},
    Case{"IPCfg_SendAndRevFromPort", "puiResult null",
         [] {
             const std::uint8_t req[28] = {};
             return IPCfg_SendAndRevFromPort(req, sizeof req, nullptr);
         }},
    Case{"IPCfg_SendAndRevFromPortExt", "pReq null",
         [] {
             IPCFG_REPLY_EXT_S ext{};
             return IPCfg_SendAndRevFromPortExt(nullptr, 44, &ext);
         }},
    Case{"IPCfg_SendAndRevFromPortExt", "pstExt null",
         [] {
             std::uint8_t req[IPCFG_REPLY_SIZE] = {};
             return IPCfg_SendAndRevFromPortExt(req, 44, nullptr);
         }},
    Case{"IPCfg_Mor_SetDebug", "pstDebug null", [] { return IPCfg_Mor_SetDebug(nullptr); }},
    Case{"IPCfg_Mor_GetUnnumberedIf", "puiBorrowIfIndex null", [] { return IPCfg_Mor_GetUnnumberedIf(7, nullptr); }},

    // The selector goes to the platform, which refuses a null one; the result carries that.
    Case{"IPCFG_SetIFType", "pstSelector null", [] { return IPCFG_SetIFType(nullptr); }},
    Case{"IPCFG_SetShowIFType", "pstSelector null", [] { return IPCFG_SetShowIFType(nullptr); }},

    // The number of records: 0 on error.
    Case{"IPCfg_Mor_GetAddrNum", "pcName null", [] { return IPCfg_Mor_GetAddrNum(nullptr, 7, nullptr); }, 0u},
    Case{"IPCfg_Mor_GetAddr", "pcName null",
         [] {
             std::uint64_t count = 2;
             IPCFG_DB_ADDR_S entries[2] = {};
             return IPCfg_Mor_GetAddr(nullptr, 7, nullptr, &count, entries);
         }},
    Case{"IPCfg_Mor_GetAddr", "pulCount null",
         [] {
             IPCFG_DB_ADDR_S entries[2] = {};
             return IPCfg_Mor_GetAddr(nullptr, 7, "Vlan-interface1", nullptr, entries);
         }},
    Case{"IPCfg_Mor_GetAddr", "pstEntries null",
         [] {
             std::uint64_t count = 2;
             return IPCfg_Mor_GetAddr(nullptr, 7, "Vlan-interface1", &count, nullptr);
         }},
});

const bool exempted = ipt::surface::exempt({
    {"ipcfg_SetAddr", kExtOptional},
    {"ipcfg_SetBackUpAddr", kNoArgument},
    {"ipcfg_SetContextAddr", kNoArgument},
    {"ipcfg_SetCfg", "no pointer or descriptor; the method and enable values are forwarded as they stand"},
    {"IPCfg_AddManualAddr", kNoArgument},
    {"IPCfg_AddManualAddrExt", kExtOptional},
    {"IPCfg_DelManualAddr", kNoArgument},
    {"IPCfg_AddBackUpAddr", kNoArgument},
    {"IPCfg_DelBackUpAddr", kNoArgument},
    {"IPCfg_AddContextAddr", kNoArgument},
    {"IPCfg_DelContextAddr", kNoArgument},
    {"IPCfg_SetDhcp", "no pointer or descriptor; any enable value other than 1 switches off"},
    {"IPCfg_SetBootp", "no pointer or descriptor; any enable value other than 1 switches off"},
    {"IPCfg_SetDhcp_Autocfg", "no pointer or descriptor; any enable value other than 1 switches off"},
    {"IPCfg_SetCellular", "no pointer or descriptor; any enable value other than 1 switches off"},
    {"IPCfg_Mor_SetNego", kNoArgument},
    {"IPCfg_Mor_SetUnnumber", kNoArgument},
    {"IPCFG_GetIfType", "the null count is allowed; the result is the list, never refused"},
    {"IPCFG_GetShowIfType", "the null count is allowed; the result is the list, never refused"},
});

}  // namespace
