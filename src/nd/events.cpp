// ND event subscriptions: the handler list under the process-wide lock, dispatch of
// neighbour events, the subscription requests, error notifications through kernel events,
// and the VSI predicates answered by the layer-2 VPN library.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "ipclient/nd.h"
#include "ipplat/platform.h"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "lipc/socket.hpp"

namespace {

constexpr std::uint16_t kPort = ADJ_PORT_ND;
constexpr std::uint32_t kSendTimeout = 5;
constexpr std::uint32_t kRecvTimeout = 2;
using namespace ipc::proto::adj6;  // message types of the service
constexpr std::size_t kHead = ipc::proto::adj::kRecordHead;
constexpr std::size_t kBody = ND_EVENT_RECORD_LEN;
constexpr std::size_t kFullRecord = kEventRecordLen;  // 72

static_assert(sizeof(NdEventRecord) == kBody);
static_assert(sizeof(NdEventProcNode) == 32, "the subscription node is 32 bytes");

// Words of the event record that travel big-endian; the other bytes pass untouched.
constexpr std::array<ipc::wire::Field, 11> kRecordFields{{{0, 4},
                                                          {20, 4},
                                                          {24, 4},
                                                          {28, 2},
                                                          {30, 2},
                                                          {40, 4},
                                                          {44, 4},
                                                          {48, 4},
                                                          {52, 4},
                                                          {58, 2},
                                                          {60, 2}}};

// The batch key's big-endian words; the two bytes at 8 travel unchanged.
constexpr std::array<ipc::wire::Field, 3> kBatchKeyFields{{{0, 4}, {4, 4}, {10, 2}}};

// RAII holders of the process-wide reader/writer lock.
struct WriteLock {
    WriteLock() { pthread_rwlock_wrlock(&g_stNDEventProcList_rwLock); }
    ~WriteLock() { pthread_rwlock_unlock(&g_stNDEventProcList_rwLock); }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;
};
struct ReadLock {
    ReadLock() { pthread_rwlock_rdlock(&g_stNDEventProcList_rwLock); }
    ~ReadLock() { pthread_rwlock_unlock(&g_stNDEventProcList_rwLock); }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;
};

// The first node from the head whose socket is fd; the caller holds the lock.
NdEventProcNode* find(std::int32_t fd) noexcept {
    for (NdEventProcNode* n = g_stNDEventProcList; n != nullptr; n = n->pstNext) {
        if (n->iSocket == fd) return n;
    }
    return nullptr;
}

// The record handed to the handler: zero but for the two defaults, stored as the raw bytes
// FF FF FF FF at 20 and 00 00 FF FF at 24, so that they read 0xFFFFFFFF and 0x0000FFFF once
// converted. Body bytes a record does not reach keep these values.
void reset_local(NdEventRecord& local) noexcept {
    local = NdEventRecord{};
    auto* bytes = reinterpret_cast<std::uint8_t*>(&local);
    ipc::wire::store_be(bytes + offsetof(NdEventRecord, uiField20), 0xFFFFFFFFu);
    ipc::wire::store_be(bytes + offsetof(NdEventRecord, uiField24), 0x0000FFFFu);
}

std::uint32_t concerned(std::uint8_t type, std::int32_t fd, std::uint32_t word, const NdIPv6Addr& addr) noexcept {
    if (fd < 0) return IPSTATUS_FAILED;
    ipc::wire::Frame<20> payload;
    payload.raw<0, 16>(addr.aucAddr);
    payload.be<16>(word);
    return ADJ6_Send(type, fd, payload.size(), 1, payload.data(), ADJ_SEND_DONTWAIT);
}

std::uint32_t batch(std::uint8_t type, std::int32_t fd, const NdBatchKey* key) noexcept {
    if (fd < 0 || key == nullptr) return IPSTATUS_FAILED;
    ipc::wire::Frame<12> payload;
    payload.record<0>(*key, kBatchKeyFields);
    return ADJ6_Send(type, fd, payload.size(), 1, payload.data(), 0);
}

}  // namespace

extern "C" {

NdEventProcNode* g_stNDEventProcList = nullptr;
pthread_rwlock_t g_stNDEventProcList_rwLock = PTHREAD_RWLOCK_INITIALIZER;
uint32_t g_uiNdEventEpollLoop = ND_EVENT_EPOLL_LOOP_DEFAULT;
NdErrorNotifyProc g_pfNdOpenFlowProc = nullptr;

// ---- Subscriptions --------------------------------------------------------------------

int32_t ND_RegEvent(uint32_t uiFirst, uint32_t uiSecond, NdEventProc pfProc) {
    const std::int32_t fd =
        ADJ6_GetMsgStart(static_cast<std::uint16_t>(DEV_GetSystemMaster()), kPort, kSendTimeout, kRecvTimeout);
    if (fd < 0) return -1;
    ipc::wire::Frame<12> payload;
    payload.be<0>(uiFirst);
    payload.be<8>(uiSecond);
    auto* node = ADJ6_Send(kSubscribe, fd, payload.size(), 1, payload.data(), ADJ_SEND_DONTWAIT) == IPSTATUS_OK
                     ? static_cast<NdEventProcNode*>(std::calloc(1, sizeof(NdEventProcNode)))
                     : nullptr;
    if (node == nullptr) {
        ND_DeregEvent(fd);  // finds no node and closes the socket
        return -1;
    }
    node->pfProc = pfProc;
    node->iSocket = fd;
    const WriteLock lock;
    node->pstNext = g_stNDEventProcList;
    node->ppstPrev = &g_stNDEventProcList;
    if (g_stNDEventProcList != nullptr) g_stNDEventProcList->ppstPrev = &node->pstNext;
    g_stNDEventProcList = node;
    return fd;
}

void ND_DeregEvent(int32_t iFd) {
    if (iFd < 0) return;
    {
        const WriteLock lock;
        if (NdEventProcNode* node = find(iFd)) {
            *node->ppstPrev = node->pstNext;
            if (node->pstNext != nullptr) node->pstNext->ppstPrev = node->ppstPrev;
            std::free(node);
        }
    }
    ::close(iFd);  // after the lock, whether or not a node was found
}

// ---- Dispatch -------------------------------------------------------------------------

uint32_t nd_RecvEvents(int32_t iFd, NdEventProc pfProc) {
    if (iFd < 0 || pfProc == nullptr) return IPSTATUS_FAILED;
    alignas(8) std::uint8_t buf[ND_EVENT_DATAGRAM_MAX];
    const ssize_t n = ::recv(iFd, buf, sizeof buf, ipc::lipc::kDontWait);
    if (n < 0) return IPSTATUS_FAILED;
    // A whole body (its first 64 bytes) is converted in the datagram and handed over from
    // there; one aligned 64-byte record on the stack serves the short ones.
    NdEventRecord local;
    auto* const local_bytes = reinterpret_cast<std::uint8_t*>(&local);
    std::size_t remaining = static_cast<std::size_t>(n);
    std::uint8_t* rec = buf;
    while (remaining >= kHead) {
        const auto len = ipc::wire::load_be<std::uint32_t>(rec);
        const auto type = ipc::wire::load_be<std::uint32_t>(rec + 4);
        // A record shorter than its header or longer than what remains ends the datagram,
        // skipped types included: nothing past the received bytes is ever read.
        if (len < kHead || len > remaining) break;
        if (type < ND_EVENT_TYPE_COUNT) {
            std::uint8_t* body = rec + kHead;
            if (len < kFullRecord || reinterpret_cast<std::uintptr_t>(body) % alignof(NdEventRecord) != 0) {
                // A short body lands on the defaults, laid down again since the handler may
                // have written over them; a whole one that lies misaligned in the datagram is
                // copied whole. Either way the handler gets an aligned record.
                if (len < kFullRecord) reset_local(local);
                std::memcpy(local_bytes, body, len < kFullRecord ? len - kHead : kBody);
                body = local_bytes;
            }
            // A whole, aligned body is converted where it lies.
            ipc::wire::swap_fields<kRecordFields, kBody>(body);
            (void)pfProc(type, reinterpret_cast<NdEventRecord*>(body));
        }
        remaining -= len;
        rec += len;
    }
    return IPSTATUS_OK;
}

uint32_t ND_ProcEvent(uint32_t uiFd) {
    const auto fd = static_cast<std::int32_t>(uiFd);
    NdEventProc proc = nullptr;
    {
        const ReadLock lock;
        const NdEventProcNode* node = find(fd);
        if (node == nullptr) return IPSTATUS_FAILED;
        proc = node->pfProc;
    }
    // The bound is read again on every pass: the application may change it at any time.
    for (std::uint32_t pass = 0; pass < g_uiNdEventEpollLoop; ++pass) {
        if (nd_RecvEvents(fd, proc) != IPSTATUS_OK) break;
    }
    return IPSTATUS_OK;
}

// ---- Requests on a subscription -------------------------------------------------------

void ND_RequestBatchEvent(int32_t iFd) {
    if (iFd < 0) return;
    (void)ADJ6_Send(kBatchReplay, iFd, 0, 0, nullptr, ADJ_SEND_DONTWAIT);
}

uint32_t ND_RequestBatchByVsi(int32_t iFd, const NdBatchKey* pstKey) { return batch(kBatchByVsi, iFd, pstKey); }

uint32_t ND_RequestBatchByIF(int32_t iFd, const NdBatchKey* pstKey) { return batch(kBatchByIf, iFd, pstKey); }

uint32_t ND_AddConcernedIPv6(int32_t iFd, uint32_t uiWord, NdIPv6Addr stAddr) {
    return concerned(kAddConcerned, iFd, uiWord, stAddr);
}

uint32_t ND_DelConcernedIPv6(int32_t iFd, uint32_t uiWord, NdIPv6Addr stAddr) {
    return concerned(kDelConcerned, iFd, uiWord, stAddr);
}

// ---- Error notifications --------------------------------------------------------------

int32_t ND_RegErrorAsyncNotify(NdErrorNotifyProc pfProc) {
    g_pfNdOpenFlowProc = pfProc;  // kept even when the subscription fails
    return KEvent_Subscribe(ND_ERROR_EVENT_CLASS);
}

int32_t ND_DeRegErrorAsyncNotify(int32_t iFd) {
    if (iFd < 0) return iFd;
    return KEvent_Unsubscribe(iFd);  // the stored handler stays
}

uint64_t ND_ErrorAsyncNotifyProc(int32_t iFd) {
    std::uint64_t result = 0;
    alignas(8) std::uint8_t buf[ND_ERROR_NOTIFY_BUF];
    for (std::uint32_t pass = 0; pass < ND_ERROR_NOTIFY_MAX; ++pass) {
        const std::int32_t n = KEvent_Recv(iFd, buf, sizeof buf);
        if (n <= 0) break;
        const auto got = static_cast<std::uint32_t>(n) < sizeof buf ? static_cast<std::uint32_t>(n)
                                                                     : static_cast<std::uint32_t>(sizeof buf);
        std::uint16_t type = 0;
        std::uint16_t len = 0;
        const void* value = nullptr;
        // Only the received bytes are parsed; a notification without a whole first element
        // is passed over rather than read with a type left from before.
        if (STLV_Get(buf, got, &type, &len, &value) != 0) continue;
        const NdErrorNotifyProc proc = g_pfNdOpenFlowProc;
        if (type == ND_ERROR_NOTIFY_TYPE && proc != nullptr) result = proc(value);
    }
    return result;
}

// ---- VSI predicates -------------------------------------------------------------------

uint32_t ND_IsAcIfAndSrvIDInVsi(const ARP_L2VPN_FUNC_S* pstFunc, const void* pEvcKey, uint32_t uiVsiIndex) {
    if (pstFunc == nullptr || pEvcKey == nullptr || pstFunc->pfGetL2vifKeyByEvcKey == nullptr) return 0;
    L2VPN_L2VIF_KEY_S key{};
    if (pstFunc->pfGetL2vifKeyByEvcKey(pEvcKey, &key, uiVsiIndex) != 0) return 0;
    return key.uiVsiIndex == uiVsiIndex && key.uiVsiIndex != L2VPN_VSI_INDEX_NONE ? 1u : 0u;
}

uint32_t ND_IsVsiIfInVsi(const ARP_L2VPN_FUNC_S* pstFunc, const char* pcVsiKey, uint32_t uiIfIndex) {
    if (pstFunc == nullptr || pcVsiKey == nullptr || pstFunc->pfGetVsiIndexByName == nullptr) return 0;
    L2VPN_VSI_INFO_S info{};
    if (pstFunc->pfGetVsiIndexByName(pcVsiKey, &info, uiIfIndex) != 0) return 0;
    if (info.uiVsiIfNumber == L2VPN_VSI_IF_NONE) return 0;
    char name[L2VPN_VSI_IF_NAME_SIZE];
    (void)scnprintf(name, sizeof name, "Vsi-interface%d", static_cast<int>(info.uiVsiIfNumber));
    const std::uint32_t found = IF_GetIfIndexByFullName(name);
    // A name that resolves to no interface gives 0, which an interface index of 0 matches.
    return found == uiIfIndex ? 1u : 0u;
}

uint32_t ND_IsVsiContainVxlanID(const ARP_L2VPN_FUNC_S* pstFunc, uint32_t uiVsiIndex) {
    if (pstFunc == nullptr || pstFunc->pfGetVxlanByVsiIndex == nullptr) return 0;
    return pstFunc->pfGetVxlanByVsiIndex(uiVsiIndex) != 0xFFFFFFFFu ? 1u : 0u;
}

}  // extern "C"
