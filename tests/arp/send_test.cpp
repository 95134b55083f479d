// ARP packet sending: the exact asynchronous requests (request, reply, probe, VLAN and
// fully specified packets), the node that owns the interface as target, and the platform's
// status when that node cannot be found.
#include <gtest/gtest.h>

#include <cstring>

#include "ipclient/arp.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kOwnNode = 0xFFFF8000u;
constexpr std::uint32_t kArpCommand = 0x140001u;
constexpr std::uint32_t kIfIndex = 0x00012345u;
constexpr std::uint16_t kIfNode = 7;

const std::uint8_t kMac1[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const std::uint8_t kMac2[6] = {0xA0, 0xB1, 0xC2, 0xD3, 0xE4, 0xF5};

std::uint32_t ip(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    const std::uint8_t bytes[4] = {a, b, c, d};
    std::uint32_t v = 0;
    std::memcpy(&v, bytes, sizeof v);
    return v;
}

void put_as_given(Bytes& b, std::uint32_t v) { putraw(b, &v, sizeof v); }

const std::uint32_t kSender = ip(192, 168, 1, 10);
const std::uint32_t kTarget = ip(10, 0, 0, 42);

void add_interface(std::uint32_t ifindex, std::uint16_t node) {
    ipp_interface itf{};
    itf.ifindex = ifindex;
    itf.node = node;
    itf.type = 6;
    itf.valid = 1;
    ipp_dir_add_interface(&itf);
}

// The 24-byte request of sub-ops 2, 3 and 33.
Bytes packet_request(std::uint8_t sub_op, const std::uint8_t* mac, std::uint32_t ifindex, std::uint32_t sender,
                     std::uint32_t target) {
    Bytes b{sub_op, 20, 0, 0};
    if (mac != nullptr) {
        putraw(b, mac, 6);
        b.push_back(1);
    } else {
        b.insert(b.end(), 7, 0);
    }
    b.push_back(0);
    put32(b, ifindex);
    put_as_given(b, sender);
    put_as_given(b, target);
    return b;
}

class ArpSendTest : public PlatformTest {
protected:
    ArpSendTest() {
        add_interface(kIfIndex, kIfNode);
        kernel.reply(0);
    }

    void expect_single_async(std::uint32_t node, const Bytes& request) {
        ASSERT_EQ(kernel.count(), 1u);
        const KernelCall c = kernel.last();
        EXPECT_EQ(c.node, node);
        EXPECT_EQ(c.command, kArpCommand);
        EXPECT_EQ(c.request, request);
        EXPECT_TRUE(c.async);
        EXPECT_EQ(c.reply_cap, 0u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL), 0u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL_ASYNC), 1u);
    }

    static ARP_SEND_SPECIFY_S sample_desc() {
        ARP_SEND_SPECIFY_S d{};
        for (std::uint8_t i = 0; i < 8; ++i) d.aucHead[i] = static_cast<std::uint8_t>(0x81 + i);
        d.uiIfIndex = kIfIndex;
        d.uiWord12 = 0x0A0B0C0Du;
        d.uiWord16 = 0x11223344u;
        d.usHalf20 = 0x5566u;
        d.usHalf22 = 0x7788u;
        d.uiWord24 = 0x99AABBCCu;
        d.uiWord28 = 0x01020304u;
        d.uiWord32 = 0xF1E2D3C4u;
        for (std::uint8_t i = 0; i < 24; ++i) d.aucTail[i] = static_cast<std::uint8_t>(0x20 + i * 3);
        return d;
    }

    FakeKernel kernel;
};

// ---- Edge cases ---------------------------------------------------------------------------

TEST_F(ArpSendTest, ProbePutsZeroInTheSenderWord) {
    // A request with a sender first: the probe that follows still carries 0.
    ASSERT_EQ(ARP_Request(kIfIndex, kSender, kTarget, kMac1), 0u);
    EXPECT_EQ(ARP_Probe(kIfIndex, kTarget, kMac1), 0u);
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 2u);
    const Bytes& r = calls[1].request;
    ASSERT_EQ(r.size(), 24u);
    EXPECT_EQ(r[0], 33);
    EXPECT_EQ((Bytes{r.begin() + 16, r.begin() + 20}), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ(r, packet_request(33, kMac1, kIfIndex, 0, kTarget));
}

TEST_F(ArpSendTest, RequestWithoutHardwareAddressHasBytes4To11Zero) {
    EXPECT_EQ(ARP_Request(kIfIndex, kSender, kTarget, nullptr), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    const Bytes& r = kernel.last().request;
    ASSERT_EQ(r.size(), 24u);
    EXPECT_EQ((Bytes{r.begin() + 4, r.begin() + 12}), Bytes(8, 0));
    EXPECT_EQ(r, packet_request(2, nullptr, kIfIndex, kSender, kTarget));
}

TEST_F(ArpSendTest, RequestWithVlanWithOnlySecondHardwareAddressSetsOnlyByte35) {
    EXPECT_EQ(ARP_RequestWithVlan(kIfIndex, 0x0102, 0x0304, kSender, kTarget, nullptr, kMac2), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    const Bytes& r = kernel.last().request;
    ASSERT_EQ(r.size(), 36u);
    EXPECT_EQ((Bytes{r.begin() + 4, r.begin() + 10}), Bytes(6, 0));
    EXPECT_EQ((Bytes{r.begin() + 10, r.begin() + 16}), Bytes(kMac2, kMac2 + 6));
    EXPECT_EQ(r[32], 0);
    EXPECT_EQ(r[33], 0);
    EXPECT_EQ(r[34], 0);
    EXPECT_EQ(r[35], 1);
}

// ---- Requests -----------------------------------------------------------------------------

TEST_F(ArpSendTest, RequestSendsSubOp2ToTheInterfaceNode) {
    EXPECT_EQ(ARP_Request(kIfIndex, kSender, kTarget, kMac1), 0u);
    Bytes want{2, 20, 0, 0, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 1, 0, 0x00, 0x01, 0x23, 0x45,
               192, 168, 1, 10, 10, 0, 0, 42};
    ASSERT_EQ(want, packet_request(2, kMac1, kIfIndex, kSender, kTarget));
    expect_single_async(kIfNode, want);
}

TEST_F(ArpSendTest, ReplySendsSubOp3) {
    EXPECT_EQ(ARP_Reply(kIfIndex, kSender, kTarget, kMac1), 0u);
    expect_single_async(kIfNode, packet_request(3, kMac1, kIfIndex, kSender, kTarget));
}

TEST_F(ArpSendTest, ReplyWithoutHardwareAddressClearsAddressAndFlag) {
    EXPECT_EQ(ARP_Reply(kIfIndex, kSender, kTarget, nullptr), 0u);
    expect_single_async(kIfNode, packet_request(3, nullptr, kIfIndex, kSender, kTarget));
}

TEST_F(ArpSendTest, ProbeSendsSubOp33) {
    EXPECT_EQ(ARP_Probe(kIfIndex, kTarget, nullptr), 0u);
    expect_single_async(kIfNode, packet_request(33, nullptr, kIfIndex, 0, kTarget));
}

TEST_F(ArpSendTest, RequestWithVlanPlacesEveryField) {
    EXPECT_EQ(ARP_RequestWithVlan(kIfIndex, 0x0A0B, 0x0C0D, kSender, kTarget, kMac1, kMac2), 0u);
    Bytes want{21, 32, 0, 0};
    putraw(want, kMac1, 6);
    putraw(want, kMac2, 6);
    put32(want, kIfIndex);
    put_as_given(want, kSender);
    put_as_given(want, kTarget);
    put16(want, 0x0A0B);
    put16(want, 0x0C0D);
    want.insert(want.end(), {0, 1, 0, 1});
    ASSERT_EQ(want.size(), 36u);
    expect_single_async(kIfNode, want);
}

TEST_F(ArpSendTest, RequestWithVlanWithOnlyFirstHardwareAddressSetsOnlyByte33) {
    EXPECT_EQ(ARP_RequestWithVlan(kIfIndex, 0x0102, 0x0304, 0x0u, 0xFFFFFFFFu, kMac1, nullptr), 0u);
    Bytes want{21, 32, 0, 0};
    putraw(want, kMac1, 6);
    want.insert(want.end(), 6, 0);
    put32(want, kIfIndex);
    put_as_given(want, 0);
    put_as_given(want, 0xFFFFFFFFu);
    put16(want, 0x0102);
    put16(want, 0x0304);
    want.insert(want.end(), {0, 1, 0, 0});
    expect_single_async(kIfNode, want);
}

TEST_F(ArpSendTest, RequestWithVlanWithoutHardwareAddressesClearsBoth) {
    EXPECT_EQ(ARP_RequestWithVlan(kIfIndex, 0xFFFE, 1, 0x01020304u, 0x05060708u, nullptr, nullptr), 0u);
    Bytes want{21, 32, 0, 0};
    want.insert(want.end(), 12, 0);
    put32(want, kIfIndex);
    put_as_given(want, 0x01020304u);
    put_as_given(want, 0x05060708u);
    put16(want, 0xFFFE);
    put16(want, 1);
    want.insert(want.end(), {0, 0, 0, 0});
    expect_single_async(kIfNode, want);
}

TEST_F(ArpSendTest, SendSpecifyConvertsOnlyTheTabledFields) {
    const ARP_SEND_SPECIFY_S desc = sample_desc();
    EXPECT_EQ(ARP_SendSpecify(&desc), 0u);
    Bytes want{22, 60, 0, 0};
    putraw(want, desc.aucHead, 8);
    put32(want, kIfIndex);
    put32(want, 0x0A0B0C0Du);
    put32(want, 0x11223344u);
    put16(want, 0x5566u);
    put16(want, 0x7788u);
    put32(want, 0x99AABBCCu);
    put32(want, 0x01020304u);
    put32(want, 0xF1E2D3C4u);
    putraw(want, desc.aucTail, 24);
    ASSERT_EQ(want.size(), 64u);
    expect_single_async(kIfNode, want);
}

TEST_F(ArpSendTest, SendSpecifyLeavesTheCallersDescriptionUnchanged) {
    const ARP_SEND_SPECIFY_S desc = sample_desc();
    ARP_SEND_SPECIFY_S copy = desc;
    EXPECT_EQ(ARP_SendSpecify(&copy), 0u);
    EXPECT_EQ(std::memcmp(&copy, &desc, sizeof desc), 0);
}

TEST_F(ArpSendTest, SendSpecifyFindsTheNodeFromTheHostOrderIndex) {
    // The byte-swapped index names an interface on another node.
    add_interface(0x45230100u, 9);
    const ARP_SEND_SPECIFY_S desc = sample_desc();
    EXPECT_EQ(ARP_SendSpecify(&desc), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    EXPECT_EQ(kernel.last().node, kIfNode);
}

TEST_F(ArpSendTest, InterfaceOnNode8000IsSentToFFFF8000) {
    add_interface(0x00000777u, 0x8000);
    EXPECT_EQ(ARP_Request(0x00000777u, kSender, kTarget, nullptr), 0u);
    expect_single_async(kOwnNode, packet_request(2, nullptr, 0x00000777u, kSender, kTarget));
}

TEST_F(ArpSendTest, EveryOperationReturnsTheSendingStatus) {
    FakeKernel failing;
    failing.reply(0x0BADF00Du);
    const ARP_SEND_SPECIFY_S desc = sample_desc();
    EXPECT_EQ(ARP_Request(kIfIndex, kSender, kTarget, kMac1), 0x0BADF00Du);
    EXPECT_EQ(ARP_Reply(kIfIndex, kSender, kTarget, kMac1), 0x0BADF00Du);
    EXPECT_EQ(ARP_Probe(kIfIndex, kTarget, kMac1), 0x0BADF00Du);
    EXPECT_EQ(ARP_RequestWithVlan(kIfIndex, 1, 2, kSender, kTarget, kMac1, kMac2), 0x0BADF00Du);
    EXPECT_EQ(ARP_SendSpecify(&desc), 0x0BADF00Du);
    EXPECT_EQ(failing.count(), 5u);
    for (const auto& c : failing.calls()) {
        EXPECT_TRUE(c.async);
        EXPECT_EQ(c.node, kIfNode);
    }
}

TEST_F(ArpSendTest, FailingNodeReadReturnsThePlatformStatusWithoutSending) {
    ipp_dir_fail_item(kIfIndex, IF_DATA_NODE, 0x7E570001u);
    const ARP_SEND_SPECIFY_S desc = sample_desc();
    EXPECT_EQ(ARP_Request(kIfIndex, kSender, kTarget, kMac1), 0x7E570001u);
    EXPECT_EQ(ARP_Reply(kIfIndex, kSender, kTarget, nullptr), 0x7E570001u);
    EXPECT_EQ(ARP_Probe(kIfIndex, kTarget, kMac1), 0x7E570001u);
    EXPECT_EQ(ARP_RequestWithVlan(kIfIndex, 1, 2, kSender, kTarget, kMac1, kMac2), 0x7E570001u);
    EXPECT_EQ(ARP_SendSpecify(&desc), 0x7E570001u);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL_ASYNC), 0u);
}

TEST_F(ArpSendTest, UnknownInterfaceFailsWithThePlatformStatusWithoutSending) {
    ARP_SEND_SPECIFY_S desc = sample_desc();
    desc.uiIfIndex = 0x0000DEADu;
    EXPECT_EQ(ARP_Request(0x0000DEADu, kSender, kTarget, nullptr), kFailed);
    EXPECT_EQ(ARP_Probe(0x0000DEADu, kTarget, nullptr), kFailed);
    EXPECT_EQ(ARP_RequestWithVlan(0x0000DEADu, 1, 2, kSender, kTarget, nullptr, nullptr), kFailed);
    EXPECT_EQ(ARP_SendSpecify(&desc), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(ArpSendTest, SendSpecifyNullDescriptionSendsNothing) {
    EXPECT_EQ(ARP_SendSpecify(nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

}  // namespace
}  // namespace ipt
