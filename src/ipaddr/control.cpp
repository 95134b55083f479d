// The address control socket and its change requests.
#include "ipaddr/control.hpp"

#include <errno.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ipclient/ipaddr.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_addr.hpp"
#include "ipproto/raii.hpp"
#include "lipc/socket.hpp"

namespace ipc::ipaddr {

int connect_service(std::uint16_t node, std::uint16_t port) noexcept {
    const int fd = ::socket(lipc::kFamily, lipc::kTypeDatagram, lipc::kProtoPointToPoint);
    if (fd < 0) return fd;
    Fd owner(fd);
    (void)::setsockopt(fd, lipc::kLevelLipc, lipc::kOptAddrService, nullptr, 0);
    if (!lipc::connect_with(fd, lipc::address(node, port), lipc::ConnectRule::kUntilNotInterrupted)) return -1;
    return owner.release();
}

void queue_message(std::span<const std::uint8_t> bytes) noexcept {
    auto* rec = static_cast<IPAddrCfgRec*>(std::calloc(1, sizeof(IPAddrCfgRec)));
    auto* data = static_cast<std::uint8_t*>(std::malloc(bytes.empty() ? 1 : bytes.size()));
    if (rec == nullptr || data == nullptr) {
        std::free(rec);
        std::free(data);
        return;
    }
    if (!bytes.empty()) std::memcpy(data, bytes.data(), bytes.size());
    rec->uiLen = static_cast<std::uint32_t>(bytes.size());
    rec->pData = data;
    if (g_stCfgList.pstTail != nullptr) {
        g_stCfgList.pstTail->pstNext = rec;
    } else {
        g_stCfgList.pstHead = rec;
    }
    g_stCfgList.pstTail = rec;
}

namespace {

// Reads answers until the final one (first word 1), queueing every other message; sends
// one acknowledgement when anything was queued. The service's result, or 0x63160064.
std::uint32_t await_answer(int fd) noexcept {
    bool queued = false;
    const auto acknowledge = [&] {
        if (!queued) return;
        const Message<0> ack(Op::kAck);
        (void)send_frame(fd, ack);
    };
    alignas(8) std::uint8_t buf[kMsgMax];
    for (;;) {
        const ssize_t n = ::recv(fd, buf, sizeof buf, lipc::kWaitAll);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        const wire::View msg(buf, static_cast<std::size_t>(n));
        if (msg.be<std::uint32_t>(0) == 1u) {
            const auto result = msg.be<std::uint32_t>(8);
            acknowledge();
            return result ? *result : IPSTATUS_IPSTACK_EXCHANGE;
        }
        queue_message(msg.bytes());
        queued = true;
    }
    acknowledge();
    return IPSTATUS_IPSTACK_EXCHANGE;
}

template <std::size_t N>
std::uint32_t request(int fd, const wire::Frame<N>& msg, bool wait = true) noexcept {
    if (send_frame(fd, msg) < static_cast<long>(N)) return IPSTATUS_IPSTACK_EXCHANGE;
    return wait ? await_answer(fd) : IPSTATUS_OK;
}

constexpr std::uint32_t kActionAdd = 0;
constexpr std::uint32_t kActionDelete = 1;

// The 64-byte address change: action, request flags, the address as an IPAddrInfo in wire
// order, the MAD word.
std::uint32_t change(int fd, std::uint32_t action, const IPAddrInfo& info, std::uint16_t mad,
                     std::uint32_t flags) noexcept {
    Message<64> msg(Op::kAddrChange);
    msg.be<8>(action);
    msg.be<12>(flags);
    msg.record<16>(info, proto::addr::kInfoFields);
    msg.be<68>(mad);
    return request(fd, msg, (flags & IPADDR_REQ_NO_WAIT) == 0);
}

std::uint32_t add(int fd, const IPAddrEntry* entry, std::uint64_t context, std::uint32_t value, std::uint16_t mad,
                  std::uint32_t flags) noexcept {
    if (fd < 0 || entry == nullptr) return IPSTATUS_FAILED;
    IPAddrInfo info{};
    info.stEntry = *entry;
    info.uiInfo1 = value;
    std::memcpy(info.aucInfoData + 4, &context, sizeof context);
    return change(fd, kActionAdd, info, mad, flags);
}

std::uint32_t smooth(int fd, std::uint32_t phase, std::uint32_t word1, std::uint32_t word2) noexcept {
    if (fd < 0 || word1 == 0) return IPSTATUS_FAILED;
    Message<16> msg(Op::kSmooth);
    msg.be<8>(phase);
    msg.be<12>(1u);
    msg.be<16>(word1);
    msg.be<20>(word2);
    return send_frame(fd, msg) < 0 ? IPSTATUS_FAILED : IPSTATUS_OK;
}

}  // namespace
}  // namespace ipc::ipaddr

using namespace ipc::ipaddr;

extern "C" {

IPAddrCfgList g_stCfgList = {nullptr, nullptr};

int32_t IPAddr_Open(void) { return connect_service(ipc::lipc::kOwnNode, kPortControl); }

void IPAddr_Close(int32_t iSock) {
    if (iSock >= 0) ::close(iSock);
    for (IPAddrCfgRec* rec = g_stCfgList.pstHead; rec != nullptr;) {
        IPAddrCfgRec* next = rec->pstNext;
        std::free(rec->pData);
        std::free(rec);
        rec = next;
    }
    g_stCfgList.pstHead = nullptr;
    g_stCfgList.pstTail = nullptr;
}

uint32_t IPAddr_AddAddrEx(int32_t iSock, const IPAddrEntry* pstEntry, uint64_t ulContext, uint32_t uiValue,
                          uint32_t uiFlags) {
    return add(iSock, pstEntry, ulContext, uiValue, 0, uiFlags);
}

uint32_t IPAddr_AddAddr(int32_t iSock, const IPAddrEntry* pstEntry, uint32_t uiValue, uint32_t uiFlags) {
    return add(iSock, pstEntry, 0, uiValue, 0, uiFlags);
}

uint32_t IPAddr_AddMADAddr(int32_t iSock, const IPAddrEntry* pstEntry, uint16_t usMadWord, uint32_t uiFlags) {
    if (pstEntry == nullptr || pstEntry->stKey.uiMethod != IPADDR_METHOD_MAD) return IPSTATUS_FAILED;
    return add(iSock, pstEntry, 0, 0, usMadWord, uiFlags);
}

uint32_t IPAddr_DelAddr(int32_t iSock, const IPAddrEntry* pstEntry, uint32_t uiFlags) {
    if (iSock < 0 || pstEntry == nullptr) return IPSTATUS_FAILED;
    IPAddrInfo info{};
    info.stEntry.stKey = pstEntry->stKey;
    info.stEntry.uiFlag = pstEntry->uiFlag;
    return change(iSock, kActionDelete, info, 0, uiFlags);
}

uint32_t ipaddr_SetAddrFlag(int32_t iSock, uint32_t uiWord, uint32_t uiMethodBit, uint32_t uiValue) {
    Message<12> msg(Op::kAddrFlag);
    msg.be<8>(uiWord);
    msg.be<12>(uiMethodBit);
    msg.be<16>(uiValue);
    return request(iSock, msg);
}

uint32_t IPAddr_SetDhcpFlag(int32_t iSock, uint32_t uiWord, uint32_t uiValue) {
    return ipaddr_SetAddrFlag(iSock, uiWord, IPADDR_METHOD_DHCP, uiValue);
}

uint32_t IPAddr_SetBootpFlag(int32_t iSock, uint32_t uiWord, uint32_t uiValue) {
    return ipaddr_SetAddrFlag(iSock, uiWord, IPADDR_METHOD_BOOTP, uiValue);
}

uint32_t ipaddr_SetNetProtocolInfo(int32_t iSock, uint32_t uiWord1, uint32_t uiWord2, uint32_t uiAction) {
    if (iSock < 0) return IPSTATUS_FAILED;
    Message<12> msg(Op::kNetProtocol);
    msg.be<8>(uiWord1);
    msg.be<12>(uiWord2);
    msg.be<16>(uiAction);
    return request(iSock, msg);
}

uint32_t IPAddr_EnableNetProtocol(int32_t iSock, uint32_t uiWord1, uint32_t uiWord2) {
    return ipaddr_SetNetProtocolInfo(iSock, uiWord1, uiWord2, 1);
}

uint32_t IPAddr_DisableNetProtocol(int32_t iSock, uint32_t uiWord1, uint32_t uiWord2) {
    return ipaddr_SetNetProtocolInfo(iSock, uiWord1, uiWord2, 2);
}

uint32_t IPAddr_SmoothStart(int32_t iSock, uint32_t uiWord1, uint32_t uiWord2) {
    return smooth(iSock, 1, uiWord1, uiWord2);
}

uint32_t IPAddr_SmoothEnd(int32_t iSock, uint32_t uiWord1, uint32_t uiWord2) {
    return smooth(iSock, 2, uiWord1, uiWord2);
}

uint32_t IPAddr_GetAddrTypeFlag(uint32_t uiIfIndex) {
    std::uint32_t method = 0;
    const auto self = static_cast<std::uint16_t>(DEV_GetSelf());
    return IPAddr_Drvk_GetIFMethod(self, uiIfIndex, &method) == IPSTATUS_OK ? method : 0;
}

}  // extern "C"
