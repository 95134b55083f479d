// ARP entry queries, settings and counters.
#include <array>
#include <cstdint>
#include <cstring>

#include "arp/request.hpp"
#include "common/tlv.hpp"
#include "ipclient/arp.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_arp.hpp"
#include "ipproto/lipc.hpp"
#include "ipproto/raii.hpp"
#include "ipproto/wire.hpp"
#include "kernel/channel.hpp"

namespace {

using ipc::arp::Request;
using ipc::kernel::kLocalNodeWord;
using ipc::kernel::node_word;
using namespace ipc::proto::arp;  // sub-operations and record layouts

constexpr std::uint32_t kNoEntry = IPSTATUS_BAD_REPLY;  // 0x40010005
constexpr std::uint32_t kFirstAddrReplyCap = 4096;
constexpr std::uint16_t kUnknownNode = 0xFFFF;

// Converted fields of the two entry layouts, kept apart on purpose.
constexpr std::array<ipc::wire::Field, 6> kExtendFields{{{entry::kIfIndex, 4},
                                                         {entry::kMember, 4},
                                                         {entry::kAge, 4},
                                                         {entry::kRefresh, 4},
                                                         {entry::kVlan, 2},
                                                         {entry::kVrf, 2}}};
constexpr std::array<ipc::wire::Field, 8> kByIPFields{{{by_address::kIfIndex, 4},
                                                       {by_address::kMember, 4},
                                                       {by_address::kAge, 4},
                                                       {by_address::kRefresh, 4},
                                                       {by_address::kVlan, 2},
                                                       {by_address::kVrf, 2},
                                                       {by_address::kNode, 2},
                                                       {by_address::kState, 2}}};

// A request with a 36-byte entry reply; true when the call succeeded with a non-empty reply.
template <std::uint8_t S>
bool entry_request(std::uint32_t node, const Request<S>& req, ARP_ENTRY_S* out) noexcept {
    std::uint32_t returned = 0;
    const std::uint32_t status =
        CIOCTL(node, ipc::proto::arp::kCmdInfo, Request<S>::kLen, req.data(), ARP_ENTRY_LEN, out, &returned);
    return status == IPSTATUS_OK && returned != 0;
}

template <std::uint8_t S>
Request<S> keyed(std::uint32_t key_a_raw) noexcept {
    Request<S> r;
    r.template raw32<4>(key_a_raw);
    return r;
}

template <std::size_t F>
void convert(ARP_ENTRY_S* e, const std::array<ipc::wire::Field, F>& fields) noexcept {
    ipc::wire::swap_fields(std::span<std::uint8_t>(e->aucData, ARP_ENTRY_LEN), fields);
}

template <std::uint8_t S>
std::uint32_t delete_async(std::uint32_t a, std::uint32_t b) noexcept {
    Request<S> r = keyed<S>(a);
    r.template raw32<8>(b);
    return CIOCTL_Async(kLocalNodeWord, ipc::proto::arp::kCmdInfo, Request<S>::kLen, r.data());
}

}  // namespace

extern "C" {

uint32_t ARP_GetEntry(uint32_t uiKeyB, uint32_t uiAddr, ARP_ENTRY_S* pstEntry) {
    if (uiAddr == 0 || pstEntry == nullptr) return IPSTATUS_FAILED;
    Request<kGetEntry> r = keyed<kGetEntry>(uiAddr);
    r.raw32<8>(uiKeyB);
    return entry_request(kLocalNodeWord, r, pstEntry) ? IPSTATUS_OK : IPSTATUS_FAILED;
}

uint32_t ARP_GetFirstEntry(ARP_ENTRY_S* pstEntry) { return ARP_GetNextEntry(pstEntry); }

uint32_t ARP_GetNextEntry(ARP_ENTRY_S* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    Request<kGetNext> r;
    r.raw<4, 8>(pstEntry->aucData);  // words 0 and 1 of the last entry, as they stand
    return entry_request(kLocalNodeWord, r, pstEntry) ? IPSTATUS_OK : kNoEntry;
}

uint32_t arp_GetEntryExtend(uint32_t uiIfIndex, uint32_t uiAddr, ARP_ENTRY_S* pstEntry) {
    if (pstEntry == nullptr || uiAddr == 0) return IPSTATUS_FAILED;
    *pstEntry = ARP_ENTRY_S{};
    std::uint32_t type = 0;
    if (IF_GetDataByIfIndex(uiIfIndex, IF_DATA_TYPE, &type) != 0) return IPSTATUS_FAILED;
    Request<kGetExtended> r = keyed<kGetExtended>(uiAddr);
    r.be<8>(uiIfIndex);
    std::uint32_t holder = uiIfIndex;
    const bool aggregate = type == ARP_IFTYPE_AGGREGATE;
    if (aggregate) {
        // The master node resolves the aggregate to the member that holds the entry.
        if (!entry_request(kLocalNodeWord, r, pstEntry)) return IPSTATUS_FAILED;
        const auto member = ipc::wire::load_be<std::uint32_t>(pstEntry->aucData + entry::kMember);
        if (member != 0) holder = member;
    }
    std::uint16_t node = kUnknownNode;
    (void)IF_GetDataByIfIndex(holder, IF_DATA_NODE, &node);
    if (!(aggregate && node == static_cast<std::uint16_t>(DEV_GetSelf()))) {
        *pstEntry = ARP_ENTRY_S{};
        if (!entry_request(node_word(node), r, pstEntry)) return IPSTATUS_FAILED;
    }
    convert(pstEntry, kExtendFields);
    return IPSTATUS_OK;
}

uint32_t ARP_GetRefreshTime(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t* puiTime) {
    if (puiTime == nullptr) return IPSTATUS_FAILED;
    ARP_ENTRY_S found;
    const std::uint32_t status = arp_GetEntryExtend(uiIfIndex, uiAddr, &found);
    if (status == IPSTATUS_OK) std::memcpy(puiTime, found.aucData + entry::kRefresh, sizeof *puiTime);
    return status;
}

uint32_t ARP_GetEntryByIP(uint32_t uiAddr, ARP_ENTRY_S* pstEntry) {
    if (uiAddr == 0 || pstEntry == nullptr) return IPSTATUS_FAILED;
    const Request<kGetByAddress> r = keyed<kGetByAddress>(uiAddr);
    if (!entry_request(kLocalNodeWord, r, pstEntry)) return IPSTATUS_FAILED;
    convert(pstEntry, kByIPFields);
    return IPSTATUS_OK;
}

uint32_t ARP_GetNextInfoBatch(uint32_t uiKeyA, uint32_t uiKeyB, uint32_t uiCapacity, void* pBuffer,
                              uint32_t* puiReturnedLen) {
    Request<kGetBatch> r = keyed<kGetBatch>(uiKeyA);
    r.be<8>(uiKeyB);
    return CIOCTL(kLocalNodeWord, ipc::proto::arp::kCmdInfo, r.kLen, r.data(), pBuffer != nullptr ? uiCapacity : 0, pBuffer,
                  puiReturnedLen);
}

uint32_t ARP_GetConf(uint32_t uiLength, void* pBuffer) {
    if (uiLength != ARP_CONF_LEN || pBuffer == nullptr) return IPSTATUS_FAILED;
    const Request<kGetConf> r;
    std::uint32_t returned = 0;
    const std::uint32_t status =
        CIOCTL(kLocalNodeWord, ipc::proto::arp::kCmdInfo, r.kLen, r.data(), ARP_CONF_LEN, pBuffer, &returned);
    return status == IPSTATUS_OK && returned == ARP_CONF_LEN ? IPSTATUS_OK : kNoEntry;
}

uint32_t ARP_GetFirstIPAddr(uint16_t usVlan, const uint8_t* pucMac, uint32_t* puiAddr) {
    if (pucMac == nullptr || puiAddr == nullptr) return IPSTATUS_FAILED;
    Request<kFirstAddress> r;
    r.be<4>(usVlan);
    r.raw<6, 6>(pucMac);
    std::uint8_t reply[kFirstAddrReplyCap];
    std::uint32_t returned = 0;
    const std::uint32_t status = CIOCTL(kLocalNodeWord, ipc::proto::arp::kCmdInfo, r.kLen, r.data(), sizeof reply, reply, &returned);
    if (status != IPSTATUS_OK || returned != 4) return kNoEntry;
    std::memcpy(puiAddr, reply, 4);
    return IPSTATUS_OK;
}

uint32_t ARP_SetEntry(const void* pEntry, void* pReply) {
    if (pEntry == nullptr || pReply == nullptr) return IPSTATUS_FAILED;
    const ADJ_MSG_DEST_S dest{ipc::proto::lipc::kOwnNode, ADJ_PORT_ARP_DAEMON, ARP_SET_ENTRY_LEN, 0, pEntry};
    std::uint16_t len = 4;
    return ADJ4_SendMsgAndRecv(1, &dest, ADJ_TIMEOUT_DEFAULT, ADJ_TIMEOUT_DEFAULT, 0, &len, pReply);
}

uint32_t ARP_DeleteDynamicEntry(uint32_t uiKeyA, uint32_t uiKeyB) { return delete_async<kDeleteDynamic>(uiKeyA, uiKeyB); }

uint32_t ARP_DeleteAuthorizedEntry(uint32_t uiKeyA, uint32_t uiKeyB) { return delete_async<kDeleteAuthorized>(uiKeyA, uiKeyB); }

void ARP_GetArpAttackStat(uint8_t ucSelector, uint64_t* pulCounters) {
    if (pulCounters == nullptr) return;
    std::uint32_t count = 0;
    const ipc::CBlock<std::uint16_t> nodes(DEV_GetAllNodes(&count));
    if (!nodes) return;
    Request<kAttackStat> r;
    r.data()[3] = ucSelector;
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint8_t reply[ARP_ATTACK_COUNTERS * 8] = {};
        std::uint32_t returned = 0;
        if (CIOCTL(node_word(nodes.get()[i]), ipc::proto::arp::kCmdInfo, r.kLen, r.data(), sizeof reply, reply, &returned) != 0) {
            continue;
        }
        for (std::size_t k = 0; k < ARP_ATTACK_COUNTERS; ++k) pulCounters[k] += ipc::wire::load_be<std::uint64_t>(reply + k * 8);
    }
}

void ARP_GetAlarmThresholdStat(uint8_t ucSelector, uint64_t* pulCounter) {
    if (pulCounter == nullptr) return;
    Request<kAlarmStat> r;
    r.data()[3] = ucSelector;
    *pulCounter += ipc::kernel::sum_over_nodes(ipc::proto::arp::kCmdInfo, r.span(), ipc::kernel::NodeWalk::kUpNodesExactReply);
}

uint32_t ARP_GetTimeStampFromPData(uint32_t uiLength, const void* pData, uint32_t* puiTime) {
    if (pData == nullptr || puiTime == nullptr) return IPSTATUS_FAILED;
    std::uint32_t word = 0;
    std::memcpy(&word, pData, std::min<std::size_t>(uiLength, sizeof word));
    *puiTime = word;
    return IPSTATUS_OK;
}

uint32_t ARP_GetPDataFromIPCIM(uint32_t uiLength, const void* pData, uint16_t usTag, uint64_t* pulValue) {
    if (pData == nullptr || pulValue == nullptr) return IPSTATUS_FAILED;
    const auto value = ipc::tlv_value(pData, uiLength, usTag);
    if (!value) return IPSTATUS_FAILED;
    *pulValue = *value;
    return IPSTATUS_OK;
}

}  // extern "C"
