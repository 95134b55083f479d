// The IPv4 adjacency service's owner tables: OpenFlow entries with their verify barrier,
// rules, VSI and VLAN suppression entries, roaming detection, the suppression switches and
// the OpenFlow ARP count. Expected bytes are built field by field with put16/put32 from
// values whose bytes all differ, so a missing or extra byte swap shows.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "ipclient/arp.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kBadReply = 0x40010005u;
constexpr std::uint16_t kLocalNode = 0x0102;
constexpr std::uint16_t kMasterEp = 0x0305;
constexpr std::uint16_t kMaster = 0x0709;
constexpr std::uint16_t kAdjPort = 11537;
constexpr std::uint16_t kDaemonPort = 1639;
constexpr std::uint32_t kRuleIf = 0x00012345;
constexpr int kTableFlags = 256;

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
Bytes message(std::uint8_t type, const Bytes& payload, std::uint16_t count = 1, std::uint8_t reserved = 0) {
    Bytes b{type, reserved};
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

std::uint32_t raw_addr(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    const std::uint8_t bytes[4] = {a, b, c, d};
    std::uint32_t v = 0;
    std::memcpy(&v, bytes, 4);
    return v;
}

bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

// Waits (really) until cond holds, at most two seconds.
bool wait_for(const std::function<bool()>& cond) {
    for (int i = 0; i < 400; ++i) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return cond();
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

// OpenFlow entries: every field distinct per seed.
ARP_OPENFLOW_ENTRY_S openflow_entry(std::uint8_t seed) {
    const auto s = static_cast<std::uint32_t>(seed) << 24;
    ARP_OPENFLOW_ENTRY_S e{};
    e.uiField0 = s | 0x010203u;
    e.uiAddr = raw_addr(192, 168, seed, 4);
    e.uiField8 = s | 0x0A0B0Cu;
    for (int i = 0; i < 6; ++i) e.aucField12[i] = static_cast<std::uint8_t>(0x11 + i + seed);
    e.usField18 = static_cast<std::uint16_t>(0x1718 + seed);
    e.uiField20 = s | 0x212223u;
    e.uiField24 = s | 0x252627u;
    e.usField28 = static_cast<std::uint16_t>(0x2930 + seed);
    e.usField30 = static_cast<std::uint16_t>(0x3132 + seed);
    e.usField32 = static_cast<std::uint16_t>(0x3334 + seed);
    e.aucField34[0] = 0x35;
    e.aucField34[1] = seed;
    e.uiField36 = s | 0x373839u;
    return e;
}

void put_openflow(Bytes& b, const ARP_OPENFLOW_ENTRY_S& e) {
    put32(b, e.uiField0);
    putraw(b, &e.uiAddr, 4);
    put32(b, e.uiField8);
    putraw(b, e.aucField12, 6);
    put16(b, e.usField18);
    put32(b, e.uiField20);
    put32(b, e.uiField24);
    put16(b, e.usField28);
    put16(b, e.usField30);
    put16(b, e.usField32);
    putraw(b, e.aucField34, 2);
    put32(b, e.uiField36);
}

// The caller's buffer: header room (byte 1 set to a marker the library must leave), entries.
Bytes openflow_buffer(std::uint32_t n, std::uint8_t marker = 0xEE) {
    Bytes buf(ARP_OPENFLOW_BUF_LEN(n), 0xA5);
    buf[1] = marker;
    for (std::uint32_t i = 0; i < n; ++i) {
        const ARP_OPENFLOW_ENTRY_S e = openflow_entry(static_cast<std::uint8_t>(i + 1));
        std::memcpy(buf.data() + 6 + i * 40, &e, sizeof e);
    }
    return buf;
}

Bytes openflow_wire(std::uint8_t type, std::uint32_t n, std::uint8_t marker = 0xEE) {
    Bytes b{type, marker};
    put16(b, static_cast<std::uint16_t>(n * 40));
    put16(b, static_cast<std::uint16_t>(n));
    for (std::uint32_t i = 0; i < n; ++i) put_openflow(b, openflow_entry(static_cast<std::uint8_t>(i + 1)));
    return b;
}

ARP_RULE_S sample_rule() {
    ARP_RULE_S r{};
    r.uiAddr = raw_addr(10, 1, 2, 3);
    r.uiIfIndex = kRuleIf;
    r.uiField8 = 0x08090A0B;
    r.uiField12 = 0x0C0D0E0F;
    r.usField16 = 0x1011;
    r.usField18 = 0x1213;
    r.usField20 = 0x1415;
    for (int i = 0; i < 6; ++i) r.aucField22[i] = static_cast<std::uint8_t>(0x16 + i);
    r.ucKind = 6;
    r.ucClass = 8;
    r.aucField30[0] = 0x1E;
    r.aucField30[1] = 0x1F;
    r.uiField32 = 0x20212223;
    r.uiField36 = 0x24252627;
    r.uiField40 = 0x28292A2B;
    r.uiField44 = 0x2C2D2E2F;
    r.usField48 = 0x3031;
    r.aucField50[0] = 0x32;
    r.aucField50[1] = 0x33;
    return r;
}

Bytes rule_wire(const ARP_RULE_S& r) {
    Bytes b;
    putraw(b, &r.uiAddr, 4);
    put32(b, r.uiIfIndex);
    put32(b, r.uiField8);
    put32(b, r.uiField12);
    put16(b, r.usField16);
    put16(b, r.usField18);
    put16(b, r.usField20);
    putraw(b, r.aucField22, 6);
    b.push_back(r.ucKind);
    b.push_back(r.ucClass);
    putraw(b, r.aucField30, 2);
    put32(b, r.uiField32);
    put32(b, r.uiField36);
    put32(b, r.uiField40);
    put32(b, r.uiField44);
    put16(b, r.usField48);
    putraw(b, r.aucField50, 2);
    return b;
}

ARP_VSI_SUP_ENTRY_S sample_vsi() {
    ARP_VSI_SUP_ENTRY_S e{};
    e.uiFirst = 0x01020304;
    e.uiField4 = 0x05060708;
    e.uiSecond = raw_addr(172, 16, 9, 10);
    for (int i = 0; i < 8; ++i) e.aucField12[i] = static_cast<std::uint8_t>(0x0D + i);
    e.uiField20 = 0x15161718;
    e.uiField24 = 0x191A1B1C;
    e.ucClass = 4;
    e.aucField29[0] = 0x1D;
    e.aucField29[1] = 0x1E;
    e.aucField29[2] = 0x1F;
    return e;
}

Bytes vsi_wire(const ARP_VSI_SUP_ENTRY_S& e) {
    Bytes b;
    put32(b, e.uiFirst);
    put32(b, e.uiField4);
    putraw(b, &e.uiSecond, 4);
    putraw(b, e.aucField12, 8);
    put32(b, e.uiField20);
    put32(b, e.uiField24);
    b.push_back(e.ucClass);
    putraw(b, e.aucField29, 3);
    return b;
}

ARP_VLAN_SUP_ENTRY_S sample_vlan() {
    ARP_VLAN_SUP_ENTRY_S e{};
    e.uiFirst = raw_addr(10, 20, 30, 40);
    e.uiField4 = 0x0A0B0C0D;
    e.usVlan = 0x0123;
    for (int i = 0; i < 6; ++i) e.aucField10[i] = static_cast<std::uint8_t>(0x60 + i);
    return e;
}

Bytes vlan_wire(const ARP_VLAN_SUP_ENTRY_S& e) {
    Bytes b;
    putraw(b, &e.uiFirst, 4);
    put32(b, e.uiField4);
    put16(b, e.usVlan);
    putraw(b, e.aucField10, 6);
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
        Bytes m = c.recv_message();
        if (m.empty()) return out;
        out.push_back(std::move(m));
    }
}

class ArpTablesFixture : public PlatformTest {
protected:
    ArpTablesFixture() {
        ipp_dir_set_local_node(kLocalNode);
        ipp_dir_set_master_ep(kMasterEp);
        ipp_dir_set_master(kMaster);
        add_interface(kRuleIf, true);
    }
};

class ArpOpenFlowTest : public ArpTablesFixture {};
class ArpOpenFlowVerifyTest : public ArpTablesFixture {};
class ArpOpenFlowCountTest : public ArpTablesFixture {
protected:
    FakeKernel kernel_;
};
class ArpRuleTest : public ArpTablesFixture {};
class ArpVsiSuppressionTest : public ArpTablesFixture {};
class ArpVlanSuppressionTest : public ArpTablesFixture {};
class ArpRoamingTest : public ArpTablesFixture {};
class ArpSuppressionSwitchTest : public ArpTablesFixture {};
class ArpTableProtocolTest : public ArpTablesFixture {};

// Runs op on a rule connection to a service that records what arrives, and returns the
// messages received.
std::vector<Bytes> on_rule_connection(const std::function<void(int)>& op) {
    std::vector<Bytes> got;
    {
        FakeService svc(kMasterEp, kAdjPort, [&got](Conn& c) { got = drain(c); });
        const int fd = ARP_RuleConnect();
        EXPECT_GE(fd, 0);
        if (fd < 0) return got;
        op(fd);
        ARP_RuleDisconnect(fd);
    }
    return got;
}

// ---- Edge cases ----------------------------------------------------------------------------

TEST_F(ArpRuleTest, RefreshRuleWithClass9OrKind7FailsAndSendsNothing) {
    std::vector<std::uint32_t> results;
    const auto got = on_rule_connection([&results](int fd) {
        ARP_RULE_S cls9 = sample_rule();
        cls9.ucClass = 9;
        ARP_RULE_S kind7 = sample_rule();
        kind7.ucKind = 7;
        results.push_back(ARP_RefreshRule(fd, &cls9));
        results.push_back(ARP_RefreshRule(fd, &kind7));
    });
    EXPECT_EQ(results, (std::vector<std::uint32_t>{kFailed, kFailed}));
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(ArpRoamingTest, Count8193WithEightBytesPassesAndSendsCountWithRecordSizeZero) {
    const Bytes records = roaming_records(8);
    std::uint32_t status = 1;
    const auto got = on_rule_connection([&](int fd) { status = ARP_RoamingDetection(fd, records.data(), 8, 8193); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload;
    put16(payload, 12);
    put16(payload, 0);
    put16(payload, 20);
    put16(payload, 0);     // 8 / 8193
    put16(payload, 8193);  // as given
    put16(payload, 8);
    payload.insert(payload.end(), records.begin(), records.end());
    expect_message(got[0], message(100, payload));
}

TEST_F(ArpOpenFlowTest, DeleteOnClosedDescriptorReturnsZero) {
    int fd = -1;
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) { (void)c.recv_message(1024, 200); });
        std::uint32_t version = 0;
        fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ARP_OpenFlowDisconnect(fd);
    }
    ASSERT_FALSE(is_open(fd));
    Bytes buf = openflow_buffer(1);
    EXPECT_EQ(ARP_DeleteOpenFlowEntry(fd, buf.data(), 1), 0u);
    // The header was written and the entry converted before the send failed.
    EXPECT_EQ(buf, openflow_wire(43, 1));
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].result, -1);
    EXPECT_EQ(sends[0].err, EBADF);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(ArpSuppressionSwitchTest, SetWithEnable2SendsByteOneAsZero) {
    std::vector<Bytes> got;
    {
        FakeService svc(0x8000, kDaemonPort, [&got](Conn& c) {
            got.push_back(c.recv_message());
            c.send_message({0, 0, 0, 0});
        }, 2);
        EXPECT_EQ(ARP_SetEviSuppression(2, 0x00C0FFEE), 0u);
        EXPECT_EQ(ARP_SetOverlaySuppression(kRuleIf, 2), 0u);
    }
    ASSERT_EQ(got.size(), 2u);
    Bytes evi = zeros(24);
    evi[0] = 61;
    evi[5] = 0xC0;
    evi[6] = 0xFF;
    evi[7] = 0xEE;
    expect_message(got[0], message(0, evi));
    EXPECT_EQ(got[0][6 + 1], 0);
    Bytes overlay = zeros(24);
    overlay[0] = 74;
    overlay[17] = 0x01;
    overlay[18] = 0x23;
    overlay[19] = 0x45;
    expect_message(got[1], message(0, overlay));
    EXPECT_EQ(got[1][6 + 1], 0);
}

// ---- OpenFlow connection -------------------------------------------------------------------

TEST_F(ArpOpenFlowTest, ConnectReachesLocalNodeWithSendTimeoutOnlyAndSetsVersion6) {
    int fd = -1;
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) { (void)c.recv_message(1024, 200); });
        std::uint32_t version = 0;
        fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(version, 6u);
        EXPECT_TRUE(is_open(fd));
        ARP_OpenFlowDisconnect(fd);
    }
    // Looked at once the service's thread is gone: it could otherwise be given the number.
    EXPECT_FALSE(is_open(fd));
    const auto connects = events(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    const std::uint8_t want[16] = {16, 37, 0x2D, 0x11, 0x01, 0x02};  // port 11537, node 0x0102
    EXPECT_EQ(std::memcmp(connects[0].addr, want, 16), 0);
    const auto opts = events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 1u);
    EXPECT_EQ(opts[0].level, 1);
    EXPECT_EQ(opts[0].option, 0x1005);
    std::int64_t sec = 0;
    std::memcpy(&sec, opts[0].value, 8);
    EXPECT_EQ(sec, 5);
}

TEST_F(ArpOpenFlowTest, ConnectWithNullVersionFailsWithoutOpening) {
    EXPECT_EQ(ARP_OpenFlowConnect(nullptr), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(ArpOpenFlowTest, ConnectWithoutServiceFailsAndStillSetsVersion) {
    std::uint32_t version = 0;
    EXPECT_EQ(ARP_OpenFlowConnect(&version), -1);
    EXPECT_EQ(version, 6u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(ArpOpenFlowTest, DisconnectIgnoresNegativeDescriptor) {
    ARP_OpenFlowDisconnect(-1);
    ARP_RuleDisconnect(-1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
}

// ---- OpenFlow entries ----------------------------------------------------------------------

TEST_F(ArpOpenFlowTest, RefreshSendsConvertedEntriesAndReturnsServiceStatusInHostOrder) {
    Bytes got;
    Bytes buf = openflow_buffer(2);
    std::uint32_t status = 0;
    {
        FakeService svc(kLocalNode, kAdjPort, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0x12, 0x34, 0x56, 0x78});
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        status = ARP_RefreshOpenFlowEntry(fd, buf.data(), 2);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(status, 0x12345678u);
    const Bytes want = openflow_wire(42, 2);
    EXPECT_EQ(got, want);  // byte 1 is the caller's and travels untouched
    EXPECT_EQ(buf, want);  // converted in place
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 64);
    EXPECT_EQ(sends[0].length, 86u);
    const auto recvs = events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].length, 4u);
}

TEST_F(ArpOpenFlowTest, DeleteSendsType43AndReturnsServiceStatus) {
    Bytes got;
    Bytes buf = openflow_buffer(1, 0x3C);
    std::uint32_t status = 0;
    {
        FakeService svc(kLocalNode, kAdjPort, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0x9A, 0xBC, 0xDE, 0xF0});
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        status = ARP_DeleteOpenFlowEntry(fd, buf.data(), 1);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(status, 0x9ABCDEF0u);
    EXPECT_EQ(got, openflow_wire(43, 1, 0x3C));
}

TEST_F(ArpOpenFlowTest, RefreshWithNoEntriesSendsTheHeaderAlone) {
    Bytes got;
    Bytes buf = openflow_buffer(0);
    std::uint32_t status = 1;
    {
        FakeService svc(kLocalNode, kAdjPort, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0, 0, 0, 0});
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        status = ARP_RefreshOpenFlowEntry(fd, buf.data(), 0);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(got, (Bytes{42, 0xEE, 0, 0, 0, 0}));
}

TEST_F(ArpOpenFlowTest, RefreshOfMostEntriesFillsTheSixteenBitLength) {
    constexpr std::uint32_t n = ARP_OPENFLOW_ENTRY_MAX;
    Bytes got;
    Bytes buf = openflow_buffer(n);
    std::uint32_t status = 0;
    {
        FakeService svc(kLocalNode, kAdjPort, [&got](Conn& c) {
            got = c.recv_message(70000);
            c.send_message({0x01, 0x02, 0x03, 0x04});
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        status = ARP_RefreshOpenFlowEntry(fd, buf.data(), n);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(status, 0x01020304u);
    ASSERT_EQ(got.size(), 6u + 65520u);
    EXPECT_EQ(got[2], 0xFF);
    EXPECT_EQ(got[3], 0xF0);
    EXPECT_EQ(got[4], 0x06);
    EXPECT_EQ(got[5], 0x66);
    EXPECT_EQ(got, openflow_wire(42, n));
}

TEST_F(ArpOpenFlowTest, RefreshRejectsBadArgumentsWithoutTouchingTheBuffer) {
    Bytes buf = openflow_buffer(1);
    const Bytes before = buf;
    EXPECT_EQ(ARP_RefreshOpenFlowEntry(-1, buf.data(), 1), kFailed);
    EXPECT_EQ(ARP_DeleteOpenFlowEntry(-1, buf.data(), 1), kFailed);
    EXPECT_EQ(ARP_RefreshOpenFlowEntry(3, nullptr, 1), kFailed);
    EXPECT_EQ(buf, before);
    // One entry more than the 16-bit length can carry, in a buffer large enough for it.
    Bytes big = openflow_buffer(ARP_OPENFLOW_ENTRY_MAX + 1);
    const Bytes big_before = big;
    EXPECT_EQ(ARP_DeleteOpenFlowEntry(3, big.data(), ARP_OPENFLOW_ENTRY_MAX + 1), kFailed);
    EXPECT_EQ(big, big_before);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(ArpOpenFlowTest, RefreshWithShortSendReturnsZeroWithoutWaitingForReply) {
    Bytes got;
    Bytes buf = openflow_buffer(2);
    std::uint32_t status = 1;
    {
        FakeService svc(kLocalNode, kAdjPort, [&got](Conn& c) { got = c.recv_message(1024, 2000); });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ipp_fault_short_send(1, 20);
        status = ARP_RefreshOpenFlowEntry(fd, buf.data(), 2);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(got.size(), 20u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(ArpOpenFlowTest, RefreshWithFailedSendReturnsZero) {
    Bytes buf = openflow_buffer(1);
    std::uint32_t status = 1;
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) { (void)c.recv_message(1024, 200); });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ipp_fault_inject(IPP_CALL_SEND, 1, EAGAIN);
        status = ARP_RefreshOpenFlowEntry(fd, buf.data(), 1);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(ArpOpenFlowTest, RefreshToClosedPeerReturnsZero) {
    int fd = -1;
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn&) {});
        std::uint32_t version = 0;
        fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
    }  // the service closed its end
    Bytes buf = openflow_buffer(1);
    EXPECT_EQ(ARP_RefreshOpenFlowEntry(fd, buf.data(), 1), 0u);
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].result, -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    ARP_OpenFlowDisconnect(fd);
}

TEST_F(ArpOpenFlowTest, RefreshReturnsZeroWhenServiceClosesWithoutReply) {
    Bytes buf = openflow_buffer(1);
    std::uint32_t status = 1;
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) { (void)c.recv_message(); });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        status = ARP_RefreshOpenFlowEntry(fd, buf.data(), 1);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);
}

TEST_F(ArpOpenFlowTest, ShortReplyReadsMissingBytesAsZero) {
    Bytes buf = openflow_buffer(1);
    std::uint32_t status = 0;
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) {
            (void)c.recv_message();
            c.send_message({0xAB, 0xCD});
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        status = ARP_RefreshOpenFlowEntry(fd, buf.data(), 1);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(status, 0xABCD0000u);
}

TEST_F(ArpOpenFlowTest, SmoothStartAndEndSendEmptyMessagesWithTableFlags) {
    std::vector<Bytes> got;
    std::uint32_t start = 1, end = 1;
    {
        FakeService svc(kLocalNode, kAdjPort, [&got](Conn& c) { got = drain(c); });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        start = ARP_OpenFlowSmoothStart(fd);
        end = ARP_OpenFlowSmoothEnd(fd);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(start, 0u);
    EXPECT_EQ(end, 0u);
    ASSERT_EQ(got.size(), 2u);
    expect_message(got[0], message(63, {}));
    expect_message(got[1], message(64, {}));
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].flags, kTableFlags);
    EXPECT_EQ(sends[1].flags, kTableFlags);
}

TEST_F(ArpOpenFlowTest, SmoothRejectsNegativeDescriptorAndReportsShortSend) {
    EXPECT_EQ(ARP_OpenFlowSmoothStart(-1), kFailed);
    EXPECT_EQ(ARP_OpenFlowSmoothEnd(-1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
    std::uint32_t status = 0;
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) { (void)drain(c); });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ipp_fault_short_send(1, 3);
        status = ARP_OpenFlowSmoothStart(fd);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(status, kFailed);
}

// ---- OpenFlow verify -----------------------------------------------------------------------

Bytes verify_message() {
    Bytes b{53, 0};
    put16(b, 48);
    put16(b, 1);
    b.resize(54, 0);
    return b;
}

TEST_F(ArpOpenFlowVerifyTest, ReturnsOnlyAfterTheServiceEndMessage) {
    Bytes got;
    std::atomic<bool> end_sent{false};
    {
        FakeService svc(kLocalNode, kAdjPort, [&](Conn& c) {
            got = c.recv_message();
            // Other messages come first and are consumed on the way.
            c.send_message(message(42, {0, 0, 0, 0}));
            c.send_message(message(7, {}));
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            end_sent = true;
            c.send_message(message(54, {}));
            (void)c.recv_message(1024, 2000);
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ARP_OpenFlowVerify(fd);
        EXPECT_TRUE(end_sent.load());
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(got, verify_message());  // the reserved byte is 0 here
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 0);
    const auto recvs = events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 3u);
    for (const auto& r : recvs) {
        EXPECT_EQ(r.length, 6u);
        EXPECT_EQ(r.flags, 0);
    }
}

TEST_F(ArpOpenFlowVerifyTest, EndMessageWithPayloadEndsTheWait) {
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) {
            (void)c.recv_message();
            c.send_message(message(54, {1, 2, 3, 4, 5, 6, 7, 8}));
            (void)c.recv_message(1024, 2000);
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ARP_OpenFlowVerify(fd);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);
}

TEST_F(ArpOpenFlowVerifyTest, MessageShorterThanAHeaderDoesNotEndTheWait) {
    std::atomic<bool> end_sent{false};
    {
        FakeService svc(kLocalNode, kAdjPort, [&](Conn& c) {
            (void)c.recv_message();
            c.send_message({54, 0, 0});
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            end_sent = true;
            c.send_message(message(54, {}));
            (void)c.recv_message(1024, 2000);
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ARP_OpenFlowVerify(fd);
        EXPECT_TRUE(end_sent.load());
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 2u);
}

TEST_F(ArpOpenFlowVerifyTest, FirstReadFindingConnectionClosedGivesUp) {
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) { (void)c.recv_message(); });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ARP_OpenFlowVerify(fd);
        ARP_OpenFlowDisconnect(fd);
    }
    const auto recvs = events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].result, 0);
}

TEST_F(ArpOpenFlowVerifyTest, FirstReadErrorGivesUp) {
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) { (void)drain(c); });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ipp_fault_inject(IPP_CALL_RECV, 1, EAGAIN);
        ARP_OpenFlowVerify(fd);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);
}

TEST_F(ArpOpenFlowVerifyTest, InterruptedReadsAreRepeated) {
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) {
            (void)c.recv_message();
            c.send_message(message(54, {}));
            (void)c.recv_message(1024, 2000);
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ipp_fault_inject(IPP_CALL_RECV, 3, EINTR);
        ARP_OpenFlowVerify(fd);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 4u);
}

TEST_F(ArpOpenFlowVerifyTest, ReadsThatTimeOutLaterInTheWaitAreRepeated) {
    std::atomic<bool> end_sent{false};
    {
        FakeService svc(kLocalNode, kAdjPort, [&](Conn& c) {
            (void)c.recv_message();
            c.send_message(message(7, {}));
            // The first read has consumed type 7; the next reads time out twice.
            if (!wait_for([] { return ipp_call_count(IPP_CALL_RECV) >= 2; })) return;
            ipp_fault_inject(IPP_CALL_RECV, 2, EAGAIN);
            c.send_message(message(8, {}));
            if (!wait_for([] { return ipp_call_count(IPP_CALL_RECV) >= 5; })) return;
            end_sent = true;
            c.send_message(message(54, {}));
            (void)c.recv_message(1024, 2000);
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ARP_OpenFlowVerify(fd);
        EXPECT_TRUE(end_sent.load());
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 5u);
}

TEST_F(ArpOpenFlowVerifyTest, ConnectionClosedAfterOtherMessagesEndsTheWait) {
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) {
            (void)c.recv_message();
            c.send_message(message(42, {0, 0, 0, 1}));
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ARP_OpenFlowVerify(fd);
        ARP_OpenFlowDisconnect(fd);
    }
    const auto recvs = events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 2u);
    EXPECT_EQ(recvs[0].result, 6);
    EXPECT_EQ(recvs[1].result, 0);
}

TEST_F(ArpOpenFlowVerifyTest, InterruptedSendIsRepeated) {
    Bytes got;
    {
        FakeService svc(kLocalNode, kAdjPort, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message(message(54, {}));
            (void)c.recv_message(1024, 2000);
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ipp_fault_inject(IPP_CALL_SEND, 2, EINTR);
        ARP_OpenFlowVerify(fd);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(got, verify_message());
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 3u);
}

TEST_F(ArpOpenFlowVerifyTest, FailedOrShortSendGivesUpWithoutReading) {
    {
        FakeService svc(kLocalNode, kAdjPort, [](Conn& c) { (void)drain(c); });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        ipp_fault_inject(IPP_CALL_SEND, 1, EPIPE);
        ARP_OpenFlowVerify(fd);
        ipp_fault_short_send(1, 10);
        ARP_OpenFlowVerify(fd);
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 2u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(ArpOpenFlowVerifyTest, NegativeDescriptorDoesNothing) {
    ARP_OpenFlowVerify(-1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

// ---- OpenFlow ARP count --------------------------------------------------------------------

Bytes count_request(std::uint16_t node) {
    Bytes b{1, 8, 0, 1};
    b.resize(18, 0);
    put16(b, node);
    b.resize(28, 0);
    return b;
}

TEST_F(ArpOpenFlowCountTest, AsksTheMasterEndpointAndReadsTheCountInHostOrder) {
    ipp_dir_set_master_ep(0x0A0B);
    kernel_.reply(0, {0xF1, 0xF2, 0xF3, 0xF4, 0x00, 0x01, 0x02, 0x03, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0xFA, 0xFB, 0xFC});
    std::uint32_t count = 0;
    EXPECT_EQ(ARP_DisOpenFlowArpCount(&count), 0u);
    EXPECT_EQ(count, 0x00010203u);
    ASSERT_EQ(kernel_.count(), 1u);
    const KernelCall call = kernel_.last();
    EXPECT_EQ(call.node, 0x00000A0Bu);
    EXPECT_EQ(call.command, 0x140004u);
    EXPECT_EQ(call.reply_cap, 16u);
    EXPECT_FALSE(call.async);
    EXPECT_EQ(call.request, count_request(0x0A0B));
}

TEST_F(ArpOpenFlowCountTest, OwnNodeEndpointIsPassedSignExtended) {
    ipp_dir_set_master_ep(0x8000);
    kernel_.reply(0, {0, 0, 0, 0, 0, 0, 0, 9});
    std::uint32_t count = 0;
    EXPECT_EQ(ARP_DisOpenFlowArpCount(&count), 0u);
    EXPECT_EQ(count, 9u);
    EXPECT_EQ(kernel_.last().node, 0xFFFF8000u);
    EXPECT_EQ(kernel_.last().request, count_request(0x8000));
}

TEST_F(ArpOpenFlowCountTest, ModuleStatusPassesThroughAndLeavesCount) {
    kernel_.reply(0x40010007u, {0, 0, 0, 0, 0, 0, 0, 9});
    std::uint32_t count = 77;
    EXPECT_EQ(ARP_DisOpenFlowArpCount(&count), 0x40010007u);
    EXPECT_EQ(count, 77u);
}

TEST_F(ArpOpenFlowCountTest, ReplyTooShortForTheCountIsABadReply) {
    kernel_.reply(KernelReply{0, {0, 0, 0, 0, 0, 0, 0, 9}, 7});
    std::uint32_t count = 77;
    EXPECT_EQ(ARP_DisOpenFlowArpCount(&count), kBadReply);
    EXPECT_EQ(count, 77u);
}

TEST_F(ArpOpenFlowCountTest, NullCountFailsWithoutRequest) {
    EXPECT_EQ(ARP_DisOpenFlowArpCount(nullptr), kFailed);
    EXPECT_EQ(kernel_.count(), 0u);
}

// ---- Rules ---------------------------------------------------------------------------------

TEST_F(ArpRuleTest, ConnectReachesMasterEndpointWithoutTimeouts) {
    int fd = -1;
    {
        FakeService svc(kMasterEp, kAdjPort, [](Conn& c) { (void)c.recv_message(1024, 200); });
        fd = ARP_RuleConnect();
        ASSERT_GE(fd, 0);
        ARP_RuleDisconnect(fd);
    }
    // Looked at once the service's thread is gone: it could otherwise be given the number.
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(ipp_call_count(IPP_CALL_SETSOCKOPT), 0u);
    const auto connects = events(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    const std::uint8_t want[16] = {16, 37, 0x2D, 0x11, 0x03, 0x05};
    EXPECT_EQ(std::memcmp(connects[0].addr, want, 16), 0);
}

TEST_F(ArpRuleTest, ConnectWithoutServiceFailsWithoutLeak) {
    EXPECT_EQ(ARP_RuleConnect(), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(ArpRuleTest, RefreshSendsTheConvertedRule) {
    const ARP_RULE_S rule = sample_rule();
    std::uint32_t status = 1;
    const auto got = on_rule_connection([&](int fd) { status = ARP_RefreshRule(fd, &rule); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    expect_message(got[0], message(30, rule_wire(rule)));
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, kTableFlags);
    EXPECT_EQ(sends[0].length, 58u);
}

TEST_F(ArpRuleTest, RefreshRejectsInvalidInterfaceZeroAddressNullAndNegativeDescriptor) {
    add_interface(0x00054321, false);
    std::vector<std::uint32_t> results;
    const auto got = on_rule_connection([&results](int fd) {
        ARP_RULE_S unknown = sample_rule();
        unknown.uiIfIndex = 0x00077777;
        ARP_RULE_S invalid = sample_rule();
        invalid.uiIfIndex = 0x00054321;
        ARP_RULE_S zero = sample_rule();
        zero.uiAddr = 0;
        const ARP_RULE_S good = sample_rule();
        results.push_back(ARP_RefreshRule(fd, &unknown));
        results.push_back(ARP_RefreshRule(fd, &invalid));
        results.push_back(ARP_RefreshRule(fd, &zero));
        results.push_back(ARP_RefreshRule(fd, nullptr));
        results.push_back(ARP_RefreshRule(-1, &good));
    });
    EXPECT_EQ(results, std::vector<std::uint32_t>(5, kFailed));
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(ArpRuleTest, DeleteSendsAddressInterfaceAndClass) {
    std::uint32_t status = 1;
    const auto got = on_rule_connection(
        [&](int fd) { status = ARP_DeleteRule(fd, kRuleIf, raw_addr(10, 1, 2, 3), 5); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{10, 1, 2, 3};
    put32(payload, kRuleIf);
    payload.resize(29, 0);
    payload.push_back(5);
    payload.resize(52, 0);
    expect_message(got[0], message(31, payload));
    EXPECT_EQ(events(IPP_CALL_SEND).at(0).flags, kTableFlags);
}

TEST_F(ArpRuleTest, SmoothStartAndEndCarryOwnerAndClass) {
    std::uint32_t start = 1, end = 1;
    const auto got = on_rule_connection([&](int fd) {
        start = ARP_RuleSmoothStart(fd, 8, 0x1234);
        end = ARP_RuleSmoothEnd(fd, 3, 0xABCD);
    });
    EXPECT_EQ(start, 0u);
    EXPECT_EQ(end, 0u);
    ASSERT_EQ(got.size(), 2u);
    expect_message(got[0], message(32, {0x12, 0x34, 8, 0}));
    expect_message(got[1], message(33, {0xAB, 0xCD, 3, 0}));
}

TEST_F(ArpRuleTest, SmoothWithClassAbove8FailsAndSendsNothing) {
    std::uint32_t start = 0, end = 0;
    const auto got = on_rule_connection([&](int fd) {
        start = ARP_RuleSmoothStart(fd, 9, 1);
        end = ARP_RuleSmoothEnd(fd, 200, 1);
    });
    EXPECT_EQ(start, kFailed);
    EXPECT_EQ(end, kFailed);
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(ARP_RuleSmoothStart(-1, 1, 1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(ArpRuleTest, SendToClosedPeerFails) {
    int fd = -1;
    {
        FakeService svc(kMasterEp, kAdjPort, [](Conn&) {});
        fd = ARP_RuleConnect();
        ASSERT_GE(fd, 0);
    }
    const ARP_RULE_S rule = sample_rule();
    EXPECT_EQ(ARP_RefreshRule(fd, &rule), kFailed);
    EXPECT_EQ(ARP_RuleSmoothEnd(fd, 1, 1), kFailed);
    ARP_RuleDisconnect(fd);
}

TEST_F(ArpRuleTest, ShortSendFails) {
    std::uint32_t status = 0;
    (void)on_rule_connection([&](int fd) {
        ipp_fault_short_send(1, 30);
        const ARP_RULE_S rule = sample_rule();
        status = ARP_RefreshRule(fd, &rule);
    });
    EXPECT_EQ(status, kFailed);
}

// ---- VSI suppression -----------------------------------------------------------------------

TEST_F(ArpVsiSuppressionTest, RefreshSendsTheConvertedEntry) {
    const ARP_VSI_SUP_ENTRY_S entry = sample_vsi();
    std::uint32_t status = 1;
    const auto got = on_rule_connection([&](int fd) { status = ARP_RefreshVsiSupEntry(fd, &entry); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    expect_message(got[0], message(48, vsi_wire(entry)));
    EXPECT_EQ(events(IPP_CALL_SEND).at(0).flags, kTableFlags);
}

TEST_F(ArpVsiSuppressionTest, DeleteSendsFirstSecondAndClass) {
    std::uint32_t status = 1;
    const auto got = on_rule_connection(
        [&](int fd) { status = ARP_DeleteVsiSupEntry(fd, 0x00ABCDEF, raw_addr(172, 16, 9, 10), 7); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload;
    put32(payload, 0x00ABCDEF);
    put32(payload, 0);
    payload.insert(payload.end(), {172, 16, 9, 10});
    payload.resize(28, 0);
    payload.insert(payload.end(), {7, 0, 0, 0});
    expect_message(got[0], message(49, payload));
}

TEST_F(ArpVsiSuppressionTest, SmoothStartAndEndCarryTheClass) {
    const auto got = on_rule_connection([](int fd) {
        EXPECT_EQ(ARP_VsiSupEntrySmoothStart(fd, 0x21), 0u);
        EXPECT_EQ(ARP_VsiSupEntrySmoothEnd(fd, 0x43), 0u);
    });
    ASSERT_EQ(got.size(), 2u);
    expect_message(got[0], message(50, {0x21, 0, 0, 0}));
    expect_message(got[1], message(51, {0x43, 0, 0, 0}));
}

TEST_F(ArpVsiSuppressionTest, RejectsNullEntryAndNegativeDescriptor) {
    const ARP_VSI_SUP_ENTRY_S entry = sample_vsi();
    EXPECT_EQ(ARP_RefreshVsiSupEntry(3, nullptr), kFailed);
    EXPECT_EQ(ARP_RefreshVsiSupEntry(-1, &entry), kFailed);
    EXPECT_EQ(ARP_DeleteVsiSupEntry(-1, 1, 2, 3), kFailed);
    EXPECT_EQ(ARP_VsiSupEntrySmoothStart(-1, 1), kFailed);
    EXPECT_EQ(ARP_VsiSupEntrySmoothEnd(-1, 1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

// ---- VLAN suppression ----------------------------------------------------------------------

TEST_F(ArpVlanSuppressionTest, RefreshSendsTheConvertedEntry) {
    const ARP_VLAN_SUP_ENTRY_S entry = sample_vlan();
    std::uint32_t status = 1;
    const auto got = on_rule_connection([&](int fd) { status = ARP_VlanSupRefreshEntry(fd, &entry); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    expect_message(got[0], message(94, vlan_wire(entry)));
    EXPECT_EQ(events(IPP_CALL_SEND).at(0).flags, kTableFlags);
}

TEST_F(ArpVlanSuppressionTest, DeleteSendsFirstAndVlan) {
    std::uint32_t status = 1;
    const auto got =
        on_rule_connection([&](int fd) { status = ARP_VlanSupDeleteEntry(fd, raw_addr(10, 20, 30, 40), 0x0FED); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{10, 20, 30, 40, 0, 0, 0, 0};
    put16(payload, 0x0FED);
    payload.resize(16, 0);
    expect_message(got[0], message(95, payload));
}

TEST_F(ArpVlanSuppressionTest, SmoothStartAndEndAreEmpty) {
    const auto got = on_rule_connection([](int fd) {
        EXPECT_EQ(ARP_VlanSupEntrySmoothStart(fd), 0u);
        EXPECT_EQ(ARP_VlanSupEntrySmoothEnd(fd), 0u);
    });
    ASSERT_EQ(got.size(), 2u);
    expect_message(got[0], message(96, {}));
    expect_message(got[1], message(97, {}));
    for (const auto& s : events(IPP_CALL_SEND)) EXPECT_EQ(s.flags, kTableFlags);
}

TEST_F(ArpVlanSuppressionTest, RejectsNullEntryAndNegativeDescriptor) {
    const ARP_VLAN_SUP_ENTRY_S entry = sample_vlan();
    EXPECT_EQ(ARP_VlanSupRefreshEntry(3, nullptr), kFailed);
    EXPECT_EQ(ARP_VlanSupRefreshEntry(-1, &entry), kFailed);
    EXPECT_EQ(ARP_VlanSupDeleteEntry(-1, 1, 2), kFailed);
    EXPECT_EQ(ARP_VlanSupEntrySmoothStart(-1), kFailed);
    EXPECT_EQ(ARP_VlanSupEntrySmoothEnd(-1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

// ---- Roaming detection ---------------------------------------------------------------------

TEST_F(ArpRoamingTest, SendsHeaderAndRecords) {
    const Bytes records = roaming_records(24);
    std::uint32_t status = 1;
    const auto got = on_rule_connection([&](int fd) { status = ARP_RoamingDetection(fd, records.data(), 24, 3); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{0x00, 0x0C, 0x00, 0x00, 0x00, 0x24, 0x00, 0x08, 0x00, 0x03, 0x00, 0x18};
    payload.insert(payload.end(), records.begin(), records.end());
    expect_message(got[0], message(100, payload));
    EXPECT_EQ(events(IPP_CALL_SEND).at(0).flags, kTableFlags);
}

TEST_F(ArpRoamingTest, LargestMessageFitsAndOneRecordMoreIsRejected) {
    const Bytes records = roaming_records(4088);
    std::uint32_t fits = 1, over = 0;
    const auto got = on_rule_connection([&](int fd) {
        fits = ARP_RoamingDetection(fd, records.data(), 4080, 510);
        over = ARP_RoamingDetection(fd, records.data(), 4088, 511);
    });
    EXPECT_EQ(fits, 0u);
    EXPECT_EQ(over, kFailed);
    ASSERT_EQ(got.size(), 1u);
    ASSERT_EQ(got[0].size(), 6u + 12u + 4080u);
    Bytes head;
    put16(head, 12);
    put16(head, 0);
    put16(head, 4092);
    put16(head, 8);
    put16(head, 510);
    put16(head, 4080);
    EXPECT_TRUE(std::equal(head.begin(), head.end(), got[0].begin() + 6));
    EXPECT_TRUE(std::equal(records.begin(), records.begin() + 4080, got[0].begin() + 18));
}

TEST_F(ArpRoamingTest, RejectsBadArgumentsBeforeSending) {
    const Bytes records = roaming_records(24);
    const auto got = on_rule_connection([&](int fd) {
        EXPECT_EQ(ARP_RoamingDetection(fd, records.data(), 0, 0), kFailed);
        EXPECT_EQ(ARP_RoamingDetection(fd, nullptr, 24, 3), kFailed);
        EXPECT_EQ(ARP_RoamingDetection(fd, records.data(), 24, 2), kFailed);
        EXPECT_EQ(ARP_RoamingDetection(fd, records.data(), 23, 3), kFailed);
        EXPECT_EQ(ARP_RoamingDetection(fd, records.data(), 8, 0), kFailed);
        EXPECT_EQ(ARP_RoamingDetection(-1, records.data(), 24, 3), kFailed);
    });
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

// ---- Suppression switches ------------------------------------------------------------------

// One exchange with a service at (0x8000, port) that answers `reply`.
template <class Op>
std::vector<Bytes> with_switch_service(std::uint16_t port, const Bytes& reply, Op op) {
    std::vector<Bytes> got;
    {
        FakeService svc(0x8000, port, [&got, reply](Conn& c) {
            got.push_back(c.recv_message());
            c.send_message(reply);
        });
        op();
    }
    return got;
}

void expect_switch_exchange(std::uint16_t port) {
    const auto opts = events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 2u);
    std::int64_t sec = 0;
    EXPECT_EQ(opts[0].option, 0x1005);
    std::memcpy(&sec, opts[0].value, 8);
    EXPECT_EQ(sec, 5);
    EXPECT_EQ(opts[1].option, 0x1006);
    std::memcpy(&sec, opts[1].value, 8);
    EXPECT_EQ(sec, 5);
    const auto connects = events(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    const std::uint8_t want[16] = {16, 37, static_cast<std::uint8_t>(port >> 8), static_cast<std::uint8_t>(port),
                                   0x80, 0x00};
    EXPECT_EQ(std::memcmp(connects[0].addr, want, 16), 0);
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 64);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(ArpSuppressionSwitchTest, SetEviSendsCodeEnableAndInstanceAndReturnsReplyWord) {
    std::uint32_t status = 0;
    const auto got = with_switch_service(kDaemonPort, {0x40, 0x01, 0x00, 0x07},
                                         [&] { status = ARP_SetEviSuppression(1, 0x00C0FFEE); });
    EXPECT_EQ(status, 0x40010007u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{61, 1, 0, 0};
    put32(payload, 0x00C0FFEE);
    payload.resize(24, 0);
    expect_message(got[0], message(0, payload));
    expect_switch_exchange(kDaemonPort);
}

TEST_F(ArpSuppressionSwitchTest, SetEviRejectsInstanceZero) {
    EXPECT_EQ(ARP_SetEviSuppression(1, 0), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(ArpSuppressionSwitchTest, GetEviStoresReplyWordInHostOrder) {
    std::uint32_t status = 1, state = 0;
    const auto got = with_switch_service(kDaemonPort, {0x01, 0x02, 0x03, 0x04},
                                         [&] { status = ARP_GetEviSuppression(0x00102030, &state); });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(state, 0x01020304u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{71, 0, 0, 0};
    put32(payload, 0x00102030);
    payload.resize(24, 0);
    expect_message(got[0], message(0, payload));
    expect_switch_exchange(kDaemonPort);
    EXPECT_EQ(ARP_GetEviSuppression(1, nullptr), kFailed);
}

TEST_F(ArpSuppressionSwitchTest, SetOverlaySendsInterfaceAtOffset16) {
    std::uint32_t status = 0;
    const auto got = with_switch_service(kDaemonPort, {0x00, 0x00, 0x01, 0x02},
                                         [&] { status = ARP_SetOverlaySuppression(0x0A0B0C0D, 1); });
    EXPECT_EQ(status, 0x0102u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{74, 1};
    payload.resize(16, 0);
    put32(payload, 0x0A0B0C0D);
    payload.resize(24, 0);
    expect_message(got[0], message(0, payload));
    expect_switch_exchange(kDaemonPort);
}

TEST_F(ArpSuppressionSwitchTest, GetOverlayStoresReplyWord) {
    std::uint32_t status = 1, state = 0;
    const auto got = with_switch_service(kDaemonPort, {0xCA, 0xFE, 0x00, 0x01},
                                         [&] { status = ARP_GetOverlaySuppression(0x0A0B0C0D, &state); });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(state, 0xCAFE0001u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{83};
    payload.resize(16, 0);
    put32(payload, 0x0A0B0C0D);
    payload.resize(24, 0);
    expect_message(got[0], message(0, payload));
}

TEST_F(ArpSuppressionSwitchTest, OverlayRejectsAllOnesInterfaceAndNullState) {
    std::uint32_t state = 0;
    EXPECT_EQ(ARP_SetOverlaySuppression(0xFFFFFFFFu, 1), kFailed);
    EXPECT_EQ(ARP_GetOverlaySuppression(0xFFFFFFFFu, &state), kFailed);
    EXPECT_EQ(ARP_GetOverlaySuppression(1, nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(ArpSuppressionSwitchTest, GetVlanAsksAdjacencyServiceAndReadsBytes12To15) {
    std::uint32_t status = 1, state = 0;
    const Bytes reply{0xE0, 0xE1, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8, 0xE9, 0xEA, 0xEB, 0x00, 0x0A, 0x0B, 0x0C};
    const auto got =
        with_switch_service(kAdjPort, reply, [&] { status = ARP_GetVlanSuppression(0x0ABC, &state); });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(state, 0x000A0B0Cu);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{152};
    payload.resize(14, 0);
    put16(payload, 0x0ABC);
    payload.resize(24, 0);
    expect_message(got[0], message(0, payload));
    expect_switch_exchange(kAdjPort);
    const auto recvs = events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].length, 16u);
}

TEST_F(ArpSuppressionSwitchTest, GetVlanRejectsAllOnesVlanAndNullState) {
    std::uint32_t state = 0;
    EXPECT_EQ(ARP_GetVlanSuppression(0xFFFF, &state), kFailed);
    EXPECT_EQ(ARP_GetVlanSuppression(1, nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(ArpSuppressionSwitchTest, WithoutServiceEveryExchangeFailsWithoutLeak) {
    std::uint32_t state = 55;
    EXPECT_EQ(ARP_SetEviSuppression(1, 1), kFailed);
    EXPECT_EQ(ARP_GetEviSuppression(1, &state), kFailed);
    EXPECT_EQ(ARP_SetOverlaySuppression(1, 1), kFailed);
    EXPECT_EQ(ARP_GetOverlaySuppression(1, &state), kFailed);
    EXPECT_EQ(ARP_GetVlanSuppression(1, &state), kFailed);
    EXPECT_EQ(state, 55u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 5u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 5u);
}

TEST_F(ArpSuppressionSwitchTest, ShortReplyFailsAndLeavesState) {
    std::uint32_t state = 55, status = 0;
    (void)with_switch_service(kDaemonPort, {0x00, 0x01}, [&] { status = ARP_GetEviSuppression(1, &state); });
    EXPECT_EQ(status, kFailed);
    EXPECT_EQ(state, 55u);
    (void)with_switch_service(kAdjPort, Bytes(15, 1), [&] { status = ARP_GetVlanSuppression(1, &state); });
    EXPECT_EQ(status, kFailed);
    EXPECT_EQ(state, 55u);
    (void)with_switch_service(kDaemonPort, {0x00, 0x01, 0x02}, [&] { status = ARP_SetEviSuppression(1, 1); });
    EXPECT_EQ(status, kFailed);
}

TEST_F(ArpSuppressionSwitchTest, ServiceClosingWithoutReplyFails) {
    std::uint32_t state = 55, status = 0;
    {
        FakeService svc(0x8000, kDaemonPort, [](Conn& c) { (void)c.recv_message(); });
        status = ARP_GetOverlaySuppression(7, &state);
    }
    EXPECT_EQ(status, kFailed);
    EXPECT_EQ(state, 55u);
}

TEST_F(ArpSuppressionSwitchTest, ShortSendFailsWithoutReading) {
    std::uint32_t status = 0;
    {
        FakeService svc(0x8000, kDaemonPort, [](Conn& c) { (void)c.recv_message(1024, 500); });
        ipp_fault_short_send(1, 10);
        status = ARP_SetEviSuppression(1, 1);
    }
    EXPECT_EQ(status, kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

// ---- The refresh protocol end to end -------------------------------------------------------

TEST_F(ArpTableProtocolTest, OpenFlowOwnerResynchronisesAndVerifies) {
    std::vector<Bytes> got;
    std::atomic<bool> end_sent{false};
    Bytes first = openflow_buffer(2);
    Bytes second = openflow_buffer(1, 0x11);
    Bytes removed = openflow_buffer(1, 0x22);
    std::vector<std::uint32_t> statuses;
    {
        FakeService svc(kLocalNode, kAdjPort, [&](Conn& c) {
            got.push_back(c.recv_message());               // smooth start
            got.push_back(c.recv_message(70000));          // refresh of two
            c.send_message({0, 0, 0, 0});
            got.push_back(c.recv_message(70000));          // refresh of one
            c.send_message({0, 0, 0, 0});
            got.push_back(c.recv_message());               // smooth end
            got.push_back(c.recv_message(70000));          // delete
            c.send_message({0x00, 0x00, 0x01, 0x05});
            got.push_back(c.recv_message());               // verify
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            end_sent = true;
            c.send_message(message(54, {}));
            const Bytes rest = c.recv_message(1024, 2000);  // empty once the owner disconnects
            if (!rest.empty()) got.push_back(rest);
        });
        std::uint32_t version = 0;
        const int fd = ARP_OpenFlowConnect(&version);
        ASSERT_GE(fd, 0);
        statuses.push_back(ARP_OpenFlowSmoothStart(fd));
        statuses.push_back(ARP_RefreshOpenFlowEntry(fd, first.data(), 2));
        statuses.push_back(ARP_RefreshOpenFlowEntry(fd, second.data(), 1));
        statuses.push_back(ARP_OpenFlowSmoothEnd(fd));
        statuses.push_back(ARP_DeleteOpenFlowEntry(fd, removed.data(), 1));
        ARP_OpenFlowVerify(fd);
        EXPECT_TRUE(end_sent.load());
        ARP_OpenFlowDisconnect(fd);
    }
    EXPECT_EQ(statuses, (std::vector<std::uint32_t>{0, 0, 0, 0, 0x105}));
    ASSERT_EQ(got.size(), 6u);
    expect_message(got[0], message(63, {}));
    EXPECT_EQ(got[1], openflow_wire(42, 2));
    EXPECT_EQ(got[2], openflow_wire(42, 1, 0x11));
    expect_message(got[3], message(64, {}));
    EXPECT_EQ(got[4], openflow_wire(43, 1, 0x22));
    EXPECT_EQ(got[5], verify_message());
}

TEST_F(ArpTableProtocolTest, RuleOwnerResynchronisesThenRefreshesAndDeletes) {
    add_interface(0x00020000, true);
    const ARP_RULE_S one = sample_rule();
    ARP_RULE_S two = sample_rule();
    two.uiAddr = raw_addr(10, 1, 2, 4);
    two.uiIfIndex = 0x00020000;
    two.ucClass = 3;
    two.ucKind = 0;
    ARP_RULE_S changed = two;
    changed.uiField32 = 0x0BADF00D;
    std::vector<std::uint32_t> statuses;
    const auto got = on_rule_connection([&](int fd) {
        statuses.push_back(ARP_RuleSmoothStart(fd, 3, 0x0456));
        statuses.push_back(ARP_RefreshRule(fd, &one));
        statuses.push_back(ARP_RefreshRule(fd, &two));
        statuses.push_back(ARP_RuleSmoothEnd(fd, 3, 0x0456));
        statuses.push_back(ARP_RefreshRule(fd, &changed));
        statuses.push_back(ARP_DeleteRule(fd, kRuleIf, one.uiAddr, one.ucClass));
    });
    EXPECT_EQ(statuses, std::vector<std::uint32_t>(6, 0u));
    ASSERT_EQ(got.size(), 6u);
    expect_message(got[0], message(32, {0x04, 0x56, 3, 0}));
    expect_message(got[1], message(30, rule_wire(one)));
    expect_message(got[2], message(30, rule_wire(two)));
    expect_message(got[3], message(33, {0x04, 0x56, 3, 0}));
    expect_message(got[4], message(30, rule_wire(changed)));
    Bytes del{10, 1, 2, 3};
    put32(del, kRuleIf);
    del.resize(29, 0);
    del.push_back(8);
    del.resize(52, 0);
    expect_message(got[5], message(31, del));
}

TEST_F(ArpTableProtocolTest, SuppressionOwnersResynchroniseOnOneConnection) {
    const ARP_VSI_SUP_ENTRY_S vsi = sample_vsi();
    const ARP_VLAN_SUP_ENTRY_S vlan = sample_vlan();
    std::vector<std::uint32_t> statuses;
    const auto got = on_rule_connection([&](int fd) {
        statuses.push_back(ARP_VsiSupEntrySmoothStart(fd, vsi.ucClass));
        statuses.push_back(ARP_RefreshVsiSupEntry(fd, &vsi));
        statuses.push_back(ARP_VsiSupEntrySmoothEnd(fd, vsi.ucClass));
        statuses.push_back(ARP_DeleteVsiSupEntry(fd, vsi.uiFirst, vsi.uiSecond, vsi.ucClass));
        statuses.push_back(ARP_VlanSupEntrySmoothStart(fd));
        statuses.push_back(ARP_VlanSupRefreshEntry(fd, &vlan));
        statuses.push_back(ARP_VlanSupEntrySmoothEnd(fd));
        statuses.push_back(ARP_VlanSupDeleteEntry(fd, vlan.uiFirst, vlan.usVlan));
    });
    EXPECT_EQ(statuses, std::vector<std::uint32_t>(8, 0u));
    ASSERT_EQ(got.size(), 8u);
    const std::vector<std::uint8_t> types{50, 48, 51, 49, 96, 94, 97, 95};
    for (std::size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i][0], types[i]) << i;
    expect_message(got[1], message(48, vsi_wire(vsi)));
    expect_message(got[5], message(94, vlan_wire(vlan)));
}

}  // namespace
}  // namespace ipt
