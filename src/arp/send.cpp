// ARP packets sent by the kernel module on an interface's node, without waiting.
#include <array>
#include <cstdint>
#include <cstring>

#include "arp/request.hpp"
#include "ipclient/arp.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_arp.hpp"
#include "ipproto/lipc.hpp"
#include "ipproto/wire.hpp"
#include "kernel/channel.hpp"

namespace {

using ipc::arp::Request;

constexpr std::size_t kMacLen = 6;
using namespace ipc::proto::arp;  // sub-operations of the module

// Fields of the caller's description converted to network order while it is copied.
constexpr std::array<ipc::wire::Field, 8> kSpecifyFields{
    {{8, 4}, {12, 4}, {16, 4}, {20, 2}, {22, 2}, {24, 4}, {28, 4}, {32, 4}}};

// Sends to the node that owns the interface; the platform's status when it cannot say.
template <std::uint8_t S>
std::uint32_t send_on(std::uint32_t ifindex, const Request<S>& req) noexcept {
    std::uint16_t node = ipc::proto::lipc::kOwnNode;
    const std::uint32_t status = IF_GetDataByIfIndex(ifindex, IF_DATA_NODE, &node);
    if (status != 0) return status;
    return CIOCTL_Async(ipc::kernel::node_word(node), ipc::proto::arp::kCmdInfo, Request<S>::kLen, req.data());
}

template <std::uint8_t S>
std::uint32_t send_packet(std::uint32_t ifindex, std::uint32_t sender, std::uint32_t target,
                          const std::uint8_t* mac) noexcept {
    Request<S> r;
    if (mac != nullptr) {
        r.template raw<4, kMacLen>(mac);
        r.data()[10] = 1;
    }
    r.template be<12>(ifindex);
    r.template raw32<16>(sender);
    r.template raw32<20>(target);
    return send_on(ifindex, r);
}

}  // namespace

extern "C" {

uint32_t ARP_Request(uint32_t uiIfIndex, uint32_t uiSender, uint32_t uiTarget, const uint8_t* pucMac) {
    return send_packet<kSendRequest>(uiIfIndex, uiSender, uiTarget, pucMac);
}

uint32_t ARP_Reply(uint32_t uiIfIndex, uint32_t uiSender, uint32_t uiTarget, const uint8_t* pucMac) {
    return send_packet<kSendReply>(uiIfIndex, uiSender, uiTarget, pucMac);
}

uint32_t ARP_Probe(uint32_t uiIfIndex, uint32_t uiTarget, const uint8_t* pucMac) {
    return send_packet<kSendProbe>(uiIfIndex, 0, uiTarget, pucMac);
}

uint32_t ARP_RequestWithVlan(uint32_t uiIfIndex, uint16_t usVlan1, uint16_t usVlan2, uint32_t uiWord1,
                             uint32_t uiWord2, const uint8_t* pucMac1, const uint8_t* pucMac2) {
    Request<kSendVlanRequest> r;
    if (pucMac1 != nullptr) {
        r.raw<4, kMacLen>(pucMac1);
        r.data()[33] = 1;
    }
    if (pucMac2 != nullptr) {
        r.raw<10, kMacLen>(pucMac2);
        r.data()[35] = 1;
    }
    r.be<16>(uiIfIndex);
    r.raw32<20>(uiWord1);
    r.raw32<24>(uiWord2);
    r.be<28>(usVlan1);
    r.be<30>(usVlan2);
    return send_on(uiIfIndex, r);
}

uint32_t ARP_SendSpecify(const ARP_SEND_SPECIFY_S* pstDesc) {
    if (pstDesc == nullptr) return IPSTATUS_FAILED;
    Request<kSendSpecified> r;
    r.record<4>(*pstDesc, kSpecifyFields);
    return send_on(pstDesc->uiIfIndex, r);
}

}  // extern "C"
