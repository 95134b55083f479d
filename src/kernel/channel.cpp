#include "kernel/channel.hpp"

#include "ipclient/status.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_addr.hpp"
#include "ipproto/raii.hpp"
#include "ipproto/wire.hpp"

namespace ipc::kernel {

std::uint32_t ipaddr_DrvkCioctl(std::uint32_t request_len, const void* request, std::uint32_t reply_cap,
                                void* reply, std::uint32_t* returned_len) noexcept {
    return CIOCTL(kLocalNodeWord, ipc::proto::addr::kCmd, request_len, request, reply_cap, reply, returned_len);
}

std::uint32_t read_fixed(std::uint32_t node, std::uint32_t command, std::span<const std::uint8_t> request,
                         std::span<std::uint8_t> reply, std::uint32_t wrong_length) noexcept {
    std::uint32_t returned = 0;
    const std::uint32_t status =
        CIOCTL(node, command, static_cast<std::uint32_t>(request.size()), request.empty() ? nullptr : request.data(),
               static_cast<std::uint32_t>(reply.size()), reply.empty() ? nullptr : reply.data(), &returned);
    if (status != IPSTATUS_OK) return status;
    return returned == reply.size() ? IPSTATUS_OK : wrong_length;
}

std::uint64_t sum_over_nodes(std::uint32_t command, std::span<const std::uint8_t> request,
                             NodeWalk walk) noexcept {
    std::uint32_t count = 0;
    const CBlock<std::uint16_t> nodes(DEV_GetAllNodes(&count));
    if (!nodes) return 0;

    std::uint64_t total = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint16_t node = nodes.get()[i];
        if (walk == NodeWalk::kUpNodesExactReply && (IF_IsNodeUp(node) & 0xFFFFu) != 1) continue;
        std::uint8_t reply[8] = {};
        std::uint32_t returned = 0;
        const std::uint32_t status =
            CIOCTL(node_word(node), command, static_cast<std::uint32_t>(request.size()), request.data(),
                   sizeof reply, reply, &returned);
        if (status != IPSTATUS_OK) continue;
        if (walk == NodeWalk::kUpNodesExactReply && returned != sizeof reply) continue;
        total += wire::load_be<std::uint64_t>(reply);
    }
    return total;
}

}  // namespace ipc::kernel
