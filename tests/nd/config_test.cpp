// ND interface configuration and display: the interface type lists, the configuration
// record's request and conversion, the display text byte for byte, the global parameter
// getters and the MAD ND display.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ipclient/nd.h"
#include "ipplat/platform.h"
#include "ipplat/testctl.h"
#include "nd/if_hooks.hpp"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

using nd_if_hooks::Kind;

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kModuleMsg = 0x110001u;
constexpr std::uint32_t kIfConfig = 0x110002u;
constexpr std::uint16_t kMaster = 0x0006;
constexpr std::uint32_t kIf = 0x00A0B0C0u;

void add_interface(std::uint32_t ifindex, std::uint32_t type, std::uint8_t l2 = 0) {
    ipp_interface itf{};
    itf.ifindex = ifindex;
    itf.node = kMaster;
    itf.type = type;
    itf.valid = 1;
    itf.visible = 1;
    itf.configured = 1;
    itf.l2 = l2;
    ipp_dir_add_interface(&itf);
}

Bytes module_head(std::uint32_t op) {
    Bytes b;
    put32(b, op);
    put32(b, 8);
    return b;
}

class NdConfigTest : public PlatformTest {
protected:
    NdConfigTest() {
        ipp_dir_set_master_ep(kMaster);
        ipp_dir_set_local_node(0x0002);
        add_interface(kIf, 22);
        nd_if_hooks::reset();
    }

    void expect_call(const KernelCall& c, std::uint32_t command, const Bytes& request, std::uint32_t cap) {
        EXPECT_EQ(c.node, kMaster);
        EXPECT_EQ(c.command, command);
        EXPECT_EQ(c.request, request);
        EXPECT_EQ(c.reply_cap, cap);
        EXPECT_FALSE(c.async);
        EXPECT_FALSE(c.reply_null);
        EXPECT_FALSE(c.returned_len_null);
    }

    FakeKernel kernel;
};

// ---- Interface types ------------------------------------------------------------------------

const std::vector<std::uint32_t> kL3{22, 23, 25, 70, 71, 41, 55, 47, 67, 35, 39, 31, 26, 28, 29,
                                     89, 42, 97, 86, 105, 110, 111, 27, 10, 122, 124, 144, 168, 176};
const std::vector<std::uint32_t> kRa{22, 23, 25, 70, 71, 41, 55, 47, 67, 35, 39, 31, 86,
                                     89, 97, 105, 42, 110, 27, 122, 124, 111, 144, 168, 176};
const std::vector<std::uint32_t> kRaVT{22, 23, 25, 70, 71, 41, 55, 47, 67, 35, 39, 31,
                                       86, 89, 97, 105, 42, 27, 122, 124, 111, 144, 168, 176};
const std::vector<std::uint32_t> kRaRETH{22, 23, 25, 70, 71, 41, 55, 47, 67, 35, 39, 31,
                                         86, 89, 97, 105, 110, 27, 122, 124, 111, 144, 168, 176};
const std::vector<std::uint32_t> kAdv{22, 23, 25, 70, 71, 41, 55, 47, 67, 89,
                                      97, 105, 110, 111, 122, 124, 144, 168, 176};

TEST_F(NdConfigTest, InterfaceOfType10IsConcernedAndType40IsNot) {
    add_interface(0x10, 10);
    add_interface(0x40, 40);
    EXPECT_EQ(nd_IsConcernedL3If(0x10), 1u);
    EXPECT_EQ(nd_IsConcernedL3If(0x40), 0u);
}

TEST_F(NdConfigTest, EveryLayer3TypeIsConcernedAndAnUnreadableTypeIsNot) {
    for (const std::uint32_t t : kL3) {
        add_interface(0x77, t);
        EXPECT_EQ(nd_IsConcernedL3If(0x77), 1u) << t;
    }
    ipp_dir_fail_item(0x77, IF_DATA_TYPE, 0x40010007u);
    EXPECT_EQ(nd_IsConcernedL3If(0x77), 0u);
    EXPECT_EQ(nd_IsConcernedL3If(0x12345), 0u);  // unknown interface
}

struct Selector {
    const char* name;
    uint32_t (*fn)(struct IF_SELECT_S*);
    const std::vector<std::uint32_t>* types;
};

TEST_F(NdConfigTest, EachSelectorAddsItsTypesOnceInTheListedOrder) {
    const Selector selectors[] = {{"L3", ND_SelectL3IfType, &kL3},
                                  {"RA", ND_RA_SelectL3IfType, &kRa},
                                  {"RA+VT", ND_RA_SelectL3IfTypeIncludeVT, &kRaVT},
                                  {"RA+RETH", ND_RA_SelectL3IfTypeIncludeRETH, &kRaRETH},
                                  {"advertise", ND_SelectL3IfTypeForRtAdvertise, &kAdv}};
    for (const Selector& s : selectors) {
        nd_if_hooks::reset();
        IF_SELECT_S sel{};
        EXPECT_EQ(s.fn(&sel), kOk) << s.name;
        EXPECT_EQ(nd_if_hooks::values(Kind::kSetType), *s.types) << s.name;
        for (std::uint32_t t = 0; t < 256; ++t) {
            const bool want = std::find(s.types->begin(), s.types->end(), t) != s.types->end();
            EXPECT_EQ(IF_SelectType_Check(t, &sel), want ? 1u : 0u) << s.name << " type " << t;
        }
    }
}

TEST_F(NdConfigTest, VtListLacks110AndRethListLacks42) {
    IF_SELECT_S vt{};
    IF_SELECT_S reth{};
    ASSERT_EQ(ND_RA_SelectL3IfTypeIncludeVT(&vt), kOk);
    ASSERT_EQ(ND_RA_SelectL3IfTypeIncludeRETH(&reth), kOk);
    EXPECT_EQ(IF_SelectType_Check(110, &vt), 0u);
    EXPECT_EQ(IF_SelectType_Check(42, &vt), 1u);
    EXPECT_EQ(IF_SelectType_Check(42, &reth), 0u);
    EXPECT_EQ(IF_SelectType_Check(110, &reth), 1u);
}

TEST_F(NdConfigTest, SelectorsRejectANullSelection) {
    EXPECT_EQ(ND_SelectL3IfType(nullptr), kFailed);
    EXPECT_EQ(ND_RA_SelectL3IfType(nullptr), kFailed);
    EXPECT_EQ(ND_RA_SelectL3IfTypeIncludeVT(nullptr), kFailed);
    EXPECT_EQ(ND_RA_SelectL3IfTypeIncludeRETH(nullptr), kFailed);
    EXPECT_EQ(ND_SelectL3IfTypeForRtAdvertise(nullptr), kFailed);
}

// ---- Configuration record -------------------------------------------------------------------

struct ConfigValues {
    std::uint32_t words[12] = {0x00000BB8u, 0x00007530u, 0x08090A0Bu, 1,          200,        0x14151617u,
                               1800,        0x1C1D1E1Fu, 0,           0x24252627u, 2,          0x2C2D2E2Fu};
    std::string name = "vlan10";
    std::uint32_t w176 = 0xB0B1B2B3u, w180 = 0xB4B5B6B7u;
    std::uint8_t h184[2] = {0xB8, 0xB9};
    std::uint16_t h186 = 0xBABBu;
    std::uint32_t w188 = 0xBCBDBEBFu, w192 = 0xC0C1C2C3u, w196 = 0xC4C5C6C7u;

    void set(std::size_t offset, std::uint32_t v) { words[offset / 4] = v; }
};

Bytes config_wire(const ConfigValues& v) {
    Bytes b;
    for (const std::uint32_t w : v.words) put32(b, w);
    Bytes name(128, 0);
    std::memcpy(name.data(), v.name.data(), std::min<std::size_t>(v.name.size(), 128));
    b.insert(b.end(), name.begin(), name.end());
    put32(b, v.w176);
    put32(b, v.w180);
    putraw(b, v.h184, 2);
    put16(b, v.h186);
    put32(b, v.w188);
    put32(b, v.w192);
    put32(b, v.w196);
    return b;
}

TEST_F(NdConfigTest, IfConfigSendsTheBigEndianIndexToTheMasterEndpointAndConverts) {
    ConfigValues v;
    kernel.reply(0, config_wire(v));
    NdIfConfigInfo cfg;
    std::memset(&cfg, 0xEE, sizeof cfg);
    EXPECT_EQ(ND_GetIfConfigInfo(kIf, &cfg), kOk);
    ASSERT_EQ(kernel.count(), 1u);
    expect_call(kernel.last(), kIfConfig, Bytes{0x00, 0xA0, 0xB0, 0xC0}, 200);
    EXPECT_EQ(cfg.uiRetransInterval, 0x00000BB8u);
    EXPECT_EQ(cfg.uiReachableTime, 0x00007530u);
    EXPECT_EQ(cfg.uiWord8, 0x08090A0Bu);
    EXPECT_EQ(cfg.uiDadAttempts, 1u);
    EXPECT_EQ(cfg.uiRaInterval, 200u);
    EXPECT_EQ(cfg.uiWord20, 0x14151617u);
    EXPECT_EQ(cfg.uiRaLifetime, 1800u);
    EXPECT_EQ(cfg.uiWord28, 0x1C1D1E1Fu);
    EXPECT_EQ(cfg.uiFlags, 0u);
    EXPECT_EQ(cfg.uiWord36, 0xEEEEEEEEu);  // not copied
    EXPECT_EQ(cfg.uiDestGuardMode, 2u);
    EXPECT_EQ(cfg.uiWord44, 0x2C2D2E2Fu);
    EXPECT_STREQ(cfg.szName, "vlan10");
    EXPECT_EQ(cfg.szName[std::strlen("vlan10")], '\0');
    EXPECT_EQ(cfg.uiWord176, 0xB0B1B2B3u);
    EXPECT_EQ(cfg.uiWord180, 0xB4B5B6B7u);
    EXPECT_EQ(std::memcmp(&cfg.usHalf184, v.h184, 2), 0);  // kept as received
    EXPECT_EQ(cfg.usHalf186, 0xBABBu);
    EXPECT_EQ(cfg.uiWord188, 0xBCBDBEBFu);
    EXPECT_EQ(cfg.uiWord192, 0xC0C1C2C3u);
    EXPECT_EQ(cfg.uiWord196, 0xC4C5C6C7u);
}

TEST_F(NdConfigTest, IfConfigNameFillingAll128BytesIsCutAndTerminated) {
    ConfigValues v;
    v.name = std::string(128, 'N');
    kernel.reply(0, config_wire(v));
    NdIfConfigInfo cfg{};
    EXPECT_EQ(ND_GetIfConfigInfo(kIf, &cfg), kOk);
    EXPECT_EQ(std::string(cfg.szName), std::string(127, 'N'));
    EXPECT_EQ(cfg.uiWord176, 0xB0B1B2B3u);
}

TEST_F(NdConfigTest, IfConfigFailureReturnsTheStatusAndLeavesTheRecord) {
    kernel.reply(0x40010007u, config_wire(ConfigValues{}));
    NdIfConfigInfo cfg;
    std::memset(&cfg, 0xEE, sizeof cfg);
    EXPECT_EQ(ND_GetIfConfigInfo(kIf, &cfg), 0x40010007u);
    const std::vector<std::uint8_t> untouched(sizeof cfg, 0xEE);
    EXPECT_EQ(std::memcmp(&cfg, untouched.data(), sizeof cfg), 0);
    EXPECT_EQ(ND_GetIfConfigInfo(kIf, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 1u);
}

// ---- Display --------------------------------------------------------------------------------

class NdDisplayTest : public NdConfigTest {
protected:
    std::string show(const ConfigValues& v, std::uint32_t size, std::uint32_t* length) {
        kernel.reply(0, config_wire(v));
        std::memset(buf_, 0x7F, sizeof buf_);
        *length = ND_GetIfDisplayInfo(kIf, size, buf_);
        return std::string(buf_, strnlen(buf_, sizeof buf_));
    }
    std::string show(const ConfigValues& v) {
        std::uint32_t n = 0;
        std::string s = show(v, 1024, &n);
        EXPECT_EQ(n, s.size());
        return s;
    }

    char buf_[1100];
};

constexpr char kBase[] =
    "  ND DAD is enabled, number of DAD attempts: 1\r\n"
    "  ND reachable time is 30000 milliseconds\r\n"
    "  ND retransmit interval is 3000 milliseconds";

TEST_F(NdDisplayTest, EveryLineIsWrittenByteForByte) {
    ConfigValues v;
    v.set(32, 0x40 | 0x20 | 0x10 | 0x200 | 0x2 | 0x4 | 0x200000);
    v.set(40, 4);
    EXPECT_EQ(show(v), std::string(kBase) +
                           "\r\n  ND advertised reachable time is 30000 milliseconds"
                           "\r\n  ND advertised retransmit interval is 3000 milliseconds"
                           "\r\n  ND router advertisements are sent every 200 seconds"
                           "\r\n  ND router advertisements live for 1800 seconds"
                           "\r\n  Hosts use DHCP to obtain routable addresses"
                           "\r\n  Hosts use DHCP to obtain other configuration"
                           "\r\n  Ipv6 destination-guard enable stressed");
}

TEST_F(NdDisplayTest, WithoutFlagsOnlyTheBaseAndStatelessLinesAreShown) {
    ConfigValues v;
    v.set(12, 0);  // DAD disabled
    EXPECT_EQ(show(v),
              "  ND DAD is disabled\r\n"
              "  ND reachable time is 30000 milliseconds\r\n"
              "  ND retransmit interval is 3000 milliseconds\r\n"
              "  Hosts use stateless autoconfig for addresses");
}

TEST_F(NdDisplayTest, LifetimeWithoutConfiguredValueIsThreeTimesTheInterval) {
    ConfigValues v;
    v.set(32, 0x40);
    v.set(16, 200);
    EXPECT_EQ(show(v), std::string(kBase) +
                           "\r\n  ND advertised reachable time is 0 milliseconds"
                           "\r\n  ND advertised retransmit interval is 0 milliseconds"
                           "\r\n  ND router advertisements are sent every 200 seconds"
                           "\r\n  ND router advertisements live for 600 seconds"
                           "\r\n  Hosts use stateless autoconfig for addresses");
}

TEST_F(NdDisplayTest, BufferSizeOf10WithA300ByteTextReturnsZeroAlthoughTheTextWasWritten) {
    ConfigValues v;
    v.set(32, 0x40 | 0x4);
    std::uint32_t n = 0xFFFFu;
    const std::string text = show(v, 10, &n);
    EXPECT_EQ(n, 0u);
    EXPECT_GE(text.size(), 300u);
    EXPECT_EQ(text.rfind(kBase, 0), 0u);
    EXPECT_NE(text.find("Hosts use DHCP to obtain other configuration"), std::string::npos);
}

TEST_F(NdDisplayTest, SizeOfExactlyTheTextReturnsItsLengthAndOneLessReturnsZero) {
    ConfigValues v;
    std::uint32_t n = 0;
    const std::string text = show(v, 1024, &n);
    ASSERT_EQ(n, text.size());
    std::uint32_t again = 0;
    show(v, n, &again);
    EXPECT_EQ(again, n);
    std::uint32_t m = 0xFFFFu;
    show(v, static_cast<std::uint32_t>(text.size() - 1), &m);
    EXPECT_EQ(m, 0u);
}

TEST_F(NdDisplayTest, DestinationGuardMode3DisplaysDisable) {
    ConfigValues v;
    v.set(32, 0x200000);
    v.set(40, 3);
    const std::string text = show(v);
    EXPECT_EQ(text, std::string(kBase) +
                        "\r\n  Hosts use stateless autoconfig for addresses"
                        "\r\n  Ipv6 destination-guard disable");
}

TEST_F(NdDisplayTest, DestinationGuardModes2And4AndHiddenWithoutItsFlag) {
    ConfigValues v;
    v.set(32, 0x200000);
    v.set(40, 2);
    EXPECT_NE(show(v).find("\r\n  Ipv6 destination-guard enable"), std::string::npos);
    EXPECT_EQ(show(v).find("stressed"), std::string::npos);
    v.set(40, 4);
    EXPECT_NE(show(v).find("\r\n  Ipv6 destination-guard enable stressed"), std::string::npos);
    v.set(32, 0);
    EXPECT_EQ(show(v).find("destination-guard"), std::string::npos);
}

TEST_F(NdDisplayTest, UnreadableConfigurationIsNotSupported) {
    kernel.reply(0x40010007u, Bytes{});
    char buf[64];
    std::memset(buf, 0x7F, sizeof buf);
    const std::uint32_t n = ND_GetIfDisplayInfo(kIf, 64, buf);
    EXPECT_EQ(n, 21u);
    EXPECT_STREQ(buf, "  ND is not supported");
}

TEST_F(NdDisplayTest, LayerTwoInterfaceOrNullBufferGiveZeroWithNothingWritten) {
    add_interface(0x55, 22, 1);
    kernel.reply(0, config_wire(ConfigValues{}));
    char buf[16];
    std::memset(buf, 0x7F, sizeof buf);
    EXPECT_EQ(ND_GetIfDisplayInfo(0x55, 1024, buf), 0u);
    EXPECT_EQ(buf[0], 0x7F);
    EXPECT_EQ(ND_GetIfDisplayInfo(kIf, 1024, nullptr), 0u);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- Global parameters ----------------------------------------------------------------------

TEST_F(NdConfigTest, HopLimitIsTheReplyByteOf64OnFailure) {
    kernel.reply(0, Bytes{0xFF});
    EXPECT_EQ(ND_GetHopLimit(), 0xFF);
    expect_call(kernel.last(), kModuleMsg, module_head(1), 1);
    kernel.reply(0x40010007u, Bytes{0x20});
    EXPECT_EQ(ND_GetHopLimit(), 64);
}

struct WordGetter {
    const char* name;
    uint32_t (*fn)(uint32_t*);
    std::uint32_t op;
};

TEST_F(NdConfigTest, WordGettersSendTheirOperationAndStoreTheBigEndianWord) {
    const WordGetter getters[] = {{"stale aging", ND_GetStaleAging, 10},   {"unit", ND_GetStaleAgingUnit, 13},
                                  {"dad", ND_GetSnpDadRetTime, 31},        {"invalid", ND_GetSnpInvalidTime, 32},
                                  {"valid", ND_GetSnpValidTime, 33},       {"rate", ND_GetRate, 36}};
    for (const WordGetter& g : getters) {
        FakeKernel k;
        k.reply(0, Bytes{0x00, 0x01, 0x02, 0x03});
        std::uint32_t v = 0;
        EXPECT_EQ(g.fn(&v), kOk) << g.name;
        EXPECT_EQ(v, 0x00010203u) << g.name;
        ASSERT_EQ(k.count(), 1u);
        expect_call(k.last(), kModuleMsg, module_head(g.op), 4);

        k.reply(0x40010007u, Bytes{9, 9, 9, 9});
        v = 0x5A5A5A5Au;
        EXPECT_EQ(g.fn(&v), 0x40010007u) << g.name;
        EXPECT_EQ(v, 0x5A5A5A5Au) << g.name;
        EXPECT_EQ(g.fn(nullptr), kFailed) << g.name;
        EXPECT_EQ(k.count(), 2u);
    }
}

TEST_F(NdConfigTest, StaleAgingReads14400WhenTheModuleAnswersNothing) {
    kernel.reply(KernelReply{0, Bytes{}, 0u});
    std::uint32_t v = 0;
    EXPECT_EQ(ND_GetStaleAging(&v), kOk);
    EXPECT_EQ(v, 14400u);
}

TEST_F(NdConfigTest, RateIsStoredOnlyForANonEmptyReply) {
    kernel.reply(KernelReply{0, Bytes{}, 0u});
    std::uint32_t v = 77;
    EXPECT_EQ(ND_GetRate(&v), kOk);
    EXPECT_EQ(v, 77u);
}

TEST_F(NdConfigTest, LinkLocalMinimizeStoresOneForBit0x04Only) {
    kernel.reply(0, Bytes{0x04});
    std::uint16_t v = 0;
    EXPECT_EQ(ND_GetLinkLocalMinimize(&v), kOk);
    EXPECT_EQ(v, 1u);
    expect_call(kernel.last(), kModuleMsg, module_head(11), 1);
    kernel.reply(0, Bytes{0xFB});
    v = 9;
    EXPECT_EQ(ND_GetLinkLocalMinimize(&v), kOk);
    EXPECT_EQ(v, 9u);
    kernel.reply(0x40010007u, Bytes{0x04});
    EXPECT_EQ(ND_GetLinkLocalMinimize(&v), 0x40010007u);
    EXPECT_EQ(v, 9u);
    EXPECT_EQ(ND_GetLinkLocalMinimize(nullptr), kFailed);
}

TEST_F(NdConfigTest, IPConflictRecordStoresOneForBit0x80Only) {
    kernel.reply(0, Bytes{0x80});
    std::uint16_t v = 0;
    EXPECT_EQ(ND_GetIPConflictRecord(&v), kOk);
    EXPECT_EQ(v, 1u);
    expect_call(kernel.last(), kModuleMsg, module_head(29), 1);
    kernel.reply(0, Bytes{0x7F});
    v = 9;
    EXPECT_EQ(ND_GetIPConflictRecord(&v), kOk);
    EXPECT_EQ(v, 9u);
}

TEST_F(NdConfigTest, OnOffLogAndMoveRecordReadBits0x01And0x02) {
    kernel.reply(0, Bytes{0x01});
    std::uint16_t log = 0, move = 0;
    EXPECT_EQ(ND_GetOnOffLogAndMoveRecord(&log, &move), kOk);
    EXPECT_EQ(log, 1u);
    EXPECT_EQ(move, 0u);
    expect_call(kernel.last(), kModuleMsg, module_head(28), 1);
    kernel.reply(0, Bytes{0x02});
    log = 0;
    EXPECT_EQ(ND_GetOnOffLogAndMoveRecord(&log, &move), kOk);
    EXPECT_EQ(log, 0u);
    EXPECT_EQ(move, 1u);
    EXPECT_EQ(ND_GetOnOffLogAndMoveRecord(nullptr, &move), kFailed);
}

TEST_F(NdConfigTest, ResolvingRouteWithBitmap0Stores1) {
    kernel.reply(0, Bytes{0, 0, 0, 0});
    std::uint16_t v = 7;
    EXPECT_EQ(ND_GetResolvingRoute(&v), kOk);
    EXPECT_EQ(v, 1u);
    expect_call(kernel.last(), kModuleMsg, module_head(39), 4);
}

TEST_F(NdConfigTest, BitmapReadersUseTheirBitsWithTheirSense) {
    kernel.reply(0, Bytes{0, 0, 0x80, 0x00});
    std::uint16_t v = 7;
    EXPECT_EQ(ND_GetResolvingRoute(&v), kOk);
    EXPECT_EQ(v, 0u);
    EXPECT_EQ(ND_GetTopoChgEnable(&v), kOk);
    EXPECT_EQ(v, 1u);
    EXPECT_EQ(ND_GetRaTunnelBroadCast(&v), kOk);
    EXPECT_EQ(v, 0u);
    kernel.reply(0, Bytes{0, 0, 0x40, 0x02});
    EXPECT_EQ(ND_GetTopoChgEnable(&v), kOk);
    EXPECT_EQ(v, 0u);
    EXPECT_EQ(ND_GetRaTunnelBroadCast(&v), kOk);
    EXPECT_EQ(v, 1u);
    EXPECT_EQ(ND_GetResolvingRoute(&v), kOk);
    EXPECT_EQ(v, 1u);
}

TEST_F(NdConfigTest, BitmapReadersReturnTheFailureAndLeaveTheResult) {
    kernel.reply(0x40010007u, Bytes{0, 0, 0, 0});
    std::uint16_t v = 7;
    EXPECT_EQ(ND_GetResolvingRoute(&v), 0x40010007u);
    EXPECT_EQ(ND_GetTopoChgEnable(&v), 0x40010007u);
    EXPECT_EQ(ND_GetRaTunnelBroadCast(&v), 0x40010007u);
    EXPECT_EQ(v, 7u);
    EXPECT_EQ(ND_GetResolvingRoute(nullptr), kFailed);
}

// ---- MAD display ----------------------------------------------------------------------------

constexpr char kDb[] = "eL2MAD";
constexpr char kGroup[] = "L2MAD";
constexpr char kList[] = "nd_madCfg";  // 10 bytes with the terminator

void add_mad(const char* name, std::uint32_t key_len = sizeof kList) {
    std::uint8_t rec[64];
    std::memset(rec, 0, sizeof rec);
    std::memcpy(rec, name, std::min<std::size_t>(std::strlen(name), 48));
    std::memset(rec + 48, 0x5E, 16);
    ipp_dbm_add_record(kDb, kGroup, kList, key_len, rec, sizeof rec);
}

class NdMadTest : public PlatformTest {
protected:
    void TearDown() override {
        EXPECT_EQ(ipp_dbm_open_handles(), 0u) << "the database was left open";
        EXPECT_EQ(ipp_dbm_open_iterators(), 0u) << "an iterator was left";
        PlatformTest::TearDown();
    }

    static std::string run(std::uint16_t detail) {
        testing::internal::CaptureStdout();
        ND_MADDispalyCfg(detail);
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(NdMadTest, DetailPrintsTheHeadingAndEveryIndentedName) {
    add_mad("eth1/0/1");
    add_mad("vlan20");
    add_mad("agg3");
    EXPECT_EQ(run(1),
              "MAD ND enabled interface:\r\n"
              "  eth1/0/1\r\n"
              "  vlan20\r\n"
              "  agg3\r\n");
}

TEST_F(NdMadTest, NameOfFullyUsed48BytesIsPrintedWhole) {
    const std::string name(48, 'x');
    add_mad(name.c_str());
    EXPECT_EQ(run(2), "MAD ND enabled interface:\r\n  " + name + "\r\n");
}

TEST_F(NdMadTest, WithoutDetailPrintsOnlyEnabled) {
    add_mad("eth1/0/1");
    add_mad("vlan20");
    EXPECT_EQ(run(0), "MAD ND enabled.\r\n");
}

TEST_F(NdMadTest, NoRecordPrintsDisabled) {
    EXPECT_EQ(run(1), "MAD ND disabled.\r\n");
    EXPECT_EQ(run(0), "MAD ND disabled.\r\n");
}

TEST_F(NdMadTest, RecordsUnderAnotherKeyLengthAreNotTheList) {
    add_mad("eth1/0/1", sizeof kList - 1);
    EXPECT_EQ(run(1), "MAD ND disabled.\r\n");
}

TEST_F(NdMadTest, DatabaseThatCannotBeOpenedPrintsDisabled) {
    add_mad("eth1/0/1");
    ipp_dbm_fail_open(kDb, kGroup, 0x40010007u);
    EXPECT_EQ(run(1), "MAD ND disabled.\r\n");
}

}  // namespace
}  // namespace ipt
