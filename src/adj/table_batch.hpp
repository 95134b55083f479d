// Batches of table entries to the adjacency services, laid out in the caller's buffer.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <span>

#include "ipclient/adj.h"
#include "ipproto/wire.hpp"
#include "lipc/socket.hpp"

namespace ipc::adj {

// The channel's receive (ADJ4_Recv or ADJ6_Recv).
using RecvFn = std::uint32_t (*)(std::int32_t fd, std::uint16_t* len, void* buf);

// The caller's buffer holds room for the 6-byte header, then `count` host-order entries of
// `entry_len` bytes. The header is written in front (byte 1 stays the caller's), the entries
// are converted in place and the whole is sent as it lies, without blocking. The service
// answers with a 4-byte big-endian status, which is returned; a batch that did not go whole
// is not reported here (0): the verify exchange reveals it.
template <std::size_t F>
std::uint32_t send_entry_batch(std::uint8_t type, int fd, std::uint8_t* bytes, std::uint32_t count,
                               std::size_t entry_len, const std::array<wire::Field, F>& fields,
                               RecvFn recv) noexcept {
    const std::size_t payload = std::size_t{count} * entry_len;
    const std::size_t total = ADJ_MSG_HEAD_LEN + payload;
    bytes[0] = type;
    wire::store_be(bytes + 2, static_cast<std::uint16_t>(payload));
    wire::store_be(bytes + 4, static_cast<std::uint16_t>(count));
    for (std::uint32_t i = 0; i < count; ++i) {
        wire::swap_fields(std::span<std::uint8_t>(bytes + ADJ_MSG_HEAD_LEN + i * entry_len, entry_len), fields);
    }
    const ssize_t sent = ::send(fd, bytes, total, lipc::kDontWait);
    if (sent < 0 || static_cast<std::size_t>(sent) != total) return IPSTATUS_OK;
    std::uint8_t reply[4] = {};
    std::uint16_t len = sizeof reply;
    (void)recv(fd, &len, reply);
    return wire::load_be<std::uint32_t>(reply);
}

}  // namespace ipc::adj
