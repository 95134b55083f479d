// The test harness that application developers use (ipsim/harness.hpp), as they use it: a
// device made from a scenario, its environment given to a child program, this process's
// library calls, control operations, faults, the capture, and what is left when it goes.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "ipclient/fib.h"
#include "ipplat/platform.h"
#include "ipsim/harness.hpp"

namespace {

// A small device: one master node with one interface.
const char* const kYaml = R"(nodes:
  - {number: 1, chassis: 1, slot: 0, cpu: 0, role: master, state: up}
interfaces:
  - {index: 7, name: GigabitEthernet1/0/7, node: 1, type: ethernet}
)";

ipsim::Options options() {
    ipsim::Options o;
    o.ipsimd = IPSIMD_PATH;
    return o;
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

TEST(Harness, ADeviceFromYamlIsReadyUnderItsInstance) {
    ipsim::Device dev(ipsim::Scenario::yaml(kYaml), options());
    EXPECT_EQ(dev.ready_line(), "ready instance=" + dev.instance() + " nodes=1");
    EXPECT_TRUE(dev.running());
    EXPECT_EQ(::kill(dev.pid(), 0), 0);
}

TEST(Harness, ADeviceFromAScenarioFile) {
    const std::string path = ::testing::TempDir() + "harness-scenario.yaml";
    {
        FILE* f = std::fopen(path.c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fputs(kYaml, f);
        std::fclose(f);
    }
    ipsim::Device dev(ipsim::Scenario::file(path), options());
    EXPECT_EQ(dev.ready_line(), "ready instance=" + dev.instance() + " nodes=1");
    std::remove(path.c_str());
}

TEST(Harness, ABadScenarioThrowsWithTheSimulatorsWords) {
    try {
        ipsim::Device dev(ipsim::Scenario::yaml("nodes: [{number: 0}]\n"), options());
        FAIL() << "a device was made";
    } catch (const ipsim::Error& e) {
        const std::string what = e.what();
        EXPECT_NE(what.find("did not become ready"), std::string::npos) << what;
        EXPECT_NE(what.find("scenario.yaml:1: nodes[0].number"), std::string::npos) << "the simulator's words: " << what;
    }
}

TEST(Harness, AMissingSimulatorThrows) {
    ipsim::Options o;
    o.ipsimd = "/nonexistent/ipsimd";
    EXPECT_THROW(ipsim::Device dev(ipsim::Scenario::bundled(), o), ipsim::Error);
}

TEST(Harness, TheEnvironmentLetsAChildProgramReachTheDevice) {
    ipsim::Device dev(ipsim::Scenario::yaml(kYaml), options());
    std::string out;
    ASSERT_EQ(dev.run_program({IPCTL_PATH, "-j", "link", "show"}, &out), 0) << out << dev.log();
    EXPECT_NE(out.find("\"ifname\":\"GigabitEthernet1/0/7\""), std::string::npos) << out;
    bool has = false;
    for (const std::string& e : dev.environment()) has = has || e == "IPCLIENT_INSTANCE=" + dev.instance();
    EXPECT_TRUE(has);
}

TEST(Harness, UseHereMakesThisProcesssLibraryCallsReachTheDevice) {
    ipsim::Device dev(ipsim::Scenario::yaml(kYaml), options());
    dev.use_here();
    EXPECT_EQ(IF_GetIfIndexByFullName("GigabitEthernet1/0/7"), 7u);
}

TEST(Harness, ControlReturnsTheSimulatorsAnswer) {
    ipsim::Device dev(ipsim::Scenario::yaml(kYaml), options());
    EXPECT_EQ(dev.control(R"({"op": "fault.list"})"), R"({"faults":[],"ok":true})");
    EXPECT_EQ(dev.faults(), R"({"faults":[],"ok":true})");
    try {
        (void)dev.control(R"({"op": "no.such"})");
        FAIL() << "an unknown operation was taken";
    } catch (const ipsim::Error& e) {
        EXPECT_NE(std::string(e.what()).find("unknown operation"), std::string::npos) << e.what();
    }
    EXPECT_EQ(dev.control_any(R"({"op": "no.such"})"), R"({"error":"unknown operation \"no.such\"","ok":false})");
}

TEST(Harness, AFaultSetFailsTheLibraryCallAndClearingItMendsIt) {
    ipsim::Device dev(ipsim::Scenario::yaml(kYaml), options());
    dev.use_here();
    FIB4_SPEC_DATA_S data{};
    ASSERT_EQ(FIB4_Get_SpecData(&data), 0u);
    (void)dev.set_fault(R"({"kernel": "0x380001", "error": "0x40010001"})");
    EXPECT_NE(dev.faults().find("\"kernel\""), std::string::npos) << dev.faults();
    EXPECT_EQ(FIB4_Get_SpecData(&data), 0x40010001u);
    (void)dev.clear_faults();
    EXPECT_EQ(FIB4_Get_SpecData(&data), 0u);
    EXPECT_EQ(dev.faults(), R"({"faults":[],"ok":true})");
}

TEST(Harness, TheCaptureHoldsTheRequestsAndAnswers) {
    ipsim::Device dev(ipsim::Scenario::yaml(kYaml), options());
    dev.use_here();
    EXPECT_EQ(FIB4_GetRouteChangeSeq(), 0u);
    const std::string capture = dev.capture();
    EXPECT_NE(capture.find("380005"), std::string::npos) << capture.substr(0, 2000);
    ipsim::Options quiet = options();
    quiet.capture = false;
    ipsim::Device none(ipsim::Scenario::yaml(kYaml), quiet);
    EXPECT_EQ(none.capture(), "");
}

TEST(Harness, WhenTheDeviceGoesNothingIsLeft) {
    pid_t pid = 0;
    std::string dir, instance;
    {
        ipsim::Device dev(ipsim::Scenario::yaml(kYaml), options());
        pid = dev.pid();
        dir = dev.directory();
        instance = dev.instance();
        ASSERT_TRUE(exists(dir + "/state"));
    }
    EXPECT_NE(::kill(pid, 0), 0) << "the simulator is gone";
    EXPECT_FALSE(exists(dir)) << "its directory is gone";
    std::string out;
    EXPECT_NE(ipsim::Device::run({IPSIMD_PATH, "--instance", instance, "--control", R"({"op":"fault.list"})", "--timeout",
                                  "0.2"},
                                 &out),
              0)
        << "nothing answers for the instance: " << out;
}

TEST(Harness, StopEndsTheSimulatorWithItsExitStatus) {
    ipsim::Device dev(ipsim::Scenario::yaml(kYaml), options());
    EXPECT_EQ(dev.stop(), 0);
    EXPECT_FALSE(dev.running());
    EXPECT_EQ(dev.stop(), -1);
}

TEST(Harness, ADeviceMirrorsANamespace) {
    if (::geteuid() != 0) GTEST_SKIP() << "not root: no namespace can be made";
    const std::string ns = "ipsim-harness-" + std::to_string(::getpid());
    std::string out;
    if (ipsim::Device::run({"ip", "netns", "add", ns}, &out) != 0) GTEST_SKIP() << "cannot make a namespace";
    ASSERT_EQ(ipsim::Device::run({"ip", "-n", ns, "link", "add", "h0", "type", "veth", "peer", "name", "h1"}, &out), 0);
    {
        ipsim::Device dev(ipsim::Scenario::mirror(ns), options());
        dev.use_here();
        EXPECT_NE(IF_GetIfIndexByFullName("h0"), 0u);
        EXPECT_NE(IF_GetIfIndexByFullName("h1"), 0u);
    }
    EXPECT_EQ(ipsim::Device::run({"ip", "netns", "del", ns}, &out), 0);
}

}  // namespace
