// Family 37 on the host: whole messages, peek, wait-all, non-blocking receives, refused
// connections, time-outs, the own-node alias, options, groups and injected faults.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>

#include "ipplat/testctl.h"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/wrapped.hpp"

namespace ipt {
namespace {

class LipcTest : public PlatformTest {
protected:
    int client() {
        const int fd = __wrap_socket(37, 2, 1);
        EXPECT_GE(fd, 0);
        return fd;
    }
};

TEST_F(LipcTest, HostFamily37IsNotAvailableWithoutTheSubstitute) {
    const int fd = ::socket(37, 2, 1);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
}

TEST_F(LipcTest, ConnectWithoutListenerIsRefused) {
    const int fd = client();
    const LipcAddr addr(0x8000, 1648);
    EXPECT_EQ(__wrap_connect(fd, addr.sa(), 16), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    __wrap_close(fd);
}

TEST_F(LipcTest, ServerBindsWithZeroLengthByteAndClientReachesIt) {
    const int srv = __wrap_socket(37, 2, 1);
    ASSERT_GE(srv, 0);
    const int zero = 0;
    EXPECT_EQ(__wrap_setsockopt(srv, 1, 512, &zero, sizeof zero), 0);
    const LipcAddr bind_addr(0x8000, 4000, 0);
    ASSERT_EQ(__wrap_bind(srv, bind_addr.sa(), 16), 0);
    ASSERT_EQ(__wrap_listen(srv, 1024), 0);
    const int cli = client();
    const LipcAddr addr(0x8000, 4000);
    EXPECT_EQ(__wrap_connect(cli, addr.sa(), 16), 0);
    const int conn = __wrap_accept(srv, nullptr, nullptr);
    ASSERT_GE(conn, 0);
    EXPECT_EQ(__wrap_send(cli, "ping", 4, 0x100), 4);
    char buf[8] = {};
    EXPECT_EQ(__wrap_recv(conn, buf, sizeof buf, 0x100), 4);
    EXPECT_EQ(std::string(buf, 4), "ping");
    for (int fd : {conn, cli, srv}) __wrap_close(fd);
}

TEST_F(LipcTest, MessagesKeepTheirBoundariesAndWaitAllReturnsOneMessage) {
    FakeService svc(0x8000, 1700, [](Conn& c) {
        c.send_message({1, 2, 3});
        c.send_message({4, 5, 6, 7, 8});
        c.recv_message();  // stay until the client closes
    });
    const int fd = client();
    const LipcAddr addr(0x8000, 1700);
    ASSERT_EQ(__wrap_connect(fd, addr.sa(), 16), 0);
    std::uint8_t buf[64];
    EXPECT_EQ(__wrap_recv(fd, buf, sizeof buf, 0x100), 3);
    EXPECT_EQ(__wrap_recv(fd, buf, sizeof buf, 0x100), 5);
    EXPECT_EQ(buf[0], 4);
    __wrap_close(fd);
}

TEST_F(LipcTest, PeekLeavesTheMessageQueued) {
    FakeService svc(0x8000, 1701, [](Conn& c) {
        c.send_message({0, 7, 0, 12, 1, 2, 3, 4, 5, 6, 7, 8});
        c.recv_message();
    });
    const int fd = client();
    const LipcAddr addr(0x8000, 1701);
    ASSERT_EQ(__wrap_connect(fd, addr.sa(), 16), 0);
    std::uint8_t head[4];
    EXPECT_EQ(__wrap_recv(fd, head, 4, 0x102), 4);
    EXPECT_EQ(head[3], 12);
    std::uint8_t whole[12];
    EXPECT_EQ(__wrap_recv(fd, whole, sizeof whole, 0x100), 12);
    EXPECT_EQ(whole[11], 8);
    __wrap_close(fd);
}

TEST_F(LipcTest, ShortBufferTruncatesOneMessageAndDropsItsRest) {
    FakeService svc(0x8000, 1702, [](Conn& c) {
        c.send_message({1, 2, 3, 4, 5, 6});
        c.send_message({9});
        c.recv_message();
    });
    const int fd = client();
    const LipcAddr addr(0x8000, 1702);
    ASSERT_EQ(__wrap_connect(fd, addr.sa(), 16), 0);
    std::uint8_t buf[2];
    EXPECT_EQ(__wrap_recv(fd, buf, 2, 0x100), 2);
    EXPECT_EQ(__wrap_recv(fd, buf, 2, 0x100), 1);
    EXPECT_EQ(buf[0], 9);
    __wrap_close(fd);
}

TEST_F(LipcTest, NonBlockingReceiveWithNothingQueuedFailsAtOnce) {
    FakeService svc(0x8000, 1703, [](Conn& c) { c.recv_message(); });
    const int fd = client();
    const LipcAddr addr(0x8000, 1703);
    ASSERT_EQ(__wrap_connect(fd, addr.sa(), 16), 0);
    std::uint8_t buf[4];
    EXPECT_EQ(__wrap_recv(fd, buf, sizeof buf, 64), -1);
    EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);
    __wrap_close(fd);
}

TEST_F(LipcTest, ReceiveTimeOutOptionEndsABlockedReceive) {
    FakeService svc(0x8000, 1704, [](Conn& c) { c.recv_message(); });
    const int fd = client();
    timeval tv{0, 50000};
    static_assert(sizeof tv == 16);
    EXPECT_EQ(__wrap_setsockopt(fd, 1, 0x1006, &tv, sizeof tv), 0);
    EXPECT_EQ(__wrap_setsockopt(fd, 1, 0x1005, &tv, sizeof tv), 0);
    const int size = 1024;
    EXPECT_EQ(__wrap_setsockopt(fd, 1, 0x1001, &size, sizeof size), 0);
    const LipcAddr addr(0x8000, 1704);
    ASSERT_EQ(__wrap_connect(fd, addr.sa(), 16), 0);
    std::uint8_t buf[4];
    EXPECT_EQ(__wrap_recv(fd, buf, sizeof buf, 0x100), -1);
    EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);
    __wrap_close(fd);
}

TEST_F(LipcTest, ClosedPeerGivesZeroAndSendDoesNotRaiseSignal) {
    FakeService svc(0x8000, 1705, [](Conn&) {});
    const int fd = client();
    const LipcAddr addr(0x8000, 1705);
    ASSERT_EQ(__wrap_connect(fd, addr.sa(), 16), 0);
    std::uint8_t buf[4];
    EXPECT_EQ(__wrap_recv(fd, buf, sizeof buf, 0x100), 0);
    EXPECT_EQ(__wrap_send(fd, "x", 1, 0x100), -1);
    EXPECT_EQ(errno, EPIPE);
    __wrap_close(fd);
}

TEST_F(LipcTest, OwnNodeAliasAndExplicitLocalNodeMeetAndPeerNodeIsBigEndianAtFour) {
    ipp_dir_set_local_node(0x0123);
    FakeService svc(0x0123, 1706, [](Conn& c) { c.recv_message(); });
    const int fd = client();
    const LipcAddr addr(0x8000, 1706);
    ASSERT_EQ(__wrap_connect(fd, addr.sa(), 16), 0);
    unsigned char peer[16] = {};
    socklen_t len = 16;
    ASSERT_EQ(__wrap_getpeername(fd, reinterpret_cast<sockaddr*>(peer), &len), 0);
    EXPECT_EQ(len, 16u);
    EXPECT_EQ(peer[1], 37);
    EXPECT_EQ(peer[2], 1706 >> 8);
    EXPECT_EQ(peer[3], 1706 & 0xFF);
    EXPECT_EQ(peer[4], 0x01);
    EXPECT_EQ(peer[5], 0x23);
    __wrap_close(fd);
}

TEST_F(LipcTest, OtherNodesHaveTheirOwnEndpoints) {
    ipp_dir_set_local_node(1);
    FakeService svc(2, 1707, [](Conn& c) { c.recv_message(); });
    const int fd = client();
    const LipcAddr own(0x8000, 1707);
    EXPECT_EQ(__wrap_connect(fd, own.sa(), 16), -1);
    const LipcAddr other(2, 1707);
    EXPECT_EQ(__wrap_connect(fd, other.sa(), 16), 0);
    __wrap_close(fd);
}

TEST_F(LipcTest, GetPeerNameOfUnconnectedSocketFails) {
    const int fd = client();
    unsigned char peer[16];
    socklen_t len = 16;
    EXPECT_EQ(__wrap_getpeername(fd, reinterpret_cast<sockaddr*>(peer), &len), -1);
    __wrap_close(fd);
}

TEST_F(LipcTest, AddressServiceOptionAcceptsNullValueAndIsLogged) {
    const int fd = client();
    EXPECT_EQ(__wrap_setsockopt(fd, 275, 15, nullptr, 0), 0);
    __wrap_close(fd);
    ASSERT_EQ(ipp_sock_log_count(), 3u);
    ipp_sock_event ev{};
    ASSERT_EQ(ipp_sock_log_get(1, &ev), 0);
    EXPECT_EQ(ev.call, IPP_CALL_SETSOCKOPT);
    EXPECT_EQ(ev.level, 275);
    EXPECT_EQ(ev.option, 15);
    EXPECT_EQ(ev.value_null, 1);
    EXPECT_EQ(ev.value_len, 0u);
    EXPECT_EQ(ev.result, 0);
}

TEST_F(LipcTest, UnknownLipcLevelOptionIsRefused) {
    const int fd = client();
    const int v = 1;
    EXPECT_EQ(__wrap_setsockopt(fd, 275, 99, &v, sizeof v), -1);
    EXPECT_EQ(errno, ENOPROTOOPT);
    __wrap_close(fd);
}

TEST_F(LipcTest, GroupSocketJoinsAndReceivesGroupDatagrams) {
    const int fd = __wrap_socket(37, 2, 2);
    ASSERT_GE(fd, 0);
    const std::uint32_t type = 3;
    ASSERT_EQ(__wrap_setsockopt(fd, 275, 1, &type, sizeof type), 0);
    std::uint8_t member[8] = {};
    const std::uint16_t third = 0x0B, first = 0x0A;
    std::memcpy(member, &third, 2);
    std::memcpy(member + 2, &first, 2);
    ASSERT_EQ(__wrap_setsockopt(fd, 275, 5, member, sizeof member), 0);
    EXPECT_EQ(ipp_lipc_group_send(3, 0x0A, 0x0B, "abc", 3), 3);
    char buf[8];
    EXPECT_EQ(__wrap_recv(fd, buf, sizeof buf, 64), 3);
    __wrap_close(fd);
}

TEST_F(LipcTest, GroupOptionsOnPointToPointSocketAreRefused) {
    const int fd = client();
    const std::uint32_t type = 3;
    EXPECT_EQ(__wrap_setsockopt(fd, 275, 1, &type, sizeof type), -1);
    __wrap_close(fd);
}

TEST_F(LipcTest, InjectedConnectFaultsFailThatManyCallsThenClear) {
    FakeService svc(0x8000, 1708, [](Conn& c) { c.recv_message(); });
    ipp_fault_inject(IPP_CALL_CONNECT, 2, EINTR);
    const int fd = client();
    const LipcAddr addr(0x8000, 1708);
    EXPECT_EQ(__wrap_connect(fd, addr.sa(), 16), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(__wrap_connect(fd, addr.sa(), 16), -1);
    EXPECT_EQ(__wrap_connect(fd, addr.sa(), 16), 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 3u);
    __wrap_close(fd);
}

TEST_F(LipcTest, ShortSendCarriesOnlyThePrefix) {
    Bytes got;
    {
        FakeService svc(0x8000, 1709, [&got](Conn& c) { got = c.recv_message(); });
        ipp_fault_short_send(1, 3);
        const int fd = client();
        const LipcAddr addr(0x8000, 1709);
        ASSERT_EQ(__wrap_connect(fd, addr.sa(), 16), 0);
        EXPECT_EQ(__wrap_send(fd, "abcdef", 6, 0x100), 3);
        __wrap_close(fd);
    }  // the service has read and stopped
    EXPECT_EQ(got, (Bytes{'a', 'b', 'c'}));
}

TEST_F(LipcTest, ZeroLengthSendReportsZero) {
    FakeService svc(0x8000, 1711, [](Conn& c) { c.recv_message(); });
    const int fd = client();
    const LipcAddr addr(0x8000, 1711);
    ASSERT_EQ(__wrap_connect(fd, addr.sa(), 16), 0);
    EXPECT_EQ(__wrap_send(fd, "", 0, 0x100), 0);
    __wrap_close(fd);
}

TEST_F(LipcTest, OtherFamiliesPassThrough) {
    const int fd = __wrap_socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    const int one = 1;
    EXPECT_EQ(__wrap_setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one), 0);
    EXPECT_EQ(__wrap_close(fd), 0);
}

}  // namespace
}  // namespace ipt
