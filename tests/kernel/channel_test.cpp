// The kernel control channel as the library uses it: node words, fixed-size reads and the
// per-node summing of counters.
#include <gtest/gtest.h>

#include <array>

#include "ipclient/kernel.h"
#include "ipplat/testctl.h"
#include "ipproto/kmod_arp.hpp"
#include "ipproto/kmod_fib.hpp"
#include "ipproto/kmod_ipstat.hpp"
#include "kernel/channel.hpp"
#include "support/addr_samples.hpp"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"

namespace ipt {
namespace {

using ipc::kernel::NodeWalk;

class ChannelTest : public PlatformTest {
protected:
    FakeKernel kernel;
};

Bytes counter(std::uint64_t v) {
    Bytes b;
    put64(b, v);
    return b;
}

const std::array<std::uint8_t, 4> kSelector = {0, 0, 0, 7};

TEST_F(ChannelTest, NodeWordSignExtendsTheOwnNodeAlias) {
    EXPECT_EQ(ipc::kernel::node_word(0x8000), 0xFFFF8000u);
    EXPECT_EQ(ipc::kernel::node_word(0x0005), 0x00000005u);
}

TEST_F(ChannelTest, PerNodeReaderWithoutNodeListYieldsZeroAndNoError) {
    ipp_dir_clear_nodes();
    kernel.reply(0, counter(99));
    EXPECT_EQ(ipc::kernel::sum_over_nodes(ipc::proto::fib::kCmdAlarmThresholdStat, kSelector,
                                          NodeWalk::kUpNodesExactReply),
              0u);
    EXPECT_EQ(ipc::kernel::sum_over_nodes(ipc::proto::fib::kCmdConCheckStat, kSelector, NodeWalk::kAllNodesAnyReply),
              0u);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(ChannelTest, PerNodeReaderAddsNothingForFailedNodeAndReadsTheNodesAfterIt) {
    const std::uint16_t nodes[] = {1, 2, 3};
    ipp_dir_set_nodes(nodes, 3);
    for (const std::uint16_t n : nodes) ipp_dir_set_node_up(n, 1);
    kernel.answer([](const KernelCall& c) {
        if (c.node == 2) return KernelReply{0x40010001u, counter(1000), std::nullopt};
        return KernelReply{0, counter(c.node == 1 ? 0x100000000ull : 5), std::nullopt};
    });
    EXPECT_EQ(ipc::kernel::sum_over_nodes(ipc::proto::fib::kCmdAlarmThresholdStat, kSelector,
                                          NodeWalk::kUpNodesExactReply),
              0x100000005ull);
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(calls[i].node, nodes[i]);
        EXPECT_EQ(calls[i].command, 0x38000Cu);
        EXPECT_EQ(calls[i].request, Bytes(kSelector.begin(), kSelector.end()));
        EXPECT_EQ(calls[i].reply_cap, 8u);
    }
}

TEST_F(ChannelTest, AlarmThresholdWalkSkipsNodesThatAreNotUp) {
    const std::uint16_t nodes[] = {1, 2, 3};
    ipp_dir_set_nodes(nodes, 3);
    ipp_dir_set_node_up(1, 1);
    ipp_dir_set_node_up(2, 0);
    ipp_dir_set_node_up(3, 0x00020001);  // 1 in the low 16 bits counts as up
    kernel.reply(0, counter(10));
    EXPECT_EQ(ipc::kernel::sum_over_nodes(ipc::proto::fib::kCmdAlarmThresholdStat, kSelector,
                                          NodeWalk::kUpNodesExactReply),
              20u);
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].node, 1u);
    EXPECT_EQ(calls[1].node, 3u);
}

TEST_F(ChannelTest, AlarmThresholdWalkCountsOnlyEightByteReplies) {
    const std::uint16_t nodes[] = {1, 2};
    ipp_dir_set_nodes(nodes, 2);
    ipp_dir_set_node_up(1, 1);
    ipp_dir_set_node_up(2, 1);
    kernel.answer([](const KernelCall& c) {
        return KernelReply{0, counter(7), c.node == 1 ? std::optional<std::uint32_t>(4) : std::nullopt};
    });
    EXPECT_EQ(ipc::kernel::sum_over_nodes(ipc::proto::fib::kCmdAlarmThresholdStat, kSelector,
                                          NodeWalk::kUpNodesExactReply),
              7u);
}

TEST_F(ChannelTest, ConnectionCheckWalkAsksEveryNodeAndIgnoresReplyLength) {
    const std::uint16_t nodes[] = {4, 5};
    ipp_dir_set_nodes(nodes, 2);  // neither node is up
    kernel.reply(KernelReply{0, counter(3), 2u});
    EXPECT_EQ(ipc::kernel::sum_over_nodes(ipc::proto::fib::kCmdConCheckStat, kSelector, NodeWalk::kAllNodesAnyReply),
              6u);
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(ChannelTest, ConnectionCheckWalkAddsNothingForFailedNode) {
    const std::uint16_t nodes[] = {4, 5, 6};
    ipp_dir_set_nodes(nodes, 3);
    kernel.answer([](const KernelCall& c) {
        return KernelReply{c.node == 5 ? 0x1234u : 0u, counter(c.node), std::nullopt};
    });
    EXPECT_EQ(ipc::kernel::sum_over_nodes(ipc::proto::fib::kCmdConCheckStat, kSelector, NodeWalk::kAllNodesAnyReply),
              10u);
    EXPECT_EQ(kernel.count(), 3u);
}

TEST_F(ChannelTest, FixedSizeReaderReportsTheReadersOwnWrongLengthCode) {
    std::array<std::uint8_t, 112> reply{};
    kernel.reply(KernelReply{0, {}, 100u});
    EXPECT_EQ(ipc::kernel::read_fixed(0xFFFF8000u, ipc::proto::arp::kCmdInfo, kSelector, reply, 0x40010005u),
              0x40010005u);
}

TEST_F(ChannelTest, EmptyNodeListYieldsZero) {
    ipp_dir_set_nodes(nullptr, 0);
    EXPECT_EQ(ipc::kernel::sum_over_nodes(ipc::proto::fib::kCmdConCheckStat, kSelector, NodeWalk::kAllNodesAnyReply),
              0u);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(ChannelTest, FixedSizeReaderReportsFailureForShortOrLongReply) {
    std::array<std::uint8_t, 112> reply{};
    for (const std::uint32_t len : {111u, 113u, 0u}) {
        kernel.reply(KernelReply{0, Bytes(112, 1), len});
        EXPECT_EQ(ipc::kernel::read_fixed(0xFFFF8000u, ipc::proto::arp::kCmdInfo, kSelector, reply), IPSTATUS_FAILED)
            << len;
    }
    kernel.reply(KernelReply{0, Bytes(112, 1), 112u});
    EXPECT_EQ(ipc::kernel::read_fixed(0xFFFF8000u, ipc::proto::arp::kCmdInfo, kSelector, reply), 0u);
    EXPECT_EQ(reply[0], 1);
    const KernelCall c = kernel.last();
    EXPECT_EQ(c.reply_cap, 112u);
    EXPECT_EQ(c.command, 0x140001u);
}

TEST_F(ChannelTest, FixedSizeReaderPassesModuleStatusThrough) {
    std::array<std::uint8_t, 8> reply{};
    kernel.reply(KernelReply{0x12345u, {}, 8u});
    EXPECT_EQ(ipc::kernel::read_fixed(1, ipc::proto::ipstat::kCmd, kSelector, reply), 0x12345u);
}

TEST_F(ChannelTest, AddressModuleOperationTargetsOwnNodeUnlessGivenOne) {
    kernel.reply(0, Bytes(128, 0));
    const IPAddrKey key = sample_key();
    const IPAddrEntry entry = sample_entry();
    const IPAddrInfo info = sample_info();
    IPAddrEntry e{};
    IPAddrInfo i{};
    std::uint32_t w = 0, count = 1;
    std::uint16_t h = 0;
    std::uint8_t mac[6], epoch = 0, buf[52];

    IPAddr_Drvk_AddIP(&info);
    IPAddr_Drvk_DelIP(&key);
    IPAddr_Drvk_GetConflictAddr(&entry, &e, nullptr);
    IPAddr_Drvk_GetMatchAddrNum(&entry, &w);
    IPAddr_Drvk_GetMatchBestNet(&entry, &e);
    IPAddr_Drvk_GetNextAddrOnIf(1, 1, 1, &key, &i);
    IPAddr_Drvk_GetPriorAddrOnIf(1, 1, &e);
    IPAddr_Drvk_GetFwdAddrInVrf(1, &e);
    IPAddr_Drvk_GetNextAddrInVrf(1, 1, &e);
    IPAddr_Drvk_SetCfgMethod(1, 1);
    IPAddr_Drvk_ClearCfgMethod(1, 1);
    IPAddr_Drvk_GetBatchAddrOnIF(1, 1, &key, sizeof buf, buf, &w);
    IPAddr_Drvk_GetNextIf(1, &w);
    IPAddr_Drvk_GetBatchEvNotify(1, 1, &key, sizeof buf, buf, &w);
    IPAddr_Drvk_GetRTEvNotifyInfo(sizeof buf, buf, &w);
    IPAddr_Drvk_IncAddrGlobalEpoch(1, 1);
    IPAddr_Drvk_GetAddrGlobalEpoch(1, 1, &epoch);
    IPAddr_Drvk_SelectSrcAddr(1, 1, 1, 1, &w);
    IPAddr_Drvk_SetDrvMethod(1, 1);  // interface unknown: stays on the own node
    IPAddr_Drvk_ModMainIP(&key, &info);
    IPAddr_Drvk_SearchGWAddr(1, 1, 1, &e);
    IPAddr_Drvk_SetNetProtocol(1, 1, 1);
    IPAddr_Drvk_GetNetProtoBit(1, &w);
    IPAddr_Drvk_GetMaxAddrInVrf(1, 1, 1, &e);
    IPAddr_Drvk_AddVFWIP(1, 1, 1);
    IPAddr_Drvk_DelVFWIP(1);
    IPAddr_Drvk_GetMac(1, 1, 1, nullptr, mac, &w);
    IPAddr_Drvk_SetMacType(1, 1);
    IPAddr_Drvk_GetMatchAddrByIP(1, 1, &e);
    IPAddr_Drvk_GetNextMatchAddrByIP(1, &e);
    IPAddr_Drvk_GetConflictAddr2CfgRecover(&entry, &e, nullptr);
    const std::size_t own_node_calls = kernel.count();
    EXPECT_EQ(own_node_calls, 31u);

    IPAddr_Drvk_LookupAddr(11, &entry, &i);
    IPAddr_Drvk_GetMatchAddr(12, &entry, &count, &e);
    IPAddr_Drvk_GetIFMethod(13, 1, &w);
    IPAddr_Drvk_GetAddrCountOnIF(14, 1, 1, 1, &w);
    IPAddr_Drvk_SetDbgInfo(15, 1, 1, 1);
    IPAddr_Drvk_GetDbgInfo(16, 1, &w);
    const ipp_interface itf{0x99, 17, {}, 0, 0, 0, 1, 0, 0, 1, 1};
    ipp_dir_add_interface(&itf);
    IPAddr_Drvk_GetLoopBackInfo(0x99, &h);

    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), own_node_calls + 7);
    for (std::size_t n = 0; n < calls.size(); ++n) {
        EXPECT_EQ(calls[n].command, 0x260001u) << n;
        if (n < own_node_calls) {
            EXPECT_EQ(calls[n].node, 0xFFFF8000u) << n;
        } else {
            EXPECT_EQ(calls[n].node, 11u + (n - own_node_calls)) << n;
        }
        // The header's length word always matches what follows it.
        ASSERT_GE(calls[n].request.size(), 8u);
        const std::uint32_t payload = (std::uint32_t{calls[n].request[4]} << 24) |
                                      (std::uint32_t{calls[n].request[5]} << 16) |
                                      (std::uint32_t{calls[n].request[6]} << 8) | calls[n].request[7];
        EXPECT_EQ(payload + 8u, calls[n].request.size()) << n;
    }
}

}  // namespace
}  // namespace ipt
