// Address lookups: pointer checks before anything is sent, the exact key each lookup puts
// in its request, where the request goes, and the module's answer and status handed back.
#include <gtest/gtest.h>

#include <cstring>

#include "ipclient/ipaddr.h"
#include "ipplat/testctl.h"
#include "support/addr_samples.hpp"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/kernel_call.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kOwnNode = 0xFFFF8000u;
constexpr std::uint32_t kAddressCommand = 0x260001u;
constexpr std::uint16_t kLocalNode = 0x0023;  // what LIP_GetLocalLip answers in these tests
constexpr std::uint32_t kModuleStatus = 0x5A5A0107u;  // an arbitrary failure of the module

std::uint32_t ip(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    const std::uint8_t bytes[4] = {a, b, c, d};
    std::uint32_t w;
    std::memcpy(&w, bytes, sizeof w);
    return w;
}

IPAddrKey make_key(std::uint16_t vrf, std::uint32_t ifindex, std::uint32_t addr, std::uint32_t mask,
                   std::uint32_t method) {
    IPAddrKey k{};
    k.usVrfIndex = vrf;
    k.uiIfIndex = ifindex;
    k.uiAddr = addr;
    k.uiMask = mask;
    k.uiMethod = method;
    return k;
}

// The match key as it travels: the key, the mode in the flag word, a zero reserved word.
void put_match_key(Bytes& b, const IPAddrKey& k, std::uint32_t mode) {
    IPAddrEntry e{};
    e.stKey = k;
    e.uiFlag = mode;
    put_entry(b, e);
}

Bytes wire_entry(const IPAddrEntry& e) {
    Bytes b;
    put_entry(b, e);
    return b;
}

// A second entry, different from the sample in every converted field.
IPAddrEntry other_entry() {
    IPAddrEntry e{};
    e.stKey.usVrfIndex = 0x2B2C;
    e.stKey.usReserved = 0x3D3E;
    e.stKey.uiIfIndex = 0x4A4B4C4D;
    e.stKey.uiAddr = ip(172, 16, 9, 77);
    e.stKey.uiMask = ip(255, 255, 0, 0);
    e.stKey.uiMethod = 0x00000804;
    e.uiFlag = 0x61626364;
    e.uiReserved = 0x71727374;
    return e;
}

// An entry full of a marker byte, to see what the library wrote over.
IPAddrEntry marked_entry() {
    IPAddrEntry e;
    std::memset(&e, 0xEE, sizeof e);
    return e;
}

class AddrLookupTest : public PlatformTest {
protected:
    AddrLookupTest() { ipp_dir_set_local_node(kLocalNode); }

    // Exactly one synchronous call to the address module with exactly these bytes.
    void expect_single_call(std::uint32_t node, const Bytes& request, std::uint32_t cap) {
        expect_only_call(kernel, {node, kAddressCommand, request, cap, false, {}, false});
    }

    void expect_no_call() { EXPECT_EQ(kernel.count(), 0u); }

    FakeKernel kernel;
};

// ---- Lookups by key ---------------------------------------------------------------------

TEST_F(AddrLookupTest, GetAddrByKeyWithoutEntriesCountsOnOwnNodeAndWithEntriesAsksLocalNode) {
    const IPAddrKey key = sample_key();
    Bytes number;
    put32(number, 5);
    kernel.reply(0, number);
    kernel.reply(0, wire_entry(sample_entry()));

    // No entries: only the number of matches, asked of node 0xFFFF8000.
    std::uint32_t count = 9;
    EXPECT_EQ(IPAddr_GetAddrByKey(&key, 1, &count, nullptr), 0u);
    EXPECT_EQ(count, 5u);
    Bytes want_num = header(5, 28);
    put_match_key(want_num, key, 1);
    expect_single_call(kOwnNode, want_num, 4);

    // With entries: the entries themselves, asked of the caller's own node.
    IPAddrEntry out[2];
    for (IPAddrEntry& e : out) e = marked_entry();
    count = 2;
    EXPECT_EQ(IPAddr_GetAddrByKey(&key, 1, &count, out), 0u);
    ASSERT_EQ(kernel.count(), 2u);
    const KernelCall c = kernel.last();
    EXPECT_EQ(c.node, static_cast<std::uint32_t>(kLocalNode));
    EXPECT_EQ(c.command, kAddressCommand);
    Bytes want_entries = header(4, 32);
    put_match_key(want_entries, key, 1);
    put32(want_entries, 2);
    EXPECT_EQ(c.request, want_entries);
    EXPECT_EQ(c.reply_cap, 56u);
    EXPECT_EQ(count, 1u);
    EXPECT_TRUE(same_bytes(out[0], sample_entry()));
    EXPECT_TRUE(same_bytes(out[1], marked_entry()));
}

TEST_F(AddrLookupTest, GetAddrByKeySendsKeyModeAndCountAndConvertsEntries) {
    Bytes reply = wire_entry(sample_entry());
    const Bytes second = wire_entry(other_entry());
    reply.insert(reply.end(), second.begin(), second.end());
    kernel.reply(0, reply);
    const IPAddrKey key = sample_key();
    IPAddrEntry out[4];
    for (IPAddrEntry& e : out) e = marked_entry();
    std::uint32_t count = 3;
    EXPECT_EQ(IPAddr_GetAddrByKey(&key, 0x00000003u, &count, out), 0u);
    Bytes want = header(4, 32);
    put_match_key(want, key, 3);
    put32(want, 3);
    expect_single_call(kLocalNode, want, 3 * 28);
    EXPECT_EQ(count, 2u);
    EXPECT_TRUE(same_bytes(out[0], sample_entry()));
    EXPECT_TRUE(same_bytes(out[1], other_entry()));
    EXPECT_TRUE(same_bytes(out[2], marked_entry()));
    EXPECT_EQ(out[1].stKey.usVrfIndex, 0x2B2Cu);
    EXPECT_EQ(out[1].stKey.uiIfIndex, 0x4A4B4C4Du);
    EXPECT_EQ(out[1].uiFlag, 0x61626364u);
}

TEST_F(AddrLookupTest, GetAddrByKeyNullKeyOrCountIsRefusedWithoutRequest) {
    kernel.reply(0);
    const IPAddrKey key = sample_key();
    IPAddrEntry out[1]{};
    std::uint32_t count = 1;
    EXPECT_EQ(IPAddr_GetAddrByKey(nullptr, 1, &count, out), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetAddrByKey(nullptr, 1, &count, nullptr), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetAddrByKey(&key, 1, nullptr, out), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetAddrByKey(&key, 1, nullptr, nullptr), IPSTATUS_FAILED);
    expect_no_call();
    EXPECT_EQ(count, 1u);
}

TEST_F(AddrLookupTest, GetAddrByKeyPassesModuleStatusThrough) {
    const IPAddrKey key = sample_key();
    kernel.reply(kModuleStatus);
    IPAddrEntry out[1]{};
    std::uint32_t count = 1;
    EXPECT_EQ(IPAddr_GetAddrByKey(&key, 1, &count, out), kModuleStatus);
    EXPECT_EQ(count, 1u);
    count = 7;
    EXPECT_EQ(IPAddr_GetAddrByKey(&key, 1, &count, nullptr), kModuleStatus);
    EXPECT_EQ(count, 7u);
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(AddrLookupTest, GetAddrInVrfAsksForOneBestMatchInTheVrfOnAnyInterface) {
    kernel.reply(0, wire_entry(other_entry()));
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_GetAddrInVrf(0x0A0B, ip(10, 20, 30, 40), 0x00040004u, &out), 0u);
    Bytes want = header(4, 32);
    put_match_key(want, make_key(0x0A0B, 0xFFFFFFFFu, ip(10, 20, 30, 40), 0, 0x00040004u), 1);
    put32(want, 1);
    expect_single_call(kLocalNode, want, 28);
    const Bytes r = kernel.last().request;
    // Wildcard interface, zero mask, match mode 1 at payload offset 20, count 1.
    EXPECT_EQ((Bytes{r.begin() + 12, r.begin() + 16}), (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ((Bytes{r.begin() + 20, r.begin() + 24}), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ((Bytes{r.begin() + 28, r.begin() + 32}), (Bytes{0, 0, 0, 1}));
    EXPECT_EQ((Bytes{r.begin() + 36, r.begin() + 40}), (Bytes{0, 0, 0, 1}));
    EXPECT_TRUE(same_bytes(out, other_entry()));
}

TEST_F(AddrLookupTest, GetAddrInVrfPassesModuleStatusThrough) {
    kernel.reply(kModuleStatus);
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_GetAddrInVrf(3, ip(10, 0, 0, 1), 1, &out), kModuleStatus);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(AddrLookupTest, GetAddrInVrfWithoutEntryAsksOnlyForTheNumber) {
    // The operation has no pointer of its own: without an entry it is a counting lookup.
    Bytes number;
    put32(number, 1);
    kernel.reply(0, number);
    EXPECT_EQ(IPAddr_GetAddrInVrf(0x0A0B, ip(10, 20, 30, 40), 1, nullptr), 0u);
    Bytes want = header(5, 28);
    put_match_key(want, make_key(0x0A0B, 0xFFFFFFFFu, ip(10, 20, 30, 40), 0, 1), 1);
    expect_single_call(kOwnNode, want, 4);
}

TEST_F(AddrLookupTest, GetAddrAsksForOneBestMatchOnTheInterfaceInAnyVrf) {
    kernel.reply(0, wire_entry(sample_entry()));
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_GetAddr(0x01020304u, ip(192, 168, 7, 9), 0x8u, &out), 0u);
    Bytes want = header(4, 32);
    put_match_key(want, make_key(0xFFFF, 0x01020304u, ip(192, 168, 7, 9), 0, 0x8u), 1);
    put32(want, 1);
    expect_single_call(kLocalNode, want, 28);
    const Bytes r = kernel.last().request;
    EXPECT_EQ(r[8], 0xFF);
    EXPECT_EQ(r[9], 0xFF);
    EXPECT_EQ((Bytes{r.begin() + 28, r.begin() + 32}), (Bytes{0, 0, 0, 1}));
    EXPECT_TRUE(same_bytes(out, sample_entry()));
}

TEST_F(AddrLookupTest, GetAddrPassesModuleStatusThrough) {
    kernel.reply(kModuleStatus);
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_GetAddr(7, ip(10, 0, 0, 1), 1, &out), kModuleStatus);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(AddrLookupTest, GetAddrWithoutEntryAsksOnlyForTheNumber) {
    Bytes number;
    put32(number, 0);
    kernel.reply(0, number);
    EXPECT_EQ(IPAddr_GetAddr(0x01020304u, ip(192, 168, 7, 9), 0x8u, nullptr), 0u);
    Bytes want = header(5, 28);
    put_match_key(want, make_key(0xFFFF, 0x01020304u, ip(192, 168, 7, 9), 0, 0x8u), 1);
    expect_single_call(kOwnNode, want, 4);
}

// ---- Longest network match ----------------------------------------------------------------

TEST_F(AddrLookupTest, MatchBestNetByKeySendsKeyWithModeAndConvertsAnswer) {
    kernel.reply(0, wire_entry(other_entry()));
    const IPAddrKey key = sample_key();
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_MatchBestNetByKey(&key, 0x00000002u, &out), 0u);
    Bytes want = header(6, 28);
    put_match_key(want, key, 2);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, other_entry()));
}

TEST_F(AddrLookupTest, MatchBestNetByKeyCopiesTheResultAlsoAfterFailure) {
    const Bytes raw = wire_entry(other_entry());
    kernel.reply(kModuleStatus, raw);
    const IPAddrKey key = sample_key();
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_MatchBestNetByKey(&key, 1, &out), kModuleStatus);
    // The 28 bytes reach the caller as the module left them, unconverted.
    EXPECT_EQ(std::memcmp(&out, raw.data(), sizeof out), 0);
}

TEST_F(AddrLookupTest, MatchBestNetByKeyWithoutEntryStillAsksAndReturnsStatus) {
    kernel.reply(kModuleStatus, wire_entry(other_entry()));
    kernel.reply(0, wire_entry(other_entry()));
    const IPAddrKey key = sample_key();
    EXPECT_EQ(IPAddr_MatchBestNetByKey(&key, 1, nullptr), kModuleStatus);
    EXPECT_EQ(IPAddr_MatchBestNetByKey(&key, 1, nullptr), 0u);
    ASSERT_EQ(kernel.count(), 2u);
    Bytes want = header(6, 28);
    put_match_key(want, key, 1);
    EXPECT_EQ(kernel.last().request, want);
}

TEST_F(AddrLookupTest, MatchBestNetByKeyNullKeyIsRefusedWithoutRequest) {
    kernel.reply(0, wire_entry(other_entry()));
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_MatchBestNetByKey(nullptr, 1, &out), IPSTATUS_FAILED);
    expect_no_call();
    EXPECT_TRUE(same_bytes(out, marked_entry()));
}

TEST_F(AddrLookupTest, MatchBestNetInVrfSendsVrfKeyWithModeOne) {
    kernel.reply(0, wire_entry(sample_entry()));
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_MatchBestNetInVrf(0x0C0D, ip(10, 4, 5, 6), 0x00040001u, &out), 0u);
    Bytes want = header(6, 28);
    put_match_key(want, make_key(0x0C0D, 0xFFFFFFFFu, ip(10, 4, 5, 6), 0, 0x00040001u), 1);
    expect_single_call(kOwnNode, want, 28);
    const Bytes r = kernel.last().request;
    EXPECT_EQ((Bytes{r.begin() + 28, r.begin() + 32}), (Bytes{0, 0, 0, 1}));
    EXPECT_TRUE(same_bytes(out, sample_entry()));
}

TEST_F(AddrLookupTest, MatchBestNetInVrfPassesStatusAndCopiesResult) {
    const Bytes raw = wire_entry(sample_entry());
    kernel.reply(kModuleStatus, raw);
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_MatchBestNetInVrf(1, ip(10, 4, 5, 6), 1, &out), kModuleStatus);
    EXPECT_EQ(std::memcmp(&out, raw.data(), sizeof out), 0);
    // No pointer of its own: without an entry the lookup still goes out.
    EXPECT_EQ(IPAddr_MatchBestNetInVrf(1, ip(10, 4, 5, 6), 1, nullptr), kModuleStatus);
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(AddrLookupTest, MatchBestNetSendsInterfaceKeyWithModeOne) {
    kernel.reply(0, wire_entry(other_entry()));
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_MatchBestNet(0x0A0B0C0Du, ip(172, 16, 200, 1), 0x4u, &out), 0u);
    Bytes want = header(6, 28);
    put_match_key(want, make_key(0xFFFF, 0x0A0B0C0Du, ip(172, 16, 200, 1), 0, 0x4u), 1);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, other_entry()));
}

TEST_F(AddrLookupTest, MatchBestNetPassesStatusAndCopiesResult) {
    const Bytes raw = wire_entry(other_entry());
    kernel.reply(kModuleStatus, raw);
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_MatchBestNet(5, ip(172, 16, 200, 1), 1, &out), kModuleStatus);
    EXPECT_EQ(std::memcmp(&out, raw.data(), sizeof out), 0);
    EXPECT_EQ(IPAddr_MatchBestNet(5, ip(172, 16, 200, 1), 1, nullptr), kModuleStatus);
    EXPECT_EQ(kernel.count(), 2u);
}

// ---- Source selection and gateways --------------------------------------------------------

TEST_F(AddrLookupTest, SelectSrcAddrSendsDestinationVrfInterfaceAndAddress) {
    kernel.reply(0, Bytes{10, 9, 8, 7});
    std::uint32_t source = 0;
    EXPECT_EQ(IPAddr_SelectSrcAddr(ip(192, 0, 2, 1), 0x0102, 0x03040506u, ip(10, 1, 2, 3), &source), 0u);
    Bytes want = header(25, 14);
    putraw(want, Bytes{192, 0, 2, 1}.data(), 4);
    put16(want, 0x0102);
    put32(want, 0x03040506u);
    putraw(want, Bytes{10, 1, 2, 3}.data(), 4);
    expect_single_call(kOwnNode, want, 4);
    EXPECT_EQ(source, ip(10, 9, 8, 7));
}

TEST_F(AddrLookupTest, SelectSrcAddrNullSourceIsRefusedWithoutRequest) {
    kernel.reply(0, Bytes{10, 9, 8, 7});
    EXPECT_EQ(IPAddr_SelectSrcAddr(ip(192, 0, 2, 1), 1, 2, ip(10, 1, 2, 3), nullptr), IPSTATUS_FAILED);
    expect_no_call();
}

TEST_F(AddrLookupTest, SelectSrcAddrPassesModuleStatusThrough) {
    kernel.reply(kModuleStatus);
    std::uint32_t source = 0;
    EXPECT_EQ(IPAddr_SelectSrcAddr(ip(192, 0, 2, 1), 1, 2, ip(10, 1, 2, 3), &source), kModuleStatus);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(AddrLookupTest, SearchGatewayAddrSendsInterfaceGatewayAndVrf) {
    kernel.reply(0, wire_entry(other_entry()));
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_SearchGatewayAddr(0x11223344u, ip(10, 7, 7, 1), 0x5566, &out), 0u);
    Bytes want = header(29, 10);
    put32(want, 0x11223344u);
    putraw(want, Bytes{10, 7, 7, 1}.data(), 4);
    put16(want, 0x5566);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, other_entry()));
}

TEST_F(AddrLookupTest, SearchGatewayAddrNullEntryIsRefusedWithoutRequest) {
    kernel.reply(0, wire_entry(other_entry()));
    EXPECT_EQ(IPAddr_SearchGatewayAddr(1, ip(10, 7, 7, 1), 2, nullptr), IPSTATUS_FAILED);
    expect_no_call();
}

TEST_F(AddrLookupTest, SearchGatewayAddrPassesModuleStatusThrough) {
    kernel.reply(kModuleStatus);
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_SearchGatewayAddr(1, ip(10, 7, 7, 1), 2, &out), kModuleStatus);
    EXPECT_EQ(kernel.count(), 1u);
}

// ---- Single-entry readers -----------------------------------------------------------------

TEST_F(AddrLookupTest, GetPriorAddrSendsInterfaceAndMethodMask) {
    kernel.reply(0, wire_entry(sample_entry()));
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_GetPriorAddr(0x0A0B0C0Du, 0x00040009u, &out), 0u);
    Bytes want = header(8, 8);
    put32(want, 0x0A0B0C0Du);
    put32(want, 0x00040009u);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, sample_entry()));
}

TEST_F(AddrLookupTest, GetPriorAddrNullEntryIsRefusedWithoutRequest) {
    kernel.reply(0, wire_entry(sample_entry()));
    EXPECT_EQ(IPAddr_GetPriorAddr(1, 1, nullptr), IPSTATUS_FAILED);
    expect_no_call();
}

TEST_F(AddrLookupTest, GetPriorAddrPassesModuleStatusThrough) {
    kernel.reply(kModuleStatus);
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_GetPriorAddr(1, 1, &out), kModuleStatus);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(AddrLookupTest, GetFwdAddrInVrfSendsVrf) {
    kernel.reply(0, wire_entry(other_entry()));
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_GetFwdAddrInVrf(0x0E0F, &out), 0u);
    Bytes want = header(9, 2);
    put16(want, 0x0E0F);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, other_entry()));
}

TEST_F(AddrLookupTest, GetFwdAddrInVrfNullEntryIsRefusedWithoutRequest) {
    kernel.reply(0, wire_entry(other_entry()));
    EXPECT_EQ(IPAddr_GetFwdAddrInVrf(1, nullptr), IPSTATUS_FAILED);
    expect_no_call();
}

TEST_F(AddrLookupTest, GetFwdAddrInVrfPassesModuleStatusThrough) {
    kernel.reply(kModuleStatus);
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_GetFwdAddrInVrf(1, &out), kModuleStatus);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(AddrLookupTest, GetMaxAddrInVrfSendsVrfAndBothWords) {
    kernel.reply(0, wire_entry(sample_entry()));
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_GetMaxAddrInVrf(0x0102, 0x03040506u, 0x0708090Au, &out), 0u);
    Bytes want = header(32, 10);
    put16(want, 0x0102);
    put32(want, 0x03040506u);
    put32(want, 0x0708090Au);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, sample_entry()));
}

TEST_F(AddrLookupTest, GetMaxAddrInVrfNullEntryIsRefusedWithoutRequest) {
    kernel.reply(0, wire_entry(sample_entry()));
    EXPECT_EQ(IPAddr_GetMaxAddrInVrf(1, 2, 3, nullptr), IPSTATUS_FAILED);
    expect_no_call();
}

TEST_F(AddrLookupTest, GetMaxAddrInVrfPassesModuleStatusThrough) {
    kernel.reply(kModuleStatus);
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_GetMaxAddrInVrf(1, 2, 3, &out), kModuleStatus);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(AddrLookupTest, GetAddrByIPSendsWordAndAddress) {
    kernel.reply(0, wire_entry(other_entry()));
    IPAddrEntry out = marked_entry();
    EXPECT_EQ(IPAddr_GetAddrByIP(ip(10, 11, 12, 13), 0x01020304u, &out), 0u);
    Bytes want = header(37, 8);
    put32(want, 0x01020304u);
    putraw(want, Bytes{10, 11, 12, 13}.data(), 4);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, other_entry()));
}

TEST_F(AddrLookupTest, GetAddrByIPNullEntryIsRefusedWithoutRequest) {
    kernel.reply(0, wire_entry(other_entry()));
    EXPECT_EQ(IPAddr_GetAddrByIP(ip(10, 11, 12, 13), 1, nullptr), IPSTATUS_FAILED);
    expect_no_call();
}

TEST_F(AddrLookupTest, GetAddrByIPPassesModuleStatusThrough) {
    kernel.reply(kModuleStatus);
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_GetAddrByIP(ip(10, 11, 12, 13), 1, &out), kModuleStatus);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(AddrLookupTest, GetNextAddrByIPSendsCallersEntryAndReplacesIt) {
    kernel.reply(0, wire_entry(other_entry()));
    IPAddrEntry pos = sample_entry();
    EXPECT_EQ(IPAddr_GetNextAddrByIP(0x0D0E0F10u, &pos), 0u);
    Bytes want = header(38, 32);
    put32(want, 0x0D0E0F10u);
    put_entry(want, sample_entry());
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(pos, other_entry()));
}

TEST_F(AddrLookupTest, GetNextAddrByIPNullEntryIsRefusedWithoutRequest) {
    kernel.reply(0, wire_entry(other_entry()));
    EXPECT_EQ(IPAddr_GetNextAddrByIP(1, nullptr), IPSTATUS_FAILED);
    expect_no_call();
}

TEST_F(AddrLookupTest, GetNextAddrByIPPassesModuleStatusThrough) {
    kernel.reply(kModuleStatus);
    IPAddrEntry pos = sample_entry();
    EXPECT_EQ(IPAddr_GetNextAddrByIP(1, &pos), kModuleStatus);
    EXPECT_EQ(kernel.count(), 1u);
}

// ---- VPN instance walk --------------------------------------------------------------------

TEST_F(AddrLookupTest, VrfWalkStartsFromZeroedEntryAndContinuesFromTheLastOne) {
    kernel.reply(0, wire_entry(sample_entry()));
    kernel.reply(0, wire_entry(other_entry()));
    IPAddrEntry pos{};
    EXPECT_EQ(IPAddr_GetFirstAddrInVrf(0x0405, 0x0A0B0C0Du, &pos), 0u);
    Bytes want = header(11, 34);
    put32(want, 0x0A0B0C0Du);
    put16(want, 0x0405);
    want.insert(want.end(), 28, 0);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(pos, sample_entry()));

    EXPECT_EQ(IPAddr_GetNextAddrInVrf(0x0405, 0x0A0B0C0Du, &pos), 0u);
    ASSERT_EQ(kernel.count(), 2u);
    Bytes want_next = header(11, 34);
    put32(want_next, 0x0A0B0C0Du);
    put16(want_next, 0x0405);
    put_entry(want_next, sample_entry());
    EXPECT_EQ(kernel.last().request, want_next);
    EXPECT_EQ(kernel.last().node, kOwnNode);
    EXPECT_TRUE(same_bytes(pos, other_entry()));
}

TEST_F(AddrLookupTest, VrfWalkNullEntryIsRefusedWithoutRequest) {
    kernel.reply(0, wire_entry(sample_entry()));
    EXPECT_EQ(IPAddr_GetFirstAddrInVrf(1, 2, nullptr), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetNextAddrInVrf(1, 2, nullptr), IPSTATUS_FAILED);
    expect_no_call();
}

TEST_F(AddrLookupTest, VrfWalkPassesModuleStatusThrough) {
    kernel.reply(kModuleStatus);
    IPAddrEntry pos{};
    EXPECT_EQ(IPAddr_GetFirstAddrInVrf(1, 2, &pos), kModuleStatus);
    EXPECT_EQ(IPAddr_GetNextAddrInVrf(1, 2, &pos), kModuleStatus);
    EXPECT_EQ(kernel.count(), 2u);
}

// ---- MAC reader -----------------------------------------------------------------------------

TEST_F(AddrLookupTest, GetMacSendsWordHalfValueAndAddressAndReadsMacAndWord) {
    Bytes reply{0x00, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F};
    put32(reply, 0x11223344u);
    kernel.reply(0, reply);
    const std::uint8_t addr[12] = {0xFE, 0x80, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    std::uint8_t mac[6] = {};
    std::uint32_t word = 0;
    EXPECT_EQ(IPAddr_GetMac(0x01020304u, 0x0506, ip(10, 1, 1, 1), addr, mac, &word), 0u);
    Bytes want = header(35, 24);
    put32(want, 0x01020304u);
    put16(want, 0x0506);
    put16(want, 1);
    putraw(want, Bytes{10, 1, 1, 1}.data(), 4);
    putraw(want, addr, sizeof addr);
    expect_single_call(kOwnNode, want, 128);
    EXPECT_EQ((Bytes{mac, mac + 6}), (Bytes{0x00, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}));
    EXPECT_EQ(word, 0x11223344u);
}

TEST_F(AddrLookupTest, GetMacWithoutAddressSendsZeroPresenceAndZeroBytes) {
    Bytes reply(6, 0xAB);
    put32(reply, 7);
    kernel.reply(0, reply);
    std::uint8_t mac[6] = {};
    std::uint32_t word = 0;
    EXPECT_EQ(IPAddr_GetMac(9, 8, ip(10, 1, 1, 1), nullptr, mac, &word), 0u);
    Bytes want = header(35, 24);
    put32(want, 9);
    put16(want, 8);
    put16(want, 0);
    putraw(want, Bytes{10, 1, 1, 1}.data(), 4);
    want.insert(want.end(), 12, 0);
    expect_single_call(kOwnNode, want, 128);
    EXPECT_EQ(mac[5], 0xAB);
    EXPECT_EQ(word, 7u);
}

TEST_F(AddrLookupTest, GetMacNullMacOrWordIsRefusedWithoutRequest) {
    kernel.reply(0, Bytes(10, 1));
    std::uint8_t mac[6] = {};
    std::uint32_t word = 0;
    EXPECT_EQ(IPAddr_GetMac(1, 2, 3, nullptr, nullptr, &word), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetMac(1, 2, 3, nullptr, mac, nullptr), IPSTATUS_FAILED);
    expect_no_call();
}

TEST_F(AddrLookupTest, GetMacPassesModuleStatusThrough) {
    kernel.reply(kModuleStatus);
    std::uint8_t mac[6] = {};
    std::uint32_t word = 0;
    EXPECT_EQ(IPAddr_GetMac(1, 2, 3, nullptr, mac, &word), kModuleStatus);
    EXPECT_EQ(kernel.count(), 1u);
}

}  // namespace
}  // namespace ipt
