// Local-IPC socket operations: opening, connect budgets, closing, groups, peer node and
// the diagnostics they print.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <ostream>
#include <string>

#include "ipclient/lipc.h"
#include "ipplat/testctl.h"
#include "support/case_name.hpp"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/sock_log.hpp"

namespace ipt {
namespace {

class LipcSocketTest : public PlatformTest {};

TEST_F(LipcSocketTest, OpenCliSockConnectsWithClientAddress) {
    FakeService svc(0x8000, 2000, [](Conn& c) { c.recv_message(); });
    const int fd = IP_OpenCliSock(0x8000, 2000);
    ASSERT_GE(fd, 0);
    expect_one_socket(37, 2, 1);
    expect_one_connect(0x8000, 0x07D0);
    IP_CloseSock(fd);
}

// Opening a client or pull socket under connect failures: how many connects, sleeps and
// closes it makes before it gives up or succeeds.
enum class Opener { kClient, kPull };
struct BudgetCase {
    const char* name;
    Opener opener;
    std::uint16_t node;
    std::uint16_t port;
    bool listening;                  // a service listens at the address
    std::uint32_t fault_count;       // connects failed with `fault`, 0 for none
    int fault;
    bool opens;
    unsigned connects;
    std::optional<unsigned> sleeps;
    std::optional<unsigned> slept_seconds;
    std::optional<unsigned> closes;
    friend void PrintTo(const BudgetCase& row, std::ostream* os) { *os << row.name; }
};

const BudgetCase kBudgetCases[] = {
    {"OpenCliSockWithoutListenerMakesExactlyOneConnect", Opener::kClient, 0x8000, 2001, false, 0, 0, false, 1, {}, {},
     1u},
    {"OpenCliSockUnderRepeatedEintrMakesAtMostElevenConnects", Opener::kClient, 0x8000, 2002, false, 50, EINTR, false,
     11, 0u, {}, {}},
    {"OpenCliSockRetriesEintrAndThenConnects", Opener::kClient, 0x8000, 2003, true, 10, EINTR, true, 11, {}, {}, {}},
    {"OpenCliSockTakesEisconnAsConnected", Opener::kClient, 0x8000, 2004, false, 1, EISCONN, true, 1, {}, {}, {}},
    {"OpenCliSockGivesUpAtOnceOnPermissionRefusal", Opener::kClient, 0x8000, 2005, false, 5, EPERM, false, 1, 0u, {},
     {}},
    {"OpenPullSockUnderPermissionRefusalSleepsAfterEveryOneOfElevenConnects", Opener::kPull, 0x8000, 2006, false, 100,
     EPERM, false, 11, 11u, 11u, 1u},
    {"OpenPullSockConnectsAfterPermissionRefusals", Opener::kPull, 3, 2007, true, 3, EPERM, true, 4, {}, 3u, {}},
    {"OpenPullSockRetriesEintrWithoutSleeping", Opener::kPull, 0x8000, 2008, false, 50, EINTR, false, 11, 0u, {}, {}},
    // Refused: nobody listens.
    {"OpenPullSockOtherErrorEndsTheLoop", Opener::kPull, 0x8000, 2009, false, 0, 0, false, 1, {}, {}, {}},
};

class ConnectBudgetTest : public LipcSocketTest, public ::testing::WithParamInterface<BudgetCase> {};

TEST_P(ConnectBudgetTest, ConnectsSleepsAndClosesAsOften) {
    const BudgetCase& c = GetParam();
    std::optional<FakeService> svc;
    if (c.listening) svc.emplace(c.node, c.port, [](Conn& conn) { conn.recv_message(); });
    if (c.fault_count != 0) ipp_fault_inject(IPP_CALL_CONNECT, c.fault_count, c.fault);
    const int fd = c.opener == Opener::kClient ? IP_OpenCliSock(c.node, c.port) : IP_OpenPullSock(c.node, c.port);
    if (c.opens) {
        EXPECT_GE(fd, 0);
    } else {
        EXPECT_EQ(fd, -1);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), c.connects);
    if (c.sleeps) {
        EXPECT_EQ(ipp_call_count(IPP_CALL_SLEEP), *c.sleeps);
    }
    if (c.slept_seconds) {
        EXPECT_EQ(ipp_sleep_total_seconds(), *c.slept_seconds);
    }
    if (c.closes) {
        EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), *c.closes);
    }
    IP_CloseSock(fd);
}

INSTANTIATE_TEST_SUITE_P(Budgets, ConnectBudgetTest, ::testing::ValuesIn(kBudgetCases), CaseName());

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
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 1u);
    EXPECT_EQ(opts[0].level, 1);
    EXPECT_EQ(opts[0].option, 512);
    EXPECT_EQ(opts[0].value_len, 4u);
    const int zero = 0;
    EXPECT_EQ(std::memcmp(opts[0].value, &zero, 4), 0);
    const auto binds = sock_events(IPP_CALL_BIND);
    ASSERT_EQ(binds.size(), 1u);
    const std::uint8_t want[16] = {0, 37, 0x07, 0xDB, 0x80, 0x00};
    EXPECT_EQ(binds[0].addr_len, 16u);
    EXPECT_EQ(std::memcmp(binds[0].addr, want, 16), 0);
    const auto listens = sock_events(IPP_CALL_LISTEN);
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
    const auto sockets = sock_events(IPP_CALL_SOCKET);
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
    const auto sockets = sock_events(IPP_CALL_SOCKET);
    ASSERT_EQ(sockets.size(), 1u);
    EXPECT_EQ(sockets[0].protocol, 2);
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
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
    const auto calls = sock_events(IPP_CALL_GETPEERNAME);
    ASSERT_EQ(calls.size(), 2u);
}

}  // namespace
}  // namespace ipt
