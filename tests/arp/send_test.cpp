// ARP packet sending: the exact asynchronous requests (request, reply, probe, VLAN and fully
// specified packets) and their hardware addresses (adj/neigh_send_test.cpp has the node
// lookups both families share).
#include <gtest/gtest.h>

#include <cstring>

#include "ipclient/arp.h"
#include "ipplat/testctl.h"
#include "support/neigh_send_fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

using namespace neigh;
using ArpSendTest = NeighSendTest<ArpSend>;

constexpr std::uint32_t kIfIndex = kSendIf;
const std::uint32_t kSender = ArpSend::sender();
const std::uint32_t kTarget = ArpSend::target();

// The 24-byte request of sub-ops 2, 3 and 33: the hardware address and its flag when there
// is one, the interface big-endian, the addresses as given.
Bytes packet_request(std::uint8_t sub_op, const std::uint8_t* mac, std::uint32_t sender) {
    Bytes b{sub_op, 20, 0, 0};
    if (mac != nullptr) {
        putraw(b, mac, 6);
        b.push_back(1);
    } else {
        b.insert(b.end(), 7, 0);
    }
    b.push_back(0);
    put32(b, kIfIndex);
    put_as_given(b, sender);
    put_as_given(b, kTarget);
    return b;
}

// The 36-byte request of sub-op 21: both hardware addresses, the interface, the addresses,
// the two VLAN words and a flag byte per hardware address.
Bytes vlan_request(const std::uint8_t* first, const std::uint8_t* second, std::uint32_t sender, std::uint32_t target,
                   std::uint16_t outer, std::uint16_t inner) {
    Bytes b{21, 32, 0, 0};
    for (const std::uint8_t* mac : {first, second}) {
        if (mac != nullptr) putraw(b, mac, 6);
        if (mac == nullptr) b.insert(b.end(), 6, 0);
    }
    put32(b, kIfIndex);
    put_as_given(b, sender);
    put_as_given(b, target);
    put16(b, outer);
    put16(b, inner);
    b.insert(b.end(), {0, first != nullptr ? std::uint8_t{1} : std::uint8_t{0}, 0,
                       second != nullptr ? std::uint8_t{1} : std::uint8_t{0}});
    return b;
}

// ---- Edge cases ---------------------------------------------------------------------------

TEST_F(ArpSendTest, ProbePutsZeroInTheSenderWord) {
    // A request with a sender first: the probe that follows still carries 0.
    ASSERT_EQ(ARP_Request(kIfIndex, kSender, kTarget, kMac1), 0u);
    EXPECT_EQ(ARP_Probe(kIfIndex, kTarget, kMac1), 0u);
    const Bytes r = request_at(1);
    ASSERT_EQ(r.size(), 24u);
    EXPECT_EQ(kernel.count(), 2u);
    EXPECT_EQ(r[0], 33);
    EXPECT_EQ((Bytes{r.begin() + 16, r.begin() + 20}), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ(r, packet_request(33, kMac1, 0));
}

TEST_F(ArpSendTest, RequestWithoutHardwareAddressHasBytes4To11Zero) {
    EXPECT_EQ(ARP_Request(kIfIndex, kSender, kTarget, nullptr), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    const Bytes& r = kernel.last().request;
    ASSERT_EQ(r.size(), 24u);
    EXPECT_EQ((Bytes{r.begin() + 4, r.begin() + 12}), Bytes(8, 0));
    EXPECT_EQ(r, packet_request(2, nullptr, kSender));
}

TEST_F(ArpSendTest, RequestWithVlanWithOnlySecondHardwareAddressSetsOnlyByte35) {
    EXPECT_EQ(ARP_RequestWithVlan(kIfIndex, 0x0102, 0x0304, kSender, kTarget, nullptr, kMac2), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    const Bytes& r = kernel.last().request;
    ASSERT_EQ(r.size(), 36u);
    EXPECT_EQ((Bytes{r.begin() + 4, r.begin() + 10}), Bytes(6, 0));
    EXPECT_EQ((Bytes{r.begin() + 10, r.begin() + 16}), Bytes(kMac2, kMac2 + 6));
    EXPECT_EQ((Bytes{r.begin() + 32, r.end()}), (Bytes{0, 0, 0, 1}));
}

// ---- Requests -----------------------------------------------------------------------------

TEST_F(ArpSendTest, RequestSendsSubOp2ToTheInterfaceNode) {
    EXPECT_EQ(ARP_Request(kIfIndex, kSender, kTarget, kMac1), 0u);
    Bytes want{2, 20, 0, 0, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 1, 0, 0x00, 0x01, 0x23, 0x45,
               192, 168, 1, 10, 10, 0, 0, 42};
    ASSERT_EQ(want, packet_request(2, kMac1, kSender));
    expect_single_async(kSendIfNode, want);
}

TEST_F(ArpSendTest, ReplySendsSubOp3) {
    EXPECT_EQ(ARP_Reply(kIfIndex, kSender, kTarget, kMac1), 0u);
    expect_single_async(kSendIfNode, packet_request(3, kMac1, kSender));
}

TEST_F(ArpSendTest, ReplyWithoutHardwareAddressClearsAddressAndFlag) {
    EXPECT_EQ(ARP_Reply(kIfIndex, kSender, kTarget, nullptr), 0u);
    expect_single_async(kSendIfNode, packet_request(3, nullptr, kSender));
}

TEST_F(ArpSendTest, ProbeSendsSubOp33) {
    EXPECT_EQ(ARP_Probe(kIfIndex, kTarget, nullptr), 0u);
    expect_single_async(kSendIfNode, packet_request(33, nullptr, 0));
}

TEST_F(ArpSendTest, RequestWithVlanPlacesEveryField) {
    EXPECT_EQ(ARP_RequestWithVlan(kIfIndex, 0x0A0B, 0x0C0D, kSender, kTarget, kMac1, kMac2), 0u);
    const Bytes want = vlan_request(kMac1, kMac2, kSender, kTarget, 0x0A0B, 0x0C0D);
    ASSERT_EQ(want.size(), 36u);
    expect_single_async(kSendIfNode, want);
}

TEST_F(ArpSendTest, RequestWithVlanWithOnlyFirstHardwareAddressSetsOnlyByte33) {
    EXPECT_EQ(ARP_RequestWithVlan(kIfIndex, 0x0102, 0x0304, 0x0u, 0xFFFFFFFFu, kMac1, nullptr), 0u);
    expect_single_async(kSendIfNode, vlan_request(kMac1, nullptr, 0, 0xFFFFFFFFu, 0x0102, 0x0304));
}

TEST_F(ArpSendTest, RequestWithVlanWithoutHardwareAddressesClearsBoth) {
    EXPECT_EQ(ARP_RequestWithVlan(kIfIndex, 0xFFFE, 1, 0x01020304u, 0x05060708u, nullptr, nullptr), 0u);
    expect_single_async(kSendIfNode, vlan_request(nullptr, nullptr, 0x01020304u, 0x05060708u, 0xFFFE, 1));
}

TEST_F(ArpSendTest, SendSpecifyConvertsOnlyTheTabledFields) { EXPECT_EQ(specify_sent_converted().size(), 64u); }

TEST_F(ArpSendTest, SendSpecifyLeavesTheCallersDescriptionUnchanged) { specify_leaves_input_unchanged(); }

TEST_F(ArpSendTest, EveryOperationReturnsTheSendingStatus) {
    FakeKernel failing;
    failing.reply(0x0BADF00Du);
    const ARP_SEND_SPECIFY_S desc = sample_specify();
    const std::uint32_t statuses[] = {ARP_Request(kIfIndex, kSender, kTarget, kMac1),
                                      ARP_Reply(kIfIndex, kSender, kTarget, kMac1),
                                      ARP_Probe(kIfIndex, kTarget, kMac1),
                                      ARP_RequestWithVlan(kIfIndex, 1, 2, kSender, kTarget, kMac1, kMac2),
                                      ARP_SendSpecify(&desc)};
    for (const std::uint32_t status : statuses) EXPECT_EQ(status, 0x0BADF00Du);
    EXPECT_EQ(failing.count(), 5u);
    for (const auto& c : failing.calls()) {
        EXPECT_TRUE(c.async);
        EXPECT_EQ(c.node, kSendIfNode);
    }
}

TEST_F(ArpSendTest, SendSpecifyNullDescriptionSendsNothing) { specify_null_sends_nothing(); }

}  // namespace
}  // namespace ipt
