// CIOCTL and CIOCTL_Async as the platform substitute delivers them to the kernel backend.
#include <gtest/gtest.h>

#include <cstring>

#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"

namespace ipt {
namespace {

class KernelChannelTest : public PlatformTest {};

TEST_F(KernelChannelTest, WithoutModuleEveryCallFailsWithGeneralFailure) {
    std::uint8_t reply[8];
    std::uint32_t returned = 99;
    EXPECT_EQ(CIOCTL(0xFFFF8000u, 0x260001u, 0, nullptr, sizeof reply, reply, &returned), 0x40010001u);
    EXPECT_EQ(returned, 0u);
    EXPECT_EQ(CIOCTL_Async(0xFFFF8000u, 0x140001u, 0, nullptr), 0x40010001u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL_ASYNC), 1u);
}

TEST_F(KernelChannelTest, HandlerSeesEveryArgumentAndAnswersStatusBytesAndLength) {
    FakeKernel kernel;
    kernel.reply(KernelReply{0x77, {1, 2, 3, 4, 5}, 40u});
    const std::uint8_t req[3] = {9, 8, 7};
    std::uint8_t reply[4] = {};
    std::uint32_t returned = 0;
    EXPECT_EQ(CIOCTL(5, 0x380003u, sizeof req, req, sizeof reply, reply, &returned), 0x77u);
    EXPECT_EQ(returned, 40u);  // the length the module claims, not what fit
    EXPECT_EQ(Bytes(reply, reply + 4), (Bytes{1, 2, 3, 4}));
    const KernelCall c = kernel.last();
    EXPECT_EQ(c.node, 5u);
    EXPECT_EQ(c.command, 0x380003u);
    EXPECT_EQ(c.request, (Bytes{9, 8, 7}));
    EXPECT_EQ(c.reply_cap, 4u);
    EXPECT_FALSE(c.async);
}

TEST_F(KernelChannelTest, AsyncCallReachesHandlerWithNoReply) {
    FakeKernel kernel;
    kernel.reply(0);
    const std::uint8_t req[2] = {1, 2};
    EXPECT_EQ(CIOCTL_Async(0xFFFF8000u, 0x110001u, sizeof req, req), 0u);
    const KernelCall c = kernel.last();
    EXPECT_TRUE(c.async);
    EXPECT_EQ(c.reply_cap, 0u);
    EXPECT_EQ(c.request, (Bytes{1, 2}));
}

TEST_F(KernelChannelTest, NullReturnedLengthIsAllowed) {
    FakeKernel kernel;
    kernel.reply(0, {1});
    std::uint8_t reply[1];
    EXPECT_EQ(CIOCTL(1, 1, 0, nullptr, 1, reply, nullptr), 0u);
    EXPECT_EQ(reply[0], 1);
}

}  // namespace
}  // namespace ipt
