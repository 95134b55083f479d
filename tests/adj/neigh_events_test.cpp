// Neighbour event subscriptions, once per family (ARP and ND share one event core): the
// list of subscriptions, defaults of short records, the drain's allocations, malformed
// datagrams and registration failures.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <bit>
#include <cstdint>

#include "ipplat/testctl.h"
#include "support/alloc_counter.hpp"
#include "support/neigh_bytes.hpp"
#include "support/neigh_family_name.hpp"
#include "support/neigh_events_fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

static_assert(std::endian::native == std::endian::little,
              "the conversion tests rely on a host whose order differs from the wire's");

using namespace neigh;

using EventFamilies = ::testing::Types<ArpEvents, NdEvents>;
TYPED_TEST_SUITE(NeighEventsTest, EventFamilies, FamilyName);
TYPED_TEST_SUITE(NeighEventsMalformedTest, EventFamilies, FamilyName);
TYPED_TEST_SUITE(NeighEventsRegFailureTest, EventFamilies, FamilyName);

// ---- Short records and the drain ---------------------------------------------------------

TYPED_TEST(NeighEventsTest, ShortRecordAfterAnotherShortRecordStartsFromTheDefaults) {
    // Two runs of other lengths and bytes; a skipped whole record before the last.
    struct Run {
        std::uint32_t lens[4];
        std::uint8_t base;
    };
    using F = TypeParam;
    for (const Run& run : {Run{{58, 12, 40, 8}, 0xC0}, Run{{70, 12, 40, 9}, 0x80}}) {
        SCOPED_TRACE(run.lens[0]);
        neigh::forget_delivered();
        const Bytes other = neigh::body_pattern(F::kBody, run.base, 1);
        const auto got = this->deliver({concat({this->rec(run.lens[0], 1, other), this->rec(run.lens[1], 2, 0x01020304),
                                                this->rec(run.lens[2], 3, other), this->full(30, 0x5EEDu),
                                                this->rec(run.lens[3], 4, other)})});
        ASSERT_EQ(got.size(), 4u);
        EXPECT_EQ(got[0].body, this->expected(other, run.lens[0]));
        EXPECT_EQ(got[1].body, this->expected(this->wire(0x01020304), run.lens[1]));
        EXPECT_EQ(got[2].body, this->expected(other, run.lens[2]));
        EXPECT_EQ(got[3].body, this->expected(other, run.lens[3]));
        EXPECT_EQ(host32(got[1].body, F::kDefaultsAt), 0xFFFFFFFFu);
        EXPECT_EQ(host32(got[1].body, F::kDefaultsAt + 4), 0x0000FFFFu);
        if constexpr (F::kHasThird) {
            EXPECT_EQ(got[1].third, 0u);
        }
    }
}

TYPED_TEST(NeighEventsTest, ProcEventDrainsWithoutAnAllocation) {
    using F = TypeParam;
    typename TestFixture::Peer peer;
    const auto [fd, svc] = this->subscribe(peer, 0, &F::template on_event<neigh::kCountingHandler>);
    ASSERT_GE(fd, 0);
    // Whole (aligned and not), short, longer and skipped records over several datagrams.
    const auto whole = static_cast<std::uint32_t>(F::kFull);
    const Bytes datagram = concat({this->full(1, 1), this->rec(24, 2, 2), this->rec(40, 2, 3), this->full(F::kTypes, 4),
                                   this->full(30, 5), this->rec(whole + 28, 4, 6), this->full(5, 7)});
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(NeighPeer::send(svc, datagram));
    neigh::seen().counted = 0;
    std::uint64_t allocations = 0;
    {
        const AllocationScope scope;
        EXPECT_EQ(F::proc(fd), 0u);
        allocations = scope.count();
    }
    EXPECT_EQ(neigh::seen().counted, 8u * 5u);
    if (allocations_observable()) {
        EXPECT_EQ(allocations, 0u);
    }
    F::dereg(fd);
}

TYPED_TEST(NeighEventsTest, ProcEventWithNothingQueuedReadsOnceAndReturnsZero) {
    const typename TestFixture::Subscribed s;
    ASSERT_GE(s.fd, 0);
    EXPECT_EQ(this->proc(s.fd), 0u);
    EXPECT_TRUE(delivered().empty());
    const auto recvs = calls_of(IPP_CALL_RECV, s.fd);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].result, -1);
    EXPECT_EQ(recvs[0].err, EAGAIN);
    TypeParam::dereg(s.fd);
}

// ---- Subscriptions and the list ------------------------------------------------------------

TYPED_TEST(NeighEventsTest, RegEventFollowsTheMasterNode) {
    using F = TypeParam;
    ipp_dir_set_master(0x0777);
    NeighPeer peer(0x0777, F::kPort);
    const int fd = F::reg(5, 6, this->recorder());
    ASSERT_GE(fd, 0);
    expect_adj_message(peer.first_message(0), adj_message(F::kSubscribeType, {0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 6}));
    F::dereg(fd);
}

TYPED_TEST(NeighEventsTest, SeveralSubscriptionsAreListedNewestFirstAndEachGetsItsOwnEvents) {
    using F = TypeParam;
    typename TestFixture::Peer peer(3);
    const int a = F::reg(0xA, 0, &F::template on_event<1>);
    const int b = F::reg(0xB, 0, &F::template on_event<2>);
    const int c = F::reg(0xC, 0, &F::template on_event<3>);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ASSERT_GE(c, 0);
    const int sa = peer.conn_for(0xA, 3), sb = peer.conn_for(0xB, 3), sc = peer.conn_for(0xC, 3);
    ASSERT_GE(sa, 0);
    ASSERT_GE(sb, 0);
    ASSERT_GE(sc, 0);

    // Newest first, each linked back to the link that points at it.
    ASSERT_EQ(this->list_length(), 3u);
    auto* first = F::head();
    EXPECT_EQ(first->iSocket, c);
    EXPECT_EQ(F::handler_of(*first), &F::template on_event<3>);
    EXPECT_EQ(first->ppstPrev, &F::head());
    EXPECT_EQ(first->pstNext->iSocket, b);
    EXPECT_EQ(first->pstNext->ppstPrev, &first->pstNext);
    EXPECT_EQ(first->pstNext->pstNext->iSocket, a);
    EXPECT_EQ(first->pstNext->pstNext->ppstPrev, &first->pstNext->pstNext);

    ASSERT_TRUE(NeighPeer::send(sa, this->full(1, 0xA1)));
    ASSERT_TRUE(NeighPeer::send(sb, concat({this->full(2, 0xB1), this->full(2, 0xB2)})));
    ASSERT_TRUE(NeighPeer::send(sc, this->full(3, 0xC1)));
    EXPECT_EQ(this->proc(b), 0u);
    EXPECT_EQ(this->proc(c), 0u);
    EXPECT_EQ(this->proc(a), 0u);
    auto got = delivered();
    ASSERT_EQ(got.size(), 4u);
    const std::pair<int, std::uint32_t> handed[] = {{2, 0xB1}, {2, 0xB2}, {3, 0xC1}, {1, 0xA1}};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(got[i].handler, handed[i].first) << i;
        EXPECT_EQ(host32(got[i].body, 0), handed[i].second) << i;
    }

    // The middle one leaves; the others are relinked and keep working.
    F::dereg(b);
    EXPECT_TRUE(NeighPeer::peer_closed(sb));
    ASSERT_EQ(this->list_length(), 2u);
    first = F::head();
    EXPECT_EQ(first->iSocket, c);
    EXPECT_EQ(first->pstNext->iSocket, a);
    EXPECT_EQ(first->pstNext->ppstPrev, &first->pstNext);
    EXPECT_EQ(F::proc(b), kFailed);

    // Then the head, then the last.
    F::dereg(c);
    ASSERT_EQ(this->list_length(), 1u);
    EXPECT_EQ(F::head()->iSocket, a);
    EXPECT_EQ(F::head()->ppstPrev, &F::head());
    ASSERT_TRUE(NeighPeer::send(sa, this->full(1, 0xA2)));
    EXPECT_EQ(this->proc(a), 0u);
    got = delivered();
    ASSERT_EQ(got.size(), 5u);
    EXPECT_EQ(got[4].handler, 1);
    EXPECT_EQ(host32(got[4].body, 0), 0xA2u);
    F::dereg(a);
    EXPECT_EQ(F::head(), nullptr);
}

TYPED_TEST(NeighEventsTest, DeregEventOfTheTailKeepsTheOthers) {
    using F = TypeParam;
    typename TestFixture::Peer peer(2);
    const int a = F::reg(0xA, 0, &F::template on_event<1>);
    const int b = F::reg(0xB, 0, &F::template on_event<2>);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    F::dereg(a);
    ASSERT_EQ(this->list_length(), 1u);
    EXPECT_EQ(F::head()->iSocket, b);
    EXPECT_EQ(F::head()->pstNext, nullptr);
    EXPECT_EQ(F::proc(a), kFailed);
    EXPECT_EQ(this->proc(b), 0u);
    F::dereg(b);
}

TYPED_TEST(NeighEventsTest, DeregEventForgetsTheSubscriptionAndClosesTheDescriptor) {
    using F = TypeParam;
    typename TestFixture::Peer peer;
    const auto [fd, svc] = this->subscribe(peer);
    ASSERT_GE(fd, 0);
    F::dereg(fd);
    EXPECT_EQ(F::head(), nullptr);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(NeighPeer::peer_closed(svc)) << "the service learns that the subscription ended";
    EXPECT_EQ(F::proc(fd), kFailed);
}

TYPED_TEST(NeighEventsTest, NegativeDescriptorsAreRefusedBeforeAnythingIsSent) {
    using F = TypeParam;
    EXPECT_EQ(F::proc(-1), kFailed);
    for (const std::int32_t fd : {-1, -3, -7}) {
        for (std::size_t i = 0; i < F::kRequests; ++i) EXPECT_EQ(F::request(fd, i), kFailed) << fd << ", request " << i;
    }
    F::replay(-1);
    F::dereg(-1);
    F::dereg(-100);
    for (int c = 0; c < IPP_CALL_COUNT; ++c) {
        EXPECT_EQ(ipp_call_count(static_cast<ipp_call>(c)), 0u) << "call kind " << c;
    }
}

// ---- Malformed datagrams -------------------------------------------------------------------

TYPED_TEST(NeighEventsMalformedTest, RecordLengthZeroEndsTheDatagram) {
    this->run(concat({this->full(1, 0xBB000001u), this->full(2, 0xBB000002u), this->rec(0, 3, 0)}), 2);
}

TYPED_TEST(NeighEventsMalformedTest, RecordLengthZeroWithAFullRecordBehindItEndsTheDatagram) {
    Bytes zero = this->full(3, 0xBB000003u);
    zero[3] = 0;  // length 0, a whole record's bytes behind the head
    this->run(concat({this->full(1, 0xBB000001u), zero, this->full(4, 0xBB000004u)}), 1);
}

TYPED_TEST(NeighEventsMalformedTest, RecordLengthUnderEightEndsTheDatagram) {
    this->run_with_length(3, {1, 2, 3, 4, 5, 6, 7});
}

TYPED_TEST(NeighEventsMalformedTest, RecordLongerThanWhatRemainsEndsTheDatagram) {
    Bytes longer = this->full(3, 0xBB000003u);
    longer[2] = 0x01;  // claims 256 bytes more than a whole record; one whole record remains
    this->run(concat({this->full(1, 0xBB000001u), longer}), 1);
}

TYPED_TEST(NeighEventsMalformedTest, RecordOneByteLongerThanWhatRemainsEndsTheDatagram) {
    for (const std::uint32_t len : {40u, static_cast<std::uint32_t>(TypeParam::kFull)}) {
        SCOPED_TRACE(len);
        Bytes longer = this->rec(len, 3, 0xBB000003u);
        longer[3] = static_cast<std::uint8_t>(len + 1);
        this->run(concat({this->full(1, 0xBB000001u), longer}), 1);
        neigh::forget_delivered();
    }
}

TYPED_TEST(NeighEventsMalformedTest, HugeRecordLengthEndsTheDatagram) {
    Bytes huge = this->full(3, 0xBB000003u);
    huge[0] = huge[1] = huge[2] = huge[3] = 0xFF;
    this->run(concat({huge, this->full(1, 0xBB000001u)}), 0);
}

TYPED_TEST(NeighEventsMalformedTest, SkippedTypeWithALengthBeyondTheDatagramEndsIt) {
    Bytes longer = this->full(30, 0xBB000003u);
    longer[3] = 200;
    this->run(concat({this->full(1, 0xBB000001u), longer}), 1);
}

TYPED_TEST(NeighEventsMalformedTest, TrailingBytesShorterThanAHeaderAreIgnored) {
    Bytes tail = this->full(1, 0xBB000001u);
    tail.insert(tail.end(), {0, 0, 0, static_cast<std::uint8_t>(TypeParam::kFull), 0, 0, 0});  // 7 bytes of a head
    this->run(tail, 1);
}

TYPED_TEST(NeighEventsMalformedTest, RecordEndingExactlyAtTheDatagramEndIsDelivered) {
    this->run(concat({this->full(1, 0xBB000001u), this->rec(33, 2, 0xBB000002u)}), 2);
}

// ---- Registration failures -----------------------------------------------------------------

TYPED_TEST(NeighEventsRegFailureTest, NoServiceListening) {
    const auto before = open_descriptors();
    this->expect_clean_failure(this->reg_one(), &before);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TYPED_TEST(NeighEventsRegFailureTest, SocketFails) {
    this->expect_fault_fails(IPP_CALL_SOCKET, EMFILE);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 0u);
}

TYPED_TEST(NeighEventsRegFailureTest, ConnectFails) { this->expect_fault_fails(IPP_CALL_CONNECT, ECONNREFUSED); }

TYPED_TEST(NeighEventsRegFailureTest, SendFails) {
    typename TestFixture::Peer peer;
    ipp_fault_inject(IPP_CALL_SEND, 1, EAGAIN);
    this->expect_clean_failure(this->reg_one(), nullptr);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    const int svc = peer.conn(0);
    ASSERT_GE(svc, 0);
    EXPECT_TRUE(peer.first_message(0).empty());
    EXPECT_TRUE(NeighPeer::peer_closed(svc)) << "the service sees the connection end";
}

TYPED_TEST(NeighEventsRegFailureTest, SendIsShort) {
    typename TestFixture::Peer peer;
    ipp_fault_short_send(1, 17);
    this->expect_clean_failure(this->reg_one(), nullptr);
    const int svc = peer.conn(0);
    ASSERT_GE(svc, 0);
    EXPECT_EQ(peer.first_message(0).size(), 17u);
    EXPECT_TRUE(NeighPeer::peer_closed(svc)) << "the service sees the connection end";
}

TYPED_TEST(NeighEventsRegFailureTest, AFailedRegistrationLeavesTheOthersInPlace) {
    using F = TypeParam;
    typename TestFixture::Peer peer(2);
    const auto [fd, svc] = this->subscribe(peer);
    ASSERT_GE(fd, 0);
    ipp_fault_inject(IPP_CALL_SEND, 1, EAGAIN);
    EXPECT_EQ(F::reg(3, 4, &F::template on_event<7>), -1);
    ASSERT_EQ(this->list_length(), 1u);
    EXPECT_EQ(F::head()->iSocket, fd);
    EXPECT_EQ(F::head()->ppstPrev, &F::head());
    F::dereg(fd);
}

}  // namespace
}  // namespace ipt
