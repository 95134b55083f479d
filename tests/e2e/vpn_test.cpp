// The layer-2 and layer-3 VPN libraries of the simulated device: loaded through the
// library's bridge in place of the device's /lib/libl2vpn.so and /lib/libl3vpn.so, answering
// the VSI predicates and the VRF names from the running simulator's scenario.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "e2e/e2e_support.hpp"
#include "ipclient/arp.h"
#include "ipclient/fib.h"
#include "ipclient/nd.h"
#include "ipplat/platform.h"
#include "ipplat/testctl.h"
#include "support/statuses.hpp"

namespace e2e {
namespace {

// Interface Vsi-interface1 of the default scenario, the interface of VSI vsi-a (index 1,
// VXLAN 5001, one circuit: service 10 on GigabitEthernet1/0/1 with link id 1).
constexpr std::uint32_t kVsiIf1 = 8;

// The EVC key of an attachment circuit as the simulated device's library reads it: the
// interface index and the service instance, 32-bit words in host order.
struct EvcKey {
    std::uint32_t ifindex;
    std::uint32_t service;
};
static_assert(sizeof(EvcKey) == 8);


// The table filled by the bridge, released at the end of the test.
class Table {
public:
    Table() { status = ARP_L2VPNAddRef(&fn, &handle); }
    ~Table() { ARP_L2VPNRelease(handle); }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    ARP_L2VPN_FUNC_S fn{};
    void* handle = nullptr;
    std::uint32_t status = 0;
};

std::uint32_t word_at(const std::uint8_t* record, std::size_t offset) {
    std::uint32_t v = 0;
    std::memcpy(&v, record + offset, sizeof v);
    return v;
}

using VpnE2E = SimTest;

TEST_F(VpnE2E, BridgeLoadsTheDeviceLibraryWithEveryEntryPoint) {
    Table t;
    ASSERT_EQ(t.status, 0u);
    ASSERT_NE(t.handle, nullptr);
    for (std::size_t slot = 0; slot < L2VPN_FUNC_COUNT; ++slot) {
        void* entry = nullptr;
        std::memcpy(&entry, reinterpret_cast<const std::uint8_t*>(&t.fn) + ARP_L2VPN_SLOT_OFFSET(slot), sizeof entry);
        EXPECT_NE(entry, nullptr) << "slot " << slot;
    }
    // The entry points the device does not serve answer the general failure.
    using Plain = std::uint32_t (*)(void);
    EXPECT_EQ(reinterpret_cast<Plain>(t.fn.pfInit)(), kFailed);
    EXPECT_EQ(reinterpret_cast<Plain>(t.fn.pfGetVlanVxlanMappingByVlan)(), kFailed);
}

TEST_F(VpnE2E, ArpPredicatesAnswerForTheScenarioVsiOnly) {
    ASSERT_EQ(IF_GetIfIndexByFullName("Vsi-interface1"), kVsiIf1);
    Table t;
    ASSERT_EQ(t.status, 0u);

    EXPECT_EQ(ARP_IsVsiIfInVsi(&t.fn, "vsi-a", kVsiIf1), 1u);
    EXPECT_EQ(ARP_IsVsiIfInVsi(&t.fn, "vsi-a", kGe1), 0u);
    EXPECT_EQ(ARP_IsVsiIfInVsi(&t.fn, "vsi-z", kVsiIf1), 0u);

    const EvcKey circuit{kGe1, 10};
    const EvcKey other_service{kGe1, 11};
    const EvcKey other_port{kGeVpn, 10};
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&t.fn, &circuit, "vsi-a"), 1u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&t.fn, &circuit, "vsi-z"), 0u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&t.fn, &other_service, "vsi-a"), 0u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&t.fn, &other_port, "vsi-a"), 0u);

    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&t.fn, &circuit, 1), 1u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&t.fn, &circuit, 2), 0u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&t.fn, &other_service, 1), 0u);

    std::uint32_t link = 0xABCDu;
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&t.fn, &circuit, 1, &link), 1u);
    EXPECT_EQ(link, 1u);
    link = 0xABCDu;
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&t.fn, &circuit, 2, &link), 0u);
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&t.fn, &other_port, 1, &link), 0u);
    EXPECT_EQ(link, 0xABCDu) << "a refusal leaves the link id alone";
}

TEST_F(VpnE2E, NdPredicatesAnswerForTheScenarioVsiOnly) {
    Table t;
    ASSERT_EQ(t.status, 0u);
    const EvcKey circuit{kGe1, 10};
    const EvcKey other_service{kGe1, 12};
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&t.fn, &circuit, 1), 1u);
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&t.fn, &circuit, 3), 0u);
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&t.fn, &other_service, 1), 0u);
    EXPECT_EQ(ND_IsVsiIfInVsi(&t.fn, "vsi-a", kVsiIf1), 1u);
    EXPECT_EQ(ND_IsVsiIfInVsi(&t.fn, "vsi-a", kVlan1), 0u);
    EXPECT_EQ(ND_IsVsiIfInVsi(&t.fn, "vsi-z", kVsiIf1), 0u);
    EXPECT_EQ(ND_IsVsiContainVxlanID(&t.fn, 1), 1u);
    EXPECT_EQ(ND_IsVsiContainVxlanID(&t.fn, 2), 0u);
}

TEST_F(VpnE2E, EntryPointsFillTheRecordsTheBridgeReads) {
    Table t;
    ASSERT_EQ(t.status, 0u);
    L2VPN_VSI_INFO_S info{};
    ASSERT_EQ(t.fn.pfGetVsiInfoByName("vsi-a", &info), 0u);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&info);
    EXPECT_EQ(word_at(bytes, 0), 1u) << "VSI index";
    EXPECT_STREQ(reinterpret_cast<const char*>(bytes + 4), "vsi-a");
    EXPECT_EQ(word_at(bytes, 36), 5001u) << "VXLAN id";
    EXPECT_EQ(word_at(bytes, 40), 1u) << "attachment circuits";
    EXPECT_EQ(word_at(bytes, 68), 1u) << "N of Vsi-interfaceN";

    L2VPN_VSI_INFO_S untouched{};
    EXPECT_EQ(t.fn.pfGetVsiIndexByName("vsi-z", &untouched, kVsiIf1), kFailed);
    EXPECT_EQ(word_at(reinterpret_cast<const std::uint8_t*>(&untouched), 68), 0u);

    const EvcKey circuit{kGe1, 10};
    L2VPN_L2VIF_KEY_S key{};
    ASSERT_EQ(t.fn.pfGetL2vifKeyByEvcKey(&circuit, &key, L2VPN_VSI_INDEX_NONE), 0u);
    EXPECT_EQ(key.uiVsiIndex, 1u);
    EXPECT_EQ(key.uiLinkId, 1u);
    const EvcKey stray{kGe1, 99};
    EXPECT_EQ(t.fn.pfGetL2vifKeyByEvcKey(&stray, &key, 1), kFailed);
    EXPECT_EQ(key.uiVsiIndex, L2VPN_VSI_INDEX_NONE);
    EXPECT_EQ(key.uiLinkId, L2VPN_LINK_ID_NONE);

    EXPECT_EQ(t.fn.pfGetVxlanByVsiIndex(1), 5001u);
    EXPECT_EQ(t.fn.pfGetVxlanByVsiIndex(4), 0xFFFFFFFFu);
}

TEST_F(VpnE2E, ControlChannelDescribesVsisCircuitsAndVrfs) {
    const auto vsi = control({{"op", "vpn.vsi"}, {"index", 1}});
    ASSERT_EQ(vsi.value("ok", false), true) << vsi.dump();
    EXPECT_EQ(vsi["name"], "vsi-a");
    EXPECT_EQ(vsi["vsi_interface"], 1);
    EXPECT_EQ(vsi["vxlan"], 5001);
    ASSERT_EQ(vsi["circuits"].size(), 1u);
    EXPECT_EQ(vsi["circuits"][0]["interface"], kGe1);
    EXPECT_EQ(vsi["circuits"][0]["service"], 10);
    EXPECT_EQ(vsi["circuits"][0]["link"], 1);

    const auto circuit = control({{"op", "vpn.circuit"}, {"interface", kGe1}, {"service", 10}});
    ASSERT_EQ(circuit.value("ok", false), true) << circuit.dump();
    EXPECT_EQ(circuit["vsi"], 1);
    EXPECT_EQ(circuit["link"], 1);

    const auto vrf = control({{"op", "vpn.vrf"}, {"index", 1}});
    ASSERT_EQ(vrf.value("ok", false), true) << vrf.dump();
    EXPECT_EQ(vrf["name"], "vpn-a");
    EXPECT_EQ(control({{"op", "vpn.vrf"}, {"index", 0}})["name"], "public");

    const auto missing = control({{"op", "vpn.vsi"}, {"name", "vsi-z"}});
    EXPECT_EQ(missing.value("ok", true), false);
    EXPECT_EQ(missing.value("error", ""), "no VSI named vsi-z");
    EXPECT_EQ(control({{"op", "vpn.vrf"}, {"index", 9}}).value("error", ""), "no VRF 9");
    EXPECT_EQ(control({{"op", "vpn.circuit"}, {"interface", kGe1}, {"service", -1}}).value("ok", true), false);
}

TEST_F(VpnE2E, TestRedirectWinsOverTheDeviceLibrary) {
    // In a child process, so that the redirect ends with it.
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ipp_dlopen_redirect("/lib/libl2vpn.so", nullptr);
        ARP_L2VPN_FUNC_S fn{};
        void* handle = &fn;
        const std::uint32_t rc = ARP_L2VPNAddRef(&fn, &handle);
        ::_exit(rc == 0x40010005u && handle == nullptr ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the redirected library is missing";
}

TEST_F(VpnE2E, LoadedLibraryAnswersNoOnceTheSimulatorIsGone) {
    Table t;
    ASSERT_EQ(t.status, 0u);
    const EvcKey circuit{kGe1, 10};
    ASSERT_EQ(ARP_IsAcIfAndSrvIDInVsi(&t.fn, &circuit, 1), 1u);
    ASSERT_EQ(sim.stop(), 0) << sim.log();
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&t.fn, &circuit, 1), 0u);
    EXPECT_EQ(ND_IsVsiContainVxlanID(&t.fn, 1), 0u);
    L2VPN_VSI_INFO_S info{};
    EXPECT_EQ(t.fn.pfGetVsiInfoByName("vsi-a", &info), kFailed);
    // Without a simulator the device's own path is tried, and it is not there.
    ARP_L2VPN_FUNC_S again{};
    void* handle = nullptr;
    EXPECT_EQ(ARP_L2VPNAddRef(&again, &handle), 0x40010005u);
    EXPECT_EQ(handle, nullptr);
}

// A device with three VSIs: one without an interface or a VXLAN id whose circuit has no
// link id, and one whose interface is Vsi-interface5.
class VpnScenarioE2E : public SimTest {
protected:
    std::vector<std::string> args() override {
        const std::string text = R"(
nodes:
  - {number: 1, role: master}
vrfs:
  - {index: 3, name: vpn-c}
interfaces:
  - {index: 1, name: GigabitEthernet1/0/1, node: 1, type: ethernet}
  - {index: 2, name: GigabitEthernet1/0/2, node: 1, type: ethernet}
  - {index: 20, name: Vsi-interface5, node: 1, type: vsi-interface}
vsis:
  - name: plain
    index: 7
    circuits:
      - {interface: GigabitEthernet1/0/2, service: 20}
  - name: fifth
    index: 300
    vsi_interface: 5
    vxlan: 0
    circuits:
      - {interface: 1, service: 4096, link: 0}
  - {name: empty, index: 0}
routes:
  - {vrf: vpn-c, prefix: 10.3.0.0/16, interface: GigabitEthernet1/0/2}
)";
        return {"--scenario", temp_file("vpn.yaml", text)};
    }
};

TEST_F(VpnScenarioE2E, CircuitsWithoutLinksAndVsisWithoutInterfaces) {
    Table t;
    ASSERT_EQ(t.status, 0u);
    const EvcKey no_link{2, 20};
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&t.fn, &no_link, 7), 1u);
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&t.fn, &no_link, 7), 1u);
    std::uint32_t link = 77;
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&t.fn, &no_link, 7, &link), 0u) << "the circuit has no link id";
    EXPECT_EQ(link, 77u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&t.fn, &no_link, "plain"), 1u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&t.fn, &no_link, "fifth"), 0u);

    // Link id 0 is a link id; VXLAN id 0 is a VXLAN id.
    const EvcKey linked{1, 4096};
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&t.fn, &linked, 300, &link), 1u);
    EXPECT_EQ(link, 0u);
    EXPECT_EQ(ND_IsVsiContainVxlanID(&t.fn, 300), 1u);
    EXPECT_EQ(ND_IsVsiContainVxlanID(&t.fn, 7), 0u);
    EXPECT_EQ(ND_IsVsiContainVxlanID(&t.fn, 0), 0u);

    // An interface without a number never matches, not even interface index 0.
    EXPECT_EQ(ARP_IsVsiIfInVsi(&t.fn, "plain", 0), 0u);
    EXPECT_EQ(ND_IsVsiIfInVsi(&t.fn, "plain", 0), 0u);
    EXPECT_EQ(ARP_IsVsiIfInVsi(&t.fn, "fifth", 20), 1u);
    EXPECT_EQ(ND_IsVsiIfInVsi(&t.fn, "fifth", 20), 1u);
    EXPECT_EQ(ARP_IsVsiIfInVsi(&t.fn, "fifth", 1), 0u);

    // VSI index 0 is a VSI like any other.
    L2VPN_VSI_INFO_S info{};
    ASSERT_EQ(t.fn.pfGetVsiInfoByName("empty", &info), 0u);
    EXPECT_EQ(info.uiVsiIndex, 0u);
    EXPECT_EQ(info.uiVsiIfNumber, L2VPN_VSI_IF_NONE);
    EXPECT_EQ(word_at(reinterpret_cast<const std::uint8_t*>(&info), 36), 0xFFFFFFFFu);
    EXPECT_EQ(word_at(reinterpret_cast<const std::uint8_t*>(&info), 40), 0u);
}

TEST_F(VpnScenarioE2E, ForwardingTableNamesTheVrfsOfTheScenario) {
    EXPECT_EQ(control({{"op", "vpn.vrf"}, {"index", 3}}).value("name", ""), "vpn-c");
    EXPECT_EQ(control({{"op", "vpn.vrf"}, {"index", 1}}).value("error", ""), "no VRF 1");
    const std::string path = sim.state_dir() + "/fib.txt";
    ASSERT_EQ(FIB_SaveForwardingTable(path.c_str()), 0u);
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(),
              "[FIB Info]\r\n"
              "{0, 0, 0}, {vpn-c, 10.3.0.0/16} -> {0.0.0.0, GigabitEthernet1/0/2, Null}, "
              "{00-00-00-00-00-00, 00-e0-fc-00-00-02, 0/0, GigabitEthernet1/0/2}\r\n");
}

}  // namespace
}  // namespace e2e
