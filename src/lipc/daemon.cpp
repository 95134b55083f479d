// One-shot requests to the IP daemon and to the port-attack daemon.
#include <cstdint>
#include <sys/socket.h>
#include <unistd.h>

#include "ipclient/lipc.h"
#include "ipproto/wire.hpp"
#include "lipc/frame.hpp"
#include "lipc/socket.hpp"

namespace {

using namespace ipc::lipc;

// The daemon's 8-byte answer: a big-endian result, then 4 bytes that are not looked at.
bool read_answer(int fd, std::uint32_t* result) noexcept {
    std::uint8_t answer[8] = {};
    const long n = recv_retrying(fd, answer, sizeof answer, kWaitAll);
    if (n < 4) return false;
    *result = ipc::wire::load_be<std::uint32_t>(answer);
    return true;
}

}  // namespace

extern "C" {

uint64_t IP_GetMsgFromDaemon(const void* pReq, uint32_t uiReqLen, uint16_t usType, uint64_t ulCap, void* pReply) {
    if (pReply == nullptr) return 0;
    const ipc::Fd fd(IP_OpenCliSock(kOwnNode, kPortIpStack));
    if (!fd.valid()) return 0;
    return IP_SendCfgMsgGetReply(fd.get(), pReq, uiReqLen, usType, ulCap, pReply);
}

uint32_t IP_SendAndRecvMsgToDaemon(uint16_t usType, const void* pPayload, uint32_t uiLen) {
    const ipc::Fd fd(IP_OpenCliSock(kOwnNode, kPortIpStack));
    if (!fd.valid()) return IPSTATUS_DAEMON_EXCHANGE;
    if (IP_LIPC_SendMsg(fd.get(), usType, pPayload, static_cast<std::uint16_t>(uiLen)) != IPSTATUS_OK) {
        return IPSTATUS_DAEMON_EXCHANGE;
    }
    std::uint32_t result = 0;
    return read_answer(fd.get(), &result) ? result : IPSTATUS_DAEMON_EXCHANGE;
}

uint32_t IP_SendMsgToDaemon(uint16_t usType, const void* pPayload, uint16_t usLen) {
    const ipc::Fd fd(IP_OpenCliSock(kOwnNode, kPortIpStack));
    if (!fd.valid()) return IPSTATUS_DAEMON_EXCHANGE;
    return IP_LIPC_SendMsg(fd.get(), usType, pPayload, usLen) == IPSTATUS_OK ? IPSTATUS_OK
                                                                             : IPSTATUS_DAEMON_EXCHANGE;
}

uint32_t PORTATK_SendAndRecvMsgToDaemon(uint16_t usType, const void* pPayload, uint32_t uiLen) {
    // Connect and framing are done here rather than through the shared operations.
    const int fd = ::socket(kFamily, kTypeDatagram, kProtoPointToPoint);
    if (fd < 0) return IPSTATUS_DAEMON_EXCHANGE;
    std::uint32_t result = IPSTATUS_DAEMON_EXCHANGE;
    if (connect_with(fd, address(kOwnNode, kPortPortAttack), ConnectRule::kClient)) {
        const std::uint16_t total = frame_total(uiLen);
        const ipc::CBlock<std::uint8_t> block = frame(usType, pPayload, uiLen, total);
        if (block && ::send(fd, block.get(), total, kWaitAll) == static_cast<ssize_t>(total)) {
            std::uint32_t answer = 0;
            if (read_answer(fd, &answer)) result = answer;
        }
    }
    PORTATK_CloseSock(fd);
    return result;
}

void PORTATK_CloseSock(int32_t iFd) {
    if (iFd >= 0) ::close(iFd);
}

}  // extern "C"
