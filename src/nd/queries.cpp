// ND entry queries: exact and next entries with their owning node, batches, neighbour
// summaries, the network-to-physical table view, per-node counters and the private-data
// readers.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>

#include "common/tlv.hpp"
#include "ipclient/nd.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_nd.hpp"
#include "ipproto/raii.hpp"
#include "ipproto/wire.hpp"
#include "kernel/channel.hpp"
#include "nd/request.hpp"

namespace {

using ipc::kernel::kLocalNodeWord;
using ipc::kernel::node_word;
using ipc::nd::Request;
using namespace ipc::proto::nd;  // operations of the module

// Selection of the layer-3 interfaces walked by the table view.
constexpr std::uint32_t kSelectMode = 5;
constexpr std::uint32_t kSelectCondition = 8;

// Big-endian fields of the entry and of the summary.
constexpr std::array<ipc::wire::Field, 7> kEntryFields{
    {{16, 4}, {20, 4}, {24, 4}, {28, 2}, {30, 2}, {44, 4}, {48, 4}}};
constexpr std::array<ipc::wire::Field, 7> kInfoFields{
    {{0, 4}, {4, 2}, {6, 2}, {16, 4}, {20, 4}, {24, 4}, {28, 2}}};

static_assert(sizeof(NdEntryKey) == ND_ENTRY_KEY_LEN);
static_assert(sizeof(NdEntryInfo) == ND_ENTRY_INFO_LEN);
static_assert(sizeof(NdInfo) == ND_INFO_LEN);

constexpr std::uint8_t kZeroAddr[16] = {};

std::uint32_t master_word() noexcept { return node_word(static_cast<std::uint16_t>(DEV_GetSystemMasterEP())); }

template <class Rec, std::size_t F>
void convert(Rec* rec, const std::array<ipc::wire::Field, F>& fields) noexcept {
    ipc::wire::swap_fields(std::span<std::uint8_t>(reinterpret_cast<std::uint8_t*>(rec), sizeof(Rec)), fields);
}

// One entry request to a node; true when it succeeded with a non-empty reply, which is then
// in host order.
bool entry_request(std::uint32_t node, std::uint32_t command, std::uint32_t selector, std::uint32_t ifindex,
                   const std::uint8_t* addr, NdEntryInfo* out) noexcept {
    ipc::wire::Frame<ND_ENTRY_KEY_LEN> key;
    key.raw<0, 16>(addr);
    key.be<16>(ifindex);
    key.be<20>(selector);
    std::uint32_t returned = 0;
    const std::uint32_t status =
        CIOCTL(node, command, ND_ENTRY_KEY_LEN, key.data(), ND_ENTRY_INFO_LEN, out, &returned);
    if (status != IPSTATUS_OK || returned == 0) return false;
    convert(out, kEntryFields);
    return true;
}

void to_row(const NdEntryInfo& e, NdNetToPhysicalRow* row) noexcept {
    row->uiIfIndex = e.uiIfIndex;
    std::memcpy(row->aucAddr, e.aucAddr, sizeof row->aucAddr);
    std::memcpy(row->aucLinkAddr, e.aucLinkAddr, sizeof row->aucLinkAddr);
    row->ucByte = e.ucByte39;
    if ((e.ucKind & ND_KIND_DYNAMIC_BIT) != 0) {
        row->uiType = 3;  // dynamic
    } else if (e.ucKind == ND_KIND_INVALID) {
        row->uiType = 2;  // invalid
    } else {
        row->uiType = 0;
    }
    switch (e.ucState) {
        case ND_STATE_INCOMPLETE: row->uiState = 7; break;
        case ND_STATE_REACHABLE: row->uiState = 1; break;
        case ND_STATE_STALE: row->uiState = 2; break;
        case ND_STATE_DELAY: row->uiState = 3; break;
        case ND_STATE_PROBE: row->uiState = 4; break;
        default: row->uiState = 6; break;  // unknown
    }
    row->uiLastUpdated = e.uiUpdateTime;
}

bool concerned(std::uint32_t ifindex) noexcept { return (nd_IsConcernedL3If(ifindex) & 0xFFFFu) == 1; }

// The interface iterator, finalised on every path.
struct IfIterator {
    void* it = IF_IteratorInitialize();
    IfIterator() noexcept = default;
    IfIterator(const IfIterator&) = delete;
    IfIterator& operator=(const IfIterator&) = delete;
    ~IfIterator() {
        if (it != nullptr) IF_IteratorFinalize(it);
    }
};

// A summary request (operations 0 and 38): address, then interface index.
std::uint32_t info_request(std::uint32_t node, std::uint32_t op, const std::uint8_t* addr, std::uint32_t ifindex,
                           NdInfo* out) noexcept {
    Request<28> r(op);
    r.raw<8, 16>(addr);
    r.be<24>(ifindex);
    std::uint32_t returned = 0;
    const std::uint32_t status = CIOCTL(node, ipc::proto::nd::kCmdInfo, 28, r.data(), ND_INFO_LEN, out, &returned);
    convert(out, kInfoFields);  // whatever the status, as the module's callers expect
    return status;
}

}  // namespace

extern "C" {

uint32_t ND_GetEntryInfo(uint32_t uiCommand, uint8_t ucSelector, uint32_t uiIfIndex, const uint8_t* pucAddr,
                         NdEntryInfo* pstInfo) {
    if (pucAddr == nullptr || pstInfo == nullptr) return IPSTATUS_FAILED;
    if (uiCommand != ipc::proto::nd::kCmdEntryInfo && uiCommand != ipc::proto::nd::kCmdNextEntryInfo) return IPSTATUS_FAILED;
    const std::uint16_t master = static_cast<std::uint16_t>(DEV_GetSystemMasterEP());
    if (!entry_request(node_word(master), uiCommand, ucSelector, uiIfIndex, pucAddr, pstInfo)) {
        return IPSTATUS_FAILED;
    }

    // The owning interface: a type-41 interface's entry in a live state names its member.
    std::uint32_t owner = pstInfo->uiIfIndex;
    std::uint32_t type = 0;
    if (IF_GetDataByIfIndex(pstInfo->uiIfIndex, IF_DATA_TYPE, &type) == 0 && type == ND_IFTYPE_AGGREGATE &&
        pstInfo->ucState != 0 && pstInfo->uiIfIndex2 != 0) {
        owner = pstInfo->uiIfIndex2;
    }
    std::uint16_t node = 0;
    if (IF_GetDataByIfIndex(owner, IF_DATA_NODE, &node) != 0 || node == master) return IPSTATUS_OK;

    // The owning node holds the freshest copy; when it cannot answer the master's stays.
    NdEntryInfo local{};
    if (entry_request(node_word(node), ipc::proto::nd::kCmdEntryInfo, 0, pstInfo->uiIfIndex, pstInfo->aucAddr, &local)) {
        *pstInfo = local;
    }
    return IPSTATUS_OK;
}

uint32_t ND_GetNextEntryInfo(uint8_t ucSelector, NdEntryInfo* pstInfo) {
    if (pstInfo == nullptr) return IPSTATUS_FAILED;
    std::uint8_t addr[16];
    std::memcpy(addr, pstInfo->aucAddr, sizeof addr);  // the record is also the output
    return ND_GetEntryInfo(ipc::proto::nd::kCmdNextEntryInfo, ucSelector, pstInfo->uiIfIndex, addr, pstInfo);
}

uint32_t ND_GetNextInfoBatch(const uint8_t* pucAddr, uint32_t uiIfIndex, uint32_t uiCapacity, void* pBuffer,
                             uint32_t* puiReturnedLen) {
    if (pucAddr == nullptr || pBuffer == nullptr || puiReturnedLen == nullptr) return IPSTATUS_FAILED;
    ipc::wire::Frame<20> r;
    r.raw<0, 16>(pucAddr);
    r.be<16>(uiIfIndex);
    return CIOCTL(kLocalNodeWord, ipc::proto::nd::kCmdInfoBatch, 20, r.data(), uiCapacity, pBuffer, puiReturnedLen);
}

uint32_t ND_GetInfo(uint32_t uiIfIndex, NdIPv6Addr stAddr, NdInfo* pstInfo) {
    if (pstInfo == nullptr) return IPSTATUS_FAILED;
    std::uint16_t node = 0;
    const std::uint32_t found = IF_GetDataByIfIndex(uiIfIndex, IF_DATA_NODE, &node);
    if (found != 0) return found;
    std::uint8_t addr[16];
    std::memcpy(addr, &stAddr, sizeof addr);
    return info_request(node_word(node), kOpInfo, addr, uiIfIndex, pstInfo);
}

uint32_t ND_GetInfoByIP(const uint8_t* pucAddr, NdInfo* pstInfo) {
    if (pucAddr == nullptr || pstInfo == nullptr) return IPSTATUS_FAILED;
    return info_request(kLocalNodeWord, kOpInfoByIP, pucAddr, 0, pstInfo);
}

uint32_t ND_GetRefreshTime(uint32_t uiIfIndex, NdIPv6Addr stAddr, uint32_t* puiTime) {
    if (puiTime == nullptr) return IPSTATUS_FAILED;
    std::uint8_t addr[16];
    std::memcpy(addr, &stAddr, sizeof addr);
    NdEntryInfo entry{};
    if (ND_GetEntryInfo(ipc::proto::nd::kCmdEntryInfo, 0, uiIfIndex, addr, &entry) == IPSTATUS_OK && entry.uiRefreshTime != 0) {
        *puiTime = entry.uiRefreshTime;
        return IPSTATUS_OK;
    }
    *puiTime = 0;
    return IPSTATUS_FAILED;
}

uint32_t ND_GetNetToPhysicalTable(uint32_t uiIfIndex, const uint8_t* pucAddr, NdNetToPhysicalRow* pstRow) {
    if (pstRow == nullptr || pucAddr == nullptr || !concerned(uiIfIndex)) return IPSTATUS_FAILED;
    NdEntryInfo entry{};
    const std::uint32_t status = ND_GetEntryInfo(ipc::proto::nd::kCmdEntryInfo, 0, uiIfIndex, pucAddr, &entry);
    if (status == IPSTATUS_OK) to_row(entry, pstRow);
    return status;
}

uint32_t ND_GetFirstNetToPhysicalTable(uint8_t ucSelector, NdNetToPhysicalRow* pstRow) {
    if (pstRow == nullptr || ucSelector > ND_ENTRY_SELECTOR_MAX) return IPSTATUS_FAILED;
    const IfIterator iter;
    if (iter.it == nullptr) return IPSTATUS_FAILED;
    IF_SELECT_S sel{};
    (void)IF_Select_Init(kSelectMode, &sel);
    (void)ND_SelectL3IfType(&sel);
    (void)IF_SelectCondition_Set(kSelectCondition, &sel);
    std::uint32_t status = IPSTATUS_FAILED;
    for (std::uint32_t ifindex = IF_GetFirstIfIndexByIfSelect(iter.it, &sel); ifindex != 0;
         ifindex = IF_GetNextIfIndexByIfSelect(iter.it, &sel)) {
        NdEntryInfo entry{};
        status = ND_GetEntryInfo(ipc::proto::nd::kCmdNextEntryInfo, ucSelector, ifindex, kZeroAddr, &entry);
        if (status == IPSTATUS_OK) {
            to_row(entry, pstRow);
            break;
        }
    }
    return status;
}

uint32_t ND_GetNextNetToPhysicalTable(uint8_t ucSelector, NdNetToPhysicalRow* pstRow) {
    if (pstRow == nullptr || ucSelector > ND_ENTRY_SELECTOR_MAX || !concerned(pstRow->uiIfIndex)) {
        return IPSTATUS_FAILED;
    }
    NdEntryInfo entry{};
    const std::uint32_t status =
        ND_GetEntryInfo(ipc::proto::nd::kCmdNextEntryInfo, ucSelector, pstRow->uiIfIndex, pstRow->aucAddr, &entry);
    if (status == IPSTATUS_OK) to_row(entry, pstRow);
    return status;
}

void ND_GetNdAttackStat(uint8_t ucSelector, uint64_t* pulCounters) {
    if (pulCounters == nullptr) return;
    std::uint32_t count = 0;
    const ipc::CBlock<std::uint16_t> nodes(DEV_GetAllNodes(&count));
    if (!nodes) return;
    Request<12> r(kOpAttackStat);
    r.data()[8] = ucSelector;
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint8_t reply[ND_ATTACK_COUNTERS * 8] = {};
        std::uint32_t returned = 0;
        if (CIOCTL(node_word(nodes.get()[i]), ipc::proto::nd::kCmdInfo, 12, r.data(), sizeof reply, reply, &returned) != 0) {
            continue;
        }
        for (std::size_t k = 0; k < ND_ATTACK_COUNTERS; ++k) {
            pulCounters[k] += ipc::wire::load_be<std::uint64_t>(reply + k * 8);
        }
    }
}

void ND_GetAlarmThresholdStat(uint8_t ucSelector, uint64_t* pulCounter) {
    if (pulCounter == nullptr) return;
    Request<12> r(kOpAlarmThreshold);
    r.data()[8] = ucSelector;
    *pulCounter += ipc::kernel::sum_over_nodes(ipc::proto::nd::kCmdInfo, r.span(), ipc::kernel::NodeWalk::kUpNodesExactReply);
}

uint32_t nd_GetExt3Bitmap(uint32_t* puiBitmap) {
    if (puiBitmap == nullptr) return IPSTATUS_FAILED;
    const Request<8> r(kOpExt3Bitmap);
    std::uint8_t reply[4] = {};
    std::uint32_t returned = 0;
    const std::uint32_t status = CIOCTL(master_word(), ipc::proto::nd::kCmdInfo, 8, r.data(), sizeof reply, reply, &returned);
    if (status == IPSTATUS_OK && returned != 0) *puiBitmap = ipc::wire::load_be<std::uint32_t>(reply);
    return status;
}

uint32_t ND_GetPDataFromIPCIM(uint32_t uiLength, const void* pData, uint16_t usType, uint64_t* pulValue) {
    if (pData == nullptr || pulValue == nullptr) return IPSTATUS_FAILED;
    const auto value = ipc::tlv_value(pData, uiLength, usType);
    if (!value) return IPSTATUS_FAILED;
    *pulValue = *value;
    return IPSTATUS_OK;
}

uint32_t ND_GetTimeStampFromPData(uint32_t uiLength, const void* pData, uint32_t* puiTime) {
    if (pData == nullptr || puiTime == nullptr) return IPSTATUS_OK;
    std::uint32_t word = 0;
    std::memcpy(&word, pData, std::min<std::size_t>(uiLength, sizeof word));
    *puiTime = word;  // as it lies: no byte-order conversion
    return IPSTATUS_OK;
}

}  // extern "C"
