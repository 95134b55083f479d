// The neighbour clients' channel as the tests see it: the platform's record of socket calls
// (of one kind, on one descriptor or any), whether a descriptor is still open, and the
// adjacency channel's messages as its services receive them.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"

namespace ipt {

constexpr int kAnyFd = -2;

// The recorded calls of one kind, on one descriptor or on any, in the order they were made.
inline std::vector<ipp_sock_event> calls_of(ipp_call call, int fd = kAnyFd) {
    std::vector<ipp_sock_event> matching;
    const std::uint32_t total = ipp_sock_log_count();
    for (std::uint32_t i = 0; i < total; ++i) {
        ipp_sock_event ev{};
        const bool read = ipp_sock_log_get(i, &ev) == 0;
        if (!read || ev.call != call) continue;
        if (fd == kAnyFd || ev.fd == fd) matching.push_back(ev);
    }
    return matching;
}

inline bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

// A message of the adjacency channel: type, a byte the sender may leave unset, BE16 payload
// length, BE16 count, payload.
inline Bytes adj_message(std::uint8_t type, const Bytes& payload, std::uint16_t count = 1,
                         std::uint8_t reserved = 0) {
    Bytes m{type, reserved};
    put16(m, static_cast<std::uint16_t>(payload.size()));
    put16(m, count);
    m.insert(m.end(), payload.begin(), payload.end());
    return m;
}

// Compares a received message with the expected one; byte 1 is the sender's to leave unset.
inline void expect_adj_message(const Bytes& got, const Bytes& want) {
    ASSERT_EQ(got.size(), want.size());
    EXPECT_EQ(got[0], want[0]) << "type";
    EXPECT_TRUE(std::equal(got.begin() + 2, got.end(), want.begin() + 2)) << "length, count or payload";
}

// The seconds and microseconds of a recorded time-out option (a 16-byte time value).
inline std::int64_t option_seconds(const ipp_sock_event& ev) {
    std::int64_t sec = -1;
    std::memcpy(&sec, ev.value, sizeof sec);
    return sec;
}
inline std::int64_t option_microseconds(const ipp_sock_event& ev) {
    std::int64_t usec = -1;
    std::memcpy(&usec, ev.value + 8, sizeof usec);
    return usec;
}

// The address a recorded connect reached: 16 bytes, family 37, then port and node big-endian.
inline void expect_reached(const ipp_sock_event& connect, std::uint16_t node, std::uint16_t port) {
    ASSERT_EQ(connect.addr_len, 16u);
    Bytes want{16, 37};
    put16(want, port);
    put16(want, node);
    want.resize(16, 0);
    EXPECT_EQ(Bytes(connect.addr, connect.addr + 16), want);
}

}  // namespace ipt
