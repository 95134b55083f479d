// The daemon itself: its ready line, its signals, its capture and its scenario checks.
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "e2e/e2e_support.hpp"
#include "ipclient/ipcfg.h"
#include "ipclient/kernel.h"

namespace e2e {
namespace {

TEST(DaemonE2E, PrintsOneReadyLineAndStopsOnSigterm) {
    SimProcess sim;
    ASSERT_TRUE(sim.start()) << sim.log();
    EXPECT_EQ(sim.ready_line(), "ready instance=" + instance() + " nodes=2");
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(sim.stop(std::chrono::milliseconds(1000)), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
}

TEST(DaemonE2E, RefusesASecondSimulatorOfTheSameInstance) {
    SimProcess first;
    ASSERT_TRUE(first.start()) << first.log();
    std::string out, err;
    const int rc = run({IPSIMD_PATH, "--instance", instance()}, &out, &err);
    EXPECT_EQ(rc, 1);
    EXPECT_NE(err.find("another ipsimd"), std::string::npos) << err;
    EXPECT_EQ(first.stop(), 0);
}

TEST(DaemonE2E, BrokenScenarioIsRefusedWithFileLineAndKey) {
    const std::string path = temp_file("broken.yaml",
                                       "nodes:\n"
                                       "  - {number: 1, role: master}\n"
                                       "  - {number: 2, slot: many}\n"
                                       "interfaces: []\n");
    std::string out, err;
    EXPECT_EQ(run({IPSIMD_PATH, "--scenario", path, "--check"}, &out, &err), 2);
    EXPECT_NE(err.find(path + ":3: nodes[1].slot"), std::string::npos) << err;
}

TEST(DaemonE2E, CheckAcceptsTheDefaultScenario) {
    std::string out;
    std::string text;
    ASSERT_EQ(run({IPSIMD_PATH, "--print-default-scenario"}, &text), 0);
    const std::string path = temp_file("default.yaml", text);
    EXPECT_EQ(run({IPSIMD_PATH, "--scenario", path, "--check"}, &out), 0);
    EXPECT_NE(out.find("2 nodes"), std::string::npos) << out;
}

TEST(DaemonE2E, BadArgumentsExitWithTwo) {
    std::string out, err;
    EXPECT_EQ(run({IPSIMD_PATH, "--log-level", "loud"}, &out, &err), 2);
    EXPECT_EQ(run({IPSIMD_PATH, "--no-such-option"}, &out, &err), 2);
}

TEST(DaemonE2E, CaptureHasOneJsonLinePerRequestAndAnswer) {
    SimProcess sim;
    const std::string capture = sim.state_dir() + "/capture.jsonl";
    ASSERT_TRUE(sim.start({"--capture", capture})) << sim.log();
    IPAddrInfo info{};
    ASSERT_EQ(lookup_any(ip("10.1.1.1"), &info), 0u);
    ASSERT_EQ(IPCfg_AddManualAddr(kGe1, ip("10.9.9.1"), ip("255.255.255.0"), 0), 0u);
    ASSERT_EQ(sim.stop(), 0);

    std::ifstream in(capture);
    std::string line;
    bool kernel_request = false, kernel_answer = false, lipc_request = false, lipc_answer = false;
    while (std::getline(in, line)) {
        const auto j = nlohmann::json::parse(line);
        ASSERT_TRUE(j.contains("time") && j.contains("dir") && j.contains("node") && j.contains("bytes")) << line;
        if (j["channel"] == "kernel" && j.value("command", "") == "0x260001") {
            if (j["dir"] == "request" && j["bytes"].get<std::string>().rfind("000000020000001c", 0) == 0) {
                kernel_request = true;
                EXPECT_EQ(j["node"], 1);
            }
            if (j["dir"] == "answer" && j["fields"]["status"] == 0) kernel_answer = true;
        }
        if (j["channel"] == "lipc" && j.value("port", 0) == 1653) {
            if (j["dir"] == "request" && j["fields"].value("code", 0) == 1) lipc_request = true;
            if (j["dir"] == "answer" && j["fields"].value("result", 1) == 0) lipc_answer = true;
        }
    }
    EXPECT_TRUE(kernel_request);
    EXPECT_TRUE(kernel_answer);
    EXPECT_TRUE(lipc_request);
    EXPECT_TRUE(lipc_answer);
}

}  // namespace
}  // namespace e2e
