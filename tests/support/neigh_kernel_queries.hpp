// What the two neighbour clients ask their kernel modules the same way: a control call as it
// must look, the counter walks over the device's nodes, and the tag-length-value elements of
// private data.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <tuple>

#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/statuses.hpp"

namespace ipt::neigh {

// A waiting control call: to this node, with this command and request, for a reply of cap
// bytes, with a reply buffer and a returned length.
inline void expect_kernel_call(const KernelCall& c, std::uint32_t node, std::uint32_t command, const Bytes& request,
                               std::uint32_t cap) {
    EXPECT_EQ(std::tie(c.node, c.command, c.request, c.reply_cap), std::tie(node, command, request, cap));
    EXPECT_FALSE(c.async);
    EXPECT_FALSE(c.reply_null);
    EXPECT_FALSE(c.returned_len_null);
}

// Big-endian 64-bit counters as a node answers them.
inline Bytes counters(std::initializer_list<std::uint64_t> values) {
    Bytes r;
    for (const std::uint64_t v : values) put64(r, v);
    return r;
}

// ---- Attack counters over every listed node -------------------------------------------------
//
// Stat(selector, four counters): each listed node is asked, up or not; what a node answers
// is added to the counters, a failed answer is passed over.

template <auto Stat>
void attack_stat_adds_every_nodes_counters(std::uint16_t failing_node, std::uint32_t failing_word,
                                           std::uint32_t command, const Bytes& request) {
    FakeKernel kernel;
    const std::uint16_t nodes[] = {2, failing_node, 9};
    ipp_dir_set_nodes(nodes, 3);
    ipp_dir_set_node_up(2, 1);  // up or not, every node is asked
    kernel.answer([failing_word](const KernelCall& c) {
        if (c.node == 2) return KernelReply{0, counters({0x0102030405060708ull, 1, 0x100, 0x10000}), std::nullopt};
        if (c.node == failing_word) return KernelReply{0x12345678u, counters({99, 99, 99, 99}), std::nullopt};
        return KernelReply{0, counters({0x10, 0x0200000000ull, 3, 4}), std::nullopt};
    });
    std::uint64_t total[4] = {1, 2, 3, 4};  // added to, not reset
    Stat(0xA7, total);
    EXPECT_EQ(total[0], 1 + 0x0102030405060708ull + 0x10);
    EXPECT_EQ(total[1], 2 + 1ull + 0x0200000000ull);
    EXPECT_EQ(total[2], 3 + 0x100ull + 3);
    EXPECT_EQ(total[3], 4 + 0x10000ull + 4);
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 3u);
    const std::uint32_t words[] = {2, failing_word, 9};
    for (std::size_t i = 0; i < 3; ++i) expect_kernel_call(calls[i], words[i], command, request, 32);
}

// The reply is cleared before every node: a short answer adds nothing past its bytes.
template <auto Stat>
void attack_stat_clears_the_reply_for_every_node() {
    FakeKernel kernel;
    const std::uint16_t nodes[] = {2, 3};
    ipp_dir_set_nodes(nodes, 2);
    kernel.reply(0, counters({5, 6, 7, 8}));
    kernel.reply(0, counters({100}));  // only the first counter arrives
    std::uint64_t total[4] = {};
    Stat(1, total);
    EXPECT_EQ(total[0], 105u);
    EXPECT_EQ(total[1], 6u);
    EXPECT_EQ(total[2], 7u);
    EXPECT_EQ(total[3], 8u);
}

// Without a node list, or without counters, nothing is asked and nothing changes.
template <auto Stat>
void attack_stat_asks_nothing_without_nodes_or_counters() {
    FakeKernel kernel;
    ipp_dir_clear_nodes();
    kernel.reply(0, counters({1, 1, 1, 1}));
    std::uint64_t total[4] = {7, 8, 9, 10};
    Stat(1, total);
    EXPECT_EQ(total[0], 7u);
    EXPECT_EQ(total[1], 8u);
    EXPECT_EQ(total[2], 9u);
    EXPECT_EQ(total[3], 10u);
    const std::uint16_t nodes[] = {2};
    ipp_dir_set_nodes(nodes, 1);
    Stat(1, nullptr);
    EXPECT_EQ(kernel.count(), 0u);
}

// Alarm(selector, counter): only the nodes that are up are asked, and only a successful
// answer of exactly eight bytes is added.
template <auto Alarm>
void alarm_threshold_adds_only_up_nodes(std::uint32_t command, const Bytes& request) {
    FakeKernel kernel;
    const std::uint16_t nodes[] = {1, 2, 3, 4, 6, 8};
    ipp_dir_set_nodes(nodes, 6);
    for (const std::uint16_t up : {std::uint16_t{1}, std::uint16_t{3}, std::uint16_t{4}, std::uint16_t{6}}) {
        ipp_dir_set_node_up(up, 1);
    }
    ipp_dir_set_node_up(2, 0);  // node 8: never set, not up
    kernel.answer([](const KernelCall& c) {
        switch (c.node) {
            case 1: return KernelReply{0, counters({0x0100000000000002ull}), std::nullopt};
            case 3: return KernelReply{0, counters({0x30}), 4u};                        // a wrong length
            case 4: return KernelReply{0x12345678u, counters({0x4000}), std::nullopt};  // failed
            case 6: return KernelReply{0, counters({0x0600}), std::nullopt};
            default: return KernelReply{0, counters({0x7777}), std::nullopt};
        }
    });
    std::uint64_t total = 5;  // added to, not reset
    Alarm(0x5C, &total);
    EXPECT_EQ(total, 5ull + 0x0100000000000002ull + 0x0600);
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 4u);
    const std::uint32_t words[] = {1, 3, 4, 6};
    for (std::size_t i = 0; i < 4; ++i) expect_kernel_call(calls[i], words[i], command, request, 8);
}

// ---- Tag-length-value elements --------------------------------------------------------------

// One element: BE16 tag, BE16 length, the value.
inline void tlv_element(Bytes& b, std::uint16_t tag, const Bytes& value) {
    put16(b, tag);
    put16(b, static_cast<std::uint16_t>(value.size()));
    b.insert(b.end(), value.begin(), value.end());
}

// TimeStamp(length, data, time): a length of two fills the two low-addressed bytes and
// clears the others.
template <auto TimeStamp>
void time_stamp_of_two_bytes() {
    const std::uint8_t data[4] = {0xAB, 0xCD, 0xEF, 0x12};
    std::uint32_t t = 0xFFFFFFFFu;
    EXPECT_EQ(TimeStamp(2, data, &t), 0u);
    const std::uint8_t want[4] = {0xAB, 0xCD, 0, 0};
    EXPECT_EQ(std::memcmp(&t, want, 4), 0);
}

// PData(length, data, tag, value): a value longer than eight bytes gives its first eight,
// big-endian.
template <auto PData>
void pdata_longer_value_gives_first_eight(std::size_t value_len) {
    Bytes data;
    const Bytes value{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xF0, 0xE1, 0xD2, 0xC3};
    tlv_element(data, 5, Bytes(value.begin(), value.begin() + static_cast<std::ptrdiff_t>(value_len)));
    std::uint64_t v = 0;
    EXPECT_EQ(PData(static_cast<std::uint32_t>(data.size()), data.data(), 5, &v), 0u);
    EXPECT_EQ(v, 0x0123456789ABCDEFull);
}

}  // namespace ipt::neigh
