// ND event subscriptions: the family's part of the neighbour-event core
// (adj/neigh_events.hpp), the requests on a subscription, error notifications through kernel
// events, and the VSI predicates answered by the layer-2 VPN library.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "adj/neigh_events.hpp"
#include "ipclient/nd.h"
#include "ipplat/platform.h"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"

namespace {

using namespace ipc::proto::adj6;  // message types of the service

static_assert(sizeof(NdEventRecord) == ND_EVENT_RECORD_LEN);
static_assert(sizeof(NdEventProcNode) == 32, "the subscription node is 32 bytes");

// ND as a family of the neighbour-event core: the body (64 bytes after the record head) is
// handed over as an aligned NdEventRecord, copied when it lies misaligned in the datagram.
struct NdFamily {
    using Node = NdEventProcNode;
    using Handler = NdEventProc;
    static Node*& head() noexcept { return g_stNDEventProcList; }
    static pthread_rwlock_t& lock() noexcept { return g_stNDEventProcList_rwLock; }
    static Handler& handler(Node& n) noexcept { return n.pfProc; }

    static constexpr std::uint16_t kPort = ADJ_PORT_ND;
    static constexpr std::uint8_t kSubscribe = ipc::proto::adj6::kSubscribe;
    static constexpr std::uint8_t kBatchReplay = ipc::proto::adj6::kBatchReplay;
    static constexpr auto open = &ADJ6_GetMsgStart;
    static constexpr auto send = &ADJ6_Send;

    static constexpr std::size_t kDatagramMax = ND_EVENT_DATAGRAM_MAX;
    static constexpr std::size_t kBody = ND_EVENT_RECORD_LEN;
    static constexpr std::size_t kAlign = alignof(NdEventRecord);
    // Words of the event record that travel big-endian; the other bytes pass untouched.
    static constexpr std::array<ipc::wire::Field, 11> kFields{{{0, 4},
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
    static_assert(ipc::proto::adj::kRecordHead + kBody == kEventRecordLen);

    static constexpr bool accepts(std::uint32_t type) noexcept { return type < ND_EVENT_TYPE_COUNT; }
    // A short body reads zero but for the two defaults, stored as the raw bytes FF FF FF FF
    // at 20 and 00 00 FF FF at 24, so that they read 0xFFFFFFFF and 0x0000FFFF once
    // converted.
    static void reset(std::uint8_t* body) noexcept {
        std::memset(body, 0, kBody);
        ipc::wire::store_be(body + offsetof(NdEventRecord, uiField20), 0xFFFFFFFFu);
        ipc::wire::store_be(body + offsetof(NdEventRecord, uiField24), 0x0000FFFFu);
    }
    static void deliver(Handler handler, std::uint32_t type, std::uint8_t* body) noexcept {
        (void)handler(type, reinterpret_cast<NdEventRecord*>(body));
    }
    // Read again on every pass: the application may change it at any time.
    static std::uint32_t passes() noexcept { return g_uiNdEventEpollLoop; }
};

using Events = ipc::adj::NeighEvents<NdFamily>;

// The batch key's big-endian words; the two bytes at 8 travel unchanged.
constexpr std::array<ipc::wire::Field, 3> kBatchKeyFields{{{0, 4}, {4, 4}, {10, 2}}};

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
    return Events::subscribe(uiFirst, uiSecond, pfProc);
}

void ND_DeregEvent(int32_t iFd) { Events::unsubscribe(iFd); }

// ---- Dispatch -------------------------------------------------------------------------

uint32_t nd_RecvEvents(int32_t iFd, NdEventProc pfProc) { return Events::receive(iFd, pfProc); }

uint32_t ND_ProcEvent(uint32_t uiFd) { return Events::process(static_cast<std::int32_t>(uiFd)); }

// ---- Requests on a subscription -------------------------------------------------------

void ND_RequestBatchEvent(int32_t iFd) { Events::replay(iFd); }

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
