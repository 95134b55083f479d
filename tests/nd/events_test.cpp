// ND event subscriptions, what only ND has: the 64-byte record and its converted words, the
// bound on receive passes the application sets, longer records, concerned IPv6 addresses
// and keyed batch replays, and ND's names for what both families do (see
// adj/neigh_events_test.cpp for the cases both families share under one name).
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "ipclient/nd.h"
#include "ipplat/testctl.h"
#include "support/neigh_event_scenarios.hpp"

namespace ipt {
namespace {

using NdEventsTest = neigh::NeighEventsTest<neigh::NdEvents>;
using NdEventsMalformedTest = neigh::NeighEventsMalformedTest<neigh::NdEvents>;
using namespace neigh;

// ---- Short and longer records ----------------------------------------------------------------

TEST_F(NdEventsTest, RecordOf40BytesReadsZeroBeyondItsBodyAndTheTwoDefaults) {
    const auto got = deliver({rec(40, 3, 0x0A0B0C0D)});
    expect_handed(got, {{3, 0x0A0B0C0Du}});
    ASSERT_EQ(got.size(), 1u);
    const Bytes& b = got[0].body;
    for (std::size_t k = 4; k < 20; ++k) EXPECT_EQ(b[k], k + 1) << "address byte " << k;
    // Its own words: 32 body bytes reach offset 31.
    expect_words(b, {{20, 0x15161718u}, {24, 0x191A1B1Cu}});
    EXPECT_EQ(host16(b, 28), 0x1D1Eu);
    EXPECT_EQ(host16(b, 30), 0x1F20u);
    for (std::size_t k = 32; k < NdEvents::kBody; ++k) EXPECT_EQ(b[k], 0) << "byte " << k;
}

TEST_F(NdEventsTest, RecordOf40BytesWithoutOffsets20And24ReadsTheirDefaults) {
    // A record whose body reaches no further than offset 19 is a 28-byte one; the defaults
    // show at 20 and 24 and everything from 28 on is zero.
    const auto got = deliver({concat({rec(28, 1, 0x01020304), rec(40, 2, 0x05060708)})});
    ASSERT_EQ(got.size(), 2u);
    expect_words(got[0].body, {{20, 0xFFFFFFFFu}, {24, 0x0000FFFFu}});
    for (std::size_t k = 28; k < NdEvents::kBody; ++k) EXPECT_EQ(got[0].body[k], 0) << "byte " << k;
    for (std::size_t k = 32; k < NdEvents::kBody; ++k) EXPECT_EQ(got[1].body[k], 0) << "byte " << k;
    EXPECT_EQ(got[1].body, expected(wire(0x05060708), 40));
}

TEST_F(NdEventsTest, RecordOfExactly72BytesIsConvertedWhole) {
    const auto got = deliver({concat({rec(72, 4, 0x11121314), rec(72, 5, 0x21222324)})});
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].body, expected(wire(0x11121314), 72));
    EXPECT_EQ(got[1].body, expected(wire(0x21222324), 72));
    EXPECT_EQ(host32(got[0].body, 52), 0x35363738u);
    EXPECT_EQ(host16(got[0].body, 60), 0x3D3Eu);
    EXPECT_EQ(got[0].body[62], 0x3F);
    EXPECT_EQ(got[0].body[63], 0x40);
}

TEST_F(NdEventsTest, RecordOf100BytesDeliversItsFirst64BodyBytesAndTheWalkMovesOnBy100) {
    Bytes big = rec(100, 6, 0x0C0C0C0C);
    // The 28 bytes past the first 64 of the body look like a record head: a walk that moved
    // on by 72 would find it.
    const Bytes decoy = rec(28, 1, 0xDEC0DEC0u);
    std::copy(decoy.begin(), decoy.end(), big.begin() + 72);
    const auto got = deliver({concat({big, rec(72, 7, 0x77777777)})});
    expect_handed(got, {{6, 0x0C0C0C0Cu}, {7, 0x77777777u}});
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].body, expected(wire(0x0C0C0C0C), 100));
}

TEST_F(NdEventsTest, ShortRecordsOfEveryLengthFrom8To80MatchTheModel) {
    short_records_of_every_length<NdEvents>(80);
    if (HasFatalFailure()) return;
    // Spot checks of the model: a head alone (every field a default), and a record that
    // ends inside the word at offset 20 (22 body bytes: 20 and 21 are its own).
    const auto got = delivered();
    expect_words(short_record(got, 8), {{0, 0u}, {20, 0xFFFFFFFFu}, {24, 0x0000FFFFu}});
    expect_words(short_record(got, 30), {{20, 0x1516FFFFu}, {24, 0x0000FFFFu}});
}

TEST_F(NdEventsTest, FullRecordsWithOtherBytesMatchTheModelAndAreConvertedOnce) {
    full_records_match_model<NdEvents>(7, {72, 72, 90});
}

TEST_F(NdEventsTest, RecordFieldsAreConvertedToHostOrderFieldByField) {
    const auto got = deliver({rec(72, 11, 0x01020304)});  // body bytes 01 02 ... 40
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].type, 11u);
    NdEventRecord r;
    std::memcpy(&r, got[0].body.data(), sizeof r);
    EXPECT_EQ(r.uiField0, 0x01020304u);
    for (std::size_t k = 0; k < 16; ++k) EXPECT_EQ(r.aucAddr[k], k + 5) << "address byte " << k;
    EXPECT_EQ(r.uiField20, 0x15161718u);
    EXPECT_EQ(r.uiField24, 0x191A1B1Cu);
    EXPECT_EQ(r.usField28, 0x1D1Eu);
    EXPECT_EQ(r.usField30, 0x1F20u);
    for (std::size_t k = 0; k < 8; ++k) EXPECT_EQ(r.aucField32[k], k + 33) << "byte " << 32 + k;
    EXPECT_EQ(r.uiField40, 0x292A2B2Cu);
    EXPECT_EQ(r.uiField44, 0x2D2E2F30u);
    EXPECT_EQ(r.uiField48, 0x31323334u);
    EXPECT_EQ(r.uiField52, 0x35363738u);
    EXPECT_EQ(r.aucField56[0], 0x39);
    EXPECT_EQ(r.aucField56[1], 0x3A);
    EXPECT_EQ(r.usField58, 0x3B3Cu);
    EXPECT_EQ(r.usField60, 0x3D3Eu);
    EXPECT_EQ(r.aucField62[0], 0x3F);
    EXPECT_EQ(r.aucField62[1], 0x40);
}

// ---- Types and datagrams -------------------------------------------------------------------

TEST_F(NdEventsTest, RecordOfType16IsSkippedWithoutTheHandlerAndTheWalkMovesOnByItsLength) {
    const auto got = deliver({concat({rec(8, 16, 0), rec(72, 16, 1), rec(13, 16, 2), rec(72, 15, 3),
                                      rec(100, 16, 4), rec(20, 0, 5)})});
    expect_handed(got, {{15, 3u}, {0, 5u}});
}

TEST_F(NdEventsTest, TypesOutOfRangeAreSkippedAndTheFollowingRecordsDelivered) {
    const auto got = deliver({concat({rec(72, 17, 1), rec(72, 0x100, 2), rec(72, 0x01000000u, 3),
                                      rec(72, 0xFFFFFFFFu, 4), rec(24, 9, 5), rec(72, 0x80000000u, 6)})});
    expect_handed(got, {{9, 5u}});
}

TEST_F(NdEventsTest, EveryTypeFrom0To15IsDelivered) { every_type_delivered<NdEvents>(); }

TEST_F(NdEventsTest, FullDatagramOf56RecordsIsDeliveredInOrderWithOneReceiveOf4096) {
    full_datagram<NdEvents>(true);
}

TEST_F(NdEventsTest, DatagramOf7BytesOrFewerDeliversNothingAndTheDrainContinues) {
    const Bytes whole = full(1, 9);
    std::vector<Bytes> cut;
    for (std::ptrdiff_t n = 1; n <= 7; ++n) cut.emplace_back(whole.begin(), whole.begin() + n);
    const auto got = deliver({cut[0], cut[1], cut[2], cut[3], cut[4], cut[5], cut[6], full(2, 0x0B0B0B0B)});
    expect_handed(got, {{2, 0x0B0B0B0Bu}});  // the drain went past the short datagrams
    const auto recvs = calls_of(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 9u);
    for (std::size_t i = 0; i < 7; ++i) EXPECT_EQ(recvs[i].result, static_cast<int>(i + 1));
    EXPECT_EQ(recvs[8].result, -1);
    EXPECT_EQ(recvs[8].err, EAGAIN);
}

// ---- The bound on receive passes -----------------------------------------------------------

TEST_F(NdEventsTest, ProcEventWith300QueuedDatagramsReads256AndLeavesTheRest) {
    EXPECT_EQ(g_uiNdEventEpollLoop, 256u) << "the default bound";
    bound_of_256<NdEvents>();
}

TEST_F(NdEventsTest, EpollLoopZeroMakesProcEventReadNothing) {
    Peer peer;
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(NeighPeer::send(svc, full(1, 1)));
    g_uiNdEventEpollLoop = 0;
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_TRUE(delivered().empty());
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    g_uiNdEventEpollLoop = 256;
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_EQ(delivered().size(), 1u) << "the datagram stayed queued";
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, EpollLoopOneMakesProcEventReadAtMostOneDatagram) {
    Peer peer;
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    for (std::uint32_t i = 0; i < 3; ++i) ASSERT_TRUE(NeighPeer::send(svc, full(1, i)));
    g_uiNdEventEpollLoop = 1;
    for (std::uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(proc(fd), 0u);
        const auto got = delivered();
        ASSERT_EQ(got.size(), i + 1);
        EXPECT_EQ(host32(got.back().body, 0), i);
        EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), i + 1);
    }
    EXPECT_EQ(proc(fd), 0u);  // nothing left: one failed receive
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 4u);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, EpollLoopIsReadAgainOnEveryPass) {
    Peer peer;
    const auto [fd, svc] = subscribe(peer, 0, hook_recorder());
    ASSERT_GE(fd, 0);
    for (std::uint32_t i = 0; i < 10; ++i) ASSERT_TRUE(NeighPeer::send(svc, full(1, i)));
    g_uiNdEventEpollLoop = 8;
    seen().hook = [] {
        if (delivered().size() == 3) g_uiNdEventEpollLoop = 4;  // lowered during the drain
    };
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_EQ(delivered().size(), 4u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 4u);
    seen().hook = nullptr;
    g_uiNdEventEpollLoop = 256;
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_EQ(delivered().size(), 10u);
    ND_DeregEvent(fd);
}

// ---- Requests on a subscription ------------------------------------------------------------

TEST_F(NdEventsTest, RegEventConnectsToTheSystemMasterPort11554WithTimeoutsAndSendsType19) {
    connects_with_timeouts<NdEvents>();
}

TEST_F(NdEventsTest, BatchReplayIsABareHeaderType36WithCountZeroSentWithoutWaiting) {
    replay_is_bare_header<NdEvents>();
}

// The batch key: its words big-endian, the two bytes at 8 as given.
Bytes key_payload(const NdBatchKey& k) {
    Bytes p;
    put32(p, k.uiWord0);
    put32(p, k.uiWord4);
    p.push_back(k.aucField8[0]);
    p.push_back(k.aucField8[1]);
    put16(p, k.usWord10);
    return p;
}

// A keyed batch replay goes out blocking, with its key converted.
void expect_keyed_batch(std::uint32_t (*request)(std::int32_t, const NdBatchKey*), std::uint8_t type,
                        const NdBatchKey& key) {
    NeighEventsTest<NdEvents>::Peer peer;
    const auto [fd, svc] = NeighEventsTest<NdEvents>::subscribe(peer);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(request(fd, &key), 0u);
    expect_request(fd, svc, adj_message(type, key_payload(key)), 0, 18);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, BatchByVsiSendsType40WithTheKeyConvertedBlocking) {
    const NdBatchKey key{0x01020304u, 0xA5B6C7D8u, {0x9A, 0x3B}, 0x0C0Du};
    expect_keyed_batch(ND_RequestBatchByVsi, 40, key);
    // Written out: the bytes at 8 as given, the words big-endian.
    expect_adj_message(adj_message(40, key_payload(key)),
                       adj_message(40, {0x01, 0x02, 0x03, 0x04, 0xA5, 0xB6, 0xC7, 0xD8, 0x9A, 0x3B, 0x0C, 0x0D}));
}

TEST_F(NdEventsTest, BatchByIFSendsType65WithTheKeyConvertedBlocking) {
    expect_keyed_batch(ND_RequestBatchByIF, 65, NdBatchKey{0xF1E2D3C4u, 0x00000102u, {0x01, 0xFE}, 0xABCDu});
}

TEST_F(NdEventsTest, ConcernedAddressMessagesCarryTheAddressAsGivenAndTheWordBigEndian) {
    Peer peer;
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    NdIPv6Addr addr{};
    for (std::size_t k = 0; k < 16; ++k) addr.aucAddr[k] = static_cast<std::uint8_t>(0xF0 - k * 3);
    Bytes payload(addr.aucAddr, addr.aucAddr + 16);
    put32(payload, 0x01020304u);
    EXPECT_EQ(ND_AddConcernedIPv6(fd, 0x01020304u, addr), 0u);
    expect_adj_message(NeighPeer::recv(svc), adj_message(67, payload));
    payload.resize(16);
    put32(payload, 0xFFEE0011u);
    EXPECT_EQ(ND_DelConcernedIPv6(fd, 0xFFEE0011u, addr), 0u);
    expect_adj_message(NeighPeer::recv(svc), adj_message(68, payload));
    const auto sends = calls_of(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 3u);
    for (const auto& s : sends) EXPECT_EQ(s.flags, MSG_DONTWAIT);
    EXPECT_EQ(sends[1].length, 26u);
    EXPECT_EQ(sends[2].length, 26u);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, SubscriptionRequestsReportAFailedOrShortSend) { requests_report_failed_send<NdEvents>(3, 10); }

TEST_F(NdEventsTest, NullBatchKeysAreRefusedBeforeAnythingIsSent) { null_batches_refused<NdEvents>(); }

TEST_F(NdEventsTest, ProcEventOnAnUnregisteredDescriptorFailsWithoutReading) { proc_unregistered_fails<NdEvents>(); }

TEST_F(NdEventsTest, ReceivePassWithoutAHandlerFailsWithoutReading) { step_without_handler<NdEvents>(); }

TEST_F(NdEventsTest, SubscriptionWithoutAHandlerIsKeptButReadsNothing) { kept_without_handler<NdEvents>(); }

// ---- Subscriptions ---------------------------------------------------------------------------

TEST_F(NdEventsTest, DeregEventOnANeverRegisteredDescriptorStillClosesIt) { dereg_never_registered_closes<NdEvents>(); }

TEST_F(NdEventsTest, HandlerThatDeregistersItsOwnSubscriptionFinishesTheDatagramAndStops) {
    deregister_own_from_handler<NdEvents>();
}

TEST_F(NdEventsTest, HandlerCanRegisterAnotherSubscription) { register_from_handler<NdEvents>(); }

TEST_F(NdEventsTest, RepeatedSubscriptionsLeaveNoDescriptorBehind) {
    NeighPeer peer(NdEvents::kMaster, NdEvents::kPort, 20);
    for (int i = 0; i < 20; ++i) {
        const int fd = ND_RegEvent(static_cast<std::uint32_t>(i), 0, recorder());
        ASSERT_GE(fd, 0);
        const int svc = peer.conn(static_cast<std::size_t>(i));
        ASSERT_GE(svc, 0);
        ASSERT_TRUE(NeighPeer::send(svc, full(1, static_cast<std::uint32_t>(i))));
        EXPECT_EQ(proc(fd), 0u);
        ND_DeregEvent(fd);
        EXPECT_FALSE(is_open(fd));
    }
    EXPECT_EQ(delivered().size(), 20u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 20u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 20u);
    // The fixture compares the open descriptors with those before the test.
}

TEST_F(NdEventsTest, ThreadsRegisterDrainAndDeregisterTheirOwnSubscriptionsAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 10;
    Peer peer(kThreads * kRounds);
    std::atomic<int> failures{0};
    bounded(
        "concurrent subscriptions",
        [&] {
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t) {
                threads.emplace_back([&failures, t] {
                    for (int r = 0; r < kRounds; ++r) {
                        const int fd = ND_RegEvent(static_cast<std::uint32_t>(t * 100 + r), 0, recorder());
                        if (fd < 0) {
                            ++failures;
                            continue;
                        }
                        if (ND_ProcEvent(static_cast<std::uint32_t>(fd)) != 0u) ++failures;
                        ND_DeregEvent(fd);
                        if (ND_ProcEvent(static_cast<std::uint32_t>(fd)) != kFailed) ++failures;
                    }
                });
            }
            for (auto& th : threads) th.join();
        },
        30000);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(g_stNDEventProcList, nullptr);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), ipp_call_count(IPP_CALL_CLOSE));
}

// ---- Malformed datagrams -------------------------------------------------------------------

TEST_F(NdEventsMalformedTest, SkippedTypeWithALengthUnderEightEndsTheDatagram) {
    run_with_length(16, {0, 1, 2, 3, 4, 5, 6, 7}, 72);
}

// ---- Layout of the public records ------------------------------------------------------------

TEST(NdEventsLayoutTest, RecordsHaveTheirWireSizesAndOffsets) {
    EXPECT_EQ(sizeof(NdEventRecord), 64u);
    EXPECT_EQ(offsetof(NdEventRecord, aucAddr), 4u);
    EXPECT_EQ(offsetof(NdEventRecord, uiField20), 20u);
    EXPECT_EQ(offsetof(NdEventRecord, usField58), 58u);
    EXPECT_EQ(sizeof(NdBatchKey), 12u);
    EXPECT_EQ(offsetof(NdBatchKey, usWord10), 10u);
    EXPECT_EQ(sizeof(NdEventProcNode), 32u);
    EXPECT_EQ(sizeof(NdIPv6Addr), 16u);
}

}  // namespace
}  // namespace ipt
