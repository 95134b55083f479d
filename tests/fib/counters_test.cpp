// Per-node FIB counters: which nodes are asked, the request each one gets, which replies
// count, and that the caller's total is added to rather than reset.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "ipclient/fib.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kConCheck = 0x38000Bu;
constexpr std::uint32_t kAlarm = 0x38000Cu;
constexpr std::uint16_t kNodes[] = {0x0101, 0x0202, 0x0303, 0x0404};

Bytes be64(std::uint64_t v) {
    Bytes b;
    put64(b, v);
    return b;
}

// The selector as a 32-bit host-order value.
Bytes selector_request(std::uint16_t selector) {
    const std::uint32_t v = selector;
    Bytes b(4);
    std::memcpy(b.data(), &v, 4);
    return b;
}

class CountersTest : public PlatformTest {
protected:
    CountersTest() {
        ipp_dir_set_nodes(kNodes, 4);
        // Only the first and the last node are up; 2 is not "1" and does not count as up.
        ipp_dir_set_node_up(0x0101, 1);
        ipp_dir_set_node_up(0x0202, 0);
        ipp_dir_set_node_up(0x0303, 2);
        ipp_dir_set_node_up(0x0404, 1);
        kernel.answer([this](const KernelCall& c) {
            const auto it = replies.find(c.node);
            return it == replies.end() ? KernelReply{0x40010001u, {}, std::nullopt} : it->second;
        });
    }

    void expect_calls(std::uint32_t command, std::uint16_t selector, std::initializer_list<std::uint16_t> nodes) {
        const auto calls = kernel.calls();
        ASSERT_EQ(calls.size(), nodes.size());
        std::size_t i = 0;
        for (const std::uint16_t node : nodes) {
            SCOPED_TRACE(i);
            EXPECT_EQ(calls[i].node, node);
            EXPECT_EQ(calls[i].command, command);
            EXPECT_EQ(calls[i].request, selector_request(selector));
            EXPECT_EQ(calls[i].reply_cap, 8u);
            EXPECT_FALSE(calls[i].reply_null);
            EXPECT_FALSE(calls[i].async);
            ++i;
        }
    }

    std::map<std::uint32_t, KernelReply> replies;
    FakeKernel kernel;
};

TEST_F(CountersTest, ConCheckAsksEveryNodeUpOrNotAndAddsToTheTotal) {
    replies[0x0101] = {0, be64(0x0000000100000002ull), std::nullopt};
    replies[0x0202] = {0, be64(0x30), std::nullopt};
    replies[0x0303] = {0, be64(0x0400), std::nullopt};
    replies[0x0404] = {0, be64(0x5000000), std::nullopt};
    std::uint64_t total = 1000;
    FIB_GetConCheckStat(0x1234, &total);
    expect_calls(kConCheck, 0x1234, {0x0101, 0x0202, 0x0303, 0x0404});
    EXPECT_EQ(total, 1000u + 0x0000000100000002ull + 0x30 + 0x0400 + 0x5000000);
}

TEST_F(CountersTest, ConCheckTakesAnyReplyLength) {
    replies[0x0101] = {0, be64(0x0102030405060708ull), 3u};
    replies[0x0202] = {0, be64(0x10), 0u};
    replies[0x0303] = {0, be64(0x200), 8u};
    replies[0x0404] = {0, be64(0x3000), 12u};
    std::uint64_t total = 0;
    FIB_GetConCheckStat(7, &total);
    expect_calls(kConCheck, 7, {0x0101, 0x0202, 0x0303, 0x0404});
    EXPECT_EQ(total, 0x0102030405060708ull + 0x10 + 0x200 + 0x3000);
}

TEST_F(CountersTest, ConCheckSkipsAFailingNodeAndReadsTheNodesAfterIt) {
    replies[0x0101] = {0, be64(5), std::nullopt};
    replies[0x0202] = {0x40010001u, be64(0x7777), std::nullopt};  // failed: its bytes do not count
    replies[0x0303] = {0x2A, be64(0x8888), std::nullopt};
    replies[0x0404] = {0, be64(11), std::nullopt};
    std::uint64_t total = 100;
    FIB_GetConCheckStat(0xFFFF, &total);
    expect_calls(kConCheck, 0xFFFF, {0x0101, 0x0202, 0x0303, 0x0404});
    EXPECT_EQ(total, 116u);
}

TEST_F(CountersTest, ConCheckWithoutANodeListLeavesTheTotalUnchanged) {
    ipp_dir_clear_nodes();
    replies[0x0101] = {0, be64(5), std::nullopt};
    std::uint64_t total = 77;
    FIB_GetConCheckStat(1, &total);
    EXPECT_EQ(total, 77u);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(CountersTest, ConCheckWithAnEmptyNodeListLeavesTheTotalUnchanged) {
    ipp_dir_set_nodes(nullptr, 0);
    std::uint64_t total = 78;
    FIB_GetConCheckStat(1, &total);
    EXPECT_EQ(total, 78u);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(CountersTest, AlarmThresholdAsksOnlyRunningNodes) {
    replies[0x0101] = {0, be64(0x0000000100000002ull), std::nullopt};
    replies[0x0202] = {0, be64(0x30), std::nullopt};
    replies[0x0303] = {0, be64(0x0400), std::nullopt};
    replies[0x0404] = {0, be64(0x5000000), std::nullopt};
    std::uint64_t total = 1000;
    FIB_GetAlarmThresholdStat(0x0A0B, &total);
    expect_calls(kAlarm, 0x0A0B, {0x0101, 0x0404});
    EXPECT_EQ(total, 1000u + 0x0000000100000002ull + 0x5000000);
}

TEST_F(CountersTest, AlarmThresholdCountsOnlyEightByteReplies) {
    const std::uint16_t nodes[] = {0x0101, 0x0202, 0x0303, 0x0404, 0x0505};
    ipp_dir_set_nodes(nodes, 5);
    for (const std::uint16_t n : nodes) ipp_dir_set_node_up(n, 1);
    replies[0x0101] = {0, be64(1), 7u};
    replies[0x0202] = {0, be64(0x20), 8u};
    replies[0x0303] = {0, be64(0x300), 9u};
    replies[0x0404] = {0, be64(0x4000), 0u};
    replies[0x0505] = {0, be64(0x50000), std::nullopt};  // 8 bytes written and returned
    std::uint64_t total = 3;
    FIB_GetAlarmThresholdStat(2, &total);
    expect_calls(kAlarm, 2, {0x0101, 0x0202, 0x0303, 0x0404, 0x0505});
    EXPECT_EQ(total, 3u + 0x20 + 0x50000);
}

TEST_F(CountersTest, AlarmThresholdSkipsAFailingNodeAndReadsTheNodesAfterIt) {
    replies[0x0101] = {0x40010001u, be64(0x999), std::nullopt};
    replies[0x0404] = {0, be64(0x42), std::nullopt};
    std::uint64_t total = 0;
    FIB_GetAlarmThresholdStat(3, &total);
    expect_calls(kAlarm, 3, {0x0101, 0x0404});
    EXPECT_EQ(total, 0x42u);
}

TEST_F(CountersTest, AlarmThresholdWithoutANodeListLeavesTheTotalUnchanged) {
    ipp_dir_clear_nodes();
    replies[0x0101] = {0, be64(5), std::nullopt};
    std::uint64_t total = 0xFFFFFFFFFFull;
    FIB_GetAlarmThresholdStat(1, &total);
    EXPECT_EQ(total, 0xFFFFFFFFFFull);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(CountersTest, NeitherCounterResetsTheTotal) {
    replies[0x0101] = {0, be64(10), std::nullopt};
    replies[0x0404] = {0, be64(20), std::nullopt};
    std::uint64_t total = 5;
    FIB_GetAlarmThresholdStat(1, &total);
    EXPECT_EQ(total, 35u);
    FIB_GetConCheckStat(1, &total);  // nodes 0x0202 and 0x0303 fail here
    EXPECT_EQ(total, 65u);
    FIB_GetAlarmThresholdStat(1, &total);
    EXPECT_EQ(total, 95u);
}

}  // namespace
}  // namespace ipt
