// Tables that applications keep in the IPv4 adjacency service: OpenFlow entries, rules,
// VSI and VLAN suppression entries, roaming detection; the suppression switches of the ARP
// daemon and the adjacency service; the count of ARP entries installed by OpenFlow.
#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "adj/table_batch.hpp"
#include "ipclient/arp.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_arp.hpp"
#include "ipproto/lipc.hpp"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "kernel/channel.hpp"
#include "lipc/socket.hpp"

namespace {

using ipc::wire::Field;
using ipc::wire::Frame;

using namespace ipc::proto::adj4;  // message types of the ARP table service
using namespace ipc::proto::arp_daemon;  // switch codes of the ARP daemon

constexpr std::uint16_t kOwnNode = ipc::proto::lipc::kOwnNode;
constexpr std::uint32_t kNoTimeout = ADJ_TIMEOUT_DEFAULT;
constexpr std::uint32_t kOpenFlowSendTimeout = 5;
constexpr std::uint32_t kSwitchTimeout = 5;
constexpr int kTableFlags = ADJ_SEND_WAITALL;
constexpr int kSwitchFlags = ADJ_SEND_DONTWAIT;
constexpr std::uint16_t kOneElement = 1;

// Big-endian fields of the records; every other byte travels as it stands.
constexpr std::array<Field, 9> kOpenFlowFields{
    {{0, 4}, {8, 4}, {18, 2}, {20, 4}, {24, 4}, {28, 2}, {30, 2}, {32, 2}, {36, 4}}};
constexpr std::array<Field, 11> kRuleFields{
    {{4, 4}, {8, 4}, {12, 4}, {16, 2}, {18, 2}, {20, 2}, {32, 4}, {36, 4}, {40, 4}, {44, 4}, {48, 2}}};
constexpr std::array<Field, 4> kVsiFields{{{0, 4}, {4, 4}, {20, 4}, {24, 4}}};
constexpr std::array<Field, 2> kVlanFields{{{4, 4}, {8, 2}}};

constexpr std::size_t kRulePayload = 52;
constexpr std::size_t kVsiPayload = 32;
constexpr std::size_t kVlanPayload = 16;
constexpr std::size_t kRuleSmoothPayload = 4;
constexpr std::size_t kVerifyPayload = 48;
constexpr std::size_t kSwitchPayload = kSwitchLen;
constexpr std::size_t kSwitchReply = 4;
constexpr std::size_t kVlanSwitchReply = 16;
static_assert(sizeof(ARP_RULE_S) == kRulePayload);
static_assert(sizeof(ARP_VSI_SUP_ENTRY_S) == kVsiPayload);
static_assert(sizeof(ARP_VLAN_SUP_ENTRY_S) == kVlanPayload);
static_assert(sizeof(ARP_OPENFLOW_ENTRY_S) == ARP_OPENFLOW_ENTRY_LEN);
static_assert(ARP_OPENFLOW_ENTRY_MAX * ARP_OPENFLOW_ENTRY_LEN <= 0xFFFF);
static_assert((ARP_OPENFLOW_ENTRY_MAX + 1) * ARP_OPENFLOW_ENTRY_LEN > 0xFFFF);

// One table message with a payload: count 1, flags 256, no reply.
template <std::size_t N>
std::uint32_t send_table(std::uint8_t type, int fd, const Frame<N>& payload) noexcept {
    static_assert(N <= 0xFFFF);
    if (fd < 0) return IPSTATUS_FAILED;
    return ADJ4_Send(type, fd, static_cast<std::uint16_t>(N), kOneElement, payload.data(), kTableFlags);
}

// A smooth message without payload.
std::uint32_t send_bare(std::uint8_t type, int fd) noexcept {
    if (fd < 0) return IPSTATUS_FAILED;
    return ADJ4_Send(type, fd, 0, kOneElement, nullptr, kTableFlags);
}

// The caller's buffer: header room, then n host-order entries, converted in place and sent
// as they lie. The service answers a whole message with its 4-byte status.
std::uint32_t openflow_entries(std::uint8_t type, int fd, void* buf, std::uint32_t count) noexcept {
    if (fd < 0 || buf == nullptr || count > ARP_OPENFLOW_ENTRY_MAX) return IPSTATUS_FAILED;
    static_assert(ARP_OPENFLOW_HEAD_LEN == ADJ_MSG_HEAD_LEN);
    return ipc::adj::send_entry_batch(type, fd, static_cast<std::uint8_t*>(buf), count, ARP_OPENFLOW_ENTRY_LEN, kOpenFlowFields, &ADJ4_Recv);
}

std::uint32_t rule_smooth(std::uint8_t type, int fd, std::uint8_t cls, std::uint16_t owner) noexcept {
    if (cls > ARP_RULE_CLASS_MAX) return IPSTATUS_FAILED;
    Frame<kRuleSmoothPayload> payload;
    payload.be<0>(owner);
    payload.data()[2] = cls;
    return send_table(type, fd, payload);
}

std::uint32_t vsi_smooth(std::uint8_t type, int fd, std::uint8_t cls) noexcept {
    Frame<4> payload;
    payload.data()[0] = cls;
    return send_table(type, fd, payload);
}

// One exchange with a switch's keeper; reply_len bytes must come back for the result.
std::uint32_t switch_exchange(std::uint16_t port, const Frame<kSwitchPayload>& req, std::span<std::uint8_t> reply) noexcept {
    const ADJ_MSG_DEST_S dest{kOwnNode, port, static_cast<std::uint16_t>(req.size()), 0, req.data()};
    std::uint16_t len = static_cast<std::uint16_t>(reply.size());
    const std::uint32_t status =
        ADJ4_SendMsgAndRecv(ipc::proto::arp_daemon::kSwitch, &dest, kSwitchTimeout, kSwitchTimeout, kSwitchFlags, &len, reply.data());
    if (status != IPSTATUS_OK) return status;
    return len >= reply.size() ? IPSTATUS_OK : IPSTATUS_FAILED;
}

Frame<kSwitchPayload> switch_request(std::uint8_t code, std::uint32_t enable) noexcept {
    Frame<kSwitchPayload> req;
    req.data()[0] = code;
    req.data()[1] = enable == 1 ? 1 : 0;
    return req;
}

// A set: the service's word is the status.
std::uint32_t switch_set(std::uint16_t port, const Frame<kSwitchPayload>& req) noexcept {
    std::array<std::uint8_t, kSwitchReply> reply{};
    const std::uint32_t status = switch_exchange(port, req, reply);
    if (status != IPSTATUS_OK) return status;
    return ipc::wire::load_be<std::uint32_t>(reply.data());
}

// A get: the word at `At` of a reply of `N` bytes is the state.
template <std::size_t N, std::size_t At>
std::uint32_t switch_get(std::uint16_t port, const Frame<kSwitchPayload>& req, std::uint32_t* state) noexcept {
    static_assert(At + 4 <= N, "state word outside the reply");
    std::array<std::uint8_t, N> reply{};
    const std::uint32_t status = switch_exchange(port, req, reply);
    if (status != IPSTATUS_OK) return status;
    *state = ipc::wire::load_be<std::uint32_t>(reply.data() + At);
    return IPSTATUS_OK;
}

}  // namespace

extern "C" {

// ---- OpenFlow entries ----------------------------------------------------------------------

int32_t ARP_OpenFlowConnect(uint32_t* puiVersion) {
    if (puiVersion == nullptr) return -1;
    *puiVersion = ARP_OPENFLOW_VERSION;
    return ADJ4_GetMsgStart(static_cast<std::uint16_t>(LIP_GetLocalLip()), ARP_TABLE_PORT, kOpenFlowSendTimeout,
                            kNoTimeout);
}

void ARP_OpenFlowDisconnect(int32_t iFd) { ADJ4_GetMsgEnd(iFd); }

uint32_t ARP_RefreshOpenFlowEntry(int32_t iFd, void* pBuf, uint32_t uiCount) {
    return openflow_entries(kOpenFlowRefresh, iFd, pBuf, uiCount);
}

uint32_t ARP_DeleteOpenFlowEntry(int32_t iFd, void* pBuf, uint32_t uiCount) {
    return openflow_entries(kOpenFlowDelete, iFd, pBuf, uiCount);
}

void ARP_OpenFlowVerify(int32_t iFd) {
    if (iFd < 0) return;
    Frame<ARP_OPENFLOW_HEAD_LEN + kVerifyPayload> msg;
    msg.data()[0] = kOpenFlowVerify;
    msg.be<2>(static_cast<std::uint16_t>(kVerifyPayload));
    msg.be<4>(kOneElement);
    ssize_t sent = 0;
    do {
        sent = ::send(iFd, msg.data(), msg.size(), 0);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0 || static_cast<std::size_t>(sent) != msg.size()) return;

    // Wait for the end header; what the service sent before it is consumed on the way.
    bool first = true;
    for (;;) {
        std::uint8_t head[ARP_OPENFLOW_HEAD_LEN];
        const ssize_t n = ::recv(iFd, head, sizeof head, 0);
        if (n < 0 && errno == EINTR) {
            first = false;
            continue;
        }
        if (n < 0 && !first && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;  // a time-out: wait on
        if (n <= 0) return;  // closed, or the descriptor is unusable: nothing more can come
        first = false;
        // A message shorter than a header is consumed like one of another type.
        if (static_cast<std::size_t>(n) == sizeof head && head[0] == kOpenFlowVerifyEnd) return;
    }
}

uint32_t ARP_OpenFlowSmoothStart(int32_t iFd) { return send_bare(kOpenFlowSmoothStart, iFd); }

uint32_t ARP_OpenFlowSmoothEnd(int32_t iFd) { return send_bare(kOpenFlowSmoothEnd, iFd); }

uint32_t ARP_DisOpenFlowArpCount(uint32_t* puiCount) {
    if (puiCount == nullptr) return IPSTATUS_FAILED;
    const auto node = static_cast<std::uint16_t>(DEV_GetSystemMasterEP());
    Frame<28> req;
    req.data()[0] = 1;
    req.data()[1] = 8;
    req.data()[3] = 1;
    req.be<18>(node);
    std::array<std::uint8_t, 16> reply{};
    std::uint32_t returned = 0;
    const std::uint32_t status =
        CIOCTL(ipc::kernel::node_word(node), ipc::proto::arp::kCmdOpenFlowCount, static_cast<std::uint32_t>(req.size()),
               req.data(), static_cast<std::uint32_t>(reply.size()), reply.data(), &returned);
    if (status != IPSTATUS_OK) return status;
    const ipc::wire::View view(reply.data(), returned < reply.size() ? returned : reply.size());
    const auto count = view.be<std::uint32_t>(4);
    if (!count) return IPSTATUS_BAD_REPLY;
    *puiCount = *count;
    return IPSTATUS_OK;
}

// ---- Rules ---------------------------------------------------------------------------------

int32_t ARP_RuleConnect(void) {
    return ADJ4_GetMsgStart(static_cast<std::uint16_t>(DEV_GetSystemMasterEP()), ARP_TABLE_PORT, kNoTimeout,
                            kNoTimeout);
}

void ARP_RuleDisconnect(int32_t iFd) { ADJ4_GetMsgEnd(iFd); }

uint32_t ARP_RefreshRule(int32_t iFd, const ARP_RULE_S* pstRule) {
    if (iFd < 0 || pstRule == nullptr) return IPSTATUS_FAILED;
    if (pstRule->ucClass > ARP_RULE_CLASS_MAX || pstRule->ucKind > ARP_RULE_KIND_MAX ||
        IF_IsValidIfIndex(pstRule->uiIfIndex) != 1 || pstRule->uiAddr == 0) {
        return IPSTATUS_FAILED;
    }
    Frame<kRulePayload> payload;
    payload.record<0>(*pstRule, kRuleFields);
    return send_table(kRuleRefresh, iFd, payload);
}

uint32_t ARP_DeleteRule(int32_t iFd, uint32_t uiIfIndex, uint32_t uiAddr, uint8_t ucClass) {
    Frame<kRulePayload> payload;
    payload.raw32<0>(uiAddr);
    payload.be<4>(uiIfIndex);
    payload.data()[offsetof(ARP_RULE_S, ucClass)] = ucClass;
    return send_table(kRuleDelete, iFd, payload);
}

uint32_t ARP_RuleSmoothStart(int32_t iFd, uint8_t ucClass, uint16_t usOwner) {
    return rule_smooth(kRuleSmoothStart, iFd, ucClass, usOwner);
}

uint32_t ARP_RuleSmoothEnd(int32_t iFd, uint8_t ucClass, uint16_t usOwner) {
    return rule_smooth(kRuleSmoothEnd, iFd, ucClass, usOwner);
}

// ---- VSI suppression -----------------------------------------------------------------------

uint32_t ARP_RefreshVsiSupEntry(int32_t iFd, const ARP_VSI_SUP_ENTRY_S* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    Frame<kVsiPayload> payload;
    payload.record<0>(*pstEntry, kVsiFields);
    return send_table(kVsiRefresh, iFd, payload);
}

uint32_t ARP_DeleteVsiSupEntry(int32_t iFd, uint32_t uiFirst, uint32_t uiSecond, uint8_t ucClass) {
    Frame<kVsiPayload> payload;
    payload.be<0>(uiFirst);
    payload.raw32<8>(uiSecond);
    payload.data()[offsetof(ARP_VSI_SUP_ENTRY_S, ucClass)] = ucClass;
    return send_table(kVsiDelete, iFd, payload);
}

uint32_t ARP_VsiSupEntrySmoothStart(int32_t iFd, uint8_t ucClass) { return vsi_smooth(kVsiSmoothStart, iFd, ucClass); }

uint32_t ARP_VsiSupEntrySmoothEnd(int32_t iFd, uint8_t ucClass) { return vsi_smooth(kVsiSmoothEnd, iFd, ucClass); }

// ---- VLAN suppression ----------------------------------------------------------------------

uint32_t ARP_VlanSupRefreshEntry(int32_t iFd, const ARP_VLAN_SUP_ENTRY_S* pstEntry) {
    if (pstEntry == nullptr) return IPSTATUS_FAILED;
    Frame<kVlanPayload> payload;
    payload.record<0>(*pstEntry, kVlanFields);
    return send_table(kVlanRefresh, iFd, payload);
}

uint32_t ARP_VlanSupDeleteEntry(int32_t iFd, uint32_t uiFirst, uint16_t usVlan) {
    Frame<kVlanPayload> payload;
    payload.raw32<0>(uiFirst);
    payload.be<8>(usVlan);
    return send_table(kVlanDelete, iFd, payload);
}

uint32_t ARP_VlanSupEntrySmoothStart(int32_t iFd) { return send_bare(kVlanSmoothStart, iFd); }

uint32_t ARP_VlanSupEntrySmoothEnd(int32_t iFd) { return send_bare(kVlanSmoothEnd, iFd); }

// ---- Roaming detection ---------------------------------------------------------------------

uint32_t ARP_RoamingDetection(int32_t iFd, const void* pRecords, uint16_t usDataLen, uint16_t usCount) {
    constexpr std::uint32_t kCountWrap = 8192;
    if (usDataLen == 0 || iFd < 0 || pRecords == nullptr) return IPSTATUS_FAILED;
    const std::uint32_t total = ARP_ROAMING_HEAD_LEN + std::uint32_t{usDataLen};
    if (total > ARP_ROAMING_MSG_MAX) return IPSTATUS_FAILED;
    if ((std::uint32_t{usCount} % kCountWrap) * ARP_ROAMING_RECORD_LEN != usDataLen) return IPSTATUS_FAILED;
    // From here the count is non-zero: a zero count fails the length test above.
    Frame<ARP_ROAMING_MSG_MAX> msg;
    msg.be<0>(static_cast<std::uint16_t>(ARP_ROAMING_HEAD_LEN));
    msg.be<4>(static_cast<std::uint16_t>(total));
    msg.be<6>(static_cast<std::uint16_t>(usDataLen / usCount));
    msg.be<8>(usCount);
    msg.be<10>(usDataLen);
    std::memcpy(msg.data() + ARP_ROAMING_HEAD_LEN, pRecords, usDataLen);
    return ADJ4_Send(kRoaming, iFd, static_cast<std::uint16_t>(total), kOneElement, msg.data(), kTableFlags);
}

// ---- Suppression switches ------------------------------------------------------------------

uint32_t ARP_SetEviSuppression(uint32_t uiEnable, uint32_t uiInstance) {
    if (uiInstance == 0) return IPSTATUS_FAILED;
    Frame<kSwitchPayload> req = switch_request(kSetEvi, uiEnable);
    req.be<4>(uiInstance);
    return switch_set(ADJ_PORT_ARP_DAEMON, req);
}

uint32_t ARP_GetEviSuppression(uint32_t uiInstance, uint32_t* puiState) {
    if (puiState == nullptr) return IPSTATUS_FAILED;
    Frame<kSwitchPayload> req = switch_request(kGetEvi, 0);
    req.be<4>(uiInstance);
    return switch_get<kSwitchReply, 0>(ADJ_PORT_ARP_DAEMON, req, puiState);
}

uint32_t ARP_SetOverlaySuppression(uint32_t uiIfIndex, uint32_t uiEnable) {
    if (uiIfIndex == 0xFFFFFFFFu) return IPSTATUS_FAILED;
    Frame<kSwitchPayload> req = switch_request(kSetOverlay, uiEnable);
    req.be<16>(uiIfIndex);
    return switch_set(ADJ_PORT_ARP_DAEMON, req);
}

uint32_t ARP_GetOverlaySuppression(uint32_t uiIfIndex, uint32_t* puiState) {
    if (uiIfIndex == 0xFFFFFFFFu || puiState == nullptr) return IPSTATUS_FAILED;
    Frame<kSwitchPayload> req = switch_request(kGetOverlay, 0);
    req.be<16>(uiIfIndex);
    return switch_get<kSwitchReply, 0>(ADJ_PORT_ARP_DAEMON, req, puiState);
}

uint32_t ARP_GetVlanSuppression(uint16_t usVlan, uint32_t* puiState) {
    if (usVlan == 0xFFFF || puiState == nullptr) return IPSTATUS_FAILED;
    Frame<kSwitchPayload> req = switch_request(kGetVlan, 0);
    req.be<14>(usVlan);
    return switch_get<kVlanSwitchReply, 12>(ARP_TABLE_PORT, req, puiState);
}

}  // extern "C"
