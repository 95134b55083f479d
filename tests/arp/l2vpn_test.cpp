// The layer-2 VPN bridge against stand-in libraries built in the tree: loading and the 31
// slots in their fixed order, a library that lacks an entry point, one that cannot be
// loaded, balanced unloading, and the VSI predicates over scripted answers.
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "arp/fake_l2vpn.h"
#include "ipclient/arp.h"
#include "ipplat/testctl.h"
#include "support/fixture.hpp"
#include "support/neigh_directory.hpp"

namespace ipt {
namespace {

constexpr char kLib[] = "/lib/libl2vpn.so";
constexpr std::uint32_t kNone = 0xFFFFFFFFu;
constexpr std::uint32_t kNotLoadable = 0x40010005u;
constexpr std::uint32_t kMissingSymbol = 0x40010009u;

// The table's order, written out independently of the library.
constexpr std::array<const char*, 31> kSlotSymbols{{
    "L2VPN_Init", "L2VPN_Fini", "L2VPN_Register", "L2VPN_Deregister", "L2VPN_HandleMsg",
    "L2VPN_FinalStatusNotify", "L2VPN_RequestBatch", "L2VPN_GetVsiIndexByXcgName", "L2VPN_GetXcgNameByVsiIndex",
    "L2VPN_XConnOpen", "L2VPN_XConnClose", "L2VPN_GetFirstXConnByXcgName", "L2VPN_GetNextXConnByXcgName",
    "L2VPN_GetVsiIndexByName", "L2VPN_GetNextVsiByName", "L2VPN_GetNameByVsiIndex", "L2VPN_GetVsiInfoByName",
    "L2VPN_RegEvcEvent", "L2VPN_DeregEvcEvent", "L2VPN_RegL2vifEvent", "L2VPN_DeregL2vifEvent",
    "L2VPN_SelectType_Set", "L2VPN_GetL2vifKeyByEvcKey", "L2VPN_GetEvcEncap", "L2VPN_GetVxlanByVsiIndex",
    "L2VPN_GetVsiIndexByNameExt", "L2VPN_GetVsiIFByVsiIndex", "L2VPN_GetL2vifInfo", "L2VPN_IsTunnelInVsi",
    "L2VPN_GetAcByPortVlanAndEncapTypeExt", "L2VPN_GetVlanVxlanMappingByVlan",
}};
// Slots whose entry points take arguments (not called through the generic type here).
constexpr bool typed_slot(std::size_t n) { return n == 13 || n == 16 || n == 22 || n == 24; }

static_assert(sizeof(ARP_L2VPN_FUNC_S) == 31 * sizeof(void*));
static_assert(sizeof(L2VPN_VSI_INFO_S) == 168);
static_assert(sizeof(L2VPN_L2VIF_KEY_S) == 8);

void* slot(const ARP_L2VPN_FUNC_S& table, std::size_t n) {
    void* p = nullptr;
    std::memcpy(&p, reinterpret_cast<const std::uint8_t*>(&table) + n * sizeof(void*), sizeof p);
    return p;
}

// True when the library at path is mapped in this process (the probe's reference is
// dropped at once).
bool loaded(const char* path) {
    void* h = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (h == nullptr) return false;
    dlclose(h);
    return true;
}

void add_interface(std::uint32_t ifindex, const char* name) {
    add_to_directory(interface_entry(ifindex, 0x11, 0, name));
}

// An EVC key as an application holds it; the bridge passes its address through.
struct EvcKey {
    std::uint32_t words[4] = {0x11, 0x22, 0x33, 0x44};
};

class ArpL2vpnTest : public PlatformTest {
protected:
    void TearDown() override {
        EXPECT_FALSE(loaded(FAKE_L2VPN_FULL_PATH)) << "the full library is still loaded";
        EXPECT_FALSE(loaded(FAKE_L2VPN_NOMAPPING_PATH)) << "the library without the mapping is still loaded";
        EXPECT_FALSE(loaded(FAKE_L2VPN_NONAME_PATH)) << "the library without the name lookup is still loaded";
        EXPECT_FALSE(loaded(FAKE_L2VPN_LAZY_PATH)) << "the library with late bindings is still loaded";
        PlatformTest::TearDown();
    }

    // Loads the full library through the bridge and resolves the fake's controls.
    void load_full() {
        ipp_dlopen_redirect(kLib, FAKE_L2VPN_FULL_PATH);
        ASSERT_EQ(ARP_L2VPNAddRef(&table_, &handle_), IPSTATUS_OK);
        ASSERT_NE(handle_, nullptr);
        set_ = reinterpret_cast<fake_l2vpn_set_fn>(dlsym(handle_, "fake_l2vpn_set"));
        seen_fn_ = reinterpret_cast<fake_l2vpn_seen_fn>(dlsym(handle_, "fake_l2vpn_seen"));
        ASSERT_NE(set_, nullptr);
        ASSERT_NE(seen_fn_, nullptr);
    }

    void release() {
        ARP_L2VPNRelease(handle_);
        handle_ = nullptr;
    }

    void script(const fake_l2vpn_script& s) { set_(&s); }
    fake_l2vpn_seen seen() {
        fake_l2vpn_seen s{};
        seen_fn_(&s);
        return s;
    }

    ARP_L2VPN_FUNC_S table_{};
    void* handle_ = nullptr;
    fake_l2vpn_set_fn set_ = nullptr;
    fake_l2vpn_seen_fn seen_fn_ = nullptr;
};

// ---- Loading ---------------------------------------------------------------------------------

TEST_F(ArpL2vpnTest, AddRefFillsAllThirtyOneSlotsInTheirFixedOrder) {
    std::memset(&table_, 0x5C, sizeof table_);
    load_full();
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 1u);
    void* own = dlopen(FAKE_L2VPN_FULL_PATH, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(own, nullptr);
    for (std::size_t n = 0; n < kSlotSymbols.size(); ++n) {
        void* expected = dlsym(own, kSlotSymbols[n]);
        ASSERT_NE(expected, nullptr) << kSlotSymbols[n];
        EXPECT_EQ(slot(table_, n), expected) << "slot " << n << " should hold " << kSlotSymbols[n];
        if (!typed_slot(n)) {
            const auto fn = reinterpret_cast<std::uint32_t (*)()>(slot(table_, n));
            EXPECT_EQ(fn(), FAKE_L2VPN_SLOT_MARK + n) << "slot " << n;
        }
    }
    dlclose(own);
    // The named members are the same slots.
    EXPECT_EQ(reinterpret_cast<void*>(table_.pfGetVsiInfoByName), slot(table_, 16));
    EXPECT_EQ(reinterpret_cast<void*>(table_.pfGetL2vifKeyByEvcKey), slot(table_, 22));
    EXPECT_EQ(reinterpret_cast<void*>(table_.pfGetVsiIndexByName), slot(table_, 13));
    EXPECT_EQ(reinterpret_cast<void*>(table_.pfGetNameByVsiIndex), slot(table_, 15));
    EXPECT_EQ(reinterpret_cast<void*>(table_.pfGetVxlanByVsiIndex), slot(table_, 24));
    EXPECT_EQ(reinterpret_cast<void*>(table_.pfGetVlanVxlanMappingByVlan), slot(table_, 30));
    EXPECT_EQ(table_.pfGetVxlanByVsiIndex(0x00ABCDEFu), 0x00ABCDEFu);
    release();
}

TEST_F(ArpL2vpnTest, LibraryLackingOnlyTheVlanVxlanMappingGivesMissingSymbolWithOtherSlotsFilled) {
    std::memset(&table_, 0x5C, sizeof table_);
    ipp_dlopen_redirect(kLib, FAKE_L2VPN_NOMAPPING_PATH);
    EXPECT_EQ(ARP_L2VPNAddRef(&table_, &handle_), kMissingSymbol);
    ASSERT_NE(handle_, nullptr) << "the handle stays loaded for the caller to release";
    EXPECT_TRUE(loaded(FAKE_L2VPN_NOMAPPING_PATH));
    for (std::size_t n = 0; n < 30; ++n) {
        EXPECT_EQ(slot(table_, n), dlsym(handle_, kSlotSymbols[n])) << "slot " << n;
        EXPECT_NE(slot(table_, n), nullptr) << "slot " << n;
    }
    EXPECT_EQ(slot(table_, 30), nullptr);
    release();
    EXPECT_FALSE(loaded(FAKE_L2VPN_NOMAPPING_PATH));
}

TEST_F(ArpL2vpnTest, MissingSymbolInTheMiddleStillFillsTheSlotsAfterIt) {
    std::memset(&table_, 0x5C, sizeof table_);
    ipp_dlopen_redirect(kLib, FAKE_L2VPN_NONAME_PATH);
    EXPECT_EQ(ARP_L2VPNAddRef(&table_, &handle_), kMissingSymbol);
    ASSERT_NE(handle_, nullptr);
    for (std::size_t n = 0; n < kSlotSymbols.size(); ++n) {
        if (n == 15) {
            EXPECT_EQ(slot(table_, n), nullptr);
        } else {
            EXPECT_EQ(slot(table_, n), dlsym(handle_, kSlotSymbols[n])) << "slot " << n;
            EXPECT_NE(slot(table_, n), nullptr) << "slot " << n;
        }
    }
    release();
}

TEST_F(ArpL2vpnTest, LibraryThatDoesNotExistIsNotLoadableAndLeavesHandleNullAndTableUntouched) {
    ipp_dlopen_redirect(kLib, "/nonexistent/ipclient-tests/libl2vpn.so");
    std::memset(&table_, 0x5C, sizeof table_);
    handle_ = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(ARP_L2VPNAddRef(&table_, &handle_), kNotLoadable);
    EXPECT_EQ(handle_, nullptr);
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 1u);
    ARP_L2VPN_FUNC_S pattern;
    std::memset(&pattern, 0x5C, sizeof pattern);
    EXPECT_EQ(std::memcmp(&table_, &pattern, sizeof table_), 0);
}

TEST_F(ArpL2vpnTest, LoaderFailureIsNotLoadable) {
    ipp_dlopen_redirect(kLib, FAKE_L2VPN_FULL_PATH);
    ipp_fault_inject(IPP_CALL_DLOPEN, 1, ENOENT);
    handle_ = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(ARP_L2VPNAddRef(&table_, &handle_), kNotLoadable);
    EXPECT_EQ(handle_, nullptr);
    EXPECT_FALSE(loaded(FAKE_L2VPN_FULL_PATH));
}

TEST_F(ArpL2vpnTest, BindsLazilySoThatUnusedEntryPointsMayCallIntoAbsentCode) {
    // The stand-in's L2VPN_Init refers to a function that exists nowhere: binding every
    // reference at load time would refuse the library.
    void* probe = dlopen(FAKE_L2VPN_LAZY_PATH, RTLD_NOW);
    EXPECT_EQ(probe, nullptr) << "the stand-in must need lazy binding";
    if (probe != nullptr) dlclose(probe);
    ipp_dlopen_redirect(kLib, FAKE_L2VPN_LAZY_PATH);
    ASSERT_EQ(ARP_L2VPNAddRef(&table_, &handle_), IPSTATUS_OK);
    EXPECT_NE(table_.pfInit, nullptr);
    EXPECT_NE(table_.pfGetVlanVxlanMappingByVlan, nullptr);
    release();
}

TEST_F(ArpL2vpnTest, OpensTheLibraryByItsSystemPath) {
    // Only the system path is redirected: a bridge that opened anything else would miss it.
    ipp_dlopen_redirect(kLib, FAKE_L2VPN_FULL_PATH);
    load_full();
    EXPECT_TRUE(loaded(FAKE_L2VPN_FULL_PATH));
    release();
}

TEST_F(ArpL2vpnTest, NullTableOrHandlePointerFailsWithoutLoading) {
    ipp_dlopen_redirect(kLib, FAKE_L2VPN_FULL_PATH);
    void* handle = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(ARP_L2VPNAddRef(nullptr, &handle), IPSTATUS_FAILED);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(ARP_L2VPNAddRef(&table_, nullptr), IPSTATUS_FAILED);
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 0u);
    EXPECT_FALSE(loaded(FAKE_L2VPN_FULL_PATH));
}

TEST_F(ArpL2vpnTest, ReleaseUnloadsTheLibrary) {
    load_full();
    EXPECT_TRUE(loaded(FAKE_L2VPN_FULL_PATH));
    release();
    EXPECT_FALSE(loaded(FAKE_L2VPN_FULL_PATH));
}

TEST_F(ArpL2vpnTest, ReleaseWithNullHandleDoesNothing) {
    load_full();
    ARP_L2VPNRelease(nullptr);
    EXPECT_TRUE(loaded(FAKE_L2VPN_FULL_PATH)) << "a null release must not drop the caller's reference";
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 1u);
    release();
    EXPECT_FALSE(loaded(FAKE_L2VPN_FULL_PATH));
}

TEST_F(ArpL2vpnTest, EveryAddRefTakesOneReferenceAndEveryReleaseDropsOne) {
    ipp_dlopen_redirect(kLib, FAKE_L2VPN_FULL_PATH);
    ARP_L2VPN_FUNC_S first{}, second{};
    void* h1 = nullptr;
    void* h2 = nullptr;
    ASSERT_EQ(ARP_L2VPNAddRef(&first, &h1), IPSTATUS_OK);
    ASSERT_EQ(ARP_L2VPNAddRef(&second, &h2), IPSTATUS_OK);
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 2u);
    EXPECT_EQ(h1, h2);
    EXPECT_EQ(std::memcmp(&first, &second, sizeof first), 0);
    ARP_L2VPNRelease(h1);
    EXPECT_TRUE(loaded(FAKE_L2VPN_FULL_PATH));
    ARP_L2VPNRelease(h2);
    EXPECT_FALSE(loaded(FAKE_L2VPN_FULL_PATH));
}

// ---- ARP_IsVsiIfInVsi ------------------------------------------------------------------------

TEST_F(ArpL2vpnTest, VsiIfInVsiComparesAgainstTheIndexOfVsiInterfaceFive) {
    add_interface(0x0102, "Vsi-interface50");
    add_interface(0x0304, "Vsi-interface5");
    add_interface(0x0506, "Vsi-interface6");
    load_full();
    script({0, 0x01020304u, 5, 0, 0, 0});
    EXPECT_EQ(ARP_IsVsiIfInVsi(&table_, "vsi-blue", 0x0304), 1u);
    EXPECT_EQ(seen().info_calls, 1u);
    EXPECT_STREQ(seen().info_name, "vsi-blue");
    EXPECT_EQ(ARP_IsVsiIfInVsi(&table_, "vsi-blue", 0x0102), 0u);
    EXPECT_EQ(ARP_IsVsiIfInVsi(&table_, "vsi-blue", 0x0506), 0u);
    release();
}

TEST_F(ArpL2vpnTest, VsiIfInVsiClearsTheInformationRecordBeforeEveryCall) {
    add_interface(0x0304, "Vsi-interface5");
    load_full();
    script({0, 7, 5, 0, 0, 0});
    for (int i = 0; i < 3; ++i) {
        // The stand-in fills the whole record on each call: a record not cleared shows it.
        EXPECT_EQ(ARP_IsVsiIfInVsi(&table_, "vsi", 0x0304), 1u);
        EXPECT_EQ(seen().info_cleared, 1) << "call " << i;
    }
    release();
}

TEST_F(ArpL2vpnTest, VsiIfInVsiFailureOfTheLookupIsFalse) {
    add_interface(0x0304, "Vsi-interface5");
    load_full();
    script({0x40010001u, 7, 5, 0, 0, 0});  // the record is written all the same
    EXPECT_EQ(ARP_IsVsiIfInVsi(&table_, "vsi", 0x0304), 0u);
    EXPECT_EQ(seen().info_calls, 1u);
    release();
}

TEST_F(ArpL2vpnTest, VsiIfInVsiWithoutInterfaceIsFalse) {
    // Formatted as a number the missing interface would read "Vsi-interface-1".
    add_interface(0x0777, "Vsi-interface-1");
    load_full();
    script({0, 7, kNone, 0, 0, 0});
    EXPECT_EQ(ARP_IsVsiIfInVsi(&table_, "vsi", 0x0777), 0u);
    release();
}

TEST_F(ArpL2vpnTest, VsiIfInVsiFormatsTheNumberAsSigned) {
    add_interface(0x0888, "Vsi-interface-2");
    load_full();
    script({0, 7, 0xFFFFFFFEu, 0, 0, 0});
    EXPECT_EQ(ARP_IsVsiIfInVsi(&table_, "vsi", 0x0888), 1u);
    release();
}

TEST_F(ArpL2vpnTest, VsiIfInVsiUnknownInterfaceNameMatchesOnlyIndexZero) {
    load_full();
    script({0, 7, 9, 0, 0, 0});  // no interface is named Vsi-interface9: the lookup gives 0
    EXPECT_EQ(ARP_IsVsiIfInVsi(&table_, "vsi", 0), 1u);
    EXPECT_EQ(ARP_IsVsiIfInVsi(&table_, "vsi", 9), 0u);
    release();
}

TEST_F(ArpL2vpnTest, VsiIfInVsiNullArgumentsOrEmptySlotAreFalse) {
    add_interface(0x0304, "Vsi-interface5");
    load_full();
    script({0, 7, 5, 0, 0, 0});
    EXPECT_EQ(ARP_IsVsiIfInVsi(nullptr, "vsi", 0x0304), 0u);
    EXPECT_EQ(ARP_IsVsiIfInVsi(&table_, nullptr, 0x0304), 0u);
    ARP_L2VPN_FUNC_S partial = table_;
    partial.pfGetVsiInfoByName = nullptr;
    EXPECT_EQ(ARP_IsVsiIfInVsi(&partial, "vsi", 0x0304), 0u);
    EXPECT_EQ(seen().info_calls, 0u);
    EXPECT_EQ(ARP_IsVsiIfInVsi(&table_, "vsi", 0x0304), 1u);
    release();
}

// ---- ARP_IsAcIfAndSrvIDInVsiByName --------------------------------------------------------------

TEST_F(ArpL2vpnTest, AcInVsiByNameWhenTheIndexesAreEqual) {
    load_full();
    const EvcKey evc;
    script({0, 0x01020304u, kNone, 0, 0x01020304u, 0x0506});
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&table_, &evc, "vsi-red"), 1u);
    const fake_l2vpn_seen s = seen();
    EXPECT_EQ(s.key_calls, 1u);
    EXPECT_EQ(s.key_evc, static_cast<const void*>(&evc));
    EXPECT_EQ(s.key_vsi_arg, kNone);
    EXPECT_EQ(s.info_calls, 1u);
    EXPECT_STREQ(s.info_name, "vsi-red");
    script({0, 0x01020304u, kNone, 0, 0x04030201u, 0x0506});
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&table_, &evc, "vsi-red"), 0u);
    release();
}

TEST_F(ArpL2vpnTest, AcInVsiByNameKeyFailureIsFalseWithoutAskingTheVsi) {
    load_full();
    const EvcKey evc;
    script({0, 0x0102u, kNone, 0x40010001u, 0x0102u, 0});
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&table_, &evc, "vsi"), 0u);
    EXPECT_EQ(seen().info_calls, 0u);
    release();
}

TEST_F(ArpL2vpnTest, AcInVsiByNameCircuitInNoVsiIsFalseEvenAgainstAVsiOfNoIndex) {
    load_full();
    const EvcKey evc;
    script({0, kNone, kNone, 0, kNone, 0});
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&table_, &evc, "vsi"), 0u);
    EXPECT_EQ(seen().info_calls, 0u);
    release();
}

TEST_F(ArpL2vpnTest, AcInVsiByNameVsiLookupFailureIsFalse) {
    load_full();
    const EvcKey evc;
    script({0x40010001u, 0x0102u, kNone, 0, 0x0102u, 0});  // the record is written all the same
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&table_, &evc, "vsi"), 0u);
    EXPECT_EQ(seen().info_calls, 1u);
    release();
}

TEST_F(ArpL2vpnTest, AcInVsiByNameClearsBothRecords) {
    load_full();
    const EvcKey evc;
    script({0, 0x0102u, kNone, 0, 0x0102u, 3});
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&table_, &evc, "vsi"), 1u);
        EXPECT_EQ(seen().key_cleared, 1) << "call " << i;
        EXPECT_EQ(seen().info_cleared, 1) << "call " << i;
    }
    release();
}

TEST_F(ArpL2vpnTest, AcInVsiByNameNullArgumentsOrEmptySlotsAreFalse) {
    load_full();
    const EvcKey evc;
    script({0, 0x0102u, kNone, 0, 0x0102u, 3});
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(nullptr, &evc, "vsi"), 0u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&table_, nullptr, "vsi"), 0u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&table_, &evc, nullptr), 0u);
    ARP_L2VPN_FUNC_S no_key = table_;
    no_key.pfGetL2vifKeyByEvcKey = nullptr;
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&no_key, &evc, "vsi"), 0u);
    ARP_L2VPN_FUNC_S no_info = table_;
    no_info.pfGetVsiInfoByName = nullptr;
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&no_info, &evc, "vsi"), 0u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsiByName(&table_, &evc, "vsi"), 1u);
    release();
}

// ---- ARP_IsAcIfAndSrvIDInVsi ------------------------------------------------------------------

TEST_F(ArpL2vpnTest, AcInVsiByIndex) {
    load_full();
    const EvcKey evc;
    script({0, 0, kNone, 0, 0x00010203u, 0x0506});
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&table_, &evc, 0x00010203u), 1u);
    EXPECT_EQ(seen().key_evc, static_cast<const void*>(&evc));
    EXPECT_EQ(seen().key_vsi_arg, 0x00010203u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&table_, &evc, 0x03020100u), 0u);
    EXPECT_EQ(seen().info_calls, 0u);
    release();
}

TEST_F(ArpL2vpnTest, AcInVsiByIndexFailureIsFalseAlthoughTheIndexMatches) {
    load_full();
    const EvcKey evc;
    script({0, 0, kNone, 0x40010001u, 0x0203u, 0x0506});
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&table_, &evc, 0x0203u), 0u);
    release();
}

TEST_F(ArpL2vpnTest, AcInVsiByIndexNoneIsNeverAVsi) {
    load_full();
    const EvcKey evc;
    script({0, 0, kNone, 0, kNone, 0x0506});
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&table_, &evc, kNone), 0u);
    release();
}

TEST_F(ArpL2vpnTest, AcInVsiByIndexClearsTheKeyAndRefusesNullArguments) {
    load_full();
    const EvcKey evc;
    script({0, 0, kNone, 0, 0x0203u, 0x0506});
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&table_, &evc, 0x0203u), 1u);
        EXPECT_EQ(seen().key_cleared, 1) << "call " << i;
    }
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(nullptr, &evc, 0x0203u), 0u);
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&table_, nullptr, 0x0203u), 0u);
    ARP_L2VPN_FUNC_S no_key = table_;
    no_key.pfGetL2vifKeyByEvcKey = nullptr;
    EXPECT_EQ(ARP_IsAcIfAndSrvIDInVsi(&no_key, &evc, 0x0203u), 0u);
    release();
}

// ---- ARP_CheckVsiIndexAndLinkId ----------------------------------------------------------------

TEST_F(ArpL2vpnTest, CheckVsiIndexAndLinkIdStoresTheLinkId) {
    load_full();
    const EvcKey evc;
    script({0, 0, kNone, 0, 0x00A0B0C0u, 0x00010002u});
    std::uint32_t link = 0xDEADBEEFu;
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&table_, &evc, 0x00A0B0C0u, &link), 1u);
    EXPECT_EQ(link, 0x00010002u);
    EXPECT_EQ(seen().key_evc, static_cast<const void*>(&evc));
    EXPECT_EQ(seen().key_vsi_arg, 0x00A0B0C0u);
    release();
}

TEST_F(ArpL2vpnTest, CheckVsiIndexAndLinkIdRefusalsLeaveTheLinkIdUntouched) {
    load_full();
    const EvcKey evc;
    std::uint32_t link = 0xDEADBEEFu;
    script({0, 0, kNone, 0, 0x00A0B0C0u, 65535u});  // no link
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&table_, &evc, 0x00A0B0C0u, &link), 0u);
    script({0, 0, kNone, 0, 0x00A0B0C1u, 7u});  // another VSI
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&table_, &evc, 0x00A0B0C0u, &link), 0u);
    script({0, 0, kNone, 0x40010001u, 0x00A0B0C0u, 7u});  // the call fails
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&table_, &evc, 0x00A0B0C0u, &link), 0u);
    script({0, 0, kNone, 0, kNone, 7u});  // in no VSI
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&table_, &evc, kNone, &link), 0u);
    EXPECT_EQ(link, 0xDEADBEEFu);
    script({0, 0, kNone, 0, 0x00A0B0C0u, 65534u});  // the largest link id
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&table_, &evc, 0x00A0B0C0u, &link), 1u);
    EXPECT_EQ(link, 65534u);
    release();
}

TEST_F(ArpL2vpnTest, CheckVsiIndexAndLinkIdNullArgumentsAreFalse) {
    load_full();
    const EvcKey evc;
    script({0, 0, kNone, 0, 0x0203u, 7u});
    std::uint32_t link = 0;
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&table_, &evc, 0x0203u, nullptr), 0u);
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(nullptr, &evc, 0x0203u, &link), 0u);
    EXPECT_EQ(ARP_CheckVsiIndexAndLinkId(&table_, nullptr, 0x0203u, &link), 0u);
    EXPECT_EQ(seen().key_calls, 0u);
    EXPECT_EQ(link, 0u);
    release();
}

}  // namespace
}  // namespace ipt
