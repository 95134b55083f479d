// The protocol-to-CPU enabling channel.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <vector>

#include "ipclient/adj.h"
#include "ipplat/testctl.h"
#include "support/directory_interface.hpp"
#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/sock_log.hpp"

namespace ipt {
namespace {

class ProenTest : public PlatformTest {
protected:
    ProenTest() { ipp_dir_set_local_node(3); }
    void TearDown() override {
        PROEN_Close(PROEN_GetSocketFd());
        PlatformTest::TearDown();
    }


    static void add_interface(std::uint32_t ifindex, std::uint32_t type) {
        DirInterface(ifindex).type(type).add();
    }
};

Bytes header(std::uint32_t type, std::uint32_t reply_flag) {
    Bytes b;
    put32(b, type);
    put32(b, reply_flag);
    put32(b, 1);
    put32(b, 20);
    b.insert(b.end(), {0x00, 0x60, 0x00, 0x00});
    return b;
}

// The 96-byte enable request with words placed at their offsets.
Bytes request(std::initializer_list<std::pair<std::size_t, std::uint32_t>> words, bool local = false) {
    Bytes b(96, 0);
    b[33] = 0x38;
    for (const auto& [off, v] : words) {
        b[off] = static_cast<std::uint8_t>(v >> 24);
        b[off + 1] = static_cast<std::uint8_t>(v >> 16);
        b[off + 2] = static_cast<std::uint8_t>(v >> 8);
        b[off + 3] = static_cast<std::uint8_t>(v);
    }
    if (local) b[93] = 1;
    return b;
}

Bytes concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A service that answers every enable request with a status and records the requests.
FakeService::Script answering(std::vector<Bytes>* got, std::uint32_t status) {
    return [got, status](Conn& c) {
        for (Bytes m; !(m = c.recv_message(65536, 2000)).empty();) {
            got->push_back(m);
            Bytes answer;
            put32(answer, status);
            c.send_message(answer);
        }
    };
}

// A service that records one-way messages until the client closes.
FakeService::Script recording(std::vector<Bytes>* got) {
    return [got](Conn& c) {
        for (Bytes m; !(m = c.recv_message(65536, 2000)).empty();) got->push_back(m);
    };
}

// The requests a service at `port` on `node` received while `call` ran, each answered with
// `status`.
std::vector<Bytes> answered(std::uint16_t node, std::uint16_t port, std::uint32_t status,
                            const std::function<void()>& call) {
    std::vector<Bytes> got;
    {
        FakeService svc(node, port, answering(&got, status));
        call();
    }
    return got;
}

TEST_F(ProenTest, MsgSendWithNullPayloadAndALengthFailsBeforeSending) {
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    EXPECT_EQ(PROEN_MSG_Send(1, sv[0], 0, 4, nullptr), IPSTATUS_FAILED);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u) << "nothing is sent";
    ::close(sv[0]);
    ::close(sv[1]);
}

TEST_F(ProenTest, SendFramesTheTwentyByteHeaderAndSendsWithoutBlocking) {
    std::vector<Bytes> got;
    {
        FakeService svc(0x8000, 1680, recording(&got));
        const int fd = PROEN_MSG_MsgStart(0x8000, 1680);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(PROEN_MSG_Send(4, fd, 1, 3, "\x0A\x0B\x0C"), 0u);
        PROEN_MSG_MsgEnd(fd);
    }
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], concat(header(4, 1), {0x0A, 0x0B, 0x0C}));
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 64);
}

TEST_F(ProenTest, MsgStartSetsThirtySecondTimeOutsAndConnects) {
    FakeService svc(5, 1680, [](Conn& c) { c.recv_message(); });
    const int fd = PROEN_MSG_MsgStart(5, 1680);
    ASSERT_GE(fd, 0);
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 2u);
    EXPECT_EQ(opts[0].option, 0x1005);
    EXPECT_EQ(opts[1].option, 0x1006);
    timeval tv{};
    tv.tv_sec = 30;
    for (const auto& o : opts) {
        EXPECT_EQ(o.level, 1);
        EXPECT_EQ(o.value_len, 16u);
        EXPECT_EQ(std::memcmp(o.value, &tv, 16), 0);
    }
    expect_one_connect(0x0005, 0x0690);
    PROEN_MSG_MsgEnd(fd);
}

TEST_F(ProenTest, MsgStartInterruptedElevenTimesInARowFails) {
    ipp_fault_inject(IPP_CALL_CONNECT, 11, EINTR);
    EXPECT_EQ(PROEN_MSG_MsgStart(0x8000, 1680), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 11u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(ProenTest, MsgStartAcceptsEisconnAndFailsOnOtherErrorsAtOnce) {
    ipp_fault_inject(IPP_CALL_CONNECT, 1, EISCONN);
    const int fd = PROEN_MSG_MsgStart(0x8000, 1680);
    EXPECT_GE(fd, 0);
    PROEN_MSG_MsgEnd(fd);
    EXPECT_EQ(PROEN_MSG_MsgStart(0x8000, 1680), -1);  // refused
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 2u);
}

TEST_F(ProenTest, EnableSendsTheRequestToThePortAndReturnsTheServiceStatus) {
    add_interface(0x0A0B0C0D, 7);
    const auto got = answered(0x8000, 1680, 0x12345678, [] {
        EXPECT_EQ(IP_EnableProtocolToCPU(0x01020304, 1, 0x05060708, 0x11, 0x12, 0x13, 0x14, 0x15, 0x0A0B0C0D),
                  0x12345678u);
    });
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], concat(header(1, 0), request({{0, 0x01020304}, {4, 0x05060708}, {40, 0x11}, {44, 0x12},
                                                    {48, 0x13}, {52, 0x14}, {56, 0x15}, {60, 0x0A0B0C0D}})));
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), ipp_call_count(IPP_CALL_CLOSE));
}

TEST_F(ProenTest, EnableWithFlagAndInterfaceZeroFailsWithoutSending) {
    EXPECT_EQ(IP_EnableProtocolToCPU(1, 1, 2, 3, 4, 5, 6, 7, 0), IPSTATUS_FAILED);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(ProenTest, EnableWithFlagClearIgnoresTheInterfaceIndex) {
    const auto got =
        answered(0x8000, 1680, 0, [] { EXPECT_EQ(IP_EnableProtocolToCPU(1, 0, 2, 3, 4, 5, 6, 7, 99), 0u); });
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].size(), 116u);
    EXPECT_EQ(Bytes(got[0].begin() + 20 + 60, got[0].begin() + 20 + 64), Bytes(4, 0));
}

TEST_F(ProenTest, InterfaceOfKind40Or11YieldsZeroAndNoMessage) {
    add_interface(40, 40);
    add_interface(11, 11);
    EXPECT_EQ(IP_EnableProtocolToCPU(1, 1, 2, 3, 4, 5, 6, 7, 40), 0u);
    EXPECT_EQ(IP_EnableProtocolToCPU(1, 1, 2, 3, 4, 5, 6, 7, 11), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(ProenTest, ChildContextMakesEveryEnableANoOp) {
    ipp_dir_set_mdc(2, 1);
    EXPECT_EQ(IP_EnableProtocolToCPU(1, 1, 2, 3, 4, 5, 6, 7, 0), 0u);
    EXPECT_EQ(IP_EnableProtocolToCPULocal(1, 0, 2, 3, 4, 5, 6, 7, 0), 0u);
    EXPECT_EQ(IP_EnableProtocolPacketListToCPU(1, nullptr), 0u);  // the list is checked after
    ProenEnableItemEx ex{};
    EXPECT_EQ(IP_EnableProtocolToCpuEx(1, &ex, 0), 0u);
    EXPECT_EQ(IP_EnableProtocolToCpuEx(0, &ex, 0), IPSTATUS_FAILED);  // checked before
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(ProenTest, LocalEnableGoesToTheLocalNodePortAndMarksTheRequest) {
    const auto got =
        answered(3, 11557, 0, [] { EXPECT_EQ(IP_EnableProtocolToCPULocal(9, 0, 8, 7, 6, 5, 4, 3, 0), 0u); });
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], concat(header(1, 0),
                             request({{0, 9}, {4, 8}, {40, 7}, {44, 6}, {48, 5}, {52, 4}, {56, 3}}, true)));
}

TEST_F(ProenTest, EnableWithoutServiceReportsNoSocket) {
    EXPECT_EQ(IP_EnableProtocolToCPU(1, 0, 2, 3, 4, 5, 6, 7, 0), IPSTATUS_PROEN_NO_SOCKET);
}

TEST_F(ProenTest, EnableWithoutReplyFails) {
    FakeService svc(0x8000, 1680, [](Conn& c) { c.recv_message(); });
    EXPECT_EQ(IP_EnableProtocolToCPU(1, 0, 2, 3, 4, 5, 6, 7, 0), IPSTATUS_FAILED);
}

TEST_F(ProenTest, ListWithThreeElementsOfWhichTwoFailReturnsTheSum) {
    std::vector<Bytes> got;
    {
        FakeService svc(0x8000, 1680, recording(&got));
        ProenEnableItem items[3] = {};
        for (auto& it : items) it.auiWord[0] = 5;
        ipp_fault_inject(IPP_CALL_SEND, 2, EAGAIN);
        EXPECT_EQ(IP_EnableProtocolPacketListToCPU(3, items), 0x80020002u);
    }
    EXPECT_EQ(got.size(), 1u);
}

TEST_F(ProenTest, ListOpensOneSocketSetsItsSendBufferAndSendsWithoutWaiting) {
    add_interface(21, 7);
    add_interface(40, 40);
    std::vector<Bytes> got;
    ProenEnableItem items[4] = {};
    items[0] = {{1, 1, 2, 3, 4, 5, 6, 7, 21}};
    items[1] = {{1, 1, 2, 3, 4, 5, 6, 7, 0}};   // flag without interface: skipped
    items[2] = {{1, 1, 2, 3, 4, 5, 6, 7, 40}};  // interface of kind 40: skipped
    items[3] = {{9, 0, 8, 7, 6, 5, 4, 3, 77}};  // no flag: the index is cleared in the caller's array
    {
        FakeService svc(0x8000, 1680, recording(&got));
        EXPECT_EQ(IP_EnableProtocolPacketListToCPU(4, items), 0u);
    }
    EXPECT_EQ(items[3].auiWord[8], 0u);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], concat(header(1, 1), request({{0, 1}, {4, 2}, {40, 3}, {44, 4}, {48, 5}, {52, 6}, {56, 7},
                                                    {60, 21}})));
    EXPECT_EQ(got[1], concat(header(1, 1), request({{0, 9}, {4, 8}, {40, 7}, {44, 6}, {48, 5}, {52, 4}, {56, 3}})));
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    bool buffer_set = false;
    for (const auto& o : sock_events(IPP_CALL_SETSOCKOPT)) {
        if (o.option == 0x1001) {
            const int size = 1024;
            buffer_set = o.level == 1 && std::memcmp(o.value, &size, 4) == 0;
        }
    }
    EXPECT_TRUE(buffer_set);
}

TEST_F(ProenTest, ListArgumentsAndMissingService) {
    EXPECT_EQ(IP_EnableProtocolPacketListToCPU(2, nullptr), IPSTATUS_FAILED);
    ProenEnableItem item{};
    EXPECT_EQ(IP_EnableProtocolPacketListToCPU(0, &item), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
    EXPECT_EQ(IP_EnableProtocolPacketListToCPU(1, &item), IPSTATUS_PROEN_NO_SOCKET);
    EXPECT_EQ(IP_EnableProtocolToCpuEx(1, nullptr, 0), IPSTATUS_FAILED);
}

TEST_F(ProenTest, ExFirstElementWithFlagClearCarriesZeroInterfaceForEveryElement) {
    std::vector<Bytes> got;
    ProenEnableItemEx items[2] = {};
    items[0].auiWord[1] = 0;
    items[0].auiWord[10] = 55;
    items[1].auiWord[1] = 1;
    items[1].auiWord[10] = 66;
    {
        FakeService svc(0x8000, 1680, recording(&got));
        EXPECT_EQ(IP_EnableProtocolToCpuEx(2, items, 0), 0u);
    }
    ASSERT_EQ(got.size(), 2u);
    for (const Bytes& m : got) EXPECT_EQ(Bytes(m.begin() + 20 + 60, m.begin() + 20 + 64), Bytes(4, 0));
}

TEST_F(ProenTest, ExPlacesEveryWordOfTheElement) {
    std::vector<Bytes> got;
    ProenEnableItemEx item{};
    for (std::uint32_t i = 0; i < 11; ++i) item.auiWord[i] = 0x01010101u * (i + 1);
    item.auiWord[1] = 1;
    item.usHalf = 0xABCD;
    item.usReserved = 0xEEEE;
    {
        FakeService svc(0x8000, 1680, recording(&got));
        EXPECT_EQ(IP_EnableProtocolToCpuEx(1, &item, 0x99887766), 0u);
    }
    ASSERT_EQ(got.size(), 1u);
    Bytes want = request({{0, 0x01010101}, {4, 0x03030303}, {40, 0x04040404}, {64, 0x05050505}, {44, 0x06060606},
                          {48, 0x07070707}, {52, 0x08080808}, {56, 0x09090909}, {72, 0x0A0A0A0A},
                          {60, 0x0B0B0B0B}, {36, 3}, {88, 0x99887766}});
    want[68] = 0xAB;
    want[69] = 0xCD;
    EXPECT_EQ(got[0], concat(header(1, 1), want));
    // No socket option and no interface-kind test on this path.
    for (const auto& o : sock_events(IPP_CALL_SETSOCKOPT)) EXPECT_NE(o.option, 0x1001);
}

TEST_F(ProenTest, ProcessDescriptorIsSharedAndClosedOnlyByItself) {
    std::vector<Bytes> got;
    FakeService svc(0x8000, 1680, answering(&got, 7));
    const int fd = PROEN_Open();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(PROEN_GetSocketFd(), fd);
    const std::uint64_t sockets = ipp_call_count(IPP_CALL_SOCKET);
    EXPECT_EQ(IP_EnableProtocolToCPU(1, 0, 2, 3, 4, 5, 6, 7, 0), 7u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), sockets);
    PROEN_Close(fd + 100);
    PROEN_Close(-1);
    EXPECT_EQ(PROEN_GetSocketFd(), fd);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
    PROEN_Close(fd);
    EXPECT_EQ(PROEN_GetSocketFd(), -1);
}

TEST_F(ProenTest, SmoothMessagesCarryTheSecondWordFirstAndWaitForNothing) {
    std::vector<Bytes> got;
    {
        FakeService svc(0x8000, 1680, recording(&got));
        ASSERT_GE(PROEN_Open(), 0);
        EXPECT_EQ(PROEN_AppSmoothStart(0x01020304, 0x05060708), 0u);
        EXPECT_EQ(PROEN_AppSmoothEnd(0x0A, 0x0B), 0u);
        PROEN_Close(PROEN_GetSocketFd());
    }
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], concat(header(4, 1), {5, 6, 7, 8, 1, 2, 3, 4}));
    EXPECT_EQ(got[1], concat(header(6, 1), {0, 0, 0, 0x0B, 0, 0, 0, 0x0A}));
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(ProenTest, SendMsgAndRecvChecksItsPointers) {
    const std::uint8_t payload[4] = {};
    std::uint8_t reply[4];
    std::uint16_t len = 4;
    ProenMsgRequest req{0x8000, 1680, 4, payload};
    EXPECT_EQ(PROEN_MSG_SendMsgAndRecv(1, nullptr, &len, reply), IPSTATUS_FAILED);
    EXPECT_EQ(PROEN_MSG_SendMsgAndRecv(1, &req, &len, nullptr), IPSTATUS_FAILED);
    req.pPayload = nullptr;
    EXPECT_EQ(PROEN_MSG_SendMsgAndRecv(1, &req, &len, reply), IPSTATUS_FAILED);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(ProenTest, ReceiveWaitsForAllAndRepeatsOnInterruption) {
    const Bytes reply{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    FakeService svc(0x8000, 1680, [&reply](Conn& c) {
        c.send_message(reply);
        (void)c.recv_message(16, 5000);  // held open until the client closes
    });
    const int fd = PROEN_MSG_MsgStart(0x8000, 1680);
    ASSERT_GE(fd, 0);
    ipp_fault_inject(IPP_CALL_RECV, 3, EINTR);
    std::uint8_t buf[8] = {};
    std::uint16_t len = sizeof buf;
    EXPECT_EQ(PROEN_MSG_Recv(fd, &len, buf), 0u);
    EXPECT_EQ(len, 8u);
    EXPECT_EQ(Bytes(buf, buf + sizeof buf), reply);
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 4u);
    for (std::size_t i = 0; i < recvs.size(); ++i) {
        EXPECT_EQ(recvs[i].fd, fd) << i;
        EXPECT_EQ(recvs[i].flags, MSG_WAITALL) << i;
        EXPECT_EQ(recvs[i].length, 8u) << i;
    }
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(recvs[i].result, -1) << i;
        EXPECT_EQ(recvs[i].err, EINTR) << i;
    }
    EXPECT_EQ(recvs[3].result, 8);
    PROEN_MSG_MsgEnd(fd);
}

TEST_F(ProenTest, ReceiveFromClosedPeerSetsLengthZero) {
    FakeService svc(0x8000, 1680, [](Conn&) {});
    const int fd = PROEN_MSG_MsgStart(0x8000, 1680);
    ASSERT_GE(fd, 0);
    std::uint8_t buf[8];
    std::uint16_t len = sizeof buf;
    EXPECT_EQ(PROEN_MSG_Recv(fd, &len, buf), IPSTATUS_FAILED);
    EXPECT_EQ(len, 0u);
    PROEN_MSG_MsgEnd(fd);
}

}  // namespace
}  // namespace ipt
