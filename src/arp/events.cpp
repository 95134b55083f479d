// ARP event subscriptions: the callback list under the process-wide lock, and dispatch.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ipclient/arp.h"
#include "ipplat/platform.h"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "lipc/socket.hpp"

namespace {

constexpr std::uint16_t kPort = ADJ_PORT_ARP;
constexpr std::uint32_t kSendTimeout = 5;
constexpr std::uint32_t kRecvTimeout = 2;
using namespace ipc::proto::adj4;  // message types of the service
constexpr std::size_t kRecordHead = ipc::proto::adj::kRecordHead;
constexpr std::size_t kFullRecord = kEventRecordLen;  // 60

// Fields of the entry converted from network order; the others pass untouched.
constexpr std::array<ipc::wire::Field, 11> kEntryFields{{{0, 4}, {8, 4}, {12, 4}, {16, 2}, {18, 2}, {28, 4},
                                                         {32, 4}, {36, 4}, {40, 4}, {46, 2}, {48, 2}}};

// RAII holders of the process-wide reader/writer lock.
struct WriteLock {
    WriteLock() { pthread_rwlock_wrlock(&g_stARPEventProcList_rwLock); }
    ~WriteLock() { pthread_rwlock_unlock(&g_stARPEventProcList_rwLock); }
};
struct ReadLock {
    ReadLock() { pthread_rwlock_rdlock(&g_stARPEventProcList_rwLock); }
    ~ReadLock() { pthread_rwlock_unlock(&g_stARPEventProcList_rwLock); }
};

ARP_EVENT_PROC_NODE_S* find(int fd) noexcept {
    for (ARP_EVENT_PROC_NODE_S* n = g_stARPEventProcList; n != nullptr; n = n->pstNext) {
        if (n->iSocket == fd) return n;
    }
    return nullptr;
}

// A short record's scratch copy: zero but for the two defaults, as they read converted.
void reset_scratch(std::uint8_t (&scratch)[kFullRecord]) noexcept {
    std::memset(scratch, 0, sizeof scratch);
    ipc::wire::store_be(scratch + kRecordHead + 8, 0xFFFFFFFFu);
    ipc::wire::store_be(scratch + kRecordHead + 12, 0x0000FFFFu);
}

std::uint32_t concerned(std::uint8_t type, int fd, std::uint32_t addr, std::uint32_t scope) noexcept {
    if (fd < 0) return IPSTATUS_FAILED;
    std::uint8_t payload[8];
    std::memcpy(payload, &scope, 4);  // as given
    ipc::wire::store_be(payload + 4, addr);
    return ADJ4_Send(type, fd, sizeof payload, 1, payload, ADJ_SEND_DONTWAIT);
}

template <class Req>
std::uint32_t batch(std::uint8_t type, int fd, const Req* req, std::uint32_t word_d) noexcept {
    std::uint8_t payload[16] = {};
    ipc::wire::store_be(payload, req->uiWordA);
    ipc::wire::store_be(payload + 4, req->uiWordB);
    payload[8] = req->ucSelector;
    ipc::wire::store_be(payload + 12, word_d);
    return ADJ4_Send(type, fd, sizeof payload, 1, payload, 0);
}

}  // namespace

extern "C" {

ARP_EVENT_PROC_NODE_S* g_stARPEventProcList = nullptr;
pthread_rwlock_t g_stARPEventProcList_rwLock = PTHREAD_RWLOCK_INITIALIZER;

int32_t ARP_RegEvent(uint32_t uiFirst, uint32_t uiSecond, ARP_EVENT_PF pfCallback) {
    const int fd = ADJ4_GetMsgStart(static_cast<std::uint16_t>(DEV_GetSystemMaster()), kPort, kSendTimeout, kRecvTimeout);
    if (fd < 0) return -1;
    std::uint8_t payload[12] = {};
    ipc::wire::store_be(payload, uiFirst);
    ipc::wire::store_be(payload + 8, uiSecond);
    auto* rec = ADJ4_Send(kSubscribe, fd, sizeof payload, 1, payload, ADJ_SEND_DONTWAIT) == IPSTATUS_OK
                    ? static_cast<ARP_EVENT_PROC_NODE_S*>(std::calloc(1, sizeof(ARP_EVENT_PROC_NODE_S)))
                    : nullptr;
    if (rec == nullptr) {
        ARP_DeregEvent(fd);
        return -1;
    }
    rec->pfCallback = pfCallback;
    rec->iSocket = fd;
    const WriteLock lock;
    rec->pstNext = g_stARPEventProcList;
    rec->ppstPrev = &g_stARPEventProcList;
    if (g_stARPEventProcList != nullptr) g_stARPEventProcList->ppstPrev = &rec->pstNext;
    g_stARPEventProcList = rec;
    return fd;
}

void ARP_DeregEvent(int32_t iFd) {
    if (iFd < 0) return;
    {
        const WriteLock lock;
        if (ARP_EVENT_PROC_NODE_S* rec = find(iFd)) {
            *rec->ppstPrev = rec->pstNext;
            if (rec->pstNext != nullptr) rec->pstNext->ppstPrev = rec->ppstPrev;
            std::free(rec);
        }
    }
    ::close(iFd);
}

uint32_t arp_EventProc(int32_t iFd, ARP_EVENT_PF pfCallback) {
    if (iFd < 0 || pfCallback == nullptr) return IPSTATUS_FAILED;
    alignas(8) std::uint8_t buf[ARP_EVENT_DATAGRAM_MAX];
    const ssize_t n = ::recv(iFd, buf, sizeof buf, ipc::lipc::kDontWait);
    if (n < 0) return IPSTATUS_FAILED;
    alignas(8) std::uint8_t scratch[kFullRecord];
    std::size_t remaining = static_cast<std::size_t>(n);
    std::uint8_t* rec = buf;
    while (remaining >= kRecordHead) {
        const auto len = ipc::wire::load_be<std::uint32_t>(rec);
        const auto type = ipc::wire::load_be<std::uint32_t>(rec + 4);
        // A record shorter than its header or longer than what remains ends the datagram.
        if (len < kRecordHead || len > remaining) break;
        if (type <= ARP_EVENT_TYPE_MAX) {
            std::uint8_t* entry = rec + kRecordHead;
            if (len < kFullRecord) {
                // A short record is completed in the scratch copy, whose bytes beyond it read
                // as the defaults; a whole one is converted where it lies.
                reset_scratch(scratch);
                std::memcpy(scratch, rec, len);
                entry = scratch + kRecordHead;
            }
            ipc::wire::swap_fields<kEntryFields, ARP_EVENT_ENTRY_LEN>(entry);
            std::uint16_t field48;
            std::memcpy(&field48, entry + 48, sizeof field48);
            (void)pfCallback(type, entry, field48);
        }
        remaining -= len;
        rec += len;
    }
    return IPSTATUS_OK;
}

uint32_t ARP_ProcEvent(int32_t iFd) {
    ARP_EVENT_PF callback = nullptr;
    {
        const ReadLock lock;
        const ARP_EVENT_PROC_NODE_S* rec = find(iFd);
        if (rec == nullptr) return IPSTATUS_FAILED;
        callback = rec->pfCallback;
    }
    for (std::uint32_t pass = 0; pass < ARP_EVENT_PASSES; ++pass) {
        if (arp_EventProc(iFd, callback) != IPSTATUS_OK) break;
    }
    return IPSTATUS_OK;
}

uint32_t ARP_AddConcernedIP(int32_t iFd, uint32_t uiAddr, uint32_t uiScope) {
    return concerned(kAddConcerned, iFd, uiAddr, uiScope);
}

uint32_t ARP_DelConcernedIP(int32_t iFd, uint32_t uiAddr, uint32_t uiScope) {
    return concerned(kDelConcerned, iFd, uiAddr, uiScope);
}

void ARP_RequestBatchEvent(int32_t iFd) {
    if (iFd < 0) return;
    (void)ADJ4_Send(kBatchReplay, iFd, 0, 0, nullptr, ADJ_SEND_DONTWAIT);
}

uint32_t ARP_RequestBatchByAc(int32_t iFd, const ARP_BATCH_REQ_S* pstReq) {
    if (iFd < 0 || pstReq == nullptr) return IPSTATUS_FAILED;
    return batch(kBatchByAc, iFd, pstReq, pstReq->uiWordD);
}

uint32_t ARP_RequestBatchByVsi(int32_t iFd, const ARP_BATCH_VSI_REQ_S* pstReq) {
    if (iFd < 0 || pstReq == nullptr) return IPSTATUS_FAILED;
    return batch(kBatchByVsi, iFd, pstReq, 0x0000FFFFu);
}

uint32_t ARP_RequestBatchByVlan(int32_t iFd, uint8_t ucSelector, uint16_t usVlan) {
    if (iFd < 0) return IPSTATUS_FAILED;
    std::uint8_t payload[16] = {};
    payload[8] = ucSelector;
    ipc::wire::store_be(payload + 12, std::uint32_t{usVlan});
    return ADJ4_Send(kBatchByVlan, iFd, sizeof payload, 1, payload, 0);
}

}  // extern "C"
