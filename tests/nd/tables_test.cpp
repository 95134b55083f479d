// The IPv6 adjacency service's owner tables, what only ND has or names its own way:
// OpenFlow connections and smooth markers, ND rules, VSI suppression entries, roaming
// detection's headers and the overlay suppression switch (adj/neigh_tables_test.cpp has the
// cases both families share). Records are laid out with bytes that all differ and expected
// on the wire with their big-endian words reversed, so a missing or extra byte swap shows.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "ipclient/nd.h"
#include "ipplat/platform.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"
#include "support/neigh_channel.hpp"
#include "support/neigh_table_scenarios.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

using namespace neigh;

constexpr std::uint16_t kNdPort = NdTables::kPort;
constexpr std::uint16_t kOverlayPort = 1667;
constexpr std::uint32_t kOtherIf = 0x00020406;

NdIPv6Addr addr6(std::uint8_t last) {
    NdIPv6Addr a{};
    const std::uint8_t bytes[16] = {0x20, 0x01, 0x0D, 0xB8, 0x10, 0x32, 0x54, 0x76,
                                    0x98, 0xBA, 0xDC, 0xFE, 0x01, 0x23, 0x45, last};
    std::memcpy(a.aucAddr, bytes, 16);
    return a;
}

void add_interface(std::uint32_t ifindex, bool valid) {
    auto itf = interface_entry(ifindex, kLocalNode);
    itf.valid = valid ? 1 : 0;
    add_to_directory(itf);
}

Bytes smooth_marker(std::uint8_t mark) {
    Bytes payload(56, 0);
    payload[0] = mark;
    return adj_message(11, payload);
}

// The big-endian words of a rule and of a VSI suppression entry; the addresses, the
// link-layer address, kind, class and reserved bytes travel as given.
constexpr Field kRuleFields[] = {{16, 4}, {20, 4}, {24, 4}, {28, 2}, {30, 2}, {32, 2},
                                 {44, 4}, {48, 4}, {52, 4}, {56, 4}, {60, 2}};
constexpr Field kVsiFields[] = {{0, 4}, {4, 4}, {32, 4}, {36, 4}};

NdRuleInfo sample_rule() {
    auto r = patterned_rule<NdRuleInfo>();
    std::memcpy(r.aucAddr, addr6(0x99).aucAddr, 16);
    return r;
}
Bytes rule_wire(const NdRuleInfo& r) { return swapped(bytes_of(r), kRuleFields); }

NdVsiSupInfo sample_vsi() {
    auto e = from_bytes<NdVsiSupInfo>(patterned(sizeof(NdVsiSupInfo), 1));
    std::memcpy(e.aucAddr, addr6(0x77).aucAddr, 16);
    e.ucClass = 5;
    return e;
}
Bytes vsi_wire(const NdVsiSupInfo& e) { return swapped(bytes_of(e), kVsiFields); }

using NdTablesFixture = NeighTablesTest<NdTables>;
// The suites: OpenFlow entries and their smooth markers, rules, VSI and overlay
// suppression, roaming detection, and each owner's protocol end to end.
class NdOpenFlowTest : public NdTablesFixture {};
class NdOpenFlowSmoothTest : public NdTablesFixture {};
class NdRuleTest : public NdTablesFixture {};
class NdSuppressionOverlayTest : public NdTablesFixture {
protected:
    // One exchange with the overlay service at the master endpoint that answers `reply`,
    // and its socket: a blocking send of 186 bytes and a read of the 4-byte reply.
    static std::vector<Bytes> with_overlay_service(const Bytes& reply, const std::function<void()>& op) {
        return with_exchange_service(kMasterEp, kOverlayPort, reply, op);
    }
    static void expect_overlay_exchange() {
        expect_exchange(kMasterEp, kOverlayPort, 0);
        EXPECT_EQ(calls_of(IPP_CALL_SEND).at(0).length, 186u);
        const auto recvs = calls_of(IPP_CALL_RECV);
        ASSERT_EQ(recvs.size(), 1u);
        EXPECT_EQ(recvs[0].length, 4u);
    }
};
class NdSuppressionVsiTest : public NdTablesFixture {};
class NdRoamingTest : public NdTablesFixture {};
class NdOpenFlowProtocolTest : public NdTablesFixture {};
class NdRuleProtocolTest : public NdTablesFixture {};
class NdSuppressionProtocolTest : public NdTablesFixture {};

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
    expect_adj_message(got[0], adj_message(17, {0x01, 0x02, 8, 0}));
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
}

TEST_F(NdRuleTest, RefreshRuleWithAllZeroAddressFailsOnValidInterface) {
    ASSERT_EQ(IF_IsValidIfIndex(kRuleIf), 1u);
    refused_before_sending<NdTables>([](int fd) {
        NdRuleInfo rule = sample_rule();
        std::memset(rule.aucAddr, 0, sizeof rule.aucAddr);
        return std::vector<std::uint32_t>{ND_RefreshRule(fd, &rule)};
    });
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
    const Bytes payload = roaming_payload({0x0C, 0x00, 0x48, 0x14, 0x03, 0x3C}, records);
    ASSERT_EQ(payload.size(), 72u);
    expect_adj_message(got[0], adj_message(80, payload));
    const auto sends = calls_of(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, kTableFlags);
    EXPECT_EQ(sends[0].length, 78u);
}

TEST_F(NdOpenFlowTest, ConnectSetsVersion6EvenWhenNoConnectionOpens) {
    connect_without_service_sets_version<NdTables>();
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
    Bytes payload = Bytes(180, 0);
    payload[0] = 26;
    payload[9] = 0xC0;
    payload[10] = 0xFF;
    payload[11] = 0xEE;
    expect_adj_message(got, adj_message(0, payload));
    ASSERT_GT(got.size(), 7u);
    EXPECT_EQ(got[6 + 1], 0);
}

// ---- OpenFlow connection -------------------------------------------------------------------

TEST_F(NdOpenFlowTest, ConnectReachesLocalNodeWithoutTimeoutsAndSetsVersion6) {
    openflow_connect_reaches_local_node<NdTables>();
    EXPECT_EQ(ipp_call_count(IPP_CALL_SETSOCKOPT), 0u);
}

TEST_F(NdOpenFlowTest, ConnectWithNullVersionReturnsAllOnesWithoutOpening) {
    connect_without_version_opens_nothing<NdTables>();
}

// ---- OpenFlow entries ----------------------------------------------------------------------

TEST_F(NdOpenFlowTest, DeleteSendsType28AndReturnsServiceStatus) { delete_returns_service_status<NdTables>(); }

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

TEST_F(NdOpenFlowTest, DeleteWithFailedSendReturnsZero) { failed_send_returns_zero<NdTables>(ND_DeleteOpenFlowEntry); }

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
    expect_adj_message(got[0], smooth_marker(2));
    expect_adj_message(got[1], smooth_marker(3));
    const auto sends = calls_of(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 2u);
    for (const auto& s : sends) {
        EXPECT_EQ(s.flags, kTableFlags);
        EXPECT_EQ(s.length, 62u);
    }
    const auto recvs = calls_of(IPP_CALL_RECV);
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
    rule_connect_reaches_master_endpoint<NdTables>();
}

TEST_F(NdRuleTest, RefreshSendsConvertedRuleWithTableFlags) {
    const NdRuleInfo rule = sample_rule();
    sends_one_table_message<NdTables>([&rule](int fd) { return ND_RefreshRule(fd, &rule); },
                                      adj_message(15, rule_wire(rule)));
}

TEST_F(NdRuleTest, RefreshRejectsInvalidRulesBeforeSending) {
    add_interface(kOtherIf, false);
    refused_before_sending<NdTables>([](int fd) {
        // Class 9, kind 7, an invalid and an unknown interface; then no rule, and no descriptor.
        std::vector<NdRuleInfo> bad(4, sample_rule());
        bad[0].ucClass = 9;
        bad[1].ucKind = 7;
        bad[2].uiIfIndex = kOtherIf;
        bad[3].uiIfIndex = 0x0DEAD;
        std::vector<std::uint32_t> results;
        for (const NdRuleInfo& rule : bad) results.push_back(ND_RefreshRule(fd, &rule));
        results.push_back(ND_RefreshRule(fd, nullptr));
        const NdRuleInfo good = sample_rule();
    results.push_back(ND_RefreshRule(-1, &good));
        return results;
    });
}

TEST_F(NdRuleTest, RuleWithOnlyLastAddressByteSetIsValid) {
    NdRuleInfo rule = sample_rule();
    std::memset(rule.aucAddr, 0, sizeof rule.aucAddr);
    rule.aucAddr[15] = 1;  // ::1
    sends_one_table_message<NdTables>([&rule](int fd) { return ND_RefreshRule(fd, &rule); },
                                      adj_message(15, rule_wire(rule)));
}

TEST_F(NdRuleTest, DeleteSendsAddressInterfaceAndClassOnly) {
    const NdIPv6Addr addr = addr6(0x5A);
    const Bytes key(addr.aucAddr, addr.aucAddr + 16);
    sends_one_table_message<NdTables>([&addr](int fd) { return ND_DeleteRule(fd, 0x0A0B0C0D, addr, 0x07); },
                                      adj_message(16, rule_delete_payload(key, 0x0A0B0C0D, 41, 0x07, 64)));
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
    expect_adj_message(got[0], adj_message(18, {0xBE, 0xEF, 3, 0}));
    EXPECT_EQ(calls_of(IPP_CALL_SEND).at(0).flags, kTableFlags);
}

TEST_F(NdRuleTest, NegativeDescriptorFailsBeforeSending) {
    EXPECT_EQ(ND_DeleteRule(-1, kRuleIf, addr6(1), 1), kFailed);
    EXPECT_EQ(ND_RuleSmoothStart(-1, 1, 1), kFailed);
    EXPECT_EQ(ND_RuleSmoothEnd(-1, 1, 1), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(NdRuleTest, SendToClosedPeerReturnsChannelFailure) {
    with_closed_rule_peer<NdTables>([](int fd) { EXPECT_EQ(ND_RuleSmoothStart(fd, 1, 2), kFailed); });
}

// ---- VSI suppression -----------------------------------------------------------------------

TEST_F(NdSuppressionVsiTest, RefreshSendsConvertedEntry) {
    const NdVsiSupInfo entry = sample_vsi();
    sends_one_table_message<NdTables>([&entry](int fd) { return ND_RefreshVsiSupEntry(fd, &entry); },
                                      adj_message(60, vsi_wire(entry)));
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
    expect_adj_message(got[0], adj_message(61, payload));
    EXPECT_EQ(calls_of(IPP_CALL_SEND).at(0).flags, kTableFlags);
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
    expect_adj_message(got[0], adj_message(62, {0xC4, 0, 0, 0}));
    expect_adj_message(got[1], adj_message(63, {0xC4, 0, 0, 0}));
    for (const auto& s : calls_of(IPP_CALL_SEND)) EXPECT_EQ(s.flags, kTableFlags);
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

TEST_F(NdSuppressionOverlayTest, SetSendsCodeOnFlagAndVsiIndexAndReturnsReplyWord) {
    std::uint32_t status = 0;
    const auto got =
        with_overlay_service({0x40, 0x01, 0x00, 0x07}, [&] { status = ND_SetOverlaySuppression(0x0A0B0C0D, 1); });
    EXPECT_EQ(status, 0x40010007u);
    ASSERT_EQ(got.size(), 1u);
    expect_adj_message(got[0], adj_message(0, switch_payload({26, 1}, 8, 0x0A0B0C0D, 180)));
    expect_overlay_exchange();
}

TEST_F(NdSuppressionOverlayTest, GetStoresReplyWordInHostOrderAndReturnsZero) {
    std::uint32_t status = 1, state = 0;
    const auto got =
        with_overlay_service({0xCA, 0xFE, 0x00, 0x01}, [&] { status = ND_GetOverlaySuppression(0x00102030, &state); });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(state, 0xCAFE0001u);
    ASSERT_EQ(got.size(), 1u);
    expect_adj_message(got[0], adj_message(0, switch_payload({100}, 8, 0x00102030, 180)));
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
    const std::uint32_t statuses[] = {ND_SetOverlaySuppression(1, 1), ND_GetOverlaySuppression(1, &state)};
    for (const std::uint32_t status : statuses) EXPECT_EQ(status, kFailed);
    EXPECT_EQ(state, 55u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 2u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 2u);
}

TEST_F(NdSuppressionOverlayTest, ShortReplyFailsAndLeavesState) {
    // Replies of two and three bytes: neither holds the reply word.
    std::uint32_t state = 55;
    std::uint32_t statuses[2] = {};
    (void)with_overlay_service({0x00, 0x01}, [&] { statuses[0] = ND_GetOverlaySuppression(1, &state); });
    (void)with_overlay_service({0x00, 0x01, 0x02}, [&] { statuses[1] = ND_SetOverlaySuppression(1, 1); });
    EXPECT_EQ(statuses[0], kFailed);
    EXPECT_EQ(statuses[1], kFailed);
    EXPECT_EQ(state, 55u);
}

TEST_F(NdSuppressionOverlayTest, ServiceClosingWithoutReplyFails) {
    closing_without_reply_fails(kMasterEp, kOverlayPort,
                                [](std::uint32_t* state) { return ND_GetOverlaySuppression(7, state); });
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(NdSuppressionOverlayTest, ShortSendFailsWithoutReading) {
    short_send_fails_without_reading(kMasterEp, kOverlayPort, [] { return ND_SetOverlaySuppression(1, 1); });
}

// ---- Roaming detection ---------------------------------------------------------------------

TEST_F(NdRoamingTest, SendToClosedPeerReturnsChannelFailure) {
    const Bytes records = roaming_records(20);
    with_closed_rule_peer<NdTables>(
        [&records](int fd) { EXPECT_EQ(ND_RoamingDetection(fd, records.data(), 20, 1), kFailed); });
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
    expect_adj_message(got[0], smooth_marker(2));
    EXPECT_EQ(got[1], openflow_wire(27, 2));
    EXPECT_EQ(got[2], openflow_wire(27, 1, 0x11));
    expect_adj_message(got[3], smooth_marker(3));
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
    const Bytes one_key(one.aucAddr, one.aucAddr + 16);
    const Bytes want[] = {adj_message(17, {0x04, 0x56, 3, 0}),
                          adj_message(15, rule_wire(one)),
                          adj_message(15, rule_wire(two)),
                          adj_message(18, {0x04, 0x56, 3, 0}),
                          adj_message(15, rule_wire(changed)),
                          adj_message(16, rule_delete_payload(one_key, kRuleIf, 41, 8, 64))};
    ASSERT_EQ(got.size(), std::size(want));
    for (std::size_t i = 0; i < got.size(); ++i) expect_adj_message(got[i], want[i]);
    for (const auto& s : calls_of(IPP_CALL_SEND)) EXPECT_EQ(s.flags, kTableFlags);
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
    expect_adj_message(got[0], adj_message(62, {5, 0, 0, 0}));
    expect_adj_message(got[1], adj_message(60, vsi_wire(vsi)));
    expect_adj_message(got[2], adj_message(63, {5, 0, 0, 0}));
    expect_adj_message(got[3], adj_message(60, vsi_wire(changed)));
    Bytes del;
    put32(del, vsi.uiVsiIndex);
    put32(del, 0);
    putraw(del, vsi.aucAddr, 16);
    del.resize(40, 0);
    del.push_back(5);
    del.resize(44, 0);
    expect_adj_message(got[4], adj_message(61, del));
    expect_adj_message(got[5], adj_message(80, roaming_payload({12, 0, 52, 20, 2, 40}, records)));
}

}  // namespace
}  // namespace ipt
