// The ND client's header stands on its own in a C++ translation unit.
#include <gtest/gtest.h>

#include "ipclient/nd.h"

namespace {

TEST(NdHeaderTest, DeclaresTheCommonStatusCodes) {
    EXPECT_EQ(IPSTATUS_FAILED, 0x40010001u);
    EXPECT_EQ(ADJ_PORT_ND, 11554u);
}

}  // namespace
