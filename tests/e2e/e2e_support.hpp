// Shared helpers of the end-to-end tests.
#pragma once

#include <arpa/inet.h>
#include <signal.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <ipsim/harness.hpp>

#include "e2e/sim_process.hpp"
#include "ipclient/kernel.h"

namespace e2e {

// An IPv4 address or mask in network order.
inline std::uint32_t ip(const char* text) {
    std::uint32_t v = 0;
    EXPECT_EQ(::inet_pton(AF_INET, text, &v), 1) << text;
    return v;
}

inline std::string dotted(std::uint32_t network_order) {
    char buf[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &network_order, buf, sizeof buf);
    return buf;
}

// A control request that the test needs to succeed: its answer; a refusal fails the test
// with the request and the answer.
inline nlohmann::json ok(const nlohmann::json& request) {
    nlohmann::json answer = control(request);
    EXPECT_TRUE(answer.value("ok", false)) << request.dump() << " -> " << answer.dump();
    return answer;
}

// An address driver lookup of an address on any interface of any VRF.
inline std::uint32_t lookup_any(std::uint32_t addr, IPAddrInfo* info) {
    IPAddrEntry key{};
    key.stKey.usVrfIndex = 0xFFFF;
    key.stKey.uiIfIndex = 0xFFFFFFFFu;
    key.stKey.uiAddr = addr;
    return IPAddr_Drvk_LookupAddr(0x8000, &key, info);
}

// A directory of the test's own, made with a mode and removed with all it holds.
class TempDir {
public:
    explicit TempDir(mode_t mode = 0700) {
        char tmpl[] = "/tmp/ipsim-dir-XXXXXX";
        if (const char* d = ::mkdtemp(tmpl)) {
            path_ = d;
            ::chmod(d, mode);
        }
    }
    ~TempDir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const noexcept { return path_; }

private:
    std::string path_;
};

// A tmpfs of a given size on a directory of its own (needs the right to mount), unmounted
// and removed at the end.
class SmallFs {
public:
    explicit SmallFs(const char* size) {
        const std::string opts = std::string("size=") + size + ",mode=0700";
        mounted_ = !dir_.path().empty() && ::mount("tmpfs", dir_.path().c_str(), "tmpfs", 0, opts.c_str()) == 0;
        if (!mounted_) why_ = std::strerror(errno);
    }
    ~SmallFs() {
        if (mounted_) ::umount2(dir_.path().c_str(), MNT_DETACH);
    }
    SmallFs(const SmallFs&) = delete;
    SmallFs& operator=(const SmallFs&) = delete;
    bool ok() const { return mounted_; }
    const std::string& why() const { return why_; }
    const std::string& dir() const { return dir_.path(); }
    bool grow(const char* size) {
        const std::string opts = std::string("size=") + size;
        return ::mount("tmpfs", dir_.path().c_str(), "tmpfs", MS_REMOUNT, opts.c_str()) == 0;
    }

private:
    TempDir dir_;
    std::string why_;
    bool mounted_ = false;
};

// Interfaces of the bundled default scenario.
inline constexpr std::uint32_t kMgmt = 1;       // M-GigabitEthernet0/0/0, node 1
inline constexpr std::uint32_t kGe1 = 2;        // GigabitEthernet1/0/1, node 1
inline constexpr std::uint32_t kGeVpn = 3;      // GigabitEthernet1/0/2, node 1, VRF 1
inline constexpr std::uint32_t kGeNode2 = 4;    // GigabitEthernet1/1/1, node 2
inline constexpr std::uint32_t kVlan1 = 5;      // Vlan-interface1, spans nodes
inline constexpr std::uint32_t kLoop0 = 7;      // LoopBack0

// The simulator's bundled default scenario, as it prints it.
inline std::string printed_default_scenario() {
    std::string text;
    run({IPSIMD_PATH, "--print-default-scenario"}, &text);
    return text;
}

// Simulator arguments for the default scenario with node 2 down, written to the file `name`.
inline std::vector<std::string> node_two_down_args(const std::string& name) {
    std::string text = printed_default_scenario();
    text.replace(text.find("state: up", text.find("number: 2")), 9, "state: down");
    return {"--scenario", temp_file(name, text)};
}

// A test with a fresh simulator on the default scenario (or SetUp's arguments).
class SimTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sim.start(args())) << sim.log(); }
    void TearDown() override {
        if (sim.running()) {
            EXPECT_EQ(sim.stop(), 0) << sim.log();
        }
    }
    virtual std::vector<std::string> args() { return {}; }

    SimProcess sim;
};

// A test on a device started by the harness that applications' tests use
// (testing/include/ipsim/harness.hpp), on the simulator built here: the project's own
// tests use it as an application's would, so that it keeps up with the simulator. The
// device runs for this test process's instance: its library calls, its children and the
// control helpers above reach it.
class HarnessTest : public ::testing::Test {
protected:
    void SetUp() override {
        ipsim::Options options;
        options.ipsimd = IPSIMD_PATH;
        options.instance = instance();
        try {
            device_.emplace(scenario(), options);
        } catch (const ipsim::Error& e) {
            FAIL() << e.what();
        }
        device_->use_here();
    }
    void TearDown() override {
        // A simulator ends cleanly on SIGTERM, unless the test killed it.
        if (device_ && device_->running() && !killed_) {
            EXPECT_EQ(device_->stop(), 0) << device_->log();
        }
    }
    virtual ipsim::Scenario scenario() { return ipsim::Scenario::bundled(); }
    ipsim::Device& device() { return *device_; }
    // Kills the simulator at once (SIGKILL): every connection to it ends.
    void kill9() {
        killed_ = true;
        ::kill(device_->pid(), SIGKILL);
    }

private:
    std::optional<ipsim::Device> device_;
    bool killed_ = false;
};

}  // namespace e2e
