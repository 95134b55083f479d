// The address library given bad arguments: the control socket's change requests, the
// lookups and walks, the summary and the two event subscriptions.
#include <cstdint>
#include <cstring>

#include "ipclient/ipaddr.h"
#include "ipplat/testctl.h"
#include "support/directory_interface.hpp"
#include "surface/surface.hpp"

namespace {

using ipt::surface::Case;
using ipt::surface::Exempt;

constexpr std::int32_t kNoSocket = -1;

std::uint32_t on_ifcfg(std::uint32_t, std::uint32_t, std::uint32_t, std::uint16_t) { return 0; }

IPAddrEntry sample_entry(std::uint32_t method = IPADDR_METHOD_MANUAL) {
    IPAddrEntry e{};
    e.stKey.usVrfIndex = 0;
    e.stKey.uiIfIndex = 7;
    e.stKey.uiAddr = 0x0101A8C0u;  // 192.168.1.1, network order on a little-endian host
    e.stKey.uiMask = 0x00FFFFFFu;
    e.stKey.uiMethod = method;
    return e;
}

// The management port is known, so that a summary that went on would ask the address module.
void management_port() {
    ipt::DirInterface(5).node(0x8000).name("M-GigabitEthernet0/0/0").valid().add();
}

// 82595525 records of 52 bytes do not fit a 32-bit capacity.
constexpr std::uint32_t kBatchTooLarge = 82595525u;
// 153391690 entries of 28 bytes do not fit a 32-bit capacity.
constexpr std::uint32_t kMatchTooLarge = 153391690u;

const bool registered = ipt::surface::add({
    // ---- control socket and change requests
    Case{.function = "IPAddr_Close", .argument = "iSock -1",
         .call = [] {
             IPAddr_Close(kNoSocket);
             return 0u;
         },
         .any_result = true},
    Case{"IPAddr_AddAddrEx", "iSock -1",
         [] {
             const IPAddrEntry e = sample_entry();
             return IPAddr_AddAddrEx(kNoSocket, &e, 1, 2, 0);
         }},
    Case{"IPAddr_AddAddrEx", "pstEntry null", [] { return IPAddr_AddAddrEx(3, nullptr, 1, 2, 0); }},
    Case{"IPAddr_AddAddr", "iSock -1",
         [] {
             const IPAddrEntry e = sample_entry();
             return IPAddr_AddAddr(kNoSocket, &e, 2, 0);
         }},
    Case{"IPAddr_AddAddr", "pstEntry null", [] { return IPAddr_AddAddr(3, nullptr, 2, 0); }},
    Case{"IPAddr_AddMADAddr", "iSock -1",
         [] {
             const IPAddrEntry e = sample_entry(IPADDR_METHOD_MAD);
             return IPAddr_AddMADAddr(kNoSocket, &e, 9, 0);
         }},
    Case{"IPAddr_AddMADAddr", "pstEntry null", [] { return IPAddr_AddMADAddr(3, nullptr, 9, 0); }},
    Case{"IPAddr_AddMADAddr", "pstEntry uiMethod MAD with the manual bit",
         [] {
             const IPAddrEntry e = sample_entry(IPADDR_METHOD_MAD | IPADDR_METHOD_MANUAL);
             return IPAddr_AddMADAddr(3, &e, 9, 0);
         }},
    Case{"IPAddr_AddMADAddr", "pstEntry uiMethod manual",
         [] {
             const IPAddrEntry e = sample_entry(IPADDR_METHOD_MANUAL);
             return IPAddr_AddMADAddr(3, &e, 9, 0);
         }},
    Case{"IPAddr_DelAddr", "iSock -1",
         [] {
             const IPAddrEntry e = sample_entry();
             return IPAddr_DelAddr(kNoSocket, &e, 0);
         }},
    Case{"IPAddr_DelAddr", "pstEntry null", [] { return IPAddr_DelAddr(3, nullptr, 0); }},
    Case{"ipaddr_SetNetProtocolInfo", "iSock -1", [] { return ipaddr_SetNetProtocolInfo(kNoSocket, 1, 2, 1); }},
    Case{"IPAddr_EnableNetProtocol", "iSock -1", [] { return IPAddr_EnableNetProtocol(kNoSocket, 1, 2); }},
    Case{"IPAddr_DisableNetProtocol", "iSock -1", [] { return IPAddr_DisableNetProtocol(kNoSocket, 1, 2); }},
    Case{"IPAddr_SmoothStart", "iSock -1", [] { return IPAddr_SmoothStart(kNoSocket, 1, 2); }},
    Case{"IPAddr_SmoothStart", "uiWord1 0", [] { return IPAddr_SmoothStart(3, 0, 2); }},
    Case{"IPAddr_SmoothEnd", "iSock -1", [] { return IPAddr_SmoothEnd(kNoSocket, 1, 2); }},
    Case{"IPAddr_SmoothEnd", "uiWord1 0", [] { return IPAddr_SmoothEnd(3, 0, 2); }},

    // ---- lookups
    Case{"IPAddr_GetAddrByKey", "pstKey null",
         [] {
             std::uint32_t count = 1;
             IPAddrEntry entries[1] = {};
             return IPAddr_GetAddrByKey(nullptr, 1, &count, entries);
         }},
    Case{"IPAddr_GetAddrByKey", "puiCount null",
         [] {
             const IPAddrKey key = sample_entry().stKey;
             IPAddrEntry entries[1] = {};
             return IPAddr_GetAddrByKey(&key, 1, nullptr, entries);
         }},
    Case{"IPAddr_GetAddrByKey", "*puiCount 153391690, a reply beyond a 32-bit capacity",
         [] {
             const IPAddrKey key = sample_entry().stKey;
             std::uint32_t count = kMatchTooLarge;
             IPAddrEntry entries[1] = {};
             return IPAddr_GetAddrByKey(&key, 1, &count, entries);
         }},
    Case{"IPAddr_MatchBestNetByKey", "pstKey null",
         [] {
             IPAddrEntry entry{};
             return IPAddr_MatchBestNetByKey(nullptr, 1, &entry);
         }},
    Case{"IPAddr_SelectSrcAddr", "puiSource null",
         [] { return IPAddr_SelectSrcAddr(0x0201A8C0u, 0, 7, 0, nullptr); }},
    Case{"IPAddr_SearchGatewayAddr", "pstEntry null",
         [] { return IPAddr_SearchGatewayAddr(7, 0xFE01A8C0u, 0, nullptr); }},
    Case{"IPAddr_GetPriorAddr", "pstEntry null", [] { return IPAddr_GetPriorAddr(7, IPADDR_METHOD_MANUAL, nullptr); }},
    Case{"IPAddr_GetFwdAddrInVrf", "pstEntry null", [] { return IPAddr_GetFwdAddrInVrf(0, nullptr); }},
    Case{"IPAddr_GetMaxAddrInVrf", "pstEntry null", [] { return IPAddr_GetMaxAddrInVrf(0, 1, 2, nullptr); }},
    Case{"IPAddr_GetAddrByIP", "pstEntry null", [] { return IPAddr_GetAddrByIP(0x0101A8C0u, 1, nullptr); }},
    Case{"IPAddr_GetNextAddrByIP", "pstEntry null", [] { return IPAddr_GetNextAddrByIP(1, nullptr); }},
    // The first form checks nothing itself: the next form it calls refuses the null entry.
    Case{"IPAddr_GetFirstAddrInVrf", "pstEntry null", [] { return IPAddr_GetFirstAddrInVrf(0, 1, nullptr); }},
    Case{"IPAddr_GetNextAddrInVrf", "pstEntry null", [] { return IPAddr_GetNextAddrInVrf(0, 1, nullptr); }},
    Case{"IPAddr_GetMac", "pucMac null",
         [] {
             std::uint32_t word = 0;
             return IPAddr_GetMac(1, 2, 3, nullptr, nullptr, &word);
         }},
    Case{"IPAddr_GetMac", "puiWord null",
         [] {
             std::uint8_t mac[6] = {};
             return IPAddr_GetMac(1, 2, 3, nullptr, mac, nullptr);
         }},

    // ---- walks and batches
    Case{"IPAddr_GetFirstAddr", "pstEntry null", [] { return IPAddr_GetFirstAddr(7, IPADDR_METHOD_MANUAL, nullptr); }},
    Case{"IPAddr_GetNextAddr", "pstEntry null", [] { return IPAddr_GetNextAddr(7, IPADDR_METHOD_MANUAL, nullptr); }},
    Case{"IPAddr_GetFirstAddrIPOrder", "pstEntry null",
         [] { return IPAddr_GetFirstAddrIPOrder(7, IPADDR_METHOD_MANUAL, nullptr); }},
    Case{"IPAddr_GetNextAddrIPOrder", "pstEntry null",
         [] { return IPAddr_GetNextAddrIPOrder(7, IPADDR_METHOD_MANUAL, nullptr); }},
    Case{"IPAddr_GetFirstBatchAddr", "pstEntries null",
         [] {
             std::uint32_t got = 0;
             return IPAddr_GetFirstBatchAddr(7, 1, 4, nullptr, &got);
         }},
    Case{"IPAddr_GetFirstBatchAddr", "puiCountOut null",
         [] {
             IPAddrEntry entries[4] = {};
             return IPAddr_GetFirstBatchAddr(7, 1, 4, entries, nullptr);
         }},
    Case{"IPAddr_GetFirstBatchAddr", "uiCount 82595525, a buffer beyond 32 bits",
         [] {
             IPAddrEntry entries[4] = {};
             std::uint32_t got = 0;
             return IPAddr_GetFirstBatchAddr(7, 1, kBatchTooLarge, entries, &got);
         }},
    Case{"IPAddr_GetNextBatchAddr", "pstKey null",
         [] {
             IPAddrEntry entries[4] = {};
             std::uint32_t got = 0;
             return IPAddr_GetNextBatchAddr(7, 1, nullptr, 4, entries, &got);
         }},
    Case{"IPAddr_GetNextBatchAddr", "pstEntries null",
         [] {
             const IPAddrKey key = sample_entry().stKey;
             std::uint32_t got = 0;
             return IPAddr_GetNextBatchAddr(7, 1, &key, 4, nullptr, &got);
         }},
    Case{"IPAddr_GetNextBatchAddr", "puiCountOut null",
         [] {
             const IPAddrKey key = sample_entry().stKey;
             IPAddrEntry entries[4] = {};
             return IPAddr_GetNextBatchAddr(7, 1, &key, 4, entries, nullptr);
         }},
    Case{"IPAddr_GetNextBatchAddr", "uiCount 82595525, a buffer beyond 32 bits",
         [] {
             const IPAddrKey key = sample_entry().stKey;
             IPAddrEntry entries[4] = {};
             std::uint32_t got = 0;
             return IPAddr_GetNextBatchAddr(7, 1, &key, kBatchTooLarge, entries, &got);
         }},

    // ---- summary
    Case{"IPAddr_GetIpSummary", "uiSize 0",
         [] {
             management_port();
             char text[256] = "untouched";
             return IPAddr_GetIpSummary(0, text);
         }},
    Case{"IPAddr_GetIpSummary", "pcBuf null",
         [] {
             management_port();
             return IPAddr_GetIpSummary(256, nullptr);
         }},

    // ---- events
    Case{"IPAddr_RegisterEventEx", "pfCallback null",
         [] { return static_cast<std::uint32_t>(IPAddr_RegisterEventEx(1, 2, 3, 4, 1, nullptr)); }, 0xFFFFFFFFu},
    Case{"IPAddr_RegisterEvent", "pfCallback null",
         [] { return static_cast<std::uint32_t>(IPAddr_RegisterEvent(1, 2, 3, 4, nullptr)); }, 0xFFFFFFFFu},
    Case{.function = "IPAddr_DeregisterEvent", .argument = "iSock -1",
         .call = [] {
             IPAddr_DeregisterEvent(kNoSocket);
             return 0u;
         },
         .any_result = true},
    Case{"IPAddr_HandleEvent", "iSock -1", [] { return IPAddr_HandleEvent(kNoSocket); }},
    Case{"IPAddr_RequestBatchEvent", "iSock -1", [] { return IPAddr_RequestBatchEvent(kNoSocket); }},
    Case{"IPAddr_RegIfCfgEvent", "iSock -1",
         [] {
             g_pfIFCfg_EvProc = nullptr;
             const std::uint32_t result = IPAddr_RegIfCfgEvent(kNoSocket, 1, on_ifcfg);
             g_pfIFCfg_EvProc = nullptr;
             return result;
         }},
    Case{"IPAddr_RegIfCfgEvent", "pfCallback null",
         [] {
             g_pfIFCfg_EvProc = nullptr;
             return IPAddr_RegIfCfgEvent(3, 1, nullptr);
         }},
    // With a handler registered, so that the deregistration would otherwise be sent.
    Case{.function = "IPAddr_DeregIfCfgEvent", .argument = "iSock -1",
         .call = [] {
             g_pfIFCfg_EvProc = on_ifcfg;
             IPAddr_DeregIfCfgEvent(kNoSocket, 1);
             g_pfIFCfg_EvProc = nullptr;
             return 0u;
         },
         .any_result = true},
    // A failed read is handled as an empty message and gives 0 (the handler has always
    // worked so); with nothing queued, nothing is sent.
    Case{"IPAddr_HandleIfCfgMsg", "iSock -1, nothing queued", [] { return IPAddr_HandleIfCfgMsg(kNoSocket); },
         IPSTATUS_OK},
    Case{"IPAddr_RequestBatchIfCfg", "iSock -1", [] { return IPAddr_RequestBatchIfCfg(kNoSocket); }},
});

const bool exempted = ipt::surface::exempt({
    {"IPAddr_Open", "no argument"},
    {"ipaddr_SetAddrFlag", "the address flag message checks nothing, the socket included: a send on -1 fails and "
                           "gives 0x63160064"},
    {"IPAddr_SetDhcpFlag", "an address flag message, which checks nothing (ipaddr_SetAddrFlag)"},
    {"IPAddr_SetBootpFlag", "an address flag message, which checks nothing (ipaddr_SetAddrFlag)"},
    {"IPAddr_GetAddrTypeFlag", "no pointer, descriptor or ranged argument; the result is method bits"},
    {"IPAddr_GetAddrInVrf", "the null entry is allowed: the lookup then asks for the count only"},
    {"IPAddr_GetAddr", "the null entry is allowed: the lookup then asks for the count only"},
    {"IPAddr_MatchBestNetInVrf", "the null entry is allowed: the match is then made without its result"},
    {"IPAddr_MatchBestNet", "the null entry is allowed: the match is then made without its result"},
    {"IPAddr_IsBroadcast", "no pointer, descriptor or ranged argument; the result is 1 or 0"},
});

}  // namespace
