// The IPv4 adjacency service's owner tables, what only ARP has or names its own way:
// OpenFlow connections and the verify barrier, smooth markers, rules, VSI and VLAN
// suppression entries, roaming detection's headers, the suppression switches and the
// OpenFlow ARP count (adj/neigh_tables_test.cpp has the cases both families share).
// Records are laid out with bytes that all differ and expected on the wire with their
// big-endian fields reversed, so a missing or extra byte swap shows.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

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
#include "support/neigh_bytes.hpp"
#include "support/neigh_channel.hpp"
#include "support/neigh_table_scenarios.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

using namespace neigh;

constexpr std::uint32_t kBadReply = 0x40010005u;
constexpr std::uint16_t kAdjPort = ArpTables::kPort;
constexpr std::uint16_t kDaemonPort = 1639;

// Waits (really) until cond holds, at most two seconds.
bool wait_for(const std::function<bool()>& cond) {
    for (int i = 0; i < 400; ++i) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return cond();
}

void add_interface(std::uint32_t ifindex, bool valid) {
    auto itf = interface_entry(ifindex, kLocalNode);
    itf.valid = valid ? 1 : 0;
    add_to_directory(itf);
}

using ArpTablesFixture = NeighTablesTest<ArpTables>;
class ArpOpenFlowTest : public ArpTablesFixture {};
class ArpOpenFlowVerifyTest : public ArpTablesFixture {
protected:
    // Runs the verify barrier on a connection to a service running script: arm sets faults
    // before it, check looks at what holds once it returned (the connection still open).
    static void verify(const FakeService::Script& script, const std::function<void()>& arm = [] {},
                       const std::function<void()>& check = [] {}) {
        on_openflow_connection(script, [&](int fd) {
            arm();
            ARP_OpenFlowVerify(fd);
            check();
        });
    }
    // A service that reads the barrier (into got when asked), sends each reply and then,
    // unless told to close, waits until the owner disconnects.
    static FakeService::Script answering_with(std::vector<Bytes> replies, Bytes* got = nullptr, bool close = false) {
        return [replies, got, close](Conn& c) {
            const Bytes barrier = c.recv_message();
            if (got != nullptr) *got = barrier;
            for (const Bytes& r : replies) c.send_message(r);
            if (!close) (void)c.recv_message(1024, 2000);
        };
    }
    // The same with a pause before the last reply (the end message), marked as sent.
    static FakeService::Script ending_late(std::atomic<bool>& end_sent, std::vector<Bytes> first,
                                           Bytes* got = nullptr) {
        return [&end_sent, first, got](Conn& c) {
            const Bytes barrier = c.recv_message();
            if (got != nullptr) *got = barrier;
            // Other messages come first and are consumed on the way.
            for (const Bytes& m : first) c.send_message(m);
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            end_sent = true;
            c.send_message(adj_message(54, {}));
            (void)c.recv_message(1024, 2000);
        };
    }
};
class ArpRuleTest : public ArpTablesFixture {};
class ArpVsiSuppressionTest : public ArpTablesFixture {};
class ArpVlanSuppressionTest : public ArpTablesFixture {};
class ArpOpenFlowCountTest : public ArpTablesFixture {
protected:
    FakeKernel kernel_;
};
class ArpRoamingTest : public ArpTablesFixture {};
class ArpSuppressionSwitchTest : public ArpTablesFixture {};
class ArpTableProtocolTest : public ArpTablesFixture {};

// The big-endian fields of a rule, a VSI and a VLAN suppression entry; the addresses, the
// hardware address, kind, class and reserved bytes travel as given.
constexpr Field kRuleFields[] = {{4, 4}, {8, 4}, {12, 4}, {16, 2}, {18, 2}, {20, 2},
                                 {32, 4}, {36, 4}, {40, 4}, {44, 4}, {48, 2}};
constexpr Field kVsiFields[] = {{0, 4}, {4, 4}, {20, 4}, {24, 4}};
constexpr Field kVlanFields[] = {{4, 4}, {8, 2}};

ARP_RULE_S sample_rule() {
    auto r = patterned_rule<ARP_RULE_S>();
    r.uiAddr = ipv4(10, 1, 2, 3);
    return r;
}
Bytes rule_wire(const ARP_RULE_S& r) { return swapped(bytes_of(r), kRuleFields); }

ARP_VSI_SUP_ENTRY_S sample_vsi() {
    auto e = from_bytes<ARP_VSI_SUP_ENTRY_S>(patterned(sizeof(ARP_VSI_SUP_ENTRY_S), 1));
    e.uiSecond = ipv4(172, 16, 9, 10);
    e.ucClass = 4;
    return e;
}
Bytes vsi_wire(const ARP_VSI_SUP_ENTRY_S& e) { return swapped(bytes_of(e), kVsiFields); }

ARP_VLAN_SUP_ENTRY_S sample_vlan() {
    auto e = from_bytes<ARP_VLAN_SUP_ENTRY_S>(patterned(sizeof(ARP_VLAN_SUP_ENTRY_S), 0x5C));
    e.uiFirst = ipv4(10, 20, 30, 40);
    e.usVlan = 0x0123;
    return e;
}
Bytes vlan_wire(const ARP_VLAN_SUP_ENTRY_S& e) { return swapped(bytes_of(e), kVlanFields); }

// ---- Edge cases ----------------------------------------------------------------------------

TEST_F(ArpRuleTest, RefreshRuleWithClass9OrKind7FailsAndSendsNothing) {
    refused_before_sending<ArpTables>([](int fd) {
        ARP_RULE_S cls9 = sample_rule();
        cls9.ucClass = 9;
        ARP_RULE_S kind7 = sample_rule();
        kind7.ucKind = 7;
        return std::vector<std::uint32_t>{ARP_RefreshRule(fd, &cls9), ARP_RefreshRule(fd, &kind7)};
    });
}

TEST_F(ArpRoamingTest, Count8193WithEightBytesPassesAndSendsCountWithRecordSizeZero) {
    const Bytes records = roaming_records(8);
    std::uint32_t status = 1;
    const auto got = on_rule_connection([&](int fd) { status = ARP_RoamingDetection(fd, records.data(), 8, 8193); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    // Record size 8 / 8193 = 0; the count as given.
    expect_adj_message(got[0], adj_message(100, roaming_payload({12, 0, 20, 0, 8193, 8}, records)));
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
    Bytes evi = Bytes(24, 0);
    evi[0] = 61;
    evi[5] = 0xC0;
    evi[6] = 0xFF;
    evi[7] = 0xEE;
    expect_adj_message(got[0], adj_message(0, evi));
    EXPECT_EQ(got[0][6 + 1], 0);
    Bytes overlay = Bytes(24, 0);
    overlay[0] = 74;
    overlay[17] = 0x01;
    overlay[18] = 0x23;
    overlay[19] = 0x45;
    expect_adj_message(got[1], adj_message(0, overlay));
    EXPECT_EQ(got[1][6 + 1], 0);
}

// ---- OpenFlow connection -------------------------------------------------------------------

TEST_F(ArpOpenFlowTest, ConnectReachesLocalNodeWithSendTimeoutOnlyAndSetsVersion6) {
    openflow_connect_reaches_local_node<ArpTables>();
    const auto opts = calls_of(IPP_CALL_SETSOCKOPT);  // the send time-out only
    ASSERT_EQ(opts.size(), 1u);
    EXPECT_EQ(opts[0].level, 1);
    EXPECT_EQ(opts[0].option, 0x1005);
    EXPECT_EQ(option_seconds(opts[0]), 5);
}

TEST_F(ArpOpenFlowTest, ConnectWithNullVersionFailsWithoutOpening) {
    connect_without_version_opens_nothing<ArpTables>();
}

TEST_F(ArpOpenFlowTest, ConnectWithoutServiceFailsAndStillSetsVersion) {
    connect_without_service_sets_version<ArpTables>();
}

// ---- OpenFlow entries ----------------------------------------------------------------------

TEST_F(ArpOpenFlowTest, DeleteSendsType43AndReturnsServiceStatus) { delete_returns_service_status<ArpTables>(); }

TEST_F(ArpOpenFlowTest, RefreshWithFailedSendReturnsZero) {
    failed_send_returns_zero<ArpTables>(ARP_RefreshOpenFlowEntry);
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
    const auto sends = calls_of(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].result, -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    ARP_OpenFlowDisconnect(fd);
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
    expect_adj_message(got[0], adj_message(63, {}));
    expect_adj_message(got[1], adj_message(64, {}));
    const auto sends = calls_of(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].flags, kTableFlags);
    EXPECT_EQ(sends[1].flags, kTableFlags);
}

TEST_F(ArpOpenFlowTest, SmoothRejectsNegativeDescriptorAndReportsShortSend) {
    EXPECT_EQ(ARP_OpenFlowSmoothStart(-1), kFailed);
    EXPECT_EQ(ARP_OpenFlowSmoothEnd(-1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
    std::uint32_t status = 0;
    on_openflow_connection(
        [](Conn& c) { (void)drain(c); },
        [&](int fd) {
            ipp_fault_short_send(1, 3);
            status = ARP_OpenFlowSmoothStart(fd);
        });
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
    verify(ending_late(end_sent, {adj_message(42, {0, 0, 0, 0}), adj_message(7, {})}, &got), [] {},
           [&end_sent] { EXPECT_TRUE(end_sent.load()); });
    EXPECT_EQ(got, verify_message());  // the reserved byte is 0 here
    const auto sends = calls_of(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 0);
    const auto recvs = calls_of(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 3u);
    for (const auto& r : recvs) {
        EXPECT_EQ(r.length, 6u);
        EXPECT_EQ(r.flags, 0);
    }
}

TEST_F(ArpOpenFlowVerifyTest, EndMessageWithPayloadEndsTheWait) {
    verify(answering_with({adj_message(54, {1, 2, 3, 4, 5, 6, 7, 8})}));
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);
}

TEST_F(ArpOpenFlowVerifyTest, MessageShorterThanAHeaderDoesNotEndTheWait) {
    std::atomic<bool> end_sent{false};
    verify(ending_late(end_sent, {Bytes{54, 0, 0}}), [] {}, [&end_sent] { EXPECT_TRUE(end_sent.load()); });
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 2u);
}

TEST_F(ArpOpenFlowVerifyTest, FirstReadFindingConnectionClosedGivesUp) {
    verify(answering_with({}, nullptr, true));
    const auto recvs = calls_of(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].result, 0);
}

TEST_F(ArpOpenFlowVerifyTest, FirstReadErrorGivesUp) {
    verify([](Conn& c) { (void)drain(c); }, [] { ipp_fault_inject(IPP_CALL_RECV, 1, EAGAIN); });
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);
}

TEST_F(ArpOpenFlowVerifyTest, InterruptedReadsAreRepeated) {
    verify(answering_with({adj_message(54, {})}), [] { ipp_fault_inject(IPP_CALL_RECV, 3, EINTR); });
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 4u);
}

TEST_F(ArpOpenFlowVerifyTest, ReadsThatTimeOutLaterInTheWaitAreRepeated) {
    std::atomic<bool> end_sent{false};
    verify(
        [&](Conn& c) {
            (void)c.recv_message();
            c.send_message(adj_message(7, {}));
            // The first read has consumed type 7; the next reads time out twice.
            if (!wait_for([] { return ipp_call_count(IPP_CALL_RECV) >= 2; })) return;
            ipp_fault_inject(IPP_CALL_RECV, 2, EAGAIN);
            c.send_message(adj_message(8, {}));
            if (!wait_for([] { return ipp_call_count(IPP_CALL_RECV) >= 5; })) return;
            end_sent = true;
            c.send_message(adj_message(54, {}));
            (void)c.recv_message(1024, 2000);
        },
        [] {}, [&end_sent] { EXPECT_TRUE(end_sent.load()); });
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 5u);
}

TEST_F(ArpOpenFlowVerifyTest, ConnectionClosedAfterOtherMessagesEndsTheWait) {
    verify(answering_with({adj_message(42, {0, 0, 0, 1})}, nullptr, true));
    const auto recvs = calls_of(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 2u);
    EXPECT_EQ(recvs[0].result, 6);
    EXPECT_EQ(recvs[1].result, 0);
}

TEST_F(ArpOpenFlowVerifyTest, InterruptedSendIsRepeated) {
    Bytes got;
    verify(answering_with({adj_message(54, {})}, &got), [] { ipp_fault_inject(IPP_CALL_SEND, 2, EINTR); });
    EXPECT_EQ(got, verify_message());
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 3u);
}

TEST_F(ArpOpenFlowVerifyTest, FailedOrShortSendGivesUpWithoutReading) {
    on_openflow_connection(
        [](Conn& c) { (void)drain(c); },
        [&](int fd) {
            ipp_fault_inject(IPP_CALL_SEND, 1, EPIPE);
            ARP_OpenFlowVerify(fd);
            ipp_fault_short_send(1, 10);
            ARP_OpenFlowVerify(fd);
        });
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

TEST_F(ArpRuleTest, ConnectReachesMasterEndpointWithoutTimeouts) { rule_connect_reaches_master_endpoint<ArpTables>(); }

TEST_F(ArpRuleTest, RefreshSendsTheConvertedRule) {
    const ARP_RULE_S rule = sample_rule();
    sends_one_table_message<ArpTables>([&rule](int fd) { return ARP_RefreshRule(fd, &rule); },
                                       adj_message(30, rule_wire(rule)));
}

TEST_F(ArpRuleTest, RefreshRejectsInvalidInterfaceZeroAddressNullAndNegativeDescriptor) {
    add_interface(0x00054321, false);
    refused_before_sending<ArpTables>([](int fd) {
        ARP_RULE_S unknown = sample_rule();
        unknown.uiIfIndex = 0x00077777;
        ARP_RULE_S invalid = sample_rule();
        invalid.uiIfIndex = 0x00054321;
        ARP_RULE_S zero = sample_rule();
        zero.uiAddr = 0;
        const ARP_RULE_S good = sample_rule();
        return std::vector<std::uint32_t>{ARP_RefreshRule(fd, &unknown), ARP_RefreshRule(fd, &invalid),
                                          ARP_RefreshRule(fd, &zero), ARP_RefreshRule(fd, nullptr),
                                          ARP_RefreshRule(-1, &good)};
    });
}

TEST_F(ArpRuleTest, DeleteSendsAddressInterfaceAndClass) {
    sends_one_table_message<ArpTables>([](int fd) { return ARP_DeleteRule(fd, kRuleIf, ipv4(10, 1, 2, 3), 5); },
                                       adj_message(31, rule_delete_payload({10, 1, 2, 3}, kRuleIf, 29, 5, 52)));
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
    expect_adj_message(got[0], adj_message(32, {0x12, 0x34, 8, 0}));
    expect_adj_message(got[1], adj_message(33, {0xAB, 0xCD, 3, 0}));
}

TEST_F(ArpRuleTest, SmoothWithClassAbove8FailsAndSendsNothing) {
    refused_before_sending<ArpTables>([](int fd) {
        return std::vector<std::uint32_t>{ARP_RuleSmoothStart(fd, 9, 1), ARP_RuleSmoothEnd(fd, 200, 1)};
    });
    EXPECT_EQ(ARP_RuleSmoothStart(-1, 1, 1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(ArpRuleTest, SendToClosedPeerFails) {
    with_closed_rule_peer<ArpTables>([](int fd) {
        const ARP_RULE_S rule = sample_rule();
        EXPECT_EQ(ARP_RefreshRule(fd, &rule), kFailed);
        EXPECT_EQ(ARP_RuleSmoothEnd(fd, 1, 1), kFailed);
    });
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
    sends_one_table_message<ArpTables>([&entry](int fd) { return ARP_RefreshVsiSupEntry(fd, &entry); },
                                       adj_message(48, vsi_wire(entry)));
}

TEST_F(ArpVsiSuppressionTest, DeleteSendsFirstSecondAndClass) {
    std::uint32_t status = 1;
    const auto got = on_rule_connection(
        [&](int fd) { status = ARP_DeleteVsiSupEntry(fd, 0x00ABCDEF, ipv4(172, 16, 9, 10), 7); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload;
    put32(payload, 0x00ABCDEF);
    put32(payload, 0);
    payload.insert(payload.end(), {172, 16, 9, 10});
    payload.resize(28, 0);
    payload.insert(payload.end(), {7, 0, 0, 0});
    expect_adj_message(got[0], adj_message(49, payload));
}

TEST_F(ArpVsiSuppressionTest, SmoothStartAndEndCarryTheClass) {
    const auto got = on_rule_connection([](int fd) {
        EXPECT_EQ(ARP_VsiSupEntrySmoothStart(fd, 0x21), 0u);
        EXPECT_EQ(ARP_VsiSupEntrySmoothEnd(fd, 0x43), 0u);
    });
    ASSERT_EQ(got.size(), 2u);
    expect_adj_message(got[0], adj_message(50, {0x21, 0, 0, 0}));
    expect_adj_message(got[1], adj_message(51, {0x43, 0, 0, 0}));
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
    sends_one_table_message<ArpTables>([&entry](int fd) { return ARP_VlanSupRefreshEntry(fd, &entry); },
                                       adj_message(94, vlan_wire(entry)));
}

TEST_F(ArpVlanSuppressionTest, DeleteSendsFirstAndVlan) {
    std::uint32_t status = 1;
    const auto got =
        on_rule_connection([&](int fd) { status = ARP_VlanSupDeleteEntry(fd, ipv4(10, 20, 30, 40), 0x0FED); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    Bytes payload{10, 20, 30, 40, 0, 0, 0, 0};
    put16(payload, 0x0FED);
    payload.resize(16, 0);
    expect_adj_message(got[0], adj_message(95, payload));
}

TEST_F(ArpVlanSuppressionTest, SmoothStartAndEndAreEmpty) {
    const auto got = on_rule_connection([](int fd) {
        EXPECT_EQ(ARP_VlanSupEntrySmoothStart(fd), 0u);
        EXPECT_EQ(ARP_VlanSupEntrySmoothEnd(fd), 0u);
    });
    ASSERT_EQ(got.size(), 2u);
    expect_adj_message(got[0], adj_message(96, {}));
    expect_adj_message(got[1], adj_message(97, {}));
    for (const auto& s : calls_of(IPP_CALL_SEND)) EXPECT_EQ(s.flags, kTableFlags);
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
    expect_adj_message(got[0], adj_message(100, roaming_payload({0x0C, 0x00, 0x24, 0x08, 0x03, 0x18}, records)));
    EXPECT_EQ(calls_of(IPP_CALL_SEND).at(0).flags, kTableFlags);
}

// ---- Suppression switches ------------------------------------------------------------------

// One exchange with the daemon at (0x8000, port) that answers `reply`, and its socket.
std::vector<Bytes> with_switch_service(std::uint16_t port, const Bytes& reply, const std::function<void()>& op) {
    return with_exchange_service(0x8000, port, reply, op);
}
void expect_switch_exchange(std::uint16_t port) { expect_exchange(0x8000, port, MSG_DONTWAIT); }

TEST_F(ArpSuppressionSwitchTest, SetEviSendsCodeEnableAndInstanceAndReturnsReplyWord) {
    std::uint32_t status = 0;
    const auto got = with_switch_service(kDaemonPort, {0x40, 0x01, 0x00, 0x07},
                                         [&] { status = ARP_SetEviSuppression(1, 0x00C0FFEE); });
    EXPECT_EQ(status, 0x40010007u);
    ASSERT_EQ(got.size(), 1u);
    expect_adj_message(got[0], adj_message(0, switch_payload({61, 1}, 4, 0x00C0FFEE, 24)));
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
    expect_adj_message(got[0], adj_message(0, switch_payload({71}, 4, 0x00102030, 24)));
    expect_switch_exchange(kDaemonPort);
    EXPECT_EQ(ARP_GetEviSuppression(1, nullptr), kFailed);
}

TEST_F(ArpSuppressionSwitchTest, SetOverlaySendsInterfaceAtOffset16) {
    std::uint32_t status = 0;
    const auto got = with_switch_service(kDaemonPort, {0x00, 0x00, 0x01, 0x02},
                                         [&] { status = ARP_SetOverlaySuppression(0x0A0B0C0D, 1); });
    EXPECT_EQ(status, 0x0102u);
    ASSERT_EQ(got.size(), 1u);
    expect_adj_message(got[0], adj_message(0, switch_payload({74, 1}, 16, 0x0A0B0C0D, 24)));
    expect_switch_exchange(kDaemonPort);
}

TEST_F(ArpSuppressionSwitchTest, GetOverlayStoresReplyWord) {
    std::uint32_t status = 1, state = 0;
    const auto got = with_switch_service(kDaemonPort, {0xCA, 0xFE, 0x00, 0x01},
                                         [&] { status = ARP_GetOverlaySuppression(0x0A0B0C0D, &state); });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(state, 0xCAFE0001u);
    ASSERT_EQ(got.size(), 1u);
    expect_adj_message(got[0], adj_message(0, switch_payload({83}, 16, 0x0A0B0C0D, 24)));
}

TEST_F(ArpSuppressionSwitchTest, OverlayRejectsAllOnesInterfaceAndNullState) {
    std::uint32_t state = 0;
    const std::uint32_t statuses[] = {ARP_SetOverlaySuppression(0xFFFFFFFFu, 1),
                                      ARP_GetOverlaySuppression(0xFFFFFFFFu, &state),
                                      ARP_GetOverlaySuppression(1, nullptr)};
    for (const std::uint32_t status : statuses) EXPECT_EQ(status, kFailed);
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
    expect_adj_message(got[0], adj_message(0, payload));
    expect_switch_exchange(kAdjPort);
    const auto recvs = calls_of(IPP_CALL_RECV);
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
    closing_without_reply_fails(0x8000, kDaemonPort,
                                [](std::uint32_t* state) { return ARP_GetOverlaySuppression(7, state); });
}

TEST_F(ArpSuppressionSwitchTest, ShortSendFailsWithoutReading) {
    short_send_fails_without_reading(0x8000, kDaemonPort, [] { return ARP_SetEviSuppression(1, 1); });
}

// ---- The refresh protocol end to end -------------------------------------------------------

TEST_F(ArpTableProtocolTest, OpenFlowOwnerResynchronisesAndVerifies) {
    std::vector<Bytes> got;
    std::atomic<bool> end_sent{false};
    Bytes first = openflow_buffer(2);
    Bytes second = openflow_buffer(1, 0x11);
    Bytes removed = openflow_buffer(1, 0x22);
    std::vector<std::uint32_t> statuses;
    on_openflow_connection(
        [&](Conn& c) {
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
            c.send_message(adj_message(54, {}));
            const Bytes rest = c.recv_message(1024, 2000);  // empty once the owner disconnects
            if (!rest.empty()) got.push_back(rest);
        },
        [&](int fd) {
            statuses = {ARP_OpenFlowSmoothStart(fd)};
            statuses.push_back(ARP_RefreshOpenFlowEntry(fd, first.data(), 2));
            statuses.push_back(ARP_RefreshOpenFlowEntry(fd, second.data(), 1));
            statuses.push_back(ARP_OpenFlowSmoothEnd(fd));
            statuses.push_back(ARP_DeleteOpenFlowEntry(fd, removed.data(), 1));
            ARP_OpenFlowVerify(fd);
            EXPECT_TRUE(end_sent.load());
        });
    EXPECT_EQ(statuses, (std::vector<std::uint32_t>{0, 0, 0, 0, 0x105}));
    ASSERT_EQ(got.size(), 6u);
    expect_adj_message(got[0], adj_message(63, {}));
    EXPECT_EQ(got[1], openflow_wire(42, 2));
    EXPECT_EQ(got[2], openflow_wire(42, 1, 0x11));
    expect_adj_message(got[3], adj_message(64, {}));
    EXPECT_EQ(got[4], openflow_wire(43, 1, 0x22));
    EXPECT_EQ(got[5], verify_message());
}

TEST_F(ArpTableProtocolTest, RuleOwnerResynchronisesThenRefreshesAndDeletes) {
    add_interface(0x00020000, true);
    const ARP_RULE_S one = sample_rule();
    ARP_RULE_S two = sample_rule();
    two.uiAddr = ipv4(10, 1, 2, 4);
    two.uiIfIndex = 0x00020000;
    two.ucClass = 3;
    two.ucKind = 0;
    ARP_RULE_S changed = two;
    changed.uiField32 = 0x0BADF00D;
    std::vector<std::uint32_t> statuses;
    const auto got = on_rule_connection([&](int fd) {
        statuses = {ARP_RuleSmoothStart(fd, 3, 0x0456)};
        statuses.push_back(ARP_RefreshRule(fd, &one));
        statuses.push_back(ARP_RefreshRule(fd, &two));
        statuses.push_back(ARP_RuleSmoothEnd(fd, 3, 0x0456));
        statuses.push_back(ARP_RefreshRule(fd, &changed));
        statuses.push_back(ARP_DeleteRule(fd, kRuleIf, one.uiAddr, one.ucClass));
    });
    EXPECT_EQ(statuses, std::vector<std::uint32_t>(6, 0u));
    ASSERT_EQ(got.size(), 6u);
    expect_adj_message(got[0], adj_message(32, {0x04, 0x56, 3, 0}));
    expect_adj_message(got[1], adj_message(30, rule_wire(one)));
    expect_adj_message(got[2], adj_message(30, rule_wire(two)));
    expect_adj_message(got[3], adj_message(33, {0x04, 0x56, 3, 0}));
    expect_adj_message(got[4], adj_message(30, rule_wire(changed)));
    expect_adj_message(got[5], adj_message(31, rule_delete_payload({10, 1, 2, 3}, kRuleIf, 29, 8, 52)));
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
    expect_adj_message(got[1], adj_message(48, vsi_wire(vsi)));
    expect_adj_message(got[5], adj_message(94, vlan_wire(vlan)));
}

}  // namespace
}  // namespace ipt
