// Peers of another uid are refused on every channel.
#include <unistd.h>

#include "e2e/e2e_support.hpp"

namespace e2e {
namespace {

using AccessE2E = SimTest;

TEST_F(AccessE2E, ClientWithAnotherUidIsRefused) {
    if (::getuid() != 0) GTEST_SKIP() << "needs root to run a client as nobody";
    if (::access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "setpriv is not installed";
    std::string out, err;
    const int rc = run({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", PROBE_PATH, "10.1.1.1",
                        "2"},
                       &out, &err);
    if (rc == 126 || rc == 127 || out.empty()) GTEST_SKIP() << "the probe cannot run as nobody here: " << err;
    ASSERT_EQ(rc, 0) << err;
    EXPECT_NE(out.find("lookup 0x40010001"), std::string::npos) << out;
    EXPECT_NE(out.find("cfg 0x2316002c"), std::string::npos) << out;
    EXPECT_NE(sim.log().find("refused a peer of uid 65534"), std::string::npos) << sim.log();

    // The simulator serves its own uid as before.
    std::string mine;
    ASSERT_EQ(run({PROBE_PATH, "10.1.1.1"}, &mine), 0);
    EXPECT_NE(mine.find("lookup 0 2\n"), std::string::npos) << mine;
}

}  // namespace
}  // namespace e2e
