// Message buffers, framed send and receive, and the one-shot daemon requests.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <vector>

#include "ipclient/lipc.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/lipc_frame.hpp"
#include "support/sock_log.hpp"

namespace ipt {
namespace {

class LipcMessageTest : public PlatformTest {};

TEST_F(LipcMessageTest, FreeMsgOfNullDoesNothing) {
    IP_LIPC_FreeMsg(nullptr);
    SUCCEED() << "no crash and, under the sanitizers, no bad free";
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
}

TEST_F(LipcMessageTest, FreeMsgFreesTheBlockAllocatedWithItsHiddenHeader) {
    auto* p = static_cast<std::uint8_t*>(IP_LIPC_AllocMsg(10));
    ASSERT_NE(p, nullptr);
    // All 4 hidden bytes and the 10 payload bytes belong to the block (the sanitizer pass
    // reports any access outside it, and a free of anything but the block's start).
    std::memset(p - 4, 0xAB, 14);
    IP_LIPC_FreeMsg(p);
    EXPECT_EQ(IP_LIPC_AllocMsg(UINT64_MAX), nullptr);
}

TEST_F(LipcMessageTest, SendMsgFramesTypeAndTotalBigEndian) {
    Bytes got;
    {
        FakeService svc(0x8000, 2100, [&got](Conn& c) { got = c.recv_message(); });
        const int fd = IP_OpenCliSock(0x8000, 2100);
        ASSERT_GE(fd, 0);
        const std::uint8_t payload[5] = {1, 2, 3, 4, 5};
        EXPECT_EQ(IP_LIPC_SendMsg(fd, 0x0A0B, payload, 5), 0u);
        IP_CloseSock(fd);
    }
    EXPECT_EQ(got, framed(0x0A0B, {1, 2, 3, 4, 5}));
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 0x100);
}

TEST_F(LipcMessageTest, SendMsgWithNullPayloadAndLengthEightSendsTwelveBytesHeaderSaysTwelve) {
    Bytes got;
    {
        FakeService svc(0x8000, 2101, [&got](Conn& c) { got = c.recv_message(); });
        const int fd = IP_OpenCliSock(0x8000, 2101);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(IP_LIPC_SendMsg(fd, 3, nullptr, 8), 0u);
        IP_CloseSock(fd);
    }
    ASSERT_EQ(got.size(), 12u);
    EXPECT_EQ(got[0], 0);
    EXPECT_EQ(got[1], 3);
    EXPECT_EQ(got[2], 0);
    EXPECT_EQ(got[3], 12);
}

TEST_F(LipcMessageTest, PayloadOf65532WrapsTotalToZeroAndZeroByteSendSucceeds) {
    FakeService svc(0x8000, 2102, [](Conn& c) { c.recv_message(65536, 200); });
    const int fd = IP_OpenCliSock(0x8000, 2102);
    ASSERT_GE(fd, 0);
    std::vector<std::uint8_t> payload(65532, 0x11);
    EXPECT_EQ(IP_LIPC_SendMsg(fd, 1, payload.data(), 65532), 0u);
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].length, 0u);
    EXPECT_EQ(sends[0].result, 0);
    IP_CloseSock(fd);
}

TEST_F(LipcMessageTest, ShortSendFails) {
    FakeService svc(0x8000, 2103, [](Conn& c) { c.recv_message(); });
    const int fd = IP_OpenCliSock(0x8000, 2103);
    ASSERT_GE(fd, 0);
    ipp_fault_short_send(1, 3);
    EXPECT_EQ(IP_LIPC_SendMsg(fd, 1, "abcd", 4), IPSTATUS_FAILED);
    IP_CloseSock(fd);
}

TEST_F(LipcMessageTest, SendMsgIsNotRetriedOnEintr) {
    FakeService svc(0x8000, 2104, [](Conn& c) { c.recv_message(); });
    const int fd = IP_OpenCliSock(0x8000, 2104);
    ASSERT_GE(fd, 0);
    ipp_fault_inject(IPP_CALL_SEND, 1, EINTR);
    EXPECT_EQ(IP_LIPC_SendMsg(fd, 1, "abcd", 4), IPSTATUS_FAILED);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
    IP_CloseSock(fd);
}

TEST_F(LipcMessageTest, RecvMsgReadsHeaderIntoHiddenBytesAndPayloadIntoBuffer) {
    FakeService svc(0x8000, 2105, [](Conn& c) {
        c.send_message(framed(0x0102, {9, 8, 7}));
        c.recv_message();
    });
    const int fd = IP_OpenCliSock(0x8000, 2105);
    ASSERT_GE(fd, 0);
    auto* buf = static_cast<std::uint8_t*>(IP_LIPC_AllocMsg(16));
    std::uint64_t len = 0;
    std::uint32_t type = 0;
    EXPECT_EQ(IP_LIPC_RecvMsg(fd, 16, buf, &len, &type), 0u);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(type, 0x0102u);
    EXPECT_EQ(Bytes(buf, buf + 3), (Bytes{9, 8, 7}));
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].length, 20u);
    EXPECT_EQ(recvs[0].flags, 0x100);
    IP_LIPC_FreeMsg(buf);
    IP_CloseSock(fd);
}

TEST_F(LipcMessageTest, RecvMsgFromClosedPeerIsNotAFailure) {
    FakeService svc(0x8000, 2106, [](Conn&) {});
    const int fd = IP_OpenCliSock(0x8000, 2106);
    ASSERT_GE(fd, 0);
    auto* buf = static_cast<std::uint8_t*>(IP_LIPC_AllocMsg(8));
    const std::uint8_t stale[4] = {0x00, 0x05, 0x00, 0x0A};  // whatever the buffer held
    std::memcpy(buf - 4, stale, 4);
    std::uint64_t len = 0;
    EXPECT_EQ(IP_LIPC_RecvMsg(fd, 8, buf, &len, nullptr), 0u);
    EXPECT_EQ(len, 6u);
    IP_LIPC_FreeMsg(buf);
    IP_CloseSock(fd);
}

TEST_F(LipcMessageTest, RecvMsgFailureAndHeaderShorterThanItself) {
    FakeService svc(0x8000, 2107, [](Conn& c) {
        c.send_message({0, 1, 0, 2});  // claims 2 bytes in all
        c.recv_message();
    });
    const int fd = IP_OpenCliSock(0x8000, 2107);
    ASSERT_GE(fd, 0);
    auto* buf = static_cast<std::uint8_t*>(IP_LIPC_AllocMsg(8));
    std::uint64_t len = 99;
    ipp_fault_inject(IPP_CALL_RECV, 1, EBADF);
    EXPECT_EQ(IP_LIPC_RecvMsg(fd, 8, buf, &len, nullptr), IPSTATUS_FAILED);
    EXPECT_EQ(IP_LIPC_RecvMsg(fd, 8, buf, &len, nullptr), 0u);
    EXPECT_EQ(len, 0u);
    IP_LIPC_FreeMsg(buf);
    IP_CloseSock(fd);
}

TEST_F(LipcMessageTest, RecvMsg2WithLongerMessageReturnsNewBufferSetsFlagLeavesOldUntouched) {
    Bytes payload(40);
    for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<std::uint8_t>(i);
    FakeService svc(0x8000, 2108, [&payload](Conn& c) {
        c.send_message(framed(7, payload));
        c.recv_message();
    });
    const int fd = IP_OpenCliSock(0x8000, 2108);
    ASSERT_GE(fd, 0);
    auto* old = static_cast<std::uint8_t*>(IP_LIPC_AllocMsg(8));
    std::memset(old - 4, 0xEE, 12);
    void* buf = old;
    std::uint64_t len = 0;
    std::uint32_t type = 0;
    std::uint16_t replaced = 0;
    EXPECT_EQ(IP_LIPC_RecvMsg2(fd, 8, &buf, &len, &type, &replaced), 0u);
    EXPECT_EQ(replaced, 1u);
    EXPECT_NE(buf, old);
    EXPECT_EQ(len, 40u);
    EXPECT_EQ(type, 7u);
    EXPECT_EQ(Bytes(static_cast<std::uint8_t*>(buf), static_cast<std::uint8_t*>(buf) + 40), payload);
    EXPECT_EQ(Bytes(old - 4, old + 8), Bytes(12, 0xEE));
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 2u);
    EXPECT_EQ(recvs[0].flags, 0x102);
    EXPECT_EQ(recvs[0].length, 4u);
    EXPECT_EQ(recvs[1].flags, 0x100);
    EXPECT_EQ(recvs[1].length, 44u);
    IP_LIPC_FreeMsg(buf);
    IP_LIPC_FreeMsg(old);
    IP_CloseSock(fd);
}

TEST_F(LipcMessageTest, RecvMsg2WithFittingMessageLeavesFlagAsItWas) {
    FakeService svc(0x8000, 2109, [](Conn& c) {
        c.send_message(framed(7, {1, 2, 3}));
        c.recv_message();
    });
    const int fd = IP_OpenCliSock(0x8000, 2109);
    ASSERT_GE(fd, 0);
    auto* old = static_cast<std::uint8_t*>(IP_LIPC_AllocMsg(8));
    void* buf = old;
    std::uint64_t len = 0;
    std::uint16_t replaced = 0x5555;
    EXPECT_EQ(IP_LIPC_RecvMsg2(fd, 8, &buf, &len, nullptr, &replaced), 0u);
    EXPECT_EQ(replaced, 0x5555u);
    EXPECT_EQ(buf, old);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(Bytes(old, old + 3), (Bytes{1, 2, 3}));
    IP_LIPC_FreeMsg(old);
    IP_CloseSock(fd);
}

TEST_F(LipcMessageTest, RecvMsg2FailsWhenPeekGetsNothing) {
    FakeService svc(0x8000, 2110, [](Conn&) {});
    const int fd = IP_OpenCliSock(0x8000, 2110);
    ASSERT_GE(fd, 0);
    void* buf = IP_LIPC_AllocMsg(8);
    void* const old = buf;
    std::uint64_t len = 0;
    std::uint16_t replaced = 0;
    EXPECT_EQ(IP_LIPC_RecvMsg2(fd, 8, &buf, &len, nullptr, &replaced), IPSTATUS_FAILED);
    EXPECT_EQ(buf, old);
    IP_LIPC_FreeMsg(buf);
    IP_CloseSock(fd);
}

TEST_F(LipcMessageTest, SendCfgMsgGetReplyReturnsReplyPayloadLength) {
    Bytes got;
    {
        FakeService svc(0x8000, 2111, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message(framed(1, {5, 6, 7, 8, 9}));
        });
        const int fd = IP_OpenCliSock(0x8000, 2111);
        ASSERT_GE(fd, 0);
        auto* reply = static_cast<std::uint8_t*>(IP_LIPC_AllocMsg(32));
        EXPECT_EQ(IP_SendCfgMsgGetReply(fd, "\x01\x02", 2, 24, 32, reply), 5u);
        EXPECT_EQ(reply[4], 9);
        IP_LIPC_FreeMsg(reply);
        IP_CloseSock(fd);
    }
    EXPECT_EQ(got, framed(24, {1, 2}));
}

TEST_F(LipcMessageTest, SendCfgMsgGetReplyGivesZeroOnFailedSend) {
    FakeService svc(0x8000, 2112, [](Conn& c) { c.recv_message(); });
    const int fd = IP_OpenCliSock(0x8000, 2112);
    ASSERT_GE(fd, 0);
    auto* reply = static_cast<std::uint8_t*>(IP_LIPC_AllocMsg(32));
    ipp_fault_inject(IPP_CALL_SEND, 1, EPIPE);
    EXPECT_EQ(IP_SendCfgMsgGetReply(fd, "\x01", 1, 24, 32, reply), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    IP_LIPC_FreeMsg(reply);
    IP_CloseSock(fd);
}

TEST_F(LipcMessageTest, GetMsgFromDaemonExchangesOnPort1648AndCloses) {
    Bytes got;
    {
        FakeService svc(0x8000, 1648, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message(framed(24, {0xAA, 0xBB}));
        });
        auto* reply = static_cast<std::uint8_t*>(IP_LIPC_AllocMsg(16));
        EXPECT_EQ(IP_GetMsgFromDaemon("\x00\x19\x00\x04", 4, 24, 16, reply), 2u);
        EXPECT_EQ(reply[1], 0xBB);
        IP_LIPC_FreeMsg(reply);
    }
    EXPECT_EQ(got, framed(24, {0x00, 0x19, 0x00, 0x04}));
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(LipcMessageTest, GetMsgFromDaemonWithoutDaemonGivesZero) {
    auto* reply = static_cast<std::uint8_t*>(IP_LIPC_AllocMsg(16));
    EXPECT_EQ(IP_GetMsgFromDaemon("x", 1, 24, 16, reply), 0u);
    IP_LIPC_FreeMsg(reply);
}

TEST_F(LipcMessageTest, DaemonAnswerOfFiveFollowedByAnythingYieldsFive) {
    Bytes got;
    {
        FakeService svc(0x8000, 1648, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0x00, 0x00, 0x00, 0x05, 0xDE, 0xAD, 0xBE, 0xEF});
        });
        EXPECT_EQ(IP_SendAndRecvMsgToDaemon(0x0102, "\x0A\x0B\x0C", 3), 5u);
    }
    EXPECT_EQ(got, framed(0x0102, {0x0A, 0x0B, 0x0C}));
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].length, 8u);
    EXPECT_EQ(recvs[0].flags, 0x100);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(LipcMessageTest, DaemonAnswerReceiveIsRepeatedOnEintr) {
    FakeService svc(0x8000, 1648, [](Conn& c) {
        c.recv_message();
        c.send_message({0x12, 0x34, 0x56, 0x78, 0, 0, 0, 0});
    });
    ipp_fault_inject(IPP_CALL_RECV, 3, EINTR);
    EXPECT_EQ(IP_SendAndRecvMsgToDaemon(1, "x", 1), 0x12345678u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 4u);
}

TEST_F(LipcMessageTest, DaemonExchangeFailuresCollapseIntoOneCode) {
    EXPECT_EQ(IP_SendAndRecvMsgToDaemon(1, "x", 1), IPSTATUS_DAEMON_EXCHANGE);  // nobody listens
    EXPECT_EQ(IP_SendMsgToDaemon(1, "x", 1), IPSTATUS_DAEMON_EXCHANGE);
    {
        FakeService svc(0x8000, 1648, [](Conn& c) { c.recv_message(); });  // closes without answer
        EXPECT_EQ(IP_SendAndRecvMsgToDaemon(1, "x", 1), IPSTATUS_DAEMON_EXCHANGE);
    }
    {
        FakeService svc(0x8000, 1648, [](Conn& c) { c.recv_message(); });
        ipp_fault_inject(IPP_CALL_RECV, 1, ECONNRESET);
        EXPECT_EQ(IP_SendAndRecvMsgToDaemon(1, "x", 1), IPSTATUS_DAEMON_EXCHANGE);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), ipp_call_count(IPP_CALL_CLOSE));
}

TEST_F(LipcMessageTest, DaemonSendFailureClosesAndFails) {
    FakeService svc(0x8000, 1648, [](Conn& c) { c.recv_message(); });
    ipp_fault_short_send(1, 2);
    EXPECT_EQ(IP_SendAndRecvMsgToDaemon(1, "abc", 3), IPSTATUS_DAEMON_EXCHANGE);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(LipcMessageTest, SendMsgToDaemonSendsOneFramedMessage) {
    Bytes got;
    {
        FakeService svc(0x8000, 1648, [&got](Conn& c) { got = c.recv_message(); });
        EXPECT_EQ(IP_SendMsgToDaemon(0x0304, "\x01\x02", 2), 0u);
    }
    EXPECT_EQ(got, framed(0x0304, {1, 2}));
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(LipcMessageTest, PortAttackExchangeUsesPort4418) {
    Bytes got;
    {
        FakeService svc(0x8000, 4418, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0xFF, 0xFF, 0x00, 0x01, 9, 9, 9, 9});
        });
        EXPECT_EQ(PORTATK_SendAndRecvMsgToDaemon(0x0506, "\x07", 1), 0xFFFF0001u);
    }
    EXPECT_EQ(got, framed(0x0506, {7}));
    expect_one_connect(0x8000, 0x1142);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(LipcMessageTest, PortAttackExchangeConnectBudgetAndFailures) {
    ipp_fault_inject(IPP_CALL_CONNECT, 50, EINTR);
    EXPECT_EQ(PORTATK_SendAndRecvMsgToDaemon(1, "x", 1), IPSTATUS_DAEMON_EXCHANGE);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 11u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    ipp_fault_inject(IPP_CALL_SOCKET, 1, EMFILE);
    EXPECT_EQ(PORTATK_SendAndRecvMsgToDaemon(1, "x", 1), IPSTATUS_DAEMON_EXCHANGE);
    {
        FakeService svc(0x8000, 4418, [](Conn& c) {
            c.recv_message();
            c.send_message({0, 0, 0, 3, 0, 0, 0, 0});
        });
        ipp_fault_inject(IPP_CALL_CONNECT, 1, EISCONN);
        // Taken as connected although it is not: the send then fails.
        EXPECT_EQ(PORTATK_SendAndRecvMsgToDaemon(1, "x", 1), IPSTATUS_DAEMON_EXCHANGE);
    }
}

}  // namespace
}  // namespace ipt
