// Neighbour owner tables, once per family (ARP and ND send OpenFlow batches and roaming
// detection the same way): the batch on the wire and the caller's buffer converted in place,
// the service's status word, short sends and replies, bad arguments, and the largest
// roaming message.
#include <errno.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "ipplat/testctl.h"
#include "support/neigh_channel.hpp"
#include "support/neigh_family_name.hpp"
#include "support/neigh_tables_fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

using neigh::NeighTablesTest;

template <class F>
class NeighOpenFlowTest : public NeighTablesTest<F> {};
template <class F>
class NeighRuleTest : public NeighTablesTest<F> {};
template <class F>
class NeighRoamingTest : public NeighTablesTest<F> {};

// Both families, named after them.
using Families = ::testing::Types<neigh::ArpTables, neigh::NdTables>;
TYPED_TEST_SUITE(NeighOpenFlowTest, Families, FamilyName);
TYPED_TEST_SUITE(NeighRuleTest, Families, FamilyName);
TYPED_TEST_SUITE(NeighRoamingTest, Families, FamilyName);

// ---- OpenFlow batches ----------------------------------------------------------------------

TYPED_TEST(NeighOpenFlowTest, RefreshSendsConvertedEntriesAndReturnsServiceStatusInHostOrder) {
    using F = TypeParam;
    Bytes buf = this->openflow_buffer(2);
    const auto [status, got] = this->refresh_exchange(buf, 2, {0x12, 0x34, 0x56, 0x78});
    EXPECT_EQ(status, 0x12345678u);
    const Bytes want = this->openflow_wire(F::kRefreshType, 2);
    EXPECT_EQ(got, want);  // byte 1 is the caller's and travels untouched
    EXPECT_EQ(buf, want);  // converted in place
    const auto sends = calls_of(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(sends[0].length, 6u + 2u * F::kEntryLen);
    const auto recvs = calls_of(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].length, 4u);
    EXPECT_EQ(recvs[0].flags, F::kReplyFlags);
}

TYPED_TEST(NeighOpenFlowTest, RefreshWithNoEntriesSendsTheHeaderAlone) {
    Bytes buf = this->openflow_buffer(0);
    const auto exchanged = this->refresh_exchange(buf, 0, {0, 0, 0, 0});
    EXPECT_EQ(exchanged.first, 0u);
    EXPECT_EQ(exchanged.second, (Bytes{TypeParam::kRefreshType, 0xEE, 0, 0, 0, 0}));
}

TYPED_TEST(NeighOpenFlowTest, RefreshOfMostEntriesFillsTheSixteenBitLength) {
    using F = TypeParam;
    constexpr std::uint32_t n = F::kEntryMax;
    Bytes buf = this->openflow_buffer(n);
    const auto [status, got] = this->refresh_exchange(buf, n, {0x01, 0x02, 0x03, 0x04});
    EXPECT_EQ(status, 0x01020304u);
    ASSERT_EQ(got.size(), 6u + 65520u);
    EXPECT_EQ(got[2], 0xFF);
    EXPECT_EQ(got[3], 0xF0);
    EXPECT_EQ(got[4], n >> 8);
    EXPECT_EQ(got[5], n & 0xFF);
    EXPECT_EQ(got, this->openflow_wire(F::kRefreshType, n));
}

TYPED_TEST(NeighOpenFlowTest, RefreshRejectsBadArgumentsWithoutTouchingTheBuffer) {
    using F = TypeParam;
    Bytes buf = this->openflow_buffer(1);
    const Bytes before = buf;
    EXPECT_EQ(F::refresh(-1, buf.data(), 1), kFailed);
    EXPECT_EQ(F::remove(-1, buf.data(), 1), kFailed);
    EXPECT_EQ(F::refresh(3, nullptr, 1), kFailed);
    EXPECT_EQ(buf, before);
    // One entry more than the 16-bit length can carry, in a buffer large enough for it.
    Bytes big = this->openflow_buffer(F::kEntryMax + 1);
    const Bytes big_before = big;
    EXPECT_EQ(F::remove(3, big.data(), F::kEntryMax + 1), kFailed);
    EXPECT_EQ(big, big_before);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TYPED_TEST(NeighOpenFlowTest, RefreshWithShortSendReturnsZeroWithoutWaitingForReply) {
    using F = TypeParam;
    Bytes got;
    Bytes buf = this->openflow_buffer(2);
    std::uint32_t status = 1;
    this->on_openflow_connection([&got](Conn& c) { got = c.recv_message(1024, 2000); },
                                 [&](int fd) {
                                     ipp_fault_short_send(1, 20);
                                     status = F::refresh(fd, buf.data(), 2);
                                 });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(got.size(), 20u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TYPED_TEST(NeighOpenFlowTest, DeleteOnClosedDescriptorReturnsZero) {
    using F = TypeParam;
    int fd = -1;
    this->on_openflow_connection([](Conn& c) { (void)c.recv_message(1024, 200); }, [&fd](int open) { fd = open; });
    ASSERT_GE(fd, 0);
    ASSERT_FALSE(is_open(fd));
    Bytes buf = this->openflow_buffer(1);
    EXPECT_EQ(F::remove(fd, buf.data(), 1), 0u);
    // The header was written and the entry converted before the send failed.
    EXPECT_EQ(buf, this->openflow_wire(F::kDeleteType, 1));
    const auto sends = calls_of(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].result, -1);
    EXPECT_EQ(sends[0].err, EBADF);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TYPED_TEST(NeighOpenFlowTest, RefreshReturnsZeroWhenServiceClosesWithoutReply) {
    using F = TypeParam;
    Bytes buf = this->openflow_buffer(1);
    std::uint32_t status = 1;
    this->on_openflow_connection([](Conn& c) { (void)c.recv_message(); },
                                 [&](int fd) { status = F::refresh(fd, buf.data(), 1); });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);
}

TYPED_TEST(NeighOpenFlowTest, ShortReplyReadsMissingBytesAsZero) {
    Bytes buf = this->openflow_buffer(1);
    EXPECT_EQ(this->refresh_exchange(buf, 1, {0xAB, 0xCD}).first, 0xABCD0000u);
}

TYPED_TEST(NeighOpenFlowTest, DisconnectIgnoresNegativeDescriptor) {
    TypeParam::disconnect(-1);
    TypeParam::rule_disconnect(-1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
}

// ---- Rule connections ----------------------------------------------------------------------

TYPED_TEST(NeighRuleTest, ConnectWithoutServiceFailsWithoutLeak) {
    EXPECT_EQ(TypeParam::rule_connect(), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

// ---- Roaming detection ---------------------------------------------------------------------

TYPED_TEST(NeighRoamingTest, LargestMessageFitsAndOneRecordMoreIsRejected) {
    using F = TypeParam;
    constexpr auto kRecord = static_cast<std::uint16_t>(F::kRoamingRecord);
    constexpr auto kFits = static_cast<std::uint16_t>(4080 / F::kRoamingRecord);  // 4080 bytes of records
    const Bytes records = neigh::roaming_records(4080u + kRecord);
    std::uint32_t fits = 1, over = 0;
    const auto got = this->on_rule_connection([&](int fd) {
        fits = F::roaming(fd, records.data(), 4080, kFits);
        over = F::roaming(fd, records.data(), static_cast<std::uint16_t>(4080 + kRecord), kFits + 1);
    });
    EXPECT_EQ(fits, 0u);
    EXPECT_EQ(over, kFailed);
    ASSERT_EQ(got.size(), 1u);
    ASSERT_EQ(got[0].size(), 6u + 12u + 4080u);
    Bytes head;
    for (const std::uint16_t word : {std::uint16_t{12}, std::uint16_t{0}, std::uint16_t{4092}, kRecord, kFits,
                                     std::uint16_t{4080}}) {
        put16(head, word);
    }
    Bytes want = adj_message(F::kRoamingType, head);
    want[2] = 0x0F;  // the message's length: the 12 bytes of head and the 4080 of records
    want[3] = 0xFC;
    expect_adj_message(Bytes(got[0].begin(), got[0].begin() + 18), want);
    EXPECT_TRUE(std::equal(records.begin(), records.begin() + 4080, got[0].begin() + 18));
}

TYPED_TEST(NeighRoamingTest, RejectsBadArgumentsBeforeSending) {
    using F = TypeParam;
    constexpr auto kThree = static_cast<std::uint16_t>(3 * F::kRoamingRecord);
    // 3 records of the other family's length: 60 bytes in 8-byte records, 24 in 20-byte ones.
    constexpr std::uint16_t kOther = F::kRoamingRecord == 8 ? 60 : 24;
    const Bytes records = neigh::roaming_records(64);
    const auto got = this->on_rule_connection([&](int fd) {
        EXPECT_EQ(F::roaming(fd, records.data(), 0, 0), kFailed);
        EXPECT_EQ(F::roaming(fd, nullptr, kThree, 3), kFailed);
        EXPECT_EQ(F::roaming(fd, records.data(), kThree, 2), kFailed);
        EXPECT_EQ(F::roaming(fd, records.data(), static_cast<std::uint16_t>(kThree - 1), 3), kFailed);
        EXPECT_EQ(F::roaming(fd, records.data(), static_cast<std::uint16_t>(F::kRoamingRecord), 0), kFailed);
        EXPECT_EQ(F::roaming(fd, records.data(), kOther, 3), kFailed);
        EXPECT_EQ(F::roaming(-1, records.data(), kThree, 3), kFailed);
    });
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

}  // namespace
}  // namespace ipt
