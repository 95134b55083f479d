// FIB searches, global data records, route-change sequences and per-node counters.
#include <array>
#include <cstdint>
#include <cstring>

#include "ipclient/fib.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_fib.hpp"
#include "ipproto/wire.hpp"
#include "kernel/channel.hpp"

namespace {

using ipc::wire::Field;

// A search's request and reply start with the count of entries (host order).
constexpr std::size_t kHead = ipc::proto::fib::kSearchReplyHead;
constexpr std::size_t kReplyCap = kHead + FIB_SEARCH_MAX_ENTRIES * FIB_SEARCH_ENTRY_SIZE;  // 16392

// Big-endian fields of the global data records; the bytes between them are not copied.
constexpr std::array<Field, 17> kSpec4Fields{{{0, 4}, {4, 4}, {8, 4}, {16, 4}, {24, 4}, {28, 4}, {32, 4},
                                             {36, 4}, {52, 4}, {56, 4}, {60, 4}, {64, 4}, {72, 4}, {76, 4},
                                             {20, 2}, {40, 2}, {42, 2}}};
constexpr std::array<Field, 10> kSpec6Fields{
    {{0, 4}, {4, 4}, {8, 4}, {12, 4}, {20, 4}, {36, 4}, {40, 4}, {16, 2}, {24, 2}, {26, 2}}};

template <std::size_t KeyLen>
std::uint32_t search(std::uint32_t command, const void* key, std::uint64_t* count, void* entries) noexcept {
    std::uint8_t request[kHead + KeyLen];
    std::memcpy(request, count, kHead);
    std::memcpy(request + kHead, key, KeyLen);
    std::uint8_t reply[kReplyCap];  // 16 KiB on the caller's stack, for this call only
    std::uint32_t returned = 0;
    const std::uint32_t status = CIOCTL(ipc::kernel::kLocalNodeWord, command, sizeof request, request,
                                        sizeof reply, reply, &returned);
    if (status != IPSTATUS_OK) return status;
    std::uint64_t got = 0;
    if (returned >= kHead) std::memcpy(&got, reply, kHead);
    // Never more than the reply holds, whatever count it claims.
    const std::uint64_t held =
        returned > kHead ? (std::min<std::uint64_t>(returned, kReplyCap) - kHead) / FIB_SEARCH_ENTRY_SIZE : 0;
    got = std::min(got, held);
    if (got < *count) *count = got;
    std::memcpy(entries, reply + kHead, static_cast<std::size_t>(*count) * FIB_SEARCH_ENTRY_SIZE);
    return IPSTATUS_OK;
}

template <std::size_t Len, std::size_t F>
std::uint32_t spec_data(std::uint32_t command, std::uint8_t* out, const std::array<Field, F>& fields) noexcept {
    std::uint8_t reply[Len] = {};
    std::uint32_t returned = 0;
    const std::uint32_t status =
        CIOCTL(ipc::kernel::kLocalNodeWord, command, 0, nullptr, sizeof reply, reply, &returned);
    if (status != IPSTATUS_OK || returned != Len) return status;
    for (const Field& f : fields) {
        if (f.width == 4) {
            const auto v = ipc::wire::load_be<std::uint32_t>(reply + f.offset);
            std::memcpy(out + f.offset, &v, 4);
        } else {
            const auto v = ipc::wire::load_be<std::uint16_t>(reply + f.offset);
            std::memcpy(out + f.offset, &v, 2);
        }
    }
    return IPSTATUS_OK;
}

std::uint32_t route_change_seq(std::uint32_t command) noexcept {
    std::uint32_t seq = 0;
    std::uint32_t returned = 0;
    (void)CIOCTL(ipc::kernel::kLocalNodeWord, command, 0, nullptr, sizeof seq, &seq, &returned);
    return seq;
}

}  // namespace

extern "C" {

uint32_t FIB4_SearchInfo(const void* pKey, uint64_t* pulCount, void* pEntries) {
    if (pKey == nullptr || pulCount == nullptr || pEntries == nullptr || *pulCount == 0) return IPSTATUS_FAILED;
    return search<FIB4_SEARCH_KEY_SIZE>(ipc::proto::fib::kCmd4Search, pKey, pulCount, pEntries);
}

uint32_t FIB6_SearchInfo(const void* pKey, uint64_t* pulCount, void* pEntries) {
    if (pKey == nullptr || pulCount == nullptr || pEntries == nullptr) return IPSTATUS_FAILED;
    return search<FIB6_SEARCH_KEY_SIZE>(ipc::proto::fib::kCmd6Search, pKey, pulCount, pEntries);
}

uint32_t FIB4_Get_SpecData(FIB4_SPEC_DATA_S* pstData) {
    if (pstData == nullptr) return IPSTATUS_FAILED;
    return spec_data<80>(ipc::proto::fib::kCmd4SpecData, pstData->aucData, kSpec4Fields);
}

uint32_t FIB6_Get_SpecData(FIB6_SPEC_DATA_S* pstData) {
    if (pstData == nullptr) return IPSTATUS_FAILED;
    return spec_data<44>(ipc::proto::fib::kCmd6SpecData, pstData->aucData, kSpec6Fields);
}

uint32_t FIB4_GetRouteChangeSeq(void) { return route_change_seq(ipc::proto::fib::kCmd4RouteChangeSeq); }

uint32_t FIB6_GetRouteChangeSeq(void) { return route_change_seq(ipc::proto::fib::kCmd6RouteChangeSeq); }

void FIB_GetConCheckStat(uint16_t usSelector, uint64_t* pulTotal) {
    if (pulTotal == nullptr) return;
    const std::uint32_t selector = usSelector;  // host order
    *pulTotal += ipc::kernel::sum_over_nodes(
        ipc::proto::fib::kCmdConCheckStat, std::span(reinterpret_cast<const std::uint8_t*>(&selector), sizeof selector),
        ipc::kernel::NodeWalk::kAllNodesAnyReply);
}

void FIB_GetAlarmThresholdStat(uint16_t usSelector, uint64_t* pulTotal) {
    if (pulTotal == nullptr) return;
    const std::uint32_t selector = usSelector;
    *pulTotal += ipc::kernel::sum_over_nodes(
        ipc::proto::fib::kCmdAlarmThresholdStat, std::span(reinterpret_cast<const std::uint8_t*>(&selector), sizeof selector),
        ipc::kernel::NodeWalk::kUpNodesExactReply);
}

}  // extern "C"
