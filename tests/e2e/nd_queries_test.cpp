// The ND module of the simulated device through the library's public ND API: entry lookups
// and walks, batches, neighbour summaries, the network-to-physical table view, per-node
// counters, global parameters, interface configuration and display, packet sending and
// resolution, and the overlay suppression service.
#include <arpa/inet.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/nd.h"
#include "ipproto/wire.hpp"
#include "support/statuses.hpp"

namespace e2e {
namespace {

using nlohmann::json;

constexpr std::uint32_t kVlan10 = 6;  // Vlan-interface10, node 1

NdIPv6Addr v6(const char* text) {
    NdIPv6Addr a{};
    EXPECT_EQ(::inet_pton(AF_INET6, text, a.aucAddr), 1) << text;
    return a;
}

std::string v6text(const std::uint8_t* addr) {
    char buf[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET6, addr, buf, sizeof buf);
    return buf;
}

std::string mac(const std::uint8_t* m) {
    char buf[18];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return buf;
}

std::uint32_t exact(std::uint32_t ifindex, const char* addr, NdEntryInfo* out, std::uint8_t selector = 0) {
    const NdIPv6Addr a = v6(addr);
    return ND_GetEntryInfo(ND_ENTRY_CMD_EXACT, selector, ifindex, a.aucAddr, out);
}

// Polls the condition for up to five seconds.
template <class F>
bool eventually(F&& done) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

json ok_control(const json& request) {
    const json answer = control(request);
    EXPECT_EQ(answer.value("ok", false), true) << answer.dump();
    return answer;
}

using NdQueries = SimTest;
using NdSending = SimTest;

// ---- Entry lookups -------------------------------------------------------------------------

TEST_F(NdQueries, ExactEntryCarriesTheScenarioNeighbour) {
    NdEntryInfo e{};
    ASSERT_EQ(exact(kGe1, "fe80::2", &e), 0u);
    EXPECT_EQ(v6text(e.aucAddr), "fe80::2");
    EXPECT_EQ(e.uiIfIndex, kGe1);
    EXPECT_EQ(e.uiIfIndex2, 0u);
    EXPECT_EQ(e.uiWord24, 0u) << "the public VRF";
    EXPECT_EQ(e.usHalf28, 0u) << "no VLAN";
    EXPECT_EQ(e.usHalf30, 1u) << "answered by node 1, which owns the port";
    EXPECT_EQ(mac(e.aucLinkAddr), "00:11:22:33:44:55");
    EXPECT_EQ(e.ucState, ND_STATE_STALE);
    EXPECT_EQ(e.ucByte39, 1u) << "a link-local neighbour";
    EXPECT_EQ(e.ucKind, 1u) << "learnt";
    EXPECT_EQ(e.uiUpdateTime, 0u) << "loaded when the device started";
    EXPECT_EQ(e.uiRefreshTime, 1200u) << "last update plus the aging time";

    NdEntryInfo g{};
    ASSERT_EQ(exact(kGe1, "2001:db8:1::2", &g), 0u);
    EXPECT_EQ(g.ucState, ND_STATE_REACHABLE);
    EXPECT_EQ(g.ucByte39, 0u) << "a global address";
    EXPECT_EQ(mac(g.aucLinkAddr), "00:11:22:33:44:66");

    NdEntryInfo s{};
    ASSERT_EQ(exact(kVlan1, "2001:db8:5::3", &s), 0u);
    EXPECT_EQ(s.ucKind, 2u) << "static";
    EXPECT_EQ(s.uiRefreshTime, 0u) << "a static entry never ages";
    EXPECT_EQ(exact(kVlan1, "2001:db8:5::3", &s, 2), kFailed) << "selector 2 finds dynamic entries only";
    EXPECT_EQ(exact(kVlan1, "2001:db8:5::2", &s, 2), 0u);
    EXPECT_EQ(exact(kVlan1, "2001:db8:5::2", &s, 3), kFailed) << "selectors end at 2";

    EXPECT_EQ(exact(kGe1, "fe80::99", &e), kFailed);
    EXPECT_EQ(exact(kGeVpn, "fe80::2", &e), kFailed) << "the neighbour is on another interface";
    const NdIPv6Addr a = v6("fe80::2");
    EXPECT_EQ(ND_GetEntryInfo(0x110006u, 0, kGe1, a.aucAddr, &e), kFailed);
}

TEST_F(NdQueries, EntryOfAPortOnBoardTwoIsAnsweredByNodeTwo) {
    NdEntryInfo e{};
    ASSERT_EQ(exact(kGeNode2, "fe80::4", &e), 0u);
    EXPECT_EQ(e.uiIfIndex, kGeNode2);
    EXPECT_EQ(e.usHalf30, 2u) << "the master's answer is replaced by that of the port's node";
    EXPECT_EQ(mac(e.aucLinkAddr), "00:11:22:33:44:88");
    EXPECT_EQ(e.ucState, ND_STATE_REACHABLE);
}

TEST_F(NdQueries, NextEntryWalksTheWholeTableInOrder) {
    const std::vector<std::pair<std::uint32_t, std::string>> expected{
        {kGe1, "2001:db8:1::2"}, {kGe1, "fe80::2"},         {kGeNode2, "fe80::4"},
        {kVlan1, "2001:db8:5::2"}, {kVlan1, "2001:db8:5::3"}, {kVlan10, "2001:db8:10::2"}};
    NdEntryInfo e{};
    std::vector<std::pair<std::uint32_t, std::string>> walked;
    while (ND_GetNextEntryInfo(0, &e) == 0) {
        walked.emplace_back(e.uiIfIndex, v6text(e.aucAddr));
        ASSERT_LE(walked.size(), 100u);
    }
    EXPECT_EQ(walked, expected);
}

TEST_F(NdQueries, NextEntryOfSelectorsOneAndTwoStaysOnTheInterface) {
    NdEntryInfo e{};
    e.uiIfIndex = kGe1;
    ASSERT_EQ(ND_GetNextEntryInfo(1, &e), 0u);
    EXPECT_EQ(v6text(e.aucAddr), "2001:db8:1::2");
    ASSERT_EQ(ND_GetNextEntryInfo(1, &e), 0u);
    EXPECT_EQ(v6text(e.aucAddr), "fe80::2");
    NdEntryInfo last = e;
    EXPECT_EQ(ND_GetNextEntryInfo(1, &last), kFailed) << "the port has no more entries";
    ASSERT_EQ(ND_GetNextEntryInfo(0, &e), 0u);
    EXPECT_EQ(e.uiIfIndex, kGeNode2) << "selector 0 moves on to the next interface";

    NdEntryInfo d{};
    d.uiIfIndex = kVlan1;
    ASSERT_EQ(ND_GetNextEntryInfo(2, &d), 0u);
    EXPECT_EQ(v6text(d.aucAddr), "2001:db8:5::2");
    EXPECT_EQ(ND_GetNextEntryInfo(2, &d), kFailed) << "the static entry after it is passed over";
}

TEST_F(NdQueries, BatchGivesWholeRecordsAfterTheKey) {
    constexpr std::size_t kRecord = 48;
    std::array<std::uint8_t, 100> small{};
    std::uint32_t len = 0;
    const NdIPv6Addr zero{};
    ASSERT_EQ(ND_GetNextInfoBatch(zero.aucAddr, 0, static_cast<std::uint32_t>(small.size()), small.data(), &len), 0u);
    ASSERT_EQ(len, 2 * kRecord) << "only whole records";
    const std::uint8_t* r = small.data();
    EXPECT_EQ(v6text(r), "2001:db8:1::2");
    EXPECT_EQ(ipc::wire::load_be<std::uint32_t>(r + 16), kGe1);
    EXPECT_EQ(ipc::wire::load_be<std::uint32_t>(r + 20), 0u);
    EXPECT_EQ(mac(r + 24), "00:11:22:33:44:66");
    EXPECT_EQ(r[30], ND_STATE_REACHABLE);
    EXPECT_EQ(r[31], 1u);
    EXPECT_EQ(ipc::wire::load_be<std::uint32_t>(r + 36), 1200u);
    EXPECT_EQ(ipc::wire::load_be<std::uint16_t>(r + 40), 0u);
    EXPECT_EQ(ipc::wire::load_be<std::uint32_t>(r + 44), 0xFFFFFFFFu) << "no VSI";
    r += kRecord;
    EXPECT_EQ(v6text(r), "fe80::2");
    EXPECT_EQ(r[30], ND_STATE_STALE);

    // On from the last record's key.
    std::array<std::uint8_t, 20 * kRecord> big{};
    ASSERT_EQ(ND_GetNextInfoBatch(r, ipc::wire::load_be<std::uint32_t>(r + 16), static_cast<std::uint32_t>(big.size()),
                                  big.data(), &len), 0u);
    ASSERT_EQ(len, 4 * kRecord);
    EXPECT_EQ(v6text(big.data()), "fe80::4");
    EXPECT_EQ(ipc::wire::load_be<std::uint32_t>(big.data() + 16), kGeNode2);
    const std::uint8_t* st = big.data() + 2 * kRecord;
    EXPECT_EQ(v6text(st), "2001:db8:5::3");
    EXPECT_EQ(st[31], 2u) << "static";
    EXPECT_EQ(ipc::wire::load_be<std::uint32_t>(st + 36), 0u);
    const std::uint8_t* end = big.data() + 3 * kRecord;
    EXPECT_EQ(v6text(end), "2001:db8:10::2");
    ASSERT_EQ(ND_GetNextInfoBatch(end, kVlan10, static_cast<std::uint32_t>(big.size()), big.data(), &len), 0u);
    EXPECT_EQ(len, 0u) << "the end of the table";
}

TEST_F(NdQueries, SummaryOfAnAddressByInterfaceAndByAddress) {
    NdInfo i{};
    ASSERT_EQ(ND_GetInfo(kGe1, v6("fe80::2"), &i), 0u);
    EXPECT_EQ(i.uiWord0, kGe1);
    EXPECT_EQ(i.usHalf4, 0u);
    EXPECT_EQ(i.usHalf6, 0u);
    EXPECT_EQ(mac(i.aucData8), "00:11:22:33:44:55");
    EXPECT_EQ(i.aucData8[6], ND_STATE_STALE);
    EXPECT_EQ(i.aucData8[7], 1u);
    EXPECT_LT(i.uiWord16, 60u) << "age in seconds";
    EXPECT_EQ(i.uiWord16 + i.uiWord20, 1200u) << "age plus what is left is the aging time";
    EXPECT_EQ(i.uiWord24, 0u);
    EXPECT_EQ(i.usHalf28, 1u);

    NdInfo b{};
    const NdIPv6Addr s = v6("2001:db8:5::3");
    ASSERT_EQ(ND_GetInfoByIP(s.aucAddr, &b), 0u);
    EXPECT_EQ(b.uiWord0, kVlan1);
    EXPECT_EQ(b.aucData8[7], 2u);
    EXPECT_EQ(b.uiWord20, 0u) << "a static entry never ages";

    NdInfo n2{};
    ASSERT_EQ(ND_GetInfo(kGeNode2, v6("fe80::4"), &n2), 0u);
    EXPECT_EQ(n2.uiWord0, kGeNode2);
    EXPECT_EQ(n2.usHalf28, 2u) << "asked at the port's node";

    EXPECT_EQ(ND_GetInfo(kGe1, v6("fe80::99"), &i), kFailed);
    const NdIPv6Addr none = v6("2001:db8::99");
    EXPECT_EQ(ND_GetInfoByIP(none.aucAddr, &b), kFailed);
}

TEST_F(NdQueries, RefreshTimeOfADynamicEntryAndNoneForAStaticOne) {
    std::uint32_t t = 7;
    EXPECT_EQ(ND_GetRefreshTime(kGe1, v6("fe80::2"), &t), 0u);
    EXPECT_EQ(t, 1200u);
    t = 7;
    EXPECT_EQ(ND_GetRefreshTime(kVlan1, v6("2001:db8:5::3"), &t), kFailed);
    EXPECT_EQ(t, 0u);
    t = 7;
    EXPECT_EQ(ND_GetRefreshTime(kGe1, v6("fe80::99"), &t), kFailed);
    EXPECT_EQ(t, 0u);
}

// ---- The network-to-physical table --------------------------------------------------------

TEST_F(NdQueries, NetToPhysicalRowsOfTheLayerThreeInterfaces) {
    NdNetToPhysicalRow row{};
    const NdIPv6Addr dyn = v6("2001:db8:5::2");
    ASSERT_EQ(ND_GetNetToPhysicalTable(kVlan1, dyn.aucAddr, &row), 0u);
    EXPECT_EQ(row.uiIfIndex, kVlan1);
    EXPECT_EQ(v6text(row.aucAddr), "2001:db8:5::2");
    EXPECT_EQ(mac(row.aucLinkAddr), "00:11:22:33:55:02");
    EXPECT_EQ(row.ucByte, 0u);
    EXPECT_EQ(row.uiType, 3u) << "dynamic";
    EXPECT_EQ(row.uiState, 1u) << "reachable";
    EXPECT_EQ(row.uiLastUpdated, 0u);

    const NdIPv6Addr st = v6("2001:db8:5::3");
    ASSERT_EQ(ND_GetNetToPhysicalTable(kVlan1, st.aucAddr, &row), 0u);
    EXPECT_EQ(row.uiType, 0u) << "a static entry's even kind maps to 0";
    const NdIPv6Addr stale = v6("2001:db8:10::2");
    ASSERT_EQ(ND_GetNetToPhysicalTable(kVlan10, stale.aucAddr, &row), 0u);
    EXPECT_EQ(row.uiState, 2u);

    const NdIPv6Addr port = v6("fe80::2");
    EXPECT_EQ(ND_GetNetToPhysicalTable(kGe1, port.aucAddr, &row), kFailed)
        << "an Ethernet port is not one of ND's layer-3 interfaces";

    NdNetToPhysicalRow walk{};
    ASSERT_EQ(ND_GetFirstNetToPhysicalTable(1, &walk), 0u);
    EXPECT_EQ(walk.uiIfIndex, kVlan1);
    EXPECT_EQ(v6text(walk.aucAddr), "2001:db8:5::2");
    ASSERT_EQ(ND_GetNextNetToPhysicalTable(1, &walk), 0u);
    EXPECT_EQ(v6text(walk.aucAddr), "2001:db8:5::3");
    EXPECT_EQ(ND_GetNextNetToPhysicalTable(1, &walk), kFailed) << "the next does not leave the interface";
    EXPECT_EQ(ND_GetFirstNetToPhysicalTable(3, &walk), kFailed);
}

TEST_F(NdQueries, NetToPhysicalStatesAndTypesOfEveryKind) {
    const std::vector<std::pair<const char*, std::uint32_t>> states{
        {"incomplete", 7}, {"reachable", 1}, {"stale", 2}, {"delay", 3}, {"probe", 4}};
    for (const auto& [state, row_state] : states) {
        ok_control({{"op", "nd.entry"}, {"ifindex", kVlan10}, {"address", "2001:db8:10::7"},
                    {"mac", "00:aa:bb:cc:dd:07"}, {"state", state}});
        NdNetToPhysicalRow row{};
        const NdIPv6Addr a = v6("2001:db8:10::7");
        ASSERT_EQ(ND_GetNetToPhysicalTable(kVlan10, a.aucAddr, &row), 0u) << state;
        EXPECT_EQ(row.uiState, row_state) << state;
    }
    const std::vector<std::pair<const char*, std::uint32_t>> kinds{
        {"dynamic", 3}, {"static", 0}, {"openflow", 0}, {"rule", 0}};
    for (const auto& [kind, type] : kinds) {
        ok_control({{"op", "nd.entry"}, {"ifindex", kVlan10}, {"address", "2001:db8:10::7"}, {"kind", kind}});
        NdNetToPhysicalRow row{};
        const NdIPv6Addr a = v6("2001:db8:10::7");
        ASSERT_EQ(ND_GetNetToPhysicalTable(kVlan10, a.aucAddr, &row), 0u) << kind;
        EXPECT_EQ(row.uiType, type) << kind;
    }
}

// ---- Counters and global parameters ----------------------------------------------------

TEST_F(NdQueries, AttackAndAlarmCountersAreSummedOverTheNodes) {
    ok_control({{"op", "nd.counters"}, {"node", 1}, {"selector", 3}, {"alarm", 5},
                {"attack", {1, 2, 3, 0x100000000ull}}});
    ok_control({{"op", "nd.counters"}, {"node", 2}, {"selector", 3}, {"alarm", 0x107},
                {"attack", {10, 20, 30, 40}}});
    ok_control({{"op", "nd.counters"}, {"node", 1}, {"selector", 4}, {"alarm", 1000}});

    std::uint64_t alarm = 7, attack[ND_ATTACK_COUNTERS] = {};
    ND_GetAlarmThresholdStat(3, &alarm);
    ND_GetNdAttackStat(3, attack);
    EXPECT_EQ(alarm, 7u + 5u + 0x107u) << "added to what the caller holds";
    const std::uint64_t want[ND_ATTACK_COUNTERS] = {11, 22, 33, 0x100000028ull};
    for (std::size_t i = 0; i < ND_ATTACK_COUNTERS; ++i) EXPECT_EQ(attack[i], want[i]) << "counter " << i;
    std::uint64_t other = 0;
    ND_GetAlarmThresholdStat(4, &other);
    EXPECT_EQ(other, 1000u);
    std::uint64_t none = 0;
    ND_GetAlarmThresholdStat(9, &none);
    EXPECT_EQ(none, 0u);
}

class NdDownNode : public SimTest {
protected:
    std::vector<std::string> args() override {
        std::string text;
        run({IPSIMD_PATH, "--print-default-scenario"}, &text);
        const auto at = text.find("state: up", text.find("number: 2"));
        text.replace(at, 9, "state: down");
        return {"--scenario", temp_file("nd_down.yaml", text)};
    }
};

TEST_F(NdDownNode, CountersOfADownNodeAreNotAdded) {
    ok_control({{"op", "nd.counters"}, {"node", 1}, {"alarm", 5}, {"attack", {1, 2, 3, 4}}});
    ok_control({{"op", "nd.counters"}, {"node", 2}, {"alarm", 50}, {"attack", {10, 20, 30, 40}}});
    std::uint64_t alarm = 0, attack[ND_ATTACK_COUNTERS] = {};
    ND_GetAlarmThresholdStat(0, &alarm);
    ND_GetNdAttackStat(0, attack);
    EXPECT_EQ(alarm, 5u);
    EXPECT_EQ(attack[0], 1u);
    EXPECT_EQ(attack[3], 4u);
}

TEST_F(NdQueries, GlobalParametersHaveTheDeviceDefaults) {
    EXPECT_EQ(ND_GetHopLimit(), 64u);
    std::uint32_t w = 0;
    ASSERT_EQ(ND_GetStaleAging(&w), 0u);
    EXPECT_EQ(w, 240u);
    ASSERT_EQ(ND_GetStaleAgingUnit(&w), 0u);
    EXPECT_EQ(w, 1u) << "minutes";
    ASSERT_EQ(ND_GetSnpDadRetTime(&w), 0u);
    EXPECT_EQ(w, 1u);
    ASSERT_EQ(ND_GetSnpInvalidTime(&w), 0u);
    EXPECT_EQ(w, 60u);
    ASSERT_EQ(ND_GetSnpValidTime(&w), 0u);
    EXPECT_EQ(w, 86400u);
    ASSERT_EQ(ND_GetRate(&w), 0u);
    EXPECT_EQ(w, 100u);
    std::uint16_t a = 0, b = 0;
    ASSERT_EQ(ND_GetLinkLocalMinimize(&a), 0u);
    EXPECT_EQ(a, 0u);
    ASSERT_EQ(ND_GetIPConflictRecord(&a), 0u);
    EXPECT_EQ(a, 0u);
    ASSERT_EQ(ND_GetOnOffLogAndMoveRecord(&a, &b), 0u);
    EXPECT_EQ(a, 0u);
    EXPECT_EQ(b, 0u);
    std::uint32_t bitmap = 0xFFu;
    ASSERT_EQ(nd_GetExt3Bitmap(&bitmap), 0u);
    EXPECT_EQ(bitmap, 0u);
    ASSERT_EQ(ND_GetRaTunnelBroadCast(&a), 0u);
    EXPECT_EQ(a, 0u);
    ASSERT_EQ(ND_GetResolvingRoute(&a), 0u);
    EXPECT_EQ(a, 1u);
    ASSERT_EQ(ND_GetTopoChgEnable(&a), 0u);
    EXPECT_EQ(a, 1u);
}

TEST_F(NdQueries, GlobalParametersFollowTheControlChannel) {
    ok_control({{"op", "nd.params"},
                {"hop_limit", 255},
                {"stale_aging", 0x01020304},
                {"stale_aging_unit", 0},
                {"link_local_flags", 0x04},
                {"log_flags", 0x02},
                {"conflict_flags", 0x80},
                {"snp_dad_retrans", 3},
                {"snp_invalid", 0x00010002},
                {"snp_valid", 0x0A0B0C0D},
                {"rate", 0x11223344},
                {"ext3_bitmap", 0x8002}});
    EXPECT_EQ(ND_GetHopLimit(), 255u);
    std::uint32_t w = 0;
    ASSERT_EQ(ND_GetStaleAging(&w), 0u);
    EXPECT_EQ(w, 0x01020304u);
    ASSERT_EQ(ND_GetStaleAgingUnit(&w), 0u);
    EXPECT_EQ(w, 0u);
    ASSERT_EQ(ND_GetSnpDadRetTime(&w), 0u);
    EXPECT_EQ(w, 3u);
    ASSERT_EQ(ND_GetSnpInvalidTime(&w), 0u);
    EXPECT_EQ(w, 0x00010002u);
    ASSERT_EQ(ND_GetSnpValidTime(&w), 0u);
    EXPECT_EQ(w, 0x0A0B0C0Du);
    ASSERT_EQ(ND_GetRate(&w), 0u);
    EXPECT_EQ(w, 0x11223344u);
    std::uint16_t a = 0, b = 0;
    ASSERT_EQ(ND_GetLinkLocalMinimize(&a), 0u);
    EXPECT_EQ(a, 1u);
    a = 0;
    ASSERT_EQ(ND_GetIPConflictRecord(&a), 0u);
    EXPECT_EQ(a, 1u);
    a = 0;
    ASSERT_EQ(ND_GetOnOffLogAndMoveRecord(&a, &b), 0u);
    EXPECT_EQ(a, 0u) << "bit 0x01 is clear";
    EXPECT_EQ(b, 1u) << "bit 0x02 is set";
    ASSERT_EQ(ND_GetRaTunnelBroadCast(&a), 0u);
    EXPECT_EQ(a, 1u);
    ASSERT_EQ(ND_GetResolvingRoute(&a), 0u);
    EXPECT_EQ(a, 0u);
    ASSERT_EQ(ND_GetTopoChgEnable(&a), 0u);
    EXPECT_EQ(a, 1u);

    const json refused = control({{"op", "nd.params"}, {"hop_limit", 256}});
    EXPECT_EQ(refused.value("ok", true), false);
    EXPECT_EQ(ND_GetHopLimit(), 255u);
}

// ---- Interface configuration and display ---------------------------------------------------

TEST_F(NdQueries, InterfaceConfigurationHasTheDeviceDefaults) {
    NdIfConfigInfo c{};
    ASSERT_EQ(ND_GetIfConfigInfo(kVlan1, &c), 0u);
    EXPECT_EQ(c.uiRetransInterval, 1000u);
    EXPECT_EQ(c.uiReachableTime, 1200000u);
    EXPECT_EQ(c.uiWord8, 200u);
    EXPECT_EQ(c.uiDadAttempts, 1u);
    EXPECT_EQ(c.uiRaInterval, 600u);
    EXPECT_EQ(c.uiWord20, 64u);
    EXPECT_EQ(c.uiRaLifetime, 1800u);
    EXPECT_EQ(c.uiFlags, ND_CFG_FLAG_RA);
    EXPECT_EQ(c.uiDestGuardMode, 0u);
    EXPECT_STREQ(c.szName, "Vlan-interface1");
    EXPECT_EQ(c.uiWord176, kVlan1);
    EXPECT_EQ(c.uiWord180, 1u) << "owning node";
    EXPECT_EQ(c.usHalf184, 0u);
    EXPECT_EQ(c.usHalf186, 1500u) << "MTU";
    EXPECT_EQ(c.uiWord188, 0u) << "VRF";
    EXPECT_EQ(c.uiWord192, 2u) << "entries on the interface";
    EXPECT_EQ(c.uiWord196, 1u) << "dynamic entries among them";

    NdIfConfigInfo untouched{};
    untouched.uiFlags = 0x5A5A5A5Au;
    EXPECT_EQ(ND_GetIfConfigInfo(kGe1, &untouched), kFailed) << "an Ethernet port is not served";
    EXPECT_EQ(untouched.uiFlags, 0x5A5A5A5Au);
}

TEST_F(NdQueries, InterfaceDisplayText) {
    char buf[ND_IF_DISPLAY_ROOM] = {};
    const std::string defaults =
        "  ND DAD is enabled, number of DAD attempts: 1"
        "\r\n  ND reachable time is 1200000 milliseconds"
        "\r\n  ND retransmit interval is 1000 milliseconds"
        "\r\n  ND advertised reachable time is 0 milliseconds"
        "\r\n  ND advertised retransmit interval is 0 milliseconds"
        "\r\n  ND router advertisements are sent every 600 seconds"
        "\r\n  ND router advertisements live for 1800 seconds"
        "\r\n  Hosts use stateless autoconfig for addresses";
    EXPECT_EQ(ND_GetIfDisplayInfo(kVlan1, sizeof buf, buf), defaults.size());
    EXPECT_EQ(std::string(buf), defaults);

    ok_control({{"op", "nd.if_config"}, {"ifindex", kVlan10}, {"dad_attempts", 0}, {"reachable", 30000},
                {"retransmit", 2000}, {"ra_interval", 200}, {"ra_lifetime", 900},
                {"flags", 0x2 | 0x4 | 0x10 | 0x20 | 0x40 | 0x200 | 0x200000}, {"dest_guard", 4}});
    const std::string configured =
        "  ND DAD is disabled"
        "\r\n  ND reachable time is 30000 milliseconds"
        "\r\n  ND retransmit interval is 2000 milliseconds"
        "\r\n  ND advertised reachable time is 30000 milliseconds"
        "\r\n  ND advertised retransmit interval is 2000 milliseconds"
        "\r\n  ND router advertisements are sent every 200 seconds"
        "\r\n  ND router advertisements live for 900 seconds"
        "\r\n  Hosts use DHCP to obtain routable addresses"
        "\r\n  Hosts use DHCP to obtain other configuration"
        "\r\n  Ipv6 destination-guard enable stressed";
    std::memset(buf, 0, sizeof buf);
    EXPECT_EQ(ND_GetIfDisplayInfo(kVlan10, sizeof buf, buf), configured.size());
    EXPECT_EQ(std::string(buf), configured);

    std::memset(buf, 0, sizeof buf);
    EXPECT_EQ(ND_GetIfDisplayInfo(kGe1, sizeof buf, buf), 21u);
    EXPECT_EQ(std::string(buf), "  ND is not supported");

    const json refused = control({{"op", "nd.if_config"}, {"ifindex", kGe1}, {"flags", 0}});
    EXPECT_EQ(refused.value("ok", true), false);
}

// ---- Sending and resolution -------------------------------------------------------------

TEST_F(NdSending, SolicitationOfAScenarioHostMakesItsEntryReachable) {
    NdEntryInfo e{};
    ASSERT_EQ(exact(kGe1, "2001:db8:1::3", &e), kFailed);
    ASSERT_EQ(ND_SendNS(kGe1, v6("2001:db8:1::3")), 0u);
    ASSERT_EQ(exact(kGe1, "2001:db8:1::3", &e), 0u);
    EXPECT_EQ(e.ucState, ND_STATE_REACHABLE);
    EXPECT_EQ(mac(e.aucLinkAddr), "00:11:22:33:44:77");
    EXPECT_EQ(e.ucKind, 1u);
    EXPECT_EQ(e.uiRefreshTime, e.uiUpdateTime + 1200u);

    const json sent = ok_control({{"op", "nd.sent"}, {"ifindex", kGe1}});
    EXPECT_EQ(sent["ns"], 1);
    EXPECT_EQ(sent["address"], "2001:db8:1::3");
    EXPECT_EQ(ND_SendNS(99, v6("2001:db8:1::3")), kFailed) << "no such interface";
}

TEST_F(NdSending, ResolveOfAScenarioHostMakesItsEntryReachable) {
    ASSERT_EQ(ND_Resolve(v6("2001:db8:1::3"), kGe1), 0u);
    NdEntryInfo e{};
    ASSERT_TRUE(eventually([&] { return exact(kGe1, "2001:db8:1::3", &e) == 0; }));
    EXPECT_EQ(e.ucState, ND_STATE_REACHABLE);
    EXPECT_EQ(mac(e.aucLinkAddr), "00:11:22:33:44:77");
    EXPECT_EQ(ND_Resolve(NdIPv6Addr{}, kGe1), kFailed);
}

TEST_F(NdSending, UnansweredSolicitationLeavesAnIncompleteEntryThatGoes) {
    ASSERT_EQ(ND_SendNS(kGe1, v6("2001:db8:1::99")), 0u);
    NdEntryInfo e{};
    ASSERT_EQ(exact(kGe1, "2001:db8:1::99", &e), 0u);
    EXPECT_EQ(e.ucState, ND_STATE_INCOMPLETE);
    EXPECT_EQ(mac(e.aucLinkAddr), "00:00:00:00:00:00");
    EXPECT_EQ(e.uiRefreshTime, 0u);
    EXPECT_TRUE(eventually([&] { return exact(kGe1, "2001:db8:1::99", &e) == kFailed; }));
}

TEST_F(NdSending, DeleteDynamicEntryRemovesItAndLeavesAStaticOne) {
    ASSERT_EQ(ND_DeleteDynamicEntry(v6("2001:db8:5::3"), kVlan1), 0u);
    ASSERT_EQ(ND_DeleteDynamicEntry(v6("fe80::2"), kGe1), 0u);
    NdEntryInfo e{};
    EXPECT_TRUE(eventually([&] { return exact(kGe1, "fe80::2", &e) == kFailed; }));
    // The requests are served in order: the static entry was passed over before.
    EXPECT_EQ(exact(kVlan1, "2001:db8:5::3", &e), 0u);
}

TEST_F(NdSending, AdvertisementsAndSpecifiedPacketsAreCountedPerInterface) {
    const std::uint8_t own[6] = {0x00, 0xe0, 0xfc, 0x00, 0x00, 0x05};
    ASSERT_EQ(ND_SendRA(kVlan1, v6("ff02::1"), own, 0x1234), 0u);
    ASSERT_EQ(ND_SendNA(kVlan1, v6("2001:db8:5::1"), own), 0u);
    ASSERT_EQ(ND_SendRA(kGeNode2, v6("ff02::1"), own, 7), 0u);

    NdSendSpecifyInfo p{};
    for (std::size_t i = 0; i < sizeof p.aucHead; ++i) p.aucHead[i] = static_cast<std::uint8_t>(i);
    p.uiIfIndex = kVlan1;
    p.uiWord52 = 0x01020304u;
    p.aucRaw56[0] = 0xAA;
    p.uiWord60 = 0x05060708u;
    p.usHalf64 = 0x0A0Bu;
    p.usHalf66 = 0x0C0Du;
    p.uiWord68 = 68;
    p.uiWord72 = 0x72000072u;
    p.uiWord76 = 0xFFFFFFFEu;
    p.aucTail[19] = 0x99;
    ASSERT_EQ(ND_SendSpecify(&p), 0u);

    json sent;
    ASSERT_TRUE(eventually([&] {
        sent = ok_control({{"op", "nd.sent"}, {"ifindex", kVlan1}});
        return sent["specified"] == 1;
    })) << sent.dump();
    EXPECT_EQ(sent["ra"], 1);
    EXPECT_EQ(sent["na"], 1);
    EXPECT_EQ(sent["ra_param"], 0x1234);
    EXPECT_EQ(sent["address"], "2001:db8:5::1");
    EXPECT_EQ(sent["mac"], "00:e0:fc:00:00:05");
    const json& s = sent["last_specified"];
    EXPECT_EQ(s["head"], "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"
                         "202122232425262728292a2b2c2d2e2f");
    EXPECT_EQ(s["ifindex"], kVlan1);
    EXPECT_EQ(s["word52"], 0x01020304u);
    EXPECT_EQ(s["raw56"], "aa000000");
    EXPECT_EQ(s["word60"], 0x05060708u);
    EXPECT_EQ(s["half64"], 0x0A0Bu);
    EXPECT_EQ(s["half66"], 0x0C0Du);
    EXPECT_EQ(s["word68"], 68u);
    EXPECT_EQ(s["word72"], 0x72000072u);
    EXPECT_EQ(s["word76"], 0xFFFFFFFEu);
    EXPECT_EQ(s["tail"], "00000000000000000000000000000000000000" "99");

    json node2;
    ASSERT_TRUE(eventually([&] {
        node2 = ok_control({{"op", "nd.sent"}, {"ifindex", kGeNode2}});
        return node2["ra"] == 1;
    })) << node2.dump();
    EXPECT_EQ(node2["ra_param"], 7);
}

// ---- Entries of an aggregate -------------------------------------------------------------

class NdAggregate : public SimTest {
protected:
    // The default device with an aggregate (type 41) on board 1 whose member port is on
    // board 2.
    std::vector<std::string> args() override {
        std::string text;
        run({IPSIMD_PATH, "--print-default-scenario"}, &text);
        const auto at = text.find("\n# IPv4 addresses");
        text.insert(at,
                    "\n  - {index: 20, name: Bridge-Aggregation1, node: 1, type: 41}\n"
                    "  - {index: 21, name: GigabitEthernet1/1/2, node: 2, type: ethernet}\n");
        return {"--scenario", temp_file("nd_aggregate.yaml", text)};
    }
};

TEST_F(NdAggregate, EntryOfALiveAggregateIsAnsweredByItsMembersNode) {
    ok_control({{"op", "nd.entry"}, {"ifindex", 20}, {"address", "2001:db8:20::2"}, {"mac", "00:11:22:33:20:02"},
                {"state", "reachable"}, {"port", 21}});
    NdEntryInfo e{};
    ASSERT_EQ(exact(20, "2001:db8:20::2", &e), 0u);
    EXPECT_EQ(e.uiIfIndex, 20u);
    EXPECT_EQ(e.uiIfIndex2, 21u);
    EXPECT_EQ(e.usHalf30, 2u) << "the member port's node answered";

    ok_control({{"op", "nd.entry"}, {"ifindex", 20}, {"address", "2001:db8:20::2"}, {"state", "incomplete"}});
    ASSERT_EQ(exact(20, "2001:db8:20::2", &e), 0u);
    EXPECT_EQ(e.ucState, ND_STATE_INCOMPLETE);
    EXPECT_EQ(e.usHalf30, 1u) << "an incomplete entry stays with the aggregate's node";
}

// ---- Overlay suppression -----------------------------------------------------------------

TEST_F(NdQueries, OverlaySuppressionSetThenGet) {
    // The state of a VSI as read back (7 when the read fails).
    const auto overlay = [](std::uint32_t vsi) {
        std::uint32_t state = 7;
        EXPECT_EQ(ND_GetOverlaySuppression(vsi, &state), 0u) << "VSI " << vsi;
        return state;
    };
    EXPECT_EQ(overlay(100), 0u) << "off until set";
    EXPECT_EQ(ND_SetOverlaySuppression(100, 1), 0u);
    EXPECT_EQ(overlay(100), 1u);
    EXPECT_EQ(overlay(101), 0u) << "another VSI";
    EXPECT_EQ(ND_SetOverlaySuppression(100, 2), 0u) << "any flag but 1 switches off";
    EXPECT_EQ(overlay(100), 0u);
    EXPECT_EQ(ND_SetOverlaySuppression(0xFFFFFFFFu, 1), kFailed);
}

}  // namespace
}  // namespace e2e
