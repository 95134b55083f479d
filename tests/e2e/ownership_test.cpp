// Who may answer for an instance and who may read what the simulator writes: clients take
// a channel only from their own user (or root), the simulator says who holds a name it
// cannot take, and its files are private and never reached through a link.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include "e2e/e2e_support.hpp"
#include "ipplat/host.h"

namespace e2e {
namespace {

constexpr uid_t kNobody = 65534;

mode_t mode_of(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

// A file as another program would have left it: world-readable.
void open_file(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) ::close(fd);
    ::chmod(path.c_str(), 0644);
}

bool can_be_nobody() { return ::getuid() == 0 && ::access("/usr/bin/setpriv", X_OK) == 0; }

TEST(OwnershipE2E, CaptureFileIsPrivate) {
    SimProcess sim;
    const std::string capture = sim.state_dir() + "/capture.jsonl";
    const std::string earlier = sim.state_dir() + "/earlier.jsonl";
    open_file(earlier);
    ASSERT_TRUE(sim.start({"--capture", capture})) << sim.log();
    EXPECT_EQ(mode_of(capture), 0600u) << "a new capture";
    ASSERT_EQ(sim.stop(), 0);
    // One that another program left readable to all is made private.
    ASSERT_TRUE(sim.start({"--capture", earlier})) << sim.log();
    IPAddrInfo info{};
    (void)lookup_any(ip("10.1.1.1"), &info);
    EXPECT_EQ(mode_of(earlier), 0600u);
}

TEST(OwnershipE2E, CaptureThroughASymbolicLinkIsRefused) {
    const TempDir tmp;
    const std::string& dir = tmp.path();
    ASSERT_FALSE(dir.empty());
    const std::string target = dir + "/elsewhere";
    const std::string link = dir + "/capture.jsonl";
    ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
    std::string out, err;
    const int rc = run({IPSIMD_PATH, "--instance", instance(), "--capture", link}, &out, &err);
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_NE(err.find("symbolic link"), std::string::npos) << err;
    EXPECT_NE(::access(target.c_str(), F_OK), 0) << "the link's target was created";
}

TEST(OwnershipE2E, StateFilesArePrivateInAnOpenDirectory) {
    const TempDir tmp(0755);
    const std::string& dir = tmp.path();
    ASSERT_FALSE(dir.empty());
    // A database and a lock file left readable to all (an empty database is a new one).
    open_file(dir + "/ipsimd.db");
    open_file(dir + "/ipsimd.lock");
    SimProcess sim;
    sim.use_state_dir(dir);
    ASSERT_TRUE(sim.start()) << sim.log();
    for (const char* name : {"/ipsimd.db", "/ipsimd.db-wal", "/ipsimd.db-shm", "/ipsimd.lock"}) {
        EXPECT_EQ(mode_of(dir + name), 0600u) << name;
    }
}

TEST(OwnershipE2E, StateDirectoryWritableByOthersIsRefused) {
    const TempDir tmp(0777);
    const std::string& dir = tmp.path();
    ASSERT_FALSE(dir.empty());
    ASSERT_EQ(::chmod(dir.c_str(), 0777), 0);
    std::string out, err;
    const int rc = run({IPSIMD_PATH, "--instance", instance(), "--state", dir}, &out, &err);
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_NE(err.find("writable by others (mode 0777)"), std::string::npos) << err;
    EXPECT_NE(::access((dir + "/ipsimd.db").c_str(), F_OK), 0);
}

TEST(OwnershipE2E, StateDirectoryOfAnotherUserWithALinkedDatabaseIsRefused) {
    if (::getuid() != 0) GTEST_SKIP() << "needs root to give a directory to another user";
    const TempDir tmp(0755), elsewhere(0755);
    const std::string& dir = tmp.path();
    const std::string& target_dir = elsewhere.path();
    ASSERT_FALSE(dir.empty());
    const std::string target = target_dir + "/made-by-root";
    ASSERT_EQ(::symlink(target.c_str(), (dir + "/ipsimd.db").c_str()), 0);
    ASSERT_EQ(::lchown(dir.c_str(), kNobody, kNobody), 0);
    std::string out, err;
    const int rc = run({IPSIMD_PATH, "--instance", instance(), "--state", dir}, &out, &err);
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_NE(err.find("belongs to uid 65534"), std::string::npos) << err;
    EXPECT_NE(::access(target.c_str(), F_OK), 0) << "the simulator created the link's target";
}

TEST(OwnershipE2E, LinkedDatabaseInOwnDirectoryIsNeverFollowed) {
    const TempDir tmp, elsewhere;
    const std::string& dir = tmp.path();
    const std::string& target_dir = elsewhere.path();
    const std::string target = target_dir + "/made-through-a-link";
    ASSERT_EQ(::symlink(target.c_str(), (dir + "/ipsimd.db").c_str()), 0);
    std::string out, err;
    const int rc = run({IPSIMD_PATH, "--instance", instance(), "--state", dir}, &out, &err);
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_NE(err.find("symbolic link"), std::string::npos) << err;
    EXPECT_NE(::access(target.c_str(), F_OK), 0);
}

// Another user's process that holds the instance's device and control names.
class ImpostorE2E : public ::testing::Test {
protected:
    void SetUp() override {
        if (!can_be_nobody()) GTEST_SKIP() << "needs root and setpriv to run a process as another user";
        impostor_ = std::make_unique<Child>(std::vector<std::string>{"/usr/bin/setpriv", "--reuid=65534",
                                                                      "--regid=65534", "--clear-groups",
                                                                      IMPOSTOR_PATH, instance()});
        std::string line;
        ASSERT_TRUE(impostor_->line(&line)) << "the impostor did not start";
        ASSERT_EQ(line, "ready");
    }

    std::unique_ptr<Child> impostor_;
};

TEST_F(ImpostorE2E, LibraryDoesNotTakeTheDeviceFromAnotherUser) {
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.1.1.1"), &info), 0x40010001u) << "the impostor's answer was taken";
    std::uint32_t owner = 0;
    EXPECT_EQ(ipp_device_state(&owner), IPP_DEVICE_FOREIGN);
    EXPECT_EQ(owner, kNobody);
}

TEST_F(ImpostorE2E, ControlClientRefusesAForgedAnswer) {
    std::string out, err;
    const int rc = run({IPSIMD_PATH, "--instance", instance(), "--control", R"({"op": "neigh.list"})"}, &out, &err);
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_EQ(out, "") << "the forged answer was printed";
    EXPECT_NE(err.find("refused: the control channel of instance \"" + instance() + "\" is held by uid 65534"),
              std::string::npos)
        << err;
}

TEST_F(ImpostorE2E, SimulatorSaysWhoHoldsItsNames) {
    std::string out, err;
    const int rc = run({IPSIMD_PATH, "--instance", instance()}, &out, &err);
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_NE(err.find("cannot listen on the device channel of instance " + instance() + " (held by pid "),
              std::string::npos)
        << err;
    EXPECT_NE(err.find(", uid 65534)"), std::string::npos) << err;
}

TEST_F(ImpostorE2E, IpctlSaysTheSimulatorRunsAsAnotherUser) {
    std::string out, err;
    const int rc = run({IPCTL_PATH, "addr", "show"}, &out, &err);
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_EQ(err, "ipctl: refused by the simulator: it runs as uid 65534 (instance \"" + instance() + "\")\n");
}

}  // namespace
}  // namespace e2e

namespace e2e {
namespace {

using RefusalE2E = SimTest;

// The simulator serves its own user: another user's ipctl is told whose simulator it is.
TEST_F(RefusalE2E, IpctlOfAnotherUserIsToldWhoseSimulatorItIs) {
    if (!can_be_nobody()) GTEST_SKIP() << "needs root and setpriv to run a process as another user";
    std::string out, err;
    const int rc = run({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", IPCTL_PATH, "addr",
                        "show"},
                       &out, &err);
    if (rc == 126 || rc == 127) GTEST_SKIP() << "ipctl cannot run as nobody here: " << err;
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_EQ(err, "ipctl: refused by the simulator: it runs as uid " + std::to_string(::geteuid()) +
                       " (instance \"" + instance() + "\")\n");
}

TEST_F(RefusalE2E, IpctlOnANodeTheDeviceDoesNotHaveIsToldSo) {
    std::string out, err;
    const int rc = run({"/usr/bin/env", "IPCLIENT_NODE=99", IPCTL_PATH, "addr", "show"}, &out, &err);
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_EQ(err, "ipctl: the simulator of instance \"" + instance() +
                       "\" refused this process (is IPCLIENT_NODE a node of the device?)\n");
}

}  // namespace
}  // namespace e2e
