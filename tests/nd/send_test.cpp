// ND packet sending and resolution: the exact module messages (operation, length word,
// payload), the node each goes to, waiting or not, and the platform's status when the
// interface's node cannot be found.
#include <gtest/gtest.h>

#include <cstring>

#include "ipclient/nd.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kOwnNode = 0xFFFF8000u;
constexpr std::uint32_t kNdCommand = 0x110001u;
constexpr std::uint32_t kIfIndex = 0x00012345u;
constexpr std::uint16_t kIfNode = 7;
constexpr std::uint16_t kMasterEp = 0x0203;
constexpr std::uint32_t kLookupError = 0x7E570001u;

const std::uint8_t kMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const std::uint8_t kAddrBytes[16] = {0x20, 0x01, 0x0D, 0xB8, 0x00, 0x01, 0x00, 0x02,
                                     0x00, 0x00, 0x00, 0x00, 0xAB, 0xCD, 0xEF, 0x01};

NdIPv6Addr addr_of(const std::uint8_t (&bytes)[16]) {
    NdIPv6Addr a{};
    std::memcpy(&a, bytes, sizeof a);
    return a;
}

const NdIPv6Addr kAddr = addr_of(kAddrBytes);

void add_interface(std::uint32_t ifindex, std::uint16_t node) {
    ipp_interface itf{};
    itf.ifindex = ifindex;
    itf.node = node;
    itf.type = 6;
    itf.valid = 1;
    ipp_dir_add_interface(&itf);
}

Bytes header(std::uint32_t op, std::uint32_t length_word) {
    Bytes b;
    put32(b, op);
    put32(b, length_word);
    return b;
}

// Operations 2 and 3: interface, address, link-layer address, 16-bit word.
Bytes advert_request(std::uint32_t op, std::uint32_t ifindex, const std::uint8_t* mac, std::uint16_t word) {
    Bytes b = header(op, 36);
    put32(b, ifindex);
    putraw(b, kAddrBytes, 16);
    putraw(b, mac, 6);
    put16(b, word);
    return b;
}

// Operations 4 and 6: address, interface; 28 bytes with a length word of 20.
Bytes addr_if_request(std::uint32_t op, const std::uint8_t* addr, std::uint32_t ifindex) {
    Bytes b = header(op, 20);
    putraw(b, addr, 16);
    put32(b, ifindex);
    return b;
}

class NdSendTest : public PlatformTest {
protected:
    NdSendTest() {
        add_interface(kIfIndex, kIfNode);
        ipp_dir_set_master_ep(kMasterEp);
        kernel.reply(0);
    }

    void expect_single_async(std::uint32_t node, const Bytes& request) {
        ASSERT_EQ(kernel.count(), 1u);
        const KernelCall c = kernel.last();
        EXPECT_EQ(c.node, node);
        EXPECT_EQ(c.command, kNdCommand);
        EXPECT_EQ(c.request, request);
        EXPECT_TRUE(c.async);
        EXPECT_EQ(c.reply_cap, 0u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL), 0u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL_ASYNC), 1u);
    }

    static NdSendSpecifyInfo sample_info() {
        NdSendSpecifyInfo d{};
        for (std::uint8_t i = 0; i < 48; ++i) d.aucHead[i] = static_cast<std::uint8_t>(0x80 + i);
        d.uiIfIndex = kIfIndex;
        d.uiWord52 = 0x0A0B0C0Du;
        d.aucRaw56[0] = 0xDE;
        d.aucRaw56[1] = 0xAD;
        d.aucRaw56[2] = 0xBE;
        d.aucRaw56[3] = 0xEF;
        d.uiWord60 = 0x11223344u;
        d.usHalf64 = 0x5566u;
        d.usHalf66 = 0x7788u;
        d.uiWord68 = 0x99AABBCCu;
        d.uiWord72 = 0x01020304u;
        d.uiWord76 = 0xF1E2D3C4u;
        for (std::uint8_t i = 0; i < 20; ++i) d.aucTail[i] = static_cast<std::uint8_t>(0x20 + i * 3);
        return d;
    }

    FakeKernel kernel;
};

// ---- Edge cases ---------------------------------------------------------------------------

TEST_F(NdSendTest, ResolveUnspecifiedAddressFailsAndSendsNothing) {
    // The node lookup would fail differently: the address is refused before it.
    ipp_dir_fail_item(kIfIndex, IF_DATA_NODE, kLookupError);
    const NdIPv6Addr any{};
    EXPECT_EQ(ND_Resolve(any, kIfIndex), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL_ASYNC), 0u);
}

TEST_F(NdSendTest, ResolveOnInterfaceWithoutNodeReturnsTheLookupError) {
    ipp_dir_fail_item(kIfIndex, IF_DATA_NODE, kLookupError);
    EXPECT_EQ(ND_Resolve(kAddr, kIfIndex), kLookupError);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(NdSendTest, SendNAAlwaysSendsZeroInBytes34And35) {
    EXPECT_EQ(ND_SendRA(kIfIndex, kAddr, kMac, 0xFFFF), 0u);
    EXPECT_EQ(ND_SendNA(kIfIndex, kAddr, kMac), 0u);
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 2u);
    const Bytes& r = calls[1].request;
    ASSERT_EQ(r.size(), 36u);
    EXPECT_EQ(r[34], 0);
    EXPECT_EQ(r[35], 0);
}

TEST_F(NdSendTest, DeleteDynamicEntrySends28BytesWhoseLengthWordSays20) {
    EXPECT_EQ(ND_DeleteDynamicEntry(kAddr, kIfIndex), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    const Bytes& r = kernel.last().request;
    ASSERT_EQ(r.size(), 28u);
    EXPECT_EQ((Bytes{r.begin() + 4, r.begin() + 8}), (Bytes{0, 0, 0, 20}));
}

TEST_F(NdSendTest, SendSpecifyCarriesIfIndex01020304AtRequestOffset56) {
    add_interface(0x01020304u, kIfNode);
    NdSendSpecifyInfo info = sample_info();
    info.uiIfIndex = 0x01020304u;
    EXPECT_EQ(ND_SendSpecify(&info), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    const Bytes& r = kernel.last().request;
    ASSERT_EQ(r.size(), 108u);
    EXPECT_EQ((Bytes{r.begin() + 56, r.begin() + 60}), (Bytes{0x01, 0x02, 0x03, 0x04}));
}

// ---- Requests -----------------------------------------------------------------------------

TEST_F(NdSendTest, SendRASendsOperation2ToTheInterfaceNode) {
    EXPECT_EQ(ND_SendRA(kIfIndex, kAddr, kMac, 0x1234), 0u);
    const Bytes want{0, 0, 0, 2, 0, 0, 0, 36, 0x00, 0x01, 0x23, 0x45,
                     0x20, 0x01, 0x0D, 0xB8, 0x00, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0xAB, 0xCD, 0xEF, 0x01,
                     0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x12, 0x34};
    ASSERT_EQ(want, advert_request(2, kIfIndex, kMac, 0x1234));
    expect_single_async(kIfNode, want);
}

TEST_F(NdSendTest, SendNASendsOperation3ToTheInterfaceNode) {
    EXPECT_EQ(ND_SendNA(kIfIndex, kAddr, kMac), 0u);
    expect_single_async(kIfNode, advert_request(3, kIfIndex, kMac, 0));
}

TEST_F(NdSendTest, SendNSWaitsOnTheOwnNodeWithAFourByteReply) {
    FakeKernel answering;
    answering.reply(0, Bytes{0xAA, 0xBB, 0xCC, 0xDD});
    EXPECT_EQ(ND_SendNS(kIfIndex, kAddr), 0u);
    Bytes want = header(8, 28);
    put32(want, kIfIndex);
    putraw(want, kAddrBytes, 16);
    ASSERT_EQ(want.size(), 28u);
    ASSERT_EQ(answering.count(), 1u);
    const KernelCall c = answering.last();
    EXPECT_EQ(c.node, kOwnNode);
    EXPECT_EQ(c.command, kNdCommand);
    EXPECT_EQ(c.request, want);
    EXPECT_FALSE(c.async);
    EXPECT_EQ(c.reply_cap, 4u);
    EXPECT_FALSE(c.reply_null);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL_ASYNC), 0u);
}

TEST_F(NdSendTest, SendNSReturnsTheControlStatus) {
    FakeKernel failing;
    failing.reply(0x0BADF00Du, Bytes{1, 2, 3, 4});
    EXPECT_EQ(ND_SendNS(kIfIndex, kAddr), 0x0BADF00Du);
    EXPECT_EQ(failing.count(), 1u);
}

TEST_F(NdSendTest, SendNSNeedsNoNodeLookup) {
    ipp_dir_fail_item(kIfIndex, IF_DATA_NODE, kLookupError);
    EXPECT_EQ(ND_SendNS(kIfIndex, kAddr), 0u);
    EXPECT_EQ(ND_SendNS(0x0000DEADu, kAddr), 0u);
    ASSERT_EQ(kernel.count(), 2u);
    for (const auto& c : kernel.calls()) EXPECT_EQ(c.node, kOwnNode);
}

TEST_F(NdSendTest, SendSpecifyConvertsOnlyTheWordsOfTheRecord) {
    const NdSendSpecifyInfo info = sample_info();
    EXPECT_EQ(ND_SendSpecify(&info), 0u);
    Bytes want = header(12, 108);
    putraw(want, info.aucHead, 48);
    put32(want, kIfIndex);
    put32(want, 0x0A0B0C0Du);
    putraw(want, info.aucRaw56, 4);
    put32(want, 0x11223344u);
    put16(want, 0x5566u);
    put16(want, 0x7788u);
    put32(want, 0x99AABBCCu);
    put32(want, 0x01020304u);
    put32(want, 0xF1E2D3C4u);
    putraw(want, info.aucTail, 20);
    ASSERT_EQ(want.size(), 108u);
    expect_single_async(kIfNode, want);
}

TEST_F(NdSendTest, SendSpecifyLeavesTheCallersRecordUnchanged) {
    const NdSendSpecifyInfo info = sample_info();
    NdSendSpecifyInfo copy = info;
    EXPECT_EQ(ND_SendSpecify(&copy), 0u);
    EXPECT_EQ(std::memcmp(&copy, &info, sizeof info), 0);
}

TEST_F(NdSendTest, SendSpecifyFindsTheNodeFromTheHostOrderIndex) {
    // The byte-swapped index names an interface on another node.
    add_interface(0x45230100u, 9);
    const NdSendSpecifyInfo info = sample_info();
    EXPECT_EQ(ND_SendSpecify(&info), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    EXPECT_EQ(kernel.last().node, kIfNode);
}

TEST_F(NdSendTest, SendSpecifyNullRecordSendsNothing) {
    EXPECT_EQ(ND_SendSpecify(nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(NdSendTest, ResolveSendsOperation6ToTheInterfaceNode) {
    EXPECT_EQ(ND_Resolve(kAddr, kIfIndex), 0u);
    const Bytes want = addr_if_request(6, kAddrBytes, kIfIndex);
    ASSERT_EQ(want.size(), 28u);
    expect_single_async(kIfNode, want);
}

TEST_F(NdSendTest, ResolveAcceptsAnAddressWithOnlyTheLastByteSet) {
    std::uint8_t bytes[16] = {};
    bytes[15] = 1;
    EXPECT_EQ(ND_Resolve(addr_of(bytes), kIfIndex), 0u);
    expect_single_async(kIfNode, addr_if_request(6, bytes, kIfIndex));
}

TEST_F(NdSendTest, DeleteDynamicEntryGoesToTheMasterEndpointWithoutLookup) {
    ipp_dir_fail_item(kIfIndex, IF_DATA_NODE, kLookupError);
    EXPECT_EQ(ND_DeleteDynamicEntry(kAddr, kIfIndex), 0u);
    expect_single_async(kMasterEp, addr_if_request(4, kAddrBytes, kIfIndex));
}

TEST_F(NdSendTest, DeleteDynamicEntryToMasterEndpoint8000GoesToFFFF8000) {
    ipp_dir_set_master_ep(0x8000);
    EXPECT_EQ(ND_DeleteDynamicEntry(kAddr, 0x0000DEADu), 0u);
    expect_single_async(kOwnNode, addr_if_request(4, kAddrBytes, 0x0000DEADu));
}

TEST_F(NdSendTest, InterfaceOnNode8000IsSentToFFFF8000) {
    add_interface(0x00000777u, 0x8000);
    EXPECT_EQ(ND_SendNA(0x00000777u, kAddr, kMac), 0u);
    expect_single_async(kOwnNode, advert_request(3, 0x00000777u, kMac, 0));
}

TEST_F(NdSendTest, EveryAsyncOperationReturnsTheSendingStatus) {
    FakeKernel failing;
    failing.reply(0x0BADF00Du);
    const NdSendSpecifyInfo info = sample_info();
    EXPECT_EQ(ND_SendRA(kIfIndex, kAddr, kMac, 1), 0x0BADF00Du);
    EXPECT_EQ(ND_SendNA(kIfIndex, kAddr, kMac), 0x0BADF00Du);
    EXPECT_EQ(ND_SendSpecify(&info), 0x0BADF00Du);
    EXPECT_EQ(ND_Resolve(kAddr, kIfIndex), 0x0BADF00Du);
    EXPECT_EQ(ND_DeleteDynamicEntry(kAddr, kIfIndex), 0x0BADF00Du);
    EXPECT_EQ(failing.count(), 5u);
    for (const auto& c : failing.calls()) EXPECT_TRUE(c.async);
}

TEST_F(NdSendTest, FailingNodeReadReturnsThePlatformStatusWithoutSending) {
    ipp_dir_fail_item(kIfIndex, IF_DATA_NODE, kLookupError);
    const NdSendSpecifyInfo info = sample_info();
    EXPECT_EQ(ND_SendRA(kIfIndex, kAddr, kMac, 1), kLookupError);
    EXPECT_EQ(ND_SendNA(kIfIndex, kAddr, kMac), kLookupError);
    EXPECT_EQ(ND_SendSpecify(&info), kLookupError);
    EXPECT_EQ(ND_Resolve(kAddr, kIfIndex), kLookupError);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL_ASYNC), 0u);
}

TEST_F(NdSendTest, UnknownInterfaceFailsWithThePlatformStatusWithoutSending) {
    NdSendSpecifyInfo info = sample_info();
    info.uiIfIndex = 0x0000DEADu;
    EXPECT_EQ(ND_SendRA(0x0000DEADu, kAddr, kMac, 1), kFailed);
    EXPECT_EQ(ND_SendNA(0x0000DEADu, kAddr, kMac), kFailed);
    EXPECT_EQ(ND_SendSpecify(&info), kFailed);
    EXPECT_EQ(ND_Resolve(kAddr, 0x0000DEADu), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(NdSendTest, NullLinkLayerAddressSendsNothing) {
    EXPECT_EQ(ND_SendRA(kIfIndex, kAddr, nullptr, 1), kFailed);
    EXPECT_EQ(ND_SendNA(kIfIndex, kAddr, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

}  // namespace
}  // namespace ipt
