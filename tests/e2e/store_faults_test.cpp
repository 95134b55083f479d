// A change is acknowledged only once it is stored, and a store that cannot be trusted is
// never used silently: a full file system refuses the change (and leaves nothing of it), a
// damaged database is refused at start with the file named, an emptied database or a lost
// write-ahead log is reported, and one state directory serves one simulator.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/ipaddr.h"
#include "ipclient/ipcfg.h"

namespace e2e {
namespace {

// The status the simulator answers a change it could not store with.
constexpr std::uint32_t kStoreFailed = 0x4001000Au;
const std::uint32_t kMask32 = 0xFFFFFFFFu;

// The n-th address of a run of host addresses 10.200.0.1 onwards, in network order.
std::uint32_t nth(std::uint32_t n) { return htonl(ntohl(ip("10.200.0.0")) + 1 + n); }

bool present(std::uint32_t addr) {
    IPAddrInfo info{};
    return lookup_any(addr, &info) == 0;
}

TEST(StoreFaultsE2E, FullFileSystemRefusesTheChangeAndLosesNoAcknowledgedOne) {
    SmallFs fs("128k");
    if (!fs.ok()) GTEST_SKIP() << "cannot mount a small file system here: " << fs.why();
    // The log stays out of the state's file system, which fills up.
    const TempDir logs;
    SimProcess sim;
    sim.use_state_dir(fs.dir() + "/state");
    sim.use_log(logs.path() + "/ipsimd.log");
    ASSERT_TRUE(sim.start()) << sim.log();

    std::vector<std::uint32_t> acknowledged;
    int refused = 0;
    for (std::uint32_t i = 0; i < 2000 && refused < 3; ++i) {
        const std::uint32_t status = IPCfg_AddManualAddr(kGe1, nth(i), kMask32, 1);
        if (status == 0) {
            acknowledged.push_back(nth(i));
            continue;
        }
        ++refused;
        EXPECT_EQ(status, kStoreFailed) << "add " << dotted(nth(i));
        EXPECT_FALSE(present(nth(i))) << dotted(nth(i)) << " was refused but is there";
    }
    ASSERT_GT(refused, 0) << "the file system never filled";
    ASSERT_FALSE(acknowledged.empty());
    EXPECT_NE(sim.log().find("full"), std::string::npos) << sim.log();

    // A setting that cannot be stored is refused and left as it was.
    EXPECT_EQ(IPCfg_SetDhcp(kGeNode2, 1), kStoreFailed);
    EXPECT_EQ(IPAddr_GetAddrTypeFlag(kGeNode2) & 4u, 0u);

    sim.kill9();
    ASSERT_TRUE(fs.grow("8m"));
    ASSERT_TRUE(sim.start()) << sim.log();
    for (const std::uint32_t a : acknowledged) EXPECT_TRUE(present(a)) << dotted(a) << " was acknowledged and is lost";
    // Room again: the device takes changes as before.
    EXPECT_EQ(IPCfg_AddManualAddr(kGe1, nth(5000), kMask32, 1), 0u);
    EXPECT_TRUE(present(nth(5000)));
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

TEST(StoreFaultsE2E, DamagedDatabaseIsRefusedAtStartWithTheFileNamed) {
    SimProcess sim;
    ASSERT_TRUE(sim.start()) << sim.log();
    for (std::uint32_t i = 0; i < 1000; ++i) ASSERT_EQ(IPCfg_AddManualAddr(kGe1, nth(i), kMask32, 1), 0u) << i;
    ASSERT_EQ(sim.stop(), 0) << sim.log();

    const std::string db = sim.state_dir() + "/ipsimd.db";
    struct stat st {};
    ASSERT_EQ(::stat(db.c_str(), &st), 0);
    ASSERT_GT(st.st_size, 8 * 4096) << "a database of several pages";
    // Garbage over a page in the middle.
    {
        const int fd = ::open(db.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        const std::vector<char> junk(4096, '\x5a');
        const off_t at = (st.st_size / 2) / 4096 * 4096;
        ASSERT_EQ(::pwrite(fd, junk.data(), junk.size(), at), static_cast<ssize_t>(junk.size()));
        ::close(fd);
    }
    std::string out, err;
    const int rc = run({IPSIMD_PATH, "--instance", instance(), "--state", sim.state_dir()}, &out, &err);
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_EQ(out.find("ready"), std::string::npos) << out;
    EXPECT_NE(err.find(db), std::string::npos) << err;
    EXPECT_NE(err.find("integrity check"), std::string::npos) << err;
    // The damaged file is left for whoever can save it.
    struct stat after {};
    ASSERT_EQ(::stat(db.c_str(), &after), 0);
    EXPECT_EQ(after.st_size, st.st_size);
}

TEST(StoreFaultsE2E, EmptiedDatabaseIsReportedAtStart) {
    SimProcess sim;
    ASSERT_TRUE(sim.start()) << sim.log();
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, nth(1), kMask32, 1), 0u);
    ASSERT_EQ(sim.stop(), 0) << sim.log();
    ASSERT_EQ(::truncate((sim.state_dir() + "/ipsimd.db").c_str(), 0), 0);
    ASSERT_TRUE(sim.start()) << sim.log();
    EXPECT_NE(sim.log().find("ipsimd.db is empty, though this state directory held a database"), std::string::npos)
        << sim.log();
    EXPECT_FALSE(present(nth(1)));
    EXPECT_TRUE(present(ip("10.1.1.1"))) << "the scenario is there";
}

TEST(StoreFaultsE2E, WriteAheadLogLostAfterKillNineIsReported) {
    SimProcess sim;
    ASSERT_TRUE(sim.start()) << sim.log();
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, nth(1), kMask32, 1), 0u);
    sim.kill9();
    const std::string wal = sim.state_dir() + "/ipsimd.db-wal";
    ASSERT_EQ(::access(wal.c_str(), F_OK), 0) << "a simulator killed leaves its log";
    ASSERT_EQ(::unlink(wal.c_str()), 0);
    ASSERT_TRUE(sim.start()) << sim.log();
    EXPECT_NE(sim.log().find("ipsimd.db-wal, the write-ahead log of a simulator that did not stop cleanly, is missing"),
              std::string::npos)
        << sim.log();
}

TEST(StoreFaultsE2E, CleanStopThenRestartWarnsOfNothing) {
    SimProcess sim;
    ASSERT_TRUE(sim.start()) << sim.log();
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, nth(1), kMask32, 1), 0u);
    ASSERT_EQ(sim.stop(), 0);
    ASSERT_TRUE(sim.start()) << sim.log();
    EXPECT_TRUE(present(nth(1)));
    EXPECT_EQ(sim.log().find("state: "), std::string::npos) << sim.log();
}

TEST(StoreFaultsE2E, SecondSimulatorOnOneStateDirectoryIsRefused) {
    SimProcess sim;
    ASSERT_TRUE(sim.start()) << sim.log();
    std::string out, err;
    const int rc = run({IPSIMD_PATH, "--instance", instance() + "-second", "--state", sim.state_dir()}, &out, &err);
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_NE(err.find("in use by another ipsimd (running pid " + std::to_string(sim.pid()) + ")"), std::string::npos)
        << err;
    // The first one is unharmed and keeps what it is given.
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, nth(7), kMask32, 1), 0u);
    EXPECT_TRUE(present(nth(7)));
}

}  // namespace
}  // namespace e2e
