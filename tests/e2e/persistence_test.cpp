// What clients changed survives the simulator's end, even a kill -9 right after the
// acknowledgement.
#include "e2e/e2e_support.hpp"
#include "ipclient/ipaddr.h"
#include "ipclient/ipcfg.h"
#include "ipclient/kernel.h"

namespace e2e {
namespace {

using PersistenceE2E = SimTest;

TEST_F(PersistenceE2E, AcknowledgedAddressSurvivesKillNine) {
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    sim.kill9();
    IPAddrInfo info{};
    EXPECT_NE(lookup_any(ip("10.9.9.1"), &info), 0u) << "no simulator, no module";
    ASSERT_TRUE(sim.start()) << sim.log();
    ASSERT_EQ(lookup_any(ip("10.9.9.1"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, kGe1);
    EXPECT_EQ(info.stEntry.uiFlag & 1u, 1u);
    EXPECT_EQ(info.uiInfo1, 1u);
}

TEST_F(PersistenceE2E, DeletedScenarioAddressStaysDeleted) {
    IPAddrInfo info{};
    ASSERT_EQ(lookup_any(ip("10.1.3.1"), &info), 0u);
    ASSERT_EQ(IPCfg_DelManualAddr(kGe1, ip("10.1.3.1"), ip("255.255.255.0"), 1), 0u);
    sim.kill9();
    ASSERT_TRUE(sim.start()) << sim.log();
    EXPECT_NE(lookup_any(ip("10.1.3.1"), &info), 0u);
    ASSERT_EQ(lookup_any(ip("10.1.1.1"), &info), 0u) << "the rest of the scenario is there";
}

TEST_F(PersistenceE2E, InterfaceSettingsSurviveARestart) {
    ASSERT_EQ(IPCfg_SetDhcp(kGeNode2, 1), 0u);
    ASSERT_EQ(IPCfg_Mor_SetUnnumber(kGe1, kLoop0, 1), 0u);
    ASSERT_EQ(IPAddr_Drvk_SetNetProtocol(kGe1, 0x6, 1), 0u);
    ASSERT_EQ(sim.stop(), 0);
    ASSERT_TRUE(sim.start()) << sim.log();
    EXPECT_EQ(IPAddr_GetAddrTypeFlag(kGeNode2) & 4u, 4u);
    std::uint32_t borrowed = 0;
    ASSERT_EQ(IPCfg_Mor_GetUnnumberedIf(kGe1, &borrowed), 0u);
    EXPECT_EQ(borrowed, kLoop0);
    std::uint32_t bits = 0;
    ASSERT_EQ(IPAddr_Drvk_GetNetProtoBit(kGe1, &bits), 0u);
    EXPECT_EQ(bits, 0x6u);
}

TEST_F(PersistenceE2E, WalkAfterRestartIsTheSame) {
    ASSERT_EQ(IPCfg_AddManualAddr(kGeNode2, ip("10.2.9.1"), ip("255.255.255.0"), 1), 0u);
    ASSERT_EQ(IPCfg_DelManualAddr(kGe1, ip("10.1.3.1"), ip("255.255.255.0"), 1), 0u);
    auto all = [] {
        std::vector<std::string> out;
        IPAddrEntry e{};
        for (std::uint32_t rc = IPAddr_GetFirstAddr(0, 0, &e); rc == 0 && out.size() < 100;
             rc = IPAddr_GetNextAddr(0, 0, &e)) {
            out.push_back(std::to_string(e.stKey.uiIfIndex) + " " + dotted(e.stKey.uiAddr) + "/" +
                          dotted(e.stKey.uiMask) + " " + std::to_string(e.stKey.uiMethod) + " " +
                          std::to_string(e.uiFlag));
        }
        return out;
    };
    const auto before = all();
    ASSERT_EQ(before.size(), 7u);
    sim.kill9();
    ASSERT_TRUE(sim.start()) << sim.log();
    EXPECT_EQ(all(), before);
}

}  // namespace
}  // namespace e2e
