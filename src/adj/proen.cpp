// The protocol-to-CPU enabling channel.
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ipclient/adj.h"
#include "ipplat/platform.h"
#include "ipproto/raii.hpp"
#include "ipproto/svc_daemons.hpp"
#include "ipproto/wire.hpp"
#include "lipc/socket.hpp"

namespace {

using namespace ipc::lipc;

constexpr std::uint32_t kTimeoutSeconds = 30;
using ipc::proto::proen::kNoReply;
using ipc::proto::proen::kWaitReply;
constexpr int kSendBuffer = 1024;
using ipc::proto::proen::kFormEx;

// The process's channel descriptor.
int g_proen_fd = -1;

bool set_timeout(int fd, int option) noexcept {
    timeval tv{};
    tv.tv_sec = kTimeoutSeconds;
    return ::setsockopt(fd, kLevelSocket, option, &tv, sizeof tv) == 0;
}

// The 96-byte enable request.
class EnableRequest {
public:
    template <std::size_t Off>
    void word(std::uint32_t v) noexcept { f_.be<Off>(v); }
    template <std::size_t Off>
    void half(std::uint16_t v) noexcept { f_.be<Off>(v); }
    const std::uint8_t* data() const noexcept { return f_.data(); }

    EnableRequest() noexcept { f_.be<32>(std::uint16_t{0x0038}); }

private:
    ipc::wire::Frame<PROEN_REQUEST_LEN> f_;
};

EnableRequest enable_request(const std::uint32_t (&w)[9], bool local) noexcept {
    EnableRequest r;
    r.word<0>(w[0]);
    r.word<4>(w[2]);
    r.word<40>(w[3]);
    r.word<44>(w[4]);
    r.word<48>(w[5]);
    r.word<52>(w[6]);
    r.word<56>(w[7]);
    r.word<60>(w[1] != 0 ? w[8] : 0);
    if (local) r.half<92>(1);
    return r;
}

bool skipped_kind(std::uint32_t ifindex) noexcept {
    std::uint32_t type = 0;
    if (IF_GetDataByIfIndex(ifindex, IF_DATA_TYPE, &type) != 0) return false;
    return type == 40 || type == 11;
}

bool child_context() noexcept { return MDC_IsChildMDC(MDC_GetCurrentMDC()) == 1; }

// One enable request that waits for the service's status.
std::uint32_t enable_one(const std::uint32_t (&w)[9], bool local) noexcept {
    if (child_context()) return 0;
    const bool per_interface = w[1] != 0;
    if (per_interface && w[8] == 0) return IPSTATUS_FAILED;
    if (per_interface && skipped_kind(w[8])) return 0;
    const EnableRequest payload = enable_request(w, local);
    ProenMsgRequest req{};
    req.usNode = local ? static_cast<std::uint16_t>(LIP_GetLocalLip()) : kOwnNode;
    req.usPort = static_cast<std::uint16_t>(local ? PROEN_PORT_LOCAL : PROEN_PORT);
    req.uiLen = PROEN_REQUEST_LEN;
    req.pPayload = payload.data();
    std::uint8_t reply[4] = {};
    std::uint16_t reply_len = sizeof reply;
    const std::uint32_t status = PROEN_MSG_SendMsgAndRecv(PROEN_MSG_ENABLE, &req, &reply_len, reply);
    if (status != IPSTATUS_OK) return status;
    return ipc::wire::load_be<std::uint32_t>(reply);
}

// The channel for a list: the process descriptor, or one opened for the whole list.
class ListChannel {
public:
    explicit ListChannel(bool set_buffer) noexcept {
        if (g_proen_fd >= 0) {
            fd_ = g_proen_fd;
            return;
        }
        own_.reset(PROEN_MSG_MsgStart(kOwnNode, PROEN_PORT));
        fd_ = own_.get();
        if (fd_ >= 0 && set_buffer) {
            const int size = kSendBuffer;
            (void)::setsockopt(fd_, kLevelSocket, kOptSendBuffer, &size, sizeof size);
        }
    }
    int fd() const noexcept { return fd_; }

private:
    ipc::Fd own_;
    int fd_ = -1;
};

}  // namespace

extern "C" {

int32_t PROEN_MSG_MsgStart(uint16_t usNode, uint16_t usPort) {
    ipc::Fd fd(::socket(kFamily, kTypeDatagram, kProtoPointToPoint));
    if (!fd.valid()) return -1;
    if (!set_timeout(fd.get(), kOptSendTimeout) || !set_timeout(fd.get(), kOptRecvTimeout)) return -1;
    if (!connect_with(fd.get(), address(usNode, usPort), ConnectRule::kClient)) return -1;
    return fd.release();
}

void PROEN_MSG_MsgEnd(int32_t iFd) {
    if (iFd >= 0) ::close(iFd);
}

uint32_t PROEN_MSG_Send(uint32_t uiType, int32_t iFd, uint32_t uiReplyFlag, uint32_t uiLen, const void* pPayload) {
    // A payload is required whenever the message claims one.
    if (iFd < 0 || (uiLen != 0 && pPayload == nullptr)) return IPSTATUS_FAILED;
    const std::size_t total = std::size_t{PROEN_MSG_HEAD_LEN} + uiLen;
    const ipc::CBlock<std::uint8_t> msg(static_cast<std::uint8_t*>(std::calloc(total, 1)));
    if (!msg) return IPSTATUS_FAILED;
    std::uint8_t* m = msg.get();
    ipc::wire::store_be(m, uiType);
    ipc::wire::store_be(m + 4, uiReplyFlag);
    ipc::wire::store_be(m + 8, 1u);
    ipc::wire::store_be(m + 12, std::uint32_t{PROEN_MSG_HEAD_LEN});
    m[16] = 0x00;
    m[17] = 0x60;
    if (pPayload != nullptr && uiLen != 0) std::memcpy(m + PROEN_MSG_HEAD_LEN, pPayload, uiLen);
    const ssize_t sent = ::send(iFd, m, total, kDontWait);
    return sent >= 0 && static_cast<std::size_t>(sent) == total ? IPSTATUS_OK : IPSTATUS_FAILED;
}

uint32_t PROEN_MSG_Recv(int32_t iFd, uint16_t* pusLen, void* pBuf) {
    if (pusLen == nullptr) return IPSTATUS_FAILED;
    const long n = iFd >= 0 && pBuf != nullptr ? recv_retrying(iFd, pBuf, *pusLen, kWaitAll) : -1;
    if (n <= 0) {
        *pusLen = 0;
        return IPSTATUS_FAILED;
    }
    *pusLen = static_cast<std::uint16_t>(n);
    return IPSTATUS_OK;
}

uint32_t PROEN_MSG_GetMsg(uint32_t uiType, int32_t iFd, uint32_t uiLen, const void* pPayload, uint16_t* pusReplyLen,
                          void* pReply) {
    const std::uint32_t sent = PROEN_MSG_Send(uiType, iFd, kWaitReply, uiLen, pPayload);
    if (sent != IPSTATUS_OK) return sent;
    return PROEN_MSG_Recv(iFd, pusReplyLen, pReply);
}

uint32_t PROEN_MSG_SendMsgAndRecv(uint32_t uiType, const ProenMsgRequest* pstReq, uint16_t* pusReplyLen,
                                  void* pReply) {
    if (pstReq == nullptr || pstReq->pPayload == nullptr || pReply == nullptr) return IPSTATUS_FAILED;
    ipc::Fd own;
    int fd = g_proen_fd;
    if (fd < 0) {
        own.reset(PROEN_MSG_MsgStart(pstReq->usNode, pstReq->usPort));
        if (!own.valid()) return IPSTATUS_PROEN_NO_SOCKET;
        fd = own.get();
    }
    return PROEN_MSG_GetMsg(uiType, fd, pstReq->uiLen, pstReq->pPayload, pusReplyLen, pReply);
}

int32_t PROEN_Open(void) {
    const int fd = PROEN_MSG_MsgStart(kOwnNode, PROEN_PORT);
    if (fd >= 0) g_proen_fd = fd;
    return fd;
}

void PROEN_Close(int32_t iFd) {
    if (iFd < 0 || iFd != g_proen_fd) return;
    ::close(iFd);
    g_proen_fd = -1;
}

int32_t PROEN_GetSocketFd(void) { return g_proen_fd; }

uint32_t PROEN_AppSmoothStart(uint32_t uiWord1, uint32_t uiWord2) {
    std::uint8_t payload[8];
    ipc::wire::store_be(payload, uiWord2);
    ipc::wire::store_be(payload + 4, uiWord1);
    return PROEN_MSG_Send(PROEN_MSG_SMOOTH_START, g_proen_fd, kNoReply, sizeof payload, payload);
}

uint32_t PROEN_AppSmoothEnd(uint32_t uiWord1, uint32_t uiWord2) {
    std::uint8_t payload[8];
    ipc::wire::store_be(payload, uiWord2);
    ipc::wire::store_be(payload + 4, uiWord1);
    return PROEN_MSG_Send(PROEN_MSG_SMOOTH_END, g_proen_fd, kNoReply, sizeof payload, payload);
}

uint32_t IP_EnableProtocolToCPU(uint32_t uiWord1, uint32_t uiPerInterface, uint32_t uiWord3, uint32_t uiWord4,
                                uint32_t uiWord5, uint32_t uiWord6, uint32_t uiWord7, uint32_t uiWord8,
                                uint32_t uiIfIndex) {
    const std::uint32_t w[9] = {uiWord1, uiPerInterface, uiWord3, uiWord4, uiWord5, uiWord6, uiWord7, uiWord8, uiIfIndex};
    return enable_one(w, false);
}

uint32_t IP_EnableProtocolToCPULocal(uint32_t uiWord1, uint32_t uiPerInterface, uint32_t uiWord3, uint32_t uiWord4,
                                     uint32_t uiWord5, uint32_t uiWord6, uint32_t uiWord7, uint32_t uiWord8,
                                     uint32_t uiIfIndex) {
    const std::uint32_t w[9] = {uiWord1, uiPerInterface, uiWord3, uiWord4, uiWord5, uiWord6, uiWord7, uiWord8, uiIfIndex};
    return enable_one(w, true);
}

uint32_t IP_EnableProtocolPacketListToCPU(uint32_t uiCount, ProenEnableItem* pstList) {
    if (child_context()) return 0;
    if (pstList == nullptr) return IPSTATUS_FAILED;
    if (uiCount == 0) return 0;
    const ListChannel channel(true);
    if (channel.fd() < 0) return IPSTATUS_PROEN_NO_SOCKET;
    std::uint32_t sum = 0;
    for (std::uint32_t i = 0; i < uiCount; ++i) {
        std::uint32_t (&w)[9] = pstList[i].auiWord;
        if (w[1] != 0) {
            if (w[8] == 0 || skipped_kind(w[8])) continue;
        } else {
            w[8] = 0;  // written back into the caller's element
        }
        const EnableRequest payload = enable_request(w, false);
        sum += PROEN_MSG_Send(PROEN_MSG_ENABLE, channel.fd(), kNoReply, PROEN_REQUEST_LEN, payload.data());
    }
    return sum;
}

uint32_t IP_EnableProtocolToCpuEx(uint32_t uiCount, const ProenEnableItemEx* pstList, uint32_t uiWord) {
    if (uiCount == 0 || pstList == nullptr) return IPSTATUS_FAILED;
    if (child_context()) return 0;
    const ListChannel channel(false);
    if (channel.fd() < 0) return IPSTATUS_PROEN_NO_SOCKET;
    // The per-interface flag of every element is the first element's, on purpose.
    const bool per_interface = pstList[0].auiWord[1] != 0;
    std::uint32_t sum = 0;
    for (std::uint32_t i = 0; i < uiCount; ++i) {
        const std::uint32_t* w = pstList[i].auiWord;
        EnableRequest r;
        r.word<0>(w[0]);
        r.word<4>(w[2]);
        r.word<40>(w[3]);
        r.word<64>(w[4]);
        r.word<44>(w[5]);
        r.word<48>(w[6]);
        r.word<52>(w[7]);
        r.word<56>(w[8]);
        r.word<72>(w[9]);
        r.word<60>(per_interface ? w[10] : 0);
        r.half<68>(pstList[i].usHalf);
        r.word<36>(kFormEx);
        r.word<88>(uiWord);
        sum += PROEN_MSG_Send(PROEN_MSG_ENABLE, channel.fd(), kNoReply, PROEN_REQUEST_LEN, r.data());
    }
    return sum;
}

}  // extern "C"
