// IP, forwarding, ICMP and MIB counters: the requests sent to the IP module, the conversion
// of every reply, the sums over nodes and the choice of nodes per interface.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "ipstat/ipstat_support.hpp"
#include "support/kernel_call.hpp"

namespace ipt {
namespace {

using Counters26 = std::array<std::uint32_t, IP_STAT_COUNTERS>;
using Fw8 = std::array<std::uint64_t, IP_FWIF_COUNTERS>;
using Mib19 = std::array<std::uint64_t, IP_MIBIF_COUNTERS>;

// A 104-byte reply of 26 counters.
KernelReply ip_stat_reply(const std::vector<std::uint32_t>& v) { return KernelReply{0, be32s(v), std::nullopt}; }

// A 112-byte forwarding reply: eight counters, then 48 bytes the library does not read.
Bytes fw_reply(const std::vector<std::uint64_t>& v) {
    Bytes b = be64s(v);
    b.resize(112, 0xEE);
    return b;
}

// A MIB reply: 19 counters, then trailing bytes up to `total`.
Bytes mib_reply(const std::vector<std::uint64_t>& v, std::size_t total = 152) {
    Bytes b = be64s(v);
    b.resize(total, 0xDD);
    return b;
}

template <std::size_t N, class T>
std::array<T, N> filled(T value) {
    std::array<T, N> a{};
    a.fill(value);
    return a;
}

class IpStatCountersTest : public IpStatTest {};

// ---- One node's IP counters --------------------------------------------------------------

TEST_F(IpStatCountersTest, GetIPStatSendsTheCallersWordAsFourBytesAndConvertsTheCounters) {
    const auto want = counters32(26, 0x11223344u);
    kernel.reply(ip_stat_reply(want));
    Counters26 got{};
    EXPECT_EQ(IP_GetIPStat(0x0203, 0x12340056u, got.data()), 0u);
    // Low half the operation, high half the length.
    expect_only_call(kernel, {0x00000203u, kIpCommand, Bytes{0x00, 0x56, 0x12, 0x34}, 104u, false, {}, false});
    EXPECT_EQ(std::vector<std::uint32_t>(got.begin(), got.end()), want);
}

TEST_F(IpStatCountersTest, GetIPStatSignExtendsNodesWithTheTopBitSet) {
    kernel.reply(ip_stat_reply(counters32(26, 1)));
    Counters26 got{};
    EXPECT_EQ(IP_GetIPStat(0x8000, 1, got.data()), 0u);
    EXPECT_EQ(IP_GetIPStat(0x8123, 1, got.data()), 0u);
    EXPECT_EQ(IP_GetIPStat(0x7FFF, 1, got.data()), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{0xFFFF8000u, 0xFFFF8123u, 0x00007FFFu}));
}

TEST_F(IpStatCountersTest, GetIPStatPassesAFailingStatusThroughAndLeavesTheCountersAlone) {
    kernel.reply(KernelReply{0x12345678u, be32s(counters32(26, 5)), std::nullopt});
    auto got = filled<IP_STAT_COUNTERS>(0xA5A5A5A5u);
    EXPECT_EQ(IP_GetIPStat(1, 0, got.data()), 0x12345678u);
    EXPECT_EQ(got, filled<IP_STAT_COUNTERS>(0xA5A5A5A5u));
}

TEST_F(IpStatCountersTest, GetIPStatDoesNotLookAtTheReturnedLength) {
    const auto want = counters32(26, 0x0A0B0C0Du);
    kernel.reply(KernelReply{0, be32s(want), 4u});
    Counters26 got{};
    EXPECT_EQ(IP_GetIPStat(1, 0, got.data()), 0u);
    EXPECT_EQ(std::vector<std::uint32_t>(got.begin(), got.end()), want);
}

TEST_F(IpStatCountersTest, GetIPStatWithNullCountersFailsBeforeSending) {
    kernel.reply(ip_stat_reply(counters32(26, 1)));
    EXPECT_EQ(IP_GetIPStat(1, 0, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- IP counters summed over nodes -----------------------------------------------------------

TEST_F(IpStatCountersTest, ShowIpStatSumsOperationZeroOverTheLocalNodeAndTheNodesThatAreUp) {
    ipp_dir_set_local_node(1);  // not up, asked all the same
    set_nodes({1, 2, 3, 4, 6});
    set_up({2, 4});
    ipp_dir_set_node_up(6, 2);  // not 1: not up
    const auto a = counters32(26, 0x01000001u);
    const auto b = counters32(26, 0x00020002u);
    const auto c = counters32(26, 0x00000303u);
    answer_by_node({{1, ip_stat_reply(a)},
                    {2, ip_stat_reply(b)},
                    {3, ip_stat_reply(counters32(26, 0x70000000u))},
                    {4, ip_stat_reply(c)},
                    {6, ip_stat_reply(counters32(26, 0x60000000u))}});
    auto got = filled<IP_STAT_COUNTERS>(0xFFFFFFFFu);  // zeroed before summing
    IP_GetShowIpStat(got.data());
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{1, 2, 4}));
    expect_ip_module_calls();
    for (const KernelCall& k : kernel.calls()) {
        EXPECT_EQ(k.request, (Bytes{0, 0, 0, 0}));
        EXPECT_EQ(k.reply_cap, 104u);
    }
    for (std::size_t i = 0; i < 26; ++i) EXPECT_EQ(got[i], a[i] + b[i] + c[i]) << "counter " << i;
}

TEST_F(IpStatCountersTest, GetStatSumsOperationOne) {
    ipp_dir_set_local_node(2);
    set_nodes({1, 2});
    set_up({1});
    const auto a = counters32(26, 0x10203040u);
    const auto b = counters32(26, 0x01020304u);
    answer_by_node({{1, ip_stat_reply(a)}, {2, ip_stat_reply(b)}});
    Counters26 got{};
    IP_GetStat(got.data());
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{1, 2}));
    for (const KernelCall& k : kernel.calls()) EXPECT_EQ(k.request, (Bytes{0, 1, 0, 0}));
    for (std::size_t i = 0; i < 26; ++i) EXPECT_EQ(got[i], a[i] + b[i]) << "counter " << i;
}

TEST_F(IpStatCountersTest, TheLocalNodeIsAskedEvenWhenItIsNotUp) {
    ipp_dir_set_local_node(5);
    set_nodes({5, 6});
    const auto a = counters32(26, 0x0badf00du);
    answer_by_node({{5, ip_stat_reply(a)}, {6, ip_stat_reply(counters32(26, 9))}});
    Counters26 show{};
    IP_GetShowIpStat(show.data());
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{5}));
    EXPECT_EQ(std::vector<std::uint32_t>(show.begin(), show.end()), a);
    Counters26 stat{};
    IP_GetStat(stat.data());
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{5, 5}));
    EXPECT_EQ(std::vector<std::uint32_t>(stat.begin(), stat.end()), a);
}

TEST_F(IpStatCountersTest, AFailingNodeAddsNothingAndTheNodesAfterItAreStillRead) {
    ipp_dir_set_local_node(9);
    set_nodes({2, 3, 4});
    set_up({2, 3, 4});
    const auto a = counters32(26, 0x00112233u);
    const auto c = counters32(26, 0x44556677u);
    answer_by_node({{2, ip_stat_reply(a)},
                    {3, KernelReply{0x40010001u, be32s(counters32(26, 0x7F7F7F7Fu)), std::nullopt}},
                    {4, ip_stat_reply(c)}});
    Counters26 got{};
    IP_GetStat(got.data());
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{2, 3, 4}));
    for (std::size_t i = 0; i < 26; ++i) EXPECT_EQ(got[i], a[i] + c[i]) << "counter " << i;
}

TEST_F(IpStatCountersTest, WithoutANodeListTheSumsAreZeroAndNothingIsSent) {
    ipp_dir_clear_nodes();
    kernel.reply(ip_stat_reply(counters32(26, 1)));
    auto show = filled<IP_STAT_COUNTERS>(0x5A5A5A5Au);
    IP_GetShowIpStat(show.data());
    auto stat = filled<IP_STAT_COUNTERS>(0x5A5A5A5Au);
    IP_GetStat(stat.data());
    EXPECT_EQ(show, Counters26{});
    EXPECT_EQ(stat, Counters26{});
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(IpStatCountersTest, AnEmptyNodeListGivesZeroSums) {
    ipp_dir_set_nodes(nullptr, 0);
    kernel.reply(ip_stat_reply(counters32(26, 1)));
    auto got = filled<IP_STAT_COUNTERS>(7u);
    IP_GetStat(got.data());
    EXPECT_EQ(got, Counters26{});
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- Forwarding counters of an interface on one node --------------------------------------

TEST_F(IpStatCountersTest, FwByNodeSendsOperationTwoAndAddsTheEightCounters) {
    set_up({0x0304});
    const auto reply = counters64(8, 0x0011223344556677ull);
    kernel.reply(0, fw_reply(reply));
    Fw8 got{};
    for (std::size_t i = 0; i < 8; ++i) got[i] = 1000 + i;
    std::uint16_t done = 0;
    IP_GetIPFWIfStat_ByNode(0x0304, 0x0A0B0C0Du, got.data(), &done);
    expect_only_call(kernel, {0x304u, kIpCommand, req_with(2, 0x0A0B0C0Du), 256u, {}, {}, {}});
    EXPECT_EQ(done, 1u);
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(got[i], 1000 + i + reply[i]) << "counter " << i;
}

TEST_F(IpStatCountersTest, FwByNodeOnANodeNotUpReturnsTheLowHalfOfItsStateAndTouchesNothing) {
    kernel.reply(0, fw_reply(counters64(8, 1)));
    const std::pair<std::uint32_t, std::uint32_t> cases[] = {
        {0u, 0u}, {2u, 2u}, {0x00030000u, 0u}, {0x00050002u, 2u}};
    for (const auto& [state, expected] : cases) {
        ipp_dir_set_node_up(7, state);
        auto got = filled<IP_FWIF_COUNTERS>(std::uint64_t{42});
        std::uint16_t done = 0;
        EXPECT_EQ(IP_GetIPFWIfStat_ByNode(7, 1, got.data(), &done), expected) << "state " << state;
        EXPECT_EQ(done, 0u);
        EXPECT_EQ(got, filled<IP_FWIF_COUNTERS>(std::uint64_t{42}));
    }
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(IpStatCountersTest, FwByNodeTakesTheNodeAsUpWhenTheLowHalfOfItsStateIsOne) {
    ipp_dir_set_node_up(7, 0x00090001u);
    const auto reply = counters64(8, 0x0102030405060708ull);
    kernel.reply(0, fw_reply(reply));
    Fw8 got{};
    std::uint16_t done = 0;
    IP_GetIPFWIfStat_ByNode(7, 1, got.data(), &done);
    EXPECT_EQ(kernel.count(), 1u);
    EXPECT_EQ(done, 1u);
    EXPECT_EQ(std::vector<std::uint64_t>(got.begin(), got.end()), reply);
}

TEST_F(IpStatCountersTest, FwByNodeReturnsAFailingStatusAndAddsNothing) {
    set_up({7});
    kernel.reply(KernelReply{0x2222u, fw_reply(counters64(8, 1)), std::nullopt});
    auto got = filled<IP_FWIF_COUNTERS>(std::uint64_t{3});
    std::uint16_t done = 0;
    EXPECT_EQ(IP_GetIPFWIfStat_ByNode(7, 1, got.data(), &done), 0x2222u);
    EXPECT_EQ(done, 0u);
    EXPECT_EQ(got, filled<IP_FWIF_COUNTERS>(std::uint64_t{3}));
}

TEST_F(IpStatCountersTest, FwByNodeRequiresExactly112BytesAndOtherwiseReturnsTheLength) {
    set_up({7});
    for (const std::uint32_t len : {111u, 113u, 104u, 256u, 0u}) {
        Bytes b = be64s(counters64(8, 0x99));
        b.resize(256, 0x11);
        kernel.answer([&b, len](const KernelCall&) { return KernelReply{0, b, len}; });
        auto got = filled<IP_FWIF_COUNTERS>(std::uint64_t{3});
        std::uint16_t done = 0;
        EXPECT_EQ(IP_GetIPFWIfStat_ByNode(7, 1, got.data(), &done), len) << "length " << len;
        EXPECT_EQ(done, 0u) << "length " << len;
        EXPECT_EQ(got, filled<IP_FWIF_COUNTERS>(std::uint64_t{3})) << "length " << len;
    }
}

TEST_F(IpStatCountersTest, FwByNodeWithNullPointersFailsBeforeSending) {
    set_up({7});
    kernel.reply(0, fw_reply(counters64(8, 1)));
    Fw8 got{};
    std::uint16_t done = 0;
    EXPECT_EQ(IP_GetIPFWIfStat_ByNode(7, 1, nullptr, &done), kFailed);
    EXPECT_EQ(IP_GetIPFWIfStat_ByNode(7, 1, got.data(), nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- Forwarding counters of an interface over its nodes --------------------------------------

TEST_F(IpStatCountersTest, FwIfStatForIndexZeroFailsWithoutAnyCall) {
    set_nodes({1, 2});
    set_up({1, 2});
    kernel.reply(0, fw_reply(counters64(8, 1)));
    Fw8 got{};
    EXPECT_EQ(IP_GetIPFWIfStat(0, got.data()), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(got, Fw8{});
}

TEST_F(IpStatCountersTest, FwIfStatOnASpanningInterfaceReadsEveryNodeOfTheList) {
    ipp_dir_set_local_node(9);
    ipp_dir_set_self(9);
    add_interface(make_interface(0x500, 4, 0, 0x13));  // bit 0x10 among others
    set_nodes({1, 2, 3});
    set_up({1, 2, 3, 4, 9});
    const auto a = counters64(8, 0x0100000000000001ull);
    const auto b = counters64(8, 0x0002000000000020ull);
    const auto c = counters64(8, 0x0000030000000300ull);
    answer_by_node({{1, {0, fw_reply(a), std::nullopt}}, {2, {0, fw_reply(b), std::nullopt}},
                    {3, {0, fw_reply(c), std::nullopt}}});
    Fw8 got{};
    EXPECT_EQ(IP_GetIPFWIfStat(0x500, got.data()), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{1, 2, 3}));
    for (const KernelCall& k : kernel.calls()) EXPECT_EQ(k.request, req_with(2, 0x500));
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(got[i], a[i] + b[i] + c[i]) << "counter " << i;
}

TEST_F(IpStatCountersTest, FwIfStatOnASpanningInterfaceWithoutNodeListReturnsZeroAndSendsNothing) {
    add_interface(make_interface(0x500, 4, 0, 0x10));
    set_up({1, 4});
    kernel.reply(0, fw_reply(counters64(8, 1)));
    Fw8 got{};
    EXPECT_EQ(IP_GetIPFWIfStat(0x500, got.data()), 0u);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(IpStatCountersTest, FwIfStatOnASpanningInterfaceSkipsNodesThatAreNotUp) {
    add_interface(make_interface(0x500, 4, 0, 0x10));
    set_nodes({1, 2, 3});
    set_up({1, 3});
    const auto a = counters64(8, 0x10);
    const auto c = counters64(8, 0x3000);
    answer_by_node({{1, {0, fw_reply(a), std::nullopt}}, {2, {0, fw_reply(counters64(8, 0x777)), std::nullopt}},
                    {3, {0, fw_reply(c), std::nullopt}}});
    Fw8 got{};
    EXPECT_EQ(IP_GetIPFWIfStat(0x500, got.data()), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{1, 3}));
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(got[i], a[i] + c[i]) << "counter " << i;
}

TEST_F(IpStatCountersTest, FwIfStatOnAnInterfaceOwnedBySelfAsksOnlyTheOwner) {
    ipp_dir_set_self(3);
    ipp_dir_set_local_node(5);
    add_interface(make_interface(0x600, 3));
    set_nodes({3, 5});
    set_up({3, 5});
    const auto a = counters64(8, 0xABCDEF0123456789ull);
    answer_by_node({{3, {0, fw_reply(a), std::nullopt}}, {5, {0, fw_reply(counters64(8, 1)), std::nullopt}}});
    Fw8 got{};
    EXPECT_EQ(IP_GetIPFWIfStat(0x600, got.data()), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{3}));
    EXPECT_EQ(std::vector<std::uint64_t>(got.begin(), got.end()), a);
}

TEST_F(IpStatCountersTest, FwIfStatOnAnInterfaceOwnedElsewhereAddsTheLocalNodesCounters) {
    ipp_dir_set_self(7);
    ipp_dir_set_local_node(5);
    add_interface(make_interface(0x600, 3));
    set_nodes({3, 5, 7});
    set_up({3, 5, 7});
    const auto a = counters64(8, 0x0101010101010101ull);
    const auto b = counters64(8, 0x0000000100000002ull);
    answer_by_node({{3, {0, fw_reply(a), std::nullopt}},
                    {5, {0, fw_reply(b), std::nullopt}},
                    {7, {0, fw_reply(counters64(8, 0x7777)), std::nullopt}}});
    Fw8 got{};
    EXPECT_EQ(IP_GetIPFWIfStat(0x600, got.data()), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{3, 5}));  // owner, then LIP_GetLocalLip
    for (const KernelCall& k : kernel.calls()) EXPECT_EQ(k.request, req_with(2, 0x600));
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(got[i], a[i] + b[i]) << "counter " << i;
}

TEST_F(IpStatCountersTest, FwIfStatWithoutAnOwningNodeAsksNode8000) {
    ipp_interface itf = make_interface(0x700, 3);
    add_interface(itf);
    ipp_dir_fail_item(0x700, IF_DATA_NODE, 0x99);
    set_up({0x8000, 1});
    const auto a = counters64(8, 0x00000000DEADBEEFull);
    const auto b = counters64(8, 0x0000000000000101ull);
    answer_by_node({{kOwnNodeWord, {0, fw_reply(a), std::nullopt}}, {1, {0, fw_reply(b), std::nullopt}}});
    Fw8 got{};
    EXPECT_EQ(IP_GetIPFWIfStat(0x700, got.data()), 0u);
    // 0x8000 differs from DEV_GetSelf (1), so the local node follows.
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{kOwnNodeWord, 1}));
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(got[i], a[i] + b[i]) << "counter " << i;
}

TEST_F(IpStatCountersTest, FwIfStatTakesAnInterfaceWhoseFlagsCannotBeReadAsNotSpanning) {
    add_interface(make_interface(0x800, 2, 0, 0x10));
    ipp_dir_fail_item(0x800, IF_DATA_FLAGS, 0x55);
    set_nodes({1, 2, 3});
    set_up({1, 2, 3});
    answer_by_node({{1, {0, fw_reply(counters64(8, 1)), std::nullopt}},
                    {2, {0, fw_reply(counters64(8, 2)), std::nullopt}},
                    {3, {0, fw_reply(counters64(8, 3)), std::nullopt}}});
    Fw8 got{};
    EXPECT_EQ(IP_GetIPFWIfStat(0x800, got.data()), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{2, 1}));
}

TEST_F(IpStatCountersTest, FwIfStatSkipsAnOwnerThatIsDownAndStillAddsTheLocalNode) {
    add_interface(make_interface(0x900, 3));
    set_up({1});  // local and self are 1; the owner 3 is down
    const auto b = counters64(8, 0x0000FFFF0000FFFFull);
    answer_by_node({{3, {0, fw_reply(counters64(8, 0x123)), std::nullopt}}, {1, {0, fw_reply(b), std::nullopt}}});
    Fw8 got{};
    EXPECT_EQ(IP_GetIPFWIfStat(0x900, got.data()), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{1}));
    EXPECT_EQ(std::vector<std::uint64_t>(got.begin(), got.end()), b);
}

// ---- ICMP counters of an interface --------------------------------------------------------

TEST_F(IpStatCountersTest, IcmpIfStatSendsOperationNineToTheOwnNodeAndConvertsTheCounters) {
    const auto want = counters32(43, 0x01020304u);
    kernel.reply(0, be32s(want));
    std::array<std::uint32_t, 43> got{};
    EXPECT_EQ(IP_GetICMPIfStat(0x01020304u, got.data()), 0u);
    expect_only_call(kernel, {kOwnNodeWord, kIpCommand, req_with(9, 0x01020304u), 172u, {}, {}, {}});
    EXPECT_EQ(std::vector<std::uint32_t>(got.begin(), got.end()), want);
}

TEST_F(IpStatCountersTest, IcmpIfStatRejectsAReplyOtherThan172Bytes) {
    for (const std::uint32_t len : {171u, 173u, 0u, 4u}) {
        kernel.answer([len](const KernelCall&) { return KernelReply{0, be32s(counters32(43, 1)), len}; });
        std::array<std::uint32_t, 43> got{};
        EXPECT_EQ(IP_GetICMPIfStat(5, got.data()), kFailed) << "length " << len;
    }
}

TEST_F(IpStatCountersTest, IcmpIfStatFoldsAChannelFailureInto40010001) {
    kernel.reply(KernelReply{0x00012345u, be32s(counters32(43, 1)), std::nullopt});
    std::array<std::uint32_t, 43> got{};
    EXPECT_EQ(IP_GetICMPIfStat(5, got.data()), kFailed);
}

TEST_F(IpStatCountersTest, IcmpIfStatWithNullCountersFailsBeforeSending) {
    kernel.reply(0, be32s(counters32(43, 1)));
    EXPECT_EQ(IP_GetICMPIfStat(5, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- MIB counters of an interface on one node -------------------------------------------

TEST_F(IpStatCountersTest, MibByNodeSendsOperation37AndAddsTheNineteenCounters) {
    set_up({0x0405});
    const auto reply = counters64(19, 0x1122334455667788ull);
    kernel.reply(0, mib_reply(reply, 256));  // bytes behind the 152 are not counters
    Mib19 got{};
    for (std::size_t i = 0; i < 19; ++i) got[i] = 500 + i;
    EXPECT_EQ(IP_GetIPIfMIBStat(0x0405, 0x0A0B0C0Du, got.data()), 19u);
    expect_only_call(kernel, {0x405u, kIpCommand, req_with(37, 0x0A0B0C0Du), 256u, {}, {}, {}});
    for (std::size_t i = 0; i < 19; ++i) EXPECT_EQ(got[i], 500 + i + reply[i]) << "counter " << i;
}

TEST_F(IpStatCountersTest, MibByNodeEmptyReplyReturnsZeroAndAddsNothing) {
    set_up({4});
    kernel.reply(KernelReply{0, mib_reply(counters64(19, 1)), 0u});
    auto got = filled<IP_MIBIF_COUNTERS>(std::uint64_t{8});
    EXPECT_EQ(IP_GetIPIfMIBStat(4, 1, got.data()), 0u);
    EXPECT_EQ(got, filled<IP_MIBIF_COUNTERS>(std::uint64_t{8}));
}

TEST_F(IpStatCountersTest, MibByNodeShortReplyAddsTheCountersThatCameAndReturns19) {
    set_up({4});
    const auto reply = counters64(2, 0x0807060504030201ull);
    kernel.reply(0, be64s(reply));  // 16 bytes: two whole counters
    Mib19 got{};
    got[0] = 10;
    got[1] = 20;
    EXPECT_EQ(IP_GetIPIfMIBStat(4, 1, got.data()), 19u);
    EXPECT_EQ(got[0], 10 + reply[0]);
    EXPECT_EQ(got[1], 20 + reply[1]);
}

TEST_F(IpStatCountersTest, MibByNodeReturnsAFailingStatusAndAddsNothing) {
    set_up({4});
    kernel.reply(KernelReply{0x3333u, mib_reply(counters64(19, 1)), std::nullopt});
    auto got = filled<IP_MIBIF_COUNTERS>(std::uint64_t{8});
    EXPECT_EQ(IP_GetIPIfMIBStat(4, 1, got.data()), 0x3333u);
    EXPECT_EQ(got, filled<IP_MIBIF_COUNTERS>(std::uint64_t{8}));
}

TEST_F(IpStatCountersTest, MibByNodeOnANodeNotUpReturnsItsWholeStateAndTouchesNothing) {
    kernel.reply(0, mib_reply(counters64(19, 1)));
    for (const std::uint32_t state : {0u, 2u, 0x00030000u}) {
        ipp_dir_set_node_up(4, state);
        auto got = filled<IP_MIBIF_COUNTERS>(std::uint64_t{8});
        EXPECT_EQ(IP_GetIPIfMIBStat(4, 1, got.data()), state);  // unlike the forwarding reader, not cut to 16 bits
        EXPECT_EQ(got, filled<IP_MIBIF_COUNTERS>(std::uint64_t{8}));
    }
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- MIB counters of an interface over its nodes ---------------------------------------------

TEST_F(IpStatCountersTest, MibIfStatForIndexZeroFailsWithoutAnyCall) {
    set_nodes({1});
    set_up({1});
    kernel.reply(0, mib_reply(counters64(19, 1)));
    Mib19 got{};
    EXPECT_EQ(IP_GetMibIfStat(0, got.data()), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(IpStatCountersTest, MibIfStatForAnInterfaceOwnedByAnotherNodeAddsOnlyCounterFiveOfTheLocalReply) {
    add_interface(make_interface(0xA00, 4));
    set_up({1, 4});  // local and self are 1
    const auto owner = counters64(19, 0x0000000100000001ull);
    const auto local = counters64(19, 0x0020000000000300ull);
    answer_by_node({{4, {0, mib_reply(owner), std::nullopt}}, {1, {0, mib_reply(local), std::nullopt}}});
    Mib19 got{};
    for (std::size_t i = 0; i < 19; ++i) got[i] = 7 * i;
    EXPECT_EQ(IP_GetMibIfStat(0xA00, got.data()), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{4, 1}));
    for (const KernelCall& k : kernel.calls()) EXPECT_EQ(k.request, req_with(37, 0xA00));
    for (std::size_t i = 0; i < 19; ++i) {
        const std::uint64_t want = 7 * i + owner[i] + (i == 4 ? local[4] : 0);
        EXPECT_EQ(got[i], want) << "counter " << i;
    }
}

TEST_F(IpStatCountersTest, MibIfStatOnAnInterfaceOwnedBySelfAsksOnlyTheOwner) {
    ipp_dir_set_self(3);
    ipp_dir_set_local_node(5);
    add_interface(make_interface(0xA00, 3));
    set_up({3, 5});
    const auto owner = counters64(19, 0x0102030405060708ull);
    answer_by_node({{3, {0, mib_reply(owner), std::nullopt}}, {5, {0, mib_reply(counters64(19, 9)), std::nullopt}}});
    Mib19 got{};
    EXPECT_EQ(IP_GetMibIfStat(0xA00, got.data()), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{3}));
    EXPECT_EQ(std::vector<std::uint64_t>(got.begin(), got.end()), owner);
}

TEST_F(IpStatCountersTest, MibIfStatOnAnInterfaceOwnedElsewhereReadsTheLocalNodeNotSelf) {
    ipp_dir_set_self(7);
    ipp_dir_set_local_node(5);
    add_interface(make_interface(0xA00, 3));
    set_up({3, 5, 7});
    const auto owner = counters64(19, 0x10);
    const auto local = counters64(19, 0x0000050000000000ull);
    answer_by_node({{3, {0, mib_reply(owner), std::nullopt}},
                    {5, {0, mib_reply(local), std::nullopt}},
                    {7, {0, mib_reply(counters64(19, 0x7777)), std::nullopt}}});
    Mib19 got{};
    EXPECT_EQ(IP_GetMibIfStat(0xA00, got.data()), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{3, 5}));
    EXPECT_EQ(got[4], owner[4] + local[4]);
    EXPECT_EQ(got[3], owner[3]);
    EXPECT_EQ(got[5], owner[5]);
}

TEST_F(IpStatCountersTest, MibIfStatOnASpanningInterfaceAddsAllNineteenCountersOfEveryNode) {
    ipp_dir_set_local_node(9);
    ipp_dir_set_self(9);
    add_interface(make_interface(0xB00, 4, 0, 0x10));
    set_nodes({1, 2});
    set_up({1, 2, 4, 9});
    const auto a = counters64(19, 0x0000000000010001ull);
    const auto b = counters64(19, 0x0300000000000000ull);
    answer_by_node({{1, {0, mib_reply(a), std::nullopt}}, {2, {0, mib_reply(b), std::nullopt}}});
    Mib19 got{};
    EXPECT_EQ(IP_GetMibIfStat(0xB00, got.data()), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{1, 2}));
    for (std::size_t i = 0; i < 19; ++i) EXPECT_EQ(got[i], a[i] + b[i]) << "counter " << i;
}

// ---- Clearing the forwarding counters ---------------------------------------------------------

TEST_F(IpStatCountersTest, ClearByNodeSendsOperation62WithoutAReply) {
    set_up({0x0506});
    kernel.reply(0);
    IP_ClearIPFWIfStat_ByNode(0x0506, 0x11223344u);
    expect_only_call(kernel, {0x506u, kIpCommand, req_with(62, 0x11223344u), 0u, true, {}, false});
}

TEST_F(IpStatCountersTest, ClearByNodeOnANodeNotUpSendsNothing) {
    ipp_dir_set_node_up(6, 2);
    kernel.reply(0);
    IP_ClearIPFWIfStat_ByNode(6, 1);
    IP_ClearIPFWIfStat_ByNode(8, 1);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(IpStatCountersTest, ClearIfStatForIndexZeroFailsWithoutAnyCall) {
    set_nodes({1});
    set_standby({1});
    set_up({1});
    kernel.reply(0);
    EXPECT_EQ(IP_ClearIPFWIfStat(0), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(IpStatCountersTest, ClearIfStatOnAnOwnerThatIsAlsoAStandbyNodeClearsItOnlyOnce) {
    add_interface(make_interface(0xC00, 2));
    set_standby({3, 2, 4});
    set_up({1, 2, 3, 4});
    kernel.reply(0);
    EXPECT_EQ(IP_ClearIPFWIfStat(0xC00), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{2, 3, 4}));
    for (const KernelCall& k : kernel.calls()) EXPECT_EQ(k.request, req_with(62, 0xC00));
}

TEST_F(IpStatCountersTest, ClearIfStatOnAnInterfaceOwnedElsewhereDoesNotClearTheLocalNode) {
    add_interface(make_interface(0xC00, 2));  // self and local are 1
    ipp_dir_clear_standby_nodes();
    set_nodes({1, 2});
    set_up({1, 2});
    kernel.reply(0);
    EXPECT_EQ(IP_ClearIPFWIfStat(0xC00), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{2}));
}

TEST_F(IpStatCountersTest, ClearIfStatSkipsStandbyNodesThatAreNotUp) {
    add_interface(make_interface(0xC00, 2));
    set_standby({3, 4, 5});
    set_up({2, 3, 5});
    kernel.reply(0);
    EXPECT_EQ(IP_ClearIPFWIfStat(0xC00), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{2, 3, 5}));
}

TEST_F(IpStatCountersTest, ClearIfStatOnASpanningInterfaceClearsEveryNodeOfTheListAndNoStandbyNode) {
    add_interface(make_interface(0xD00, 2, 0, 0x10));
    set_nodes({1, 2, 3});
    set_standby({9});
    set_up({1, 2, 3, 9});
    kernel.reply(0);
    EXPECT_EQ(IP_ClearIPFWIfStat(0xD00), 0u);
    EXPECT_EQ(called_nodes(), (std::vector<std::uint32_t>{1, 2, 3}));
}

}  // namespace
}  // namespace ipt
