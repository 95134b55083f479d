// ND error notifications through kernel events: the handler stored for the process, the
// subscription to the error class, and the drain of notifications (type-0 elements reach
// the handler, others and malformed ones are passed over, at most 50 a call).
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <vector>

#include "ipclient/nd.h"
#include "ipplat/testctl.h"
#include "support/neigh_events_fixture.hpp"

namespace ipt {
namespace {

using neigh::NdEvents;
using NdEventsTest = neigh::NeighEventsTest<NdEvents>;

constexpr std::uint32_t kErrorClass = 0x210002u;

std::vector<const void*> g_notified;
std::vector<Bytes> g_notified_values;
template <std::uint64_t R>
std::uint64_t on_error(const void* value) {
    g_notified.push_back(value);
    return R;
}
std::uint64_t on_error_copy(const void* value) {
    g_notified.push_back(value);
    const auto* v = static_cast<const std::uint8_t*>(value);
    g_notified_values.emplace_back(v, v + 6);
    return 0x1122334455667788ull + g_notified.size();
}

TEST_F(NdEventsTest, RegErrorAsyncNotifyWhoseSubscriptionFailsStillReplacesTheHandler) {
    g_pfNdOpenFlowProc = &on_error<1>;
    ipp_kevent_fail_subscribe(-7);
    EXPECT_EQ(ND_RegErrorAsyncNotify(&on_error<2>), -7);
    EXPECT_EQ(g_pfNdOpenFlowProc, &on_error<2>);
    EXPECT_EQ(ipp_kevent_subscriptions(), 0u);
    ipp_kevent_fail_subscribe(-1);
    EXPECT_EQ(ND_RegErrorAsyncNotify(nullptr), -1);
    EXPECT_EQ(g_pfNdOpenFlowProc, nullptr) << "a null handler replaces it too";
}

TEST_F(NdEventsTest, DeRegErrorAsyncNotifyWithMinus5ReturnsMinus5WithoutCallingThePlatform) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error<3>);
    ASSERT_GE(kfd, 0);
    const std::uint64_t calls_before = ipp_call_count(IPP_CALL_CLOSE);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(-5), -5);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(INT32_MIN), INT32_MIN);
    EXPECT_EQ(ipp_kevent_subscriptions(), 1u) << "no subscription was ended";
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), calls_before);
    EXPECT_EQ(ipp_kevent_post(kErrorClass, "\0\0\0\0", 4), 1u) << "still subscribed";
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

// ---- Error notifications through kernel events -----------------------------------------

class NdEventsErrorNotifyTest : public NdEventsTest {
protected:
    NdEventsErrorNotifyTest() {
        g_notified.clear();
        g_notified_values.clear();
    }
    // A notification: elements of {BE16 type, BE16 length, value}.
    static Bytes element(std::uint16_t type, const Bytes& value) {
        Bytes b;
        put16(b, type);
        put16(b, static_cast<std::uint16_t>(value.size()));
        b.insert(b.end(), value.begin(), value.end());
        return b;
    }
    static void post(const Bytes& b) {
        ASSERT_EQ(ipp_kevent_post(kErrorClass, b.data(), static_cast<std::uint32_t>(b.size())), 1u);
    }
    static std::uint64_t drain(std::int32_t kfd) {
        std::uint64_t r = 0xDEADBEEF;
        bounded("ND_ErrorAsyncNotifyProc", [&] { r = ND_ErrorAsyncNotifyProc(kfd); });
        return r;
    }
};

TEST_F(NdEventsErrorNotifyTest, RegisterStoresTheHandlerAndSubscribesToTheErrorClass) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error<5>);
    ASSERT_GE(kfd, 0);
    EXPECT_EQ(g_pfNdOpenFlowProc, &on_error<5>);
    EXPECT_EQ(ipp_kevent_subscriptions(), 1u);
    EXPECT_EQ(ipp_kevent_post(kErrorClass + 1, "\0\0\0\0", 4), 0u) << "another class";
    EXPECT_EQ(ipp_kevent_post(kErrorClass, "\0\0\0\0", 4), 1u);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, TypeZeroNotificationsReachTheHandlerWithTheirValue) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error_copy);
    ASSERT_GE(kfd, 0);
    post(element(0, {1, 2, 3, 4, 5, 6}));
    post(element(0, {0xA, 0xB, 0xC, 0xD, 0xE, 0xF, 0x10}));
    EXPECT_EQ(drain(kfd), 0x1122334455667788ull + 2) << "the result of the last handler call";
    ASSERT_EQ(g_notified_values.size(), 2u);
    EXPECT_EQ(g_notified_values[0], (Bytes{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(g_notified_values[1], (Bytes{0xA, 0xB, 0xC, 0xD, 0xE, 0xF}));
    EXPECT_EQ(drain(kfd), 0u) << "nothing queued: no handler call";
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, OtherTypesAreMalformedOnesArePassedOverAndTheDrainGoesOn) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error<7>);
    ASSERT_GE(kfd, 0);
    post(element(0, {1}));
    post(element(1, {2}));
    post(element(0x100, {3}));
    post(Bytes{0, 0, 0});                // shorter than an element header
    post(Bytes{0, 0, 0, 9, 1, 2});       // a length past the notification
    post(element(0xFFFF, {}));
    EXPECT_EQ(drain(kfd), 7u);
    EXPECT_EQ(g_notified.size(), 1u);
    post(element(2, {1}));
    EXPECT_EQ(drain(kfd), 0u) << "no type-0 notification: 0";
    EXPECT_EQ(g_notified.size(), 1u);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, WithoutAHandlerNothingIsCalledAndTheResultIsZero) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(nullptr);
    ASSERT_GE(kfd, 0);
    post(element(0, {1, 2}));
    EXPECT_EQ(drain(kfd), 0u);
    EXPECT_EQ(g_notified.size(), 0u);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, OneCallReadsAtMost50Notifications) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error<9>);
    ASSERT_GE(kfd, 0);
    for (int i = 0; i < 60; ++i) post(element(0, {static_cast<std::uint8_t>(i)}));
    EXPECT_EQ(drain(kfd), 9u);
    EXPECT_EQ(g_notified.size(), 50u);
    EXPECT_EQ(drain(kfd), 9u);
    EXPECT_EQ(g_notified.size(), 60u);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, TheValueLiesWithinTheReceivedNotification) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error_copy);
    ASSERT_GE(kfd, 0);
    Bytes big = element(0, Bytes(600, 0x42));  // more than one read takes
    post(big);
    // The read is cut at 512 bytes: the element claims more than that and is passed over.
    EXPECT_EQ(drain(kfd), 0u);
    EXPECT_TRUE(g_notified.empty());
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
}

TEST_F(NdEventsErrorNotifyTest, DeregisterUnsubscribesAndKeepsTheHandler) {
    const std::int32_t kfd = ND_RegErrorAsyncNotify(&on_error<4>);
    ASSERT_GE(kfd, 0);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(kfd), 0);
    EXPECT_EQ(ipp_kevent_subscriptions(), 0u);
    EXPECT_EQ(g_pfNdOpenFlowProc, &on_error<4>) << "the handler stays stored";
    EXPECT_LT(ND_DeRegErrorAsyncNotify(kfd), 0) << "the platform's answer for an unknown descriptor";
    EXPECT_EQ(drain(kfd), 0u) << "a closed subscription reads nothing";
}

TEST_F(NdEventsErrorNotifyTest, SecondRegistrationReplacesTheHandlerOfTheProcess) {
    const std::int32_t k1 = ND_RegErrorAsyncNotify(&on_error<1>);
    const std::int32_t k2 = ND_RegErrorAsyncNotify(&on_error<2>);
    ASSERT_GE(k1, 0);
    ASSERT_GE(k2, 0);
    EXPECT_NE(k1, k2);
    const Bytes n = element(0, {1});
    EXPECT_EQ(ipp_kevent_post(kErrorClass, n.data(), static_cast<std::uint32_t>(n.size())), 2u) << "both reached";
    EXPECT_EQ(ipp_kevent_post(kErrorClass, "\0\0\0\0", 4), 2u);
    EXPECT_EQ(drain(k1), 2u) << "one handler for the process";
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(k1), 0);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(k2), 0);
}

}  // namespace
}  // namespace ipt
