// The address side of the simulated device, driven through the library's public API.
#include <poll.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/ipaddr.h"
#include "ipclient/ipcfg.h"
#include "ipclient/kernel.h"
#include "ipclient/status.h"
#include "ipplat/platform.h"

namespace e2e {
namespace {

constexpr std::uint32_t kConflict = 0x43160041u;
constexpr std::uint32_t kLastBatch = 0x60010023u;

IPAddrKey any_key(std::uint32_t addr) {
    IPAddrKey k{};
    k.usVrfIndex = 0xFFFF;
    k.uiIfIndex = 0xFFFFFFFFu;
    k.uiAddr = addr;
    return k;
}

std::vector<std::string> walk(std::uint32_t ifindex) {
    std::vector<std::string> out;
    IPAddrEntry e{};
    for (std::uint32_t rc = IPAddr_GetFirstAddr(ifindex, 0, &e); rc == 0; rc = IPAddr_GetNextAddr(ifindex, 0, &e)) {
        out.push_back(dotted(e.stKey.uiAddr));
        if (out.size() > 100) break;
    }
    return out;
}

std::vector<std::string> batch(std::uint32_t ifindex, std::uint32_t* status) {
    IPAddrEntry entries[16] = {};
    std::uint32_t n = 0;
    *status = IPAddr_GetFirstBatchAddr(ifindex, 0, 16, entries, &n);
    std::vector<std::string> out;
    for (std::uint32_t i = 0; i < n && i < 16; ++i) out.push_back(dotted(entries[i].stKey.uiAddr));
    return out;
}

using AddressE2E = SimTest;

TEST_F(AddressE2E, ScenarioAddressesAreFoundByKey) {
    IPAddrKey key = any_key(ip("10.1.1.1"));
    IPAddrEntry entries[4] = {};
    std::uint32_t count = 4;
    ASSERT_EQ(IPAddr_GetAddrByKey(&key, 1, &count, entries), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(entries[0].stKey.uiIfIndex, kGe1);
    EXPECT_EQ(entries[0].stKey.uiMask, ip("255.255.255.0"));
    EXPECT_EQ(entries[0].stKey.uiMethod, 1u);
    EXPECT_EQ(entries[0].stKey.usVrfIndex, 0u);
    std::uint32_t number = 0;
    ASSERT_EQ(IPAddr_GetAddrByKey(&key, 1, &number, nullptr), 0u);
    EXPECT_EQ(number, 1u);
}

TEST_F(AddressE2E, ManualAddressIsSeenByLookupsWalksAndBatchesAndDeleteUndoesIt) {
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);

    IPAddrKey key = any_key(ip("10.9.9.1"));
    IPAddrEntry entries[4] = {};
    std::uint32_t count = 4;
    ASSERT_EQ(IPAddr_GetAddrByKey(&key, 1, &count, entries), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(entries[0].stKey.uiIfIndex, kGe1);
    EXPECT_EQ(entries[0].stKey.uiMethod, 1u);
    EXPECT_EQ(entries[0].uiFlag & 1u, 1u) << "a sub address";

    IPAddrEntry match{};
    match.stKey = any_key(ip("10.9.9.77"));
    match.uiFlag = 1;
    IPAddrEntry best{};
    ASSERT_EQ(IPAddr_Drvk_GetMatchBestNet(&match, &best), 0u);
    EXPECT_EQ(dotted(best.stKey.uiAddr), "10.9.9.1");
    EXPECT_EQ(best.stKey.uiMask, ip("255.255.255.0"));

    EXPECT_EQ(walk(kGe1), (std::vector<std::string>{"10.1.1.1", "10.1.3.1", "10.9.9.1"}));
    std::uint32_t status = 0;
    EXPECT_EQ(batch(kGe1, &status), (std::vector<std::string>{"10.1.1.1", "10.1.3.1", "10.9.9.1"}));
    EXPECT_EQ(status, kLastBatch);

    ASSERT_EQ(IPCfg_DelManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    count = 4;
    EXPECT_EQ(IPAddr_GetAddrByKey(&key, 1, &count, entries), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_NE(IPAddr_Drvk_GetMatchBestNet(&match, &best), 0u);
    EXPECT_EQ(walk(kGe1), (std::vector<std::string>{"10.1.1.1", "10.1.3.1"}));
    EXPECT_EQ(batch(kGe1, &status), (std::vector<std::string>{"10.1.1.1", "10.1.3.1"}));
}

TEST_F(AddressE2E, IpOrderWalkCoversEveryInterface) {
    std::vector<std::uint32_t> seen;
    IPAddrEntry e{};
    for (std::uint32_t rc = IPAddr_GetFirstAddrIPOrder(0, 0, &e); rc == 0; rc = IPAddr_GetNextAddrIPOrder(0, 0, &e)) {
        seen.push_back(e.stKey.uiAddr);
        ASSERT_LT(seen.size(), 100u);
    }
    ASSERT_EQ(seen.size(), 7u);
    // Network-order words compare as their bytes do.
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end(),
                               [](std::uint32_t a, std::uint32_t b) { return std::memcmp(&a, &b, 4) < 0; }));
    EXPECT_EQ(dotted(seen.front()), "1.1.1.1");
}

TEST_F(AddressE2E, SameAddressOnSecondInterfaceReportsTheConflict) {
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    EXPECT_EQ(IPCfg_AddManualAddr(kGeNode2, ip("10.9.9.1"), ip("255.255.255.0"), 0), kConflict);

    IPCFG_REPLY_EXT_S ext{};
    EXPECT_EQ(IPCfg_AddManualAddrExt(kGeNode2, ip("10.9.9.1"), ip("255.255.255.0"), 0, &ext), kConflict);
    EXPECT_EQ(ext.uiResult, kConflict);
    EXPECT_EQ(ext.uiValue, kGe1) << "the interface that holds the address";

    IPAddrEntry probe{};
    probe.stKey.usVrfIndex = 0;
    probe.stKey.uiIfIndex = kGeNode2;
    probe.stKey.uiAddr = ip("10.9.9.1");
    probe.stKey.uiMask = ip("255.255.255.0");
    IPAddrEntry other{};
    IPAddrConflict conflict{};
    EXPECT_EQ(IPAddr_Drvk_GetConflictAddr(&probe, &other, &conflict), kConflict);
    EXPECT_EQ(conflict.usConflict, 1u);
    EXPECT_EQ(conflict.uiIfIndex, kGe1);
    EXPECT_EQ(other.stKey.uiIfIndex, kGe1);
    IPAddrConflict recover{};
    EXPECT_EQ(IPAddr_Drvk_GetConflictAddr2CfgRecover(&probe, &other, &recover), 0u);
    EXPECT_EQ(recover.usConflict, 1u);
}

TEST_F(AddressE2E, ControlSocketAddAndDeleteAnswerWithTheServiceResult) {
    const int32_t sock = IPAddr_Open();
    ASSERT_GE(sock, 0);
    IPAddrEntry e{};
    e.stKey.usVrfIndex = 0xFFFF;
    e.stKey.uiIfIndex = kLoop0;
    e.stKey.uiAddr = ip("2.2.2.2");
    e.stKey.uiMask = ip("255.255.255.255");
    e.stKey.uiMethod = 1;
    e.uiFlag = 1;
    EXPECT_EQ(IPAddr_AddAddr(sock, &e, 77, 0), 0u);

    IPAddrInfo info{};
    ASSERT_EQ(lookup_any(ip("2.2.2.2"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, kLoop0);
    EXPECT_EQ(info.uiInfo1, 77u) << "the value word travels in uiInfo1";

    e.stKey.uiIfIndex = kGeNode2;
    e.stKey.uiMask = ip("255.255.255.0");
    EXPECT_EQ(IPAddr_AddAddr(sock, &e, 0, 0), kConflict);
    e.stKey.uiIfIndex = kLoop0;
    EXPECT_EQ(IPAddr_DelAddr(sock, &e, 0), 0u);
    EXPECT_NE(lookup_any(ip("2.2.2.2"), &info), 0u);
    EXPECT_EQ(IPAddr_DelAddr(sock, &e, 0), 0x40010001u) << "nothing left to delete";
    IPAddr_Close(sock);
}

TEST_F(AddressE2E, GlobalEpochMovesOnEachChange) {
    std::uint8_t before = 0, after = 0;
    ASSERT_EQ(IPAddr_Drvk_GetAddrGlobalEpoch(0, 0, &before), 0u);
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    ASSERT_EQ(IPAddr_Drvk_GetAddrGlobalEpoch(0, 0, &after), 0u);
    EXPECT_NE(before, after);
    ASSERT_EQ(IPAddr_Drvk_IncAddrGlobalEpoch(0, 0), 0u);
    std::uint8_t bumped = 0;
    ASSERT_EQ(IPAddr_Drvk_GetAddrGlobalEpoch(0, 0, &bumped), 0u);
    EXPECT_EQ(static_cast<std::uint8_t>(after + 1), bumped);
}

TEST_F(AddressE2E, EventSubscriberInAnotherProcessSeesAddAndDelete) {
    Child sub({SUBSCRIBER_PATH, "2"});
    std::string line;
    ASSERT_TRUE(sub.line(&line)) << sim.log();
    ASSERT_EQ(line, "ready");
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    ASSERT_EQ(IPCfg_DelManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    ASSERT_TRUE(sub.line(&line));
    EXPECT_EQ(line.rfind("event 1 2 10.9.9.1 255.255.255.0 1 1 ", 0), 0u) << line;
    ASSERT_TRUE(sub.line(&line));
    EXPECT_EQ(line.rfind("event 2 2 10.9.9.1 255.255.255.0 1 1 ", 0), 0u) << line;
    ASSERT_TRUE(sub.line(&line));
    EXPECT_EQ(line, "done 2");
    EXPECT_EQ(sub.wait(), 0);
}

TEST_F(AddressE2E, BatchEventReplayEndsWithTheEndSignal) {
    static int count = 0;
    count = 0;
    const int32_t fd = IPAddr_RegisterEvent(0, kGe1, 0, 0, [](uint32_t, IPAddrEntry*, uint32_t, uint32_t, uint32_t, uint32_t) -> uint32_t {
        ++count;
        return 0;
    });
    ASSERT_GE(fd, 0);
    ASSERT_EQ(IPAddr_RequestBatchEvent(fd), 0u);
    std::uint32_t rc = 0;
    for (int i = 0; i < 10 && rc != 0x10024u; ++i) {
        pollfd p{fd, POLLIN, 0};
        ASSERT_EQ(::poll(&p, 1, 2000), 1);
        rc = IPAddr_HandleEvent(fd);
    }
    EXPECT_EQ(rc, 0x10024u);
    EXPECT_EQ(count, 2) << "the two addresses of interface 2";
    IPAddr_DeregisterEvent(fd);
}

TEST_F(AddressE2E, SourceSelectionPrefersTheInterfaceNetwork) {
    std::uint32_t src = 0;
    ASSERT_EQ(IPAddr_SelectSrcAddr(ip("10.1.3.9"), 0, kGe1, 0, &src), 0u);
    EXPECT_EQ(dotted(src), "10.1.3.1");
    ASSERT_EQ(IPAddr_SelectSrcAddr(ip("8.8.8.8"), 0, kGe1, 0, &src), 0u);
    EXPECT_EQ(dotted(src), "10.1.1.1") << "the interface's main address";
    ASSERT_EQ(IPAddr_SelectSrcAddr(ip("10.2.1.200"), 0, 0xFFFFFFFFu, 0, &src), 0u);
    EXPECT_EQ(dotted(src), "10.2.1.1");
}

TEST_F(AddressE2E, VrfWalkAndGatewaySearch) {
    IPAddrEntry e{};
    ASSERT_EQ(IPAddr_GetFirstAddrInVrf(1, 0, &e), 0u);
    EXPECT_EQ(dotted(e.stKey.uiAddr), "10.1.2.1");
    EXPECT_EQ(e.stKey.usVrfIndex, 1u);
    EXPECT_NE(IPAddr_GetNextAddrInVrf(1, 0, &e), 0u) << "one address in VRF 1";
    IPAddrEntry gw{};
    ASSERT_EQ(IPAddr_SearchGatewayAddr(kMgmt, ip("192.168.0.254"), 0xFFFF, &gw), 0u);
    EXPECT_EQ(dotted(gw.stKey.uiAddr), "192.168.0.1");
    IPAddrEntry fwd{};
    ASSERT_EQ(IPAddr_GetFwdAddrInVrf(0, &fwd), 0u);
    EXPECT_EQ(fwd.stKey.uiIfIndex, kLoop0) << "a loopback address forwards first";
}

TEST_F(AddressE2E, DhcpSwitchSetsTheMethodAndStartsTheClientServiceOnTheMaster) {
    EXPECT_EQ(IPAddr_GetAddrTypeFlag(kGe1) & 4u, 0u);
    std::uint32_t status = 9;
    ASSERT_EQ(SERVICE_GetStatus(1, "DHCPC", 0, &status), 0u);
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(IPCfg_SetDhcp(kGe1, 1), 0u);
    EXPECT_EQ(IPAddr_GetAddrTypeFlag(kGe1) & 4u, 4u);
    ASSERT_EQ(SERVICE_GetStatus(1, "DHCPC", 0, &status), 0u);
    EXPECT_TRUE(status == 1u || status == 2u) << status;
    ASSERT_EQ(IPCfg_SetDhcp(kGe1, 2), 0u);
    EXPECT_EQ(IPAddr_GetAddrTypeFlag(kGe1) & 4u, 0u);
}

TEST_F(AddressE2E, UnnumberedInterfaceIsAnsweredByTheQuery) {
    std::uint32_t borrowed = 0;
    EXPECT_EQ(IPCfg_Mor_GetUnnumberedIf(kGeNode2, &borrowed), 0x2316002Cu) << "0 means none";
    ASSERT_EQ(IPCfg_Mor_SetUnnumber(kGeNode2, kLoop0, 1), 0u);
    ASSERT_EQ(IPCfg_Mor_GetUnnumberedIf(kGeNode2, &borrowed), 0u);
    EXPECT_EQ(borrowed, kLoop0);
}

TEST_F(AddressE2E, InterfaceConfigurationMessagesQueueDuringARequest) {
    const int32_t sock = IPAddr_Open();
    ASSERT_GE(sock, 0);
    static std::vector<std::uint32_t> seen;
    seen.clear();
    ASSERT_EQ(IPAddr_RegIfCfgEvent(sock, 1, [](uint32_t c, uint32_t a, uint32_t b, uint16_t) -> uint32_t {
                  seen.push_back(c);
                  seen.push_back(a);
                  seen.push_back(b);
                  return 0;
              }),
              0u);
    // The flag change is answered after the interface-configuration message it causes, so
    // the message waits in the list.
    ASSERT_EQ(IPAddr_SetDhcpFlag(sock, kGe1, 1), 0u);
    ASSERT_NE(g_stCfgList.pstHead, nullptr);
    EXPECT_EQ(IPAddr_HandleIfCfgMsg(sock), 0u);
    EXPECT_EQ(seen, (std::vector<std::uint32_t>{1, kGe1, 4}));
    EXPECT_EQ(g_stCfgList.pstHead, nullptr);
    IPAddr_DeregIfCfgEvent(sock, 1);
    IPAddr_Close(sock);
}

}  // namespace
}  // namespace e2e

namespace e2e {
namespace {

using SummaryE2E = SimTest;

TEST_F(SummaryE2E, IpSummaryShowsTheVlanAndManagementAddresses) {
    char text[1024];
    ASSERT_EQ(IPAddr_GetIpSummary(sizeof text, text), 0u);
    auto block = [](const char* addr) {
        return std::string("\r\nIP Method:                      Manual") + "\r\nIP address:                     " + addr +
               "\r\nSubnet mask:                    255.255.255.0" +
               "\r\nDefault gateway:                192.168.0.254\r\n";
    };
    EXPECT_EQ(std::string(text), "\r\nVlan1:" + block("192.168.1.1") + "\r\nMGE0/0/0:" + block("192.168.0.1"));
}

}  // namespace
}  // namespace e2e
