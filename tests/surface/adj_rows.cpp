// The adjacency message channel, generic netlink, the queue walks, the protocol-to-CPU
// channel and the WLAN adjacency events given bad arguments.
#include <cstdint>
#include <string>
#include <vector>

#include "ipclient/adj.h"
#include "surface/surface.hpp"

namespace {

using ipt::surface::Case;
using ipt::surface::Exempt;

constexpr std::int32_t kNoSocket = -1;
constexpr std::uint16_t kLocalNode = 0x8000;
constexpr const char* kNoArgument = "no pointer, descriptor or ranged argument";
constexpr std::uint8_t kPayload[8] = {1, 2, 3, 4, 5, 6, 7, 8};

uint32_t on_wlan_event(uint32_t, void*) { return 0; }

// The rows of one family of the message channel (ADJ4_ or ADJ6_): the same checks apply.
template <auto Send, auto Recv, auto GetMsg, auto GetMsgEnd, auto SendMsg, auto SendMsgAndRecv>
std::vector<Case> channel_rows(const std::string& v) {
    return {
        Case{v + "_Send", "iFd -1", [] { return Send(3, kNoSocket, sizeof kPayload, 1, kPayload, 0); }},
        Case{v + "_Send", "pPayload null with a length", [] { return Send(3, 5, 8, 1, nullptr, 0); }},
        Case{v + "_Recv", "iFd -1",
             [] {
                 std::uint8_t buf[16];
                 std::uint16_t len = sizeof buf;
                 return Recv(kNoSocket, &len, buf);
             }},
        Case{v + "_Recv", "pusLen null",
             [] {
                 std::uint8_t buf[16];
                 return Recv(5, nullptr, buf);
             }},
        Case{v + "_Recv", "pBuf null",
             [] {
                 std::uint16_t len = 16;
                 return Recv(5, &len, nullptr);
             }},
        Case{v + "_GetMsg", "iFd -1",
             [] {
                 std::uint8_t reply[16];
                 std::uint16_t len = sizeof reply;
                 return GetMsg(3, kNoSocket, sizeof kPayload, kPayload, &len, reply);
             }},
        Case{v + "_GetMsg", "pPayload null",
             [] {
                 std::uint8_t reply[16];
                 std::uint16_t len = sizeof reply;
                 return GetMsg(3, 5, 8, nullptr, &len, reply);
             }},
        Case{v + "_GetMsg", "pReply null",
             [] {
                 std::uint16_t len = 16;
                 return GetMsg(3, 5, sizeof kPayload, kPayload, &len, nullptr);
             }},
        Case{.function = v + "_GetMsgEnd", .argument = "iFd -1",
             .call = [] {
                 GetMsgEnd(kNoSocket);
                 return 0u;
             },
             .any_result = true},
        Case{v + "_SendMsg", "pstDest null", [] { return SendMsg(3, nullptr, 1); }},
        Case{v + "_SendMsg", "pstDest->pPayload null",
             [] {
                 const ADJ_MSG_DEST_S dest{kLocalNode, 1653, 8, 0, nullptr};
                 return SendMsg(3, &dest, 1);
             }},
        Case{v + "_SendMsgAndRecv", "pstDest null",
             [] {
                 std::uint8_t reply[16];
                 std::uint16_t len = sizeof reply;
                 return SendMsgAndRecv(3, nullptr, 5, 5, 0, &len, reply);
             }},
        Case{v + "_SendMsgAndRecv", "pstDest->pPayload null",
             [] {
                 const ADJ_MSG_DEST_S dest{kLocalNode, 1653, 8, 0, nullptr};
                 std::uint8_t reply[16];
                 std::uint16_t len = sizeof reply;
                 return SendMsgAndRecv(3, &dest, 5, 5, 0, &len, reply);
             }},
        Case{v + "_SendMsgAndRecv", "pReply null",
             [] {
                 const ADJ_MSG_DEST_S dest{kLocalNode, 1653, sizeof kPayload, 0, kPayload};
                 std::uint16_t len = 16;
                 return SendMsgAndRecv(3, &dest, 5, 5, 0, &len, nullptr);
             }},
    };
}

const bool registered_v4 = ipt::surface::add(
    channel_rows<ADJ4_Send, ADJ4_Recv, ADJ4_GetMsg, ADJ4_GetMsgEnd, ADJ4_SendMsg, ADJ4_SendMsgAndRecv>("ADJ4"));
const bool registered_v6 = ipt::surface::add(
    channel_rows<ADJ6_Send, ADJ6_Recv, ADJ6_GetMsg, ADJ6_GetMsgEnd, ADJ6_SendMsg, ADJ6_SendMsgAndRecv>("ADJ6"));

const bool registered = ipt::surface::add({
    // Only the IPv6 family checks the reply length pointer before it sends; the IPv4 family
    // sends and then fails its receive, as it always has, so it has no such row.
    Case{"ADJ6_SendMsgAndRecv", "pusReplyLen null",
         [] {
             const ADJ_MSG_DEST_S dest{kLocalNode, 1653, sizeof kPayload, 0, kPayload};
             std::uint8_t reply[16];
             return ADJ6_SendMsgAndRecv(3, &dest, 5, 5, 0, nullptr, reply);
         }},

    Case{"ADJ4_GetGenlFamilyId", "iSock -1",
         [] {
             std::uint16_t id = 0;
             return ADJ4_GetGenlFamilyId(kNoSocket, "nlctrl", &id);
         }},
    Case{"ADJ4_GetGenlFamilyId", "pcName null",
         [] {
             std::uint16_t id = 0;
             return ADJ4_GetGenlFamilyId(5, nullptr, &id);
         }},
    Case{"ADJ4_GetGenlFamilyId", "pusId null", [] { return ADJ4_GetGenlFamilyId(5, "nlctrl", nullptr); }},
    Case{"ADJ4_GenlOpen", "pstGenl null", [] { return ADJ4_GenlOpen(nullptr); }},
    Case{"ADJ4_GenlOpen", "pstGenl->pcFamilyName null",
         [] {
             ADJ_GENL_S genl{};
             genl.iSock = -1;
             return ADJ4_GenlOpen(&genl);
         }},
    Case{"ADJ4_GenlSendCmd", "pstGenl null", [] { return ADJ4_GenlSendCmd(nullptr, kPayload, sizeof kPayload); }},
    Case{"ADJ4_GenlSendCmd", "pstGenl->iSock -1",
         [] {
             ADJ_GENL_S genl{};
             genl.iSock = kNoSocket;
             genl.usFamilyId = 16;
             return ADJ4_GenlSendCmd(&genl, kPayload, sizeof kPayload);
         }},
    Case{"ADJ4_GenlSendCmd", "pPayload null with a length",
         [] {
             ADJ_GENL_S genl{};
             genl.iSock = 5;
             genl.usFamilyId = 16;
             return ADJ4_GenlSendCmd(&genl, nullptr, 8);
         }},
    Case{.function = "ADJ4_GenlClose", .argument = "pstGenl null",
         .call = [] {
             ADJ4_GenlClose(nullptr);
             return 0u;
         },
         .any_result = true},
    Case{"ADJ4_GenlRecvDoIt", "pcName null",
         [] {
             std::uint8_t reply[64];
             return ADJ4_GenlRecvDoIt(nullptr, 3, kPayload, sizeof kPayload, sizeof reply, reply);
         }},
    Case{"ADJ4_GenlRecvDoIt", "pReply null with a capacity",
         [] { return ADJ4_GenlRecvDoIt("nlctrl", 3, kPayload, sizeof kPayload, 64, nullptr); }},

    // The walks give no status: 0 is their "nothing" (no handle, no position).
    Case{"ADJ_GetDtqNext", "pfStep null", [] { return static_cast<std::uint32_t>(ADJ_GetDtqNext(1, nullptr, nullptr)); },
         0u},
    Case{"ADJ_DtqWalkGetNext", "pContext null",
         [] {
             void* out = &out;
             const auto next = static_cast<std::uint32_t>(ADJ_DtqWalkGetNext(ADJ_DTQ_FORWARD, 0, nullptr, &out));
             return out == nullptr ? next : 0xDEADu;  // the out-argument is the (null) context
         },
         0u},
    Case{.function = "ADJ_DtqWalkUnReg", .argument = "ulHandle 0",
         .call = [] {
             ADJ_DtqWalkUnReg(0, nullptr);
             return 0u;
         },
         .any_result = true},

    Case{.function = "PROEN_MSG_MsgEnd", .argument = "iFd -1",
         .call = [] {
             PROEN_MSG_MsgEnd(kNoSocket);
             return 0u;
         },
         .any_result = true},
    Case{"PROEN_MSG_Send", "iFd -1", [] { return PROEN_MSG_Send(1, kNoSocket, 1, sizeof kPayload, kPayload); }},
    Case{"PROEN_MSG_Send", "pPayload null with a length", [] { return PROEN_MSG_Send(1, 5, 1, 8, nullptr); }},
    Case{"PROEN_MSG_Recv", "iFd -1",
         [] {
             std::uint8_t buf[16];
             std::uint16_t len = sizeof buf;
             const std::uint32_t result = PROEN_MSG_Recv(kNoSocket, &len, buf);
             return len == 0 ? result : 0xDEADu;  // a failed receive reports no bytes
         }},
    Case{"PROEN_MSG_Recv", "pusLen null",
         [] {
             std::uint8_t buf[16];
             return PROEN_MSG_Recv(5, nullptr, buf);
         }},
    Case{"PROEN_MSG_Recv", "pBuf null",
         [] {
             std::uint16_t len = 16;
             return PROEN_MSG_Recv(5, &len, nullptr);
         }},
    Case{"PROEN_MSG_GetMsg", "iFd -1",
         [] {
             std::uint8_t reply[16];
             std::uint16_t len = sizeof reply;
             return PROEN_MSG_GetMsg(1, kNoSocket, sizeof kPayload, kPayload, &len, reply);
         }},
    Case{"PROEN_MSG_GetMsg", "pPayload null with a length",
         [] {
             std::uint8_t reply[16];
             std::uint16_t len = sizeof reply;
             return PROEN_MSG_GetMsg(1, 5, 8, nullptr, &len, reply);
         }},
    Case{"PROEN_MSG_SendMsgAndRecv", "pstReq null",
         [] {
             std::uint8_t reply[16];
             std::uint16_t len = sizeof reply;
             return PROEN_MSG_SendMsgAndRecv(1, nullptr, &len, reply);
         }},
    Case{"PROEN_MSG_SendMsgAndRecv", "pstReq->pPayload null",
         [] {
             const ProenMsgRequest req{kLocalNode, PROEN_PORT, 8, nullptr};
             std::uint8_t reply[16];
             std::uint16_t len = sizeof reply;
             return PROEN_MSG_SendMsgAndRecv(1, &req, &len, reply);
         }},
    Case{"PROEN_MSG_SendMsgAndRecv", "pReply null",
         [] {
             const ProenMsgRequest req{kLocalNode, PROEN_PORT, sizeof kPayload, kPayload};
             std::uint16_t len = 16;
             return PROEN_MSG_SendMsgAndRecv(1, &req, &len, nullptr);
         }},
    Case{.function = "PROEN_Close", .argument = "iFd -1",
         .call = [] {
             PROEN_Close(kNoSocket);
             return 0u;
         },
         .any_result = true},
    // Without the process descriptor (PROEN_Open not called) there is nothing to send on.
    Case{"PROEN_AppSmoothStart", "no process descriptor", [] { return PROEN_AppSmoothStart(1, 2); }},
    Case{"PROEN_AppSmoothEnd", "no process descriptor", [] { return PROEN_AppSmoothEnd(1, 2); }},
    // The per-interface flag with interface index 0.
    Case{"IP_EnableProtocolToCPU", "uiIfIndex 0 with the per-interface flag",
         [] { return IP_EnableProtocolToCPU(1, 1, 3, 4, 5, 6, 7, 8, 0); }},
    Case{"IP_EnableProtocolToCPULocal", "uiIfIndex 0 with the per-interface flag",
         [] { return IP_EnableProtocolToCPULocal(1, 1, 3, 4, 5, 6, 7, 8, 0); }},
    Case{"IP_EnableProtocolPacketListToCPU", "pstList null", [] { return IP_EnableProtocolPacketListToCPU(2, nullptr); }},
    Case{"IP_EnableProtocolToCpuEx", "pstList null", [] { return IP_EnableProtocolToCpuEx(2, nullptr, 0); }},
    Case{"IP_EnableProtocolToCpuEx", "uiCount 0",
         [] {
             const ProenEnableItemEx item{};
             return IP_EnableProtocolToCpuEx(0, &item, 0);
         }},

    Case{.function = "WADJ4_DeregEvent", .argument = "iFd -1",
         .call = [] {
             const WADJ4_EVENT_PF before = g_pfWADJ4EventProc;
             g_pfWADJ4EventProc = on_wlan_event;
             WADJ4_DeregEvent(kNoSocket);
             const bool kept = g_pfWADJ4EventProc == on_wlan_event;  // a negative descriptor changes nothing
             g_pfWADJ4EventProc = before;
             return kept ? 0u : 1u;
         },
         .expected = 0u},
    Case{"WADJ4_ProcEvent", "iFd -1",
         [] {
             const WADJ4_EVENT_PF before = g_pfWADJ4EventProc;
             g_pfWADJ4EventProc = on_wlan_event;
             const std::uint32_t result = WADJ4_ProcEvent(kNoSocket);
             g_pfWADJ4EventProc = before;
             return result;
         }},
    Case{"WADJ4_Refresh", "pEntry null", [] { return WADJ4_Refresh(1, 2, nullptr); }},
});

const bool exempted = ipt::surface::exempt({
    {"ADJ4_GetMsgStart", "node, port and time-outs only; every value is a destination or a time-out (65535: the default)"},
    {"ADJ6_GetMsgStart", "node, port and time-outs only; every value is a destination or a time-out (65535: the default)"},
    {"ADJ_DtqWalkReg", "the anchor and queue head are the caller's to give; a null head is a finished walk, not an error"},
    {"PROEN_MSG_MsgStart", "node and port only; every value is a destination"},
    {"PROEN_Open", kNoArgument},
    {"WADJ4_RegEvent", "a null callback is stored like any other; the drain then fails without reading"},
    {"PROEN_GetSocketFd", kNoArgument},
    {"WADJ4_Delete", "no pointer or descriptor; the interface index is tested against the directory, not a range"},
    {"WADJ4_DeleteByIf", "no pointer or descriptor; the interface index is tested against the directory, not a range"},
});

}  // namespace
