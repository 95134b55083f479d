// ND packets and resolution requests handed to the kernel ND module: router and neighbour
// advertisements, neighbour solicitations, fully specified packets, resolution and the
// deletion of dynamic entries.
#include <array>
#include <cstdint>

#include "ipclient/nd.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_nd.hpp"
#include "ipproto/wire.hpp"
#include "kernel/channel.hpp"
#include "nd/request.hpp"

namespace {

using ipc::nd::Request;

constexpr std::size_t kAddrLen = 16;
constexpr std::size_t kMacLen = 6;

// Operations of the module. The address-and-interface messages (operations 4 and 6) carry
// kAddrIfLen bytes, but the module expects their length word to say kAddrIfClaimed.
using namespace ipc::proto::nd;

// Neighbour solicitation waits for a 4-byte reply that nobody reads.
constexpr std::uint32_t kNsReplyCap = 4;

// Words of the caller's specified packet converted to network order while it is copied.
constexpr std::array<ipc::wire::Field, 8> kSpecifyFields{
    {{48, 4}, {52, 4}, {60, 4}, {64, 2}, {66, 2}, {68, 4}, {72, 4}, {76, 4}}};

static_assert(sizeof(NdIPv6Addr) == kAddrLen);
static_assert(sizeof(NdSendSpecifyInfo) + ipc::nd::kHeadLen == 108);

// Hands the message to the node that owns the interface without waiting; the platform's
// status when that node cannot be found, and nothing is sent.
template <std::size_t N>
std::uint32_t send_on(std::uint32_t ifindex, const Request<N>& req) noexcept {
    std::uint16_t node = ipc::kernel::kLocalNode;
    const std::uint32_t status = IF_GetDataByIfIndex(ifindex, IF_DATA_NODE, &node);
    if (status != 0) return status;
    return CIOCTL_Async(ipc::kernel::node_word(node), ipc::proto::nd::kCmdInfo, static_cast<std::uint32_t>(N),
                        req.data());
}

// The 36-byte advertisement of operations 2 and 3.
std::uint32_t send_advert(std::uint32_t op, std::uint32_t ifindex, const NdIPv6Addr& addr, const std::uint8_t* mac,
                          std::uint16_t word) noexcept {
    if (mac == nullptr) return IPSTATUS_FAILED;
    Request<36> r(op);
    r.be<8>(ifindex);
    r.raw<12, kAddrLen>(&addr);
    r.raw<28, kMacLen>(mac);
    r.be<34>(word);
    return send_on(ifindex, r);
}

// The address-then-interface message of operations 4 and 6.
Request<kAddrIfLen> addr_if_request(std::uint32_t op, const NdIPv6Addr& addr, std::uint32_t ifindex) noexcept {
    Request<kAddrIfLen> r(op, kAddrIfClaimed);
    r.raw<8, kAddrLen>(&addr);
    r.be<24>(ifindex);
    return r;
}

bool is_unspecified(const NdIPv6Addr& addr) noexcept {
    for (const std::uint8_t b : addr.aucAddr) {
        if (b != 0) return false;
    }
    return true;
}

}  // namespace

extern "C" {

uint32_t ND_SendRA(uint32_t uiIfIndex, NdIPv6Addr stAddr, const uint8_t* pucMac, uint16_t usWord) {
    return send_advert(kOpSendRA, uiIfIndex, stAddr, pucMac, usWord);
}

uint32_t ND_SendNA(uint32_t uiIfIndex, NdIPv6Addr stAddr, const uint8_t* pucMac) {
    return send_advert(kOpSendNA, uiIfIndex, stAddr, pucMac, 0);
}

uint32_t ND_SendNS(uint32_t uiIfIndex, NdIPv6Addr stAddr) {
    Request<28> r(kOpSendNS);
    r.be<8>(uiIfIndex);
    r.raw<12, kAddrLen>(&stAddr);
    std::uint8_t reply[kNsReplyCap] = {};
    std::uint32_t returned = 0;
    return CIOCTL(ipc::kernel::kLocalNodeWord, ipc::proto::nd::kCmdInfo, static_cast<std::uint32_t>(r.size()),
                  r.data(), kNsReplyCap, reply, &returned);
}

uint32_t ND_SendSpecify(const NdSendSpecifyInfo* pstInfo) {
    if (pstInfo == nullptr) return IPSTATUS_FAILED;
    Request<108> r(kOpSendSpecify);
    r.record<ipc::nd::kHeadLen>(*pstInfo, kSpecifyFields);
    return send_on(pstInfo->uiIfIndex, r);
}

uint32_t ND_Resolve(NdIPv6Addr stAddr, uint32_t uiIfIndex) {
    if (is_unspecified(stAddr)) return IPSTATUS_FAILED;
    return send_on(uiIfIndex, addr_if_request(kOpResolve, stAddr, uiIfIndex));
}

uint32_t ND_DeleteDynamicEntry(NdIPv6Addr stAddr, uint32_t uiIfIndex) {
    const auto req = addr_if_request(kOpDeleteDynamic, stAddr, uiIfIndex);
    const auto master = static_cast<std::uint16_t>(DEV_GetSystemMasterEP());
    return CIOCTL_Async(ipc::kernel::node_word(master), ipc::proto::nd::kCmdInfo,
                        static_cast<std::uint32_t>(req.size()), req.data());
}

}  // extern "C"
