// BPA statistics through the dump service, and the BPA configuration from the IP daemon.
#include <cstdint>
#include <cstring>

#include "common/dump_handle.hpp"
#include "ipclient/ipstat.h"
#include "ipclient/lipc.h"
#include "ipproto/lipc.hpp"
#include "ipproto/raii.hpp"
#include "ipproto/svc_daemons.hpp"
#include "ipstat/request.hpp"

namespace {

using namespace ipc::ipstat;

constexpr std::uint32_t kBpaLen = IP_BPA_RECORDS * IP_BPA_COUNTERS * 8;  // 2560
constexpr std::uint16_t kBpaCfgMessageType = ipc::proto::ipstack::kBpaCfgType;
constexpr std::uint16_t kOwnNode = ipc::proto::lipc::kOwnNode;

// One node's BPA records: counters 1-4 added, counter 5 stored over the caller's.
std::uint32_t dump_node(std::uint16_t node, const ipc::wire::Frame<8>& req, std::uint64_t* records) noexcept {
    if (!node_is_up(IF_IsNodeUp(node))) return IPSTATUS_OK;
    const std::int32_t handle = DUMP_Request(node, ipc::proto::ipstat::kBpaDumpRequest, req.data(), req.size());
    if (handle < 0) return IPSTATUS_PROEN_NO_SOCKET;
    const ipc::DumpHandle owner(handle);
    std::uint8_t buf[kBpaLen] = {};
    std::uint32_t len = 0;
    const std::uint32_t pulled = DUMP_Pull(handle, sizeof buf, buf, &len);
    if (pulled == 0) return IPSTATUS_FAILED;
    if (pulled != DUMP_MORE_DATA) return IPSTATUS_PROEN_NO_SOCKET;
    for (std::size_t r = 0; r < IP_BPA_RECORDS; ++r) {
        std::uint64_t* dst = records + r * IP_BPA_COUNTERS;
        const std::uint8_t* src = buf + r * IP_BPA_COUNTERS * 8;
        add_be64(dst, src, 4);
        dst[4] = ipc::wire::load_be<std::uint64_t>(src + 32);
    }
    return IPSTATUS_OK;
}

}  // namespace

extern "C" {

uint32_t IP_GetBpaStat(uint32_t uiIfIndex, uint64_t* pulRecords) {
    if (pulRecords == nullptr) return IPSTATUS_FAILED;
    const auto req = request(Op::kBpaStat, uiIfIndex);
    std::uint32_t flags = 0;
    if (uiIfIndex != 0 && IF_GetDataByIfIndex(uiIfIndex, IF_DATA_FLAGS, &flags) == 0 &&
        (flags & IF_FLAG_SPANS_NODES) == 0) {
        std::uint16_t node = kOwnNode;
        const std::uint32_t status = IF_GetDataByIfIndex(uiIfIndex, IF_DATA_NODE, &node);
        if (status != 0) return status;
        return dump_node(node, req, pulRecords);
    }
    std::uint32_t count = 0;
    const ipc::CBlock<std::uint16_t> nodes(DEV_GetAllNodes(&count));
    if (!nodes) return IPSTATUS_FAILED;
    for (std::uint32_t i = 0; i < count; ++i) (void)dump_node(nodes.get()[i], req, pulRecords);
    return IPSTATUS_OK;
}

uint32_t IP_GetBpaCfg(uint32_t uiIfIndex, uint32_t* puiValue) {
    if (puiValue == nullptr) return 0;
    auto* msg = static_cast<std::uint8_t*>(IP_LIPC_AllocMsg(4));
    if (msg == nullptr) return 0;
    std::memset(msg, 0, 4);
    const auto req = request(Op::kBpaCfg, uiIfIndex);
    const auto len = static_cast<std::uint32_t>(IP_GetMsgFromDaemon(req.data(), req.size(), kBpaCfgMessageType, 4, msg));
    if (len != 0) {
        const std::uint16_t halves[2] = {ipc::wire::load_be<std::uint16_t>(msg), ipc::wire::load_be<std::uint16_t>(msg + 2)};
        std::memcpy(puiValue, halves, sizeof halves);
    }
    IP_LIPC_FreeMsg(msg);
    return len;
}

}  // extern "C"
