// ARP event subscriptions and dispatch: the subscription messages on the wire, the callback
// list, conversion of event entries to host order, short records and their defaults,
// skipped types, malformed datagrams, the bound on datagrams read per call, callbacks that
// change the subscriptions, and failure paths.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstring>
#include <functional>
#include <mutex>
#include <vector>

#include "arp/events_support.hpp"
#include "ipclient/arp.h"
#include "ipplat/testctl.h"
#include "support/alloc_counter.hpp"
#include "support/fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

using namespace arpev;

static_assert(std::endian::native == std::endian::little,
              "the conversion tests rely on a host whose order differs from the wire's");

constexpr std::uint16_t kMaster = 0x0203;
constexpr int kOptSendTimeout = 0x1005;
constexpr int kOptRecvTimeout = 0x1006;

// ---- What the callbacks saw ------------------------------------------------------------

struct Delivered {
    int callback;  // which callback was called
    std::uint32_t type;
    Entry entry;
    std::uint16_t third;
};

std::mutex g_mu;
std::vector<Delivered> g_delivered;
// Run by the hook callback after recording its event.
std::function<void()> g_hook;

void note(int which, std::uint32_t type, const void* entry, std::uint16_t third) {
    Delivered d{which, type, {}, third};
    std::memcpy(d.entry.data(), entry, kEntryLen);
    const std::lock_guard lock(g_mu);
    g_delivered.push_back(d);
}

template <int N>
std::uint32_t on_event(std::uint32_t type, void* entry, std::uint16_t third) {
    note(N, type, entry, third);
    return 0;
}
constexpr ARP_EVENT_PF kCallback = &on_event<0>;

std::uint32_t on_event_with_hook(std::uint32_t type, void* entry, std::uint16_t third) {
    note(99, type, entry, third);
    if (g_hook) g_hook();
    return 0;
}

std::vector<Delivered> delivered() {
    const std::lock_guard lock(g_mu);
    return g_delivered;
}

std::uint32_t host32(const Entry& e, std::size_t off) {
    std::uint32_t v;
    std::memcpy(&v, e.data() + off, sizeof v);
    return v;
}
std::uint16_t host16(const Entry& e, std::size_t off) {
    std::uint16_t v;
    std::memcpy(&v, e.data() + off, sizeof v);
    return v;
}

// ---- Fixture ---------------------------------------------------------------------------

class ArpEventsTest : public PlatformTest {
protected:
    ArpEventsTest() {
        ipp_dir_set_master(kMaster);
        const std::lock_guard lock(g_mu);
        g_delivered.clear();
        g_hook = nullptr;
    }
    void TearDown() override {
        EXPECT_EQ(g_stARPEventProcList, nullptr) << "a subscription was left registered";
        // A test that stopped early leaves its subscriptions: end them here, so that the
        // tests after it start clean.
        while (g_stARPEventProcList != nullptr) ARP_DeregEvent(g_stARPEventProcList->iSocket);
        g_hook = nullptr;
        PlatformTest::TearDown();
    }

    static std::vector<ipp_sock_event> log(ipp_call call, int fd = -2) {
        std::vector<ipp_sock_event> out;
        for (std::uint32_t i = 0; i < ipp_sock_log_count(); ++i) {
            ipp_sock_event ev{};
            if (ipp_sock_log_get(i, &ev) == 0 && ev.call == call && (fd == -2 || ev.fd == fd)) out.push_back(ev);
        }
        return out;
    }

    // Processes the subscription, failing fast if the call does not return.
    static std::uint32_t proc(int fd) {
        std::uint32_t rc = 0xDEADBEEF;
        bounded("ARP_ProcEvent", [&] { rc = ARP_ProcEvent(fd); });
        return rc;
    }

    // Subscribes to the peer and returns the subscriber's and the service's descriptors.
    static std::pair<int, int> subscribe(AdjPeer& peer, std::size_t index = 0, ARP_EVENT_PF cb = kCallback,
                                         std::uint32_t first = 1) {
        const int fd = ARP_RegEvent(first, 2, cb);
        return {fd, fd >= 0 ? peer.conn(index) : -1};
    }

    static std::size_t list_length() {
        std::size_t n = 0;
        for (const ARP_EVENT_PROC_NODE_S* r = g_stARPEventProcList; r != nullptr; r = r->pstNext) ++n;
        return n;
    }
};

// The expected subscription message: type, the reserved byte (ignored), BE16 payload length,
// BE16 count, payload.
Bytes message(std::uint8_t type, std::uint16_t count, const Bytes& payload) {
    Bytes b{type, 0};
    put16(b, static_cast<std::uint16_t>(payload.size()));
    put16(b, count);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

void expect_message(const Bytes& got, const Bytes& want) {
    ASSERT_EQ(got.size(), want.size());
    EXPECT_EQ(got[0], want[0]) << "type";
    for (std::size_t i = 2; i < want.size(); ++i) EXPECT_EQ(got[i], want[i]) << "byte " << i;
}

bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

// ---- Edge cases ------------------------------------------------------------------------

TEST_F(ArpEventsTest, RecordsOfLengths60And24YieldTwoCallbacksAndTheShortOneReadsDefaultsBeyondItsBytes) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_GE(svc, 0);
    ASSERT_TRUE(AdjPeer::send(svc, concat({record(60, 1, 0x0A0B0C0D), record(24, 2, 0x01020304)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].type, 1u);
    EXPECT_EQ(host32(got[0].entry, 0), 0x0A0B0C0Du);
    EXPECT_EQ(got[1].type, 2u);
    // The 24-byte record holds 16 entry bytes: offsets 0 to 15, so 8 and 12 are its own.
    EXPECT_EQ(host32(got[1].entry, 0), 0x01020304u);
    EXPECT_EQ(host32(got[1].entry, 8), 0x090A0B0Cu);
    EXPECT_EQ(host32(got[1].entry, 12), 0x0D0E0F10u);
    for (std::size_t k = 16; k < kEntryLen; ++k) EXPECT_EQ(got[1].entry[k], 0) << "entry byte " << k;
    EXPECT_EQ(got[1].third, 0);
    ARP_DeregEvent(fd);
}

std::uint64_t g_counted = 0;
std::uint32_t count_event(std::uint32_t, void*, std::uint16_t) {
    ++g_counted;
    return 0;
}

TEST_F(ArpEventsTest, ProcEventDrainsWithoutAnAllocation) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer, 0, count_event);
    ASSERT_GE(fd, 0);
    // Whole, short and skipped records over several datagrams.
    const Bytes datagram = concat({record(60, 1, 1), record(24, 2, 2), record(60, 30, 3), record(60, 4, 4)});
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(AdjPeer::send(svc, datagram));
    g_counted = 0;
    std::uint64_t allocations = 0;
    {
        const AllocationScope scope;
        EXPECT_EQ(ARP_ProcEvent(fd), 0u);
        allocations = scope.count();
    }
    EXPECT_EQ(g_counted, 8u * 3u);
    if (allocations_observable()) {
        EXPECT_EQ(allocations, 0u);
    }
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, ShortRecordWithoutOffsets8And12ReadsTheirDefaults) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(AdjPeer::send(svc, concat({record(60, 1, 7), record(16, 2, 0x01020304)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(host32(got[1].entry, 0), 0x01020304u);
    EXPECT_EQ(host32(got[1].entry, 8), 0xFFFFFFFFu);
    EXPECT_EQ(host32(got[1].entry, 12), 0x0000FFFFu);
    for (std::size_t k = 16; k < kEntryLen; ++k) EXPECT_EQ(got[1].entry[k], 0) << "entry byte " << k;
    // The full record before it left nothing behind in the defaults.
    EXPECT_EQ(host32(got[0].entry, 8), 0x090A0B0Cu);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, ShortRecordAfterAnotherShortRecordStartsFromTheDefaults) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    Entry other{};
    for (std::size_t k = 0; k < kEntryLen; ++k) other[k] = static_cast<std::uint8_t>(0xC0 + k);
    ASSERT_TRUE(AdjPeer::send(
        svc, concat({record(58, 1, other), record(12, 2, 0x01020304), record(40, 3, other), record(8, 4, other)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].entry, expected_entry(other, 58));
    EXPECT_EQ(got[1].entry, expected_entry(wire_entry(0x01020304), 12));
    EXPECT_EQ(got[2].entry, expected_entry(other, 40));
    EXPECT_EQ(got[3].entry, expected_entry(other, 8));
    EXPECT_EQ(host32(got[1].entry, 8), 0xFFFFFFFFu);
    EXPECT_EQ(host32(got[1].entry, 12), 0x0000FFFFu);
    EXPECT_EQ(got[1].third, 0u);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, RecordsOfType21OrAboveAreSkippedAndTheFollowingOnesDelivered) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(AdjPeer::send(svc, concat({record(60, 0, 1), record(60, 21, 2), record(24, 22, 3), record(60, 20, 4),
                                           record(13, 0xFFFFFFFFu, 5), record(60, 1000, 6), record(20, 5, 7),
                                           record(60, 0x100, 8)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].type, 0u);
    EXPECT_EQ(host32(got[0].entry, 0), 1u);
    EXPECT_EQ(got[1].type, 20u);
    EXPECT_EQ(host32(got[1].entry, 0), 4u);
    EXPECT_EQ(got[2].type, 5u);
    EXPECT_EQ(host32(got[2].entry, 0), 7u);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, DatagramsOfOneToSevenBytesProduceNoCallbackAndStatusZero) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    for (std::size_t n = 1; n <= 7; ++n) {
        // A header cut short, claiming a full record of type 1.
        const Bytes full = record(60, 1, 9);
        const Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
        ASSERT_TRUE(AdjPeer::send(svc, cut));
        EXPECT_EQ(proc(fd), 0u) << n << " bytes";
    }
    EXPECT_TRUE(delivered().empty());
    // Each call read its datagram and then found the queue empty.
    const auto recvs = log(IPP_CALL_RECV, fd);
    ASSERT_EQ(recvs.size(), 14u);
    for (std::size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(recvs[2 * i].result, static_cast<int>(i + 1));
        EXPECT_EQ(recvs[2 * i + 1].result, -1);
        EXPECT_EQ(recvs[2 * i + 1].err, EAGAIN);
    }
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, DeregEventOnANeverRegisteredDescriptorClosesIt) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    ARP_DeregEvent(pair[0]);
    EXPECT_FALSE(is_open(pair[0]));
    EXPECT_EQ(errno, EBADF);
    const auto closes = log(IPP_CALL_CLOSE);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0].fd, pair[0]);
    EXPECT_EQ(closes[0].result, 0);
    EXPECT_TRUE(AdjPeer::peer_closed(pair[1]));
    ::close(pair[1]);
}

TEST_F(ArpEventsTest, ProcEventWith300QueuedDatagramsReads256AndReturnsZero) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    for (std::uint32_t i = 0; i < 300; ++i) {
        ASSERT_TRUE(AdjPeer::send_now(svc, record(60, i % 21, i))) << "datagram " << i << " could not be queued";
    }
    EXPECT_EQ(proc(fd), 0u);
    auto got = delivered();
    ASSERT_EQ(got.size(), 256u);
    for (std::uint32_t i = 0; i < 256; ++i) EXPECT_EQ(host32(got[i].entry, 0), i);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 256u) << "the call stops after 256 datagrams without a further read";

    // The rest stayed queued: the next call reads the remaining 44 and then finds none.
    EXPECT_EQ(proc(fd), 0u);
    got = delivered();
    ASSERT_EQ(got.size(), 300u);
    for (std::uint32_t i = 0; i < 300; ++i) {
        EXPECT_EQ(host32(got[i].entry, 0), i);
        EXPECT_EQ(got[i].type, i % 21);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 256u + 45u);
    ARP_DeregEvent(fd);
}

// ---- Subscription messages -------------------------------------------------------------

TEST_F(ArpEventsTest, RegEventConnectsToTheSystemMasterPort11537WithTimeoutsAndSendsType34) {
    AdjPeer peer(kMaster);
    const int fd = ARP_RegEvent(0x11223344u, 0xA1B2C3D4u, kCallback);
    ASSERT_GE(fd, 0);
    expect_message(peer.first_message(0),
                   message(34, 1, {0x11, 0x22, 0x33, 0x44, 0, 0, 0, 0, 0xA1, 0xB2, 0xC3, 0xD4}));

    const auto sockets = log(IPP_CALL_SOCKET);
    ASSERT_EQ(sockets.size(), 1u);
    EXPECT_EQ(sockets[0].domain, 37);
    EXPECT_EQ(sockets[0].type, SOCK_DGRAM);
    EXPECT_EQ(sockets[0].protocol, 1);
    EXPECT_EQ(sockets[0].result, fd);

    const auto opts = log(IPP_CALL_SETSOCKOPT, fd);
    ASSERT_EQ(opts.size(), 2u);
    const int options[2] = {kOptSendTimeout, kOptRecvTimeout};
    const std::int64_t seconds[2] = {5, 2};
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(opts[i].level, 1);
        EXPECT_EQ(opts[i].option, options[i]);
        ASSERT_EQ(opts[i].value_len, 16u);
        std::int64_t sec = -1, usec = -1;
        std::memcpy(&sec, opts[i].value, 8);
        std::memcpy(&usec, opts[i].value + 8, 8);
        EXPECT_EQ(sec, seconds[i]);
        EXPECT_EQ(usec, 0);
    }

    const auto connects = log(IPP_CALL_CONNECT, fd);
    ASSERT_EQ(connects.size(), 1u);
    EXPECT_EQ(connects[0].result, 0);
    ASSERT_EQ(connects[0].addr_len, 16u);
    const std::uint8_t want[16] = {16, 37, 0x2D, 0x11, 0x02, 0x03};  // port 11537, node 0x0203
    EXPECT_EQ(std::memcmp(connects[0].addr, want, 16), 0);

    const auto sends = log(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 64);
    EXPECT_EQ(sends[0].length, 18u);
    EXPECT_EQ(sends[0].result, 18);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, RegEventFollowsTheMasterNode) {
    ipp_dir_set_master(0x0777);
    AdjPeer peer(0x0777);
    const int fd = ARP_RegEvent(5, 6, kCallback);
    ASSERT_GE(fd, 0);
    expect_message(peer.first_message(0), message(34, 1, {0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 6}));
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, ConcernedAddressMessagesCarryTheScopeAsGivenAndTheAddressBigEndian) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_GE(svc, 0);
    EXPECT_EQ(ARP_AddConcernedIP(fd, 0x0A000001u, 0x01020304u), 0u);
    // The scope travels in host order: 04 03 02 01 on this host.
    expect_message(AdjPeer::recv(svc), message(44, 1, {0x04, 0x03, 0x02, 0x01, 0x0A, 0x00, 0x00, 0x01}));
    EXPECT_EQ(ARP_DelConcernedIP(fd, 0xC0A80102u, 0xF0000001u), 0u);
    expect_message(AdjPeer::recv(svc), message(45, 1, {0x01, 0x00, 0x00, 0xF0, 0xC0, 0xA8, 0x01, 0x02}));
    const auto sends = log(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 3u);
    for (const auto& s : sends) EXPECT_EQ(s.flags, 64);
    EXPECT_EQ(sends[1].length, 14u);
    EXPECT_EQ(sends[2].length, 14u);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, BatchReplayIsABareHeaderWithCountZeroSentWithoutWaiting) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ARP_RequestBatchEvent(fd);
    const Bytes got = AdjPeer::recv(svc);
    ASSERT_EQ(got.size(), 6u);
    expect_message(got, message(52, 0, {}));
    const auto sends = log(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[1].flags, 64);
    EXPECT_EQ(sends[1].length, 6u);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, BatchByVsiSendsWordsAAndBTheSelectorAndTheFixedLastWordBlocking) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    const ARP_BATCH_VSI_REQ_S req{0x01020304u, 0x05060708u, 0x9A};
    EXPECT_EQ(ARP_RequestBatchByVsi(fd, &req), 0u);
    expect_message(AdjPeer::recv(svc), message(56, 1,
                                                {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x9A, 0, 0, 0, 0x00,
                                                 0x00, 0xFF, 0xFF}));
    const auto sends = log(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[1].flags, 0);
    EXPECT_EQ(sends[1].length, 22u);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, BatchByAcSendsAllFourWordsBlocking) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    const ARP_BATCH_REQ_S req{0xA1A2A3A4u, 0xB1B2B3B4u, 0x5C, 0x0B0C0D0Eu};
    EXPECT_EQ(ARP_RequestBatchByAc(fd, &req), 0u);
    expect_message(AdjPeer::recv(svc), message(75, 1,
                                                {0xA1, 0xA2, 0xA3, 0xA4, 0xB1, 0xB2, 0xB3, 0xB4, 0x5C, 0, 0, 0, 0x0B,
                                                 0x0C, 0x0D, 0x0E}));
    const auto sends = log(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[1].flags, 0);
    EXPECT_EQ(sends[1].length, 22u);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, BatchByVlanSendsTheSelectorAndTheVlanAsABigEndianWordBlocking) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ARP_RequestBatchByVlan(fd, 0x7E, 0x0FED), 0u);
    expect_message(AdjPeer::recv(svc),
                   message(98, 1, {0, 0, 0, 0, 0, 0, 0, 0, 0x7E, 0, 0, 0, 0x00, 0x00, 0x0F, 0xED}));
    const auto sends = log(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[1].flags, 0);
    EXPECT_EQ(sends[1].length, 22u);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, SubscriptionRequestsReportAFailedSend) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    const ARP_BATCH_REQ_S req{1, 2, 3, 4};
    ipp_fault_inject(IPP_CALL_SEND, 5, EAGAIN);
    EXPECT_EQ(ARP_AddConcernedIP(fd, 1, 2), kFailed);
    EXPECT_EQ(ARP_DelConcernedIP(fd, 1, 2), kFailed);
    EXPECT_EQ(ARP_RequestBatchByAc(fd, &req), kFailed);
    const ARP_BATCH_VSI_REQ_S vsi{1, 2, 3};
    EXPECT_EQ(ARP_RequestBatchByVsi(fd, &vsi), kFailed);
    EXPECT_EQ(ARP_RequestBatchByVlan(fd, 1, 2), kFailed);
    // A short send fails too.
    ipp_fault_short_send(1, 6);
    EXPECT_EQ(ARP_AddConcernedIP(fd, 1, 2), kFailed);
    // The replay request has no status; its failure is ignored.
    ipp_fault_inject(IPP_CALL_SEND, 1, EPIPE);
    ARP_RequestBatchEvent(fd);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u + 5u + 1u + 1u);
    // The subscription still works.
    EXPECT_EQ(ARP_AddConcernedIP(fd, 1, 2), 0u);
    ARP_DeregEvent(fd);
}

// ---- Conversion of the entry -----------------------------------------------------------

TEST_F(ArpEventsTest, EntryFieldsAreConvertedToHostOrderFieldByField) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(AdjPeer::send(svc, record(60, 17, 0x01020304)));  // entry bytes 01 02 03 ... 34
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 1u);
    const Entry& e = got[0].entry;
    EXPECT_EQ(got[0].type, 17u);
    EXPECT_EQ(host32(e, 0), 0x01020304u);
    EXPECT_EQ(e[4], 0x05);  // an IPv4 address, left in network order
    EXPECT_EQ(e[5], 0x06);
    EXPECT_EQ(e[6], 0x07);
    EXPECT_EQ(e[7], 0x08);
    EXPECT_EQ(host32(e, 8), 0x090A0B0Cu);
    EXPECT_EQ(host32(e, 12), 0x0D0E0F10u);
    EXPECT_EQ(host16(e, 16), 0x1112u);
    EXPECT_EQ(host16(e, 18), 0x1314u);
    for (std::size_t k = 20; k < 28; ++k) EXPECT_EQ(e[k], k + 1) << "hardware address byte " << k;
    EXPECT_EQ(host32(e, 28), 0x1D1E1F20u);
    EXPECT_EQ(host32(e, 32), 0x21222324u);
    EXPECT_EQ(host32(e, 36), 0x25262728u);
    EXPECT_EQ(host32(e, 40), 0x292A2B2Cu);
    EXPECT_EQ(e[44], 0x2D);  // untouched
    EXPECT_EQ(e[45], 0x2E);
    EXPECT_EQ(host16(e, 46), 0x2F30u);
    EXPECT_EQ(host16(e, 48), 0x3132u);
    EXPECT_EQ(e[50], 0x33);  // untouched
    EXPECT_EQ(e[51], 0x34);
    EXPECT_EQ(got[0].third, 0x3132u) << "the third argument is the field at offset 48 in host order";
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, ThirdArgumentFollowsTheFieldAtOffset48OfEachRecord) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    Bytes datagram;
    for (std::uint16_t v : {std::uint16_t{0x0001}, std::uint16_t{0xFF00}, std::uint16_t{0xABCD}}) {
        Entry e = wire_entry(v);
        e[48] = static_cast<std::uint8_t>(v >> 8);
        e[49] = static_cast<std::uint8_t>(v);
        const Bytes r = record(60, 3, e);
        datagram.insert(datagram.end(), r.begin(), r.end());
    }
    ASSERT_TRUE(AdjPeer::send(svc, datagram));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].third, 0x0001u);
    EXPECT_EQ(got[1].third, 0xFF00u);
    EXPECT_EQ(got[2].third, 0xABCDu);
    for (const auto& d : got) EXPECT_EQ(host16(d.entry, 48), d.third);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, FullRecordsConvertEveryListedFieldAndLeaveTheOthers) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    // Other byte values, so that a conversion that happens to fit one pattern is caught.
    Entry wire{};
    for (std::size_t k = 0; k < kEntryLen; ++k) wire[k] = static_cast<std::uint8_t>(0xF3 - 5 * k);
    ASSERT_TRUE(AdjPeer::send(svc, concat({record(60, 4, wire), record(60, 4, wire)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 2u);
    const Entry want = expected_entry(wire, 60);
    EXPECT_EQ(got[0].entry, want);
    EXPECT_EQ(got[1].entry, want) << "each record is converted once";
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, ShortRecordsOfEveryLengthFrom8To72ReadDefaultsBeyondTheirBytes) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    for (std::uint32_t len = 8; len <= 72; ++len) {
        const Entry wire = wire_entry(0x51525354);
        const std::uint32_t type = len % 21;
        // The record, then a full one that shows where the next record was found.
        ASSERT_TRUE(AdjPeer::send(svc, concat({record(len, type, wire), record(60, 20, 0xC0FFEE00u + len)})));
        EXPECT_EQ(proc(fd), 0u);
        const auto got = delivered();
        ASSERT_EQ(got.size(), 2u * (len - 7)) << "length " << len;
        const Delivered& d = got[got.size() - 2];
        EXPECT_EQ(d.type, type);
        EXPECT_EQ(d.entry, expected_entry(wire, len)) << "length " << len;
        EXPECT_EQ(d.third, host16(d.entry, 48)) << "length " << len;
        const Delivered& next = got.back();
        EXPECT_EQ(next.type, 20u);
        EXPECT_EQ(host32(next.entry, 0), 0xC0FFEE00u + len) << "length " << len;
    }
    // Spot checks of the model: a record that ends inside the word at offset 8.
    const auto got = delivered();
    const Entry& e18 = got[2 * (18 - 8)].entry;  // 10 entry bytes: 8 and 9 are its own
    EXPECT_EQ(host32(e18, 8), 0x090AFFFFu);
    EXPECT_EQ(host32(e18, 12), 0x0000FFFFu);
    const Entry& e8 = got[0].entry;  // header only: every field a default
    EXPECT_EQ(host32(e8, 0), 0u);
    EXPECT_EQ(host32(e8, 8), 0xFFFFFFFFu);
    EXPECT_EQ(host32(e8, 12), 0x0000FFFFu);
    EXPECT_EQ(got[0].third, 0u);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, EveryTypeFrom0To20IsDelivered) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    Bytes datagram;
    for (std::uint32_t t = 0; t <= 20; ++t) {
        const Bytes r = record(60, t, 100 + t);
        datagram.insert(datagram.end(), r.begin(), r.end());
    }
    ASSERT_TRUE(AdjPeer::send(svc, datagram));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 21u);
    for (std::uint32_t t = 0; t <= 20; ++t) {
        EXPECT_EQ(got[t].type, t);
        EXPECT_EQ(host32(got[t].entry, 0), 100 + t);
    }
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, FullDatagramOf68RecordsIsDeliveredInOrder) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    Bytes datagram;
    for (std::uint32_t i = 0; i < kDatagramMax / kFullLen; ++i) {
        const Bytes r = record(60, i % 21, i);
        datagram.insert(datagram.end(), r.begin(), r.end());
    }
    ASSERT_EQ(datagram.size(), 4080u);
    ASSERT_TRUE(AdjPeer::send(svc, datagram));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 68u);
    for (std::uint32_t i = 0; i < 68; ++i) EXPECT_EQ(host32(got[i].entry, 0), i);
    const auto recvs = log(IPP_CALL_RECV, fd);
    ASSERT_EQ(recvs.size(), 2u);
    EXPECT_EQ(recvs[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(recvs[0].length, 4096u);
    EXPECT_EQ(recvs[0].result, 4080);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, ProcEventWithNothingQueuedReadsOnceAndReturnsZero) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_TRUE(delivered().empty());
    const auto recvs = log(IPP_CALL_RECV, fd);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].result, -1);
    EXPECT_EQ(recvs[0].err, EAGAIN);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, ProcEventAfterTheServiceClosedReadsAtMost256EmptyDatagrams) {
    int fd = -1;
    {
        AdjPeer peer(kMaster);
        fd = subscribe(peer).first;
        ASSERT_GE(fd, 0);
        ASSERT_GE(peer.conn(0), 0);
    }  // the service goes away
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_TRUE(delivered().empty());
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 256u);
    ARP_DeregEvent(fd);
}

// ---- Malformed datagrams ---------------------------------------------------------------
//
// A full datagram is read first, so that the receive buffer holds well-formed records past
// the end of the malformed datagram read into it next: a record read beyond what was
// received would show up as an extra callback.

class ArpEventsMalformedTest : public ArpEventsTest {
protected:
    void run(const Bytes& malformed, std::size_t expected_from_malformed) {
        AdjPeer peer(kMaster);
        const auto [fd, svc] = subscribe(peer);
        ASSERT_GE(fd, 0);
        Bytes full;
        for (std::uint32_t i = 0; i < 68; ++i) {
            const Bytes r = record(60, 6, 0xAA000000u + i);
            full.insert(full.end(), r.begin(), r.end());
        }
        const std::uint64_t recvs_before = ipp_call_count(IPP_CALL_RECV);
        ASSERT_TRUE(AdjPeer::send(svc, full));
        ASSERT_TRUE(AdjPeer::send(svc, malformed));
        ASSERT_TRUE(AdjPeer::send(svc, record(60, 9, 0x99999999u)));  // still delivered
        EXPECT_EQ(proc(fd), 0u);
        const auto got = delivered();
        ASSERT_EQ(got.size(), 68u + expected_from_malformed + 1u);
        for (std::size_t i = 68; i < 68 + expected_from_malformed; ++i) {
            EXPECT_EQ(host32(got[i].entry, 0) & 0xFF000000u, 0xBB000000u) << "callback " << i;
        }
        EXPECT_EQ(host32(got.back().entry, 0), 0x99999999u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_RECV) - recvs_before, 4u);
        ARP_DeregEvent(fd);
    }
};

TEST_F(ArpEventsMalformedTest, RecordLengthZeroEndsTheDatagram) {
    run(concat({record(60, 1, 0xBB000001u), record(60, 2, 0xBB000002u), record(0, 3, 0)}), 2);
}

TEST_F(ArpEventsMalformedTest, RecordLengthZeroWithAFullRecordBehindItEndsTheDatagram) {
    Bytes zero = record(60, 3, 0xBB000003u);
    zero[3] = 0;  // length 0, a full record's bytes behind the header
    run(concat({record(60, 1, 0xBB000001u), zero, record(60, 4, 0xBB000004u)}), 1);
}

TEST_F(ArpEventsMalformedTest, RecordLengthUnderEightEndsTheDatagram) {
    for (std::uint8_t len = 1; len < 8; ++len) {
        Bytes bad = record(60, 3, 0xBB000003u);
        bad[3] = len;
        SCOPED_TRACE(static_cast<int>(len));
        run(concat({record(24, 1, 0xBB000001u), bad, record(60, 4, 0xBB000004u)}), 1);
        std::lock_guard lock(g_mu);
        g_delivered.clear();
    }
}

TEST_F(ArpEventsMalformedTest, RecordLongerThanWhatRemainsEndsTheDatagram) {
    Bytes longer = record(60, 3, 0xBB000003u);
    longer[2] = 0x01;  // claims 316 bytes, 60 remain
    run(concat({record(60, 1, 0xBB000001u), longer}), 1);
}

TEST_F(ArpEventsMalformedTest, RecordOneByteLongerThanWhatRemainsEndsTheDatagram) {
    Bytes longer = record(60, 3, 0xBB000003u);
    longer[3] = 61;
    run(concat({record(60, 1, 0xBB000001u), longer}), 1);
}

TEST_F(ArpEventsMalformedTest, HugeRecordLengthEndsTheDatagram) {
    Bytes huge = record(60, 3, 0xBB000003u);
    huge[0] = huge[1] = huge[2] = huge[3] = 0xFF;
    run(concat({huge, record(60, 1, 0xBB000001u)}), 0);
}

TEST_F(ArpEventsMalformedTest, SkippedTypeWithALengthBeyondTheDatagramEndsIt) {
    Bytes longer = record(60, 30, 0xBB000003u);
    longer[3] = 200;
    run(concat({record(60, 1, 0xBB000001u), longer}), 1);
}

TEST_F(ArpEventsMalformedTest, TrailingBytesShorterThanAHeaderAreIgnored) {
    Bytes tail = record(60, 1, 0xBB000001u);
    tail.insert(tail.end(), {0, 0, 0, 60, 0, 0, 0});  // 7 bytes of a header
    run(tail, 1);
}

TEST_F(ArpEventsMalformedTest, RecordEndingExactlyAtTheDatagramEndIsDelivered) {
    run(concat({record(60, 1, 0xBB000001u), record(33, 2, 0xBB000002u)}), 2);
}

// ---- Subscriptions and the list --------------------------------------------------------

TEST_F(ArpEventsTest, SeveralSubscriptionsAreListedNewestFirstAndEachGetsItsOwnEvents) {
    AdjPeer peer(kMaster, 3);
    const int a = ARP_RegEvent(0xA, 0, &on_event<1>);
    const int b = ARP_RegEvent(0xB, 0, &on_event<2>);
    const int c = ARP_RegEvent(0xC, 0, &on_event<3>);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ASSERT_GE(c, 0);
    const int sa = peer.conn_for(0xA, 3), sb = peer.conn_for(0xB, 3), sc = peer.conn_for(0xC, 3);
    ASSERT_GE(sa, 0);
    ASSERT_GE(sb, 0);
    ASSERT_GE(sc, 0);

    // Newest first, each linked back to the link that points at it.
    ARP_EVENT_PROC_NODE_S* first = g_stARPEventProcList;
    ASSERT_NE(first, nullptr);
    ASSERT_NE(first->pstNext, nullptr);
    ASSERT_NE(first->pstNext->pstNext, nullptr);
    EXPECT_EQ(first->pstNext->pstNext->pstNext, nullptr);
    EXPECT_EQ(first->iSocket, c);
    EXPECT_EQ(first->pfCallback, &on_event<3>);
    EXPECT_EQ(first->ppstPrev, &g_stARPEventProcList);
    EXPECT_EQ(first->pstNext->iSocket, b);
    EXPECT_EQ(first->pstNext->ppstPrev, &first->pstNext);
    EXPECT_EQ(first->pstNext->pstNext->iSocket, a);
    EXPECT_EQ(first->pstNext->pstNext->ppstPrev, &first->pstNext->pstNext);

    ASSERT_TRUE(AdjPeer::send(sa, record(60, 1, 0xA1)));
    ASSERT_TRUE(AdjPeer::send(sb, concat({record(60, 2, 0xB1), record(60, 2, 0xB2)})));
    ASSERT_TRUE(AdjPeer::send(sc, record(60, 3, 0xC1)));
    EXPECT_EQ(proc(b), 0u);
    EXPECT_EQ(proc(c), 0u);
    EXPECT_EQ(proc(a), 0u);
    auto got = delivered();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].callback, 2);
    EXPECT_EQ(host32(got[0].entry, 0), 0xB1u);
    EXPECT_EQ(got[1].callback, 2);
    EXPECT_EQ(host32(got[1].entry, 0), 0xB2u);
    EXPECT_EQ(got[2].callback, 3);
    EXPECT_EQ(host32(got[2].entry, 0), 0xC1u);
    EXPECT_EQ(got[3].callback, 1);
    EXPECT_EQ(host32(got[3].entry, 0), 0xA1u);

    // The middle one leaves; the others are relinked and keep working.
    ARP_DeregEvent(b);
    EXPECT_TRUE(AdjPeer::peer_closed(sb));
    ASSERT_EQ(list_length(), 2u);
    first = g_stARPEventProcList;
    EXPECT_EQ(first->iSocket, c);
    EXPECT_EQ(first->pstNext->iSocket, a);
    EXPECT_EQ(first->pstNext->ppstPrev, &first->pstNext);
    EXPECT_EQ(ARP_ProcEvent(b), kFailed);

    // Then the head, then the last.
    ARP_DeregEvent(c);
    ASSERT_EQ(list_length(), 1u);
    EXPECT_EQ(g_stARPEventProcList->iSocket, a);
    EXPECT_EQ(g_stARPEventProcList->ppstPrev, &g_stARPEventProcList);
    ASSERT_TRUE(AdjPeer::send(sa, record(60, 1, 0xA2)));
    EXPECT_EQ(proc(a), 0u);
    got = delivered();
    ASSERT_EQ(got.size(), 5u);
    EXPECT_EQ(got[4].callback, 1);
    EXPECT_EQ(host32(got[4].entry, 0), 0xA2u);
    ARP_DeregEvent(a);
    EXPECT_EQ(g_stARPEventProcList, nullptr);
}

TEST_F(ArpEventsTest, DeregEventOfTheTailKeepsTheOthers) {
    AdjPeer peer(kMaster, 2);
    const int a = ARP_RegEvent(0xA, 0, &on_event<1>);
    const int b = ARP_RegEvent(0xB, 0, &on_event<2>);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ARP_DeregEvent(a);
    ASSERT_EQ(list_length(), 1u);
    EXPECT_EQ(g_stARPEventProcList->iSocket, b);
    EXPECT_EQ(g_stARPEventProcList->pstNext, nullptr);
    EXPECT_EQ(ARP_ProcEvent(a), kFailed);
    EXPECT_EQ(proc(b), 0u);
    ARP_DeregEvent(b);
}

TEST_F(ArpEventsTest, DeregEventOfAnUnknownDescriptorLeavesTheSubscriptionsAlone) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    ARP_DeregEvent(pair[0]);
    EXPECT_FALSE(is_open(pair[0]));
    ::close(pair[1]);
    ASSERT_EQ(list_length(), 1u);
    EXPECT_EQ(g_stARPEventProcList->iSocket, fd);
    ASSERT_TRUE(AdjPeer::send(svc, record(60, 1, 1)));
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_EQ(delivered().size(), 1u);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, DeregEventForgetsTheSubscriptionAndClosesTheDescriptor) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ARP_DeregEvent(fd);
    EXPECT_EQ(g_stARPEventProcList, nullptr);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(AdjPeer::peer_closed(svc)) << "the service learns that the subscription ended";
    EXPECT_EQ(ARP_ProcEvent(fd), kFailed);
}

// ---- Callbacks that change the subscriptions -------------------------------------------

TEST_F(ArpEventsTest, CallbackThatDeregistersItsOwnSubscriptionFinishesTheDatagramAndStops) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer, 0, &on_event_with_hook);
    ASSERT_GE(fd, 0);
    int calls = 0;
    g_hook = [&calls, fd = fd] {
        if (++calls == 1) ARP_DeregEvent(fd);
    };
    ASSERT_TRUE(AdjPeer::send(svc, concat({record(60, 1, 1), record(60, 1, 2)})));
    ASSERT_TRUE(AdjPeer::send(svc, record(60, 1, 3)));
    EXPECT_EQ(proc(fd), 0u);
    // The records already received are delivered; the closed descriptor ends the call.
    EXPECT_EQ(delivered().size(), 2u);
    EXPECT_EQ(g_stARPEventProcList, nullptr);
    EXPECT_FALSE(is_open(fd));
    const auto recvs = log(IPP_CALL_RECV, fd);
    ASSERT_EQ(recvs.size(), 2u);
    EXPECT_EQ(recvs[1].result, -1);
    EXPECT_EQ(recvs[1].err, EBADF);
}

TEST_F(ArpEventsTest, CallbackCanRegisterAnotherSubscription) {
    AdjPeer peer(kMaster, 2);
    const auto [fd, svc] = subscribe(peer, 0, &on_event_with_hook, 0x1111);
    ASSERT_GE(fd, 0);
    int added = -1;
    g_hook = [&added] {
        if (added < 0) added = ARP_RegEvent(0x2222, 0, &on_event<5>);
    };
    ASSERT_TRUE(AdjPeer::send(svc, record(60, 1, 1)));
    EXPECT_EQ(proc(fd), 0u);
    ASSERT_GE(added, 0);
    ASSERT_EQ(list_length(), 2u);
    EXPECT_EQ(g_stARPEventProcList->iSocket, added);
    const int added_svc = peer.conn_for(0x2222, 2);
    ASSERT_GE(added_svc, 0);
    ASSERT_TRUE(AdjPeer::send(added_svc, record(60, 7, 0x77)));
    EXPECT_EQ(proc(added), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].callback, 5);
    EXPECT_EQ(host32(got[1].entry, 0), 0x77u);
    ARP_DeregEvent(added);
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, CallbackCanDeregisterAnotherSubscriptionAndProcessIt) {
    AdjPeer peer(kMaster, 2);
    const int other = ARP_RegEvent(0x0B, 0, &on_event<4>);
    ASSERT_GE(other, 0);
    const auto [fd, svc] = subscribe(peer, 0, &on_event_with_hook, 0x0A);
    ASSERT_GE(fd, 0);
    const int other_svc = peer.conn_for(0x0B, 2);
    ASSERT_GE(other_svc, 0);
    const int fd_svc = peer.conn_for(0x0A, 2);
    ASSERT_TRUE(AdjPeer::send(other_svc, record(60, 4, 0x44)));
    bool done = false;
    g_hook = [&done, other = other] {
        if (done) return;
        done = true;
        EXPECT_EQ(ARP_ProcEvent(other), 0u);  // nested processing of another subscription
        ARP_DeregEvent(other);
    };
    ASSERT_TRUE(AdjPeer::send(fd_svc, record(60, 1, 0x11)));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].callback, 99);
    EXPECT_EQ(got[1].callback, 4);
    EXPECT_EQ(host32(got[1].entry, 0), 0x44u);
    ASSERT_EQ(list_length(), 1u);
    EXPECT_EQ(g_stARPEventProcList->iSocket, fd);
    EXPECT_FALSE(is_open(other));
    ARP_DeregEvent(fd);
}

// ---- Registration failures -------------------------------------------------------------

class ArpEventsRegFailureTest : public ArpEventsTest {
protected:
    // A failed registration returns -1 and leaves no record and no descriptor behind: every
    // socket it created was closed, once and successfully. When no connection reached the
    // service, the process holds exactly the descriptors it held before; otherwise the
    // service's own end of the connection is open too, and the fixture checks for leaks once
    // the service is gone.
    void expect_clean_failure(std::int32_t rc, const std::set<int>* before) {
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(g_stARPEventProcList, nullptr);
        if (before != nullptr) {
            EXPECT_EQ(open_descriptors(), *before);
        }
        for (const auto& s : log(IPP_CALL_SOCKET)) {
            if (s.result < 0) continue;
            const auto closes = log(IPP_CALL_CLOSE, s.result);
            ASSERT_EQ(closes.size(), 1u) << "socket " << s.result << " closed once";
            EXPECT_EQ(closes[0].result, 0);
        }
    }
};

TEST_F(ArpEventsRegFailureTest, NoServiceListening) {
    const auto before = open_descriptors();
    expect_clean_failure(ARP_RegEvent(1, 2, kCallback), &before);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(ArpEventsRegFailureTest, ServiceOnAnotherNodeThanTheMaster) {
    AdjPeer peer(0x8000);
    const auto before = open_descriptors();
    expect_clean_failure(ARP_RegEvent(1, 2, kCallback), &before);
}

TEST_F(ArpEventsRegFailureTest, SocketFails) {
    AdjPeer peer(kMaster);
    const auto before = open_descriptors();
    ipp_fault_inject(IPP_CALL_SOCKET, 1, EMFILE);
    expect_clean_failure(ARP_RegEvent(1, 2, kCallback), &before);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 0u);
}

TEST_F(ArpEventsRegFailureTest, SendTimeoutOptionFails) {
    AdjPeer peer(kMaster);
    const auto before = open_descriptors();
    ipp_fault_inject(IPP_CALL_SETSOCKOPT, 1, ENOPROTOOPT);
    expect_clean_failure(ARP_RegEvent(1, 2, kCallback), &before);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 0u);
}

TEST_F(ArpEventsRegFailureTest, SendFails) {
    AdjPeer peer(kMaster);
    ipp_fault_inject(IPP_CALL_SEND, 1, EAGAIN);
    expect_clean_failure(ARP_RegEvent(1, 2, kCallback), nullptr);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    const int svc = peer.conn(0);
    ASSERT_GE(svc, 0);
    EXPECT_TRUE(peer.first_message(0).empty());
    EXPECT_TRUE(AdjPeer::peer_closed(svc)) << "the service sees the connection end";
}

TEST_F(ArpEventsRegFailureTest, SendIsShort) {
    AdjPeer peer(kMaster);
    ipp_fault_short_send(1, 17);
    expect_clean_failure(ARP_RegEvent(1, 2, kCallback), nullptr);
    const int svc = peer.conn(0);
    ASSERT_GE(svc, 0);
    EXPECT_EQ(peer.first_message(0).size(), 17u);
    EXPECT_TRUE(AdjPeer::peer_closed(svc)) << "the service sees the connection end";
}

TEST_F(ArpEventsRegFailureTest, ConnectFails) {
    AdjPeer peer(kMaster);
    const auto before = open_descriptors();
    ipp_fault_inject(IPP_CALL_CONNECT, 1, ECONNREFUSED);
    expect_clean_failure(ARP_RegEvent(1, 2, kCallback), &before);
}

TEST_F(ArpEventsRegFailureTest, AFailedRegistrationLeavesTheOthersInPlace) {
    AdjPeer peer(kMaster, 2);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ipp_fault_inject(IPP_CALL_SEND, 1, EAGAIN);
    EXPECT_EQ(ARP_RegEvent(3, 4, &on_event<7>), -1);
    ASSERT_EQ(list_length(), 1u);
    EXPECT_EQ(g_stARPEventProcList->iSocket, fd);
    EXPECT_EQ(g_stARPEventProcList->ppstPrev, &g_stARPEventProcList);
    ARP_DeregEvent(fd);
}

// ---- Arguments -------------------------------------------------------------------------

TEST_F(ArpEventsTest, ProcEventOnUnregisteredDescriptorFailsWithoutReading) {
    EXPECT_EQ(ARP_ProcEvent(12345), kFailed);
    EXPECT_EQ(ARP_ProcEvent(0), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(ArpEventsTest, NegativeDescriptorsAreRefusedBeforeAnythingIsSent) {
    const ARP_BATCH_REQ_S req{1, 2, 3, 4};
    EXPECT_EQ(ARP_ProcEvent(-1), kFailed);
    EXPECT_EQ(ARP_AddConcernedIP(-1, 1, 2), kFailed);
    EXPECT_EQ(ARP_DelConcernedIP(-1, 1, 2), kFailed);
    EXPECT_EQ(ARP_RequestBatchByAc(-1, &req), kFailed);
    const ARP_BATCH_VSI_REQ_S vsi{1, 2, 3};
    EXPECT_EQ(ARP_RequestBatchByVsi(-1, &vsi), kFailed);
    EXPECT_EQ(ARP_RequestBatchByVlan(-1, 1, 2), kFailed);
    EXPECT_EQ(ARP_AddConcernedIP(-7, 1, 2), kFailed);
    ARP_RequestBatchEvent(-1);
    ARP_DeregEvent(-1);
    ARP_DeregEvent(-100);
    for (int c = 0; c < IPP_CALL_COUNT; ++c) {
        EXPECT_EQ(ipp_call_count(static_cast<ipp_call>(c)), 0u) << "call kind " << c;
    }
}

TEST_F(ArpEventsTest, NullBatchRequestsAreRefusedBeforeAnythingIsSent) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ARP_RequestBatchByAc(fd, nullptr), kFailed);
    EXPECT_EQ(ARP_RequestBatchByVsi(fd, nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);  // the subscription only
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, ReceiveStepWithoutACallbackFailsWithoutReading) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(AdjPeer::send(svc, record(60, 1, 1)));
    EXPECT_EQ(arp_EventProc(fd, nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    // The datagram is still there for a step with a callback.
    EXPECT_EQ(arp_EventProc(fd, kCallback), 0u);
    EXPECT_EQ(delivered().size(), 1u);
    EXPECT_EQ(arp_EventProc(fd, kCallback), kFailed) << "nothing more to read";
    ARP_DeregEvent(fd);
}

TEST_F(ArpEventsTest, ReceiveStepOnAClosedDescriptorFails) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    ::close(pair[0]);
    ::close(pair[1]);
    EXPECT_EQ(arp_EventProc(pair[0], kCallback), kFailed);
    EXPECT_TRUE(delivered().empty());
}

TEST_F(ArpEventsTest, SubscriptionWithoutACallbackIsKeptButReadsNothing) {
    AdjPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer, 0, nullptr);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(list_length(), 1u);
    ASSERT_TRUE(AdjPeer::send(svc, record(60, 1, 1)));
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    ARP_DeregEvent(fd);
}

}  // namespace
}  // namespace ipt
