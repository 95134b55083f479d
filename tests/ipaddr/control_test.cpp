// The address control socket: connecting, change requests and the answer loop.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "ipaddr_support.hpp"
#include "ipclient/lipc.h"
#include "support/addr_samples.hpp"
#include "support/fake_service.hpp"

namespace ipt {
namespace {

using ControlTest = IPAddrTest;

constexpr std::uint16_t kPort = 1653;

Bytes change_message(std::uint32_t action, std::uint32_t flags, const IPAddrInfo& info, std::uint16_t mad) {
    Bytes payload;
    put32(payload, action);
    put32(payload, flags);
    put_info(payload, info);
    put16(payload, mad);
    put16(payload, 0);
    return msg(2, payload);
}

TEST_F(ControlTest, OpenSetsServiceOptionThenConnectsToControlPort) {
    FakeService svc(0x8000, kPort, [](Conn& c) { c.recv_message(); });
    const int fd = IPAddr_Open();
    ASSERT_GE(fd, 0);
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 1u);
    EXPECT_EQ(opts[0].level, 275);
    EXPECT_EQ(opts[0].option, 15);
    EXPECT_EQ(opts[0].value_null, 1);
    EXPECT_EQ(opts[0].value_len, 0u);
    expect_one_connect(0x8000, 0x0675);
    IPAddr_Close(fd);
}

TEST_F(ControlTest, OpenRetriesInterruptedConnectWithoutLimit) {
    FakeService svc(0x8000, kPort, [](Conn& c) { c.recv_message(); });
    ipp_fault_inject(IPP_CALL_CONNECT, 30, EINTR);
    const int fd = IPAddr_Open();
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 31u);
    IPAddr_Close(fd);
}

TEST_F(ControlTest, OpenTakesEisconnAsConnectedAndOtherErrorsAsFailure) {
    ipp_fault_inject(IPP_CALL_CONNECT, 1, EISCONN);
    const int fd = IPAddr_Open();
    EXPECT_GE(fd, 0);
    IPAddr_Close(fd);
    EXPECT_EQ(IPAddr_Open(), -1);  // refused: nobody listens
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), ipp_call_count(IPP_CALL_CLOSE));
}

TEST_F(ControlTest, OpenReturnsTheFailedSocketCallsResult) {
    ipp_fault_inject(IPP_CALL_SOCKET, 1, EMFILE);
    EXPECT_EQ(IPAddr_Open(), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 0u);
}

TEST_F(ControlTest, AddAddrExSendsTheChangeAndReturnsTheServiceResult) {
    Bytes got;
    const IPAddrEntry entry = sample_entry();
    {
        FakeService svc(0x8000, kPort, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message(final_answer(0x12345678));
        });
        const int fd = IPAddr_Open();
        ASSERT_GE(fd, 0);
        EXPECT_EQ(IPAddr_AddAddrEx(fd, &entry, 0x1122334455667788ull, 0x0A0B0C0D, 0x3), 0x12345678u);
        IPAddr_Close(fd);
    }
    IPAddrInfo info{};
    info.stEntry = entry;
    info.uiInfo1 = 0x0A0B0C0D;
    const std::uint64_t context = 0x1122334455667788ull;
    std::memcpy(info.aucInfoData + 4, &context, 8);
    EXPECT_EQ(got, change_message(0, 3, info, 0));
    EXPECT_EQ(got.size(), 72u);
}

TEST_F(ControlTest, AddAddrSendsZeroContext) {
    Bytes got;
    const IPAddrEntry entry = sample_entry();
    {
        FakeService svc(0x8000, kPort, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message(final_answer(0));
        });
        const int fd = IPAddr_Open();
        EXPECT_EQ(IPAddr_AddAddr(fd, &entry, 7, 0), 0u);
        IPAddr_Close(fd);
    }
    IPAddrInfo info{};
    info.stEntry = entry;
    info.uiInfo1 = 7;
    EXPECT_EQ(got, change_message(0, 0, info, 0));
}

TEST_F(ControlTest, AddWithNoWaitFlagReturnsRightAfterSendAndNeverReads) {
    Bytes got;
    const IPAddrEntry entry = sample_entry();
    {
        FakeService svc(0x8000, kPort, [&got](Conn& c) { got = c.recv_message(); });
        const int fd = IPAddr_Open();
        EXPECT_EQ(IPAddr_AddAddr(fd, &entry, 1, IPADDR_REQ_NO_WAIT), 0u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
        IPAddr_Close(fd);
    }
    EXPECT_EQ(got.size(), 72u);
}

TEST_F(ControlTest, AnswerAfterTwoIfCfgMessagesQueuesBothAndAcknowledgesOnce) {
    const Bytes first = msg(0, words({1, 16, 1, 2, 3, 0x00040000}));
    const Bytes second = msg(0, words({2, 0}));
    std::vector<Bytes> after;
    const IPAddrEntry entry = sample_entry();
    {
        FakeService svc(0x8000, kPort, [&](Conn& c) {
            c.recv_message();
            c.send_message(first);
            c.send_message(second);
            c.send_message(final_answer(0x43160041));
            for (Bytes m; !(m = c.recv_message(65536, 300)).empty();) after.push_back(m);
        });
        const int fd = IPAddr_Open();
        EXPECT_EQ(IPAddr_AddAddr(fd, &entry, 0, 0), 0x43160041u);
        EXPECT_EQ(queued(), (std::vector<Bytes>{first, second}));
        ::shutdown(fd, SHUT_WR);
        ASSERT_TRUE(readable_within(fd));  // the service closes once it has read everything
        IPAddr_Close(fd);
    }
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0], words({4, 0}));
}

TEST_F(ControlTest, ZeroByteReceiveBeforeAnswerFailsAfterAcknowledgingQueuedMessages) {
    const Bytes queued_msg = msg(0, words({2, 0}));
    Bytes ack;
    const IPAddrEntry entry = sample_entry();
    {
        FakeService svc(0x8000, kPort, [&](Conn& c) {
            c.recv_message();
            c.send_message(queued_msg);
            ::shutdown(c.fd(), SHUT_WR);  // the client now reads 0 bytes
            ack = c.recv_message();
        });
        const int fd = IPAddr_Open();
        EXPECT_EQ(IPAddr_AddAddr(fd, &entry, 0, 0), IPSTATUS_IPSTACK_EXCHANGE);
        IPAddr_Close(fd);
    }
    EXPECT_EQ(ack, words({4, 0}));
}

TEST_F(ControlTest, ZeroByteReceiveWithNothingQueuedFailsWithoutAcknowledgement) {
    const IPAddrEntry entry = sample_entry();
    FakeService svc(0x8000, kPort, [](Conn& c) { c.recv_message(); });
    const int fd = IPAddr_Open();
    EXPECT_EQ(IPAddr_DelAddr(fd, &entry, 0), IPSTATUS_IPSTACK_EXCHANGE);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
    IPAddr_Close(fd);
}

TEST_F(ControlTest, InterruptedReceiveGoesOnReceiving) {
    const IPAddrEntry entry = sample_entry();
    FakeService svc(0x8000, kPort, [](Conn& c) {
        c.recv_message();
        c.send_message(final_answer(9));
    });
    ipp_fault_inject(IPP_CALL_RECV, 2, EINTR);
    const int fd = IPAddr_Open();
    EXPECT_EQ(IPAddr_AddAddr(fd, &entry, 0, 0), 9u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 3u);
    IPAddr_Close(fd);
}

TEST_F(ControlTest, FailedReceiveEndsTheRequest) {
    const IPAddrEntry entry = sample_entry();
    FakeService svc(0x8000, kPort, [](Conn& c) { c.recv_message(); });
    ipp_fault_inject(IPP_CALL_RECV, 1, ECONNRESET);
    const int fd = IPAddr_Open();
    EXPECT_EQ(IPAddr_AddAddr(fd, &entry, 0, 0), IPSTATUS_IPSTACK_EXCHANGE);
    IPAddr_Close(fd);
}

TEST_F(ControlTest, FinalAnswerWithoutItsResultWordFails) {
    const IPAddrEntry entry = sample_entry();
    FakeService svc(0x8000, kPort, [](Conn& c) {
        c.recv_message();
        c.send_message(words({1, 0}));
    });
    const int fd = IPAddr_Open();
    EXPECT_EQ(IPAddr_AddAddr(fd, &entry, 0, 0), IPSTATUS_IPSTACK_EXCHANGE);
    IPAddr_Close(fd);
}

TEST_F(ControlTest, ShortSendFailsBeforeReading) {
    const IPAddrEntry entry = sample_entry();
    FakeService svc(0x8000, kPort, [](Conn& c) { c.recv_message(); });
    const int fd = IPAddr_Open();
    ipp_fault_short_send(1, 10);
    EXPECT_EQ(IPAddr_AddAddr(fd, &entry, 0, 0), IPSTATUS_IPSTACK_EXCHANGE);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    IPAddr_Close(fd);
}

TEST_F(ControlTest, DelAddrSendsOnlyKeyAndFlag) {
    Bytes got;
    const IPAddrEntry entry = sample_entry();
    {
        FakeService svc(0x8000, kPort, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message(final_answer(0));
        });
        const int fd = IPAddr_Open();
        EXPECT_EQ(IPAddr_DelAddr(fd, &entry, 0x40), 0u);
        IPAddr_Close(fd);
    }
    IPAddrInfo info{};
    info.stEntry.stKey = entry.stKey;
    info.stEntry.uiFlag = entry.uiFlag;
    EXPECT_EQ(got, change_message(1, 0x40, info, 0));
}

TEST_F(ControlTest, AddMADAddrRefusesMadBitWithAnyOtherBit) {
    // Every one of the 31 other bits, each alone beside the MAD bit, on a descriptor that
    // would carry a send if one were made. Its receive side is shut, so a library that sent
    // anyway reads the end of the stream at once instead of waiting for an answer.
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
    ASSERT_EQ(::shutdown(pair[0], SHUT_RD), 0);
    for (std::uint32_t bit = 0; bit < 32; ++bit) {
        const std::uint32_t other = 1u << bit;
        if (other == IPADDR_METHOD_MAD) continue;
        IPAddrEntry entry = sample_entry();
        entry.stKey.uiMethod = IPADDR_METHOD_MAD | other;
        EXPECT_EQ(IPAddr_AddMADAddr(pair[0], &entry, 1, 0), IPSTATUS_FAILED) << "bit " << bit;
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND) + ipp_call_count(IPP_CALL_SENDMSG) + ipp_call_count(IPP_CALL_SENDTO), 0u);
    std::uint8_t buf[256];
    EXPECT_EQ(::recv(pair[1], buf, sizeof buf, MSG_DONTWAIT), -1) << "a message reached the peer";
    ::close(pair[0]);
    ::close(pair[1]);
}

TEST_F(ControlTest, AddMADAddrSendsTheMadWordWithZeroValueAndContext) {
    Bytes got;
    IPAddrEntry entry = sample_entry();
    entry.stKey.uiMethod = IPADDR_METHOD_MAD;
    {
        FakeService svc(0x8000, kPort, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message(final_answer(0));
        });
        const int fd = IPAddr_Open();
        EXPECT_EQ(IPAddr_AddMADAddr(fd, &entry, 0xBEEF, 0), 0u);
        IPAddr_Close(fd);
    }
    IPAddrInfo info{};
    info.stEntry = entry;
    EXPECT_EQ(got, change_message(0, 0, info, 0xBEEF));
}

TEST_F(ControlTest, BadArgumentsAreRefusedBeforeSending) {
    const IPAddrEntry entry = sample_entry();
    EXPECT_EQ(IPAddr_AddAddr(-1, &entry, 0, 0), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_AddAddrEx(3, nullptr, 0, 0, 0), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_DelAddr(-1, &entry, 0), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_DelAddr(3, nullptr, 0), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_EnableNetProtocol(-1, 1, 2), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_SmoothStart(-1, 1, 2), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_SmoothEnd(3, 0, 2), IPSTATUS_FAILED);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(ControlTest, AddressFlagMessagesCarryMethodBit) {
    std::vector<Bytes> got;
    {
        FakeService svc(0x8000, kPort, [&got](Conn& c) {
            for (int i = 0; i < 2; ++i) {
                got.push_back(c.recv_message());
                c.send_message(final_answer(static_cast<std::uint32_t>(i + 5)));
            }
        });
        const int fd = IPAddr_Open();
        EXPECT_EQ(IPAddr_SetDhcpFlag(fd, 0x01020304, 1), 5u);
        EXPECT_EQ(IPAddr_SetBootpFlag(fd, 0x05060708, 0), 6u);
        IPAddr_Close(fd);
    }
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], msg(3, words({0x01020304, 4, 1})));
    EXPECT_EQ(got[1], msg(3, words({0x05060708, 8, 0})));
}

TEST_F(ControlTest, AddressFlagMessageChecksNothing) {
    EXPECT_EQ(ipaddr_SetAddrFlag(-1, 1, 4, 1), IPSTATUS_IPSTACK_EXCHANGE);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
}

TEST_F(ControlTest, NetProtocolMessagesCarryAction) {
    std::vector<Bytes> got;
    {
        FakeService svc(0x8000, kPort, [&got](Conn& c) {
            for (int i = 0; i < 2; ++i) {
                got.push_back(c.recv_message());
                c.send_message(final_answer(0));
            }
        });
        const int fd = IPAddr_Open();
        EXPECT_EQ(IPAddr_EnableNetProtocol(fd, 0x0A, 0x0B), 0u);
        EXPECT_EQ(IPAddr_DisableNetProtocol(fd, 0x0C, 0x0D), 0u);
        IPAddr_Close(fd);
    }
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], msg(8, words({0x0A, 0x0B, 1})));
    EXPECT_EQ(got[1], msg(8, words({0x0C, 0x0D, 2})));
}

TEST_F(ControlTest, SmoothPhasesAreSentWithoutWaiting) {
    std::vector<Bytes> got;
    {
        FakeService svc(0x8000, kPort, [&got](Conn& c) {
            got.push_back(c.recv_message());
            got.push_back(c.recv_message());
        });
        const int fd = IPAddr_Open();
        EXPECT_EQ(IPAddr_SmoothStart(fd, 0x11, 0x22), 0u);
        EXPECT_EQ(IPAddr_SmoothEnd(fd, 0x33, 0x44), 0u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
        IPAddr_Close(fd);
    }
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], msg(5, words({1, 1, 0x11, 0x22})));
    EXPECT_EQ(got[1], msg(5, words({2, 1, 0x33, 0x44})));
}

TEST_F(ControlTest, SmoothPhaseSendErrorFails) {
    ipp_fault_inject(IPP_CALL_SEND, 1, EPIPE);
    EXPECT_EQ(IPAddr_SmoothStart(3, 1, 2), IPSTATUS_FAILED);
}

TEST_F(ControlTest, CloseOfNegativeSocketStillEmptiesTheQueue) {
    const IPAddrEntry entry = sample_entry();
    {
        FakeService svc(0x8000, kPort, [](Conn& c) {
            c.recv_message();
            c.send_message(msg(0, words({2, 0})));
            c.send_message(msg(0, words({3, 0})));
            c.send_message(final_answer(0));
            c.recv_message();
        });
        const int fd = IPAddr_Open();
        EXPECT_EQ(IPAddr_AddAddr(fd, &entry, 0, 0), 0u);
        IP_CloseSock(fd);
    }
    ASSERT_EQ(queued().size(), 2u);
    IPAddr_Close(-1);
    EXPECT_EQ(g_stCfgList.pstHead, nullptr);
    EXPECT_EQ(g_stCfgList.pstTail, nullptr);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);  // only the socket closed above
}

TEST_F(ControlTest, AddressTypeFlagIsReadFromTheSelfNode) {
    FakeKernel kernel;
    ipp_dir_set_self(6);
    Bytes reply;
    put32(reply, 0x00040004);
    kernel.reply(0, reply);
    EXPECT_EQ(IPAddr_GetAddrTypeFlag(0x0102), 0x00040004u);
    EXPECT_EQ(kernel.last().node, 6u);
    Bytes want = header(14, 4);
    put32(want, 0x0102);
    EXPECT_EQ(kernel.last().request, want);
}

TEST_F(ControlTest, AddressTypeFlagIsZeroWhenTheReadFails) {
    FakeKernel kernel;
    kernel.reply(0x40010001u, {0, 0, 0, 9});
    EXPECT_EQ(IPAddr_GetAddrTypeFlag(1), 0u);
}

}  // namespace
}  // namespace ipt
