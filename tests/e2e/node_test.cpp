// Nodes and the directory of the simulated device, through the platform calls and the
// address driver.
#include <atomic>
#include <cstdlib>
#include <thread>
#include <cstring>

#include "e2e/e2e_support.hpp"
#include "ipclient/ipaddr.h"
#include "ipclient/kernel.h"
#include "ipplat/platform.h"

namespace e2e {
namespace {

using NodeE2E = SimTest;

TEST_F(NodeE2E, DirectoryAnswersFromTheScenario) {
    EXPECT_EQ(LIP_GetLocalLip(), 1u) << "a process runs on the master unless it asks otherwise";
    EXPECT_EQ(DEV_GetSystemMaster(), 1u);
    EXPECT_EQ(DEV_GetSystemMasterEP(), 1u);
    EXPECT_EQ(LIP_GetChassID(2), 1u);
    EXPECT_EQ(LIP_GetSlotID(2), 1u);
    EXPECT_EQ(LIP_GetCpuID(2), 0u);
    std::uint32_t count = 0;
    std::uint16_t* nodes = DEV_GetAllNodes(&count);
    ASSERT_NE(nodes, nullptr);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(nodes[0], 1u);
    EXPECT_EQ(nodes[1], 2u);
    std::free(nodes);
    std::uint16_t* standby = DEV_GetAllStandbyNodes(&count);
    ASSERT_NE(standby, nullptr);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(standby[0], 2u);
    std::free(standby);
    EXPECT_EQ(IF_IsNodeUp(2), 1u);
    EXPECT_EQ(IF_IsNodeUp(0xFFFF8000u), 1u);
    EXPECT_EQ(IF_IsNodeUp(9), 0u);

    EXPECT_EQ(IF_GetIfIndexByFullName("Vlan-interface1"), kVlan1);
    EXPECT_EQ(IF_GetIfIndexByFullName("No-such-interface"), 0u);
    std::uint16_t node = 0;
    ASSERT_EQ(IF_GetDataByIfIndex(kGeNode2, IF_DATA_NODE, &node), 0u);
    EXPECT_EQ(node, 2u);
    char name[IF_NAME_SIZE] = {};
    ASSERT_EQ(IF_GetDataByIfIndex(kGeNode2, IF_DATA_NAME, name), 0u);
    EXPECT_STREQ(name, "GigabitEthernet1/1/1");
    std::uint32_t flags = 0;
    ASSERT_EQ(IF_GetDataByIfIndex(kVlan1, IF_DATA_FLAGS, &flags), 0u);
    EXPECT_EQ(flags & IF_FLAG_SPANS_NODES, IF_FLAG_SPANS_NODES);
    EXPECT_NE(IF_GetDataByIfIndex(99, IF_DATA_NODE, &node), 0u);
    EXPECT_EQ(IF_IsValidIfIndex(kGe1), 1u);
    EXPECT_EQ(IF_IsValidIfIndex(99), 0u);
}

TEST_F(NodeE2E, SelectionIteratesTheInterfacesOfTheChosenTypes) {
    IF_SELECT_S sel;
    ASSERT_EQ(IF_Select_Init(0, &sel), 0u);
    ASSERT_EQ(IF_SelectType_Set(35, &sel), 0u);  // VLAN interfaces
    void* it = IF_IteratorInitialize();
    ASSERT_NE(it, nullptr);
    std::vector<std::uint32_t> seen;
    for (std::uint32_t i = IF_GetFirstIfIndexByIfSelect(it, &sel); i != 0; i = IF_GetNextIfIndexByIfSelect(it, &sel)) {
        seen.push_back(i);
    }
    IF_IteratorFinalize(it);
    EXPECT_EQ(seen, (std::vector<std::uint32_t>{5, 6}));
}

TEST_F(NodeE2E, RequestForAnInterfaceOfNode2ReachesNode2) {
    std::uint16_t info = 9;
    ASSERT_EQ(IPAddr_Drvk_GetLoopBackInfo(kGeNode2, &info), 0u) << "node 2 serves its own interface";
    EXPECT_EQ(info, 0u);
    ASSERT_EQ(IPAddr_Drvk_GetLoopBackInfo(kLoop0, &info), 0u);
    EXPECT_EQ(info, 1u);
    EXPECT_EQ(IPAddr_Drvk_SetDrvMethod(kGeNode2, 0x20), 0u);
    std::uint32_t method = 0;
    ASSERT_EQ(IPAddr_Drvk_GetIFMethod(2, kGeNode2, &method), 0u);
    EXPECT_EQ(method & 0x20u, 0x20u);
}

TEST_F(NodeE2E, EachNodeKeepsItsOwnModuleState) {
    ASSERT_EQ(IPAddr_Drvk_SetDbgInfo(1, 7, 0, 5), 0u);
    ASSERT_EQ(IPAddr_Drvk_SetDbgInfo(2, 7, 0, 7), 0u);
    ASSERT_EQ(IPAddr_Drvk_SetDbgInfo(2, 7, 1, 0x100), 0u);
    std::uint32_t w1 = 0, w2 = 0;
    ASSERT_EQ(IPAddr_Drvk_GetDbgInfo(1, 7, &w1), 0u);
    ASSERT_EQ(IPAddr_Drvk_GetDbgInfo(2, 7, &w2), 0u);
    EXPECT_EQ(w1, 5u);
    EXPECT_EQ(w2, 0x107u);
    // A sum over the up nodes sees each node once.
    std::uint32_t count = 0, sum = 0;
    std::uint16_t* nodes = DEV_GetAllNodes(&count);
    ASSERT_NE(nodes, nullptr);
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint32_t w = 0;
        if ((IF_IsNodeUp(nodes[i]) & 0xFFFF) == 1 && IPAddr_Drvk_GetDbgInfo(nodes[i], 7, &w) == 0) sum += w;
    }
    std::free(nodes);
    EXPECT_EQ(sum, 5u + 0x107u);
}

TEST_F(NodeE2E, ProcessThatAsksForNode2RunsThere) {
    ::setenv("IPCLIENT_NODE", "2", 1);
    std::string out;
    const int rc = run({PROBE_PATH, "10.2.1.1"}, &out);
    ::unsetenv("IPCLIENT_NODE");
    ASSERT_EQ(rc, 0);
    EXPECT_NE(out.find("local 2\n"), std::string::npos) << out;
    EXPECT_NE(out.find("lookup 0 4\n"), std::string::npos) << out;
}

class DownNodeE2E : public SimTest {
protected:
    std::vector<std::string> args() override { return node_two_down_args("down.yaml"); }
};

TEST_F(DownNodeE2E, RequestsToADownNodeFailAndItsNodeIsNotUp) {
    EXPECT_EQ(IF_IsNodeUp(2), 0u);
    std::uint16_t info = 0;
    EXPECT_EQ(IPAddr_Drvk_GetLoopBackInfo(kGeNode2, &info), 0x40010001u);
    std::uint32_t w = 0;
    EXPECT_EQ(IPAddr_Drvk_GetDbgInfo(2, 7, &w), 0x40010001u);
    EXPECT_EQ(IPAddr_Drvk_GetDbgInfo(1, 7, &w), 0u);
}

}  // namespace
}  // namespace e2e

namespace e2e {
namespace {

using ThreadsE2E = SimTest;

TEST_F(ThreadsE2E, EveryThreadHasItsOwnDeviceConnection) {
    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&ok, t] {
            const char* addrs[] = {"10.1.1.1", "10.2.1.1", "192.168.0.1", "1.1.1.1"};
            const std::uint32_t want[] = {kGe1, kGeNode2, kMgmt, kLoop0};
            for (int i = 0; i < 200; ++i) {
                IPAddrInfo info{};
                if (lookup_any(ip(addrs[t]), &info) == 0 && info.stEntry.stKey.uiIfIndex == want[t]) ++ok;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(ok.load(), 800);
}

}  // namespace
}  // namespace e2e
