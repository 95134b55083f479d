// IP, forwarding, ICMP and MIB counters, per node and summed over nodes.
#include <cstdint>
#include <cstring>

#include "ipclient/ipstat.h"
#include "ipproto/kmod_ipstat.hpp"
#include "ipproto/lipc.hpp"
#include "ipproto/raii.hpp"
#include "ipstat/request.hpp"

namespace {

using namespace ipc::ipstat;
using ipc::kernel::node_word;

constexpr std::uint16_t kOwnNode = ipc::proto::lipc::kOwnNode;
constexpr std::uint32_t kFwReplyCap = 256;
constexpr std::uint32_t kFwReplyLen = 112;
constexpr std::uint32_t kMibReplyCap = 256;
constexpr std::size_t kMibLen = IP_MIBIF_COUNTERS * 8;  // 152

void sum_ip_stat(Op op, std::uint32_t* counters) noexcept {
    std::memset(counters, 0, IP_STAT_COUNTERS * sizeof *counters);
    std::uint32_t count = 0;
    const ipc::CBlock<std::uint16_t> nodes(DEV_GetAllNodes(&count));
    if (!nodes) return;
    const auto local = static_cast<std::uint16_t>(LIP_GetLocalLip());
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint16_t node = nodes.get()[i];
        if (node != local && !node_is_up(IF_IsNodeUp(node))) continue;
        std::uint32_t tmp[IP_STAT_COUNTERS];
        if (IP_GetIPStat(node, static_cast<std::uint32_t>(op), tmp) != IPSTATUS_OK) continue;
        for (std::size_t k = 0; k < IP_STAT_COUNTERS; ++k) counters[k] += tmp[k];
    }
}

// How an interface's counters are gathered over the nodes that carry it.
enum class PerInterface { kForwarding, kMib, kClear };

void per_node(PerInterface what, std::uint16_t node, std::uint32_t ifindex, std::uint64_t* counters) noexcept {
    std::uint16_t done = 0;
    switch (what) {
        case PerInterface::kForwarding: (void)IP_GetIPFWIfStat_ByNode(node, ifindex, counters, &done); break;
        case PerInterface::kMib: (void)IP_GetIPIfMIBStat(node, ifindex, counters); break;
        case PerInterface::kClear: IP_ClearIPFWIfStat_ByNode(node, ifindex); break;
    }
}

std::uint32_t per_interface(PerInterface what, std::uint32_t ifindex, std::uint64_t* counters) noexcept {
    if (ifindex == 0) return IPSTATUS_FAILED;
    std::uint32_t flags = 0;
    (void)IF_GetDataByIfIndex(ifindex, IF_DATA_FLAGS, &flags);
    if ((flags & IF_FLAG_SPANS_NODES) != 0) {
        std::uint32_t count = 0;
        const ipc::CBlock<std::uint16_t> nodes(DEV_GetAllNodes(&count));
        for (std::uint32_t i = 0; nodes && i < count; ++i) per_node(what, nodes.get()[i], ifindex, counters);
        return IPSTATUS_OK;
    }
    std::uint16_t owner = kOwnNode;  // kept when the directory fills nothing
    (void)IF_GetDataByIfIndex(ifindex, IF_DATA_NODE, &owner);
    per_node(what, owner, ifindex, counters);
    switch (what) {
        case PerInterface::kForwarding:
            if (owner != static_cast<std::uint16_t>(DEV_GetSelf())) {
                per_node(what, static_cast<std::uint16_t>(LIP_GetLocalLip()), ifindex, counters);
            }
            break;
        case PerInterface::kMib:
            // Of the local node's counters only the fifth is added: required, not an oversight.
            if (owner != DEV_GetSelf()) {
                std::uint64_t local[IP_MIBIF_COUNTERS] = {};
                (void)IP_GetIPIfMIBStat(static_cast<std::uint16_t>(LIP_GetLocalLip()), ifindex, local);
                counters[4] += local[4];
            }
            break;
        case PerInterface::kClear: {
            std::uint32_t count = 0;
            const ipc::CBlock<std::uint16_t> standby(DEV_GetAllStandbyNodes(&count));
            for (std::uint32_t i = 0; standby && i < count; ++i) {
                if (standby.get()[i] != owner) IP_ClearIPFWIfStat_ByNode(standby.get()[i], ifindex);
            }
            break;
        }
    }
    return IPSTATUS_OK;
}

}  // namespace

extern "C" {

uint32_t g_uiIPForwarding = 1;

uint32_t IP_GetIPStat(uint16_t usNode, uint32_t uiWord, uint32_t* puiCounters) {
    if (puiCounters == nullptr) return IPSTATUS_FAILED;
    std::uint32_t reply[IP_STAT_COUNTERS] = {};
    std::uint32_t returned = 0;
    const std::uint32_t status = call(node_word(usNode), word_request(uiWord), sizeof reply, reply, &returned);
    if (status != IPSTATUS_OK) return status;
    to_host(reply, IP_STAT_COUNTERS);
    std::memcpy(puiCounters, reply, sizeof reply);
    return IPSTATUS_OK;
}

void IP_GetShowIpStat(uint32_t* puiCounters) {
    if (puiCounters != nullptr) sum_ip_stat(Op::kShowIpStat, puiCounters);
}

void IP_GetStat(uint32_t* puiCounters) {
    if (puiCounters != nullptr) sum_ip_stat(Op::kIpStat, puiCounters);
}

uint32_t IP_GetIPFWIfStat_ByNode(uint16_t usNode, uint32_t uiIfIndex, uint64_t* pulCounters, uint16_t* pusDone) {
    if (pulCounters == nullptr || pusDone == nullptr) return IPSTATUS_FAILED;
    const std::uint32_t up = IF_IsNodeUp(usNode);
    if (!node_is_up(up)) return up & 0xFFFFu;
    std::uint8_t reply[kFwReplyCap];
    std::uint32_t returned = 0;
    const std::uint32_t status =
        call(node_word(usNode), request(Op::kFwIfStat, uiIfIndex), sizeof reply, reply, &returned);
    if (status != IPSTATUS_OK) return status;
    if (returned != kFwReplyLen) return returned;
    add_be64(pulCounters, reply, IP_FWIF_COUNTERS);
    *pusDone = 1;
    return IPSTATUS_OK;
}

uint32_t IP_GetIPFWIfStat(uint32_t uiIfIndex, uint64_t* pulCounters) {
    if (pulCounters == nullptr) return IPSTATUS_FAILED;
    return per_interface(PerInterface::kForwarding, uiIfIndex, pulCounters);
}

void IP_ClearIPFWIfStat_ByNode(uint16_t usNode, uint32_t uiIfIndex) {
    if (!node_is_up(IF_IsNodeUp(usNode))) return;
    (void)call(node_word(usNode), request(Op::kClearFwIfStat, uiIfIndex));
}

uint32_t IP_ClearIPFWIfStat(uint32_t uiIfIndex) { return per_interface(PerInterface::kClear, uiIfIndex, nullptr); }

uint32_t IP_GetICMPIfStat(uint32_t uiIfIndex, uint32_t* puiCounters) {
    if (puiCounters == nullptr) return IPSTATUS_FAILED;
    std::uint32_t reply[IP_ICMPIF_COUNTERS];
    const auto req = request(Op::kIcmpIfStat, uiIfIndex);
    if (ipc::kernel::read_fixed(ipc::kernel::kLocalNodeWord, ipc::proto::ipstat::kCmd, req.span(),
                                std::span(reinterpret_cast<std::uint8_t*>(reply), sizeof reply)) != IPSTATUS_OK) {
        return IPSTATUS_FAILED;
    }
    to_host(reply, IP_ICMPIF_COUNTERS);
    std::memcpy(puiCounters, reply, sizeof reply);
    return IPSTATUS_OK;
}

uint32_t IP_GetIPIfMIBStat(uint16_t usNode, uint32_t uiIfIndex, uint64_t* pulCounters) {
    if (pulCounters == nullptr) return IPSTATUS_FAILED;
    const std::uint32_t up = IF_IsNodeUp(usNode);
    if (!node_is_up(up)) return up;
    std::uint8_t reply[kMibReplyCap];
    std::uint32_t returned = 0;
    const std::uint32_t status =
        call(node_word(usNode), request(Op::kMibIfStat, uiIfIndex), sizeof reply, reply, &returned);
    if (status != IPSTATUS_OK) return status;
    if (returned == 0) return 0;
    // A short reply leaves the missing counters zero.
    std::uint8_t counters[kMibLen] = {};
    std::memcpy(counters, reply, std::min<std::size_t>(returned, kMibLen));
    add_be64(pulCounters, counters, IP_MIBIF_COUNTERS);
    return IP_MIBIF_COUNTERS;
}

uint32_t IP_GetMibIfStat(uint32_t uiIfIndex, uint64_t* pulCounters) {
    if (pulCounters == nullptr) return IPSTATUS_FAILED;
    return per_interface(PerInterface::kMib, uiIfIndex, pulCounters);
}

}  // extern "C"
