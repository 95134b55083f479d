// Generic netlink: resolving a family through the controller and sending one command.
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ipclient/adj.h"
#include "ipproto/wire.hpp"

namespace {

constexpr int kNetlink = 16;  // the platform's netlink family number
constexpr int kRaw = 3;
constexpr int kGenericNetlink = 16;
constexpr std::uint16_t kController = 16;
constexpr std::uint8_t kGetFamily = 3;
constexpr std::uint16_t kAttrFamilyId = 1;
constexpr std::uint16_t kAttrFamilyName = 2;
constexpr std::size_t kHeadersLen = 20;  // netlink header (16) and generic header (4)
constexpr std::size_t kReplyMax = 48;
constexpr std::uint16_t kNetlinkError = 2;
constexpr int kDontWait = 64;

constexpr std::size_t align4(std::size_t n) noexcept { return (n + 3) & ~std::size_t{3}; }

// The kernel's address in the platform's length-and-family layout.
struct KernelAddr {
    std::uint8_t bytes[16] = {0, kNetlink};
    const sockaddr* sa() const noexcept { return reinterpret_cast<const sockaddr*>(bytes); }
};

// Netlink headers are in the host's order, as the kernel reads them.
void put_host16(std::uint8_t* p, std::uint16_t v) noexcept { std::memcpy(p, &v, 2); }
void put_host32(std::uint8_t* p, std::uint32_t v) noexcept { std::memcpy(p, &v, 4); }
std::uint16_t get_host16(const std::uint8_t* p) noexcept {
    std::uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}

}  // namespace

extern "C" {

uint32_t ADJ4_GetGenlFamilyId(int32_t iSock, const char* pcName, uint16_t* pusId) {
    if (iSock < 0 || pcName == nullptr || pusId == nullptr) return IPSTATUS_FAILED;
    const std::size_t name_len = strnlen(pcName, ADJ_GENL_NAME_MAX);
    const std::size_t attr_len = name_len + 5;
    std::uint8_t req[kHeadersLen + align4(ADJ_GENL_NAME_MAX + 5)] = {};
    const std::size_t total = kHeadersLen + align4(attr_len);
    put_host32(req, static_cast<std::uint32_t>(total));
    put_host16(req + 4, kController);
    put_host16(req + 6, ADJ_GENL_FLAG_REQUEST);
    req[16] = kGetFamily;
    put_host16(req + 20, static_cast<std::uint16_t>(attr_len));
    put_host16(req + 22, kAttrFamilyName);
    std::memcpy(req + 24, pcName, name_len);  // the terminating zero is already there
    const KernelAddr kernel;
    if (::sendto(iSock, req, total, 0, kernel.sa(), sizeof kernel.bytes) < 0) return IPSTATUS_FAILED;
    std::uint8_t reply[kReplyMax] = {};
    const ssize_t n = ::recv(iSock, reply, sizeof reply, kDontWait);
    if (n < 0) return IPSTATUS_FAILED;
    const ipc::wire::View got(reply, static_cast<std::size_t>(n));
    // An error report of the kernel carries no family.
    if (!got.has(kHeadersLen, 4) || get_host16(reply + 4) == kNetlinkError) return IPSTATUS_FAILED;
    // Skip the headers and the first attribute; the next must be the family id.
    const std::size_t first_len = get_host16(reply + kHeadersLen);
    if (first_len < 4) return IPSTATUS_FAILED;
    const std::size_t id_at = kHeadersLen + align4(first_len);
    if (!got.has(id_at, 6)) return IPSTATUS_FAILED;
    if (get_host16(reply + id_at + 2) != kAttrFamilyId) return IPSTATUS_FAILED;
    *pusId = get_host16(reply + id_at + 4);
    return IPSTATUS_OK;
}

uint32_t ADJ4_GenlOpen(ADJ_GENL_S* pstGenl) {
    if (pstGenl == nullptr || pstGenl->pcFamilyName == nullptr) return IPSTATUS_FAILED;
    const int fd = ::socket(kNetlink, kRaw, kGenericNetlink);
    if (fd < 0) return IPSTATUS_FAILED;
    std::uint16_t id = 0;
    if (ADJ4_GetGenlFamilyId(fd, pstGenl->pcFamilyName, &id) != IPSTATUS_OK) {
        ::close(fd);
        return IPSTATUS_FAILED;
    }
    pstGenl->iSock = fd;
    pstGenl->usFamilyId = id;
    return IPSTATUS_OK;
}

uint32_t ADJ4_GenlSendCmd(ADJ_GENL_S* pstGenl, const void* pPayload, uint32_t uiLen) {
    if (pstGenl == nullptr || pstGenl->iSock < 0 || (pPayload == nullptr && uiLen != 0)) return IPSTATUS_FAILED;
    std::uint8_t nl[16] = {};
    put_host32(nl, uiLen + static_cast<std::uint32_t>(kHeadersLen));
    put_host16(nl + 4, pstGenl->usFamilyId);
    put_host16(nl + 6, pstGenl->usFlags);
    std::uint8_t genl[4] = {pstGenl->ucCmd};
    iovec iov[3] = {{nl, sizeof nl}, {genl, sizeof genl}, {const_cast<void*>(pPayload), uiLen}};
    KernelAddr kernel;
    msghdr msg{};
    msg.msg_name = kernel.bytes;
    msg.msg_namelen = sizeof kernel.bytes;
    msg.msg_iov = iov;
    msg.msg_iovlen = uiLen != 0 ? 3 : 2;
    return ::sendmsg(pstGenl->iSock, &msg, 0) < 0 ? IPSTATUS_FAILED : IPSTATUS_OK;
}

void ADJ4_GenlClose(ADJ_GENL_S* pstGenl) {
    if (pstGenl == nullptr) return;
    if (pstGenl->iSock >= 0) ::close(pstGenl->iSock);
    pstGenl->iSock = -1;
    std::free(pstGenl->pBuffer);
    pstGenl->pBuffer = nullptr;
}

uint32_t ADJ4_GenlRecvDoIt(const char* pcName, uint8_t ucCmd, const void* pPayload, uint32_t uiLen, uint32_t uiCap,
                           void* pReply) {
    if (pReply == nullptr && uiCap != 0) return IPSTATUS_FAILED;
    ADJ_GENL_S genl{};
    genl.iSock = -1;
    genl.usFlags = ADJ_GENL_FLAG_REQUEST;
    genl.ucCmd = ucCmd;
    genl.pcFamilyName = pcName;
    if (ADJ4_GenlOpen(&genl) != IPSTATUS_OK) return IPSTATUS_FAILED;
    std::uint32_t result = ADJ4_GenlSendCmd(&genl, pPayload, uiLen);
    if (result == IPSTATUS_OK) {
        if (uiCap != 0) std::memset(pReply, 0, uiCap);
        const ssize_t n = ::recv(genl.iSock, pReply, uiCap, kDontWait);
        const bool ours = n >= 6 && get_host16(static_cast<const std::uint8_t*>(pReply) + 4) == genl.usFamilyId;
        result = ours ? IPSTATUS_OK : IPSTATUS_FAILED;
    }
    ADJ4_GenlClose(&genl);
    return result;
}

}  // extern "C"
