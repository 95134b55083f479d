// Tables that applications keep in the IPv6 adjacency service: OpenFlow-learned neighbour
// entries, ND rules, VSI suppression entries, roaming detection; the overlay suppression
// switch of a VSI.
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "adj/table_batch.hpp"
#include "ipclient/nd.h"
#include "ipplat/platform.h"
#include "ipproto/raii.hpp"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "lipc/socket.hpp"

namespace {

using ipc::wire::Field;
using ipc::wire::Frame;

using namespace ipc::proto::adj6;  // message types and smooth marks of the ND table service
using namespace ipc::proto::nd_overlay;  // the overlay suppression service

constexpr std::uint32_t kNoTimeout = ADJ_TIMEOUT_DEFAULT;
constexpr std::uint32_t kSwitchTimeout = 5;
constexpr int kTableFlags = ADJ_SEND_WAITALL;
constexpr int kSwitchFlags = 0;
constexpr std::uint16_t kOneElement = 1;

// Big-endian fields of the records; every other byte travels as it stands.
constexpr std::array<Field, 8> kOpenFlowFields{
    {{0, 4}, {20, 4}, {30, 2}, {32, 4}, {36, 4}, {40, 2}, {42, 2}, {44, 4}}};
constexpr std::array<Field, 11> kRuleFields{
    {{16, 4}, {20, 4}, {24, 4}, {28, 2}, {30, 2}, {32, 2}, {44, 4}, {48, 4}, {52, 4}, {56, 4}, {60, 2}}};
constexpr std::array<Field, 4> kVsiFields{{{0, 4}, {4, 4}, {32, 4}, {36, 4}}};

constexpr std::size_t kRulePayload = 64;
constexpr std::size_t kVsiPayload = 44;
constexpr std::size_t kSmallPayload = 4;
constexpr std::size_t kSwitchReply = 4;
static_assert(sizeof(NdRuleInfo) == kRulePayload);
static_assert(sizeof(NdVsiSupInfo) == kVsiPayload);
static_assert(sizeof(NdOpenFlowEntry) == ND_OPENFLOW_ENTRY_LEN);
static_assert(sizeof(NdIPv6Addr) == 16);
static_assert(offsetof(NdRuleInfo, ucClass) == 41);
static_assert(offsetof(NdVsiSupInfo, ucClass) == 40);
static_assert(ND_OPENFLOW_ENTRY_MAX * ND_OPENFLOW_ENTRY_LEN <= 0xFFFF);
static_assert((ND_OPENFLOW_ENTRY_MAX + 1) * ND_OPENFLOW_ENTRY_LEN > 0xFFFF);

// One table message with a payload: count 1, flags 256, no reply.
template <std::size_t N>
std::uint32_t send_table(std::uint8_t type, int fd, const Frame<N>& payload) noexcept {
    static_assert(N <= 0xFFFF);
    if (fd < 0) return IPSTATUS_FAILED;
    return ADJ6_Send(type, fd, static_cast<std::uint16_t>(N), kOneElement, payload.data(), kTableFlags);
}

// The caller's buffer: header room, then n host-order entries, converted in place and sent
// as they lie. The service answers a whole message with its 4-byte status.
std::uint32_t openflow_entries(std::uint8_t type, int fd, void* buf, std::uint32_t count) noexcept {
    if (fd < 0 || buf == nullptr || count > ND_OPENFLOW_ENTRY_MAX) return IPSTATUS_FAILED;
    static_assert(ND_OPENFLOW_HEAD_LEN == ADJ_MSG_HEAD_LEN);
    return ipc::adj::send_entry_batch(type, fd, static_cast<std::uint8_t*>(buf), count, ND_OPENFLOW_ENTRY_LEN, kOpenFlowFields, &ADJ6_Recv);
}

// The 56-byte smooth marker, answered by a 4-byte word. The word is read as big-endian over
// a preset of 0x40010001 laid down in the device's (little-endian) host order, bytes
// 01 00 01 40, whatever the receive did: nothing received reads 0x01000140 on every host.
std::uint32_t openflow_smooth(int fd, std::uint8_t mark) noexcept {
    if (fd < 0) return IPSTATUS_FAILED;
    Frame<ND_OPENFLOW_SMOOTH_LEN> payload;
    payload.data()[0] = mark;
    const std::uint32_t status = send_table(kOpenFlowSmooth, fd, payload);
    if (status != IPSTATUS_OK) return status;
    std::uint8_t reply[4] = {0x01, 0x00, 0x01, 0x40};
    std::uint16_t len = sizeof reply;
    (void)ADJ6_Recv(fd, &len, reply);
    return ipc::wire::load_be<std::uint32_t>(reply);
}

std::uint32_t rule_smooth(std::uint8_t type, int fd, std::uint8_t cls, std::uint16_t owner) noexcept {
    if (cls > ND_RULE_CLASS_MAX) return IPSTATUS_FAILED;
    Frame<kSmallPayload> payload;
    payload.be<0>(owner);
    payload.data()[2] = cls;
    return send_table(type, fd, payload);
}

std::uint32_t vsi_smooth(std::uint8_t type, int fd, std::uint8_t cls) noexcept {
    Frame<kSmallPayload> payload;
    payload.data()[0] = cls;
    return send_table(type, fd, payload);
}

bool all_zero(const std::uint8_t (&addr)[16]) noexcept {
    for (const std::uint8_t b : addr) {
        if (b != 0) return false;
    }
    return true;
}

// One exchange with the overlay suppression service; a whole 4-byte word must come back.
std::uint32_t overlay_exchange(std::uint8_t code, std::uint32_t vsi, std::uint32_t on, std::uint32_t* word) noexcept {
    Frame<ND_OVERLAY_SUP_REQ_LEN> req;
    req.data()[0] = code;
    req.data()[1] = on == 1 ? 1 : 0;
    req.be<8>(vsi);
    const ADJ_MSG_DEST_S dest{static_cast<std::uint16_t>(DEV_GetSystemMasterEP()), ND_OVERLAY_SUP_PORT,
                              static_cast<std::uint16_t>(req.size()), 0, req.data()};
    std::array<std::uint8_t, kSwitchReply> reply{};
    std::uint16_t len = static_cast<std::uint16_t>(reply.size());
    const std::uint32_t status =
        ADJ6_SendMsgAndRecv(kSwitch, &dest, kSwitchTimeout, kSwitchTimeout, kSwitchFlags, &len, reply.data());
    if (status != IPSTATUS_OK) return status;
    if (len < reply.size()) return IPSTATUS_FAILED;
    *word = ipc::wire::load_be<std::uint32_t>(reply.data());
    return IPSTATUS_OK;
}

}  // namespace

extern "C" {

// ---- OpenFlow entries ----------------------------------------------------------------------

int32_t ND_OpenFlowConnect(uint32_t* puiVersion) {
    if (puiVersion == nullptr) return -1;
    *puiVersion = ND_OPENFLOW_VERSION;
    return ADJ6_GetMsgStart(static_cast<std::uint16_t>(LIP_GetLocalLip()), ADJ_PORT_ND, kNoTimeout, kNoTimeout);
}

void ND_OpenFlowDisconnect(int32_t iFd) { ADJ6_GetMsgEnd(iFd); }

uint32_t ND_RefreshOpenFlowEntry(int32_t iFd, void* pBuf, uint32_t uiCount) {
    return openflow_entries(kOpenFlowRefresh, iFd, pBuf, uiCount);
}

uint32_t ND_DeleteOpenFlowEntry(int32_t iFd, void* pBuf, uint32_t uiCount) {
    return openflow_entries(kOpenFlowDelete, iFd, pBuf, uiCount);
}

uint32_t ND_OpenFlowSmoothStart(int32_t iFd) { return openflow_smooth(iFd, kSmoothStartMark); }

uint32_t ND_OpenFlowSmoothEnd(int32_t iFd) { return openflow_smooth(iFd, kSmoothEndMark); }

// ---- Rules ---------------------------------------------------------------------------------

int32_t ND_RuleConnect(void) {
    return ADJ6_GetMsgStart(static_cast<std::uint16_t>(DEV_GetSystemMasterEP()), ADJ_PORT_ND, kNoTimeout,
                            kNoTimeout);
}

void ND_RuleDisconnect(int32_t iFd) { ADJ6_GetMsgEnd(iFd); }

uint32_t ND_RefreshRule(int32_t iFd, const NdRuleInfo* pstRule) {
    if (iFd < 0 || pstRule == nullptr) return IPSTATUS_FAILED;
    if (pstRule->ucClass > ND_RULE_CLASS_MAX || pstRule->ucKind > ND_RULE_KIND_MAX ||
        IF_IsValidIfIndex(pstRule->uiIfIndex) != 1 || all_zero(pstRule->aucAddr)) {
        return IPSTATUS_FAILED;
    }
    Frame<kRulePayload> payload;
    payload.record<0>(*pstRule, kRuleFields);
    return send_table(kRuleRefresh, iFd, payload);
}

uint32_t ND_DeleteRule(int32_t iFd, uint32_t uiIfIndex, NdIPv6Addr stAddr, uint8_t ucClass) {
    Frame<kRulePayload> payload;
    payload.raw<offsetof(NdRuleInfo, aucAddr), sizeof stAddr.aucAddr>(stAddr.aucAddr);
    payload.be<offsetof(NdRuleInfo, uiIfIndex)>(uiIfIndex);
    payload.data()[offsetof(NdRuleInfo, ucClass)] = ucClass;
    return send_table(kRuleDelete, iFd, payload);
}

uint32_t ND_RuleSmoothStart(int32_t iFd, uint8_t ucClass, uint16_t usOwner) {
    return rule_smooth(kRuleSmoothStart, iFd, ucClass, usOwner);
}

uint32_t ND_RuleSmoothEnd(int32_t iFd, uint8_t ucClass, uint16_t usOwner) {
    return rule_smooth(kRuleSmoothEnd, iFd, ucClass, usOwner);
}

// ---- VSI suppression -----------------------------------------------------------------------

uint32_t ND_RefreshVsiSupEntry(int32_t iFd, const NdVsiSupInfo* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    Frame<kVsiPayload> payload;
    payload.record<0>(*pstEntry, kVsiFields);
    return send_table(kVsiRefresh, iFd, payload);
}

uint32_t ND_DeleteVsiSupEntry(int32_t iFd, uint32_t uiVsiIndex, const NdIPv6Addr* pstAddr, uint8_t ucClass) {
    if (pstAddr == nullptr) return IPSTATUS_FAILED;
    Frame<kVsiPayload> payload;
    payload.be<offsetof(NdVsiSupInfo, uiVsiIndex)>(uiVsiIndex);
    payload.raw<offsetof(NdVsiSupInfo, aucAddr), sizeof pstAddr->aucAddr>(pstAddr->aucAddr);
    payload.data()[offsetof(NdVsiSupInfo, ucClass)] = ucClass;
    return send_table(kVsiDelete, iFd, payload);
}

uint32_t ND_VsiSupEntrySmoothBegin(int32_t iFd, uint8_t ucClass) { return vsi_smooth(kVsiSmoothStart, iFd, ucClass); }

uint32_t ND_VsiSupEntrySmoothEnd(int32_t iFd, uint8_t ucClass) { return vsi_smooth(kVsiSmoothEnd, iFd, ucClass); }

// ---- Roaming detection ---------------------------------------------------------------------

uint32_t ND_RoamingDetection(int32_t iFd, const void* pRecords, uint16_t usDataLen, uint16_t usCount) {
    if (usDataLen == 0 || iFd < 0 || pRecords == nullptr) return IPSTATUS_FAILED;
    const std::uint32_t total = ND_ROAMING_HEAD_LEN + std::uint32_t{usDataLen};
    if (total > ND_ROAMING_MSG_MAX) return IPSTATUS_FAILED;
    // 20 x count, in the service's own arithmetic.
    const std::uint32_t expected = (std::uint32_t{usCount} & 0xFFFu) * 16u + std::uint32_t{usCount} * 4u;
    if (expected != usDataLen) return IPSTATUS_FAILED;
    // From here the count is non-zero: a zero count fails the length test above.
    const ipc::CBlock<std::uint8_t> msg(static_cast<std::uint8_t*>(std::calloc(total, 1)));
    if (!msg) return IPSTATUS_FAILED;
    std::uint8_t* p = msg.get();
    ipc::wire::store_be(p + 0, static_cast<std::uint16_t>(ND_ROAMING_HEAD_LEN));
    ipc::wire::store_be(p + 4, static_cast<std::uint16_t>(total));
    ipc::wire::store_be(p + 6, static_cast<std::uint16_t>(usDataLen / usCount));
    ipc::wire::store_be(p + 8, usCount);
    ipc::wire::store_be(p + 10, usDataLen);
    std::memcpy(p + ND_ROAMING_HEAD_LEN, pRecords, usDataLen);
    return ADJ6_Send(kRoaming, iFd, static_cast<std::uint16_t>(total), kOneElement, p, kTableFlags);
}

// ---- Overlay suppression -------------------------------------------------------------------

uint32_t ND_SetOverlaySuppression(uint32_t uiVsiIndex, uint32_t uiOn) {
    if (uiVsiIndex == ND_VSI_INDEX_NONE) return IPSTATUS_FAILED;
    std::uint32_t word = 0;
    const std::uint32_t status = overlay_exchange(kSetOverlay, uiVsiIndex, uiOn, &word);
    return status != IPSTATUS_OK ? status : word;
}

uint32_t ND_GetOverlaySuppression(uint32_t uiVsiIndex, uint32_t* puiState) {
    if (uiVsiIndex == ND_VSI_INDEX_NONE || puiState == nullptr) return IPSTATUS_FAILED;
    return overlay_exchange(kGetOverlay, uiVsiIndex, 0, puiState);
}

}  // extern "C"
