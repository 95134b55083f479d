// The adjacency message channel: connections to the adjacency services and their messages.
#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ipclient/adj.h"
#include "ipproto/raii.hpp"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "lipc/socket.hpp"

namespace {

using namespace ipc::lipc;

constexpr std::uint16_t kAnyNode = 0xFFFF;
constexpr std::uint32_t kDefault = ADJ_TIMEOUT_DEFAULT;
constexpr std::uint32_t kSendMsgTimeout = 5;

// The differences between the IPv4 and IPv6 users of the channel.
struct Family {
    bool send_checks_minus_one;  // IPv4: a result of -1 fails before the length test
    int recv_flags;              // IPv6 waits for the whole datagram
    bool checks_reply_len;       // IPv6 refuses a null reply length before opening
};
constexpr Family kV4{true, 0, false};
constexpr Family kV6{false, kWaitAll, true};

bool set_timeout(int fd, int option, std::uint32_t seconds) noexcept {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(seconds);
    static_assert(sizeof tv == 16, "the platform's time value is 16 bytes");
    return ::setsockopt(fd, kLevelSocket, option, &tv, sizeof tv) == 0;
}

int start(std::uint16_t node, std::uint16_t port, std::uint32_t send_to, std::uint32_t recv_to) noexcept {
    ipc::Fd fd(::socket(kFamily, kTypeDatagram, kProtoPointToPoint));
    if (!fd.valid()) return -1;
    if (send_to != kDefault) {
        if (!set_timeout(fd.get(), kOptSendTimeout, send_to)) return -1;
        if (recv_to != kDefault && !set_timeout(fd.get(), kOptRecvTimeout, recv_to)) return -1;
    } else if (recv_to != kDefault && !set_timeout(fd.get(), kOptRecvTimeout, recv_to)) {
        return -1;
    }
    if (node == kAnyNode) node = kOwnNode;
    if (!connect_with(fd.get(), address(node, port), ConnectRule::kClient)) return -1;
    return fd.release();
}

std::uint32_t send_msg(const Family& fam, std::uint8_t type, int fd, std::uint16_t len, std::uint16_t count,
                       const void* payload, int flags) noexcept {
    // A payload is required whenever the message claims one.
    if (fd < 0 || (len != 0 && payload == nullptr)) return IPSTATUS_FAILED;
    const std::uint16_t total = static_cast<std::uint16_t>(ADJ_MSG_HEAD_LEN + len);
    const ipc::CBlock<std::uint8_t> msg(static_cast<std::uint8_t*>(std::calloc(ADJ_MSG_HEAD_LEN + std::size_t{len}, 1)));
    if (!msg) return IPSTATUS_FAILED;
    namespace adj = ipc::proto::adj;
    msg.get()[adj::kMsgTypeAt] = type;
    ipc::wire::store_be(msg.get() + adj::kMsgLenAt, len);
    ipc::wire::store_be(msg.get() + adj::kMsgCountAt, count);
    if (len != 0 && payload != nullptr) std::memcpy(msg.get() + ADJ_MSG_HEAD_LEN, payload, len);
    const ssize_t sent = ::send(fd, msg.get(), ADJ_MSG_HEAD_LEN + std::size_t{len}, flags);
    if (fam.send_checks_minus_one && sent == -1) return IPSTATUS_FAILED;
    return static_cast<std::uint16_t>(sent) == total ? IPSTATUS_OK : IPSTATUS_FAILED;
}

std::uint32_t recv_msg(const Family& fam, int fd, std::uint16_t* len, void* buf) noexcept {
    if (fd < 0 || len == nullptr || buf == nullptr) return IPSTATUS_FAILED;
    const long n = recv_retrying(fd, buf, *len, fam.recv_flags);
    if (n <= 0) {
        *len = 0;
        return IPSTATUS_FAILED;
    }
    *len = static_cast<std::uint16_t>(n);
    return IPSTATUS_OK;
}

std::uint32_t get_msg(const Family& fam, std::uint8_t type, int fd, std::uint16_t len, const void* payload,
                      std::uint16_t* reply_len, void* reply) noexcept {
    if (payload == nullptr || reply == nullptr) return IPSTATUS_FAILED;
    const std::uint32_t sent = send_msg(fam, type, fd, len, 1, payload, ADJ_SEND_DONTWAIT);
    if (sent != IPSTATUS_OK) return sent;
    return recv_msg(fam, fd, reply_len, reply);
}

std::uint32_t send_to_dest(const Family& fam, std::uint8_t type, const ADJ_MSG_DEST_S* dest,
                           std::uint16_t count) noexcept {
    if (dest == nullptr || dest->pPayload == nullptr) return IPSTATUS_FAILED;
    const ipc::Fd fd(start(dest->usNode, dest->usPort, kSendMsgTimeout, kSendMsgTimeout));
    if (!fd.valid()) return IPSTATUS_FAILED;
    return send_msg(fam, type, fd.get(), dest->usLen, count, dest->pPayload, ADJ_SEND_DONTWAIT);
}

std::uint32_t send_and_recv(const Family& fam, std::uint8_t type, const ADJ_MSG_DEST_S* dest, std::uint32_t send_to,
                            std::uint32_t recv_to, int flags, std::uint16_t* reply_len, void* reply) noexcept {
    if (dest == nullptr || dest->pPayload == nullptr || reply == nullptr) return IPSTATUS_FAILED;
    if (fam.checks_reply_len && reply_len == nullptr) return IPSTATUS_FAILED;
    const ipc::Fd fd(start(dest->usNode, dest->usPort, send_to, recv_to));
    if (!fd.valid()) return IPSTATUS_FAILED;
    const std::uint32_t sent = send_msg(fam, type, fd.get(), dest->usLen, 1, dest->pPayload, flags);
    if (sent != IPSTATUS_OK) return sent;
    return recv_msg(fam, fd.get(), reply_len, reply);
}

void end(int fd) noexcept {
    if (fd >= 0) ::close(fd);
}

}  // namespace

extern "C" {

int32_t ADJ4_GetMsgStart(uint16_t usNode, uint16_t usPort, uint32_t uiSendTimeout, uint32_t uiRecvTimeout) {
    return start(usNode, usPort, uiSendTimeout, uiRecvTimeout);
}
int32_t ADJ6_GetMsgStart(uint16_t usNode, uint16_t usPort, uint32_t uiSendTimeout, uint32_t uiRecvTimeout) {
    return start(usNode, usPort, uiSendTimeout, uiRecvTimeout);
}

uint32_t ADJ4_Send(uint8_t ucType, int32_t iFd, uint16_t usLen, uint16_t usCount, const void* pPayload,
                   int32_t iFlags) {
    return send_msg(kV4, ucType, iFd, usLen, usCount, pPayload, iFlags);
}
uint32_t ADJ6_Send(uint8_t ucType, int32_t iFd, uint16_t usLen, uint16_t usCount, const void* pPayload,
                   int32_t iFlags) {
    return send_msg(kV6, ucType, iFd, usLen, usCount, pPayload, iFlags);
}

uint32_t ADJ4_Recv(int32_t iFd, uint16_t* pusLen, void* pBuf) { return recv_msg(kV4, iFd, pusLen, pBuf); }
uint32_t ADJ6_Recv(int32_t iFd, uint16_t* pusLen, void* pBuf) { return recv_msg(kV6, iFd, pusLen, pBuf); }

uint32_t ADJ4_GetMsg(uint8_t ucType, int32_t iFd, uint16_t usLen, const void* pPayload, uint16_t* pusReplyLen,
                     void* pReply) {
    return get_msg(kV4, ucType, iFd, usLen, pPayload, pusReplyLen, pReply);
}
uint32_t ADJ6_GetMsg(uint8_t ucType, int32_t iFd, uint16_t usLen, const void* pPayload, uint16_t* pusReplyLen,
                     void* pReply) {
    return get_msg(kV6, ucType, iFd, usLen, pPayload, pusReplyLen, pReply);
}

void ADJ4_GetMsgEnd(int32_t iFd) { end(iFd); }
void ADJ6_GetMsgEnd(int32_t iFd) { end(iFd); }

uint32_t ADJ4_SendMsg(uint8_t ucType, const ADJ_MSG_DEST_S* pstDest, uint16_t usCount) {
    return send_to_dest(kV4, ucType, pstDest, usCount);
}
uint32_t ADJ6_SendMsg(uint8_t ucType, const ADJ_MSG_DEST_S* pstDest, uint16_t usCount) {
    return send_to_dest(kV6, ucType, pstDest, usCount);
}

uint32_t ADJ4_SendMsgAndRecv(uint8_t ucType, const ADJ_MSG_DEST_S* pstDest, uint32_t uiSendTimeout,
                             uint32_t uiRecvTimeout, int32_t iFlags, uint16_t* pusReplyLen, void* pReply) {
    return send_and_recv(kV4, ucType, pstDest, uiSendTimeout, uiRecvTimeout, iFlags, pusReplyLen, pReply);
}
uint32_t ADJ6_SendMsgAndRecv(uint8_t ucType, const ADJ_MSG_DEST_S* pstDest, uint32_t uiSendTimeout,
                             uint32_t uiRecvTimeout, int32_t iFlags, uint16_t* pusReplyLen, void* pReply) {
    return send_and_recv(kV6, ucType, pstDest, uiSendTimeout, uiRecvTimeout, iFlags, pusReplyLen, pReply);
}

}  // extern "C"
