// ND packet sending and resolution: the exact module messages (operation, length word,
// payload), the node each goes to and waiting or not (adj/neigh_send_test.cpp has the node
// lookups both families share).
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "ipclient/nd.h"
#include "ipplat/testctl.h"
#include "support/neigh_send_fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

using namespace neigh;
using NdSendTest = NeighSendTest<NdSend>;

constexpr std::uint32_t kIfIndex = kSendIf;
constexpr std::uint16_t kMasterEp = 0x0203;
constexpr std::uint32_t kLookupError = 0x7E570001u;
const NdIPv6Addr kAddr = NdSend::addr();

NdIPv6Addr addr_of(const std::uint8_t (&bytes)[16]) {
    NdIPv6Addr a{};
    std::memcpy(&a, bytes, sizeof a);
    return a;
}

// A module message: BE32 operation, BE32 length word, then the payload.
Bytes module_message(std::uint32_t op, std::uint32_t length_word, std::initializer_list<Bytes> parts) {
    Bytes b;
    put32(b, op);
    put32(b, length_word);
    for (const Bytes& p : parts) b.insert(b.end(), p.begin(), p.end());
    return b;
}
Bytes be32(std::uint32_t v) {
    Bytes b;
    put32(b, v);
    return b;
}
Bytes addr_bytes(const NdIPv6Addr& a) { return Bytes(a.aucAddr, a.aucAddr + 16); }

// Operations 2 and 3: interface, address, link-layer address, 16-bit word.
Bytes advert_request(std::uint32_t op, std::uint32_t ifindex, std::uint16_t word) {
    Bytes tail(kMac1, kMac1 + 6);
    put16(tail, word);
    return module_message(op, 36, {be32(ifindex), addr_bytes(kAddr), tail});
}

// Operations 4 and 6: address, interface; 28 bytes with a length word of 20.
Bytes addr_if_request(std::uint32_t op, const NdIPv6Addr& addr, std::uint32_t ifindex) {
    return module_message(op, 20, {addr_bytes(addr), be32(ifindex)});
}

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
    EXPECT_EQ(ND_SendRA(kIfIndex, kAddr, kMac1, 0xFFFF), 0u);
    EXPECT_EQ(ND_SendNA(kIfIndex, kAddr, kMac1), 0u);
    EXPECT_EQ(kernel.count(), 2u);
    const Bytes r = request_at(1);
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
    add_send_interface(0x01020304u, kSendIfNode);
    const NdSendSpecifyInfo info = sample_specify(0x01020304u);
    EXPECT_EQ(ND_SendSpecify(&info), 0u);
    ASSERT_EQ(kernel.count(), 1u);
    const Bytes& r = kernel.last().request;
    ASSERT_EQ(r.size(), 108u);
    EXPECT_EQ((Bytes{r.begin() + 56, r.begin() + 60}), (Bytes{0x01, 0x02, 0x03, 0x04}));
}

// ---- Requests -----------------------------------------------------------------------------

TEST_F(NdSendTest, SendRASendsOperation2ToTheInterfaceNode) {
    EXPECT_EQ(ND_SendRA(kIfIndex, kAddr, kMac1, 0x1234), 0u);
    const Bytes want{0, 0, 0, 2, 0, 0, 0, 36, 0x00, 0x01, 0x23, 0x45,
                     0x20, 0x01, 0x0D, 0xB8, 0x00, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0xAB, 0xCD, 0xEF, 0x01,
                     0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x12, 0x34};
    ASSERT_EQ(want, advert_request(2, kIfIndex, 0x1234));
    expect_single_async(kSendIfNode, want);
}

TEST_F(NdSendTest, SendNASendsOperation3ToTheInterfaceNode) {
    EXPECT_EQ(ND_SendNA(kIfIndex, kAddr, kMac1), 0u);
    expect_single_async(kSendIfNode, advert_request(3, kIfIndex, 0));
}

TEST_F(NdSendTest, SendNSWaitsOnTheOwnNodeWithAFourByteReply) {
    FakeKernel answering;
    answering.reply(0, Bytes{0xAA, 0xBB, 0xCC, 0xDD});
    EXPECT_EQ(ND_SendNS(kIfIndex, kAddr), 0u);
    const Bytes want = module_message(8, 28, {be32(kIfIndex), addr_bytes(kAddr)});
    ASSERT_EQ(want.size(), 28u);
    ASSERT_EQ(answering.count(), 1u);
    // To the own node, waiting, for a reply of four bytes.
    const KernelCall c = answering.last();
    EXPECT_EQ(std::tie(c.node, c.command, c.request), std::tie(kOwnNode, NdSend::kCommand, want));
    EXPECT_EQ(std::tuple(c.async, c.reply_cap, c.reply_null), std::tuple(false, 4u, false));
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

TEST_F(NdSendTest, SendSpecifyConvertsOnlyTheWordsOfTheRecord) { EXPECT_EQ(specify_sent_converted().size(), 108u); }

TEST_F(NdSendTest, SendSpecifyLeavesTheCallersRecordUnchanged) { specify_leaves_input_unchanged(); }

TEST_F(NdSendTest, SendSpecifyNullRecordSendsNothing) { specify_null_sends_nothing(); }

TEST_F(NdSendTest, ResolveSendsOperation6ToTheInterfaceNode) {
    EXPECT_EQ(ND_Resolve(kAddr, kIfIndex), 0u);
    const Bytes want = addr_if_request(6, kAddr, kIfIndex);
    ASSERT_EQ(want.size(), 28u);
    expect_single_async(kSendIfNode, want);
}

TEST_F(NdSendTest, ResolveAcceptsAnAddressWithOnlyTheLastByteSet) {
    std::uint8_t bytes[16] = {};
    bytes[15] = 1;
    EXPECT_EQ(ND_Resolve(addr_of(bytes), kIfIndex), 0u);
    expect_single_async(kSendIfNode, addr_if_request(6, addr_of(bytes), kIfIndex));
}

TEST_F(NdSendTest, DeleteDynamicEntryGoesToTheMasterEndpointWithoutLookup) {
    ipp_dir_fail_item(kIfIndex, IF_DATA_NODE, kLookupError);
    EXPECT_EQ(ND_DeleteDynamicEntry(kAddr, kIfIndex), 0u);
    expect_single_async(kMasterEp, addr_if_request(4, kAddr, kIfIndex));
}

TEST_F(NdSendTest, DeleteDynamicEntryToMasterEndpoint8000GoesToFFFF8000) {
    ipp_dir_set_master_ep(0x8000);
    EXPECT_EQ(ND_DeleteDynamicEntry(kAddr, 0x0000DEADu), 0u);
    expect_single_async(kOwnNode, addr_if_request(4, kAddr, 0x0000DEADu));
}

TEST_F(NdSendTest, EveryAsyncOperationReturnsTheSendingStatus) {
    FakeKernel failing;
    failing.reply(0x0BADF00Du);
    const NdSendSpecifyInfo info = sample_specify();
    const std::uint32_t statuses[] = {ND_SendRA(kIfIndex, kAddr, kMac1, 1), ND_SendNA(kIfIndex, kAddr, kMac1),
                                      ND_SendSpecify(&info), ND_Resolve(kAddr, kIfIndex),
                                      ND_DeleteDynamicEntry(kAddr, kIfIndex)};
    for (const std::uint32_t status : statuses) EXPECT_EQ(status, 0x0BADF00Du);
    EXPECT_EQ(failing.count(), 5u);
    for (const auto& c : failing.calls()) EXPECT_TRUE(c.async);
}

TEST_F(NdSendTest, NullLinkLayerAddressSendsNothing) {
    EXPECT_EQ(ND_SendRA(kIfIndex, kAddr, nullptr, 1), kFailed);
    EXPECT_EQ(ND_SendNA(kIfIndex, kAddr, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

}  // namespace
}  // namespace ipt
