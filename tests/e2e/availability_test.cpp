// A device that is briefly away, starved or signalled: library calls come back once it
// is there again (never a hang), the simulator neither spins nor dies when it has no
// descriptor left, and it ends on SIGTERM at any moment.
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "e2e/e2e_support.hpp"
#include "ipclient/ipcfg.h"
#include "ipplat/host.h"
#include "ipproto/endpoints.hpp"
#include "ipproto/raii.hpp"

namespace e2e {
namespace {

using namespace std::chrono_literals;

// Waits for a child process at most `limit`; its exit status, or -1 (it is then killed).
int wait_child(pid_t pid, std::chrono::milliseconds limit) { return wait_exit(pid, limit, true); }

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// CPU seconds (user and system) a process used so far.
double cpu_seconds(pid_t pid) {
    const std::string text = slurp("/proc/" + std::to_string(pid) + "/stat");
    const auto close = text.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream rest(text.substr(close + 2));
    std::string field;
    unsigned long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i == 14) utime = std::stoul(field);
        if (i == 15) stime = std::stoul(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

std::size_t count_of(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

using AvailabilityE2E = SimTest;

// A call made while the simulator is stopped waits for it (the address configuration
// request has no time-out of its own), and returns once the simulator goes on; the device
// channel's own time-out (10 s) passes meanwhile, which once left the process locked for
// good. The call runs in a child process so that a hang fails the test instead of ending it.
TEST_F(AvailabilityE2E, CallWhileTheSimulatorIsStoppedReturnsOnceItContinues) {
    ASSERT_EQ(::kill(sim.pid(), SIGSTOP), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const std::uint32_t status = IPCfg_AddManualAddr(kGe1, ip("10.9.8.1"), ip("255.255.255.0"), 1);
        ::_exit(status == 0 ? 0 : 1);
    }
    std::this_thread::sleep_for(10500ms);
    ASSERT_EQ(::kill(sim.pid(), SIGCONT), 0);
    EXPECT_EQ(wait_child(child, 5s), 0) << "the call did not come back once the simulator went on";
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.9.8.1"), &info), 0u) << "the next call, in another process";
}

// A process whose calls failed while the device could not be reached succeeds again, with
// no restart, once it can.
TEST_F(AvailabilityE2E, CallsFailWithoutDescriptorsAndSucceedOnceThereAreSome) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        rlimit old{};
        ::getrlimit(RLIMIT_NOFILE, &old);
        // No new descriptor: a new one would take the lowest free number, which the limit
        // now leaves out.
        int lowest_free = 0;
        while (::fcntl(lowest_free, F_GETFD) != -1) ++lowest_free;
        rlimit tight{static_cast<rlim_t>(lowest_free), old.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &tight);
        IPAddrInfo info{};
        const std::uint32_t starved = lookup_any(ip("10.1.1.1"), &info);
        ::setrlimit(RLIMIT_NOFILE, &old);
        // The platform looks for the simulator again after a short pause.
        std::this_thread::sleep_for(300ms);
        const std::uint32_t fed = lookup_any(ip("10.1.1.1"), &info);
        if (starved != 0x40010001u || fed != 0) std::fprintf(stderr, "starved %#x fed %#x\n", starved, fed);
        ::_exit(starved == 0x40010001u && fed == 0 ? 0 : 1);
    }
    EXPECT_EQ(wait_child(child, 20s), 0);
}

// Out of descriptors, the simulator backs off instead of spinning, says so at most about
// once a second, and serves again once descriptors are free.
TEST(AvailabilityStarvedE2E, SimulatorOutOfDescriptorsNeitherSpinsNorStops) {
    SimProcess sim;
    ASSERT_TRUE(sim.start()) << sim.log();
    const pid_t pid = sim.pid();
    rlimit roomy{};
    ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, nullptr, &roomy), 0) << std::strerror(errno);
    rlimit tight{64, roomy.rlim_max};
    ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, &tight, nullptr), 0) << std::strerror(errno);

    std::vector<ipc::Fd> held;
    sockaddr_un sun{};
    const socklen_t len = ipc::names::device(instance(), &sun);
    for (int i = 0; i < 100; ++i) {
        ipc::Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        ASSERT_TRUE(fd.valid());
        if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&sun), len) == 0) held.push_back(std::move(fd));
    }
    ASSERT_GE(held.size(), 64u);
    const double before = cpu_seconds(pid);
    std::this_thread::sleep_for(2s);
    const double used = cpu_seconds(pid) - before;
    EXPECT_LT(used, 0.5) << "the simulator spun for " << used << " s of CPU in 2 s";
    const std::string log = sim.log();
    const std::size_t lines = count_of(log, "cannot accept connections");
    EXPECT_GE(lines, 1u) << log;
    EXPECT_LE(lines, 4u) << log;

    // The limit comes back before the held peers leave. Under the sanitizers a virtual call
    // whose type the runtime has not checked yet needs a descriptor of the runtime's own (a
    // pipe to probe the object's memory); with none free, the check reports a sound object as
    // corrupt. Freed descriptors are freed descriptors either way: the waiting peers are
    // accepted, the held ones end, and the next call is served.
    ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, &roomy, nullptr), 0);
    held.clear();
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.1.1.1"), &info), 0u) << sim.log();
    EXPECT_EQ(sim.stop(), 0);
}

TEST(AvailabilityNamesE2E, InstanceNameLongerThanTheLimitIsRefusedAtStart) {
    std::string out, err;
    const std::string name(76, 'n');
    const int rc = run({IPSIMD_PATH, "--instance", name}, &out, &err);
    EXPECT_EQ(rc, 2) << out << err;
    EXPECT_NE(err.find("bad instance name"), std::string::npos) << err;
    EXPECT_NE(err.find("(76 bytes): a name has 1 to 64 characters"), std::string::npos) << err;
}

TEST(AvailabilityNamesE2E, TwoLongNamesThatShareTheirStartDoNotMeet) {
    // 64 characters each, the same but for the last: both fit, and both serve.
    const std::string stem(63, 'k');
    Child a({IPSIMD_PATH, "--instance", stem + "a"});
    Child b({IPSIMD_PATH, "--instance", stem + "b"});
    std::string line;
    ASSERT_TRUE(a.line(&line)) << "the first did not become ready";
    EXPECT_EQ(line, "ready instance=" + stem + "a nodes=2");
    ASSERT_TRUE(b.line(&line)) << "the second did not become ready";
    EXPECT_EQ(line, "ready instance=" + stem + "b nodes=2");
}

// Whether a process has a handler of its own for a signal (SigCgt of its status), that is:
// whether it runs its own code yet.
bool catches(pid_t pid, int sig) {
    const std::string status = slurp("/proc/" + std::to_string(pid) + "/status");
    const auto at = status.find("SigCgt:");
    if (at == std::string::npos) return false;
    const unsigned long long mask = std::stoull(status.substr(at + 7), nullptr, 16);
    return (mask >> (sig - 1) & 1u) != 0;
}

TEST(AvailabilitySignalsE2E, SigtermWhileStartingEndsAtOnceWithZero) {
    // A scenario with many entries takes a while to load; SIGTERM at several moments of it,
    // from the first moment the program runs its own code.
    std::string scenario =
        "nodes:\n  - {number: 1, role: master}\n"
        "interfaces:\n  - {index: 2, name: GigabitEthernet1/0/1, node: 1, type: ethernet}\n"
        "neighbours:\n";
    for (int i = 0; i < 4; ++i) {
        scenario += "  - {interface: GigabitEthernet1/0/1, address: 10." + std::to_string(100 + i) +
                    ".0.1, mac: 02:00:00:00:00:01, count: 200000}\n";
    }
    const std::string file = temp_file("big-neighbours.yaml", scenario);
    for (const auto delay : {0ms, 20ms, 100ms, 300ms}) {
        const pid_t pid = spawn({IPSIMD_PATH, "--instance", instance(), "--scenario", file}, -1, -1);
        ASSERT_GT(pid, 0);
        const auto until = std::chrono::steady_clock::now() + 5s;
        while (!catches(pid, SIGTERM) && std::chrono::steady_clock::now() < until) std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(delay);
        const auto sent = std::chrono::steady_clock::now();
        ASSERT_EQ(::kill(pid, SIGTERM), 0);
        EXPECT_EQ(wait_child(pid, 1s), 0) << "SIGTERM " << delay.count() << " ms after the start";
        EXPECT_LT(std::chrono::steady_clock::now() - sent, 1s);
    }
}

TEST_F(AvailabilityE2E, SighupIsLoggedAndChangesNothing) {
    ASSERT_EQ(::kill(sim.pid(), SIGHUP), 0);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(::kill(sim.pid(), 0), 0) << "SIGHUP ended the simulator";
    EXPECT_NE(sim.log().find("SIGHUP received: ignored"), std::string::npos) << sim.log();
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.1.1.1"), &info), 0u);
}

TEST(AvailabilityCaptureE2E, CaptureOnAFullFileSystemStopsWithOneLineAndWholeLines) {
    SmallFs fs("64k");
    if (!fs.ok()) GTEST_SKIP() << "cannot mount a small file system here: " << fs.why();
    const std::string capture = fs.dir() + "/capture.jsonl";
    {
        SimProcess sim;
        ASSERT_TRUE(sim.start({"--capture", capture})) << sim.log();
        IPAddrInfo info{};
        for (int i = 0; i < 400; ++i) (void)lookup_any(ip("10.1.1.1"), &info);
        EXPECT_EQ(lookup_any(ip("10.1.1.1"), &info), 0u) << "the simulator serves on after the capture stopped";
        const std::string log = sim.log();
        EXPECT_EQ(count_of(log, "the capture stops here"), 1u) << log;
        EXPECT_EQ(sim.stop(), 0);
    }
    const std::string text = slurp(capture);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n') << "the file ends in the middle of a line";
    std::istringstream lines(text);
    std::string line;
    std::size_t n = 0;
    while (std::getline(lines, line)) {
        EXPECT_FALSE(nlohmann::json::parse(line, nullptr, false).is_discarded()) << "line " << n;
        ++n;
    }
    EXPECT_GT(n, 10u);
}

}  // namespace
}  // namespace e2e
