// Test fixture: every test starts on a freshly reset platform with virtual sleep, and fails
// when it leaves a descriptor open or a fake service thread running.
#pragma once

#include <gtest/gtest.h>

#include <set>

namespace ipt {

std::set<int> open_descriptors();

// The platform is reset when the fixture is built, before the members of derived fixtures
// (a FakeKernel, say) install themselves.
class PlatformTest : public ::testing::Test {
protected:
    PlatformTest();
    void TearDown() override;

private:
    std::set<int> fds_before_;
};

}  // namespace ipt
