// ARP displays: an interface's ARP packet counters as text, and the ARP MAD configuration
// printed from the configuration database.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>

#include "common/mad_list.hpp"
#include "ipclient/arp.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_arp.hpp"
#include "ipproto/raii.hpp"
#include "ipproto/wire.hpp"
#include "kernel/channel.hpp"

namespace {

constexpr std::size_t kCounters = 4;
constexpr std::size_t kReplyLen = kCounters * 4;  // 16
constexpr char kLine[] = "%-25s%11u\r\n";
constexpr std::array<const char*, kCounters> kLabels{
    {"ARP packet input number:", "  Request packet:", "  Reply packet:", "  Unknown packet:"}};

constexpr char kMadList[] = "ARP_MAD_CFG";  // the key is its 12 bytes, terminator included
static_assert(sizeof kMadList == 12);

using Counters = std::array<std::uint32_t, kCounters>;

// Adds one node's counters; a node whose request fails or answers short adds nothing.
void add_node(std::uint32_t node_word, std::span<const std::uint8_t> request, Counters& total) noexcept {
    std::array<std::uint8_t, kReplyLen> reply{};
    if (ipc::kernel::read_fixed(node_word, ipc::proto::arp::kCmdIfDisplay, request, reply) != IPSTATUS_OK) return;
    const ipc::wire::View view(reply);
    for (std::size_t i = 0; i < kCounters; ++i) total[i] += view.be<std::uint32_t>(i * 4).value_or(0);
}

Counters if_counters(std::uint32_t ifindex) noexcept {
    ipc::wire::Frame<4> request;
    request.be<0>(ifindex);
    Counters total{};
    std::uint32_t type = 0;
    if (IF_GetDataByIfIndex(ifindex, IF_DATA_TYPE, &type) == 0 && type == ARP_IF_TYPE_SPANNING) {
        std::uint32_t count = 0;
        const ipc::CBlock<std::uint16_t> nodes(DEV_GetAllNodes(&count));
        if (!nodes) return total;
        for (std::uint32_t i = 0; i < count; ++i) {
            add_node(ipc::kernel::node_word(nodes.get()[i]), request.span(), total);
        }
        return total;
    }
    std::uint16_t node = ipc::kernel::kLocalNode;
    if (IF_GetDataByIfIndex(ifindex, IF_DATA_NODE, &node) != 0) node = ipc::kernel::kLocalNode;
    add_node(ipc::kernel::node_word(node), request.span(), total);
    return total;
}


}  // namespace

extern "C" {

uint32_t ARP_GetIfDisplayInfo(uint32_t uiIfIndex, uint32_t uiSize, char* pcBuf) {
    if (pcBuf == nullptr || uiSize == 0) return 0;
    if (IF_IsL2If(uiIfIndex) == 1) return 0;
    std::uint32_t kind = 0;
    if (IF_GetDataByIfIndex(uiIfIndex, IF_DATA_KIND, &kind) != 0 || kind != ARP_IF_DISPLAY_KIND) return 0;
    const Counters counters = if_counters(uiIfIndex);
    std::uint32_t used = 0;
    for (std::size_t i = 0; i < kCounters; ++i) {
        const std::uint32_t room = used < uiSize ? uiSize - used : 0;
        used += static_cast<std::uint32_t>(scnprintf(pcBuf + used, room, kLine, kLabels[i], counters[i]));
    }
    return used;
}

uint32_t ARP_MADDispalyCfg(uint16_t usShowIf) {
    static constexpr ipc::mad::Texts kTexts{"MAD ARP disabled.\r", "MAD ARP enabled.\r", "MAD ARP enabled interface:\r"};
    return ipc::mad::print(kMadList, sizeof kMadList, kTexts, usShowIf);
}

}  // extern "C"
