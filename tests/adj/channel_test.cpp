// The adjacency message channel: opening connections (time-out options, connect budget,
// addresses), the 6-byte message header, receiving, and the one-shot exchanges of the IPv4
// and IPv6 families with their differences.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "ipclient/adj.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/sock_log.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kNoTimeout = 65535;
constexpr int kOptSend = 0x1005;
constexpr int kOptRecv = 0x1006;

class AdjChannelTest : public PlatformTest {
protected:
    // The seconds and microseconds of a recorded 16-byte time value.
    static void time_value(const ipp_sock_event& ev, std::int64_t* sec, std::int64_t* usec) {
        std::memcpy(sec, ev.value, 8);
        std::memcpy(usec, ev.value + 8, 8);
    }

    static void expect_timeout_option(const ipp_sock_event& ev, int option, std::int64_t seconds) {
        EXPECT_EQ(ev.level, 1);
        EXPECT_EQ(ev.option, option);
        EXPECT_EQ(ev.value_null, 0);
        EXPECT_EQ(ev.value_len, 16u);
        std::int64_t sec = -1, usec = -1;
        time_value(ev, &sec, &usec);
        EXPECT_EQ(sec, seconds);
        EXPECT_EQ(usec, 0);
    }
};

// The expected message: type, the reserved byte (compared separately), BE16 length, BE16
// count, payload.
Bytes message(std::uint8_t type, std::uint16_t len, std::uint16_t count, const Bytes& payload) {
    Bytes b{type, 0};
    put16(b, len);
    put16(b, count);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

// Compares a received message with the expected one, all but byte 1, which the sender
// leaves unset: the received byte 1 is taken from the expected message.
void expect_message(const Bytes& got, const Bytes& want) {
    Bytes seen = got;
    if (seen.size() > 1 && want.size() > 1) seen[1] = want[1];
    EXPECT_EQ(seen, want) << "type, length, count or payload";
}

Bytes counting_bytes(std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(i * 7 + 1);
    return b;
}

bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

// ---- Edge cases ---------------------------------------------------------------------------

TEST_F(AdjChannelTest, SendWithNullPayloadAndALengthFailsBeforeSending) {
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    EXPECT_EQ(ADJ4_Send(34, sv[0], 4, 1, nullptr, 0), kFailed);
    EXPECT_EQ(ADJ6_Send(34, sv[0], 4, 1, nullptr, 0), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u) << "nothing is sent";
    ::close(sv[0]);
    ::close(sv[1]);
}

TEST_F(AdjChannelTest, Adj4SendWithZeroLengthSendsExactlyTheSixByteHeader) {
    Bytes got;
    {
        FakeService svc(0x8000, 11601, [&got](Conn& c) { got = c.recv_message(); });
        const int fd = ADJ4_GetMsgStart(0x8000, 11601, kNoTimeout, kNoTimeout);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(ADJ4_Send(34, fd, 0, 0, nullptr, 0), 0u);
        ADJ4_GetMsgEnd(fd);
    }
    ASSERT_EQ(got.size(), 6u);
    expect_message(got, message(34, 0, 0, {}));
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].length, 6u);
    EXPECT_EQ(sends[0].result, 6);
}

TEST_F(AdjChannelTest, GetMsgStartWithNodeFFFFConnectsToNode8000) {
    {
        // Only a service on node 0x8000 listens; the connection reaches it.
        FakeService svc(0x8000, 11537, [](Conn& c) { c.recv_message(); });
        const int fd = ADJ4_GetMsgStart(0xFFFF, 11537, 5, 2);
        ASSERT_GE(fd, 0);
        ADJ4_GetMsgEnd(fd);
    }
    const auto connects = sock_events(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    EXPECT_EQ(connects[0].result, 0);
    EXPECT_EQ(connects[0].addr_len, 16u);
    const std::uint8_t want[16] = {16, 37, 0x2D, 0x11, 0x80, 0x00};  // port 11537, node 0x8000
    EXPECT_EQ(std::memcmp(connects[0].addr, want, 16), 0);
}

TEST_F(AdjChannelTest, GetMsgStartWithBothTimeoutsDefaultSetsNoSocketOption) {
    FakeService svc(0x8000, 11602, [](Conn& c) { c.recv_message(); });
    const int fd = ADJ4_GetMsgStart(0x8000, 11602, kNoTimeout, kNoTimeout);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SETSOCKOPT), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    timeval tv{1, 1};
    socklen_t len = sizeof tv;
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 0);
    EXPECT_EQ(tv.tv_usec, 0);
    ADJ4_GetMsgEnd(fd);
}

// ---- Opening a connection -----------------------------------------------------------------

TEST_F(AdjChannelTest, GetMsgStartCreatesPointToPointDatagramSocket) {
    FakeService svc(0x8000, 11603, [](Conn& c) { c.recv_message(); });
    const int fd = ADJ4_GetMsgStart(0x8000, 11603, kNoTimeout, kNoTimeout);
    ASSERT_GE(fd, 0);
    expect_one_socket(37, 2, 1, fd);
    ADJ4_GetMsgEnd(fd);
}

TEST_F(AdjChannelTest, GetMsgStartWithBothTimeoutsSetsSendThenReceiveOption) {
    FakeService svc(0x8000, 11604, [](Conn& c) { c.recv_message(); });
    const int fd = ADJ4_GetMsgStart(0x8000, 11604, 5, 2);
    ASSERT_GE(fd, 0);
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 2u);
    expect_timeout_option(opts[0], kOptSend, 5);
    expect_timeout_option(opts[1], kOptRecv, 2);
    EXPECT_EQ(opts[0].fd, fd);
    // The options reach the socket.
    timeval tv{};
    socklen_t len = sizeof tv;
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 5);
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 2);
    ADJ4_GetMsgEnd(fd);
}

TEST_F(AdjChannelTest, GetMsgStartWithDefaultSendTimeoutSetsOnlyReceiveOption) {
    FakeService svc(0x8000, 11605, [](Conn& c) { c.recv_message(); });
    const int fd = ADJ4_GetMsgStart(0x8000, 11605, kNoTimeout, 2);
    ASSERT_GE(fd, 0);
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 1u);
    expect_timeout_option(opts[0], kOptRecv, 2);
    timeval tv{};
    socklen_t len = sizeof tv;
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 0);
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 2);
    ADJ4_GetMsgEnd(fd);
}

TEST_F(AdjChannelTest, GetMsgStartWithDefaultReceiveTimeoutSetsOnlySendOption) {
    FakeService svc(0x8000, 11606, [](Conn& c) { c.recv_message(); });
    const int fd = ADJ4_GetMsgStart(0x8000, 11606, 5, kNoTimeout);
    ASSERT_GE(fd, 0);
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 1u);
    expect_timeout_option(opts[0], kOptSend, 5);
    timeval tv{};
    socklen_t len = sizeof tv;
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 0);
    ADJ4_GetMsgEnd(fd);
}

TEST_F(AdjChannelTest, Adj6GetMsgStartSetsTheSameOptions) {
    FakeService svc(0x8000, 11554, [](Conn& c) { c.recv_message(); }, 3);
    const int both = ADJ6_GetMsgStart(0x8000, 11554, 30, 1);
    const int recv_only = ADJ6_GetMsgStart(0x8000, 11554, kNoTimeout, 7);
    const int none = ADJ6_GetMsgStart(0xFFFF, 11554, kNoTimeout, kNoTimeout);
    ASSERT_GE(both, 0);
    ASSERT_GE(recv_only, 0);
    ASSERT_GE(none, 0);
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 3u);
    expect_timeout_option(opts[0], kOptSend, 30);
    expect_timeout_option(opts[1], kOptRecv, 1);
    expect_timeout_option(opts[2], kOptRecv, 7);
    EXPECT_EQ(opts[2].fd, recv_only);
    const auto connects = sock_events(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 3u);
    const std::uint8_t want[16] = {16, 37, 0x2D, 0x22, 0x80, 0x00};  // port 11554, node 0x8000
    EXPECT_EQ(std::memcmp(connects[2].addr, want, 16), 0);
    ADJ6_GetMsgEnd(both);
    ADJ6_GetMsgEnd(recv_only);
    ADJ6_GetMsgEnd(none);
}

TEST_F(AdjChannelTest, GetMsgStartConnectsWithBigEndianPortAndNode) {
    FakeService svc(0x0102, 0x0A0B, [](Conn& c) { c.recv_message(); });
    const int fd = ADJ4_GetMsgStart(0x0102, 0x0A0B, kNoTimeout, kNoTimeout);
    ASSERT_GE(fd, 0);
    expect_one_connect(0x0102, 0x0A0B);
    ADJ4_GetMsgEnd(fd);
}

TEST_F(AdjChannelTest, GetMsgStartFailingSendOptionClosesAndReturnsMinusOne) {
    ipp_fault_inject(IPP_CALL_SETSOCKOPT, 1, ENOBUFS);
    EXPECT_EQ(ADJ4_GetMsgStart(0x8000, 11607, 5, 2), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SETSOCKOPT), 1u);  // the receive option is not tried
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 0u);
    const auto sockets = sock_events(IPP_CALL_SOCKET);
    const auto closes = sock_events(IPP_CALL_CLOSE);
    ASSERT_EQ(sockets.size(), 1u);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0].fd, sockets[0].result);
}

TEST_F(AdjChannelTest, GetMsgStartFailingReceiveOptionClosesAndReturnsMinusOne) {
    ipp_fault_inject(IPP_CALL_SETSOCKOPT, 1, EINVAL);
    EXPECT_EQ(ADJ6_GetMsgStart(0x8000, 11608, kNoTimeout, 2), -1);
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 1u);
    EXPECT_EQ(opts[0].option, kOptRecv);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(AdjChannelTest, GetMsgStartSocketFailureReturnsMinusOne) {
    ipp_fault_inject(IPP_CALL_SOCKET, 1, EMFILE);
    EXPECT_EQ(ADJ4_GetMsgStart(0x8000, 11609, 5, 2), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SETSOCKOPT), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
}

TEST_F(AdjChannelTest, GetMsgStartUnderRepeatedEintrMakesElevenConnectsThenCloses) {
    ipp_fault_inject(IPP_CALL_CONNECT, 50, EINTR);
    EXPECT_EQ(ADJ4_GetMsgStart(0x8000, 11610, 5, 2), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 11u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SLEEP), 0u);
}

TEST_F(AdjChannelTest, GetMsgStartConnectsOnTheEleventhAttemptAfterTenEintr) {
    FakeService svc(0x8000, 11611, [](Conn& c) { c.recv_message(); });
    ipp_fault_inject(IPP_CALL_CONNECT, 10, EINTR);
    const int fd = ADJ6_GetMsgStart(0x8000, 11611, 5, 2);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 11u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
    ADJ6_GetMsgEnd(fd);
}

TEST_F(AdjChannelTest, GetMsgStartTakesEisconnAsConnected) {
    ipp_fault_inject(IPP_CALL_CONNECT, 1, EISCONN);
    const int fd = ADJ4_GetMsgStart(0x8000, 11612, 5, 2);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
    ADJ4_GetMsgEnd(fd);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(AdjChannelTest, GetMsgStartOtherConnectErrorMakesOneAttemptAndCloses) {
    EXPECT_EQ(ADJ4_GetMsgStart(0x8000, 11613, 5, 2), -1);  // nobody listens
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);

    ipp_reset();
    ipp_sleep_set_virtual(1);
    ipp_fault_inject(IPP_CALL_CONNECT, 5, EPERM);
    EXPECT_EQ(ADJ6_GetMsgStart(0x8000, 11613, 5, 2), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SLEEP), 0u);
}

TEST_F(AdjChannelTest, GetMsgEndClosesOnlyNonNegativeDescriptors) {
    ADJ4_GetMsgEnd(-1);
    ADJ6_GetMsgEnd(-7);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
    ipp_fault_inject(IPP_CALL_CONNECT, 2, EISCONN);
    const int a = ADJ4_GetMsgStart(0x8000, 11614, kNoTimeout, kNoTimeout);
    const int b = ADJ6_GetMsgStart(0x8000, 11614, kNoTimeout, kNoTimeout);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ADJ4_GetMsgEnd(a);
    ADJ6_GetMsgEnd(b);
    EXPECT_FALSE(is_open(a));
    EXPECT_FALSE(is_open(b));
    const auto closes = sock_events(IPP_CALL_CLOSE);
    ASSERT_EQ(closes.size(), 2u);
    EXPECT_EQ(closes[0].fd, a);
    EXPECT_EQ(closes[1].fd, b);
}

// ---- Sending ------------------------------------------------------------------------------

TEST_F(AdjChannelTest, Adj4SendFramesTypeLengthCountAndPayloadBigEndian) {
    const Bytes payload = counting_bytes(0x0102);
    Bytes got;
    {
        FakeService svc(0x8000, 11615, [&got](Conn& c) { got = c.recv_message(); });
        const int fd = ADJ4_GetMsgStart(0x8000, 11615, 5, 2);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(ADJ4_Send(0xAB, fd, 0x0102, 0x0304, payload.data(), 256), 0u);
        ADJ4_GetMsgEnd(fd);
    }
    ASSERT_EQ(got.size(), 6u + 0x0102);
    EXPECT_EQ(got[0], 0xAB);
    EXPECT_EQ(got[2], 0x01);
    EXPECT_EQ(got[3], 0x02);
    EXPECT_EQ(got[4], 0x03);
    EXPECT_EQ(got[5], 0x04);
    EXPECT_TRUE(std::equal(payload.begin(), payload.end(), got.begin() + 6));
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 256);
    EXPECT_EQ(sends[0].length, 6u + 0x0102);
}

TEST_F(AdjChannelTest, Adj6SendFramesTypeLengthCountAndPayloadBigEndian) {
    Bytes got;
    {
        FakeService svc(0x8000, 11616, [&got](Conn& c) { got = c.recv_message(); });
        const int fd = ADJ6_GetMsgStart(0x8000, 11616, 5, 2);
        ASSERT_GE(fd, 0);
        const std::uint8_t payload[5] = {9, 8, 7, 6, 5};
        EXPECT_EQ(ADJ6_Send(19, fd, 5, 1, payload, 0), 0u);
        ADJ6_GetMsgEnd(fd);
    }
    expect_message(got, message(19, 5, 1, {9, 8, 7, 6, 5}));
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 0);
}

TEST_F(AdjChannelTest, SendPassesTheCallersFlags) {
    std::vector<Bytes> got;
    {
        FakeService svc(0x8000, 11617, [&got](Conn& c) {
            for (int i = 0; i < 4; ++i) got.push_back(c.recv_message());
        });
        const int fd = ADJ4_GetMsgStart(0x8000, 11617, 5, 2);
        ASSERT_GE(fd, 0);
        const std::uint8_t p[2] = {1, 2};
        EXPECT_EQ(ADJ4_Send(42, fd, 2, 1, p, ADJ_SEND_DONTWAIT), 0u);
        EXPECT_EQ(ADJ4_Send(43, fd, 2, 1, p, ADJ_SEND_WAITALL), 0u);
        EXPECT_EQ(ADJ6_Send(15, fd, 2, 1, p, 0), 0u);
        EXPECT_EQ(ADJ6_Send(16, fd, 2, 7, p, ADJ_SEND_WAITALL), 0u);
        ADJ4_GetMsgEnd(fd);
    }
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 4u);
    EXPECT_EQ(sends[0].flags, 64);
    EXPECT_EQ(sends[1].flags, 256);
    EXPECT_EQ(sends[2].flags, 0);
    EXPECT_EQ(sends[3].flags, 256);
    ASSERT_EQ(got.size(), 4u);
    expect_message(got[0], message(42, 2, 1, {1, 2}));
    expect_message(got[1], message(43, 2, 1, {1, 2}));
    expect_message(got[2], message(15, 2, 1, {1, 2}));
    expect_message(got[3], message(16, 2, 7, {1, 2}));
}

TEST_F(AdjChannelTest, ShortSendFails) {
    FakeService svc(0x8000, 11618, [](Conn& c) {
        c.recv_message();
        c.recv_message();
    });
    const int fd = ADJ4_GetMsgStart(0x8000, 11618, 5, 2);
    ASSERT_GE(fd, 0);
    const std::uint8_t p[8] = {};
    ipp_fault_short_send(2, 10);
    EXPECT_EQ(ADJ4_Send(1, fd, 8, 1, p, 0), kFailed);
    EXPECT_EQ(ADJ6_Send(1, fd, 8, 1, p, 0), kFailed);
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].result, 10);
    EXPECT_EQ(sends[1].result, 10);
    ADJ4_GetMsgEnd(fd);
}

TEST_F(AdjChannelTest, FailedSendFails) {
    FakeService svc(0x8000, 11619, [](Conn& c) { c.recv_message(); });
    const int fd = ADJ4_GetMsgStart(0x8000, 11619, 5, 2);
    ASSERT_GE(fd, 0);
    const std::uint8_t p[4] = {};
    ipp_fault_inject(IPP_CALL_SEND, 2, EAGAIN);
    EXPECT_EQ(ADJ4_Send(1, fd, 4, 1, p, 64), kFailed);
    EXPECT_EQ(ADJ6_Send(1, fd, 4, 1, p, 64), kFailed);
    ADJ4_GetMsgEnd(fd);
}

// The IPv4 family rejects a failed send before comparing lengths; the IPv6 family compares
// only the result taken as 16 bits, so a failed send (-1, 0xFFFF) of a 65535-byte message
// passes its test.
TEST_F(AdjChannelTest, SendSuccessTestDiffersForFailedSendOfA65535ByteMessage) {
    const std::uint16_t len = 65535 - 6;
    const Bytes payload = counting_bytes(len);
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    ipp_fault_inject(IPP_CALL_SEND, 2, EAGAIN);
    EXPECT_EQ(ADJ4_Send(52, sv[0], len, 1, payload.data(), 64), kFailed);
    EXPECT_EQ(ADJ6_Send(36, sv[0], len, 1, payload.data(), 64), 0u);
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].result, -1);
    EXPECT_EQ(sends[1].result, -1);
    EXPECT_EQ(sends[1].length, 65535u);
    ::close(sv[0]);
    ::close(sv[1]);
}

// The length is a 16-bit quantity: 6 + 65534 is compared as 4, and the whole message goes.
TEST_F(AdjChannelTest, SendOfTheLongestPayloadComparesTheLengthIn16Bits) {
    const std::uint16_t len = 65534;
    const Bytes payload = counting_bytes(len);
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    const int size = 6 + len + 64;
    ASSERT_EQ(::setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size), 0);
    ASSERT_EQ(::setsockopt(sv[1], SOL_SOCKET, SO_RCVBUF, &size, sizeof size), 0);
    EXPECT_EQ(ADJ4_Send(7, sv[0], len, 2, payload.data(), 64), 0u);
    Bytes got(70000);
    const ssize_t n = ::recv(sv[1], got.data(), got.size(), 0);
    ASSERT_EQ(n, 6 + len);
    got.resize(static_cast<std::size_t>(n));
    EXPECT_EQ(got[0], 7);
    EXPECT_EQ(got[2], 0xFF);
    EXPECT_EQ(got[3], 0xFE);
    EXPECT_EQ(got[4], 0x00);
    EXPECT_EQ(got[5], 0x02);
    EXPECT_TRUE(std::equal(payload.begin(), payload.end(), got.begin() + 6));
    ::close(sv[0]);
    ::close(sv[1]);
}

// ---- Receiving ----------------------------------------------------------------------------

TEST_F(AdjChannelTest, Adj4RecvUsesFlagsZeroAndStoresTheLength) {
    FakeService svc(0x8000, 11621, [](Conn& c) {
        c.send_message({1, 2, 3, 4, 5, 6, 7});
        c.recv_message();
    });
    const int fd = ADJ4_GetMsgStart(0x8000, 11621, 5, 2);
    ASSERT_GE(fd, 0);
    std::uint8_t buf[32] = {};
    std::uint16_t len = sizeof buf;
    EXPECT_EQ(ADJ4_Recv(fd, &len, buf), 0u);
    EXPECT_EQ(len, 7u);
    const std::uint8_t want[7] = {1, 2, 3, 4, 5, 6, 7};
    EXPECT_EQ(std::memcmp(buf, want, 7), 0);
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].flags, 0);
    EXPECT_EQ(recvs[0].length, 32u);
    ADJ4_GetMsgEnd(fd);
}

TEST_F(AdjChannelTest, Adj6RecvWaitsForTheWholeDatagramWithFlag256) {
    FakeService svc(0x8000, 11622, [](Conn& c) {
        c.send_message({0, 0, 0, 9});
        c.recv_message();
    });
    const int fd = ADJ6_GetMsgStart(0x8000, 11622, 5, 2);
    ASSERT_GE(fd, 0);
    std::uint8_t buf[4] = {};
    std::uint16_t len = sizeof buf;
    EXPECT_EQ(ADJ6_Recv(fd, &len, buf), 0u);
    EXPECT_EQ(len, 4u);
    EXPECT_EQ(buf[3], 9);
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].flags, 256);
    EXPECT_EQ(recvs[0].length, 4u);
    ADJ6_GetMsgEnd(fd);
}

TEST_F(AdjChannelTest, RecvRetriesEintr) {
    FakeService svc(0x8000, 11623, [](Conn& c) {
        c.send_message({0xAA, 0xBB});
        c.send_message({0xCC});
        c.recv_message();
    });
    const int fd = ADJ4_GetMsgStart(0x8000, 11623, 5, 2);
    ASSERT_GE(fd, 0);
    std::uint8_t buf[8] = {};
    std::uint16_t len = sizeof buf;
    ipp_fault_inject(IPP_CALL_RECV, 3, EINTR);
    EXPECT_EQ(ADJ4_Recv(fd, &len, buf), 0u);
    EXPECT_EQ(len, 2u);
    EXPECT_EQ(buf[0], 0xAA);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 4u);

    len = sizeof buf;
    ipp_fault_inject(IPP_CALL_RECV, 20, EINTR);  // no bound on the retries
    EXPECT_EQ(ADJ6_Recv(fd, &len, buf), 0u);
    EXPECT_EQ(len, 1u);
    EXPECT_EQ(buf[0], 0xCC);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 25u);
    ADJ4_GetMsgEnd(fd);
}

TEST_F(AdjChannelTest, RecvFromClosedPeerFailsWithLengthZero) {
    FakeService svc(0x8000, 11624, [](Conn&) {}, 2);  // accepts and closes
    const int fd4 = ADJ4_GetMsgStart(0x8000, 11624, 5, 2);
    const int fd6 = ADJ6_GetMsgStart(0x8000, 11624, 5, 2);
    ASSERT_GE(fd4, 0);
    ASSERT_GE(fd6, 0);
    std::uint8_t buf[16];
    std::uint16_t len = sizeof buf;
    EXPECT_EQ(ADJ4_Recv(fd4, &len, buf), kFailed);
    EXPECT_EQ(len, 0u);
    len = sizeof buf;
    EXPECT_EQ(ADJ6_Recv(fd6, &len, buf), kFailed);
    EXPECT_EQ(len, 0u);
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 2u);
    EXPECT_EQ(recvs[0].result, 0);
    EXPECT_EQ(recvs[1].result, 0);
    ADJ4_GetMsgEnd(fd4);
    ADJ6_GetMsgEnd(fd6);
}

TEST_F(AdjChannelTest, RecvOtherFailureIsNotRetriedAndStoresLengthZero) {
    FakeService svc(0x8000, 11625, [](Conn& c) { c.recv_message(); });
    const int fd = ADJ4_GetMsgStart(0x8000, 11625, 5, 2);
    ASSERT_GE(fd, 0);
    std::uint8_t buf[16];
    std::uint16_t len = sizeof buf;
    ipp_fault_inject(IPP_CALL_RECV, 1, EAGAIN);
    EXPECT_EQ(ADJ4_Recv(fd, &len, buf), kFailed);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);
    len = sizeof buf;
    ipp_fault_inject(IPP_CALL_RECV, 1, ECONNRESET);
    EXPECT_EQ(ADJ6_Recv(fd, &len, buf), kFailed);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 2u);
    ADJ4_GetMsgEnd(fd);
}

// ---- Exchange on an open descriptor --------------------------------------------------------

TEST_F(AdjChannelTest, GetMsgSendsCountOneWithFlags64ThenReceives) {
    Bytes got;
    {
        FakeService svc(0x8000, 11626, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0, 0, 0, 3});
            c.recv_message();
        });
        const int fd2 = ADJ4_GetMsgStart(0x8000, 11626, 5, 2);
        ASSERT_GE(fd2, 0);
        const std::uint8_t req[3] = {0x11, 0x22, 0x33};
        std::uint8_t reply[4] = {};
        std::uint16_t len = sizeof reply;
        EXPECT_EQ(ADJ4_GetMsg(0, fd2, 3, req, &len, reply), 0u);
        EXPECT_EQ(len, 4u);
        EXPECT_EQ(reply[3], 3);
        ADJ4_GetMsgEnd(fd2);
    }
    expect_message(got, message(0, 3, 1, {0x11, 0x22, 0x33}));
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 64);
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].flags, 0);
}

TEST_F(AdjChannelTest, Adj6GetMsgReceivesWithFlag256) {
    Bytes got;
    {
        FakeService svc(0x8000, 11627, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({5, 6});
            c.recv_message();
        });
        const int fd = ADJ6_GetMsgStart(0x8000, 11627, 5, 2);
        ASSERT_GE(fd, 0);
        const std::uint8_t req[1] = {0x42};
        std::uint8_t reply[8] = {};
        std::uint16_t len = sizeof reply;
        EXPECT_EQ(ADJ6_GetMsg(0, fd, 1, req, &len, reply), 0u);
        EXPECT_EQ(len, 2u);
        EXPECT_EQ(reply[0], 5);
        EXPECT_EQ(reply[1], 6);
        ADJ6_GetMsgEnd(fd);
    }
    expect_message(got, message(0, 1, 1, {0x42}));
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].flags, 256);
    EXPECT_EQ(sock_events(IPP_CALL_SEND)[0].flags, 64);
}

TEST_F(AdjChannelTest, GetMsgWithNullPayloadOrReplyBufferFailsWithoutSending) {
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    const std::uint8_t req[1] = {1};
    std::uint8_t reply[4];
    std::uint16_t len = sizeof reply;
    EXPECT_EQ(ADJ4_GetMsg(0, sv[0], 1, nullptr, &len, reply), kFailed);
    EXPECT_EQ(ADJ4_GetMsg(0, sv[0], 1, req, &len, nullptr), kFailed);
    EXPECT_EQ(ADJ6_GetMsg(0, sv[0], 1, nullptr, &len, reply), kFailed);
    EXPECT_EQ(ADJ6_GetMsg(0, sv[0], 1, req, &len, nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    ::close(sv[0]);
    ::close(sv[1]);
}

TEST_F(AdjChannelTest, GetMsgWithFailedSendDoesNotReceive) {
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    const std::uint8_t req[4] = {1, 2, 3, 4};
    std::uint8_t reply[4];
    std::uint16_t len = sizeof reply;
    ipp_fault_inject(IPP_CALL_SEND, 1, EAGAIN);
    EXPECT_EQ(ADJ4_GetMsg(0, sv[0], 4, req, &len, reply), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    ::close(sv[0]);
    ::close(sv[1]);
}

// ---- One-shot send ------------------------------------------------------------------------

TEST_F(AdjChannelTest, SendMsgOpensWithFiveSecondTimeoutsSendsWithFlags64AndCloses) {
    Bytes got;
    {
        FakeService svc(0x8000, 11628, [&got](Conn& c) { got = c.recv_message(); });
        const std::uint8_t payload[4] = {0xDE, 0xAD, 0xBE, 0xEF};
        const ADJ_MSG_DEST_S dest{0xFFFF, 11628, 4, 0, payload};
        EXPECT_EQ(ADJ4_SendMsg(44, &dest, 3), 0u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    }
    expect_message(got, message(44, 4, 3, {0xDE, 0xAD, 0xBE, 0xEF}));
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 2u);
    expect_timeout_option(opts[0], kOptSend, 5);
    expect_timeout_option(opts[1], kOptRecv, 5);
    const auto connects = sock_events(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    EXPECT_EQ(connects[0].addr[4], 0x80);
    EXPECT_EQ(connects[0].addr[5], 0x00);
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 64);
    const auto sockets = sock_events(IPP_CALL_SOCKET);
    const auto closes = sock_events(IPP_CALL_CLOSE);
    ASSERT_EQ(sockets.size(), 1u);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0].fd, sockets[0].result);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(AdjChannelTest, Adj6SendMsgSendsAndCloses) {
    Bytes got;
    {
        FakeService svc(0x8000, 11629, [&got](Conn& c) { got = c.recv_message(); });
        const std::uint8_t payload[2] = {0x01, 0x02};
        const ADJ_MSG_DEST_S dest{0x8000, 11629, 2, 0, payload};
        EXPECT_EQ(ADJ6_SendMsg(67, &dest, 1), 0u);
    }
    expect_message(got, message(67, 2, 1, {0x01, 0x02}));
    EXPECT_EQ(sock_events(IPP_CALL_SEND).at(0).flags, 64);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SETSOCKOPT), 2u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(AdjChannelTest, SendMsgWithNullDestinationOrPayloadFailsWithoutOpening) {
    const ADJ_MSG_DEST_S no_payload{0x8000, 11630, 4, 0, nullptr};
    EXPECT_EQ(ADJ4_SendMsg(1, nullptr, 1), kFailed);
    EXPECT_EQ(ADJ4_SendMsg(1, &no_payload, 1), kFailed);
    EXPECT_EQ(ADJ6_SendMsg(1, nullptr, 1), kFailed);
    EXPECT_EQ(ADJ6_SendMsg(1, &no_payload, 1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(AdjChannelTest, SendMsgClosesOnEveryPath) {
    const std::uint8_t payload[4] = {1, 2, 3, 4};
    const ADJ_MSG_DEST_S dest{0x8000, 11631, 4, 0, payload};
    // Nobody listens: connect fails.
    EXPECT_EQ(ADJ4_SendMsg(1, &dest, 1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    // An option fails.
    ipp_fault_inject(IPP_CALL_SETSOCKOPT, 1, ENOBUFS);
    EXPECT_EQ(ADJ6_SendMsg(1, &dest, 1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 2u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 2u);
    // The send is short.
    {
        FakeService svc(0x8000, 11631, [](Conn& c) { c.recv_message(); }, 2);
        ipp_fault_short_send(2, 3);
        EXPECT_EQ(ADJ4_SendMsg(1, &dest, 1), kFailed);
        EXPECT_EQ(ADJ6_SendMsg(1, &dest, 1), kFailed);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 2u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 4u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 4u);
}

// ---- One-shot exchange ---------------------------------------------------------------------

TEST_F(AdjChannelTest, SendMsgAndRecvUsesTheCallersTimeoutsAndFlagsAndReceivesOneReply) {
    Bytes got;
    {
        FakeService svc(0x8000, 1639, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0x00, 0x00, 0x01, 0x02});
            c.send_message({0xFF});  // a second message is never read
            c.recv_message();
        });
        const Bytes entry = counting_bytes(300);
        const ADJ_MSG_DEST_S dest{0x8000, 1639, 300, 0, entry.data()};
        std::uint8_t reply[4] = {};
        std::uint16_t len = sizeof reply;
        EXPECT_EQ(ADJ4_SendMsgAndRecv(1, &dest, 7, 3, 256, &len, reply), 0u);
        EXPECT_EQ(len, 4u);
        const std::uint8_t want[4] = {0x00, 0x00, 0x01, 0x02};
        EXPECT_EQ(std::memcmp(reply, want, 4), 0);
        EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    }
    const Bytes entry = counting_bytes(300);
    expect_message(got, message(1, 300, 1, entry));
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 2u);
    expect_timeout_option(opts[0], kOptSend, 7);
    expect_timeout_option(opts[1], kOptRecv, 3);
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 256);
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].flags, 0);
    EXPECT_EQ(recvs[0].length, 4u);
}

TEST_F(AdjChannelTest, Adj6SendMsgAndRecvReceivesWithFlag256AndCloses) {
    Bytes got;
    {
        FakeService svc(0x8000, 11554, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0x00, 0x00, 0x00, 0x01});
            c.recv_message();
        });
        const std::uint8_t payload[2] = {0x0A, 0x0B};
        const ADJ_MSG_DEST_S dest{0xFFFF, 11554, 2, 0, payload};
        std::uint8_t reply[4] = {};
        std::uint16_t len = sizeof reply;
        EXPECT_EQ(ADJ6_SendMsgAndRecv(0, &dest, kNoTimeout, kNoTimeout, 0, &len, reply), 0u);
        EXPECT_EQ(len, 4u);
        EXPECT_EQ(reply[3], 1);
    }
    expect_message(got, message(0, 2, 1, {0x0A, 0x0B}));
    EXPECT_EQ(ipp_call_count(IPP_CALL_SETSOCKOPT), 0u);
    EXPECT_EQ(sock_events(IPP_CALL_SEND).at(0).flags, 0);
    EXPECT_EQ(sock_events(IPP_CALL_RECV).at(0).flags, 256);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(AdjChannelTest, SendMsgAndRecvNullChecksRefuseBeforeOpening) {
    const std::uint8_t payload[1] = {1};
    const ADJ_MSG_DEST_S dest{0x8000, 11632, 1, 0, payload};
    const ADJ_MSG_DEST_S no_payload{0x8000, 11632, 1, 0, nullptr};
    std::uint8_t reply[4];
    std::uint16_t len = sizeof reply;
    EXPECT_EQ(ADJ4_SendMsgAndRecv(1, nullptr, 5, 2, 0, &len, reply), kFailed);
    EXPECT_EQ(ADJ4_SendMsgAndRecv(1, &no_payload, 5, 2, 0, &len, reply), kFailed);
    EXPECT_EQ(ADJ4_SendMsgAndRecv(1, &dest, 5, 2, 0, &len, nullptr), kFailed);
    EXPECT_EQ(ADJ6_SendMsgAndRecv(1, nullptr, 5, 2, 0, &len, reply), kFailed);
    EXPECT_EQ(ADJ6_SendMsgAndRecv(1, &no_payload, 5, 2, 0, &len, reply), kFailed);
    EXPECT_EQ(ADJ6_SendMsgAndRecv(1, &dest, 5, 2, 0, &len, nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(AdjChannelTest, Adj6SendMsgAndRecvRefusesNullReplyLengthBeforeOpening) {
    FakeService svc(0x8000, 11633, [](Conn& c) { c.recv_message(); });
    const std::uint8_t payload[1] = {1};
    const ADJ_MSG_DEST_S dest{0x8000, 11633, 1, 0, payload};
    std::uint8_t reply[4];
    EXPECT_EQ(ADJ6_SendMsgAndRecv(1, &dest, 5, 2, 0, nullptr, reply), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(AdjChannelTest, Adj4SendMsgAndRecvWithNullReplyLengthSendsThenFailsWithoutReceiving) {
    Bytes got;
    {
        FakeService svc(0x8000, 11634, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({1, 2, 3, 4});
        });
        const std::uint8_t payload[2] = {0x31, 0x32};
        const ADJ_MSG_DEST_S dest{0x8000, 11634, 2, 0, payload};
        std::uint8_t reply[4] = {};
        EXPECT_EQ(ADJ4_SendMsgAndRecv(9, &dest, 5, 2, 0, nullptr, reply), kFailed);
    }
    expect_message(got, message(9, 2, 1, {0x31, 0x32}));
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(AdjChannelTest, SendMsgAndRecvClosesOnEveryPath) {
    const std::uint8_t payload[4] = {1, 2, 3, 4};
    const ADJ_MSG_DEST_S dest{0x8000, 11635, 4, 0, payload};
    std::uint8_t reply[4];
    std::uint16_t len = sizeof reply;
    // Connect fails.
    EXPECT_EQ(ADJ4_SendMsgAndRecv(1, &dest, 5, 2, 0, &len, reply), kFailed);
    EXPECT_EQ(ADJ6_SendMsgAndRecv(1, &dest, 5, 2, 0, &len, reply), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 2u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 2u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
    // An option fails.
    ipp_fault_inject(IPP_CALL_SETSOCKOPT, 1, ENOBUFS);
    EXPECT_EQ(ADJ4_SendMsgAndRecv(1, &dest, 5, 2, 0, &len, reply), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 3u);
    {
        // The send is short (first two connections), then the service closes without
        // answering (last two).
        FakeService svc(0x8000, 11635, [](Conn& c) { c.recv_message(); }, 4);
        ipp_fault_short_send(2, 5);
        EXPECT_EQ(ADJ4_SendMsgAndRecv(1, &dest, 5, 2, 0, &len, reply), kFailed);
        EXPECT_EQ(ADJ6_SendMsgAndRecv(1, &dest, 5, 2, 0, &len, reply), kFailed);
        EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
        len = sizeof reply;
        EXPECT_EQ(ADJ4_SendMsgAndRecv(1, &dest, 5, 2, 0, &len, reply), kFailed);
        EXPECT_EQ(len, 0u);
        len = sizeof reply;
        EXPECT_EQ(ADJ6_SendMsgAndRecv(1, &dest, 5, 2, 0, &len, reply), kFailed);
        EXPECT_EQ(len, 0u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 2u);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 7u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 7u);
}

}  // namespace
}  // namespace ipt
