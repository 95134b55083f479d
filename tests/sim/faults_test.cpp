// The fault list of the simulated device: which requests a fault's scope matches, how often
// it fires, and that a seeded probability replays.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "core/faults.hpp"

namespace sim {
namespace {

Fault error_fault(FaultScope scope, std::uint32_t status = 0x40010003u) {
    Fault f;
    f.scope = std::move(scope);
    f.action = {FaultAction::Kind::kError, status};
    return f;
}

FaultPoint kernel_point(std::uint32_t command, const char* module, std::uint16_t node = 1) {
    FaultPoint p;
    p.node = node;
    p.call = 2;
    p.command = command;
    p.module = module;
    return p;
}

TEST(FaultScopeTest, KernelScopeMatchesItsCommandOnly) {
    FaultScope s{FaultScope::Kind::kKernel, 0x260001u, {}, std::nullopt};
    EXPECT_TRUE(s.matches(kernel_point(0x260001u, "addr")));
    EXPECT_FALSE(s.matches(kernel_point(0x260002u, "addr")));
    FaultPoint lipc;
    lipc.port = 1653;
    EXPECT_FALSE(s.matches(lipc));
}

TEST(FaultScopeTest, ModuleScopeMatchesEveryCommandOfTheModule) {
    FaultScope s{FaultScope::Kind::kModule, 0, "fib", std::nullopt};
    EXPECT_TRUE(s.matches(kernel_point(0x380001u, "fib")));
    EXPECT_TRUE(s.matches(kernel_point(0x640001u, "fib")));
    EXPECT_FALSE(s.matches(kernel_point(0x260001u, "addr")));
    EXPECT_FALSE(s.matches(kernel_point(0x999999u, nullptr)));
}

TEST(FaultScopeTest, PortScopeMatchesItsServiceAndCallScopeTheDeviceChannel) {
    FaultScope port{FaultScope::Kind::kPort, 1653, {}, std::nullopt};
    FaultScope call{FaultScope::Kind::kCall, 10, {}, std::nullopt};
    FaultPoint lipc;
    lipc.port = 1653;
    FaultPoint other;
    other.port = 11547;
    FaultPoint device;
    device.call = 10;
    EXPECT_TRUE(port.matches(lipc));
    EXPECT_FALSE(port.matches(other));
    EXPECT_FALSE(port.matches(device));
    EXPECT_TRUE(call.matches(device));
    EXPECT_FALSE(call.matches(lipc)) << "a family-37 request is no device call";
}

TEST(FaultScopeTest, NodeNarrowsTheScope) {
    FaultScope s{FaultScope::Kind::kKernel, 0x260001u, {}, std::uint16_t{2}};
    EXPECT_FALSE(s.matches(kernel_point(0x260001u, "addr", 1)));
    EXPECT_TRUE(s.matches(kernel_point(0x260001u, "addr", 2)));
}

TEST(FaultsTest, TimesCountsFiringsThenLetsRequestsThrough) {
    Faults faults;
    Fault f = error_fault({FaultScope::Kind::kKernel, 0x260001u, {}, std::nullopt});
    f.times = 2;
    EXPECT_EQ(faults.add(f), 1u);
    const FaultPoint p = kernel_point(0x260001u, "addr");
    EXPECT_EQ(faults.hit(p).kind, FaultAction::Kind::kError);
    EXPECT_EQ(faults.hit(p).value, 0x40010003u);
    EXPECT_FALSE(faults.hit(p));
    ASSERT_EQ(faults.list().size(), 1u) << "a spent fault stays listed";
    EXPECT_EQ(faults.list()[0].fired, 2u);
    EXPECT_EQ(*faults.list()[0].times, 0u);
    EXPECT_FALSE(faults.hit(kernel_point(0x260002u, "addr")));
}

TEST(FaultsTest, FirstFaultThatFiresAnswers) {
    Faults faults;
    Fault drop;
    drop.scope = {FaultScope::Kind::kModule, 0, "addr", std::nullopt};
    drop.action = {FaultAction::Kind::kDrop, 0};
    drop.times = 1;
    faults.add(drop);
    faults.add(error_fault({FaultScope::Kind::kKernel, 0x260001u, {}, std::nullopt}, 7));
    const FaultPoint p = kernel_point(0x260001u, "addr");
    EXPECT_EQ(faults.hit(p).kind, FaultAction::Kind::kDrop);
    const FaultAction second = faults.hit(p);
    EXPECT_EQ(second.kind, FaultAction::Kind::kError);
    EXPECT_EQ(second.value, 7u);
}

TEST(FaultsTest, ClearRemovesByIdOrAll) {
    Faults faults;
    const std::uint32_t a = faults.add(error_fault({FaultScope::Kind::kPort, 1653, {}, std::nullopt}));
    const std::uint32_t b = faults.add(error_fault({FaultScope::Kind::kPort, 1639, {}, std::nullopt}));
    EXPECT_EQ(b, a + 1);
    EXPECT_TRUE(faults.clear(a));
    EXPECT_FALSE(faults.clear(a));
    EXPECT_EQ(faults.list().size(), 1u);
    EXPECT_EQ(faults.clear_all(), 1u);
    EXPECT_TRUE(faults.empty());
}

std::vector<bool> outcomes(double p, std::uint64_t seed, int n) {
    Faults faults;
    Fault f = error_fault({FaultScope::Kind::kPort, 1653, {}, std::nullopt});
    f.probability = p;
    f.seed = seed;
    faults.add(f);
    FaultPoint lipc;
    lipc.port = 1653;
    std::vector<bool> out;
    for (int i = 0; i < n; ++i) out.push_back(static_cast<bool>(faults.hit(lipc)));
    return out;
}

TEST(FaultsTest, SeededProbabilityReplaysExactly) {
    const auto first = outcomes(0.5, 42, 200);
    EXPECT_EQ(first, outcomes(0.5, 42, 200));
    EXPECT_NE(first, outcomes(0.5, 43, 200));
    const auto fired = std::count(first.begin(), first.end(), true);
    EXPECT_GT(fired, 60) << "about half of 200";
    EXPECT_LT(fired, 140);
}

TEST(FaultsTest, ProbabilityZeroNeverFiresAndOneAlways) {
    const auto never = outcomes(0.0, 1, 100);
    const auto always = outcomes(1.0, 1, 100);
    EXPECT_EQ(std::count(never.begin(), never.end(), true), 0);
    EXPECT_EQ(std::count(always.begin(), always.end(), true), 100);
}

TEST(FaultsTest, ReachedCountsRequestsThatCouldFire) {
    Faults faults;
    Fault f = error_fault({FaultScope::Kind::kPort, 1653, {}, std::nullopt});
    f.probability = 0.0;
    faults.add(f);
    FaultPoint lipc;
    lipc.port = 1653;
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(faults.hit(lipc));
    EXPECT_EQ(faults.list()[0].reached, 5u);
    EXPECT_EQ(faults.list()[0].fired, 0u);
}

}  // namespace
}  // namespace sim
