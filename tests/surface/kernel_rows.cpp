// The address module's messages given bad arguments. These operations are the thin layer
// under the address library: they check no pointer of their own (the address library checks
// them before it calls), so the only argument refused here is a count too large to ask for.
#include <cstdint>

#include "ipclient/kernel.h"
#include "surface/surface.hpp"

namespace {

using ipt::surface::Case;
using ipt::surface::Exempt;

constexpr const char* kNoArgument = "no pointer, descriptor or ranged argument";
constexpr const char* kUnchecked =
    "the address module's messages check no pointer: the address library checks them before it calls";

const bool registered = ipt::surface::add({
    Case{"IPAddr_Drvk_GetMatchAddr", "*puiCount 153391690, a reply beyond a 32-bit capacity",
         [] {
             IPAddrEntry key{};
             std::uint32_t count = 153391690u;  // 153391690 x 28 bytes do not fit 32 bits
             IPAddrEntry entries[1] = {};
             return IPAddr_Drvk_GetMatchAddr(0x8000, &key, &count, entries);
         }},
});

const bool exempted = ipt::surface::exempt({
    {"IPAddr_Drvk_AddIP", kUnchecked},
    {"IPAddr_Drvk_DelIP", kUnchecked},
    {"IPAddr_Drvk_LookupAddr", kUnchecked},
    {"IPAddr_Drvk_GetConflictAddr", kUnchecked},
    {"IPAddr_Drvk_GetMatchAddrNum", kUnchecked},
    {"IPAddr_Drvk_GetMatchBestNet", kUnchecked},
    {"IPAddr_Drvk_GetNextAddrOnIf", kUnchecked},
    {"IPAddr_Drvk_GetPriorAddrOnIf", kUnchecked},
    {"IPAddr_Drvk_GetFwdAddrInVrf", kUnchecked},
    {"IPAddr_Drvk_GetNextAddrInVrf", kUnchecked},
    {"IPAddr_Drvk_SetCfgMethod", kNoArgument},
    {"IPAddr_Drvk_ClearCfgMethod", kNoArgument},
    {"IPAddr_Drvk_GetIFMethod", kUnchecked},
    {"IPAddr_Drvk_GetBatchAddrOnIF", kUnchecked},
    {"IPAddr_Drvk_GetNextIf", kUnchecked},
    {"IPAddr_Drvk_GetBatchEvNotify", kUnchecked},
    {"IPAddr_Drvk_GetRTEvNotifyInfo", kUnchecked},
    {"IPAddr_Drvk_GetAddrCountOnIF", kUnchecked},
    {"IPAddr_Drvk_SetDbgInfo", kNoArgument},
    {"IPAddr_Drvk_GetDbgInfo", kUnchecked},
    {"IPAddr_Drvk_IncAddrGlobalEpoch", kNoArgument},
    {"IPAddr_Drvk_GetAddrGlobalEpoch", kUnchecked},
    {"IPAddr_Drvk_SelectSrcAddr", kUnchecked},
    {"IPAddr_Drvk_SetDrvMethod", kNoArgument},
    {"IPAddr_Drvk_GetLoopBackInfo", kUnchecked},
    {"IPAddr_Drvk_ModMainIP", kUnchecked},
    {"IPAddr_Drvk_SearchGWAddr", kUnchecked},
    {"IPAddr_Drvk_SetNetProtocol", kNoArgument},
    {"IPAddr_Drvk_GetNetProtoBit", kUnchecked},
    {"IPAddr_Drvk_GetMaxAddrInVrf", kUnchecked},
    {"IPAddr_Drvk_AddVFWIP", kNoArgument},
    {"IPAddr_Drvk_DelVFWIP", kNoArgument},
    {"IPAddr_Drvk_GetMac", kUnchecked},
    {"IPAddr_Drvk_SetMacType", kNoArgument},
    {"IPAddr_Drvk_GetMatchAddrByIP", kUnchecked},
    {"IPAddr_Drvk_GetNextMatchAddrByIP", kUnchecked},
    {"IPAddr_Drvk_GetConflictAddr2CfgRecover", kUnchecked},
});

}  // namespace
