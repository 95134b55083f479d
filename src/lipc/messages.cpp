// Message buffers with a hidden header, and framed send and receive.
#include <cstdint>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>

#include "ipclient/lipc.h"
#include "ipproto/raii.hpp"
#include "ipproto/wire.hpp"
#include "lipc/frame.hpp"
#include "lipc/socket.hpp"

namespace ipc::lipc {

std::uint16_t frame_total(std::uint32_t payload_len) noexcept {
    return static_cast<std::uint16_t>(payload_len + kHeadLen);
}

CBlock<std::uint8_t> frame(std::uint16_t type, const void* payload, std::uint32_t payload_len,
                           std::uint16_t total) noexcept {
    // A zero-filled block of exactly the framed total (at least one byte, so that a total
    // that wrapped to 0 still has a block); header and payload are cut to what fits.
    CBlock<std::uint8_t> block(static_cast<std::uint8_t*>(std::calloc(total != 0 ? total : 1, 1)));
    if (!block) return block;
    std::uint8_t head[kHeadLen];
    wire::store_be(head, type);
    wire::store_be(head + 2, total);
    std::memcpy(block.get(), head, std::min<std::size_t>(kHeadLen, total));
    if (payload != nullptr && total > kHeadLen) {
        std::memcpy(block.get() + kHeadLen, payload, std::min<std::size_t>(payload_len, total - kHeadLen));
    }
    return block;
}

bool send_framed(int fd, std::uint16_t type, const void* payload, std::uint32_t payload_len) noexcept {
    const std::uint16_t total = frame_total(payload_len);
    const CBlock<std::uint8_t> block = frame(type, payload, payload_len, total);
    if (!block) return false;
    return ::send(fd, block.get(), total, kWaitAll) == static_cast<ssize_t>(total);
}

namespace {

std::uint8_t* hidden_head(void* payload) noexcept { return static_cast<std::uint8_t*>(payload) - kHeadLen; }

// Payload length and type from a header; a length below the header's own size gives 0.
void read_head(const std::uint8_t* head, std::uint64_t* len, std::uint32_t* type) noexcept {
    const std::uint16_t total = wire::load_be<std::uint16_t>(head + 2);
    *len = total >= kHeadLen ? total - kHeadLen : 0;
    if (type != nullptr) *type = wire::load_be<std::uint16_t>(head);
}

}  // namespace
}  // namespace ipc::lipc

using namespace ipc::lipc;

extern "C" {

void* IP_LIPC_AllocMsg(uint64_t ulSize) {
    if (ulSize > SIZE_MAX - kHeadLen) return nullptr;
    auto* block = static_cast<std::uint8_t*>(std::malloc(static_cast<std::size_t>(ulSize) + kHeadLen));
    return block != nullptr ? block + kHeadLen : nullptr;
}

void IP_LIPC_FreeMsg(void* pMsg) {
    if (pMsg != nullptr) std::free(hidden_head(pMsg));
}

uint32_t IP_LIPC_SendMsg(int32_t iFd, uint16_t usType, const void* pPayload, uint16_t usLen) {
    if (iFd < 0) return IPSTATUS_FAILED;
    return send_framed(iFd, usType, pPayload, usLen) ? IPSTATUS_OK : IPSTATUS_FAILED;
}

uint32_t IP_LIPC_RecvMsg(int32_t iFd, uint64_t ulCap, void* pBuf, uint64_t* pulLen, uint32_t* puiType) {
    if (pBuf == nullptr || pulLen == nullptr || ulCap > SIZE_MAX - kHeadLen) return IPSTATUS_FAILED;
    std::uint8_t* head = hidden_head(pBuf);
    if (::recv(iFd, head, static_cast<std::size_t>(ulCap) + kHeadLen, kWaitAll) < 0) return IPSTATUS_FAILED;
    read_head(head, pulLen, puiType);
    return IPSTATUS_OK;
}

uint32_t IP_LIPC_RecvMsg2(int32_t iFd, uint64_t ulCap, void** ppBuf, uint64_t* pulLen, uint32_t* puiType,
                          uint16_t* pusReplaced) {
    if (ppBuf == nullptr || *ppBuf == nullptr || pulLen == nullptr || pusReplaced == nullptr ||
        ulCap > SIZE_MAX - kHeadLen) {
        return IPSTATUS_FAILED;
    }
    std::uint8_t head[kHeadLen] = {};
    if (::recv(iFd, head, kHeadLen, kPeekWaitAll) < 1) return IPSTATUS_FAILED;
    read_head(head, pulLen, puiType);
    if (ulCap < *pulLen) {
        void* grown = IP_LIPC_AllocMsg(*pulLen);
        if (grown == nullptr) return IPSTATUS_FAILED;
        if (::recv(iFd, hidden_head(grown), static_cast<std::size_t>(*pulLen) + kHeadLen, kWaitAll) < 0) {
            IP_LIPC_FreeMsg(grown);
            return IPSTATUS_FAILED;
        }
        *pusReplaced = 1;
        *ppBuf = grown;
        return IPSTATUS_OK;
    }
    if (::recv(iFd, hidden_head(*ppBuf), static_cast<std::size_t>(ulCap) + kHeadLen, kWaitAll) < 0) {
        return IPSTATUS_FAILED;
    }
    return IPSTATUS_OK;
}

uint64_t IP_SendCfgMsgGetReply(int32_t iFd, const void* pReq, uint32_t uiReqLen, uint16_t usType, uint64_t ulCap,
                               void* pReply) {
    // Nothing is sent unless the reply can be received.
    if (iFd < 0 || pReply == nullptr) return 0;
    if (!send_framed(iFd, usType, pReq, uiReqLen)) return 0;
    std::uint64_t len = 0;
    if (IP_LIPC_RecvMsg(iFd, ulCap, pReply, &len, nullptr) != IPSTATUS_OK) return 0;
    return len;
}

}  // extern "C"
