// ARP event subscriptions and dispatch.
#include <gtest/gtest.h>

#include "ipclient/arp.h"
#include "ipplat/testctl.h"
#include "support/fixture.hpp"

namespace ipt {
namespace {

class ArpEventsTest : public PlatformTest {};

TEST_F(ArpEventsTest, ProcEventOnUnregisteredDescriptorFailsWithoutReading) {
    EXPECT_EQ(ARP_ProcEvent(12345), IPSTATUS_FAILED);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

}  // namespace
}  // namespace ipt
