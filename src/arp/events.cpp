// ARP event subscriptions: the family's part of the neighbour-event core (adj/neigh_events.hpp)
// and the requests on a subscription.
#include <array>
#include <cstdint>
#include <cstring>

#include "adj/neigh_events.hpp"
#include "ipclient/arp.h"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"

namespace {

using namespace ipc::proto::adj4;  // message types of the service

// ARP as a family of the neighbour-event core: the entry (52 bytes after the record head)
// is handed over where it lies, at any alignment, with the converted 16 bits at 48.
struct ArpFamily {
    using Node = ARP_EVENT_PROC_NODE_S;
    using Handler = ARP_EVENT_PF;
    static Node*& head() noexcept { return g_stARPEventProcList; }
    static pthread_rwlock_t& lock() noexcept { return g_stARPEventProcList_rwLock; }
    static Handler& handler(Node& n) noexcept { return n.pfCallback; }

    static constexpr std::uint16_t kPort = ADJ_PORT_ARP;
    static constexpr std::uint8_t kSubscribe = ipc::proto::adj4::kSubscribe;
    static constexpr std::uint8_t kBatchReplay = ipc::proto::adj4::kBatchReplay;
    static constexpr auto open = &ADJ4_GetMsgStart;
    static constexpr auto send = &ADJ4_Send;

    static constexpr std::size_t kDatagramMax = ARP_EVENT_DATAGRAM_MAX;
    static constexpr std::size_t kBody = ARP_EVENT_ENTRY_LEN;
    static constexpr std::size_t kAlign = 1;
    // Fields of the entry converted from network order; the others pass untouched.
    static constexpr std::array<ipc::wire::Field, 11> kFields{
        {{0, 4}, {8, 4}, {12, 4}, {16, 2}, {18, 2}, {28, 4}, {32, 4}, {36, 4}, {40, 4}, {46, 2}, {48, 2}}};
    static_assert(ipc::proto::adj::kRecordHead + kBody == kEventRecordLen);

    static constexpr bool accepts(std::uint32_t type) noexcept { return type <= ARP_EVENT_TYPE_MAX; }
    // A short entry reads zero but for the two defaults, as they read converted.
    static void reset(std::uint8_t* entry) noexcept {
        std::memset(entry, 0, kBody);
        ipc::wire::store_be(entry + 8, 0xFFFFFFFFu);
        ipc::wire::store_be(entry + 12, 0x0000FFFFu);
    }
    static void deliver(Handler handler, std::uint32_t type, std::uint8_t* entry) noexcept {
        std::uint16_t field48;
        std::memcpy(&field48, entry + 48, sizeof field48);
        (void)handler(type, entry, field48);
    }
    static std::uint32_t passes() noexcept { return ARP_EVENT_PASSES; }
};

using Events = ipc::adj::NeighEvents<ArpFamily>;

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
    return Events::subscribe(uiFirst, uiSecond, pfCallback);
}

void ARP_DeregEvent(int32_t iFd) { Events::unsubscribe(iFd); }

uint32_t arp_EventProc(int32_t iFd, ARP_EVENT_PF pfCallback) { return Events::receive(iFd, pfCallback); }

uint32_t ARP_ProcEvent(int32_t iFd) { return Events::process(iFd); }

uint32_t ARP_AddConcernedIP(int32_t iFd, uint32_t uiAddr, uint32_t uiScope) {
    return concerned(kAddConcerned, iFd, uiAddr, uiScope);
}

uint32_t ARP_DelConcernedIP(int32_t iFd, uint32_t uiAddr, uint32_t uiScope) {
    return concerned(kDelConcerned, iFd, uiAddr, uiScope);
}

void ARP_RequestBatchEvent(int32_t iFd) { Events::replay(iFd); }

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
