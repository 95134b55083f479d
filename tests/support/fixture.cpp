#include "support/fixture.hpp"

#include <dirent.h>

#include <cstdlib>
#include <string>

#include "ipplat/testctl.h"
#include "support/fake_service.hpp"

namespace ipt {

namespace {
// Unit tests fake every peer inside their own process: each process keeps its sockets in a
// namespace of its own ("p<pid>"), even when IPCLIENT_INSTANCE is set around the test run.
[[maybe_unused]] const bool g_private_instance = [] {
    ::unsetenv("IPCLIENT_INSTANCE");
    return true;
}();
}  // namespace

std::set<int> open_descriptors() {
    std::set<int> fds;
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr) return fds;
    const int own = dirfd(d);
    while (const dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        const int fd = std::atoi(e->d_name);
        if (fd != own) fds.insert(fd);
    }
    closedir(d);
    return fds;
}

PlatformTest::PlatformTest() {
    ipp_reset();
    ipp_sleep_set_virtual(1);
    fds_before_ = open_descriptors();
}

void PlatformTest::TearDown() {
    EXPECT_EQ(FakeService::running(), 0) << "a fake service thread is still running";
    const std::set<int> after = open_descriptors();
    for (const int fd : after) {
        EXPECT_TRUE(fds_before_.count(fd) != 0) << "descriptor " << fd << " leaked";
    }
    ipp_reset();
}

}  // namespace ipt
