// Neighbour packet sending, once per family (ARP and ND find the sending node the same way):
// the node of the interface from the host-order index, the own node as FFFF8000, and the
// directory's status when the node cannot be read or the interface is unknown.
#include <gtest/gtest.h>

#include <cstdint>

#include "ipplat/testctl.h"
#include "support/neigh_family_name.hpp"
#include "support/neigh_send_fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

using namespace neigh;

using SendFamilies = ::testing::Types<ArpSend, NdSend>;
TYPED_TEST_SUITE(NeighSendTest, SendFamilies, FamilyName);

TYPED_TEST(NeighSendTest, SendSpecifyFindsTheNodeFromTheHostOrderIndex) {
    // The byte-swapped index names an interface on another node.
    add_send_interface(0x45230100u, 9);
    const auto desc = this->sample_specify();
    EXPECT_EQ(TypeParam::specify(&desc), 0u);
    ASSERT_EQ(this->kernel.count(), 1u);
    EXPECT_EQ(this->kernel.last().node, kSendIfNode);
}

TYPED_TEST(NeighSendTest, InterfaceOnNode8000IsSentToFFFF8000) {
    add_send_interface(0x00000777u, 0x8000);
    EXPECT_EQ(TypeParam::plain(0x00000777u), 0u);
    this->expect_single_async(kOwnNode, TypeParam::plain_request(0x00000777u));
}

TYPED_TEST(NeighSendTest, FailingNodeReadReturnsThePlatformStatusWithoutSending) {
    ipp_dir_fail_item(kSendIf, IF_DATA_NODE, 0x7E570001u);
    for (const std::uint32_t status : TypeParam::node_requests(kSendIf, this->sample_specify())) {
        EXPECT_EQ(status, 0x7E570001u);
    }
    EXPECT_EQ(this->kernel.count(), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL_ASYNC), 0u);
}

TYPED_TEST(NeighSendTest, UnknownInterfaceFailsWithThePlatformStatusWithoutSending) {
    for (const std::uint32_t status : TypeParam::node_requests(0x0000DEADu, this->sample_specify(0x0000DEADu))) {
        EXPECT_EQ(status, kFailed);
    }
    EXPECT_EQ(this->kernel.count(), 0u);
}

}  // namespace
}  // namespace ipt
