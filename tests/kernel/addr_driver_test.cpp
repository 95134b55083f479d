// The address module's messages: exact request bytes, target node, reply capacity and the
// conversion of every reply to host order.
#include <gtest/gtest.h>

#include <cstring>

#include "ipclient/kernel.h"
#include "ipplat/testctl.h"
#include "support/addr_samples.hpp"
#include "support/directory_interface.hpp"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/kernel_call.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kOwnNode = 0xFFFF8000u;
constexpr std::uint32_t kAddressCommand = 0x260001u;

class AddrDriverTest : public PlatformTest {
protected:
    // The one call made must be to the address module with exactly these bytes.
    void expect_single_call(std::uint32_t node, const Bytes& request, std::uint32_t cap) {
        // A reply buffer exactly when a reply is expected.
        expect_only_call(kernel, {node, kAddressCommand, request, cap, cap == 0, {}, false});
    }

    FakeKernel kernel;
};

Bytes wire_entry(const IPAddrEntry& e) {
    Bytes b;
    put_entry(b, e);
    return b;
}

Bytes wire_info(const IPAddrInfo& i) {
    Bytes b;
    put_info(b, i);
    return b;
}

Bytes word(std::uint32_t v) {
    Bytes b;
    put32(b, v);
    return b;
}

ipp_interface interface_on(std::uint32_t ifindex, std::uint16_t node) {
    return DirInterface(ifindex).node(node).get();
}

TEST_F(AddrDriverTest, AddIPSendsInfoWithNoReply) {
    kernel.reply(0);
    const IPAddrInfo info = sample_info();
    EXPECT_EQ(IPAddr_Drvk_AddIP(&info), 0u);
    Bytes want = header(0, 52);
    put_info(want, info);
    expect_single_call(kOwnNode, want, 0);
}

TEST_F(AddrDriverTest, DelIPSendsKey) {
    kernel.reply(0);
    const IPAddrKey key = sample_key();
    EXPECT_EQ(IPAddr_Drvk_DelIP(&key), 0u);
    Bytes want = header(1, 20);
    put_key(want, key);
    expect_single_call(kOwnNode, want, 0);
}

TEST_F(AddrDriverTest, LookupAddrSendsEntryToGivenNodeAndConvertsInfo) {
    const IPAddrInfo answer = sample_info();
    kernel.reply(0, wire_info(answer));
    const IPAddrEntry entry = sample_entry();
    IPAddrInfo out{};
    EXPECT_EQ(IPAddr_Drvk_LookupAddr(5, &entry, &out), 0u);
    Bytes want = header(2, 28);
    put_entry(want, entry);
    expect_single_call(5, want, 52);
    EXPECT_TRUE(same_bytes(out, answer));
}

TEST_F(AddrDriverTest, LookupAddrNode0x8000IsSignExtended) {
    kernel.reply(0, wire_info(sample_info()));
    const IPAddrEntry entry = sample_entry();
    IPAddrInfo out{};
    EXPECT_EQ(IPAddr_Drvk_LookupAddr(0x8000, &entry, &out), 0u);
    EXPECT_EQ(kernel.last().node, kOwnNode);
}

TEST_F(AddrDriverTest, LookupAddrFailureReturnsStatusAndLeavesReplyUnconverted) {
    const Bytes raw = wire_info(sample_info());
    kernel.reply(0x12345678u, raw);
    const IPAddrEntry entry = sample_entry();
    IPAddrInfo out{};
    EXPECT_EQ(IPAddr_Drvk_LookupAddr(1, &entry, &out), 0x12345678u);
    EXPECT_EQ(std::memcmp(&out, raw.data(), sizeof out), 0);
}

TEST_F(AddrDriverTest, LookupAddrDoesNotCheckReturnedLength) {
    const IPAddrInfo answer = sample_info();
    kernel.reply(KernelReply{0, wire_info(answer), 3u});
    const IPAddrEntry entry = sample_entry();
    IPAddrInfo out{};
    EXPECT_EQ(IPAddr_Drvk_LookupAddr(1, &entry, &out), 0u);
    EXPECT_TRUE(same_bytes(out, answer));
}

TEST_F(AddrDriverTest, KeyAddressAndMaskTravelRawOtherFieldsBigEndian) {
    kernel.reply(0);
    const IPAddrKey key = sample_key();
    ASSERT_EQ(IPAddr_Drvk_DelIP(&key), 0u);
    const Bytes& r = kernel.last().request;
    ASSERT_EQ(r.size(), 28u);
    // VPN index 0x0102, reserved as it lies in memory, interface 0x03040506.
    EXPECT_EQ(r[8], 0x01);
    EXPECT_EQ(r[9], 0x02);
    EXPECT_EQ(std::memcmp(&r[10], &key.usReserved, 2), 0);
    EXPECT_EQ((Bytes{r.begin() + 12, r.begin() + 16}), (Bytes{0x03, 0x04, 0x05, 0x06}));
    // Address 10.1.2.3 and mask 255.255.255.0 in network order, byte for byte.
    EXPECT_EQ((Bytes{r.begin() + 16, r.begin() + 20}), (Bytes{10, 1, 2, 3}));
    EXPECT_EQ((Bytes{r.begin() + 20, r.begin() + 24}), (Bytes{255, 255, 255, 0}));
    // Method 0x00040001.
    EXPECT_EQ((Bytes{r.begin() + 24, r.begin() + 28}), (Bytes{0x00, 0x04, 0x00, 0x01}));
}

TEST_F(AddrDriverTest, GetConflictAddrWithoutConflictConvertsAndReturnsZero) {
    const IPAddrEntry answer = sample_entry();
    kernel.reply(0, wire_entry(answer));
    const IPAddrEntry entry = sample_entry();
    IPAddrEntry out{};
    IPAddrConflict conflict{7, 8, 9, 10};
    EXPECT_EQ(IPAddr_Drvk_GetConflictAddr(&entry, &out, &conflict), 0u);
    Bytes want = header(3, 28);
    put_entry(want, entry);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, answer));
    EXPECT_EQ(conflict.uiIfIndex, 8u);
    EXPECT_EQ(conflict.usConflict, 9u);
}

TEST_F(AddrDriverTest, GetConflictAddrOnConflictFlagsRecordAndReturnsConflict) {
    IPAddrEntry answer = sample_entry();
    answer.stKey.uiIfIndex = 0x0A0B0C0D;
    kernel.reply(IPSTATUS_ADDR_CONFLICT, wire_entry(answer));
    const IPAddrEntry entry = sample_entry();
    IPAddrEntry out{};
    IPAddrConflict conflict{7, 8, 0, 10};
    EXPECT_EQ(IPAddr_Drvk_GetConflictAddr(&entry, &out, &conflict), IPSTATUS_ADDR_CONFLICT);
    EXPECT_TRUE(same_bytes(out, answer));
    EXPECT_EQ(conflict.usConflict, 1u);
    EXPECT_EQ(conflict.uiIfIndex, 0x0A0B0C0Du);
    EXPECT_EQ(conflict.uiReserved, 7u);
    EXPECT_EQ(conflict.usReserved, 10u);
}

TEST_F(AddrDriverTest, GetConflictAddrOtherFailureIsReturnedUnconverted) {
    const Bytes raw = wire_entry(sample_entry());
    kernel.reply(0x40010001u, raw);
    const IPAddrEntry entry = sample_entry();
    IPAddrEntry out{};
    IPAddrConflict conflict{};
    EXPECT_EQ(IPAddr_Drvk_GetConflictAddr(&entry, &out, &conflict), 0x40010001u);
    EXPECT_EQ(std::memcmp(&out, raw.data(), sizeof out), 0);
    EXPECT_EQ(conflict.usConflict, 0u);
}

TEST_F(AddrDriverTest, ConflictAnswerWithNullConflictRecordStillConvertsAndReturnsEntry) {
    const IPAddrEntry answer = sample_entry();
    kernel.reply(IPSTATUS_ADDR_CONFLICT, wire_entry(answer));
    const IPAddrEntry entry = sample_entry();
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_Drvk_GetConflictAddr(&entry, &out, nullptr), IPSTATUS_ADDR_CONFLICT);
    EXPECT_TRUE(same_bytes(out, answer));
    IPAddrEntry out2{};
    EXPECT_EQ(IPAddr_Drvk_GetConflictAddr2CfgRecover(&entry, &out2, nullptr), 0u);
    EXPECT_TRUE(same_bytes(out2, answer));
}

TEST_F(AddrDriverTest, GetConflictAddr2CfgRecoverFlagsOnlyAndReturnsZero) {
    IPAddrEntry answer = sample_entry();
    answer.stKey.uiIfIndex = 0x0A0B0C0D;
    kernel.reply(IPSTATUS_ADDR_CONFLICT, wire_entry(answer));
    const IPAddrEntry entry = sample_entry();
    IPAddrEntry out{};
    IPAddrConflict conflict{7, 8, 0, 10};
    EXPECT_EQ(IPAddr_Drvk_GetConflictAddr2CfgRecover(&entry, &out, &conflict), 0u);
    Bytes want = header(39, 28);
    put_entry(want, entry);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, answer));
    EXPECT_EQ(conflict.usConflict, 1u);
    EXPECT_EQ(conflict.uiIfIndex, 8u);
}

TEST_F(AddrDriverTest, GetMatchAddrSendsKeyAndCountAndConvertsEntries) {
    IPAddrEntry a = sample_entry();
    IPAddrEntry b = sample_entry();
    b.stKey.uiIfIndex = 0x0D0E0F10;
    b.uiFlag = 0x55667788;
    Bytes reply = wire_entry(a);
    const Bytes rb = wire_entry(b);
    reply.insert(reply.end(), rb.begin(), rb.end());
    kernel.reply(0, reply);
    const IPAddrEntry key = sample_entry();
    IPAddrEntry out[3]{};
    std::uint32_t count = 3;
    EXPECT_EQ(IPAddr_Drvk_GetMatchAddr(9, &key, &count, out), 0u);
    Bytes want = header(4, 32);
    put_entry(want, key);
    put32(want, 3);
    expect_single_call(9, want, 84);
    EXPECT_EQ(count, 2u);
    EXPECT_TRUE(same_bytes(out[0], a));
    EXPECT_TRUE(same_bytes(out[1], b));
}

TEST_F(AddrDriverTest, GetMatchAddrLengthNotMultipleOf28FailsAndKeepsCount) {
    for (const std::uint32_t len : {27u, 29u}) {
        kernel.reply(KernelReply{0, Bytes(56, 0), len});
        const IPAddrEntry key = sample_entry();
        IPAddrEntry out[2]{};
        std::uint32_t count = 2;
        EXPECT_EQ(IPAddr_Drvk_GetMatchAddr(1, &key, &count, out), IPSTATUS_FAILED) << len;
        EXPECT_EQ(count, 2u) << len;
    }
}

TEST_F(AddrDriverTest, GetMatchAddrZeroBytesSetsCountZeroAndSucceeds) {
    kernel.reply(0);
    const IPAddrEntry key = sample_entry();
    IPAddrEntry out[2]{};
    std::uint32_t count = 2;
    EXPECT_EQ(IPAddr_Drvk_GetMatchAddr(1, &key, &count, out), 0u);
    EXPECT_EQ(count, 0u);
}

TEST_F(AddrDriverTest, GetMatchAddrLengthBeyondCapacityFailsWithoutTouchingCallerArray) {
    kernel.reply(KernelReply{0, {}, 56u});  // claims two entries where one was asked for
    const IPAddrEntry key = sample_entry();
    IPAddrEntry out[1]{};
    std::uint32_t count = 1;
    EXPECT_EQ(IPAddr_Drvk_GetMatchAddr(1, &key, &count, out), IPSTATUS_FAILED);
    EXPECT_EQ(count, 1u);
}

TEST_F(AddrDriverTest, GetMatchAddrCountWhoseCapacityOverflowsIsRefusedBeforeSending) {
    const IPAddrEntry key = sample_entry();
    IPAddrEntry out[1]{};
    std::uint32_t count = 0x10000000u;
    EXPECT_EQ(IPAddr_Drvk_GetMatchAddr(1, &key, &count, out), IPSTATUS_FAILED);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(AddrDriverTest, GetMatchAddrFailureStatusPassesThrough) {
    kernel.reply(0x60010023u);
    const IPAddrEntry key = sample_entry();
    IPAddrEntry out[1]{};
    std::uint32_t count = 1;
    EXPECT_EQ(IPAddr_Drvk_GetMatchAddr(1, &key, &count, out), 0x60010023u);
    EXPECT_EQ(count, 1u);
}

TEST_F(AddrDriverTest, GetMatchAddrNumConvertsCount) {
    kernel.reply(0, word(0x00000102));
    const IPAddrEntry key = sample_entry();
    std::uint32_t count = 0;
    EXPECT_EQ(IPAddr_Drvk_GetMatchAddrNum(&key, &count), 0u);
    Bytes want = header(5, 28);
    put_entry(want, key);
    expect_single_call(kOwnNode, want, 4);
    EXPECT_EQ(count, 0x102u);
}

TEST_F(AddrDriverTest, GetMatchBestNetConvertsEntry) {
    const IPAddrEntry answer = sample_entry();
    kernel.reply(0, wire_entry(answer));
    const IPAddrEntry key = sample_entry();
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_Drvk_GetMatchBestNet(&key, &out), 0u);
    Bytes want = header(6, 28);
    put_entry(want, key);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, answer));
}

TEST_F(AddrDriverTest, GetNextAddrOnIfSendsWordsAndKeyAndConvertsInfo) {
    const IPAddrInfo answer = sample_info();
    kernel.reply(0, wire_info(answer));
    const IPAddrKey key = sample_key();
    IPAddrInfo out{};
    EXPECT_EQ(IPAddr_Drvk_GetNextAddrOnIf(0x01020304, 0x00000005, 0xBEEF, &key, &out), 0u);
    Bytes want = header(7, 32);
    put32(want, 0x01020304);
    put32(want, 5);
    put32(want, 0x0000BEEF);  // the 16-bit mode, zero-extended
    put_key(want, key);
    expect_single_call(kOwnNode, want, 52);
    EXPECT_TRUE(same_bytes(out, answer));
}

TEST_F(AddrDriverTest, GetPriorAddrOnIfSendsIfIndexAndMask) {
    const IPAddrEntry answer = sample_entry();
    kernel.reply(0, wire_entry(answer));
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_Drvk_GetPriorAddrOnIf(0x11223344, 0x40000, &out), 0u);
    Bytes want = header(8, 8);
    put32(want, 0x11223344);
    put32(want, 0x40000);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, answer));
}

TEST_F(AddrDriverTest, GetFwdAddrInVrfSendsVrf) {
    const IPAddrEntry answer = sample_entry();
    kernel.reply(0, wire_entry(answer));
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_Drvk_GetFwdAddrInVrf(0x0A0B, &out), 0u);
    Bytes want = header(9, 2);
    put16(want, 0x0A0B);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, answer));
}

TEST_F(AddrDriverTest, GetNextAddrInVrfWritesResultOverTheArgument) {
    IPAddrEntry answer = sample_entry();
    answer.stKey.uiIfIndex = 77;
    kernel.reply(0, wire_entry(answer));
    IPAddrEntry pos = sample_entry();
    const IPAddrEntry sent = pos;
    EXPECT_EQ(IPAddr_Drvk_GetNextAddrInVrf(0x0C0D, 0x01020304, &pos), 0u);
    Bytes want = header(11, 34);
    put32(want, 0x01020304);
    put16(want, 0x0C0D);
    put_entry(want, sent);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(pos, answer));
}

TEST_F(AddrDriverTest, SetAndClearCfgMethodSendTwoWords) {
    kernel.reply(0);
    EXPECT_EQ(IPAddr_Drvk_SetCfgMethod(0x01020304, 0x05060708), 0u);
    EXPECT_EQ(IPAddr_Drvk_ClearCfgMethod(0x0A0B0C0D, 0x0E0F1011), 0u);
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 2u);
    Bytes set = header(12, 8);
    put32(set, 0x01020304);
    put32(set, 0x05060708);
    Bytes clear = header(13, 8);
    put32(clear, 0x0A0B0C0D);
    put32(clear, 0x0E0F1011);
    EXPECT_EQ(calls[0].request, set);
    EXPECT_EQ(calls[1].request, clear);
    for (const auto& c : calls) {
        EXPECT_EQ(c.node, kOwnNode);
        EXPECT_EQ(c.reply_cap, 0u);
    }
}

TEST_F(AddrDriverTest, GetIFMethodGoesToGivenNodeAndConvertsBits) {
    kernel.reply(0, word(0x00040009));
    std::uint32_t method = 0;
    EXPECT_EQ(IPAddr_Drvk_GetIFMethod(3, 0x0102, &method), 0u);
    Bytes want = header(14, 4);
    put32(want, 0x0102);
    expect_single_call(3, want, 4);
    EXPECT_EQ(method, 0x00040009u);
}

TEST_F(AddrDriverTest, GetBatchAddrOnIFLeavesRecordsUnconverted) {
    const Bytes raw = wire_info(sample_info());
    kernel.reply(0, raw);
    const IPAddrKey key = sample_key();
    IPAddrInfo out[2]{};
    std::uint32_t returned = 0;
    EXPECT_EQ(IPAddr_Drvk_GetBatchAddrOnIF(0x0A, 0x0B, &key, sizeof out, out, &returned), 0u);
    Bytes want = header(15, 28);
    put32(want, 0x0A);
    put32(want, 0x0B);
    put_key(want, key);
    expect_single_call(kOwnNode, want, 104);
    EXPECT_EQ(returned, 52u);
    EXPECT_EQ(std::memcmp(&out[0], raw.data(), 52), 0);
}

TEST_F(AddrDriverTest, GetNextIfConvertsIndex) {
    kernel.reply(0, word(0x00001234));
    std::uint32_t next = 0;
    EXPECT_EQ(IPAddr_Drvk_GetNextIf(0x00001000, &next), 0u);
    Bytes want = header(16, 4);
    put32(want, 0x1000);
    expect_single_call(kOwnNode, want, 4);
    EXPECT_EQ(next, 0x1234u);
}

TEST_F(AddrDriverTest, GetBatchEvNotifyLeavesRecordsUnconverted) {
    const Bytes raw = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    kernel.reply(0, raw);
    const IPAddrKey key = sample_key();
    std::uint8_t out[40]{};
    std::uint32_t returned = 0;
    EXPECT_EQ(IPAddr_Drvk_GetBatchEvNotify(1, 2, &key, sizeof out, out, &returned), 0u);
    Bytes want = header(17, 28);
    put32(want, 1);
    put32(want, 2);
    put_key(want, key);
    expect_single_call(kOwnNode, want, 40);
    EXPECT_EQ(returned, 10u);
    EXPECT_EQ(std::memcmp(out, raw.data(), raw.size()), 0);
}

TEST_F(AddrDriverTest, GetRTEvNotifyInfoSendsHeaderOnly) {
    const Bytes raw = {9, 8, 7, 6};
    kernel.reply(0, raw);
    std::uint8_t out[16]{};
    std::uint32_t returned = 0;
    EXPECT_EQ(IPAddr_Drvk_GetRTEvNotifyInfo(sizeof out, out, &returned), 0u);
    expect_single_call(kOwnNode, header(18, 0), 16);
    EXPECT_EQ(returned, 4u);
    EXPECT_EQ(std::memcmp(out, raw.data(), 4), 0);
}

TEST_F(AddrDriverTest, GetAddrCountOnIFGoesToGivenNode) {
    kernel.reply(0, word(42));
    std::uint32_t count = 0;
    EXPECT_EQ(IPAddr_Drvk_GetAddrCountOnIF(4, 0x01, 0x0203, 0x040506, &count), 0u);
    Bytes want = header(20, 12);
    put32(want, 0x01);
    put32(want, 0x0203);
    put32(want, 0x040506);
    expect_single_call(4, want, 4);
    EXPECT_EQ(count, 42u);
}

TEST_F(AddrDriverTest, SetDbgInfoSendsTwoHalvesAndWord) {
    kernel.reply(0);
    EXPECT_EQ(IPAddr_Drvk_SetDbgInfo(6, 0x0102, 0x0304, 0x05060708), 0u);
    Bytes want = header(21, 8);
    put16(want, 0x0102);
    put16(want, 0x0304);
    put32(want, 0x05060708);
    expect_single_call(6, want, 0);
}

TEST_F(AddrDriverTest, GetDbgInfoSendsHalfAndConvertsWord) {
    kernel.reply(0, word(0xCAFEBABE));
    std::uint32_t out = 0;
    EXPECT_EQ(IPAddr_Drvk_GetDbgInfo(7, 0x0A0B, &out), 0u);
    Bytes want = header(22, 2);
    put16(want, 0x0A0B);
    expect_single_call(7, want, 4);
    EXPECT_EQ(out, 0xCAFEBABEu);
}

TEST_F(AddrDriverTest, IncAddrGlobalEpochSendsTwoWords) {
    kernel.reply(0);
    EXPECT_EQ(IPAddr_Drvk_IncAddrGlobalEpoch(0x11, 0x22), 0u);
    Bytes want = header(23, 8);
    put32(want, 0x11);
    put32(want, 0x22);
    expect_single_call(kOwnNode, want, 0);
}

TEST_F(AddrDriverTest, GetAddrGlobalEpochReadsExactlyOneReplyByte) {
    kernel.reply(0, {0xAB, 0xCD, 0xEF});
    std::uint8_t guard[4] = {0x11, 0x22, 0x33, 0x44};
    EXPECT_EQ(IPAddr_Drvk_GetAddrGlobalEpoch(1, 2, &guard[0]), 0u);
    Bytes want = header(24, 8);
    put32(want, 1);
    put32(want, 2);
    expect_single_call(kOwnNode, want, 1);
    EXPECT_EQ(guard[0], 0xAB);
    EXPECT_EQ(guard[1], 0x22);
    EXPECT_EQ(guard[2], 0x33);
}

TEST_F(AddrDriverTest, SelectSrcAddrPlacesRawAddressesAndBigEndianWords) {
    const std::uint8_t src[4] = {192, 168, 1, 1};
    kernel.reply(0, Bytes(src, src + 4));
    std::uint32_t dst = 0, addr = 0, out = 0;
    const std::uint8_t dstb[4] = {10, 0, 0, 1}, addrb[4] = {172, 16, 0, 9};
    std::memcpy(&dst, dstb, 4);
    std::memcpy(&addr, addrb, 4);
    EXPECT_EQ(IPAddr_Drvk_SelectSrcAddr(dst, 0x0102, 0x03040506, addr, &out), 0u);
    Bytes want = header(25, 14);
    putraw(want, dstb, 4);
    put16(want, 0x0102);
    put32(want, 0x03040506);
    putraw(want, addrb, 4);
    expect_single_call(kOwnNode, want, 4);
    EXPECT_EQ(std::memcmp(&out, src, 4), 0);
}

TEST_F(AddrDriverTest, SetDrvMethodGoesToInterfaceNode) {
    const ipp_interface itf = interface_on(0x55, 12);
    ipp_dir_add_interface(&itf);
    kernel.reply(0);
    EXPECT_EQ(IPAddr_Drvk_SetDrvMethod(0x55, 0x40000), 0u);
    Bytes want = header(26, 8);
    put32(want, 0x55);
    put32(want, 0x40000);
    expect_single_call(12, want, 0);
}

TEST_F(AddrDriverTest, SetDrvMethodWithUnknownInterfaceStillSendsToOwnNode) {
    kernel.reply(0);
    EXPECT_EQ(IPAddr_Drvk_SetDrvMethod(0x56, 1), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    EXPECT_EQ(kernel.last().node, kOwnNode);
}

TEST_F(AddrDriverTest, GetLoopBackInfoGoesToInterfaceNodeAndConvertsHalf) {
    const ipp_interface itf = interface_on(0x77, 3);
    ipp_dir_add_interface(&itf);
    kernel.reply(0, {0x12, 0x34});
    std::uint16_t info = 0;
    EXPECT_EQ(IPAddr_Drvk_GetLoopBackInfo(0x77, &info), 0u);
    Bytes want = header(27, 4);
    put32(want, 0x77);
    expect_single_call(3, want, 2);
    EXPECT_EQ(info, 0x1234u);
}

TEST_F(AddrDriverTest, GetLoopBackInfoFailsWhenNodeCannotBeObtained) {
    const ipp_interface itf = interface_on(0x78, 3);
    ipp_dir_add_interface(&itf);
    ipp_dir_fail_item(0x78, IF_DATA_NODE, 0x9999);
    std::uint16_t info = 0xAAAA;
    EXPECT_EQ(IPAddr_Drvk_GetLoopBackInfo(0x78, &info), IPSTATUS_FAILED);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(info, 0xAAAAu);
}

TEST_F(AddrDriverTest, ModMainIPSendsOldKeyThenNewInfo) {
    kernel.reply(0);
    const IPAddrKey key = sample_key();
    IPAddrInfo info = sample_info();
    info.uiInfo2 = 0x99887766;
    EXPECT_EQ(IPAddr_Drvk_ModMainIP(&key, &info), 0u);
    Bytes want = header(28, 72);
    put_key(want, key);
    put_info(want, info);
    expect_single_call(kOwnNode, want, 0);
}

TEST_F(AddrDriverTest, SearchGWAddrPlacesGatewayRaw) {
    const IPAddrEntry answer = sample_entry();
    kernel.reply(0, wire_entry(answer));
    const std::uint8_t gw[4] = {10, 9, 8, 7};
    std::uint32_t gateway = 0;
    std::memcpy(&gateway, gw, 4);
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_Drvk_SearchGWAddr(0x01020304, gateway, 0x0506, &out), 0u);
    Bytes want = header(29, 10);
    put32(want, 0x01020304);
    putraw(want, gw, 4);
    put16(want, 0x0506);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, answer));
}

TEST_F(AddrDriverTest, SetNetProtocolSendsThreeWords) {
    kernel.reply(0);
    EXPECT_EQ(IPAddr_Drvk_SetNetProtocol(1, 0x0200, 0x030000), 0u);
    Bytes want = header(30, 12);
    put32(want, 1);
    put32(want, 0x0200);
    put32(want, 0x030000);
    expect_single_call(kOwnNode, want, 0);
}

TEST_F(AddrDriverTest, GetNetProtoBitConvertsBits) {
    kernel.reply(0, word(0x80000001));
    std::uint32_t bits = 0;
    EXPECT_EQ(IPAddr_Drvk_GetNetProtoBit(0x0A, &bits), 0u);
    Bytes want = header(31, 4);
    put32(want, 0x0A);
    expect_single_call(kOwnNode, want, 4);
    EXPECT_EQ(bits, 0x80000001u);
}

TEST_F(AddrDriverTest, GetMaxAddrInVrfSendsVrfThenWords) {
    const IPAddrEntry answer = sample_entry();
    kernel.reply(0, wire_entry(answer));
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_Drvk_GetMaxAddrInVrf(0x0102, 0x03040506, 0x0708090A, &out), 0u);
    Bytes want = header(32, 10);
    put16(want, 0x0102);
    put32(want, 0x03040506);
    put32(want, 0x0708090A);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, answer));
}

TEST_F(AddrDriverTest, AddVFWIPPlacesWordAddressHalfAndTwoZeroBytes) {
    kernel.reply(0);
    const std::uint8_t ab[4] = {1, 2, 3, 4};
    std::uint32_t addr = 0;
    std::memcpy(&addr, ab, 4);
    EXPECT_EQ(IPAddr_Drvk_AddVFWIP(0x0A0B0C0D, 0x0E0F, addr), 0u);
    Bytes want = header(33, 12);
    put32(want, 0x0A0B0C0D);
    putraw(want, ab, 4);
    put16(want, 0x0E0F);
    put16(want, 0);
    expect_single_call(kOwnNode, want, 0);
}

TEST_F(AddrDriverTest, DelVFWIPSendsWordThenZeros) {
    kernel.reply(0);
    EXPECT_EQ(IPAddr_Drvk_DelVFWIP(0x01020304), 0u);
    Bytes want = header(34, 12);
    put32(want, 0x01020304);
    want.resize(want.size() + 8, 0);
    expect_single_call(kOwnNode, want, 0);
}

TEST_F(AddrDriverTest, GetMacWithAddressCopiesMacRawAndSwapsWord) {
    Bytes reply = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    put32(reply, 0x01020304);
    kernel.reply(0, reply);
    std::uint8_t addr[12];
    for (int i = 0; i < 12; ++i) addr[i] = static_cast<std::uint8_t>(0xE0 + i);
    const std::uint8_t vb[4] = {9, 8, 7, 6};
    std::uint32_t value = 0;
    std::memcpy(&value, vb, 4);
    std::uint8_t mac[6]{};
    std::uint32_t w = 0;
    EXPECT_EQ(IPAddr_Drvk_GetMac(0x0A0B0C0D, 0x0E0F, value, addr, mac, &w), 0u);
    Bytes want = header(35, 24);
    put32(want, 0x0A0B0C0D);
    put16(want, 0x0E0F);
    put16(want, 1);
    putraw(want, vb, 4);
    putraw(want, addr, 12);
    expect_single_call(kOwnNode, want, 128);
    EXPECT_EQ(Bytes(mac, mac + 6), (Bytes{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}));
    EXPECT_EQ(w, 0x01020304u);
}

TEST_F(AddrDriverTest, GetMacWithoutAddressSendsZeroPresenceAndZeroBytes) {
    kernel.reply(0, Bytes(10, 0));
    std::uint8_t mac[6]{};
    std::uint32_t w = 0;
    EXPECT_EQ(IPAddr_Drvk_GetMac(1, 2, 0, nullptr, mac, &w), 0u);
    Bytes want = header(35, 24);
    put32(want, 1);
    put16(want, 2);
    put16(want, 0);
    want.resize(want.size() + 16, 0);
    expect_single_call(kOwnNode, want, 128);
}

TEST_F(AddrDriverTest, SetMacTypeSendsWordAndType) {
    kernel.reply(0);
    EXPECT_EQ(IPAddr_Drvk_SetMacType(0x01020304, 0x0506), 0u);
    Bytes want = header(36, 6);
    put32(want, 0x01020304);
    put16(want, 0x0506);
    expect_single_call(kOwnNode, want, 0);
}

TEST_F(AddrDriverTest, GetMatchAddrByIPSendsWordThenRawAddress) {
    const IPAddrEntry answer = sample_entry();
    kernel.reply(0, wire_entry(answer));
    const std::uint8_t ab[4] = {10, 20, 30, 40};
    std::uint32_t addr = 0;
    std::memcpy(&addr, ab, 4);
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_Drvk_GetMatchAddrByIP(addr, 0x0102, &out), 0u);
    Bytes want = header(37, 8);
    put32(want, 0x0102);
    putraw(want, ab, 4);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(out, answer));
}

TEST_F(AddrDriverTest, GetNextMatchAddrByIPWritesOverTheArgument) {
    IPAddrEntry answer = sample_entry();
    answer.uiFlag = 3;
    kernel.reply(0, wire_entry(answer));
    IPAddrEntry pos = sample_entry();
    const IPAddrEntry sent = pos;
    EXPECT_EQ(IPAddr_Drvk_GetNextMatchAddrByIP(0x0A, &pos), 0u);
    Bytes want = header(38, 32);
    put32(want, 0x0A);
    put_entry(want, sent);
    expect_single_call(kOwnNode, want, 28);
    EXPECT_TRUE(same_bytes(pos, answer));
}

TEST_F(AddrDriverTest, ModuleStatusesPassThroughUnchanged) {
    const Bytes raw = word(1);
    kernel.reply(0x43160099u, raw);
    std::uint32_t v = 0;
    EXPECT_EQ(IPAddr_Drvk_GetNextIf(1, &v), 0x43160099u);
    EXPECT_EQ(std::memcmp(&v, raw.data(), 4), 0);  // left as the platform wrote it, unconverted
}

TEST_F(AddrDriverTest, EntryReadersLeaveReplyUnconvertedOnFailure) {
    const Bytes raw = wire_entry(sample_entry());
    kernel.reply(0x60010023u, raw);
    const IPAddrEntry key = sample_entry();
    using Reader = std::uint32_t (*)(const IPAddrEntry&, IPAddrEntry*);
    const Reader readers[] = {
        [](const IPAddrEntry& k, IPAddrEntry* o) { return IPAddr_Drvk_GetMatchBestNet(&k, o); },
        [](const IPAddrEntry&, IPAddrEntry* o) { return IPAddr_Drvk_GetPriorAddrOnIf(1, 1, o); },
        [](const IPAddrEntry&, IPAddrEntry* o) { return IPAddr_Drvk_GetFwdAddrInVrf(1, o); },
        [](const IPAddrEntry& k, IPAddrEntry* o) {
            *o = k;
            return IPAddr_Drvk_GetNextAddrInVrf(1, 1, o);
        },
        [](const IPAddrEntry&, IPAddrEntry* o) { return IPAddr_Drvk_SearchGWAddr(1, 1, 1, o); },
        [](const IPAddrEntry&, IPAddrEntry* o) { return IPAddr_Drvk_GetMaxAddrInVrf(1, 1, 1, o); },
        [](const IPAddrEntry&, IPAddrEntry* o) { return IPAddr_Drvk_GetMatchAddrByIP(1, 1, o); },
        [](const IPAddrEntry& k, IPAddrEntry* o) {
            *o = k;
            return IPAddr_Drvk_GetNextMatchAddrByIP(1, o);
        },
        [](const IPAddrEntry& k, IPAddrEntry* o) { return IPAddr_Drvk_GetConflictAddr2CfgRecover(&k, o, nullptr); },
    };
    int n = 0;
    for (const Reader read : readers) {
        IPAddrEntry out{};
        EXPECT_EQ(read(key, &out), 0x60010023u) << n;
        EXPECT_EQ(std::memcmp(&out, raw.data(), sizeof out), 0) << n;
        ++n;
    }
}

TEST_F(AddrDriverTest, WordAndEntryReadersDoNotCheckReturnedLength) {
    const IPAddrEntry answer = sample_entry();
    kernel.reply(KernelReply{0, wire_entry(answer), 1u});
    const IPAddrEntry key = sample_entry();
    IPAddrEntry out{};
    EXPECT_EQ(IPAddr_Drvk_GetMatchBestNet(&key, &out), 0u);
    EXPECT_TRUE(same_bytes(out, answer));
    std::uint32_t count = 0;
    EXPECT_EQ(IPAddr_Drvk_GetMatchAddrNum(&key, &count), 0u);
    std::uint8_t mac[6]{};
    std::uint32_t w = 0;
    EXPECT_EQ(IPAddr_Drvk_GetMac(1, 1, 1, nullptr, mac, &w), 0u);
}

TEST_F(AddrDriverTest, GetMacFailureLeavesMacAndWordUntouched) {
    kernel.reply(0x40010001u, Bytes(10, 0x77));
    std::uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    std::uint32_t w = 0x12345678;
    EXPECT_EQ(IPAddr_Drvk_GetMac(1, 1, 1, nullptr, mac, &w), 0x40010001u);
    EXPECT_EQ(Bytes(mac, mac + 6), (Bytes{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(w, 0x12345678u);
}

TEST_F(AddrDriverTest, SetDrvMethodWhenNodeReadFailsSendsToOwnNode) {
    const ipp_interface itf = interface_on(0x57, 12);
    ipp_dir_add_interface(&itf);
    ipp_dir_fail_item(0x57, IF_DATA_NODE, 0x9999);
    kernel.reply(0);
    EXPECT_EQ(IPAddr_Drvk_SetDrvMethod(0x57, 4), 0u);
    Bytes want = header(26, 8);
    put32(want, 0x57);
    put32(want, 4);
    expect_single_call(kOwnNode, want, 0);
}

TEST_F(AddrDriverTest, GetMatchAddrWithCountZeroAsksForNothing) {
    kernel.reply(0);
    const IPAddrEntry key = sample_entry();
    std::uint32_t count = 0;
    IPAddrEntry dummy{};
    EXPECT_EQ(IPAddr_Drvk_GetMatchAddr(1, &key, &count, &dummy), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(kernel.last().reply_cap, 0u);
}

TEST_F(AddrDriverTest, EntryFlagsAreBigEndianOnTheWire) {
    kernel.reply(0, wire_info(sample_info()));
    IPAddrEntry entry = sample_entry();
    entry.uiFlag = 0x01020304;
    IPAddrInfo out{};
    ASSERT_EQ(IPAddr_Drvk_LookupAddr(1, &entry, &out), 0u);
    const Bytes& r = kernel.last().request;
    EXPECT_EQ((Bytes{r.begin() + 28, r.begin() + 32}), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(std::memcmp(&r[32], &entry.uiReserved, 4), 0);  // reserved travels as it lies
}

TEST_F(AddrDriverTest, WithoutAddressModuleEveryCallFailsWithGeneralFailure) {
    ipp_kernel_set_handler(nullptr, nullptr);
    const IPAddrKey key = sample_key();
    EXPECT_EQ(IPAddr_Drvk_DelIP(&key), IPSTATUS_FAILED);
}

}  // namespace
}  // namespace ipt
