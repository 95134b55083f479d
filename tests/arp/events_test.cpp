// ARP event subscriptions, what only ARP has: the callback's third argument, the 52-byte
// entry and its converted fields, the scope and address of a concerned address, the batch
// replays by AC, VSI and VLAN, and ARP's names for what both families do (see
// adj/neigh_events_test.cpp for the cases both families share under one name).
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

#include "ipclient/arp.h"
#include "ipplat/testctl.h"
#include "support/neigh_event_scenarios.hpp"

namespace ipt {
namespace {

using namespace neigh;
using ArpEventsTest = NeighEventsTest<ArpEvents>;
using ArpEventsRegFailureTest = NeighEventsRegFailureTest<ArpEvents>;


// ---- Short records and their defaults ----------------------------------------------------

TEST_F(ArpEventsTest, RecordsOfLengths60And24YieldTwoCallbacksAndTheShortOneReadsDefaultsBeyondItsBytes) {
    const auto got = deliver({concat({rec(60, 1, 0x0A0B0C0D), rec(24, 2, 0x01020304)})});
    expect_handed(got, {{1, 0x0A0B0C0Du}, {2, 0x01020304u}});
    ASSERT_EQ(got.size(), 2u);
    // The 24-byte record holds 16 entry bytes: offsets 0 to 15, so 8 and 12 are its own.
    expect_words(got[1].body, {{8, 0x090A0B0Cu}, {12, 0x0D0E0F10u}});
    for (std::size_t k = 16; k < ArpEvents::kBody; ++k) EXPECT_EQ(got[1].body[k], 0) << "entry byte " << k;
    EXPECT_EQ(got[1].third, 0);
}

TEST_F(ArpEventsTest, ShortRecordWithoutOffsets8And12ReadsTheirDefaults) {
    const auto got = deliver({concat({rec(60, 1, 7), rec(16, 2, 0x01020304)})});
    ASSERT_EQ(got.size(), 2u);
    expect_words(got[1].body, {{0, 0x01020304u}, {8, 0xFFFFFFFFu}, {12, 0x0000FFFFu}});
    for (std::size_t k = 16; k < ArpEvents::kBody; ++k) EXPECT_EQ(got[1].body[k], 0) << "entry byte " << k;
    // The full record before it left nothing behind in the defaults.
    EXPECT_EQ(host32(got[0].body, 8), 0x090A0B0Cu);
}

TEST_F(ArpEventsTest, ShortRecordsOfEveryLengthFrom8To72ReadDefaultsBeyondTheirBytes) {
    short_records_of_every_length<ArpEvents>(72);
    if (HasFatalFailure()) return;
    // Spot checks of the model: a record that ends inside the word at offset 8 (10 entry
    // bytes: 8 and 9 are its own), and a head alone (every field a default).
    const auto got = delivered();
    expect_words(short_record(got, 18), {{8, 0x090AFFFFu}, {12, 0x0000FFFFu}});
    expect_words(short_record(got, 8), {{0, 0u}, {8, 0xFFFFFFFFu}, {12, 0x0000FFFFu}});
    EXPECT_EQ(got[1].third, 0u);
}

// ---- Types and datagrams -------------------------------------------------------------------

TEST_F(ArpEventsTest, RecordsOfType21OrAboveAreSkippedAndTheFollowingOnesDelivered) {
    const auto got = deliver({concat({rec(60, 0, 1), rec(60, 21, 2), rec(24, 22, 3), rec(60, 20, 4),
                                      rec(13, 0xFFFFFFFFu, 5), rec(60, 1000, 6), rec(20, 5, 7), rec(60, 0x100, 8)})});
    expect_handed(got, {{0, 1u}, {20, 4u}, {5, 7u}});
}

TEST_F(ArpEventsTest, EveryTypeFrom0To20IsDelivered) { every_type_delivered<ArpEvents>(); }

TEST_F(ArpEventsTest, FullDatagramOf68RecordsIsDeliveredInOrder) { full_datagram<ArpEvents>(false); }

TEST_F(ArpEventsTest, DatagramsOfOneToSevenBytesProduceNoCallbackAndStatusZero) {
    Peer peer;
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    const Bytes whole = full(1, 9);  // a head cut short, claiming a whole record of type 1
    for (std::size_t n = 1; n <= 7; ++n) {
        ASSERT_TRUE(NeighPeer::send(svc, Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n))));
        EXPECT_EQ(proc(fd), 0u) << n << " bytes";
    }
    EXPECT_TRUE(delivered().empty());
    // Each call read its datagram and then found the queue empty.
    const auto recvs = calls_of(IPP_CALL_RECV, fd);
    ASSERT_EQ(recvs.size(), 14u);
    for (std::size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(recvs[2 * i].result, static_cast<int>(i + 1));
        EXPECT_EQ(recvs[2 * i + 1].result, -1);
        EXPECT_EQ(recvs[2 * i + 1].err, EAGAIN);
    }
    ArpEvents::dereg(fd);
}

TEST_F(ArpEventsTest, ProcEventWith300QueuedDatagramsReads256AndReturnsZero) { bound_of_256<ArpEvents>(); }

TEST_F(ArpEventsTest, ProcEventAfterTheServiceClosedReadsAtMost256EmptyDatagrams) {
    int fd = -1;
    {
        Peer peer;
        fd = subscribe(peer).first;
        ASSERT_GE(fd, 0);
        ASSERT_GE(peer.conn(0), 0);
    }  // the service goes away
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_TRUE(delivered().empty());
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 256u);
    ArpEvents::dereg(fd);
}

// ---- Conversion of the entry -----------------------------------------------------------------

TEST_F(ArpEventsTest, EntryFieldsAreConvertedToHostOrderFieldByField) {
    const auto got = deliver({full(17, 0x01020304)});  // entry bytes 01 02 03 ... 34
    ASSERT_EQ(got.size(), 1u);
    const Bytes& e = got[0].body;
    EXPECT_EQ(got[0].type, 17u);
    expect_words(e, {{0, 0x01020304u}, {8, 0x090A0B0Cu}, {12, 0x0D0E0F10u}, {28, 0x1D1E1F20u},
                     {32, 0x21222324u}, {36, 0x25262728u}, {40, 0x292A2B2Cu}});
    // An IPv4 address at 4, the hardware address at 20 and the bytes at 44 and 50 are left
    // as they came.
    for (const std::size_t k : {4u, 5u, 6u, 7u, 20u, 21u, 22u, 23u, 24u, 25u, 26u, 27u, 44u, 45u, 50u, 51u}) {
        EXPECT_EQ(e[k], k + 1) << "untouched byte " << k;
    }
    EXPECT_EQ(host16(e, 16), 0x1112u);
    EXPECT_EQ(host16(e, 18), 0x1314u);
    EXPECT_EQ(host16(e, 46), 0x2F30u);
    EXPECT_EQ(host16(e, 48), 0x3132u);
    EXPECT_EQ(got[0].third, 0x3132u) << "the third argument is the field at offset 48 in host order";
}

TEST_F(ArpEventsTest, ThirdArgumentFollowsTheFieldAtOffset48OfEachRecord) {
    Bytes datagram;
    for (std::uint16_t v : {std::uint16_t{0x0001}, std::uint16_t{0xFF00}, std::uint16_t{0xABCD}}) {
        Bytes e = wire(v);
        e[48] = static_cast<std::uint8_t>(v >> 8);
        e[49] = static_cast<std::uint8_t>(v);
        const Bytes r = rec(60, 3, e);
        datagram.insert(datagram.end(), r.begin(), r.end());
    }
    const auto got = deliver({datagram});
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].third, 0x0001u);
    EXPECT_EQ(got[1].third, 0xFF00u);
    EXPECT_EQ(got[2].third, 0xABCDu);
    for (const auto& d : got) EXPECT_EQ(host16(d.body, 48), d.third);
}

TEST_F(ArpEventsTest, FullRecordsConvertEveryListedFieldAndLeaveTheOthers) {
    // Other byte values, so that a conversion that happens to fit one pattern is caught.
    full_records_match_model<ArpEvents>(5, {60, 60});
}

// ---- Requests on a subscription ------------------------------------------------------------

TEST_F(ArpEventsTest, RegEventConnectsToTheSystemMasterPort11537WithTimeoutsAndSendsType34) {
    connects_with_timeouts<ArpEvents>();
}

TEST_F(ArpEventsTest, ConcernedAddressMessagesCarryTheScopeAsGivenAndTheAddressBigEndian) {
    Peer peer;
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_GE(svc, 0);
    EXPECT_EQ(ARP_AddConcernedIP(fd, 0x0A000001u, 0x01020304u), 0u);
    // The scope travels in host order: 04 03 02 01 on this host.
    expect_adj_message(NeighPeer::recv(svc), adj_message(44, {0x04, 0x03, 0x02, 0x01, 0x0A, 0x00, 0x00, 0x01}));
    EXPECT_EQ(ARP_DelConcernedIP(fd, 0xC0A80102u, 0xF0000001u), 0u);
    expect_adj_message(NeighPeer::recv(svc), adj_message(45, {0x01, 0x00, 0x00, 0xF0, 0xC0, 0xA8, 0x01, 0x02}));
    const auto sends = calls_of(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 3u);
    for (const auto& s : sends) EXPECT_EQ(s.flags, MSG_DONTWAIT);
    EXPECT_EQ(sends[1].length, 14u);
    EXPECT_EQ(sends[2].length, 14u);
    ArpEvents::dereg(fd);
}

TEST_F(ArpEventsTest, BatchReplayIsABareHeaderWithCountZeroSentWithoutWaiting) {
    replay_is_bare_header<ArpEvents>();
}

// The batch replays by VSI, by AC and by VLAN: 16 bytes, sent blocking.
TEST_F(ArpEventsTest, BatchByVsiSendsWordsAAndBTheSelectorAndTheFixedLastWordBlocking) {
    Peer peer;
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    const ARP_BATCH_VSI_REQ_S req{0x01020304u, 0x05060708u, 0x9A};
    EXPECT_EQ(ARP_RequestBatchByVsi(fd, &req), 0u);
    expect_request(fd, svc, adj_message(56, {1, 2, 3, 4, 5, 6, 7, 8, 0x9A, 0, 0, 0, 0, 0, 0xFF, 0xFF}), 0, 22);
    ArpEvents::dereg(fd);
}

TEST_F(ArpEventsTest, BatchByAcSendsAllFourWordsBlocking) {
    Peer peer;
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    const ARP_BATCH_REQ_S req{0xA1A2A3A4u, 0xB1B2B3B4u, 0x5C, 0x0B0C0D0Eu};
    EXPECT_EQ(ARP_RequestBatchByAc(fd, &req), 0u);
    Bytes payload;
    put32(payload, 0xA1A2A3A4u);
    put32(payload, 0xB1B2B3B4u);
    payload.insert(payload.end(), {0x5C, 0, 0, 0});
    put32(payload, 0x0B0C0D0Eu);
    expect_request(fd, svc, adj_message(75, payload), 0, 22);
    ArpEvents::dereg(fd);
}

TEST_F(ArpEventsTest, BatchByVlanSendsTheSelectorAndTheVlanAsABigEndianWordBlocking) {
    Peer peer;
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ARP_RequestBatchByVlan(fd, 0x7E, 0x0FED), 0u);
    expect_request(fd, svc, adj_message(98, {0, 0, 0, 0, 0, 0, 0, 0, 0x7E, 0, 0, 0, 0x00, 0x00, 0x0F, 0xED}), 0, 22);
    ArpEvents::dereg(fd);
}

TEST_F(ArpEventsTest, SubscriptionRequestsReportAFailedSend) { requests_report_failed_send<ArpEvents>(0, 6); }

TEST_F(ArpEventsTest, NullBatchRequestsAreRefusedBeforeAnythingIsSent) { null_batches_refused<ArpEvents>(); }

// ---- Subscriptions and the list --------------------------------------------------------------

TEST_F(ArpEventsTest, DeregEventOnANeverRegisteredDescriptorClosesIt) { dereg_never_registered_closes<ArpEvents>(); }

TEST_F(ArpEventsTest, DeregEventOfAnUnknownDescriptorLeavesTheSubscriptionsAlone) {
    Peer peer;
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    ARP_DeregEvent(pair[0]);
    EXPECT_FALSE(is_open(pair[0]));
    ::close(pair[1]);
    ASSERT_EQ(list_length(), 1u);
    EXPECT_EQ(g_stARPEventProcList->iSocket, fd);
    ASSERT_TRUE(NeighPeer::send(svc, full(1, 1)));
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_EQ(delivered().size(), 1u);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, CallbackThatDeregistersItsOwnSubscriptionFinishesTheDatagramAndStops) {
    deregister_own_from_handler<ArpEvents>();
}

TEST_F(ArpEventsTest, CallbackCanRegisterAnotherSubscription) { register_from_handler<ArpEvents>(); }

TEST_F(ArpEventsTest, CallbackCanDeregisterAnotherSubscriptionAndProcessIt) {
    Peer peer(2);
    const int other = ARP_RegEvent(0x0B, 0, &ArpEvents::on_event<4>);
    ASSERT_GE(other, 0);
    const auto [fd, svc] = subscribe(peer, 0, hook_recorder(), 0x0A);
    ASSERT_GE(fd, 0);
    const int other_svc = peer.conn_for(0x0B, 2);
    ASSERT_GE(other_svc, 0);
    const int fd_svc = peer.conn_for(0x0A, 2);
    ASSERT_TRUE(NeighPeer::send(other_svc, full(4, 0x44)));
    bool done = false;
    seen().hook = [&done, other = other] {
        if (done) return;
        done = true;
        EXPECT_EQ(ARP_ProcEvent(other), 0u);  // nested processing of another subscription
        ARP_DeregEvent(other);
    };
    ASSERT_TRUE(NeighPeer::send(fd_svc, full(1, 0x11)));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].handler, kHookHandler);
    EXPECT_EQ(got[1].handler, 4);
    EXPECT_EQ(host32(got[1].body, 0), 0x44u);
    ASSERT_EQ(list_length(), 1u);
    EXPECT_EQ(g_stARPEventProcList->iSocket, fd);
    EXPECT_FALSE(is_open(other));
    ARP_DeregEvent(fd);
}

// ---- Registration failures -------------------------------------------------------------------

TEST_F(ArpEventsRegFailureTest, ServiceOnAnotherNodeThanTheMaster) {
    NeighPeer peer(0x8000, ArpEvents::kPort);
    const auto before = open_descriptors();
    expect_clean_failure(reg_one(), &before);
}

TEST_F(ArpEventsRegFailureTest, SendTimeoutOptionFails) {
    expect_fault_fails(IPP_CALL_SETSOCKOPT, ENOPROTOOPT);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 0u);
}

// ---- Arguments -------------------------------------------------------------------------------

TEST_F(ArpEventsTest, ProcEventOnUnregisteredDescriptorFailsWithoutReading) { proc_unregistered_fails<ArpEvents>(); }

TEST_F(ArpEventsTest, ReceiveStepWithoutACallbackFailsWithoutReading) { step_without_handler<ArpEvents>(); }

TEST_F(ArpEventsTest, ReceiveStepOnAClosedDescriptorFails) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    ::close(pair[0]);
    ::close(pair[1]);
    EXPECT_EQ(arp_EventProc(pair[0], recorder()), kFailed);
    EXPECT_TRUE(delivered().empty());
}

TEST_F(ArpEventsTest, SubscriptionWithoutACallbackIsKeptButReadsNothing) { kept_without_handler<ArpEvents>(); }

}  // namespace
}  // namespace ipt
