// Faults the simulated device plays on purpose (ipsimd's fault.set), seen from the library's
// public API the way a kernel selftest sees its own knobs: set the fault, drive the library,
// check the exact status it answers and what the device did (nothing, for an error, a drop
// or a close), clear the fault, and check that the next call succeeds and the device is as
// it was.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/fib.h"
#include "ipclient/ipaddr.h"
#include "ipclient/ipcfg.h"
#include "ipclient/kernel.h"
#include "ipclient/status.h"
#include "ipplat/platform.h"
#include "ipproto/kmod_fib.hpp"
#include "support/statuses.hpp"

namespace e2e::fault_tests {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

// A status no module of the device answers by itself: what an error fault answers with.
constexpr std::uint32_t kInjected = 0x4316007Au;
// The address configuration client's own status for an exchange that failed.
constexpr std::uint32_t kIpCfgFailed = IPSTATUS_IPCFG_FAILED;
const std::uint32_t kHostMask = 0xFFFFFFFFu;

long ms_since(Clock::time_point t0) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count());
}

bool found(std::uint32_t addr) {
    IPAddrInfo info{};
    return lookup_any(addr, &info) == 0;
}

// An address record for the address driver: a manual host address on an interface.
IPAddrInfo manual(std::uint32_t ifindex, const char* addr, const char* mask) {
    IPAddrInfo info{};
    info.stEntry.stKey.usVrfIndex = 0;
    info.stEntry.stKey.uiIfIndex = ifindex;
    info.stEntry.stKey.uiAddr = ip(addr);
    info.stEntry.stKey.uiMask = ip(mask);
    info.stEntry.stKey.uiMethod = IPADDR_METHOD_MANUAL;
    info.stEntry.uiFlag = 1;
    return info;
}

std::string file_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

// Polls until the condition holds, at most `limit`.
template <class F>
bool within(std::chrono::milliseconds limit, F cond) {
    const auto end = Clock::now() + limit;
    while (!cond()) {
        if (Clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// The device of each test is the harness's, and its faults are set, listed and cleared as
// an application's test does it.
class Faults : public HarnessTest {
protected:
    // Sets a fault; its id (0 when the simulator refused it, which fails the test).
    std::uint32_t set_fault(const json& fields) {
        try {
            return json::parse(device().set_fault(fields.dump())).value("id", 0u);
        } catch (const ipsim::Error& e) {
            ADD_FAILURE() << e.what();
            return 0;
        }
    }
    // The fault with the id as fault.list shows it, or null.
    json listed(std::uint32_t id) {
        const json answer = json::parse(device().faults());
        for (const json& f : answer.value("faults", json::array())) {
            if (f.value("id", 0u) == id) return f;
        }
        return nullptr;
    }
    std::uint32_t cleared(const json& fields) {
        return json::parse(device().clear_faults(fields.is_null() ? "{}" : fields.dump())).value("cleared", 0u);
    }
    std::string state_dir() { return device().directory(); }
};

TEST_F(Faults, FaultError) {
    const IPAddrInfo info = manual(kGe1, "10.1.1.77", "255.255.255.0");
    ASSERT_FALSE(found(ip("10.1.1.77")));

    const std::uint32_t id = set_fault({{"kernel", "0x260001"}, {"error", "0x4316007a"}, {"times", 1}});
    ASSERT_NE(id, 0u);
    const json before = listed(id);
    EXPECT_EQ(before.value("kernel", ""), "0x260001") << before.dump();
    EXPECT_EQ(before.value("error", ""), "0x4316007a") << before.dump();
    EXPECT_EQ(before.value("times_left", 0u), 1u) << before.dump();
    EXPECT_EQ(before.value("fired", 99u), 0u) << before.dump();

    // The add is answered with the fault's status and not carried out.
    EXPECT_EQ(IPAddr_Drvk_AddIP(&info), kInjected);
    const json after = listed(id);
    EXPECT_EQ(after.value("reached", 0u), 1u) << after.dump();
    EXPECT_EQ(after.value("fired", 0u), 1u) << after.dump();
    EXPECT_EQ(after.value("times_left", 99u), 0u) << after.dump();
    EXPECT_FALSE(found(ip("10.1.1.77"))) << "an add answered by an error fault was carried out";

    // Spent: the same add goes through now.
    ASSERT_EQ(IPAddr_Drvk_AddIP(&info), 0u);
    IPAddrInfo got{};
    ASSERT_EQ(lookup_any(ip("10.1.1.77"), &got), 0u);
    EXPECT_EQ(got.stEntry.stKey.uiIfIndex, kGe1);
    EXPECT_EQ(listed(id).value("fired", 0u), 1u) << "a spent fault fires no more";

    EXPECT_EQ(cleared({{"id", id}}), 1u);
    EXPECT_TRUE(listed(id).is_null());
    ASSERT_EQ(IPAddr_Drvk_DelIP(&info.stEntry.stKey), 0u);
    EXPECT_FALSE(found(ip("10.1.1.77")));
    EXPECT_TRUE(found(ip("10.1.1.1")));
}

// A dropped request is never answered: the caller waits its device time-out
// (IPCLIENT_DEVICE_TIMEOUT_MS, read once by each process) and is answered as by a device
// without the module. The waiting process is a child with a short time-out.
TEST_F(Faults, FaultDrop) {
    std::string out;
    ASSERT_EQ(run({PROBE_PATH, "10.1.1.1"}, &out), 0);
    ASSERT_EQ(out, "local 1\nlookup 0 2\n");

    const std::uint32_t id = set_fault({{"kernel", "0x260001"}, {"drop", true}});
    ASSERT_NE(id, 0u);
    ::setenv("IPCLIENT_DEVICE_TIMEOUT_MS", "300", 1);
    const auto t0 = Clock::now();
    const int rc = run({PROBE_PATH, "10.1.1.1"}, &out);
    const long took = ms_since(t0);
    ::unsetenv("IPCLIENT_DEVICE_TIMEOUT_MS");
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(out.rfind("local 1\nlookup 0x40010001 ", 0), 0u) << out;
    EXPECT_GE(took, 300) << "answered before the time-out: the request was not dropped";
    EXPECT_LT(took, 8000) << "the child's own time-out was not used";
    const json f = listed(id);
    EXPECT_EQ(f.value("reached", 0u), 1u) << f.dump();
    EXPECT_EQ(f.value("fired", 0u), 1u) << f.dump();
    EXPECT_FALSE(f.contains("times_left") && !f["times_left"].is_null()) << "a fault without times stays: " << f.dump();

    EXPECT_EQ(cleared({}), 1u);
    ::setenv("IPCLIENT_DEVICE_TIMEOUT_MS", "300", 1);
    const int again = run({PROBE_PATH, "10.1.1.1"}, &out);
    ::unsetenv("IPCLIENT_DEVICE_TIMEOUT_MS");
    ASSERT_EQ(again, 0);
    EXPECT_EQ(out, "local 1\nlookup 0 2\n");
    EXPECT_TRUE(found(ip("10.1.1.1")));
}

TEST_F(Faults, FaultDelay) {
    const std::uint32_t id = set_fault({{"kernel", "0x260001"}, {"delay_ms", 400}, {"times", 1}});
    ASSERT_NE(id, 0u);
    IPAddrInfo info{};
    const auto t0 = Clock::now();
    const std::uint32_t status = lookup_any(ip("10.1.1.1"), &info);
    const long took = ms_since(t0);
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, kGe1) << "the late answer is the right one";
    EXPECT_EQ(info.stEntry.stKey.uiMask, ip("255.255.255.0"));
    EXPECT_GE(took, 400) << "answered before the delay";
    EXPECT_LT(took, 9000) << "sanity: well within the device time-out";
    EXPECT_EQ(listed(id).value("fired", 0u), 1u);

    // Spent: answered at once and as before.
    IPAddrInfo next{};
    ASSERT_EQ(lookup_any(ip("10.1.1.1"), &next), 0u);
    EXPECT_EQ(std::memcmp(&next, &info, sizeof info), 0);
    EXPECT_EQ(cleared({}), 1u);
}

// A chunk of the FIB dump cut short in the middle of a route: the table the file would hold
// is not the device's, so the save fails and leaves no file behind.
// A dump chunk cut inside the answer's result word: the pull fails, and so does the save,
// which removes its file.
TEST_F(Faults, FaultTruncate) {
    const std::string path = state_dir() + "/fib-truncated.txt";
    ASSERT_EQ(FIB_SaveForwardingTable(path.c_str()), 0u);
    const std::string whole = file_text(path);
    ASSERT_NE(whole.find("10.8.0.0/16"), std::string::npos) << whole;
    ASSERT_EQ(::unlink(path.c_str()), 0);

    const std::uint32_t id = set_fault({{"call", "dump-pull"}, {"truncate", 2}});
    ASSERT_NE(id, 0u);
    EXPECT_EQ(FIB_SaveForwardingTable(path.c_str()), kFailed);
    EXPECT_FALSE(exists(path)) << "a failed save left its file:\n" << file_text(path);
    EXPECT_EQ(listed(id).value("fired", 0u), 1u) << "the first pull failed and ended the save";

    EXPECT_EQ(cleared({{"id", id}}), 1u);
    ASSERT_EQ(FIB_SaveForwardingTable(path.c_str()), 0u);
    ASSERT_TRUE(exists(path));
    EXPECT_EQ(file_text(path), whole);
}

// A chunk torn inside its second entry: the reader counts whole entries only, so the torn
// one and the rest of the chunk are lost without an error (the device's dump went past them).
// Kept as the reader is: a chunk carries no count that could tell it was cut.
TEST_F(Faults, FaultTruncateTearsAChunkAndItsCutEntriesAreLost) {
    const std::string path = state_dir() + "/fib-torn.txt";
    ASSERT_EQ(FIB_SaveForwardingTable(path.c_str()), 0u);
    const std::string whole = file_text(path);
    ASSERT_EQ(::unlink(path.c_str()), 0);

    // The result word, the chunk's 8-byte head, one whole route and half of the next.
    const std::size_t cut = 4 + 8 + ipc::proto::fib::kDumpEntryLen + ipc::proto::fib::kDumpEntryLen / 2;
    const std::uint32_t id = set_fault({{"call", "dump-pull"}, {"truncate", cut}});
    ASSERT_NE(id, 0u);
    EXPECT_EQ(FIB_SaveForwardingTable(path.c_str()), 0u);
    ASSERT_TRUE(exists(path));
    const std::string torn = file_text(path);
    EXPECT_NE(torn.find("{public, 0.0.0.0/0}"), std::string::npos) << torn;
    EXPECT_EQ(torn.find("10.8.0.0/16"), std::string::npos) << "a cut route was written:\n" << torn;
    EXPECT_LT(torn.size(), whole.size());
    EXPECT_GE(listed(id).value("fired", 0u), 1u);

    EXPECT_EQ(cleared({}), 1u);
    ASSERT_EQ(::unlink(path.c_str()), 0);
    ASSERT_EQ(FIB_SaveForwardingTable(path.c_str()), 0u);
    EXPECT_EQ(file_text(path), whole);
}

// The dump's request id covers its opening too: an opening answered short (no whole
// handle) fails the save at once.
TEST_F(Faults, FaultTruncateOfADumpOpening) {
    const std::string path = state_dir() + "/fib-unopened.txt";
    const std::uint32_t id = set_fault({{"kernel", ipc::proto::fib::kDumpRequest}, {"truncate", 2}, {"times", 1}});
    ASSERT_NE(id, 0u);
    EXPECT_EQ(listed(id).value("kernel", ""), "0x640001");
    EXPECT_EQ(FIB_SaveForwardingTable(path.c_str()), kFailed);
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(listed(id).value("fired", 0u), 1u);

    ASSERT_EQ(FIB_SaveForwardingTable(path.c_str()), 0u);
    EXPECT_TRUE(exists(path));
    EXPECT_EQ(file_text(path).rfind("[FIB Info]\r\n{1, 0, 0}, {public, 0.0.0.0/0}", 0), 0u);
    EXPECT_EQ(cleared({}), 1u);
}

TEST_F(Faults, FaultClose) {
    // A service port: the connection closes instead of the answer; nothing is added.
    const std::uint32_t on_port = set_fault({{"port", IPADDR_PORT_CONTROL}, {"close", true}, {"times", 1}});
    ASSERT_NE(on_port, 0u);
    EXPECT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), kIpCfgFailed);
    EXPECT_FALSE(found(ip("10.9.9.1")));
    EXPECT_EQ(listed(on_port).value("fired", 0u), 1u);
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    EXPECT_TRUE(found(ip("10.9.9.1")));

    // The device channel: the call fails as on a device without the module, and the
    // process's next call opens a new connection and is answered.
    const std::uint32_t on_call = set_fault({{"kernel", "0x260001"}, {"close", true}, {"times", 1}});
    ASSERT_NE(on_call, 0u);
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.9.9.1"), &info), kFailed);
    EXPECT_EQ(listed(on_call).value("fired", 0u), 1u);
    ASSERT_EQ(lookup_any(ip("10.9.9.1"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, kGe1);

    EXPECT_EQ(cleared({}), 2u);
    ASSERT_EQ(IPCfg_DelManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    EXPECT_FALSE(found(ip("10.9.9.1")));
}

// The address configuration client waits for its answer without a time-out of its own: a
// dropped request holds it until the service's connection ends (a restart).
TEST_F(Faults, FaultDropOnAddressConfiguration) {
    const std::uint32_t id = set_fault({{"port", IPADDR_PORT_CONTROL}, {"drop", true}});
    ASSERT_NE(id, 0u);
    std::atomic<bool> done{false};
    std::atomic<std::uint32_t> status{0};
    std::thread caller([&] {
        status = IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1);
        done = true;
    });
    // The request reached the fault and waits; the caller is still held.
    const bool reached = within(std::chrono::seconds(5), [&] { return listed(id).value("reached", 0u) == 1u; });
    EXPECT_TRUE(reached) << listed(id).dump();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(done.load()) << "the caller was answered: " << std::hex << status.load();

    const json restart = ok({{"op", "service.restart"}, {"service", IPADDR_PORT_CONTROL}, {"after_ms", 1000}});
    EXPECT_EQ(restart.value("port", 0u), IPADDR_PORT_CONTROL) << restart.dump();
    EXPECT_EQ(restart.value("service", ""), "address configuration service") << restart.dump();
    const bool ended = within(std::chrono::seconds(5), [&] { return done.load(); });
    EXPECT_TRUE(ended) << "the restart did not end the held exchange";
    if (!ended) kill9();  // ends every connection, so that the caller returns
    caller.join();
    if (!ended) return;
    EXPECT_EQ(status.load(), kIpCfgFailed);
    EXPECT_EQ(listed(id).value("fired", 0u), 1u);
    EXPECT_FALSE(found(ip("10.9.9.1"))) << "a dropped request was carried out";

    // Away for its time; then a new call is answered.
    EXPECT_EQ(cleared({{"id", id}}), 1u);
    EXPECT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), kIpCfgFailed)
        << "the service answered while restarting";
    std::uint32_t last = kIpCfgFailed;
    EXPECT_TRUE(within(std::chrono::seconds(10), [&] {
        last = IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1);
        return last != kIpCfgFailed;
    }));
    EXPECT_EQ(last, 0u);
    IPAddrInfo info{};
    ASSERT_EQ(lookup_any(ip("10.9.9.1"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, kGe1);
}

// Which of 40 lookups a fault of probability 0.5 answers: true for each one answered by the
// device, false for each one the fault answered (with its exact status).
std::vector<bool> forty_draws(ipsim::Device& device, std::uint64_t seed, std::uint32_t* id) {
    const json fault{{"kernel", "0x260001"}, {"error", "0x4316007a"}, {"probability", 0.5}, {"seed", seed}};
    *id = json::parse(device.set_fault(fault.dump())).value("id", 0u);
    std::vector<bool> outcomes;
    for (int i = 0; i < 40; ++i) {
        IPAddrInfo info{};
        const std::uint32_t status = lookup_any(ip("10.1.1.1"), &info);
        EXPECT_TRUE(status == 0u || status == kInjected) << std::hex << status;
        outcomes.push_back(status == 0u);
    }
    return outcomes;
}

std::string shown(const std::vector<bool>& v) {
    std::string s;
    for (const bool b : v) s += b ? '.' : 'X';
    return s;
}

TEST_F(Faults, FaultProbabilityReplays) {
    std::uint32_t id = 0;
    const std::vector<bool> first = forty_draws(device(), 7, &id);
    ASSERT_NE(id, 0u);
    const json f = listed(id);
    std::uint64_t failures = 0;
    for (const bool b : first) failures += b ? 0 : 1;
    EXPECT_EQ(f.value("reached", 0u), 40u) << f.dump();
    EXPECT_EQ(f.value("fired", 0u), failures) << f.dump();
    EXPECT_EQ(f.value("seed", 0u), 7u) << f.dump();
    EXPECT_GT(failures, 5u) << shown(first);
    EXPECT_LT(failures, 35u) << shown(first);

    // The same seed again: the same outcomes, in the same order.
    EXPECT_EQ(cleared({{"id", id}}), 1u);
    const std::vector<bool> replay = forty_draws(device(), 7, &id);
    EXPECT_EQ(shown(replay), shown(first));
    EXPECT_EQ(cleared({{"id", id}}), 1u);

    // Another seed: other outcomes.
    const std::vector<bool> other = forty_draws(device(), 8, &id);
    EXPECT_NE(shown(other), shown(first));
    EXPECT_EQ(cleared({}), 1u);
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.1.1.1"), &info), 0u);
}

TEST_F(Faults, NothingChangesWhenFaulted) {
    std::uint8_t epoch = 0;
    ASSERT_EQ(IPAddr_Drvk_GetAddrGlobalEpoch(0, 0, &epoch), 0u);
    void* db = nullptr;
    ASSERT_EQ(DBM_Open("ip", "address", 0, &db), 0u);
    ASSERT_EQ(IPCfg_Mor_GetAddrNum(db, kGe1, "GigabitEthernet1/0/1"), 2u);

    const std::uint32_t id = set_fault({{"port", IPADDR_PORT_CONTROL}, {"error", kInjected}});
    ASSERT_NE(id, 0u);
    EXPECT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), kInjected);
    EXPECT_EQ(IPCfg_AddManualAddr(kLoop0, ip("2.2.2.2"), kHostMask, 1), kInjected);
    EXPECT_EQ(listed(id).value("fired", 0u), 2u);

    // Neither the tables, nor the store, nor the epoch moved.
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.9.9.1"), &info), kFailed);
    EXPECT_EQ(lookup_any(ip("2.2.2.2"), &info), kFailed);
    std::uint8_t now = 0;
    ASSERT_EQ(IPAddr_Drvk_GetAddrGlobalEpoch(0, 0, &now), 0u);
    EXPECT_EQ(now, epoch);
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(db, kGe1, "GigabitEthernet1/0/1"), 2u);

    EXPECT_EQ(cleared({}), 1u);
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 1), 0u);
    ASSERT_EQ(lookup_any(ip("10.9.9.1"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, kGe1);
    ASSERT_EQ(IPAddr_Drvk_GetAddrGlobalEpoch(0, 0, &now), 0u);
    EXPECT_NE(now, epoch);
    EXPECT_EQ(IPCfg_Mor_GetAddrNum(db, kGe1, "GigabitEthernet1/0/1"), 3u);
    EXPECT_EQ(DBM_Close(db), 0u);
}

}  // namespace
}  // namespace e2e::fault_tests
