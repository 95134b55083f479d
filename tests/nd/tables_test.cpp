// The IPv6 adjacency service's owner tables: OpenFlow entries with their smooth markers,
// ND rules, VSI suppression entries, roaming detection and the overlay suppression switch.
// Expected bytes are built field by field with put16/put32 from values whose bytes all
// differ, so a missing or extra byte swap shows on this host.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "ipclient/nd.h"
#include "ipplat/platform.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

constexpr std::uint16_t kLocalNode = 0x0102;
constexpr std::uint16_t kMasterEp = 0x0305;
constexpr std::uint16_t kMaster = 0x0709;
constexpr std::uint16_t kNdPort = 11554;
constexpr std::uint16_t kOverlayPort = 1667;
constexpr std::uint32_t kRuleIf = 0x00012345;
constexpr std::uint32_t kOtherIf = 0x00020406;
constexpr int kTableFlags = 256;
constexpr int kDontWait = 64;

// ---- Helpers -------------------------------------------------------------------------------

std::vector<ipp_sock_event> events(ipp_call call) {
    std::vector<ipp_sock_event> out;
    for (std::uint32_t i = 0; i < ipp_sock_log_count(); ++i) {
        ipp_sock_event ev{};
        if (ipp_sock_log_get(i, &ev) == 0 && ev.call == call) out.push_back(ev);
    }
    return out;
}

// A message of the adjacency channel: type, reserved byte, BE16 length, BE16 count, payload.
Bytes message(std::uint8_t type, const Bytes& payload, std::uint16_t count = 1) {
    Bytes b{type, 0};
    put16(b, static_cast<std::uint16_t>(payload.size()));
    put16(b, count);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

// Compares a received message with the expected one; byte 1 is the sender's to leave unset.
void expect_message(const Bytes& got, const Bytes& want) {
    ASSERT_EQ(got.size(), want.size());
    EXPECT_EQ(got[0], want[0]) << "type";
    EXPECT_TRUE(std::equal(got.begin() + 2, got.end(), want.begin() + 2)) << "length, count or payload";
}

Bytes zeros(std::size_t n) { return Bytes(n, 0); }

bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

NdIPv6Addr addr6(std::uint8_t last) {
    NdIPv6Addr a{};
    const std::uint8_t bytes[16] = {0x20, 0x01, 0x0D, 0xB8, 0x10, 0x32, 0x54, 0x76,
                                    0x98, 0xBA, 0xDC, 0xFE, 0x01, 0x23, 0x45, last};
    std::memcpy(a.aucAddr, bytes, 16);
    return a;
}

void add_interface(std::uint32_t ifindex, bool valid) {
    ipp_interface itf{};
    itf.ifindex = ifindex;
    itf.node = kLocalNode;
    std::strcpy(itf.name, "Ten-GigabitEthernet1/0/1");
    itf.valid = valid ? 1 : 0;
    itf.visible = 1;
    itf.configured = 1;
    ipp_dir_add_interface(&itf);
}

// The 16-byte local-IPC address of (node, port).
void expect_connected_to(std::uint16_t node, std::uint16_t port) {
    const auto connects = events(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    const std::uint8_t want[16] = {16,
                                   37,
                                   static_cast<std::uint8_t>(port >> 8),
                                   static_cast<std::uint8_t>(port),
                                   static_cast<std::uint8_t>(node >> 8),
                                   static_cast<std::uint8_t>(node)};
    EXPECT_EQ(std::memcmp(connects[0].addr, want, 16), 0);
}

// OpenFlow entries: every field distinct per seed.
NdOpenFlowEntry openflow_entry(std::uint8_t seed) {
    const auto s = static_cast<std::uint32_t>(seed) << 24;
    NdOpenFlowEntry e{};
    e.uiField0 = s | 0x010203u;
    const NdIPv6Addr a = addr6(seed);
    std::memcpy(e.aucAddr, a.aucAddr, 16);
    e.uiField20 = s | 0x212223u;
    for (int i = 0; i < 6; ++i) e.aucField24[i] = static_cast<std::uint8_t>(0x41 + i + seed);
    e.usField30 = static_cast<std::uint16_t>(0x3031 + seed);
    e.uiField32 = s | 0x333435u;
    e.uiField36 = s | 0x373839u;
    e.usField40 = static_cast<std::uint16_t>(0x4041 + seed);
    e.usField42 = static_cast<std::uint16_t>(0x4243 + seed);
    e.uiField44 = s | 0x454647u;
    return e;
}

void put_openflow(Bytes& b, const NdOpenFlowEntry& e) {
    put32(b, e.uiField0);
    putraw(b, e.aucAddr, 16);
    put32(b, e.uiField20);
    putraw(b, e.aucField24, 6);
    put16(b, e.usField30);
    put32(b, e.uiField32);
    put32(b, e.uiField36);
    put16(b, e.usField40);
    put16(b, e.usField42);
    put32(b, e.uiField44);
}

// The caller's buffer: header room (byte 1 set to a marker the library must leave), entries.
Bytes openflow_buffer(std::uint32_t n, std::uint8_t marker = 0xEE) {
    Bytes buf(ND_OPENFLOW_BUF_LEN(n), 0xA5);
    buf[1] = marker;
    for (std::uint32_t i = 0; i < n; ++i) {
        const NdOpenFlowEntry e = openflow_entry(static_cast<std::uint8_t>(i + 1));
        std::memcpy(buf.data() + 6 + i * 48, &e, sizeof e);
    }
    return buf;
}

Bytes openflow_wire(std::uint8_t type, std::uint32_t n, std::uint8_t marker = 0xEE) {
    Bytes b{type, marker};
    put16(b, static_cast<std::uint16_t>(n * 48));
    put16(b, static_cast<std::uint16_t>(n));
    for (std::uint32_t i = 0; i < n; ++i) put_openflow(b, openflow_entry(static_cast<std::uint8_t>(i + 1)));
    return b;
}

Bytes smooth_marker(std::uint8_t mark) {
    Bytes payload = zeros(56);
    payload[0] = mark;
    return message(11, payload);
}

NdRuleInfo sample_rule() {
    NdRuleInfo r{};
    const NdIPv6Addr a = addr6(0x99);
    std::memcpy(r.aucAddr, a.aucAddr, 16);
    r.uiIfIndex = kRuleIf;
    r.uiField20 = 0x14151617;
    r.uiField24 = 0x18191A1B;
    r.usField28 = 0x1C1D;
    r.usField30 = 0x1E1F;
    r.usField32 = 0x2021;
    for (int i = 0; i < 6; ++i) r.aucField34[i] = static_cast<std::uint8_t>(0x22 + i);
    r.ucKind = 6;
    r.ucClass = 8;
    r.aucField42[0] = 0x2A;
    r.aucField42[1] = 0x2B;
    r.uiField44 = 0x2C2D2E2F;
    r.uiField48 = 0x30313233;
    r.uiField52 = 0x34353637;
    r.uiField56 = 0x38393A3B;
    r.usField60 = 0x3C3D;
    r.aucField62[0] = 0x3E;
    r.aucField62[1] = 0x3F;
    return r;
}

Bytes rule_wire(const NdRuleInfo& r) {
    Bytes b;
    putraw(b, r.aucAddr, 16);
    put32(b, r.uiIfIndex);
    put32(b, r.uiField20);
    put32(b, r.uiField24);
    put16(b, r.usField28);
    put16(b, r.usField30);
    put16(b, r.usField32);
    putraw(b, r.aucField34, 6);
    b.push_back(r.ucKind);
    b.push_back(r.ucClass);
    putraw(b, r.aucField42, 2);
    put32(b, r.uiField44);
    put32(b, r.uiField48);
    put32(b, r.uiField52);
    put32(b, r.uiField56);
    put16(b, r.usField60);
    putraw(b, r.aucField62, 2);
    return b;
}

NdVsiSupInfo sample_vsi() {
    NdVsiSupInfo e{};
    e.uiVsiIndex = 0x01020304;
    e.uiField4 = 0x05060708;
    const NdIPv6Addr a = addr6(0x77);
    std::memcpy(e.aucAddr, a.aucAddr, 16);
    for (int i = 0; i < 8; ++i) e.aucField24[i] = static_cast<std::uint8_t>(0x18 + i);
    e.uiField32 = 0x20212223;
    e.uiField36 = 0x24252627;
    e.ucClass = 5;
    e.aucField41[0] = 0x29;
    e.aucField41[1] = 0x2A;
    e.aucField41[2] = 0x2B;
    return e;
}

Bytes vsi_wire(const NdVsiSupInfo& e) {
    Bytes b;
    put32(b, e.uiVsiIndex);
    put32(b, e.uiField4);
    putraw(b, e.aucAddr, 16);
    putraw(b, e.aucField24, 8);
    put32(b, e.uiField32);
    put32(b, e.uiField36);
    b.push_back(e.ucClass);
    putraw(b, e.aucField41, 3);
    return b;
}

Bytes roaming_records(std::size_t len) {
    Bytes b(len);
    for (std::size_t i = 0; i < len; ++i) b[i] = static_cast<std::uint8_t>(0x81 + i * 3);
    return b;
}

// Reads every message until the client closes.
std::vector<Bytes> drain(Conn& c) {
    std::vector<Bytes> out;
    for (;;) {
        Bytes m = c.recv_message(70000);
        if (m.empty()) return out;
        out.push_back(std::move(m));
    }
}

class NdTablesFixture : public PlatformTest {
protected:
    NdTablesFixture() {
        ipp_dir_set_local_node(kLocalNode);
        ipp_dir_set_master_ep(kMasterEp);
        ipp_dir_set_master(kMaster);
        add_interface(kRuleIf, true);
    }
};

class NdOpenFlowTest : public NdTablesFixture {};
class NdOpenFlowSmoothTest : public NdTablesFixture {};
class NdOpenFlowProtocolTest : public NdTablesFixture {};
class NdRuleTest : public NdTablesFixture {};
class NdRuleProtocolTest : public NdTablesFixture {};
class NdSuppressionVsiTest : public NdTablesFixture {};
class NdSuppressionOverlayTest : public NdTablesFixture {};
class NdSuppressionProtocolTest : public NdTablesFixture {};
class NdRoamingTest : public NdTablesFixture {};

// Runs op on a rule connection to a service that records what arrives, and returns the
// messages received.
std::vector<Bytes> on_rule_connection(const std::function<void(int)>& op) {
    std::vector<Bytes> got;
    {
        FakeService svc(kMasterEp, kNdPort, [&got](Conn& c) { got = drain(c); });
        const int fd = ND_RuleConnect();
        EXPECT_GE(fd, 0);
        if (fd < 0) return got;
        op(fd);
        ND_RuleDisconnect(fd);
    }
    return got;
}

// Runs op on an OpenFlow connection to a service running script.
void on_openflow_connection(const FakeService::Script& script, const std::function<void(int)>& op) {
    FakeService svc(kLocalNode, kNdPort, script);
    std::uint32_t version = 0;
    const int fd = ND_OpenFlowConnect(&version);
    EXPECT_GE(fd, 0);
    if (fd < 0) return;
    op(fd);
    ND_OpenFlowDisconnect(fd);
}

// ---- Edge cases ----------------------------------------------------------------------------

TEST_F(NdRuleTest, SmoothStartWithClass9FailsAndWithClass8Sends) {
    std::uint32_t nine = 0, eight = 1;
    const auto got = on_rule_connection([&](int fd) {
        nine = ND_RuleSmoothStart(fd, 9, 0x0102);
        eight = ND_RuleSmoothStart(fd, 8, 0x0102);
    });
    EXPECT_EQ(nine, kFailed);
    EXPECT_EQ(eight, 0u);
    ASSERT_EQ(got.size(), 1u);
    expect_message(got[0], message(17, {0x01, 0x02, 8, 0}));
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
}

TEST_F(NdRuleTest, RefreshRuleWithAllZeroAddressFailsOnValidInterface) {
    ASSERT_EQ(IF_IsValidIfIndex(kRuleIf), 1u);
    std::uint32_t status = 0;
    const auto got = on_rule_connection([&status](int fd) {
        NdRuleInfo rule = sample_rule();
        std::memset(rule.aucAddr, 0, sizeof rule.aucAddr);
        status = ND_RefreshRule(fd, &rule);
    });
    EXPECT_EQ(status, kFailed);
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(NdRoamingTest, ThreeRecordsOfLength60SendExactHeaderAndLength59Fails) {
    const Bytes records = roaming_records(60);
    std::uint32_t sixty = 1, fifty_nine = 0;
    const auto got = on_rule_connection([&](int fd) {
        sixty = ND_RoamingDetection(fd, records.data(), 60, 3);
        fifty_nine = ND_RoamingDetection(fd, records.data(), 59, 3);
    });
    EXPECT_EQ(sixty, 0u);
    EXPECT_EQ(fifty_nine, kFailed);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{0x00, 0x0C, 0x00, 0x00, 0x00, 0x48, 0x00, 0x14, 0x00, 0x03, 0x00, 0x3C};
    payload.insert(payload.end(), records.begin(), records.end());
    ASSERT_EQ(payload.size(), 72u);
    expect_message(got[0], message(80, payload));
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, kTableFlags);
    EXPECT_EQ(sends[0].length, 78u);
}

TEST_F(NdOpenFlowTest, ConnectSetsVersion6EvenWhenNoConnectionOpens) {
    std::uint32_t version = 0;
    EXPECT_EQ(ND_OpenFlowConnect(&version), -1);
    EXPECT_EQ(version, 6u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(NdSuppressionOverlayTest, SetWithOnFlag2SendsByteOneAsZero) {
    Bytes got;
    std::uint32_t status = 1;
    {
        FakeService svc(kMasterEp, kOverlayPort, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0, 0, 0, 0});
        });
        status = ND_SetOverlaySuppression(0x00C0FFEE, 2);
    }
    EXPECT_EQ(status, 0u);
    Bytes payload = zeros(180);
    payload[0] = 26;
    payload[9] = 0xC0;
    payload[10] = 0xFF;
    payload[11] = 0xEE;
    expect_message(got, message(0, payload));
    ASSERT_GT(got.size(), 7u);
    EXPECT_EQ(got[6 + 1], 0);
}

// ---- OpenFlow connection -------------------------------------------------------------------

TEST_F(NdOpenFlowTest, ConnectReachesLocalNodeWithoutTimeoutsAndSetsVersion6) {
    int fd = -1;
    {
        FakeService svc(kLocalNode, kNdPort, [](Conn& c) { (void)c.recv_message(1024, 200); });
        std::uint32_t version = 0;
        fd = ND_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(version, 6u);
        EXPECT_TRUE(is_open(fd));
        ND_OpenFlowDisconnect(fd);
    }
    // Looked at once the service's thread is gone: it could otherwise be given the number.
    EXPECT_FALSE(is_open(fd));
    expect_connected_to(kLocalNode, kNdPort);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SETSOCKOPT), 0u);
}

TEST_F(NdOpenFlowTest, ConnectWithNullVersionReturnsAllOnesWithoutOpening) {
    EXPECT_EQ(static_cast<std::uint32_t>(ND_OpenFlowConnect(nullptr)), 0xFFFFFFFFu);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(NdOpenFlowTest, DisconnectIgnoresNegativeDescriptor) {
    ND_OpenFlowDisconnect(-1);
    ND_RuleDisconnect(-1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
}

// ---- OpenFlow entries ----------------------------------------------------------------------

TEST_F(NdOpenFlowTest, RefreshSendsConvertedEntriesAndReturnsServiceStatusInHostOrder) {
    Bytes got;
    Bytes buf = openflow_buffer(2);
    std::uint32_t status = 0;
    on_openflow_connection(
        [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0x12, 0x34, 0x56, 0x78});
        },
        [&](int fd) { status = ND_RefreshOpenFlowEntry(fd, buf.data(), 2); });
    EXPECT_EQ(status, 0x12345678u);
    const Bytes want = openflow_wire(27, 2);
    EXPECT_EQ(got, want);  // byte 1 is the caller's and travels untouched
    EXPECT_EQ(buf, want);  // converted in place
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, kDontWait);
    EXPECT_EQ(sends[0].length, 102u);
    const auto recvs = events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].length, 4u);
    EXPECT_EQ(recvs[0].flags, kTableFlags);
}

TEST_F(NdOpenFlowTest, DeleteSendsType28AndReturnsServiceStatus) {
    Bytes got;
    Bytes buf = openflow_buffer(1, 0x3C);
    std::uint32_t status = 0;
    on_openflow_connection(
        [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0x9A, 0xBC, 0xDE, 0xF0});
        },
        [&](int fd) { status = ND_DeleteOpenFlowEntry(fd, buf.data(), 1); });
    EXPECT_EQ(status, 0x9ABCDEF0u);
    EXPECT_EQ(got, openflow_wire(28, 1, 0x3C));
}

TEST_F(NdOpenFlowTest, EntryKeepsAddressAndRawBytesAndSwapsEveryWord) {
    // One entry laid out by hand, independent of the structure's declaration.
    Bytes buf(6 + 48, 0);
    for (std::size_t i = 0; i < 48; ++i) buf[6 + i] = static_cast<std::uint8_t>(0x10 + i);
    Bytes got;
    on_openflow_connection(
        [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0, 0, 0, 0});
        },
        [&](int fd) { (void)ND_RefreshOpenFlowEntry(fd, buf.data(), 1); });
    Bytes want{27, 0};
    put16(want, 48);
    put16(want, 1);
    Bytes entry(48);
    for (std::size_t i = 0; i < 48; ++i) entry[i] = static_cast<std::uint8_t>(0x10 + i);
    auto rev = [&entry](std::ptrdiff_t off, std::ptrdiff_t len) {
        std::reverse(entry.begin() + off, entry.begin() + off + len);
    };
    for (std::ptrdiff_t off : {0, 20, 32, 36, 44}) rev(off, 4);
    for (std::ptrdiff_t off : {30, 40, 42}) rev(off, 2);
    want.insert(want.end(), entry.begin(), entry.end());
    EXPECT_EQ(got, want);
}

TEST_F(NdOpenFlowTest, RefreshWithNoEntriesSendsTheHeaderAlone) {
    Bytes got;
    Bytes buf = openflow_buffer(0);
    std::uint32_t status = 1;
    on_openflow_connection(
        [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0, 0, 0, 0});
        },
        [&](int fd) { status = ND_RefreshOpenFlowEntry(fd, buf.data(), 0); });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(got, (Bytes{27, 0xEE, 0, 0, 0, 0}));
}

TEST_F(NdOpenFlowTest, RefreshOfMostEntriesFillsTheSixteenBitLength) {
    constexpr std::uint32_t n = ND_OPENFLOW_ENTRY_MAX;
    Bytes got;
    Bytes buf = openflow_buffer(n);
    std::uint32_t status = 0;
    on_openflow_connection(
        [&got](Conn& c) {
            got = c.recv_message(70000);
            c.send_message({0x01, 0x02, 0x03, 0x04});
        },
        [&](int fd) { status = ND_RefreshOpenFlowEntry(fd, buf.data(), n); });
    EXPECT_EQ(status, 0x01020304u);
    ASSERT_EQ(got.size(), 6u + 65520u);
    EXPECT_EQ(got[2], 0xFF);
    EXPECT_EQ(got[3], 0xF0);
    EXPECT_EQ(got[4], 0x05);
    EXPECT_EQ(got[5], 0x55);
    EXPECT_EQ(got, openflow_wire(27, n));
}

TEST_F(NdOpenFlowTest, RefreshRejectsBadArgumentsWithoutTouchingTheBuffer) {
    Bytes buf = openflow_buffer(1);
    const Bytes before = buf;
    EXPECT_EQ(ND_RefreshOpenFlowEntry(-1, buf.data(), 1), kFailed);
    EXPECT_EQ(ND_DeleteOpenFlowEntry(-1, buf.data(), 1), kFailed);
    EXPECT_EQ(ND_RefreshOpenFlowEntry(3, nullptr, 1), kFailed);
    EXPECT_EQ(buf, before);
    // One entry more than the 16-bit length can carry, in a buffer large enough for it.
    Bytes big = openflow_buffer(ND_OPENFLOW_ENTRY_MAX + 1);
    const Bytes big_before = big;
    EXPECT_EQ(ND_DeleteOpenFlowEntry(3, big.data(), ND_OPENFLOW_ENTRY_MAX + 1), kFailed);
    EXPECT_EQ(big, big_before);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(NdOpenFlowTest, RefreshWithShortSendReturnsZeroWithoutWaitingForReply) {
    Bytes got;
    Bytes buf = openflow_buffer(2);
    std::uint32_t status = 1;
    on_openflow_connection([&got](Conn& c) { got = c.recv_message(1024, 2000); },
                           [&](int fd) {
                               ipp_fault_short_send(1, 20);
                               status = ND_RefreshOpenFlowEntry(fd, buf.data(), 2);
                           });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(got.size(), 20u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(NdOpenFlowTest, DeleteWithFailedSendReturnsZero) {
    Bytes buf = openflow_buffer(1);
    std::uint32_t status = 1;
    on_openflow_connection([](Conn& c) { (void)c.recv_message(1024, 200); },
                           [&](int fd) {
                               ipp_fault_inject(IPP_CALL_SEND, 1, EAGAIN);
                               status = ND_DeleteOpenFlowEntry(fd, buf.data(), 1);
                           });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(NdOpenFlowTest, DeleteOnClosedDescriptorReturnsZero) {
    int fd = -1;
    {
        FakeService svc(kLocalNode, kNdPort, [](Conn& c) { (void)c.recv_message(1024, 200); });
        std::uint32_t version = 0;
        fd = ND_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ND_OpenFlowDisconnect(fd);
    }
    ASSERT_FALSE(is_open(fd));
    Bytes buf = openflow_buffer(1);
    EXPECT_EQ(ND_DeleteOpenFlowEntry(fd, buf.data(), 1), 0u);
    EXPECT_EQ(buf, openflow_wire(28, 1));  // written and converted before the send failed
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].result, -1);
    EXPECT_EQ(sends[0].err, EBADF);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(NdOpenFlowTest, RefreshReturnsZeroWhenServiceClosesWithoutReply) {
    Bytes buf = openflow_buffer(1);
    std::uint32_t status = 1;
    on_openflow_connection([](Conn& c) { (void)c.recv_message(); },
                           [&](int fd) { status = ND_RefreshOpenFlowEntry(fd, buf.data(), 1); });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);
}

TEST_F(NdOpenFlowTest, ShortReplyReadsMissingBytesAsZero) {
    Bytes buf = openflow_buffer(1);
    std::uint32_t status = 0;
    on_openflow_connection(
        [](Conn& c) {
            (void)c.recv_message();
            c.send_message({0xAB, 0xCD});
        },
        [&](int fd) { status = ND_RefreshOpenFlowEntry(fd, buf.data(), 1); });
    EXPECT_EQ(status, 0xABCD0000u);
}

// ---- OpenFlow smooth markers ---------------------------------------------------------------

TEST_F(NdOpenFlowSmoothTest, StartAndEndSendType11MarkersAndReturnServiceWords) {
    std::vector<Bytes> got;
    std::uint32_t start = 0, end = 0;
    on_openflow_connection(
        [&got](Conn& c) {
            got.push_back(c.recv_message());
            c.send_message({0x00, 0x00, 0x01, 0x02});
            got.push_back(c.recv_message());
            c.send_message({0x0A, 0x0B, 0x0C, 0x0D});
        },
        [&](int fd) {
            start = ND_OpenFlowSmoothStart(fd);
            end = ND_OpenFlowSmoothEnd(fd);
        });
    EXPECT_EQ(start, 0x0102u);
    EXPECT_EQ(end, 0x0A0B0C0Du);
    ASSERT_EQ(got.size(), 2u);
    expect_message(got[0], smooth_marker(2));
    expect_message(got[1], smooth_marker(3));
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 2u);
    for (const auto& s : sends) {
        EXPECT_EQ(s.flags, kTableFlags);
        EXPECT_EQ(s.length, 62u);
    }
    const auto recvs = events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 2u);
    for (const auto& r : recvs) {
        EXPECT_EQ(r.length, 4u);
        EXPECT_EQ(r.flags, kTableFlags);
    }
}

TEST_F(NdOpenFlowSmoothTest, ReplyThatNeverArrivesYieldsSwappedPreset) {
    std::uint32_t status = 0;
    on_openflow_connection([](Conn& c) { (void)c.recv_message(); },
                           [&](int fd) { status = ND_OpenFlowSmoothStart(fd); });
    EXPECT_EQ(status, 0x01000140u);
    EXPECT_EQ(status, ND_OPENFLOW_SMOOTH_NO_REPLY);
}

TEST_F(NdOpenFlowSmoothTest, ShortReplyKeepsPresetBytesBeyondWhatArrived) {
    std::uint32_t status = 0;
    on_openflow_connection(
        [](Conn& c) {
            (void)c.recv_message();
            c.send_message({0xAB, 0xCD});
        },
        [&](int fd) { status = ND_OpenFlowSmoothEnd(fd); });
    EXPECT_EQ(status, 0xABCD0140u);
}

TEST_F(NdOpenFlowSmoothTest, RejectsNegativeDescriptorAndReportsShortSendWithoutReading) {
    EXPECT_EQ(ND_OpenFlowSmoothStart(-1), kFailed);
    EXPECT_EQ(ND_OpenFlowSmoothEnd(-1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
    std::uint32_t status = 0;
    on_openflow_connection([](Conn& c) { (void)drain(c); },
                           [&](int fd) {
                               ipp_fault_short_send(1, 3);
                               status = ND_OpenFlowSmoothStart(fd);
                           });
    EXPECT_EQ(status, kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

// ---- Rules ---------------------------------------------------------------------------------

TEST_F(NdRuleTest, ConnectReachesSystemMasterEndpointWithoutTimeouts) {
    int fd = -1;
    {
        FakeService svc(kMasterEp, kNdPort, [](Conn& c) { (void)c.recv_message(1024, 200); });
        fd = ND_RuleConnect();
        ASSERT_GE(fd, 0);
        ND_RuleDisconnect(fd);
    }
    // Looked at once the service's thread is gone: it could otherwise be given the number.
    EXPECT_FALSE(is_open(fd));
    expect_connected_to(kMasterEp, kNdPort);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SETSOCKOPT), 0u);
}

TEST_F(NdRuleTest, ConnectWithoutServiceFailsWithoutLeak) {
    EXPECT_EQ(ND_RuleConnect(), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(NdRuleTest, RefreshSendsConvertedRuleWithTableFlags) {
    const NdRuleInfo rule = sample_rule();
    std::uint32_t status = 1;
    const auto got = on_rule_connection([&](int fd) { status = ND_RefreshRule(fd, &rule); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    expect_message(got[0], message(15, rule_wire(rule)));
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, kTableFlags);
    EXPECT_EQ(sends[0].length, 70u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(NdRuleTest, RefreshRejectsInvalidRulesBeforeSending) {
    add_interface(kOtherIf, false);
    std::vector<std::uint32_t> results;
    const auto got = on_rule_connection([&results](int fd) {
        NdRuleInfo cls9 = sample_rule();
        cls9.ucClass = 9;
        NdRuleInfo kind7 = sample_rule();
        kind7.ucKind = 7;
        NdRuleInfo invalid_if = sample_rule();
        invalid_if.uiIfIndex = kOtherIf;
        NdRuleInfo unknown_if = sample_rule();
        unknown_if.uiIfIndex = 0x0DEAD;
        const NdRuleInfo good = sample_rule();
        results.push_back(ND_RefreshRule(fd, &cls9));
        results.push_back(ND_RefreshRule(fd, &kind7));
        results.push_back(ND_RefreshRule(fd, &invalid_if));
        results.push_back(ND_RefreshRule(fd, &unknown_if));
        results.push_back(ND_RefreshRule(fd, nullptr));
        results.push_back(ND_RefreshRule(-1, &good));
    });
    EXPECT_EQ(results, std::vector<std::uint32_t>(6, kFailed));
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(NdRuleTest, RuleWithOnlyLastAddressByteSetIsValid) {
    NdRuleInfo rule = sample_rule();
    std::memset(rule.aucAddr, 0, sizeof rule.aucAddr);
    rule.aucAddr[15] = 1;  // ::1
    std::uint32_t status = 1;
    const auto got = on_rule_connection([&](int fd) { status = ND_RefreshRule(fd, &rule); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    expect_message(got[0], message(15, rule_wire(rule)));
}

TEST_F(NdRuleTest, DeleteSendsAddressInterfaceAndClassOnly) {
    std::uint32_t status = 1;
    const NdIPv6Addr addr = addr6(0x5A);
    const auto got = on_rule_connection([&](int fd) { status = ND_DeleteRule(fd, 0x0A0B0C0D, addr, 0x07); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload;
    putraw(payload, addr.aucAddr, 16);
    put32(payload, 0x0A0B0C0D);
    payload.resize(41, 0);
    payload.push_back(0x07);
    payload.resize(64, 0);
    expect_message(got[0], message(16, payload));
    EXPECT_EQ(events(IPP_CALL_SEND).at(0).flags, kTableFlags);
}

TEST_F(NdRuleTest, SmoothEndCarriesOwnerAndClassAndRejectsClass9) {
    std::uint32_t end = 1, bad = 0;
    const auto got = on_rule_connection([&](int fd) {
        bad = ND_RuleSmoothEnd(fd, 9, 0xBEEF);
        end = ND_RuleSmoothEnd(fd, 3, 0xBEEF);
    });
    EXPECT_EQ(bad, kFailed);
    EXPECT_EQ(end, 0u);
    ASSERT_EQ(got.size(), 1u);
    expect_message(got[0], message(18, {0xBE, 0xEF, 3, 0}));
    EXPECT_EQ(events(IPP_CALL_SEND).at(0).flags, kTableFlags);
}

TEST_F(NdRuleTest, NegativeDescriptorFailsBeforeSending) {
    EXPECT_EQ(ND_DeleteRule(-1, kRuleIf, addr6(1), 1), kFailed);
    EXPECT_EQ(ND_RuleSmoothStart(-1, 1, 1), kFailed);
    EXPECT_EQ(ND_RuleSmoothEnd(-1, 1, 1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(NdRuleTest, SendToClosedPeerReturnsChannelFailure) {
    int fd = -1;
    {
        FakeService svc(kMasterEp, kNdPort, [](Conn&) {});
        fd = ND_RuleConnect();
        ASSERT_GE(fd, 0);
    }  // the service closed its end
    EXPECT_EQ(ND_RuleSmoothStart(fd, 1, 2), kFailed);
    ND_RuleDisconnect(fd);
    EXPECT_FALSE(is_open(fd));
}

// ---- VSI suppression -----------------------------------------------------------------------

TEST_F(NdSuppressionVsiTest, RefreshSendsConvertedEntry) {
    const NdVsiSupInfo entry = sample_vsi();
    std::uint32_t status = 1;
    const auto got = on_rule_connection([&](int fd) { status = ND_RefreshVsiSupEntry(fd, &entry); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    expect_message(got[0], message(60, vsi_wire(entry)));
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, kTableFlags);
    EXPECT_EQ(sends[0].length, 50u);
}

TEST_F(NdSuppressionVsiTest, DeleteSendsVsiIndexAddressAndClass) {
    const NdIPv6Addr addr = addr6(0x3C);
    std::uint32_t status = 1;
    const auto got = on_rule_connection([&](int fd) { status = ND_DeleteVsiSupEntry(fd, 0x11223344, &addr, 0x06); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload;
    put32(payload, 0x11223344);
    put32(payload, 0);
    putraw(payload, addr.aucAddr, 16);
    payload.resize(40, 0);
    payload.push_back(0x06);
    payload.resize(44, 0);
    expect_message(got[0], message(61, payload));
    EXPECT_EQ(events(IPP_CALL_SEND).at(0).flags, kTableFlags);
}

TEST_F(NdSuppressionVsiTest, SmoothBeginAndEndCarryTheClassByte) {
    std::uint32_t begin = 1, end = 1;
    const auto got = on_rule_connection([&](int fd) {
        begin = ND_VsiSupEntrySmoothBegin(fd, 0xC4);
        end = ND_VsiSupEntrySmoothEnd(fd, 0xC4);
    });
    EXPECT_EQ(begin, 0u);
    EXPECT_EQ(end, 0u);
    ASSERT_EQ(got.size(), 2u);
    expect_message(got[0], message(62, {0xC4, 0, 0, 0}));
    expect_message(got[1], message(63, {0xC4, 0, 0, 0}));
    for (const auto& s : events(IPP_CALL_SEND)) EXPECT_EQ(s.flags, kTableFlags);
}

TEST_F(NdSuppressionVsiTest, RejectsNullArgumentsAndNegativeDescriptor) {
    const NdVsiSupInfo entry = sample_vsi();
    const NdIPv6Addr addr = addr6(1);
    EXPECT_EQ(ND_RefreshVsiSupEntry(3, nullptr), kFailed);
    EXPECT_EQ(ND_DeleteVsiSupEntry(3, 1, nullptr, 1), kFailed);
    EXPECT_EQ(ND_RefreshVsiSupEntry(-1, &entry), kFailed);
    EXPECT_EQ(ND_DeleteVsiSupEntry(-1, 1, &addr, 1), kFailed);
    EXPECT_EQ(ND_VsiSupEntrySmoothBegin(-1, 1), kFailed);
    EXPECT_EQ(ND_VsiSupEntrySmoothEnd(-1, 1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

// ---- Overlay suppression -------------------------------------------------------------------

// One exchange with the overlay service at the master endpoint that answers `reply`.
template <class Op>
std::vector<Bytes> with_overlay_service(const Bytes& reply, Op op) {
    std::vector<Bytes> got;
    {
        FakeService svc(kMasterEp, kOverlayPort, [&got, reply](Conn& c) {
            got.push_back(c.recv_message());
            c.send_message(reply);
        });
        op();
    }
    return got;
}

void expect_overlay_exchange() {
    const auto opts = events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 2u);
    std::int64_t sec = 0;
    EXPECT_EQ(opts[0].level, 1);
    EXPECT_EQ(opts[0].option, 0x1005);
    std::memcpy(&sec, opts[0].value, 8);
    EXPECT_EQ(sec, 5);
    EXPECT_EQ(opts[1].option, 0x1006);
    std::memcpy(&sec, opts[1].value, 8);
    EXPECT_EQ(sec, 5);
    expect_connected_to(kMasterEp, kOverlayPort);
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 0);
    EXPECT_EQ(sends[0].length, 186u);
    const auto recvs = events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].length, 4u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(NdSuppressionOverlayTest, SetSendsCodeOnFlagAndVsiIndexAndReturnsReplyWord) {
    std::uint32_t status = 0;
    const auto got =
        with_overlay_service({0x40, 0x01, 0x00, 0x07}, [&] { status = ND_SetOverlaySuppression(0x0A0B0C0D, 1); });
    EXPECT_EQ(status, 0x40010007u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{26, 1};
    payload.resize(8, 0);
    put32(payload, 0x0A0B0C0D);
    payload.resize(180, 0);
    expect_message(got[0], message(0, payload));
    expect_overlay_exchange();
}

TEST_F(NdSuppressionOverlayTest, GetStoresReplyWordInHostOrderAndReturnsZero) {
    std::uint32_t status = 1, state = 0;
    const auto got =
        with_overlay_service({0xCA, 0xFE, 0x00, 0x01}, [&] { status = ND_GetOverlaySuppression(0x00102030, &state); });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(state, 0xCAFE0001u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{100, 0};
    payload.resize(8, 0);
    put32(payload, 0x00102030);
    payload.resize(180, 0);
    expect_message(got[0], message(0, payload));
    expect_overlay_exchange();
}

TEST_F(NdSuppressionOverlayTest, RejectsAllOnesVsiAndNullState) {
    std::uint32_t state = 0;
    EXPECT_EQ(ND_SetOverlaySuppression(0xFFFFFFFFu, 1), kFailed);
    EXPECT_EQ(ND_GetOverlaySuppression(0xFFFFFFFFu, &state), kFailed);
    EXPECT_EQ(ND_GetOverlaySuppression(1, nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(NdSuppressionOverlayTest, WithoutServiceBothFailWithoutLeak) {
    std::uint32_t state = 55;
    EXPECT_EQ(ND_SetOverlaySuppression(1, 1), kFailed);
    EXPECT_EQ(ND_GetOverlaySuppression(1, &state), kFailed);
    EXPECT_EQ(state, 55u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 2u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 2u);
}

TEST_F(NdSuppressionOverlayTest, ShortReplyFailsAndLeavesState) {
    std::uint32_t state = 55, status = 0;
    (void)with_overlay_service({0x00, 0x01}, [&] { status = ND_GetOverlaySuppression(1, &state); });
    EXPECT_EQ(status, kFailed);
    EXPECT_EQ(state, 55u);
    (void)with_overlay_service({0x00, 0x01, 0x02}, [&] { status = ND_SetOverlaySuppression(1, 1); });
    EXPECT_EQ(status, kFailed);
}

TEST_F(NdSuppressionOverlayTest, ServiceClosingWithoutReplyFails) {
    std::uint32_t state = 55, status = 0;
    {
        FakeService svc(kMasterEp, kOverlayPort, [](Conn& c) { (void)c.recv_message(); });
        status = ND_GetOverlaySuppression(7, &state);
    }
    EXPECT_EQ(status, kFailed);
    EXPECT_EQ(state, 55u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(NdSuppressionOverlayTest, ShortSendFailsWithoutReading) {
    std::uint32_t status = 0;
    {
        FakeService svc(kMasterEp, kOverlayPort, [](Conn& c) { (void)c.recv_message(1024, 500); });
        ipp_fault_short_send(1, 10);
        status = ND_SetOverlaySuppression(1, 1);
    }
    EXPECT_EQ(status, kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

// ---- Roaming detection ---------------------------------------------------------------------

TEST_F(NdRoamingTest, LargestMessageFitsAndOneRecordMoreIsRejected) {
    const Bytes records = roaming_records(4100);
    std::uint32_t fits = 1, over = 0;
    const auto got = on_rule_connection([&](int fd) {
        fits = ND_RoamingDetection(fd, records.data(), 4080, 204);
        over = ND_RoamingDetection(fd, records.data(), 4100, 205);
    });
    EXPECT_EQ(fits, 0u);
    EXPECT_EQ(over, kFailed);
    ASSERT_EQ(got.size(), 1u);
    ASSERT_EQ(got[0].size(), 6u + 12u + 4080u);
    Bytes head{80, 0};
    put16(head, 4092);
    put16(head, 1);
    put16(head, 12);
    put16(head, 0);
    put16(head, 4092);
    put16(head, 20);
    put16(head, 204);
    put16(head, 4080);
    EXPECT_EQ(got[0][0], head[0]);
    EXPECT_TRUE(std::equal(head.begin() + 2, head.end(), got[0].begin() + 2));
    EXPECT_TRUE(std::equal(records.begin(), records.begin() + 4080, got[0].begin() + 18));
}

TEST_F(NdRoamingTest, RejectsBadArgumentsBeforeSending) {
    const Bytes records = roaming_records(60);
    const auto got = on_rule_connection([&](int fd) {
        EXPECT_EQ(ND_RoamingDetection(fd, records.data(), 0, 0), kFailed);
        EXPECT_EQ(ND_RoamingDetection(fd, nullptr, 60, 3), kFailed);
        EXPECT_EQ(ND_RoamingDetection(fd, records.data(), 60, 2), kFailed);
        EXPECT_EQ(ND_RoamingDetection(fd, records.data(), 20, 0), kFailed);
        EXPECT_EQ(ND_RoamingDetection(fd, records.data(), 24, 3), kFailed);  // 8-byte records
        EXPECT_EQ(ND_RoamingDetection(-1, records.data(), 60, 3), kFailed);
    });
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(NdRoamingTest, SendToClosedPeerReturnsChannelFailure) {
    const Bytes records = roaming_records(20);
    int fd = -1;
    {
        FakeService svc(kMasterEp, kNdPort, [](Conn&) {});
        fd = ND_RuleConnect();
        ASSERT_GE(fd, 0);
    }
    EXPECT_EQ(ND_RoamingDetection(fd, records.data(), 20, 1), kFailed);
    ND_RuleDisconnect(fd);
}

// ---- The refresh protocol end to end -------------------------------------------------------

TEST_F(NdOpenFlowProtocolTest, OwnerResynchronisesThenRefreshesAndDeletes) {
    std::vector<Bytes> got;
    Bytes first = openflow_buffer(2);
    Bytes second = openflow_buffer(1, 0x11);
    Bytes changed = openflow_buffer(1, 0x33);
    Bytes removed = openflow_buffer(1, 0x22);
    std::vector<std::uint32_t> statuses;
    int fd = -1;
    {
        FakeService svc(kLocalNode, kNdPort, [&](Conn& c) {
            got.push_back(c.recv_message());        // smooth start
            c.send_message({0, 0, 0, 0});
            got.push_back(c.recv_message(70000));   // refresh of two
            c.send_message({0, 0, 0, 0});
            got.push_back(c.recv_message(70000));   // refresh of one
            c.send_message({0, 0, 0, 0});
            got.push_back(c.recv_message());        // smooth end
            c.send_message({0, 0, 0, 0});
            got.push_back(c.recv_message(70000));   // single refresh
            c.send_message({0, 0, 0, 0});
            got.push_back(c.recv_message(70000));   // delete
            c.send_message({0x00, 0x00, 0x01, 0x05});
            const Bytes rest = c.recv_message(1024, 2000);  // empty once the owner disconnects
            if (!rest.empty()) got.push_back(rest);
        });
        std::uint32_t version = 0;
        fd = ND_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(version, 6u);
        statuses.push_back(ND_OpenFlowSmoothStart(fd));
        statuses.push_back(ND_RefreshOpenFlowEntry(fd, first.data(), 2));
        statuses.push_back(ND_RefreshOpenFlowEntry(fd, second.data(), 1));
        statuses.push_back(ND_OpenFlowSmoothEnd(fd));
        statuses.push_back(ND_RefreshOpenFlowEntry(fd, changed.data(), 1));
        statuses.push_back(ND_DeleteOpenFlowEntry(fd, removed.data(), 1));
        ND_OpenFlowDisconnect(fd);
    }
    // Looked at once the service's thread is gone: it could otherwise be given the number.
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(statuses, (std::vector<std::uint32_t>{0, 0, 0, 0, 0, 0x105}));
    ASSERT_EQ(got.size(), 6u);
    expect_message(got[0], smooth_marker(2));
    EXPECT_EQ(got[1], openflow_wire(27, 2));
    EXPECT_EQ(got[2], openflow_wire(27, 1, 0x11));
    expect_message(got[3], smooth_marker(3));
    EXPECT_EQ(got[4], openflow_wire(27, 1, 0x33));
    EXPECT_EQ(got[5], openflow_wire(28, 1, 0x22));
}

TEST_F(NdRuleProtocolTest, OwnerResynchronisesThenRefreshesAndDeletes) {
    add_interface(kOtherIf, true);
    const NdRuleInfo one = sample_rule();
    NdRuleInfo two = sample_rule();
    two.aucAddr[15] = 0x42;
    two.uiIfIndex = kOtherIf;
    two.ucClass = 3;
    two.ucKind = 0;
    NdRuleInfo changed = two;
    changed.uiField44 = 0x0BADF00D;
    NdIPv6Addr one_addr{};
    std::memcpy(one_addr.aucAddr, one.aucAddr, 16);
    std::vector<std::uint32_t> statuses;
    const auto got = on_rule_connection([&](int fd) {
        statuses.push_back(ND_RuleSmoothStart(fd, 3, 0x0456));
        statuses.push_back(ND_RefreshRule(fd, &one));
        statuses.push_back(ND_RefreshRule(fd, &two));
        statuses.push_back(ND_RuleSmoothEnd(fd, 3, 0x0456));
        statuses.push_back(ND_RefreshRule(fd, &changed));
        statuses.push_back(ND_DeleteRule(fd, kRuleIf, one_addr, one.ucClass));
    });
    EXPECT_EQ(statuses, std::vector<std::uint32_t>(6, 0u));
    ASSERT_EQ(got.size(), 6u);
    expect_message(got[0], message(17, {0x04, 0x56, 3, 0}));
    expect_message(got[1], message(15, rule_wire(one)));
    expect_message(got[2], message(15, rule_wire(two)));
    expect_message(got[3], message(18, {0x04, 0x56, 3, 0}));
    expect_message(got[4], message(15, rule_wire(changed)));
    Bytes del;
    putraw(del, one.aucAddr, 16);
    put32(del, kRuleIf);
    del.resize(41, 0);
    del.push_back(8);
    del.resize(64, 0);
    expect_message(got[5], message(16, del));
    for (const auto& s : events(IPP_CALL_SEND)) EXPECT_EQ(s.flags, kTableFlags);
}

TEST_F(NdSuppressionProtocolTest, VsiOwnerResynchronisesThenRefreshesAndDeletes) {
    const NdVsiSupInfo vsi = sample_vsi();
    NdVsiSupInfo changed = vsi;
    changed.uiField32 = 0x0C0FFEE0;
    NdIPv6Addr addr{};
    std::memcpy(addr.aucAddr, vsi.aucAddr, 16);
    const Bytes records = roaming_records(40);
    std::vector<std::uint32_t> statuses;
    const auto got = on_rule_connection([&](int fd) {
        statuses.push_back(ND_VsiSupEntrySmoothBegin(fd, vsi.ucClass));
        statuses.push_back(ND_RefreshVsiSupEntry(fd, &vsi));
        statuses.push_back(ND_VsiSupEntrySmoothEnd(fd, vsi.ucClass));
        statuses.push_back(ND_RefreshVsiSupEntry(fd, &changed));
        statuses.push_back(ND_DeleteVsiSupEntry(fd, vsi.uiVsiIndex, &addr, vsi.ucClass));
        statuses.push_back(ND_RoamingDetection(fd, records.data(), 40, 2));
    });
    EXPECT_EQ(statuses, std::vector<std::uint32_t>(6, 0u));
    ASSERT_EQ(got.size(), 6u);
    const std::vector<std::uint8_t> types{62, 60, 63, 60, 61, 80};
    for (std::size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i][0], types[i]) << i;
    expect_message(got[0], message(62, {5, 0, 0, 0}));
    expect_message(got[1], message(60, vsi_wire(vsi)));
    expect_message(got[2], message(63, {5, 0, 0, 0}));
    expect_message(got[3], message(60, vsi_wire(changed)));
    Bytes del;
    put32(del, vsi.uiVsiIndex);
    put32(del, 0);
    putraw(del, vsi.aucAddr, 16);
    del.resize(40, 0);
    del.push_back(5);
    del.resize(44, 0);
    expect_message(got[4], message(61, del));
    Bytes roam;
    put16(roam, 12);
    put16(roam, 0);
    put16(roam, 52);
    put16(roam, 20);
    put16(roam, 2);
    put16(roam, 40);
    roam.insert(roam.end(), records.begin(), records.end());
    expect_message(got[5], message(80, roam));
}

}  // namespace
}  // namespace ipt
