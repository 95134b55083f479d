// The ND VSI predicates over a stand-in layer-2 VPN library: an AC interface and service in
// a VSI, a VSI interface in a VSI, and a VSI's VXLAN id, with the library's answers scripted
// and its arguments recorded.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>

#include "ipclient/nd.h"
#include "ipplat/testctl.h"
#include "support/neigh_directory.hpp"
#include "support/neigh_events_fixture.hpp"

namespace ipt {
namespace {

using NdEventsTest = neigh::NeighEventsTest<neigh::NdEvents>;

// ---- VSI predicates over a stand-in layer-2 VPN library --------------------------------

struct VsiScript {
    std::uint32_t index_status;
    std::uint32_t index_if_number;
    std::uint32_t key_status;
    std::uint32_t key_vsi_index;
    std::uint32_t key_link_id;
    std::uint32_t vxlan;
};
struct VsiSeen {
    std::uint32_t index_calls;
    char index_name[64];
    std::uint32_t index_ifindex;
    int index_cleared;
    std::uint32_t key_calls;
    const void* key_evc;
    std::uint32_t key_vsi_arg;
    int key_cleared;
    std::uint32_t vxlan_calls;
    std::uint32_t vxlan_arg;
};
using VsiSetFn = void (*)(const VsiScript*);
using VsiSeenFn = void (*)(VsiSeen*);

void add_interface(std::uint32_t ifindex, const char* name) {
    add_to_directory(interface_entry(ifindex, 0x11, 0, name));
}

class NdEventsVsiTest : public NdEventsTest {
protected:
    ARP_L2VPN_FUNC_S table_{};
    void* handle_ = nullptr;
    VsiSetFn set_ = nullptr;
    VsiSeenFn seen_ = nullptr;

    void SetUp() override {
        ipp_dlopen_redirect("/lib/libl2vpn.so", FAKE_L2VPN_VSI_PATH);
        ASSERT_EQ(ARP_L2VPNAddRef(&table_, &handle_), 0u);
        set_ = reinterpret_cast<VsiSetFn>(dlsym(handle_, "ndvsi_set"));
        seen_ = reinterpret_cast<VsiSeenFn>(dlsym(handle_, "ndvsi_seen"));
        ASSERT_NE(set_, nullptr);
        ASSERT_NE(seen_, nullptr);
    }
    void TearDown() override {
        ARP_L2VPNRelease(handle_);
        NdEventsTest::TearDown();
    }
    void script(const VsiScript& s) { set_(&s); }
    VsiSeen seen() {
        VsiSeen s{};
        seen_(&s);
        return s;
    }
};

struct EvcKey {
    std::uint32_t words[4] = {0x11, 0x22, 0x33, 0x44};
};

TEST_F(NdEventsVsiTest, AcIfAndSrvIdInVsiWhenTheKeyNamesThatVsi) {
    const EvcKey evc;
    script({0, 0, 0, 0x00000C0Du, 7, 0});
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, &evc, 0x0C0D), 1u);
    const VsiSeen s = seen();
    EXPECT_EQ(s.key_calls, 1u);
    EXPECT_EQ(s.key_evc, &evc) << "the key is passed through";
    EXPECT_EQ(s.key_vsi_arg, 0x0C0Du);
    EXPECT_EQ(s.key_cleared, 1) << "the 64-bit result is zeroed before the call";
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, &evc, 0x0C0E), 0u) << "another VSI";
}

TEST_F(NdEventsVsiTest, AcIfAndSrvIdInVsiIsFalseOnFailureOrNoVsi) {
    const EvcKey evc;
    script({0, 0, 0x40010001u, 5, 7, 0});
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, &evc, 5), 0u);
    script({0, 0, 0, 0xFFFFFFFFu, 7, 0});
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, &evc, 0xFFFFFFFFu), 0u) << "the index of no VSI never matches";
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, nullptr, 5), 0u);
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(nullptr, &evc, 5), 0u);
    table_.pfGetL2vifKeyByEvcKey = nullptr;
    script({0, 0, 0, 5, 7, 0});
    EXPECT_EQ(ND_IsAcIfAndSrvIDInVsi(&table_, &evc, 5), 0u) << "an empty slot";
    EXPECT_EQ(seen().key_calls, 0u);
}

TEST_F(NdEventsVsiTest, VsiIfInVsiComparesAgainstTheIndexOfVsiInterfaceFive) {
    add_interface(0x0102, "Vsi-interface50");
    add_interface(0x0304, "Vsi-interface5");
    add_interface(0x0506, "Vsi-interface6");
    script({0, 5, 0, 0, 0, 0});
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi-green", 0x0304), 1u);
    VsiSeen s = seen();
    EXPECT_EQ(s.index_calls, 1u);
    EXPECT_STREQ(s.index_name, "vsi-green");
    EXPECT_EQ(s.index_ifindex, 0x0304u) << "asked on behalf of the interface";
    EXPECT_EQ(s.index_cleared, 1) << "the 168-byte result is zeroed before the call";
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi-green", 0x0102), 0u);
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi-green", 0x0506), 0u);
    s = seen();
    EXPECT_EQ(s.index_cleared, 1) << "cleared again on every call";
}

TEST_F(NdEventsVsiTest, VsiIfInVsiIsFalseOnFailureNoInterfaceOrAnUnknownNameExceptForIndexZero) {
    add_interface(0x0304, "Vsi-interface5");
    add_interface(0x0777, "Vsi-interface-1");
    script({0x40010001u, 5, 0, 0, 0, 0});
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi", 0x0304), 0u);
    script({0, 0xFFFFFFFFu, 0, 0, 0, 0});
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi", 0x0777), 0u) << "no interface";
    script({0, 9, 0, 0, 0, 0});  // no interface is named Vsi-interface9: the lookup gives 0
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi", 9), 0u);
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi", 0), 1u) << "0 from the lookup equals interface index 0";
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, nullptr, 0x0304), 0u);
    EXPECT_EQ(ND_IsVsiIfInVsi(nullptr, "vsi", 0x0304), 0u);
    table_.pfGetVsiIndexByName = nullptr;
    script({0, 5, 0, 0, 0, 0});
    EXPECT_EQ(ND_IsVsiIfInVsi(&table_, "vsi", 0x0304), 0u) << "an empty slot";
    EXPECT_EQ(seen().index_calls, 0u);
}

TEST_F(NdEventsVsiTest, VsiContainVxlanIdUnlessTheLibraryAnswersNone) {
    script({0, 0, 0, 0, 0, 0x00ABCDEFu});
    EXPECT_EQ(ND_IsVsiContainVxlanID(&table_, 0x0102), 1u);
    EXPECT_EQ(seen().vxlan_arg, 0x0102u);
    script({0, 0, 0, 0, 0, 0});
    EXPECT_EQ(ND_IsVsiContainVxlanID(&table_, 3), 1u) << "VXLAN id 0 is an id";
    script({0, 0, 0, 0, 0, 0xFFFFFFFFu});
    EXPECT_EQ(ND_IsVsiContainVxlanID(&table_, 3), 0u);
    EXPECT_EQ(ND_IsVsiContainVxlanID(nullptr, 3), 0u);
    table_.pfGetVxlanByVsiIndex = nullptr;
    script({0, 0, 0, 0, 0, 1});
    EXPECT_EQ(ND_IsVsiContainVxlanID(&table_, 3), 0u) << "an empty slot";
    EXPECT_EQ(seen().vxlan_calls, 0u);
}

}  // namespace
}  // namespace ipt
