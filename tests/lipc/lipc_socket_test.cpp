// Local-IPC socket operations: opening, connect budgets, closing, groups, peer node and
// the diagnostics they print.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "ipclient/lipc.h"
#include "ipplat/testctl.h"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"

namespace ipt {
namespace {

class LipcSocketTest : public PlatformTest {
protected:
    // Socket calls of one kind recorded since the reset.
    static std::vector<ipp_sock_event> events(ipp_call call) {
        std::vector<ipp_sock_event> out;
        for (std::uint32_t i = 0; i < ipp_sock_log_count(); ++i) {
            ipp_sock_event ev{};
            if (ipp_sock_log_get(i, &ev) == 0 && ev.call == call) out.push_back(ev);
        }
        return out;
    }
};

TEST_F(LipcSocketTest, OpenCliSockConnectsWithClientAddress) {
    FakeService svc(0x8000, 2000, [](Conn& c) { c.recv_message(); });
    const int fd = IP_OpenCliSock(0x8000, 2000);
    ASSERT_GE(fd, 0);
    const auto sockets = events(IPP_CALL_SOCKET);
    ASSERT_EQ(sockets.size(), 1u);
    EXPECT_EQ(sockets[0].domain, 37);
    EXPECT_EQ(sockets[0].type, 2);
    EXPECT_EQ(sockets[0].protocol, 1);
    const auto connects = events(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    EXPECT_EQ(connects[0].addr_len, 16u);
    const std::uint8_t want[16] = {16, 37, 0x07, 0xD0, 0x80, 0x00};
    EXPECT_EQ(std::memcmp(connects[0].addr, want, 16), 0);
    IP_CloseSock(fd);
}

TEST_F(LipcSocketTest, OpenCliSockWithoutListenerMakesExactlyOneConnect) {
    EXPECT_EQ(IP_OpenCliSock(0x8000, 2001), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(LipcSocketTest, OpenCliSockUnderRepeatedEintrMakesAtMostElevenConnects) {
    ipp_fault_inject(IPP_CALL_CONNECT, 50, EINTR);
    EXPECT_EQ(IP_OpenCliSock(0x8000, 2002), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 11u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SLEEP), 0u);
}

TEST_F(LipcSocketTest, OpenCliSockRetriesEintrAndThenConnects) {
    FakeService svc(0x8000, 2003, [](Conn& c) { c.recv_message(); });
    ipp_fault_inject(IPP_CALL_CONNECT, 10, EINTR);
    const int fd = IP_OpenCliSock(0x8000, 2003);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 11u);
    IP_CloseSock(fd);
}

TEST_F(LipcSocketTest, OpenCliSockTakesEisconnAsConnected) {
    ipp_fault_inject(IPP_CALL_CONNECT, 1, EISCONN);
    const int fd = IP_OpenCliSock(0x8000, 2004);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    IP_CloseSock(fd);
}

TEST_F(LipcSocketTest, OpenCliSockGivesUpAtOnceOnPermissionRefusal) {
    ipp_fault_inject(IPP_CALL_CONNECT, 5, EPERM);
    EXPECT_EQ(IP_OpenCliSock(0x8000, 2005), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SLEEP), 0u);
}

TEST_F(LipcSocketTest, OpenPullSockUnderPermissionRefusalSleepsAfterEveryOneOfElevenConnects) {
    ipp_fault_inject(IPP_CALL_CONNECT, 100, EPERM);
    EXPECT_EQ(IP_OpenPullSock(0x8000, 2006), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 11u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SLEEP), 11u);
    EXPECT_EQ(ipp_sleep_total_seconds(), 11u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(LipcSocketTest, OpenPullSockConnectsAfterPermissionRefusals) {
    FakeService svc(3, 2007, [](Conn& c) { c.recv_message(); });
    ipp_fault_inject(IPP_CALL_CONNECT, 3, EPERM);
    const int fd = IP_OpenPullSock(3, 2007);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 4u);
    EXPECT_EQ(ipp_sleep_total_seconds(), 3u);
    IP_CloseSock(fd);
}

TEST_F(LipcSocketTest, OpenPullSockRetriesEintrWithoutSleeping) {
    ipp_fault_inject(IPP_CALL_CONNECT, 50, EINTR);
    EXPECT_EQ(IP_OpenPullSock(0x8000, 2008), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 11u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SLEEP), 0u);
}

TEST_F(LipcSocketTest, OpenPullSockOtherErrorEndsTheLoop) {
    EXPECT_EQ(IP_OpenPullSock(0x8000, 2009), -1);  // refused: nobody listens
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
}

TEST_F(LipcSocketTest, OpenSocketFailureReturnsMinusOne) {
    ipp_fault_inject(IPP_CALL_SOCKET, 2, EMFILE);
    EXPECT_EQ(IP_OpenCliSock(0x8000, 2010), -1);
    EXPECT_EQ(IP_OpenPullSock(0x8000, 2010), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 0u);
}

TEST_F(LipcSocketTest, CloseSockOfNegativeDescriptorDoesNothing) {
    IP_CloseSock(-1);
    PORTATK_CloseSock(-5);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
}

TEST_F(LipcSocketTest, OpenSrvSockSetsOptionBindsWithZeroLengthByteAndListens) {
    const int fd = IP_OpenSrvSock(2011);
    ASSERT_GE(fd, 0);
    const auto opts = events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 1u);
    EXPECT_EQ(opts[0].level, 1);
    EXPECT_EQ(opts[0].option, 512);
    EXPECT_EQ(opts[0].value_len, 4u);
    const int zero = 0;
    EXPECT_EQ(std::memcmp(opts[0].value, &zero, 4), 0);
    const auto binds = events(IPP_CALL_BIND);
    ASSERT_EQ(binds.size(), 1u);
    const std::uint8_t want[16] = {0, 37, 0x07, 0xDB, 0x80, 0x00};
    EXPECT_EQ(binds[0].addr_len, 16u);
    EXPECT_EQ(std::memcmp(binds[0].addr, want, 16), 0);
    const auto listens = events(IPP_CALL_LISTEN);
    ASSERT_EQ(listens.size(), 1u);
    EXPECT_EQ(listens[0].length, 1024u);
    // A client reaches it.
    const int cli = IP_OpenCliSock(0x8000, 2011);
    EXPECT_GE(cli, 0);
    IP_CloseSock(cli);
    IP_CloseSock(fd);
}

TEST_F(LipcSocketTest, OpenSrvSockPrintsSocketFailure) {
    ipp_fault_inject(IPP_CALL_SOCKET, 1, EMFILE);
    testing::internal::CaptureStdout();
    EXPECT_EQ(IP_OpenSrvSock(2012), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ip open srv fd = -1, errno = 24\r\n");
}

TEST_F(LipcSocketTest, OpenSrvSockPrintsOptionFailureAndCloses) {
    ipp_fault_inject(IPP_CALL_SETSOCKOPT, 1, ENOBUFS);
    testing::internal::CaptureStdout();
    EXPECT_EQ(IP_OpenSrvSock(2013), -1);
    const std::string out = testing::internal::GetCapturedStdout();
    const auto sockets = events(IPP_CALL_SOCKET);
    ASSERT_EQ(sockets.size(), 1u);
    EXPECT_EQ(out, "ip open srv2 fd = " + std::to_string(sockets[0].result) + ", errno = 105\r\n");
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(LipcSocketTest, OpenSrvSockPrintsBindFailureAndCloses) {
    const int first = IP_OpenSrvSock(2014);
    ASSERT_GE(first, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(IP_OpenSrvSock(2014), -1);  // the port is taken
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ip open srv err = -1, errno = 98\r\n");
    IP_CloseSock(first);
}

TEST_F(LipcSocketTest, OpenSrvSockPrintsListenFailure) {
    ipp_fault_inject(IPP_CALL_LISTEN, 1, EINVAL);
    testing::internal::CaptureStdout();
    EXPECT_EQ(IP_OpenSrvSock(2015), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ip open srv err = -1, errno = 22\r\n");
}

TEST_F(LipcSocketTest, JoinGroupSetsTypeAndMembershipInHostOrder) {
    const int fd = IP_JoinGroup(0x0A0B, 0x01020304, 0x0C0D);
    ASSERT_GE(fd, 0);
    const auto sockets = events(IPP_CALL_SOCKET);
    ASSERT_EQ(sockets.size(), 1u);
    EXPECT_EQ(sockets[0].protocol, 2);
    const auto opts = events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 2u);
    EXPECT_EQ(opts[0].level, 275);
    EXPECT_EQ(opts[0].option, 1);
    EXPECT_EQ(opts[0].value_len, 4u);
    const std::uint32_t type = 0x01020304;
    EXPECT_EQ(std::memcmp(opts[0].value, &type, 4), 0);
    EXPECT_EQ(opts[1].option, 5);
    EXPECT_EQ(opts[1].value_len, 8u);
    std::uint8_t member[8] = {};
    const std::uint16_t third = 0x0C0D, first = 0x0A0B;
    std::memcpy(member, &third, 2);
    std::memcpy(member + 2, &first, 2);
    EXPECT_EQ(std::memcmp(opts[1].value, member, 8), 0);
    EXPECT_EQ(ipp_lipc_group_send(0x01020304, 0x0A0B, 0x0C0D, "hi", 2), 2);
    char buf[4];
    EXPECT_EQ(::recv(fd, buf, sizeof buf, MSG_DONTWAIT), 2);
    IP_CloseSock(fd);
}

TEST_F(LipcSocketTest, JoinGroupPrintsGroupTypeFailure) {
    ipp_fault_inject(IPP_CALL_SETSOCKOPT, 1, EINVAL);
    testing::internal::CaptureStdout();
    EXPECT_EQ(IP_JoinGroup(1, 2, 3), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), " Failed to set group type.\r\nReturn = -1, errno = 22\r\n");
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(LipcSocketTest, JoinGroupPrintsJoinFailure) {
    const int holder = IP_JoinGroup(1, 2, 3);  // the group endpoint is taken on this host
    ASSERT_GE(holder, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(IP_JoinGroup(1, 2, 3), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), " Failed to join group. \r\n");
    IP_CloseSock(holder);
}

TEST_F(LipcSocketTest, PeerNodeIsReadFromTheBigEndianNodeField) {
    ipp_dir_set_local_node(0x0102);
    FakeService svc(7, 2016, [](Conn& c) { c.recv_message(); });
    const int fd = IP_OpenCliSock(7, 2016);
    ASSERT_GE(fd, 0);
    std::uint16_t node = 0;
    EXPECT_EQ(IP_GetPeerNodeFromSocket(fd, &node), 0u);
    EXPECT_EQ(node, 7u);
    IP_CloseSock(fd);
    const int own = -1;
    EXPECT_EQ(IP_GetPeerNodeFromSocket(own, &node), IPSTATUS_FAILED);
    const auto calls = events(IPP_CALL_GETPEERNAME);
    ASSERT_EQ(calls.size(), 2u);
}

}  // namespace
}  // namespace ipt
