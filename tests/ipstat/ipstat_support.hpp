// Helpers shared by the IP statistics and settings tests: the IP module's request layouts,
// big-endian reply builders, a kernel that answers per node and operation, and the
// directory set-up of nodes and interfaces.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <utility>
#include <vector>

#include "ipclient/ipstat.h"
#include "ipplat/testctl.h"
#include "support/directory_interface.hpp"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {

inline constexpr std::uint32_t kIpCommand = 0x5b0001u;
inline constexpr std::uint32_t kOwnNodeWord = 0xFFFF8000u;

// A 16-bit node as the channel takes it: sign-extended.
inline std::uint32_t node_word(std::uint16_t node) {
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<std::int16_t>(node)));
}

// [BE16 op][BE16 4][BE32 data].
inline Bytes req_with(std::uint16_t op, std::uint32_t data) {
    Bytes b;
    put16(b, op);
    put16(b, 4);
    put32(b, data);
    return b;
}

// [BE16 op][BE16 0].
inline Bytes req_bare(std::uint16_t op) {
    Bytes b;
    put16(b, op);
    put16(b, 0);
    return b;
}

inline Bytes be32s(const std::vector<std::uint32_t>& v) {
    Bytes b;
    for (const std::uint32_t w : v) put32(b, w);
    return b;
}

inline Bytes be64s(const std::vector<std::uint64_t>& v) {
    Bytes b;
    for (const std::uint64_t w : v) put64(b, w);
    return b;
}

// Counters whose bytes all differ, so that a missing or wrong byte swap shows.
inline std::vector<std::uint32_t> counters32(std::size_t n, std::uint32_t seed) {
    std::vector<std::uint32_t> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = seed + static_cast<std::uint32_t>(i) * 0x01030507u;
    return v;
}

inline std::vector<std::uint64_t> counters64(std::size_t n, std::uint64_t seed) {
    std::vector<std::uint64_t> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = seed + static_cast<std::uint64_t>(i) * 0x0102030405060708ull;
    return v;
}

// The 16-bit operation of an IP module request (0xFFFF when the request is too short).
inline std::uint16_t op_of(const KernelCall& c) {
    if (c.request.size() < 2) return 0xFFFF;
    return static_cast<std::uint16_t>((c.request[0] << 8) | c.request[1]);
}

inline ipp_interface make_interface(std::uint32_t ifindex, std::uint16_t node, std::uint32_t type = 0,
                                    std::uint32_t flags = 0) {
    return DirInterface(ifindex).node(node).type(type).flags(flags).valid().visible().configured().get();
}

class IpStatTest : public PlatformTest {
protected:
    // Replies chosen by the node word of the call; nodes without an entry fail.
    void answer_by_node(std::map<std::uint32_t, KernelReply> replies) {
        kernel.answer([replies = std::move(replies)](const KernelCall& c) {
            const auto it = replies.find(c.node);
            return it == replies.end() ? KernelReply{kFailed, {}, std::nullopt} : it->second;
        });
    }

    static void set_nodes(std::initializer_list<std::uint16_t> nodes) {
        const std::vector<std::uint16_t> v(nodes);
        ipp_dir_set_nodes(v.data(), static_cast<std::uint32_t>(v.size()));
    }

    static void set_standby(std::initializer_list<std::uint16_t> nodes) {
        const std::vector<std::uint16_t> v(nodes);
        ipp_dir_set_standby_nodes(v.data(), static_cast<std::uint32_t>(v.size()));
    }

    static void set_up(std::initializer_list<std::uint16_t> nodes) {
        for (const std::uint16_t n : nodes) ipp_dir_set_node_up(n, 1);
    }

    static void add_interface(const ipp_interface& itf) { ipp_dir_add_interface(&itf); }

    // The node words of the calls made, in order.
    std::vector<std::uint32_t> called_nodes() const {
        std::vector<std::uint32_t> out;
        for (const KernelCall& c : kernel.calls()) out.push_back(c.node);
        return out;
    }

    // Every call went to the IP module, synchronously.
    void expect_ip_module_calls() const {
        for (const KernelCall& c : kernel.calls()) {
            EXPECT_EQ(c.command, kIpCommand);
            EXPECT_FALSE(c.async);
        }
    }

    FakeKernel kernel;
};

}  // namespace ipt
