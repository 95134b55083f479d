// The IPStack and port-attack daemons, the service manager and the configuration database
// of the simulated device, through the library's public API.
#include <cstring>

#include "e2e/e2e_support.hpp"
#include "ipclient/ipcfg.h"
#include "ipclient/ipstat.h"
#include "ipclient/lipc.h"
#include "ipplat/platform.h"

namespace e2e {
namespace {

using ServicesE2E = HarnessTest;

TEST_F(ServicesE2E, BpaConfigurationIsSetAndReadBackThroughTheIPStackDaemon) {
    const std::uint8_t set[8] = {0, 0, 0, 2, 0x12, 0x34, 0x56, 0x78};  // interface 2, inbound, outbound
    ASSERT_EQ(IP_SendAndRecvMsgToDaemon(14, set, sizeof set), 0u);
    std::uint32_t value = 0;
    ASSERT_EQ(IP_GetBpaCfg(kGe1, &value), 4u);
    std::uint16_t halves[2];
    std::memcpy(halves, &value, sizeof halves);
    EXPECT_EQ(halves[0], 0x1234u);
    EXPECT_EQ(halves[1], 0x5678u);
    EXPECT_EQ(IP_GetBpaCfg(99, &value), 0u) << "no such interface";
    EXPECT_EQ(IP_SendAndRecvMsgToDaemon(77, set, sizeof set), 0x40010001u) << "a type the daemon does not know";
    EXPECT_EQ(IP_SendMsgToDaemon(14, set, sizeof set), 0u);
}

TEST_F(ServicesE2E, PortAttackLevelIsSetAndReadBack) {
    const std::uint8_t set[8] = {0, 0, 0, 4, 0, 0, 0, 3};
    ASSERT_EQ(PORTATK_SendAndRecvMsgToDaemon(1, set, sizeof set), 0u);
    const std::uint8_t get[4] = {0, 0, 0, 4};
    EXPECT_EQ(PORTATK_SendAndRecvMsgToDaemon(2, get, sizeof get), 3u);
    EXPECT_EQ(PORTATK_SendAndRecvMsgToDaemon(9, get, sizeof get), 0x40010001u);
}

TEST_F(ServicesE2E, DaemonRunsOnEveryNodeOfTheScenario) {
    EXPECT_EQ(IP_IsDaemonExist(1), 1u);
    EXPECT_EQ(IP_IsDaemonExist(2), 1u);
    EXPECT_EQ(IP_IsDaemonExist(0x8000), 0u);
    EXPECT_EQ(IP_DaemonCheck(1), 0u);
    EXPECT_EQ(IP_ServiceStart(), 0u);
}

class StoppedDaemonE2E : public HarnessTest {
protected:
    ipsim::Scenario scenario() override {
        std::string text = printed_default_scenario();
        const auto at = text.find("{node: 2, name: IPStack, status: running}");
        EXPECT_NE(at, std::string::npos) << text;
        if (at != std::string::npos) text.replace(at, 41, "{node: 2, name: IPStack, status: stopped}");
        return ipsim::Scenario::yaml(text);
    }
};

TEST_F(StoppedDaemonE2E, StartingTheDaemonOnANodeMakesItRunAndListen) {
    EXPECT_EQ(IP_IsDaemonExist(2), 0u);
    std::uint32_t status = 9;
    ASSERT_EQ(SERVICE_GetStatus(2, "IPStack", 0, &status), 0u);
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(IP_StartDaemon(2), 0u);
    ASSERT_EQ(SERVICE_GetStatus(2, "IPStack", 0, &status), 0u);
    EXPECT_EQ(status, 1u) << "starting";
    EXPECT_EQ(IP_IsDaemonExist(2), 1u) << "the probe waits while it starts";
    EXPECT_EQ(IP_ServiceStart(), 0u);
}

TEST_F(ServicesE2E, DatabaseListsTheAddressesOfAnInterface) {
    void* db = nullptr;
    ASSERT_EQ(DBM_Open("ip", "address", 0, &db), 0u);
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(db, kGe1, "GigabitEthernet1/0/1"), 2u);
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(db, kGe1, "GigabitEthernet9/9/9"), 0u) << "the name must match";
    IPCFG_DB_ADDR_S entries[4] = {};
    std::uint64_t count = 1;
    ASSERT_EQ(IPCfg_Mor_GetAddr(db, kGe1, "GigabitEthernet1/0/1", &count, entries), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(entries[0].usValue, 0u) << "VRF";
    EXPECT_EQ(entries[0].auiValue[0], ip("10.1.1.1"));
    EXPECT_EQ(entries[0].auiValue[1], ip("255.255.255.0"));
    EXPECT_EQ(entries[0].auiValue[2], 1u) << "manual";
    count = 0;
    ASSERT_EQ(IPCfg_Mor_GetAddr(db, kGe1, "", &count, entries), 0u) << "an empty name takes the index";
    EXPECT_EQ(count, 2u);
    count = 5;
    EXPECT_EQ(IPCfg_Mor_GetAddr(db, kGeVpn + 3, "", &count, entries), 0x40010001u) << "no addresses";
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(DBM_Close(db), 0u);
}

}  // namespace
}  // namespace e2e
