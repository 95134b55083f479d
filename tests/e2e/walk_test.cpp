// Walk cursors kept by the simulated device: a queue walk of the adjacency channel through
// the device's anchor service.
#include <cstdint>

#include "e2e/e2e_support.hpp"
#include "ipclient/adj.h"
#include "ipplat/platform.h"

namespace e2e {
namespace {

using WalkE2E = HarnessTest;

TEST_F(WalkE2E, QueueWalkVisitsEveryNodeThroughTheDeviceCursors) {
    ADJ_DTQ_NODE_S head{}, a{}, b{}, c{};
    head.pstNext = &a;
    a.pstNext = &b;
    b.pstNext = &c;
    c.pstNext = &head;
    head.pstPrev = &c;
    c.pstPrev = &b;
    b.pstPrev = &a;
    a.pstPrev = &head;
    int anchor = 0;
    const std::uint64_t handle = ADJ_DtqWalkReg(&anchor, 1, ADJ_DTQ_FORWARD, &head, 0);
    ASSERT_NE(handle, 0u);
    EXPECT_EQ(ADJ_GetDtqNext(handle, &anchor, ADJ_DtqWalkGetNext), reinterpret_cast<std::uintptr_t>(&a));
    EXPECT_EQ(ADJ_GetDtqNext(handle, &anchor, ADJ_DtqWalkGetNext), reinterpret_cast<std::uintptr_t>(&b));
    EXPECT_EQ(ADJ_GetDtqNext(handle, &anchor, ADJ_DtqWalkGetNext), reinterpret_cast<std::uintptr_t>(&c));
    EXPECT_EQ(ADJ_GetDtqNext(handle, &anchor, ADJ_DtqWalkGetNext), 0u);
    int other = 0;
    std::uint64_t position = 1;
    EXPECT_NE(ANCHOR_Inquire(&other, handle, &position, nullptr), 0u) << "a path belongs to its anchor";
    ADJ_DtqWalkUnReg(handle, &anchor);
    EXPECT_NE(ANCHOR_Inquire(&anchor, handle, &position, nullptr), 0u) << "ended";
}

}  // namespace
}  // namespace e2e
