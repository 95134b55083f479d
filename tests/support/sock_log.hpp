// Reads of the platform's socket-call log: the calls of one kind recorded since the reset.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "ipplat/testctl.h"

namespace ipt {

// Every recorded call of the kind `call`, oldest first.
inline std::vector<ipp_sock_event> sock_events(ipp_call call) {
    std::vector<ipp_sock_event> found;
    const std::uint32_t logged = ipp_sock_log_count();
    found.reserve(logged);
    for (std::uint32_t at = 0; at < logged; ++at) {
        ipp_sock_event ev{};
        if (ipp_sock_log_get(at, &ev) != 0 || ev.call != call) continue;
        found.push_back(ev);
    }
    return found;
}

// Exactly one socket was created, of this domain, type and protocol; when `result` is given,
// the call returned it.
inline void expect_one_socket(int domain, int type, int protocol, std::optional<int> result = {}) {
    const auto sockets = sock_events(IPP_CALL_SOCKET);
    ASSERT_EQ(sockets.size(), 1u);
    EXPECT_EQ(sockets[0].domain, domain);
    EXPECT_EQ(sockets[0].type, type);
    EXPECT_EQ(sockets[0].protocol, protocol);
    if (result) {
        EXPECT_EQ(sockets[0].result, *result);
    }
}

// Exactly one connect was recorded, to the 16-byte family-37 address of `port` on `node`
// (length, family, then port and node big-endian).
inline void expect_one_connect(std::uint16_t node, std::uint16_t port) {
    const auto connects = sock_events(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    EXPECT_EQ(connects[0].addr_len, 16u);
    const std::uint8_t want[16] = {16, 37, static_cast<std::uint8_t>(port >> 8), static_cast<std::uint8_t>(port),
                                   static_cast<std::uint8_t>(node >> 8), static_cast<std::uint8_t>(node)};
    EXPECT_EQ(std::memcmp(connects[0].addr, want, sizeof want), 0) << "node " << node << " port " << port;
}

// Whether `fd` has something to read within `timeout_ms`.
inline bool readable_within(int fd, int timeout_ms = 2000) {
    pollfd want{fd, POLLIN, 0};
    return ::poll(&want, 1, timeout_ms) == 1;
}

}  // namespace ipt
