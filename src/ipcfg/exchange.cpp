// One request to the address configuration service and its 32-bit result.
#include <cstdint>
#include <sys/socket.h>

#include <cstring>

#include "ipclient/ipcfg.h"
#include "ipproto/wire.hpp"
#include "lipc/socket.hpp"

namespace {

using namespace ipc::lipc;

// Sends the request and receives at most 64 bytes into reply; the reply length, or -1
// when no socket, connection, send or receive could be had. Closes the socket on every path.
long exchange(const void* req, std::uint32_t len, std::uint8_t* reply) noexcept {
    const ipc::Fd fd = open_point_to_point();
    if (!fd.valid()) return -1;
    if (!connect_with(fd.get(), address(kOwnNode, kPortIpCfg), ConnectRule::kUntilNotInterrupted)) return -1;
    if (::send(fd.get(), req, len, 0) <= 0) return -1;
    const long n = recv_retrying(fd.get(), reply, IPCFG_REPLY_SIZE, kWaitAll);
    return n > 0 ? n : -1;
}

}  // namespace

extern "C" {

uint32_t IPCfg_SendAndRevFromPort(const void* pReq, uint32_t uiLen, uint32_t* puiResult) {
    if (pReq == nullptr || puiResult == nullptr) return IPSTATUS_FAILED;
    // Bytes a short reply does not reach read as zero.
    std::uint8_t reply[IPCFG_REPLY_SIZE] = {};
    if (exchange(pReq, uiLen, reply) < 0) return IPSTATUS_FAILED;
    *puiResult = ipc::wire::load_be<std::uint32_t>(reply + 8);
    return IPSTATUS_OK;
}

uint32_t IPCfg_SendAndRevFromPortExt(void* pReq, uint32_t uiLen, IPCFG_REPLY_EXT_S* pstExt) {
    if (pReq == nullptr || pstExt == nullptr) return IPSTATUS_FAILED;
    // The reply lands in the request buffer itself (64 bytes by contract).
    auto* buf = static_cast<std::uint8_t*>(pReq);
    if (exchange(pReq, uiLen, buf) < 0) return IPSTATUS_FAILED;
    pstExt->uiResult = ipc::wire::load_be<std::uint32_t>(buf + 8);
    pstExt->uiValue = ipc::wire::load_be<std::uint32_t>(buf + 12);
    pstExt->usValue = ipc::wire::load_be<std::uint16_t>(buf + 16);
    std::memcpy(pstExt->aucRaw, buf + 18, sizeof pstExt->aucRaw);
    return IPSTATUS_OK;
}

}  // extern "C"
