// ND event subscriptions and dispatch: the subscription messages on the wire, the handler
// list, conversion of event records to host order, short records and their defaults,
// skipped types, malformed datagrams, the bound on datagrams read per call, error
// notifications through kernel events, the VSI predicates over a stand-in layer-2 VPN
// library, and failure paths without descriptor leaks.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "ipclient/nd.h"
#include "ipplat/testctl.h"
#include "support/alloc_counter.hpp"
#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

static_assert(std::endian::native == std::endian::little,
              "the conversion tests rely on a host whose order differs from the wire's");

constexpr std::uint16_t kMaster = 0x0305;
constexpr std::uint16_t kNdPort = 11554;
constexpr int kOptSendTimeout = 0x1005;
constexpr int kOptRecvTimeout = 0x1006;
constexpr std::size_t kHead = 8;
constexpr std::size_t kBodyLen = 64;
constexpr std::size_t kFullLen = kHead + kBodyLen;  // 72
constexpr std::uint32_t kErrorClass = 0x210002u;

using Body = std::array<std::uint8_t, kBodyLen>;

// ---- The IPv6 adjacency service as a subscriber meets it -------------------------------

// Listens at (node, 11554), accepts up to `connections` clients and keeps each open (a
// duplicate of the accepted descriptor) with the first message it carried. Kept connections
// get a large send buffer so that hundreds of datagrams can be queued, and a send time-out.
class NdPeer {
public:
    explicit NdPeer(std::uint16_t node, int connections = 1) {
        svc_.emplace(node, kNdPort, [this](Conn& c) { on_accept(c); }, connections);
    }
    ~NdPeer() {
        svc_.reset();
        for (const Kept& k : kept_) ::close(k.fd);
    }
    NdPeer(const NdPeer&) = delete;
    NdPeer& operator=(const NdPeer&) = delete;

    int conn(std::size_t i, int timeout_ms = 5000) {
        std::unique_lock lock(mu_);
        const bool ok = cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return kept_.size() > i; });
        return ok ? kept_[i].fd : -1;
    }
    Bytes first_message(std::size_t i) {
        if (conn(i) < 0) return {};
        const std::lock_guard lock(mu_);
        return kept_[i].first;
    }
    // The kept connection whose subscription carried this first selector; -1 if none.
    int conn_for(std::uint32_t first, std::size_t expected) {
        if (conn(expected - 1) < 0) return -1;
        const std::lock_guard lock(mu_);
        for (const Kept& k : kept_) {
            if (k.first.size() >= 10 && (std::uint32_t{k.first[6]} << 24 | std::uint32_t{k.first[7]} << 16 |
                                         std::uint32_t{k.first[8]} << 8 | k.first[9]) == first) {
                return k.fd;
            }
        }
        return -1;
    }

    static bool send(int fd, const Bytes& d) {
        return ::send(fd, d.data(), d.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(d.size());
    }
    static bool send_now(int fd, const Bytes& d) {
        return ::send(fd, d.data(), d.size(), MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(d.size());
    }
    static Bytes recv(int fd, int timeout_ms = 2000) { return Conn(fd).recv_message(65536, timeout_ms); }
    static bool peer_closed(int fd, int timeout_ms = 2000) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, timeout_ms) <= 0) return false;
        char c;
        return (p.revents & POLLHUP) != 0 || ::recv(fd, &c, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
    }

private:
    struct Kept {
        int fd;
        Bytes first;
    };
    void on_accept(Conn& c) {
        Bytes first = c.recv_message(65536, 5000);
        const int fd = ::dup(c.fd());
        if (fd < 0) return;
        int big = 4 << 20;
        (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
        (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big);
        const timeval tv{5, 0};
        (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        const std::lock_guard lock(mu_);
        kept_.push_back({fd, std::move(first)});
        cv_.notify_all();
    }

    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<Kept> kept_;
    std::optional<FakeService> svc_;
};

// ---- Event records as the service packs them -------------------------------------------

// Body bytes: byte k is k + 1, so that every word reads differently in the two orders; the
// first word carries a marker (big-endian).
Body wire_body(std::uint32_t marker) {
    Body b{};
    for (std::size_t k = 0; k < kBodyLen; ++k) b[k] = static_cast<std::uint8_t>(k + 1);
    b[0] = static_cast<std::uint8_t>(marker >> 24);
    b[1] = static_cast<std::uint8_t>(marker >> 16);
    b[2] = static_cast<std::uint8_t>(marker >> 8);
    b[3] = static_cast<std::uint8_t>(marker);
    return b;
}

// A record of `len` bytes: BE32 length, BE32 type, the body cut to fit or followed by 0xEE
// filler. A length below 8 still gives the whole header.
Bytes record(std::uint32_t len, std::uint32_t type, const Body& body) {
    Bytes b;
    put32(b, len);
    put32(b, type);
    if (len <= kHead) return b;
    b.resize(len, 0xEE);
    std::memcpy(b.data() + kHead, body.data(), std::min<std::size_t>(len - kHead, kBodyLen));
    return b;
}
Bytes record(std::uint32_t len, std::uint32_t type, std::uint32_t marker) {
    return record(len, type, wire_body(marker));
}
Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The words of the record that travel big-endian: (offset, width).
constexpr std::array<std::pair<std::size_t, std::size_t>, 11> kWords{
    {{0, 4}, {20, 4}, {24, 4}, {28, 2}, {30, 2}, {40, 4}, {44, 4}, {48, 4}, {52, 4}, {58, 2}, {60, 2}}};

// What the handler must see for a record of `len` bytes carrying `wire`: bytes beyond the
// record are zero except the raw defaults FF FF FF FF at 20 and 00 00 FF FF at 24, then
// every word is reversed.
Body expected_record(const Body& wire, std::size_t len) {
    Body e{};
    const std::uint8_t dflt[8] = {0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0xFF, 0xFF};
    std::memcpy(e.data() + 20, dflt, sizeof dflt);
    const std::size_t present = len >= kFullLen ? kBodyLen : len - kHead;
    std::memcpy(e.data(), wire.data(), present);
    for (const auto& [off, width] : kWords) std::reverse(e.begin() + off, e.begin() + off + width);
    return e;
}

// The expected channel message: type, the byte left unset (ignored), BE16 payload length,
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

// Runs fn on its own thread; a call that does not return ends the process with a message
// instead of hanging the runner.
template <class F>
void bounded(const char* what, F&& fn, int limit_ms = 10000) {
    std::promise<void> done;
    std::future<void> finished = done.get_future();
    std::thread t([&] {
        fn();
        done.set_value();
    });
    if (finished.wait_for(std::chrono::milliseconds(limit_ms)) != std::future_status::ready) {
        std::fprintf(stderr, "FATAL: %s did not return within %d ms\n", what, limit_ms);
        std::fflush(stderr);
        std::_Exit(3);
    }
    t.join();
}

// ---- What the handlers saw -------------------------------------------------------------

struct Delivered {
    int handler;
    std::uint32_t type;
    Body rec;
};

std::mutex g_mu;
std::vector<Delivered> g_delivered;
std::function<void()> g_hook;  // run by the hook handler after recording its event

template <int N>
std::uint32_t on_event(std::uint32_t type, NdEventRecord* rec) {
    Delivered d{N, type, {}};
    std::memcpy(d.rec.data(), rec, kBodyLen);
    {
        const std::lock_guard lock(g_mu);
        g_delivered.push_back(d);
    }
    if (N == 99 && g_hook) g_hook();
    return 0xFFFFFFFFu;  // ignored
}
constexpr NdEventProc kProc = &on_event<0>;
constexpr NdEventProc kHookProc = &on_event<99>;

std::vector<Delivered> delivered() {
    const std::lock_guard lock(g_mu);
    return g_delivered;
}

std::uint32_t host32(const Body& b, std::size_t off) {
    std::uint32_t v;
    std::memcpy(&v, b.data() + off, sizeof v);
    return v;
}
std::uint16_t host16(const Body& b, std::size_t off) {
    std::uint16_t v;
    std::memcpy(&v, b.data() + off, sizeof v);
    return v;
}

// ---- Fixture ---------------------------------------------------------------------------

class NdEventsTest : public PlatformTest {
protected:
    NdEventsTest() {
        ipp_dir_set_master(kMaster);
        g_uiNdEventEpollLoop = 256;
        g_pfNdOpenFlowProc = nullptr;
        const std::lock_guard lock(g_mu);
        g_delivered.clear();
        g_hook = nullptr;
    }
    void TearDown() override {
        EXPECT_EQ(g_stNDEventProcList, nullptr) << "a subscription was left registered";
        while (g_stNDEventProcList != nullptr) ND_DeregEvent(g_stNDEventProcList->iSocket);
        EXPECT_EQ(ipp_kevent_subscriptions(), 0u) << "a kernel-event subscription was left open";
        g_hook = nullptr;
        g_uiNdEventEpollLoop = 256;
        g_pfNdOpenFlowProc = nullptr;
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
    static std::uint32_t proc(int fd) {
        std::uint32_t rc = 0xDEADBEEF;
        bounded("ND_ProcEvent", [&] { rc = ND_ProcEvent(static_cast<std::uint32_t>(fd)); });
        return rc;
    }
    static std::pair<int, int> subscribe(NdPeer& peer, std::size_t index = 0, NdEventProc p = kProc,
                                         std::uint32_t first = 1) {
        const int fd = ND_RegEvent(first, 2, p);
        return {fd, fd >= 0 ? peer.conn(index) : -1};
    }
    static std::size_t list_length() {
        std::size_t n = 0;
        for (const NdEventProcNode* r = g_stNDEventProcList; r != nullptr; r = r->pstNext) ++n;
        return n;
    }
};

// ---- Edge cases ------------------------------------------------------------------------

TEST_F(NdEventsTest, RecordOf40BytesReadsZeroBeyondItsBodyAndTheTwoDefaults) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(NdPeer::send(svc, record(40, 3, 0x0A0B0C0D)));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].type, 3u);
    EXPECT_EQ(host32(got[0].rec, 0), 0x0A0B0C0Du);
    for (std::size_t k = 4; k < 20; ++k) EXPECT_EQ(got[0].rec[k], k + 1) << "address byte " << k;
    EXPECT_EQ(host32(got[0].rec, 20), 0x15161718u);  // its own: 32 body bytes reach offset 31
    EXPECT_EQ(host32(got[0].rec, 24), 0x191A1B1Cu);
    EXPECT_EQ(host16(got[0].rec, 28), 0x1D1Eu);
    EXPECT_EQ(host16(got[0].rec, 30), 0x1F20u);
    for (std::size_t k = 32; k < kBodyLen; ++k) EXPECT_EQ(got[0].rec[k], 0) << "byte " << k;
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, RecordOf40BytesWithoutOffsets20And24ReadsTheirDefaults) {
    // A 40-byte record whose body reaches no further than offset 19 is a 28-byte one; the
    // defaults show at 20 and 24 and everything from 32 on is zero.
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(NdPeer::send(svc, concat({record(28, 1, 0x01020304), record(40, 2, 0x05060708)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(host32(got[0].rec, 20), 0xFFFFFFFFu);
    EXPECT_EQ(host32(got[0].rec, 24), 0x0000FFFFu);
    for (std::size_t k = 28; k < kBodyLen; ++k) EXPECT_EQ(got[0].rec[k], 0) << "byte " << k;
    for (std::size_t k = 32; k < kBodyLen; ++k) EXPECT_EQ(got[1].rec[k], 0) << "byte " << k;
    EXPECT_EQ(got[1].rec, expected_record(wire_body(0x05060708), 40));
    ND_DeregEvent(fd);
}

std::uint64_t g_counted = 0;
std::uint32_t count_event(std::uint32_t, NdEventRecord*) {
    ++g_counted;
    return 0;
}

TEST_F(NdEventsTest, ProcEventDrainsWithoutAnAllocation) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer, 0, count_event);
    ASSERT_GE(fd, 0);
    // Whole (aligned and not), short and skipped records over several datagrams.
    const Bytes datagram = concat({record(72, 1, 1), record(40, 2, 2), record(72, 16, 3), record(100, 4, 4), record(72, 5, 5)});
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(NdPeer::send(svc, datagram));
    g_counted = 0;
    std::uint64_t allocations = 0;
    {
        const AllocationScope scope;
        EXPECT_EQ(ND_ProcEvent(static_cast<std::uint32_t>(fd)), 0u);
        allocations = scope.count();
    }
    EXPECT_EQ(g_counted, 8u * 4u);
    if (allocations_observable()) {
        EXPECT_EQ(allocations, 0u);
    }
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, RecordOfExactly72BytesIsConvertedWhole) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(NdPeer::send(svc, concat({record(72, 4, 0x11121314), record(72, 5, 0x21222324)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].rec, expected_record(wire_body(0x11121314), 72));
    EXPECT_EQ(got[1].rec, expected_record(wire_body(0x21222324), 72));
    EXPECT_EQ(host32(got[0].rec, 52), 0x35363738u);
    EXPECT_EQ(host16(got[0].rec, 60), 0x3D3Eu);
    EXPECT_EQ(got[0].rec[62], 0x3F);
    EXPECT_EQ(got[0].rec[63], 0x40);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, RecordOf100BytesDeliversItsFirst64BodyBytesAndTheWalkMovesOnBy100) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    Bytes big = record(100, 6, 0x0C0C0C0C);
    // The 28 bytes past the first 64 of the body look like a record header: a walk that
    // moved on by 72 would find it.
    const Bytes decoy = record(28, 1, 0xDEC0DEC0u);
    std::copy(decoy.begin(), decoy.end(), big.begin() + 72);
    ASSERT_TRUE(NdPeer::send(svc, concat({big, record(72, 7, 0x77777777)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].type, 6u);
    EXPECT_EQ(got[0].rec, expected_record(wire_body(0x0C0C0C0C), 100));
    EXPECT_EQ(got[1].type, 7u);
    EXPECT_EQ(host32(got[1].rec, 0), 0x77777777u);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, RecordOfType16IsSkippedWithoutTheHandlerAndTheWalkMovesOnByItsLength) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(NdPeer::send(svc, concat({record(8, 16, 0), record(72, 16, 1), record(13, 16, 2),
                                          record(72, 15, 3), record(100, 16, 4), record(20, 0, 5)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].type, 15u);
    EXPECT_EQ(host32(got[0].rec, 0), 3u);
    EXPECT_EQ(got[1].type, 0u);
    EXPECT_EQ(host32(got[1].rec, 0), 5u);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, TypesOutOfRangeAreSkippedAndTheFollowingRecordsDelivered) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(NdPeer::send(svc, concat({record(72, 17, 1), record(72, 0x100, 2), record(72, 0x01000000u, 3),
                                          record(72, 0xFFFFFFFFu, 4), record(24, 9, 5), record(72, 0x80000000u, 6)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].type, 9u);
    EXPECT_EQ(host32(got[0].rec, 0), 5u);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, DatagramOf7BytesOrFewerDeliversNothingAndTheDrainContinues) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    const Bytes full = record(72, 1, 9);
    for (std::size_t n = 1; n <= 7; ++n) {
        ASSERT_TRUE(NdPeer::send(svc, Bytes(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n))));
    }
    ASSERT_TRUE(NdPeer::send(svc, record(72, 2, 0x0B0B0B0B)));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 1u) << "the drain went past the short datagrams";
    EXPECT_EQ(got[0].type, 2u);
    EXPECT_EQ(host32(got[0].rec, 0), 0x0B0B0B0Bu);
    const auto recvs = log(IPP_CALL_RECV, fd);
    ASSERT_EQ(recvs.size(), 9u);
    for (std::size_t i = 0; i < 7; ++i) EXPECT_EQ(recvs[i].result, static_cast<int>(i + 1));
    EXPECT_EQ(recvs[8].result, -1);
    EXPECT_EQ(recvs[8].err, EAGAIN);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, EpollLoopZeroMakesProcEventReadNothing) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(NdPeer::send(svc, record(72, 1, 1)));
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
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    for (std::uint32_t i = 0; i < 3; ++i) ASSERT_TRUE(NdPeer::send(svc, record(72, 1, i)));
    g_uiNdEventEpollLoop = 1;
    for (std::uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(proc(fd), 0u);
        const auto got = delivered();
        ASSERT_EQ(got.size(), i + 1);
        EXPECT_EQ(host32(got.back().rec, 0), i);
        EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), i + 1);
    }
    EXPECT_EQ(proc(fd), 0u);  // nothing left: one failed receive
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 4u);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, DeregEventOnANeverRegisteredDescriptorStillClosesIt) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    ND_DeregEvent(pair[0]);
    EXPECT_FALSE(is_open(pair[0]));
    const auto closes = log(IPP_CALL_CLOSE);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0].fd, pair[0]);
    EXPECT_EQ(closes[0].result, 0);
    EXPECT_TRUE(NdPeer::peer_closed(pair[1]));
    ::close(pair[1]);
}

std::vector<const void*> g_notified;
std::vector<Bytes> g_notified_values;
template <std::uint64_t R>
std::uint64_t on_error(const void* value) {
    g_notified.push_back(value);
    return R;
}
std::uint64_t on_error_copy(const void* value) {
    g_notified.push_back(value);
    const auto* v = static_cast<const std::uint8_t*>(value);
    g_notified_values.emplace_back(v, v + 6);
    return 0x1122334455667788ull + g_notified.size();
}

TEST_F(NdEventsTest, RegErrorAsyncNotifyWhoseSubscriptionFailsStillReplacesTheHandler) {
    g_pfNdOpenFlowProc = &on_error<1>;
    ipp_kevent_fail_subscribe(-7);
    EXPECT_EQ(ND_RegErrorAsyncNotify(&on_error<2>), -7);
    EXPECT_EQ(g_pfNdOpenFlowProc, &on_error<2>);
    EXPECT_EQ(ipp_kevent_subscriptions(), 0u);
    ipp_kevent_fail_subscribe(-1);
    EXPECT_EQ(ND_RegErrorAsyncNotify(nullptr), -1);
    EXPECT_EQ(g_pfNdOpenFlowProc, nullptr) << "a null handler replaces it too";
}

TEST_F(NdEventsTest, DeRegErrorAsyncNotifyWithMinus5ReturnsMinus5WithoutCallingThePlatform) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error<3>);
    ASSERT_GE(kfd, 0);
    const std::uint64_t calls_before = ipp_call_count(IPP_CALL_CLOSE);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(-5), -5);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(INT32_MIN), INT32_MIN);
    EXPECT_EQ(ipp_kevent_subscriptions(), 1u) << "no subscription was ended";
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), calls_before);
    EXPECT_EQ(ipp_kevent_post(kErrorClass, "\0\0\0\0", 4), 1u) << "still subscribed";
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

// ---- Subscription messages -------------------------------------------------------------

TEST_F(NdEventsTest, RegEventConnectsToTheSystemMasterPort11554WithTimeoutsAndSendsType19) {
    NdPeer peer(kMaster);
    const int fd = ND_RegEvent(0x11223344u, 0xA1B2C3D4u, kProc);
    ASSERT_GE(fd, 0);
    Bytes payload;
    put32(payload, 0x11223344u);
    put32(payload, 0);
    put32(payload, 0xA1B2C3D4u);
    expect_message(peer.first_message(0), message(19, 1, payload));

    const auto sockets = log(IPP_CALL_SOCKET);
    ASSERT_EQ(sockets.size(), 1u);
    EXPECT_EQ(sockets[0].domain, 37);
    EXPECT_EQ(sockets[0].result, fd);
    const auto opts = log(IPP_CALL_SETSOCKOPT, fd);
    ASSERT_EQ(opts.size(), 2u);
    const int options[2] = {kOptSendTimeout, kOptRecvTimeout};
    const std::int64_t seconds[2] = {5, 2};
    for (std::size_t i = 0; i < 2; ++i) {
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
    ASSERT_EQ(connects[0].addr_len, 16u);
    Bytes want{16, 37};
    put16(want, kNdPort);
    put16(want, kMaster);
    EXPECT_EQ(std::memcmp(connects[0].addr, want.data(), want.size()), 0);
    const auto sends = log(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(sends[0].length, 18u);

    // The node: zero-filled, the handler and descriptor stored, linked at the head.
    ASSERT_NE(g_stNDEventProcList, nullptr);
    EXPECT_EQ(g_stNDEventProcList->iSocket, fd);
    EXPECT_EQ(g_stNDEventProcList->pfProc, kProc);
    EXPECT_EQ(g_stNDEventProcList->pstNext, nullptr);
    EXPECT_EQ(g_stNDEventProcList->ppstPrev, &g_stNDEventProcList);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, RegEventFollowsTheMasterNode) {
    ipp_dir_set_master(0x0777);
    NdPeer peer(0x0777);
    const int fd = ND_RegEvent(5, 6, kProc);
    ASSERT_GE(fd, 0);
    Bytes payload;
    put32(payload, 5);
    put32(payload, 0);
    put32(payload, 6);
    expect_message(peer.first_message(0), message(19, 1, payload));
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, BatchReplayIsABareHeaderType36WithCountZeroSentWithoutWaiting) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ND_RequestBatchEvent(fd);
    const Bytes got = NdPeer::recv(svc);
    ASSERT_EQ(got.size(), 6u);
    expect_message(got, message(36, 0, {}));
    const auto sends = log(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[1].flags, MSG_DONTWAIT);
    EXPECT_EQ(sends[1].length, 6u);
    ND_DeregEvent(fd);
}

Bytes key_payload(const NdBatchKey& k) {
    Bytes p;
    put32(p, k.uiWord0);
    put32(p, k.uiWord4);
    p.push_back(k.aucField8[0]);
    p.push_back(k.aucField8[1]);
    put16(p, k.usWord10);
    return p;
}

TEST_F(NdEventsTest, BatchByVsiSendsType40WithTheKeyConvertedBlocking) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    const NdBatchKey key{0x01020304u, 0xA5B6C7D8u, {0x9A, 0x3B}, 0x0C0Du};
    EXPECT_EQ(ND_RequestBatchByVsi(fd, &key), 0u);
    const Bytes want = message(40, 1, key_payload(key));
    expect_message(NdPeer::recv(svc), want);
    // Written out: the bytes at 8 as given, the words big-endian.
    expect_message(want, message(40, 1, {0x01, 0x02, 0x03, 0x04, 0xA5, 0xB6, 0xC7, 0xD8, 0x9A, 0x3B, 0x0C, 0x0D}));
    const auto sends = log(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[1].flags, 0);
    EXPECT_EQ(sends[1].length, 18u);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, BatchByIFSendsType65WithTheKeyConvertedBlocking) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    const NdBatchKey key{0xF1E2D3C4u, 0x00000102u, {0x01, 0xFE}, 0xABCDu};
    EXPECT_EQ(ND_RequestBatchByIF(fd, &key), 0u);
    expect_message(NdPeer::recv(svc), message(65, 1, key_payload(key)));
    const auto sends = log(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[1].flags, 0);
    EXPECT_EQ(sends[1].length, 18u);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, ConcernedAddressMessagesCarryTheAddressAsGivenAndTheWordBigEndian) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    NdIPv6Addr addr{};
    for (std::size_t k = 0; k < 16; ++k) addr.aucAddr[k] = static_cast<std::uint8_t>(0xF0 - k * 3);
    Bytes payload(addr.aucAddr, addr.aucAddr + 16);
    put32(payload, 0x01020304u);
    EXPECT_EQ(ND_AddConcernedIPv6(fd, 0x01020304u, addr), 0u);
    expect_message(NdPeer::recv(svc), message(67, 1, payload));
    payload.resize(16);
    put32(payload, 0xFFEE0011u);
    EXPECT_EQ(ND_DelConcernedIPv6(fd, 0xFFEE0011u, addr), 0u);
    expect_message(NdPeer::recv(svc), message(68, 1, payload));
    const auto sends = log(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 3u);
    for (const auto& s : sends) EXPECT_EQ(s.flags, MSG_DONTWAIT);
    EXPECT_EQ(sends[1].length, 26u);
    EXPECT_EQ(sends[2].length, 26u);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, SubscriptionRequestsReportAFailedOrShortSend) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    const NdBatchKey key{1, 2, {3, 4}, 5};
    const NdIPv6Addr addr{};
    ipp_fault_inject(IPP_CALL_SEND, 4, EAGAIN);
    EXPECT_EQ(ND_AddConcernedIPv6(fd, 1, addr), kFailed);
    EXPECT_EQ(ND_DelConcernedIPv6(fd, 1, addr), kFailed);
    EXPECT_EQ(ND_RequestBatchByVsi(fd, &key), kFailed);
    EXPECT_EQ(ND_RequestBatchByIF(fd, &key), kFailed);
    ipp_fault_short_send(1, 10);
    EXPECT_EQ(ND_RequestBatchByIF(fd, &key), kFailed);
    ipp_fault_inject(IPP_CALL_SEND, 1, EPIPE);
    ND_RequestBatchEvent(fd);  // no status: the failure is dropped
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u + 4u + 1u + 1u);
    EXPECT_EQ(ND_AddConcernedIPv6(fd, 1, addr), 0u) << "the subscription still works";
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, NegativeDescriptorsAreRefusedBeforeAnythingIsSent) {
    const NdBatchKey key{1, 2, {3, 4}, 5};
    const NdIPv6Addr addr{};
    EXPECT_EQ(ND_ProcEvent(0xFFFFFFFFu), kFailed);
    EXPECT_EQ(ND_AddConcernedIPv6(-1, 1, addr), kFailed);
    EXPECT_EQ(ND_DelConcernedIPv6(-3, 1, addr), kFailed);
    EXPECT_EQ(ND_RequestBatchByVsi(-1, &key), kFailed);
    EXPECT_EQ(ND_RequestBatchByIF(-1, &key), kFailed);
    ND_RequestBatchEvent(-1);
    ND_DeregEvent(-1);
    ND_DeregEvent(-100);
    for (int c = 0; c < IPP_CALL_COUNT; ++c) {
        EXPECT_EQ(ipp_call_count(static_cast<ipp_call>(c)), 0u) << "call kind " << c;
    }
}

TEST_F(NdEventsTest, NullBatchKeysAreRefusedBeforeAnythingIsSent) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ND_RequestBatchByVsi(fd, nullptr), kFailed);
    EXPECT_EQ(ND_RequestBatchByIF(fd, nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);  // the subscription only
    ND_DeregEvent(fd);
}

// ---- Conversion of event records -------------------------------------------------------

TEST_F(NdEventsTest, RecordFieldsAreConvertedToHostOrderFieldByField) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(NdPeer::send(svc, record(72, 11, 0x01020304)));  // body bytes 01 02 ... 40
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].type, 11u);
    NdEventRecord r;
    std::memcpy(&r, got[0].rec.data(), sizeof r);
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
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, FullRecordsWithOtherBytesMatchTheModelAndAreConvertedOnce) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    Body wire{};
    for (std::size_t k = 0; k < kBodyLen; ++k) wire[k] = static_cast<std::uint8_t>(0xF3 - 7 * k);
    ASSERT_TRUE(NdPeer::send(svc, concat({record(72, 4, wire), record(72, 4, wire), record(90, 4, wire)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 3u);
    for (const auto& d : got) EXPECT_EQ(d.rec, expected_record(wire, 72));
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, ShortRecordsOfEveryLengthFrom8To80MatchTheModel) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    Body other{};
    for (std::size_t k = 0; k < kBodyLen; ++k) other[k] = static_cast<std::uint8_t>(0xC0 + k);
    for (std::uint32_t len = 8; len <= 80; ++len) {
        const Body wire = wire_body(0x51525354);
        const std::uint32_t type = len % 16;
        // A full record first (leaves nothing behind), the short one, then a marker record
        // that shows where the walk found the next one.
        ASSERT_TRUE(NdPeer::send(svc, concat({record(72, 1, other), record(len, type, wire),
                                              record(72, 15, 0xC0FFEE00u + len)})));
        EXPECT_EQ(proc(fd), 0u);
        const auto got = delivered();
        ASSERT_EQ(got.size(), 3u * (len - 7)) << "length " << len;
        const Delivered& d = got[got.size() - 2];
        EXPECT_EQ(d.type, type);
        EXPECT_EQ(d.rec, expected_record(wire, len)) << "length " << len;
        EXPECT_EQ(host32(got.back().rec, 0), 0xC0FFEE00u + len) << "length " << len;
    }
    const auto got = delivered();
    const Body& header_only = got[1].rec;  // length 8: every field a default
    EXPECT_EQ(host32(header_only, 0), 0u);
    EXPECT_EQ(host32(header_only, 20), 0xFFFFFFFFu);
    EXPECT_EQ(host32(header_only, 24), 0x0000FFFFu);
    const Body& inside = got[3 * (30 - 8) + 1].rec;  // 22 body bytes: 20 and 21 are its own
    EXPECT_EQ(host32(inside, 20), 0x1516FFFFu);
    EXPECT_EQ(host32(inside, 24), 0x0000FFFFu);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, ShortRecordAfterAnotherShortRecordStartsFromTheDefaults) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    Body other{};
    for (std::size_t k = 0; k < kBodyLen; ++k) other[k] = static_cast<std::uint8_t>(0x80 + k);
    ASSERT_TRUE(NdPeer::send(svc, concat({record(70, 1, other), record(12, 2, 0x01020304), record(40, 3, other),
                                          record(72, 17, other), record(9, 4, other)})));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].rec, expected_record(other, 70));
    EXPECT_EQ(got[1].rec, expected_record(wire_body(0x01020304), 12));
    EXPECT_EQ(got[2].rec, expected_record(other, 40));
    EXPECT_EQ(got[3].rec, expected_record(other, 9));
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, EveryTypeFrom0To15IsDelivered) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    Bytes datagram;
    for (std::uint32_t t = 0; t <= 16; ++t) {
        const Bytes r = record(72, t, 100 + t);
        datagram.insert(datagram.end(), r.begin(), r.end());
    }
    ASSERT_TRUE(NdPeer::send(svc, datagram));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 16u);
    for (std::uint32_t t = 0; t < 16; ++t) {
        EXPECT_EQ(got[t].type, t);
        EXPECT_EQ(host32(got[t].rec, 0), 100 + t);
    }
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, FullDatagramOf56RecordsIsDeliveredInOrderWithOneReceiveOf4096) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    Bytes datagram;
    for (std::uint32_t i = 0; i < 4096 / kFullLen; ++i) {
        const Bytes r = record(72, i % 16, i);
        datagram.insert(datagram.end(), r.begin(), r.end());
    }
    datagram.resize(4096, 0);  // 64 trailing zero bytes: a record of length 0 ends the walk
    ASSERT_TRUE(NdPeer::send(svc, datagram));
    EXPECT_EQ(proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 56u);
    for (std::uint32_t i = 0; i < 56; ++i) EXPECT_EQ(host32(got[i].rec, 0), i);
    const auto recvs = log(IPP_CALL_RECV, fd);
    ASSERT_EQ(recvs.size(), 2u);
    EXPECT_EQ(recvs[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(recvs[0].length, 4096u);
    EXPECT_EQ(recvs[0].result, 4096);
    ND_DeregEvent(fd);
}

// ---- The loop bound --------------------------------------------------------------------

TEST_F(NdEventsTest, ProcEventWith300QueuedDatagramsReads256AndLeavesTheRest) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(g_uiNdEventEpollLoop, 256u) << "the default bound";
    for (std::uint32_t i = 0; i < 300; ++i) {
        ASSERT_TRUE(NdPeer::send_now(svc, record(72, i % 16, i))) << "datagram " << i;
    }
    EXPECT_EQ(proc(fd), 0u);
    auto got = delivered();
    ASSERT_EQ(got.size(), 256u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 256u) << "no read beyond the bound";
    EXPECT_EQ(proc(fd), 0u);
    got = delivered();
    ASSERT_EQ(got.size(), 300u);
    for (std::uint32_t i = 0; i < 300; ++i) EXPECT_EQ(host32(got[i].rec, 0), i);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 256u + 45u);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, EpollLoopIsReadAgainOnEveryPass) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer, 0, kHookProc);
    ASSERT_GE(fd, 0);
    for (std::uint32_t i = 0; i < 10; ++i) ASSERT_TRUE(NdPeer::send(svc, record(72, 1, i)));
    g_uiNdEventEpollLoop = 8;
    g_hook = [] {
        if (delivered().size() == 3) g_uiNdEventEpollLoop = 4;  // lowered during the drain
    };
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_EQ(delivered().size(), 4u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 4u);
    g_hook = nullptr;
    g_uiNdEventEpollLoop = 256;
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_EQ(delivered().size(), 10u);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, ProcEventWithNothingQueuedReadsOnceAndReturnsZero) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(proc(fd), 0u);
    const auto recvs = log(IPP_CALL_RECV, fd);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].err, EAGAIN);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, ProcEventOnAnUnregisteredDescriptorFailsWithoutReading) {
    EXPECT_EQ(ND_ProcEvent(12345), kFailed);
    EXPECT_EQ(ND_ProcEvent(0), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(NdEventsTest, ReceivePassWithoutAHandlerFailsWithoutReading) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(NdPeer::send(svc, record(72, 1, 1)));
    EXPECT_EQ(nd_RecvEvents(fd, nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    EXPECT_EQ(nd_RecvEvents(fd, kProc), 0u);
    EXPECT_EQ(delivered().size(), 1u);
    EXPECT_EQ(nd_RecvEvents(fd, kProc), kFailed) << "nothing more to read";
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, SubscriptionWithoutAHandlerIsKeptButReadsNothing) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer, 0, nullptr);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(list_length(), 1u);
    EXPECT_EQ(g_stNDEventProcList->pfProc, nullptr);
    ASSERT_TRUE(NdPeer::send(svc, record(72, 1, 1)));
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    ND_DeregEvent(fd);
}

// ---- Malformed datagrams ---------------------------------------------------------------
//
// A full datagram is read first, so that the receive buffer holds well-formed records past
// the end of the malformed datagram read into it next: a record read beyond what was
// received would show up as an extra event.

class NdEventsMalformedTest : public NdEventsTest {
protected:
    void run(const Bytes& malformed, std::size_t expected_from_malformed) {
        NdPeer peer(kMaster);
        const auto [fd, svc] = subscribe(peer);
        ASSERT_GE(fd, 0);
        Bytes full;
        for (std::uint32_t i = 0; i < 56; ++i) {
            const Bytes r = record(72, 6, 0xAA000000u + i);
            full.insert(full.end(), r.begin(), r.end());
        }
        const std::uint64_t recvs_before = ipp_call_count(IPP_CALL_RECV);
        ASSERT_TRUE(NdPeer::send(svc, full));
        ASSERT_TRUE(NdPeer::send(svc, malformed));
        ASSERT_TRUE(NdPeer::send(svc, record(72, 9, 0x99999999u)));  // still delivered
        EXPECT_EQ(proc(fd), 0u);
        const auto got = delivered();
        ASSERT_EQ(got.size(), 56u + expected_from_malformed + 1u);
        for (std::size_t i = 56; i < 56 + expected_from_malformed; ++i) {
            EXPECT_EQ(host32(got[i].rec, 0) & 0xFF000000u, 0xBB000000u) << "event " << i;
        }
        EXPECT_EQ(host32(got.back().rec, 0), 0x99999999u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_RECV) - recvs_before, 4u);
        ND_DeregEvent(fd);
    }
};

TEST_F(NdEventsMalformedTest, RecordLengthZeroEndsTheDatagram) {
    run(concat({record(72, 1, 0xBB000001u), record(72, 2, 0xBB000002u), record(0, 3, 0)}), 2);
}

TEST_F(NdEventsMalformedTest, RecordLengthZeroWithAFullRecordBehindItEndsTheDatagram) {
    Bytes zero = record(72, 3, 0xBB000003u);
    zero[3] = 0;
    run(concat({record(72, 1, 0xBB000001u), zero, record(72, 4, 0xBB000004u)}), 1);
}

TEST_F(NdEventsMalformedTest, RecordLengthUnderEightEndsTheDatagram) {
    for (std::uint8_t len = 1; len < 8; ++len) {
        Bytes bad = record(72, 3, 0xBB000003u);
        bad[3] = len;
        SCOPED_TRACE(static_cast<int>(len));
        run(concat({record(24, 1, 0xBB000001u), bad, record(72, 4, 0xBB000004u)}), 1);
        const std::lock_guard lock(g_mu);
        g_delivered.clear();
    }
}

TEST_F(NdEventsMalformedTest, SkippedTypeWithALengthUnderEightEndsTheDatagram) {
    for (std::uint8_t len = 0; len < 8; ++len) {
        Bytes bad = record(72, 16, 0xBB000003u);
        bad[3] = len;
        SCOPED_TRACE(static_cast<int>(len));
        run(concat({record(72, 1, 0xBB000001u), bad, record(72, 4, 0xBB000004u)}), 1);
        const std::lock_guard lock(g_mu);
        g_delivered.clear();
    }
}

TEST_F(NdEventsMalformedTest, RecordLongerThanWhatRemainsEndsTheDatagram) {
    Bytes longer = record(72, 3, 0xBB000003u);
    longer[2] = 0x01;  // claims 328 bytes, 72 remain
    run(concat({record(72, 1, 0xBB000001u), longer}), 1);
}

TEST_F(NdEventsMalformedTest, RecordOneByteLongerThanWhatRemainsEndsTheDatagram) {
    Bytes longer = record(40, 3, 0xBB000003u);
    longer[3] = 41;
    run(concat({record(72, 1, 0xBB000001u), longer}), 1);
}

TEST_F(NdEventsMalformedTest, HugeRecordLengthEndsTheDatagram) {
    Bytes huge = record(72, 3, 0xBB000003u);
    huge[0] = huge[1] = huge[2] = huge[3] = 0xFF;
    run(concat({huge, record(72, 1, 0xBB000001u)}), 0);
}

TEST_F(NdEventsMalformedTest, SkippedTypeWithALengthBeyondTheDatagramEndsIt) {
    Bytes longer = record(72, 30, 0xBB000003u);
    longer[3] = 200;
    run(concat({record(72, 1, 0xBB000001u), longer}), 1);
}

TEST_F(NdEventsMalformedTest, TrailingBytesShorterThanAHeaderAreIgnored) {
    Bytes tail = record(72, 1, 0xBB000001u);
    tail.insert(tail.end(), {0, 0, 0, 72, 0, 0, 0});
    run(tail, 1);
}

TEST_F(NdEventsMalformedTest, RecordEndingExactlyAtTheDatagramEndIsDelivered) {
    run(concat({record(72, 1, 0xBB000001u), record(33, 2, 0xBB000002u)}), 2);
}

// ---- Subscriptions and the list --------------------------------------------------------

TEST_F(NdEventsTest, SeveralSubscriptionsAreListedNewestFirstAndEachGetsItsOwnEvents) {
    NdPeer peer(kMaster, 3);
    const int a = ND_RegEvent(0xA, 0, &on_event<1>);
    const int b = ND_RegEvent(0xB, 0, &on_event<2>);
    const int c = ND_RegEvent(0xC, 0, &on_event<3>);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ASSERT_GE(c, 0);
    const int sa = peer.conn_for(0xA, 3), sb = peer.conn_for(0xB, 3), sc = peer.conn_for(0xC, 3);
    ASSERT_GE(sa, 0);
    ASSERT_GE(sb, 0);
    ASSERT_GE(sc, 0);

    NdEventProcNode* first = g_stNDEventProcList;
    ASSERT_EQ(list_length(), 3u);
    EXPECT_EQ(first->iSocket, c);
    EXPECT_EQ(first->ppstPrev, &g_stNDEventProcList);
    EXPECT_EQ(first->pstNext->iSocket, b);
    EXPECT_EQ(first->pstNext->ppstPrev, &first->pstNext);
    EXPECT_EQ(first->pstNext->pstNext->iSocket, a);
    EXPECT_EQ(first->pstNext->pstNext->ppstPrev, &first->pstNext->pstNext);

    ASSERT_TRUE(NdPeer::send(sa, record(72, 1, 0xA1)));
    ASSERT_TRUE(NdPeer::send(sb, record(72, 2, 0xB1)));
    ASSERT_TRUE(NdPeer::send(sc, record(72, 3, 0xC1)));
    EXPECT_EQ(proc(b), 0u);
    EXPECT_EQ(proc(c), 0u);
    EXPECT_EQ(proc(a), 0u);
    auto got = delivered();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].handler, 2);
    EXPECT_EQ(got[1].handler, 3);
    EXPECT_EQ(got[2].handler, 1);

    ND_DeregEvent(b);  // the middle one
    EXPECT_TRUE(NdPeer::peer_closed(sb));
    ASSERT_EQ(list_length(), 2u);
    first = g_stNDEventProcList;
    EXPECT_EQ(first->iSocket, c);
    EXPECT_EQ(first->pstNext->iSocket, a);
    EXPECT_EQ(first->pstNext->ppstPrev, &first->pstNext);
    EXPECT_EQ(ND_ProcEvent(static_cast<std::uint32_t>(b)), kFailed);

    ND_DeregEvent(c);  // the head
    ASSERT_EQ(list_length(), 1u);
    EXPECT_EQ(g_stNDEventProcList->iSocket, a);
    EXPECT_EQ(g_stNDEventProcList->ppstPrev, &g_stNDEventProcList);
    ASSERT_TRUE(NdPeer::send(sa, record(72, 1, 0xA2)));
    EXPECT_EQ(proc(a), 0u);
    got = delivered();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[3].handler, 1);
    EXPECT_EQ(host32(got[3].rec, 0), 0xA2u);
    ND_DeregEvent(a);
    EXPECT_EQ(g_stNDEventProcList, nullptr);
}

TEST_F(NdEventsTest, DeregEventOfTheTailKeepsTheOthers) {
    NdPeer peer(kMaster, 2);
    const int a = ND_RegEvent(0xA, 0, &on_event<1>);
    const int b = ND_RegEvent(0xB, 0, &on_event<2>);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ND_DeregEvent(a);
    ASSERT_EQ(list_length(), 1u);
    EXPECT_EQ(g_stNDEventProcList->iSocket, b);
    EXPECT_EQ(g_stNDEventProcList->pstNext, nullptr);
    EXPECT_EQ(proc(b), 0u);
    ND_DeregEvent(b);
}

TEST_F(NdEventsTest, DeregEventForgetsTheSubscriptionAndClosesTheDescriptor) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ND_DeregEvent(fd);
    EXPECT_EQ(g_stNDEventProcList, nullptr);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(NdPeer::peer_closed(svc));
    EXPECT_EQ(ND_ProcEvent(static_cast<std::uint32_t>(fd)), kFailed);
}

TEST_F(NdEventsTest, HandlerThatDeregistersItsOwnSubscriptionFinishesTheDatagramAndStops) {
    NdPeer peer(kMaster);
    const auto [fd, svc] = subscribe(peer, 0, kHookProc);
    ASSERT_GE(fd, 0);
    int calls = 0;
    g_hook = [&calls, fd = fd] {
        if (++calls == 1) ND_DeregEvent(fd);
    };
    ASSERT_TRUE(NdPeer::send(svc, concat({record(72, 1, 1), record(72, 1, 2)})));
    ASSERT_TRUE(NdPeer::send(svc, record(72, 1, 3)));
    EXPECT_EQ(proc(fd), 0u);
    EXPECT_EQ(delivered().size(), 2u);
    EXPECT_EQ(g_stNDEventProcList, nullptr);
    const auto recvs = log(IPP_CALL_RECV, fd);
    ASSERT_EQ(recvs.size(), 2u);
    EXPECT_EQ(recvs[1].err, EBADF);
}

TEST_F(NdEventsTest, HandlerCanRegisterAnotherSubscription) {
    NdPeer peer(kMaster, 2);
    const auto [fd, svc] = subscribe(peer, 0, kHookProc, 0x1111);
    ASSERT_GE(fd, 0);
    int added = -1;
    g_hook = [&added] {
        if (added < 0) added = ND_RegEvent(0x2222, 0, &on_event<5>);
    };
    ASSERT_TRUE(NdPeer::send(svc, record(72, 1, 1)));
    EXPECT_EQ(proc(fd), 0u);
    ASSERT_GE(added, 0);
    ASSERT_EQ(list_length(), 2u);
    EXPECT_EQ(g_stNDEventProcList->iSocket, added);
    ND_DeregEvent(added);
    ND_DeregEvent(fd);
}

// ---- Threads -----------------------------------------------------------------------------

TEST_F(NdEventsTest, ThreadsRegisterDrainAndDeregisterTheirOwnSubscriptionsAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 10;
    NdPeer peer(kMaster, kThreads * kRounds);
    std::atomic<int> failures{0};
    bounded(
        "concurrent subscriptions",
        [&] {
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t) {
                threads.emplace_back([&failures, t] {
                    for (int r = 0; r < kRounds; ++r) {
                        const int fd = ND_RegEvent(static_cast<std::uint32_t>(t * 100 + r), 0, kProc);
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

// ---- Registration failures and descriptor leaks ----------------------------------------

class NdEventsRegFailureTest : public NdEventsTest {
protected:
    void expect_clean_failure(std::int32_t rc, const std::set<int>* before) {
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(static_cast<std::uint32_t>(rc), 0xFFFFFFFFu);
        EXPECT_EQ(g_stNDEventProcList, nullptr);
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

TEST_F(NdEventsRegFailureTest, NoServiceListening) {
    const auto before = open_descriptors();
    expect_clean_failure(ND_RegEvent(1, 2, kProc), &before);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(NdEventsRegFailureTest, SocketFails) {
    NdPeer peer(kMaster);
    const auto before = open_descriptors();
    ipp_fault_inject(IPP_CALL_SOCKET, 1, EMFILE);
    expect_clean_failure(ND_RegEvent(1, 2, kProc), &before);
}

TEST_F(NdEventsRegFailureTest, ConnectFails) {
    NdPeer peer(kMaster);
    const auto before = open_descriptors();
    ipp_fault_inject(IPP_CALL_CONNECT, 1, ECONNREFUSED);
    expect_clean_failure(ND_RegEvent(1, 2, kProc), &before);
}

TEST_F(NdEventsRegFailureTest, SendFails) {
    NdPeer peer(kMaster);
    ipp_fault_inject(IPP_CALL_SEND, 1, EAGAIN);
    expect_clean_failure(ND_RegEvent(1, 2, kProc), nullptr);
    const int svc = peer.conn(0);
    ASSERT_GE(svc, 0);
    EXPECT_TRUE(NdPeer::peer_closed(svc));
}

TEST_F(NdEventsRegFailureTest, SendIsShort) {
    NdPeer peer(kMaster);
    ipp_fault_short_send(1, 17);
    expect_clean_failure(ND_RegEvent(1, 2, kProc), nullptr);
    const int svc = peer.conn(0);
    ASSERT_GE(svc, 0);
    EXPECT_EQ(peer.first_message(0).size(), 17u);
    EXPECT_TRUE(NdPeer::peer_closed(svc));
}

TEST_F(NdEventsRegFailureTest, AFailedRegistrationLeavesTheOthersInPlace) {
    NdPeer peer(kMaster, 2);
    const auto [fd, svc] = subscribe(peer);
    ASSERT_GE(fd, 0);
    ipp_fault_inject(IPP_CALL_SEND, 1, EAGAIN);
    EXPECT_EQ(ND_RegEvent(3, 4, &on_event<7>), -1);
    ASSERT_EQ(list_length(), 1u);
    EXPECT_EQ(g_stNDEventProcList->iSocket, fd);
    EXPECT_EQ(g_stNDEventProcList->ppstPrev, &g_stNDEventProcList);
    ND_DeregEvent(fd);
}

TEST_F(NdEventsTest, RepeatedSubscriptionsLeaveNoDescriptorBehind) {
    NdPeer peer(kMaster, 20);
    std::vector<int> svcs;
    for (int i = 0; i < 20; ++i) {
        const int fd = ND_RegEvent(static_cast<std::uint32_t>(i), 0, kProc);
        ASSERT_GE(fd, 0);
        const int svc = peer.conn(static_cast<std::size_t>(i));
        ASSERT_GE(svc, 0);
        ASSERT_TRUE(NdPeer::send(svc, record(72, 1, static_cast<std::uint32_t>(i))));
        EXPECT_EQ(proc(fd), 0u);
        ND_DeregEvent(fd);
        EXPECT_FALSE(is_open(fd));
    }
    EXPECT_EQ(delivered().size(), 20u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 20u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 20u);
    // The fixture compares the open descriptors with those before the test.
}

// ---- Error notifications through kernel events -----------------------------------------

class NdEventsErrorNotifyTest : public NdEventsTest {
protected:
    NdEventsErrorNotifyTest() {
        g_notified.clear();
        g_notified_values.clear();
    }
    // A notification: elements of {BE16 type, BE16 length, value}.
    static Bytes element(std::uint16_t type, const Bytes& value) {
        Bytes b;
        put16(b, type);
        put16(b, static_cast<std::uint16_t>(value.size()));
        b.insert(b.end(), value.begin(), value.end());
        return b;
    }
    static void post(const Bytes& b) {
        ASSERT_EQ(ipp_kevent_post(kErrorClass, b.data(), static_cast<std::uint32_t>(b.size())), 1u);
    }
    static std::uint64_t drain(std::int32_t kfd) {
        std::uint64_t r = 0xDEADBEEF;
        bounded("ND_ErrorAsyncNotifyProc", [&] { r = ND_ErrorAsyncNotifyProc(kfd); });
        return r;
    }
};

TEST_F(NdEventsErrorNotifyTest, RegisterStoresTheHandlerAndSubscribesToTheErrorClass) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error<5>);
    ASSERT_GE(kfd, 0);
    EXPECT_EQ(g_pfNdOpenFlowProc, &on_error<5>);
    EXPECT_EQ(ipp_kevent_subscriptions(), 1u);
    EXPECT_EQ(ipp_kevent_post(kErrorClass + 1, "\0\0\0\0", 4), 0u) << "another class";
    EXPECT_EQ(ipp_kevent_post(kErrorClass, "\0\0\0\0", 4), 1u);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, TypeZeroNotificationsReachTheHandlerWithTheirValue) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error_copy);
    ASSERT_GE(kfd, 0);
    post(element(0, {1, 2, 3, 4, 5, 6}));
    post(element(0, {0xA, 0xB, 0xC, 0xD, 0xE, 0xF, 0x10}));
    EXPECT_EQ(drain(kfd), 0x1122334455667788ull + 2) << "the result of the last handler call";
    ASSERT_EQ(g_notified_values.size(), 2u);
    EXPECT_EQ(g_notified_values[0], (Bytes{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(g_notified_values[1], (Bytes{0xA, 0xB, 0xC, 0xD, 0xE, 0xF}));
    EXPECT_EQ(drain(kfd), 0u) << "nothing queued: no handler call";
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, OtherTypesAreMalformedOnesArePassedOverAndTheDrainGoesOn) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error<7>);
    ASSERT_GE(kfd, 0);
    post(element(0, {1}));
    post(element(1, {2}));
    post(element(0x100, {3}));
    post(Bytes{0, 0, 0});                // shorter than an element header
    post(Bytes{0, 0, 0, 9, 1, 2});       // a length past the notification
    post(element(0xFFFF, {}));
    EXPECT_EQ(drain(kfd), 7u);
    EXPECT_EQ(g_notified.size(), 1u);
    post(element(2, {1}));
    EXPECT_EQ(drain(kfd), 0u) << "no type-0 notification: 0";
    EXPECT_EQ(g_notified.size(), 1u);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, WithoutAHandlerNothingIsCalledAndTheResultIsZero) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(nullptr);
    ASSERT_GE(kfd, 0);
    post(element(0, {1, 2}));
    EXPECT_EQ(drain(kfd), 0u);
    EXPECT_EQ(g_notified.size(), 0u);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, OneCallReadsAtMost50Notifications) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error<9>);
    ASSERT_GE(kfd, 0);
    for (int i = 0; i < 60; ++i) post(element(0, {static_cast<std::uint8_t>(i)}));
    EXPECT_EQ(drain(kfd), 9u);
    EXPECT_EQ(g_notified.size(), 50u);
    EXPECT_EQ(drain(kfd), 9u);
    EXPECT_EQ(g_notified.size(), 60u);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, TheValueLiesWithinTheReceivedNotification) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error_copy);
    ASSERT_GE(kfd, 0);
    Bytes big = element(0, Bytes(600, 0x42));  // more than one read takes
    post(big);
    // The read is cut at 512 bytes: the element claims more than that and is passed over.
    EXPECT_EQ(drain(kfd), 0u);
    EXPECT_TRUE(g_notified.empty());
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, DeregisterUnsubscribesAndKeepsTheHandler) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error<4>);
    ASSERT_GE(kfd, 0);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
    EXPECT_EQ(ipp_kevent_subscriptions(), 0u);
    EXPECT_EQ(g_pfNdOpenFlowProc, &on_error<4>) << "the handler stays stored";
    EXPECT_LT(ND_DeRegErrorAsyncNotify(kfd), 0) << "the platform's answer for an unknown descriptor";
    EXPECT_EQ(drain(kfd), 0u) << "a closed subscription reads nothing";
}

TEST_F(NdEventsErrorNotifyTest, SecondRegistrationReplacesTheHandlerOfTheProcess) {
    const std::int32_t k1 = ND_RegErrorAsyncNotify(&on_error<1>);
    const std::int32_t k2 = ND_RegErrorAsyncNotify(&on_error<2>);
    ASSERT_GE(k1, 0);
    ASSERT_GE(k2, 0);
    EXPECT_NE(k1, k2);
    const Bytes n = element(0, {1});
    EXPECT_EQ(ipp_kevent_post(kErrorClass, n.data(), static_cast<std::uint32_t>(n.size())), 2u) << "both reached";
    EXPECT_EQ(ipp_kevent_post(kErrorClass, "\0\0\0\0", 4), 2u);
    EXPECT_EQ(drain(k1), 2u) << "one handler for the process";
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(k1), 0);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(k2), 0);
}

// ---- VSI predicates over a stand-in layer-2 VPN library --------------------------------

struct VsiScript {
    std::uint32_t index_status;
    std::uint32_t index_if_number;
    std::uint32_t key_status;
    std::uint32_t key_vsi_index;
    std::uint32_t key_link_id;
    std::uint32_t vxlan;
};
struct VsiSeen {
    std::uint32_t index_calls;
    char index_name[64];
    std::uint32_t index_ifindex;
    int index_cleared;
    std::uint32_t key_calls;
    const void* key_evc;
    std::uint32_t key_vsi_arg;
    int key_cleared;
    std::uint32_t vxlan_calls;
    std::uint32_t vxlan_arg;
};
using VsiSetFn = void (*)(const VsiScript*);
using VsiSeenFn = void (*)(VsiSeen*);

void add_interface(std::uint32_t ifindex, const char* name) {
    ipp_interface itf{};
    itf.ifindex = ifindex;
    itf.node = 0x11;
    std::snprintf(itf.name, sizeof itf.name, "%s", name);
    itf.valid = 1;
    ipp_dir_add_interface(&itf);
}

class NdEventsVsiTest : public NdEventsTest {
protected:
    void SetUp() override {
        ipp_dlopen_redirect("/lib/libl2vpn.so", FAKE_L2VPN_VSI_PATH);
        ASSERT_EQ(ARP_L2VPNAddRef(&table_, &handle_), 0u);
        set_ = reinterpret_cast<VsiSetFn>(dlsym(handle_, "ndvsi_set"));
        seen_ = reinterpret_cast<VsiSeenFn>(dlsym(handle_, "ndvsi_seen"));
        ASSERT_NE(set_, nullptr);
        ASSERT_NE(seen_, nullptr);
    }
    void TearDown() override {
        ARP_L2VPNRelease(handle_);
        NdEventsTest::TearDown();
    }
    void script(const VsiScript& s) { set_(&s); }
    VsiSeen seen() {
        VsiSeen s{};
        seen_(&s);
        return s;
    }

    ARP_L2VPN_FUNC_S table_{};
    void* handle_ = nullptr;
    VsiSetFn set_ = nullptr;
    VsiSeenFn seen_ = nullptr;
};

struct EvcKey {
    std::uint32_t words[4] = {0x11, 0x22, 0x33, 0x44};
};

TEST_F(NdEventsVsiTest, AcIfAndSrvIdInVsiWhenTheKeyNamesThatVsi) {
    const EvcKey evc;
    script({0, 0, 0, 0x00000C0Du, 7, 0});
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, &evc, 0x0C0D), 1u);
    const VsiSeen s = seen();
    EXPECT_EQ(s.key_calls, 1u);
    EXPECT_EQ(s.key_evc, &evc) << "the key is passed through";
    EXPECT_EQ(s.key_vsi_arg, 0x0C0Du);
    EXPECT_EQ(s.key_cleared, 1) << "the 64-bit result is zeroed before the call";
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, &evc, 0x0C0E), 0u) << "another VSI";
}

TEST_F(NdEventsVsiTest, AcIfAndSrvIdInVsiIsFalseOnFailureOrNoVsi) {
    const EvcKey evc;
    script({0, 0, 0x40010001u, 5, 7, 0});
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, &evc, 5), 0u);
    script({0, 0, 0, 0xFFFFFFFFu, 7, 0});
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, &evc, 0xFFFFFFFFu), 0u) << "the index of no VSI never matches";
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, nullptr, 5), 0u);
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(nullptr, &evc, 5), 0u);
    table_.pfGetL2vifKeyByEvcKey = nullptr;
    script({0, 0, 0, 5, 7, 0});
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, &evc, 5), 0u) << "an empty slot";
    EXPECT_EQ(seen().key_calls, 0u);
}

TEST_F(NdEventsVsiTest, VsiIfInVsiComparesAgainstTheIndexOfVsiInterfaceFive) {
    add_interface(0x0102, "Vsi-interface50");
    add_interface(0x0304, "Vsi-interface5");
    add_interface(0x0506, "Vsi-interface6");
    script({0, 5, 0, 0, 0, 0});
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi-green", 0x0304), 1u);
    VsiSeen s = seen();
    EXPECT_EQ(s.index_calls, 1u);
    EXPECT_STREQ(s.index_name, "vsi-green");
    EXPECT_EQ(s.index_ifindex, 0x0304u) << "asked on behalf of the interface";
    EXPECT_EQ(s.index_cleared, 1) << "the 168-byte result is zeroed before the call";
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi-green", 0x0102), 0u);
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi-green", 0x0506), 0u);
    s = seen();
    EXPECT_EQ(s.index_cleared, 1) << "cleared again on every call";
}

TEST_F(NdEventsVsiTest, VsiIfInVsiIsFalseOnFailureNoInterfaceOrAnUnknownNameExceptForIndexZero) {
    add_interface(0x0304, "Vsi-interface5");
    add_interface(0x0777, "Vsi-interface-1");
    script({0x40010001u, 5, 0, 0, 0, 0});
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi", 0x0304), 0u);
    script({0, 0xFFFFFFFFu, 0, 0, 0, 0});
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi", 0x0777), 0u) << "no interface";
    script({0, 9, 0, 0, 0, 0});  // no interface is named Vsi-interface9: the lookup gives 0
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi", 9), 0u);
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi", 0), 1u) << "0 from the lookup equals interface index 0";
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, nullptr, 0x0304), 0u);
    EXPECT_EQ(ND_IsVsiIfInVsi(nullptr, "vsi", 0x0304), 0u);
    table_.pfGetVsiIndexByName = nullptr;
    script({0, 5, 0, 0, 0, 0});
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi", 0x0304), 0u) << "an empty slot";
    EXPECT_EQ(seen().index_calls, 0u);
}

TEST_F(NdEventsVsiTest, VsiContainVxlanIdUnlessTheLibraryAnswersNone) {
    script({0, 0, 0, 0, 0, 0x00ABCDEFu});
    EXPECT_EQ(ND_IsVsiContainVxlanID(&table_, 0x0102), 1u);
    EXPECT_EQ(seen().vxlan_arg, 0x0102u);
    script({0, 0, 0, 0, 0, 0});
    EXPECT_EQ(ND_IsVsiContainVxlanID(&table_, 3), 1u) << "VXLAN id 0 is an id";
    script({0, 0, 0, 0, 0, 0xFFFFFFFFu});
    EXPECT_EQ(ND_IsVsiContainVxlanID(&table_, 3), 0u);
    EXPECT_EQ(ND_IsVsiContainVxlanID(nullptr, 3), 0u);
    table_.pfGetVxlanByVsiIndex = nullptr;
    script({0, 0, 0, 0, 0, 1});
    EXPECT_EQ(ND_IsVsiContainVxlanID(&table_, 3), 0u) << "an empty slot";
    EXPECT_EQ(seen().vxlan_calls, 0u);
}

// ---- Layout of the public records ------------------------------------------------------

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
