// ND error notifications through the library's public API: kernel events of the ND error
// class raised on the simulated device reach the handler registered by the process.
#include <poll.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/nd.h"

namespace e2e {
namespace {

// What the handler was given: the value bytes (as many as the test expects) of each call.
std::size_t g_expect_len = 0;
std::vector<std::vector<std::uint8_t>> g_values;

std::uint64_t record_error(const void* value) {
    const auto* p = static_cast<const std::uint8_t*>(value);
    g_values.emplace_back(p, p + g_expect_len);
    return 0x1000u + g_values.size();
}

class NdErrors : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        g_values.clear();
        g_expect_len = 0;
    }
    void TearDown() override {
        if (fd_ >= 0) (void)ND_DeRegErrorAsyncNotify(fd_);
        SimTest::TearDown();
    }

    static nlohmann::json raise_error(std::uint16_t type, const std::string& value_hex) {
        return control({{"op", "nd.error"}, {"type", type}, {"value", value_hex}});
    }

    // Drains notifications as they become readable until `n` handler calls were made (at
    // most 5 s); the last drain's result.
    std::uint64_t wait_calls(std::size_t n) {
        std::uint64_t last = 0;
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (g_values.size() < n && std::chrono::steady_clock::now() < until) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) continue;
            last = ND_ErrorAsyncNotifyProc(fd_);
        }
        return last;
    }

    int fd_ = -1;
};

TEST_F(NdErrors, ANotificationReachesTheHandlerWithItsValue) {
    fd_ = ND_RegErrorAsyncNotify(record_error);
    ASSERT_GE(fd_, 0);
    g_expect_len = 6;
    const auto a = raise_error(0, "0a0b0c0d0e0f");
    ASSERT_TRUE(a.value("ok", false)) << a.dump();
    EXPECT_EQ(a["reached"], 1);
    EXPECT_EQ(a["bytes"], "000000060a0b0c0d0e0f") << "type 0, length 6, then the value";
    EXPECT_EQ(wait_calls(1), 0x1001u) << "the handler's result is handed back";
    ASSERT_EQ(g_values.size(), 1u);
    EXPECT_EQ(g_values[0], (std::vector<std::uint8_t>{0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f}));
}

TEST_F(NdErrors, TwoErrorsInARowGiveTwoCallsInOrder) {
    fd_ = ND_RegErrorAsyncNotify(record_error);
    ASSERT_GE(fd_, 0);
    g_expect_len = 4;
    ASSERT_EQ(raise_error(0, "11223344")["reached"], 1);
    ASSERT_EQ(raise_error(0, "55667788")["reached"], 1);
    EXPECT_EQ(wait_calls(2), 0x1002u);
    ASSERT_EQ(g_values.size(), 2u);
    EXPECT_EQ(g_values[0], (std::vector<std::uint8_t>{0x11, 0x22, 0x33, 0x44}));
    EXPECT_EQ(g_values[1], (std::vector<std::uint8_t>{0x55, 0x66, 0x77, 0x88}));
}

TEST_F(NdErrors, OnlyTypeZeroReachesTheHandler) {
    fd_ = ND_RegErrorAsyncNotify(record_error);
    ASSERT_GE(fd_, 0);
    g_expect_len = 2;
    ASSERT_EQ(raise_error(7, "dead")["bytes"], "00070002dead");
    ASSERT_EQ(raise_error(0, "beef")["reached"], 1);
    (void)wait_calls(1);
    ASSERT_EQ(g_values.size(), 1u) << "the type-7 notification was passed over";
    EXPECT_EQ(g_values[0], (std::vector<std::uint8_t>{0xbe, 0xef}));
}

TEST_F(NdErrors, AfterDeregisteringNoSubscriptionIsReached) {
    fd_ = ND_RegErrorAsyncNotify(record_error);
    ASSERT_GE(fd_, 0);
    EXPECT_EQ(raise_error(0, "01")["reached"], 1);
    EXPECT_EQ(ND_DeRegErrorAsyncNotify(fd_), 0);
    fd_ = -1;
    EXPECT_EQ(g_pfNdOpenFlowProc, record_error) << "the handler stays stored";
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    int reached = -1;
    while (reached != 0 && std::chrono::steady_clock::now() < until) {
        reached = raise_error(0, "01")["reached"].get<int>();
        if (reached != 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(reached, 0);
}

TEST_F(NdErrors, BadValuesAreRefused) {
    EXPECT_EQ(raise_error(0, "abc")["ok"], false);
    EXPECT_EQ(raise_error(0, "zz")["ok"], false);
    EXPECT_EQ(raise_error(0, std::string(2 * 509, 'a'))["ok"], false) << "longer than a notification holds";
    EXPECT_EQ(control({{"op", "nd.error"}, {"type", 70000}})["ok"], false);
    const auto empty = raise_error(0, "");
    EXPECT_EQ(empty["ok"], true);
    EXPECT_EQ(empty["bytes"], "00000000");
}

}  // namespace
}  // namespace e2e
