// Local-IPC sockets, framed messages, the daemon requests and the daemon's service control
// given bad arguments.
#include <cstdint>

#include "ipclient/lipc.h"
#include "surface/surface.hpp"

namespace {

using ipt::surface::Case;
using ipt::surface::Exempt;

constexpr std::int32_t kNoSocket = -1;
constexpr const char* kNoArgument = "no pointer, descriptor or ranged argument";
constexpr const char* kNullPayload = "the null payload is allowed: it is framed as zero bytes, as IP_LIPC_SendMsg does";

// A buffer from IP_LIPC_AllocMsg for the receive rows, freed when the row ends.
class MsgBuffer {
public:
    MsgBuffer() : p_(IP_LIPC_AllocMsg(16)) {}
    ~MsgBuffer() { IP_LIPC_FreeMsg(p_); }
    MsgBuffer(const MsgBuffer&) = delete;
    MsgBuffer& operator=(const MsgBuffer&) = delete;
    void* get() const { return p_; }

private:
    void* p_;
};

const bool registered = ipt::surface::add({
    Case{"IP_GetPeerNodeFromSocket", "iFd -1",
         [] {
             std::uint16_t node = 0;
             return IP_GetPeerNodeFromSocket(kNoSocket, &node);
         }},
    Case{"IP_GetPeerNodeFromSocket", "pusNode null", [] { return IP_GetPeerNodeFromSocket(3, nullptr); }},
    Case{.function = "IP_CloseSock", .argument = "iFd -1",
         .call = [] {
             IP_CloseSock(kNoSocket);
             return 0u;
         },
         .any_result = true},
    Case{"IP_LIPC_SendMsg", "iFd -1",
         [] {
             const std::uint8_t payload[8] = {1, 2, 3, 4, 5, 6, 7, 8};
             return IP_LIPC_SendMsg(kNoSocket, 3, payload, sizeof payload);
         }},
    Case{"IP_LIPC_RecvMsg", "iFd -1",
         [] {
             const MsgBuffer buf;
             std::uint64_t len = 0;
             return IP_LIPC_RecvMsg(kNoSocket, 16, buf.get(), &len, nullptr);
         }},
    Case{"IP_LIPC_RecvMsg", "pBuf null",
         [] {
             std::uint64_t len = 0;
             return IP_LIPC_RecvMsg(3, 16, nullptr, &len, nullptr);
         }},
    Case{"IP_LIPC_RecvMsg", "pulLen null",
         [] {
             const MsgBuffer buf;
             return IP_LIPC_RecvMsg(3, 16, buf.get(), nullptr, nullptr);
         }},
    Case{"IP_LIPC_RecvMsg2", "iFd -1",
         [] {
             const MsgBuffer buf;
             void* p = buf.get();
             std::uint64_t len = 0;
             std::uint16_t replaced = 0;
             return IP_LIPC_RecvMsg2(kNoSocket, 16, &p, &len, nullptr, &replaced);
         }},
    Case{"IP_LIPC_RecvMsg2", "ppBuf null",
         [] {
             std::uint64_t len = 0;
             std::uint16_t replaced = 0;
             return IP_LIPC_RecvMsg2(3, 16, nullptr, &len, nullptr, &replaced);
         }},
    Case{"IP_LIPC_RecvMsg2", "*ppBuf null",
         [] {
             void* p = nullptr;
             std::uint64_t len = 0;
             std::uint16_t replaced = 0;
             return IP_LIPC_RecvMsg2(3, 16, &p, &len, nullptr, &replaced);
         }},
    Case{"IP_LIPC_RecvMsg2", "pulLen null",
         [] {
             const MsgBuffer buf;
             void* p = buf.get();
             std::uint16_t replaced = 0;
             return IP_LIPC_RecvMsg2(3, 16, &p, nullptr, nullptr, &replaced);
         }},
    Case{"IP_LIPC_RecvMsg2", "pusReplaced null",
         [] {
             const MsgBuffer buf;
             void* p = buf.get();
             std::uint64_t len = 0;
             return IP_LIPC_RecvMsg2(3, 16, &p, &len, nullptr, nullptr);
         }},
    // The reply's payload length, 0 on any failure.
    Case{"IP_SendCfgMsgGetReply", "iFd -1",
         [] {
             const std::uint8_t req[8] = {};
             const MsgBuffer reply;
             return static_cast<std::uint32_t>(IP_SendCfgMsgGetReply(kNoSocket, req, sizeof req, 13, 16, reply.get()));
         },
         0u},
    Case{"IP_SendCfgMsgGetReply", "pReply null",
         [] {
             const std::uint8_t req[8] = {};
             return static_cast<std::uint32_t>(IP_SendCfgMsgGetReply(3, req, sizeof req, 13, 16, nullptr));
         },
         0u},
    Case{"IP_GetMsgFromDaemon", "pReply null",
         [] {
             const std::uint8_t req[8] = {};
             return static_cast<std::uint32_t>(IP_GetMsgFromDaemon(req, sizeof req, 13, 16, nullptr));
         },
         0u},
    Case{.function = "PORTATK_CloseSock", .argument = "iFd -1",
         .call = [] {
             PORTATK_CloseSock(kNoSocket);
             return 0u;
         },
         .any_result = true},
});

const bool exempted = ipt::surface::exempt({
    {"IP_LIPC_AllocMsg", "no pointer or descriptor; a size that cannot be allocated gives null"},
    {"IP_LIPC_FreeMsg", "the null buffer is allowed and ignored"},
    {"IP_OpenSrvSock", kNoArgument},
    {"IP_OpenPullSock", kNoArgument},
    {"IP_OpenCliSock", kNoArgument},
    {"IP_JoinGroup", kNoArgument},
    {"IP_SendAndRecvMsgToDaemon", kNullPayload},
    {"IP_SendMsgToDaemon", kNullPayload},
    {"PORTATK_SendAndRecvMsgToDaemon", kNullPayload},
    {"IP_GetServiceName", "no argument"},
    {"IP_StartDaemon", "no pointer or descriptor; every node is valid and nothing is sent (service manager only)"},
    {"IP_IsDaemonExist", "no pointer or descriptor; every node is valid and nothing is sent (service manager only)"},
    {"IP_ServiceStart", "no argument"},
    {"IP_DaemonCheck", "no pointer or descriptor; every mode is valid (0 starts, any other checks)"},
});

}  // namespace
