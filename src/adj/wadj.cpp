// WLAN adjacency entries: control requests to the kernel module and the event subscription.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "ipclient/adj.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_wlan.hpp"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "kernel/channel.hpp"
#include "lipc/socket.hpp"

namespace {

constexpr std::uint16_t kAnyNode = 0xFFFF;
constexpr std::uint32_t kSendTimeout = 5;
constexpr std::uint32_t kRecvTimeout = 1;
namespace events = ipc::proto::wlan_events;  // subscription, events and record head
constexpr std::uint32_t kKindNotAllowed = 4;
constexpr std::size_t kRecordHead = events::kRecordHead;
constexpr std::size_t kMinRemaining = 20;

using namespace ipc::proto::wlan;  // sub-operations and request layout

// [sub-op][header byte][0 0][body]; the reply is not read, only the status.
template <std::size_t N>
std::uint32_t control(ipc::wire::Frame<N>& req, std::uint8_t sub_op, std::uint8_t header_byte) noexcept {
    req.data()[0] = sub_op;
    req.data()[1] = header_byte;
    std::uint8_t reply[4];
    std::uint32_t returned = 0;
    return CIOCTL(ipc::kernel::kLocalNodeWord, ipc::proto::wlan::kCmdAdjacency, static_cast<std::uint32_t>(N),
                  req.data(), sizeof reply, reply, &returned);
}

bool kind_not_allowed(std::uint32_t ifindex) noexcept {
    std::uint32_t kind = 0;
    return IF_GetDataByIfIndex(ifindex, IF_DATA_KIND, &kind) == 0 && kind == kKindNotAllowed;
}

}  // namespace

extern "C" {

WADJ4_EVENT_PF g_pfWADJ4EventProc = nullptr;

int32_t WADJ4_RegEvent(uint32_t uiSelector, WADJ4_EVENT_PF pfCallback) {
    const int fd = ADJ4_GetMsgStart(kAnyNode, ADJ_PORT_WLAN, kSendTimeout, kRecvTimeout);
    if (fd < 0) return -1;
    std::uint8_t payload[8] = {};
    ipc::wire::store_be(payload, uiSelector);
    if (ADJ4_Send(events::kSubscribe, fd, sizeof payload, 1, payload, ADJ_SEND_DONTWAIT) != IPSTATUS_OK) {
        ::close(fd);
        return -1;
    }
    g_pfWADJ4EventProc = pfCallback;
    return fd;
}

void WADJ4_DeregEvent(int32_t iFd) {
    if (iFd < 0) return;
    ::close(iFd);
    g_pfWADJ4EventProc = nullptr;
}

uint32_t WADJ4_ProcEvent(int32_t iFd) {
    if (iFd < 0 || g_pfWADJ4EventProc == nullptr) return IPSTATUS_FAILED;
    alignas(8) std::uint8_t buf[WADJ4_EVENT_MAX];
    const ssize_t n = ::recv(iFd, buf, sizeof buf, ipc::lipc::kDontWait);
    if (n < 0) return IPSTATUS_FAILED;
    std::size_t off = 0;
    const auto size = static_cast<std::size_t>(n);
    while (size - off >= kMinRemaining) {
        std::uint8_t* rec = buf + off;
        const auto len = ipc::wire::load_be<std::uint32_t>(rec);
        // A record shorter than its header, or longer than what remains, ends the datagram.
        if (len < kRecordHead || len > size - off) break;
        const auto type = ipc::wire::load_be<std::uint32_t>(rec + 4);
        const auto first = ipc::wire::load_be<std::uint32_t>(rec + 8);
        std::memcpy(rec, &len, 4);
        std::memcpy(rec + 4, &type, 4);
        std::memcpy(rec + 8, &first, 4);
        off += len;
        if (type == events::kClear) {
            (void)g_pfWADJ4EventProc(events::kClear, nullptr);
        } else if (type == events::kRefresh || type == events::kDelete) {
            std::uint32_t valid = 0;
            if (len >= 16) std::memcpy(&valid, rec + 12, 4);
            if (valid != 0) (void)g_pfWADJ4EventProc(type, rec + 8);
        }
    }
    return IPSTATUS_OK;
}

uint32_t WADJ4_Refresh(uint32_t uiFirst, uint32_t uiSecond, const void* pEntry) {
    if (pEntry == nullptr) return IPSTATUS_FAILED;
    ipc::wire::Frame<kEntryRequestLen> req;
    req.raw32<kFirstAt>(uiFirst);
    req.raw32<kSecondAt>(uiSecond);
    req.raw<kEntryAt, WADJ4_ENTRY_LEN>(pEntry);
    return control(req, kRefresh, kEntryRequestHeader);
}

uint32_t WADJ4_Delete(uint32_t uiFirst, uint32_t uiIfIndex) {
    if (kind_not_allowed(uiIfIndex)) return IPSTATUS_FAILED;
    ipc::wire::Frame<kDeleteRequestLen> req;
    req.raw32<kFirstAt>(uiFirst);
    req.raw32<kSecondAt>(uiIfIndex);
    return control(req, kDelete, kDeleteRequestHeader);
}

uint32_t WADJ4_DeleteByIf(uint32_t uiIfIndex, uint16_t usSelector) {
    if (kind_not_allowed(uiIfIndex)) return IPSTATUS_FAILED;
    ipc::wire::Frame<kEntryRequestLen> req;
    req.raw32<kSecondAt>(uiIfIndex);
    req.raw<kSelectorAt, 2>(&usSelector);
    return control(req, kDeleteByIf, kEntryRequestHeader);
}

}  // extern "C"
