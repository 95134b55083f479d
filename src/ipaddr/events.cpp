// Address events on their own socket, and interface-configuration messages on the
// control socket.
#include <errno.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ipaddr/control.hpp"
#include "ipclient/ipaddr.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_addr.hpp"
#include "ipproto/raii.hpp"
#include "ipproto/wire.hpp"
#include "lipc/socket.hpp"

namespace {

using namespace ipc::ipaddr;
using ipc::wire::View;

// Address event message types and records; interface-configuration sub-operations and
// records.
using namespace ipc::proto::addr_svc;
// Interface-configuration record: words A, B, C, half D, 2 bytes of padding.
constexpr std::array<ipc::wire::Field, 4> kIfCfgFields{{{0, 4}, {4, 4}, {8, 4}, {12, 2}}};

// Whole records of `record_len` bytes that lie inside both the message's own length and
// the bytes at hand, starting at `offset`.
std::size_t whole_records(const View& msg, std::size_t offset, std::uint32_t claimed, std::size_t record_len) noexcept {
    const std::size_t have = msg.size() > offset ? msg.size() - offset : 0;
    return std::min<std::size_t>(claimed, have) / record_len;
}

// An interface-configuration message: sub-operation, value length, value.
template <std::size_t ValueLen>
class IfCfgMessage : public Message<8 + ValueLen> {
public:
    explicit IfCfgMessage(std::uint32_t sub_op) noexcept : Message<8 + ValueLen>(Op::kIfCfg) {
        this->template be<8>(sub_op);
        this->template be<12>(static_cast<std::uint32_t>(ValueLen));
    }
};

// Acts on an inner interface-configuration message [type][length][records] held in buf.
std::uint32_t process_ifcfg(int sock, std::uint8_t* inner, std::size_t len) noexcept {
    const View msg(inner, len);
    const std::uint32_t type = msg.be<std::uint32_t>(0).value_or(0);
    switch (type) {
        case kEvents: {
            const std::size_t n = whole_records(msg, 8, msg.be<std::uint32_t>(4).value_or(0), kIfCfgRecordLen);
            for (std::size_t i = 0; i < n; ++i) {
                // Each record is converted in place, then delivered.
                std::uint8_t* r = inner + 8 + i * kIfCfgRecordLen;
                ipc::wire::swap_fields(std::span<std::uint8_t>(r, kIfCfgRecordLen), kIfCfgFields);
                std::uint32_t a, b, c;
                std::uint16_t d;
                std::memcpy(&a, r, 4);
                std::memcpy(&b, r + 4, 4);
                std::memcpy(&c, r + 8, 4);
                std::memcpy(&d, r + 12, 2);
                if (g_pfIFCfg_EvProc != nullptr) (void)g_pfIFCfg_EvProc(c, a, b, d);
            }
            return IPSTATUS_OK;
        }
        case kKeepAlive: {
            const IfCfgMessage<0> answer(kIfCfgKeepAliveAnswer);
            return send_frame(sock, answer) < static_cast<long>(answer.size()) ? IPSTATUS_FAILED : IPSTATUS_OK;
        }
        case kEndSignal: return IPSTATUS_EVENT_RESYNC;
        default: return IPSTATUS_OK;
    }
}

}  // namespace

extern "C" {

IPADDR_EVPROC_PF g_pfIPAddr_EvProc = nullptr;
IPADDR_IFCFG_PF g_pfIFCfg_EvProc = nullptr;

int32_t IPAddr_RegisterEventEx(uint32_t uiWord1, uint32_t uiWord2, uint32_t uiWord3, uint32_t uiWord4,
                               uint32_t uiMode, IPADDR_EVPROC_PF pfCallback) {
    if (pfCallback == nullptr || g_pfIPAddr_EvProc != nullptr) return -1;
    const int fd = connect_service(static_cast<std::uint16_t>(LIP_GetLocalLip()), kPortEvents);
    if (fd < 0) return fd;
    ipc::Fd owner(fd);
    Message<16> subscribe(kSubscribe);
    subscribe.be<8>(uiWord1);
    subscribe.be<12>(uiWord2);
    subscribe.be<16>(uiWord3);
    subscribe.be<20>(uiWord4);
    const long sent = send_frame(fd, subscribe);
    if (sent == static_cast<long>(subscribe.size()) && uiMode == 1) {
        std::uint8_t answer[4];
        if (ipc::lipc::recv_retrying(fd, answer, sizeof answer, ipc::lipc::kWaitAll) < 0) return -1;
    }
    if (sent < 0) return -1;
    g_pfIPAddr_EvProc = pfCallback;  // a short send is let through on purpose
    return owner.release();
}

int32_t IPAddr_RegisterEvent(uint32_t uiWord1, uint32_t uiWord2, uint32_t uiWord3, uint32_t uiWord4,
                             IPADDR_EVPROC_PF pfCallback) {
    return IPAddr_RegisterEventEx(uiWord1, uiWord2, uiWord3, uiWord4, 1, pfCallback);
}

void IPAddr_DeregisterEvent(int32_t iSock) {
    if (iSock < 0) return;
    ::close(iSock);
    g_pfIPAddr_EvProc = nullptr;
}

uint32_t IPAddr_HandleEvent(int32_t iSock) {
    if (iSock < 0) return IPSTATUS_FAILED;
    alignas(8) std::uint8_t buf[kMsgMax];
    const ssize_t n = ::recv(iSock, buf, sizeof buf, ipc::lipc::kDontWait);
    if (n < 8) return IPSTATUS_FAILED;
    const View msg(buf, static_cast<std::size_t>(n));
    switch (*msg.be<std::uint32_t>(0)) {
        case kEvents: {
            const std::size_t count = whole_records(msg, 8, *msg.be<std::uint32_t>(4), kEventRecordLen);
            for (std::size_t i = 0; i < count; ++i) {
                std::uint8_t* r = buf + 8 + i * kEventRecordLen;
                const auto event = ipc::wire::load_be<std::uint32_t>(r);
                const auto word2 = ipc::wire::load_be<std::uint32_t>(r + 4);
                const auto word3 = ipc::wire::load_be<std::uint32_t>(r + 8);
                auto* entry = reinterpret_cast<IPAddrEntry*>(r + kEventEntryOffset);
                ipc::proto::addr::to_host(entry);
                if (g_pfIPAddr_EvProc != nullptr) {
                    (void)g_pfIPAddr_EvProc(event, entry, word2, word3, entry->uiFlag, entry->stKey.uiMethod);
                }
            }
            return IPSTATUS_OK;
        }
        case kKeepAlive: {
            const Message<0> answer(kKeepAliveAnswer);
            (void)send_frame(iSock, answer);
            return IPSTATUS_OK;
        }
        case kEndSignal: return IPSTATUS_EVENT_RESYNC;
        default: return IPSTATUS_OK;
    }
}

uint32_t IPAddr_RequestBatchEvent(int32_t iSock) {
    if (iSock < 0) return IPSTATUS_FAILED;
    const Message<0> request(kBatchRequest);
    return send_frame(iSock, request) == static_cast<long>(request.size()) ? IPSTATUS_OK : IPSTATUS_FAILED;
}

uint32_t IPAddr_RegIfCfgEvent(int32_t iSock, uint32_t uiWord, IPADDR_IFCFG_PF pfCallback) {
    if (iSock < 0 || pfCallback == nullptr || g_pfIFCfg_EvProc != nullptr) return IPSTATUS_FAILED;
    // Queued messages are dropped, not freed, as registration has always done.
    g_stCfgList.pstHead = nullptr;
    g_stCfgList.pstTail = nullptr;
    IfCfgMessage<4> msg(kIfCfgRegister);
    msg.be<16>(uiWord);
    if (send_frame(iSock, msg) < static_cast<long>(msg.size())) return IPSTATUS_FAILED;
    g_pfIFCfg_EvProc = pfCallback;
    return IPSTATUS_OK;
}

void IPAddr_DeregIfCfgEvent(int32_t iSock, uint32_t uiWord) {
    // A negative socket does nothing, as with IPAddr_DeregisterEvent: the handler stays.
    if (iSock < 0 || g_pfIFCfg_EvProc == nullptr) return;
    IfCfgMessage<4> msg(kIfCfgDeregister);
    msg.be<16>(uiWord);
    (void)send_frame(iSock, msg);
    g_pfIFCfg_EvProc = nullptr;
}

uint32_t IPAddr_HandleIfCfgMsg(int32_t iSock) {
    if (IPAddrCfgRec* rec = g_stCfgList.pstHead) {
        g_stCfgList.pstHead = rec->pstNext;
        if (g_stCfgList.pstHead == nullptr) g_stCfgList.pstTail = nullptr;
        auto* data = static_cast<std::uint8_t*>(rec->pData);
        const View msg(data, rec->uiLen);
        std::uint32_t result = IPSTATUS_OK;
        if (msg.be<std::uint32_t>(0) == 0u && rec->uiLen >= 8) result = process_ifcfg(iSock, data + 8, rec->uiLen - 8);
        std::free(rec->pData);
        std::free(rec);
        return result;
    }
    alignas(8) std::uint8_t buf[kMsgMax] = {};
    const ssize_t n = ::recv(iSock, buf, sizeof buf, ipc::lipc::kDontWait);
    // Compared unsigned: a failed read (-1) passes the size test and the buffer's first
    // word decides; the bytes at hand are then the whole (zeroed) buffer.
    const auto count = static_cast<std::size_t>(n);
    if (count <= 8) return IPSTATUS_OK;
    const std::size_t have = std::min(count, sizeof buf);
    if (ipc::wire::load_be<std::uint32_t>(buf) != 0) return IPSTATUS_OK;
    return process_ifcfg(iSock, buf + 8, have - 8);
}

uint32_t IPAddr_RequestBatchIfCfg(int32_t iSock) {
    if (iSock < 0) return IPSTATUS_FAILED;
    const IfCfgMessage<0> msg(kIfCfgBatch);
    return send_frame(iSock, msg) < static_cast<long>(msg.size()) ? IPSTATUS_FAILED : IPSTATUS_OK;
}

}  // extern "C"
