// A lab of devices on one host (ipsimd lab): three devices in a line, each a namespace of its
// own mirrored by its own simulator, wired by veth links. Programs on the library (ipctl)
// reach each device by its name; neighbours resolve across the real links; a link taken down
// and up shows in the events and the FIB of the devices at both ends; and `down` leaves no
// namespace, link or process, also after the lab's processes were killed with SIGKILL.
//
// Each test's lab and device names carry the test process's id, so that labs of tests run at
// once never meet; the lab's state directory is a temporary one of the test's own
// (IPSIMD_LAB_DIR). Tests are skipped where namespaces cannot be made.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "e2e/e2e_support.hpp"

namespace e2e {
namespace {

using nlohmann::json;

bool gone(pid_t pid) {
    if (::kill(pid, 0) != 0) return true;
    // A process that ended and waits for a parent that does not reap is gone too.
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t close = text.rfind(')');
    return close == std::string::npos || close + 2 >= text.size() || text[close + 2] == 'Z';
}

class Lab : public ::testing::Test {
protected:
    void SetUp() override {
        ip_ = ip_program();
        if (ip_.empty()) GTEST_SKIP() << "the ip program is not installed";
        if (::geteuid() != 0) GTEST_SKIP() << "not root: network namespaces cannot be made";
        const std::string id = std::to_string(::getpid() % 1000000);
        lab_ = "L" + id;
        a_ = "a" + id;
        b_ = "b" + id;
        c_ = "c" + id;
        dir_ = temp_file("lab-dir-" + id, "");
        ::unlink(dir_.c_str());
        ::setenv("IPSIMD_LAB_DIR", dir_.c_str(), 1);
        file_ = temp_file("lab-" + id + ".yaml", topology());
    }

    void TearDown() override {
        if (!lab_.empty() && up_) (void)lab({"down", lab_});
    }

    std::string topology() const {
        return "lab: " + lab_ + "\n" +
               "devices:\n"
               "  - name: " + a_ + "\n"
               "    interfaces:\n"
               "      - {name: eth1, addresses: [10.0.12.1/24, \"2001:db8:12::1/64\"]}\n"
               "    routes:\n"
               "      - {to: 10.0.23.0/24, via: 10.0.12.2}\n"
               "  - name: " + b_ + "\n"
               "    interfaces:\n"
               "      - {name: eth1, addresses: [10.0.12.2/24, \"2001:db8:12::2/64\"]}\n"
               "      - {name: eth2, addresses: [10.0.23.2/24]}\n"
               "    sysctls: {net.ipv4.ip_forward: 1}\n"
               "  - name: " + c_ + "\n"
               "    interfaces:\n"
               "      - {name: eth1, addresses: [10.0.23.3/24]}\n"
               "    routes:\n"
               "      - {to: 10.0.12.0/24, via: 10.0.23.2}\n"
               "    run: [\"sleep 600\", \"" IPCTL_PATH " -j route show\"]\n"
               "links:\n"
               "  - {a: \"" + a_ + ":eth1\", b: \"" + b_ + ":eth1\"}\n"
               "  - {a: \"" + b_ + ":eth2\", b: \"" + c_ + ":eth1\"}\n";
    }

    // ipsimd lab ARGS: the exit status; its output in *out.
    int lab(const std::vector<std::string>& args, std::string* out = nullptr, std::string* err = nullptr) {
        std::vector<std::string> argv{IPSIMD_PATH, "lab"};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string o, e;
        const int rc = run(argv, &o, &e, std::chrono::seconds(60));
        if (out != nullptr) *out = o;
        if (err != nullptr) *err = e;
        return rc;
    }
    void up() {
        std::string out, err;
        ASSERT_EQ(lab({"up", file_}, &out, &err), 0) << out << err;
        up_ = true;
    }
    json show() {
        std::string out;
        EXPECT_EQ(lab({"show", lab_, "--json"}, &out), 0);
        return json::parse(out, nullptr, false);
    }
    std::string ipctl(const std::string& device, const std::vector<std::string>& args, int* rc = nullptr) {
        std::vector<std::string> argv{IPCTL_PATH, "-i", device};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string out, err;
        const int code = run(argv, &out, &err);
        if (rc != nullptr) *rc = code;
        return out + err;
    }
    std::string in_ns(const std::string& device, const std::vector<std::string>& args) {
        std::vector<std::string> argv{ip_, "-n", lab_ + "-" + device};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string out;
        (void)run(argv, &out);
        return out;
    }
    std::string mac(const std::string& device, const std::string& ifname) {
        const json j = json::parse(in_ns(device, {"-j", "link", "show", "dev", ifname}), nullptr, false);
        return j.is_array() && !j.empty() ? j[0].value("address", "") : "";
    }
    std::vector<std::string> namespaces() {
        std::string out;
        (void)run({ip_, "netns", "list"}, &out);
        std::vector<std::string> mine;
        std::istringstream in(out);
        for (std::string line; std::getline(in, line);) {
            if (line.rfind(lab_ + "-", 0) == 0) mine.push_back(line.substr(0, line.find(' ')));
        }
        return mine;
    }
    // Nothing of the lab is left: no namespace, no process, no state, no simulator answers.
    void expect_nothing_left(const std::vector<pid_t>& pids) {
        EXPECT_TRUE(namespaces().empty());
        for (const pid_t pid : pids) EXPECT_TRUE(gone(pid)) << "process " << pid;
        struct stat st {};
        EXPECT_NE(::stat((dir_ + "/" + lab_).c_str(), &st), 0) << "the lab's state directory";
        int rc = 0;
        (void)ipctl(a_, {"status"}, &rc);
        EXPECT_NE(rc, 0) << "a simulator still answers for " << a_;
    }
    std::vector<pid_t> pids() {
        std::vector<pid_t> out;
        const json s = show();
        for (const json& p : s["processes"]) out.push_back(p.value("pid", 0));
        return out;
    }

    std::string ip_, lab_, a_, b_, c_, dir_, file_;
    bool up_ = false;
};

TEST_F(Lab, ALineOfThreeComesUpAndEachDeviceAnswersByItsName) {
    up();
    EXPECT_EQ(namespaces().size(), 3u);
    const json s = show();
    ASSERT_EQ(s["devices"].size(), 3u);
    for (const json& d : s["devices"]) EXPECT_TRUE(d["running"].get<bool>()) << d.dump();
    EXPECT_EQ(s["processes"].size(), 5u) << "three simulators and two commands";
    // Routes of the topology in each device's FIB, as a program on the library reads them.
    const std::string routes = ipctl(a_, {"-j", "route", "show"});
    EXPECT_NE(routes.find(R"("dst":"10.0.23.0/24","family":"inet","vrf":"public","gateway":"10.0.12.2","dev":"eth1")"),
              std::string::npos)
        << routes;
    EXPECT_NE(ipctl(c_, {"-j", "route", "show"}).find(R"("dst":"10.0.12.0/24")"), std::string::npos);
    // The data plane: a's packets reach c through b.
    std::string out;
    EXPECT_EQ(run({ip_, "netns", "exec", lab_ + "-" + a_, "ping", "-c", "1", "-W", "2", "10.0.23.3"}, &out), 0) << out;
}

TEST_F(Lab, NeighboursResolveAcrossRealLinksThroughTheLibrary) {
    up();
    const std::string b_mac = mac(b_, "eth1");
    ASSERT_FALSE(b_mac.empty());
    json j = json::parse(ipctl(a_, {"-j", "neigh", "resolve", "10.0.12.2", "dev", "eth1"}), nullptr, false);
    ASSERT_TRUE(j.is_array() && j.size() == 1) << j.dump();
    EXPECT_EQ(j[0].value("lladdr", ""), b_mac);
    EXPECT_EQ(j[0].value("state", ""), "reachable");
    j = json::parse(ipctl(a_, {"-j", "neigh", "resolve", "2001:db8:12::2", "dev", "eth1"}), nullptr, false);
    ASSERT_TRUE(j.is_array() && j.size() == 1) << j.dump();
    EXPECT_EQ(j[0].value("lladdr", ""), b_mac);
    EXPECT_EQ(j[0].value("state", ""), "reachable");
}

TEST_F(Lab, ALinkDownAndUpShowsInTheEventsAndFibAtBothEnds) {
    up();
    Child at_a({IPCTL_PATH, "-i", a_, "-j", "monitor", "link", "route"});
    Child at_b({IPCTL_PATH, "-i", b_, "-j", "monitor", "link", "route"});
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    ASSERT_EQ(lab({"link", lab_, a_ + ":eth1", "down"}), 0);
    EXPECT_EQ(show()["links"][0].value("up", true), false);
    // Each end hears its link go down, and loses the connected route of the link.
    for (Child* m : {&at_a, &at_b}) {
        bool down = false, route = false;
        std::string line, seen;
        while (!(down && route) && m->line(&line, std::chrono::seconds(5))) {
            seen += line + "\n";
            down = down || (line.find(R"("object":"link")") != std::string::npos &&
                            line.find(R"("operstate":"DOWN")") != std::string::npos);
            route = route || (line.find(R"("event":"delete")") != std::string::npos &&
                              line.find(R"("dst":"10.0.12.0/24")") != std::string::npos);
        }
        EXPECT_TRUE(down) << "link event\n" << seen;
        EXPECT_TRUE(route) << "route event\n" << seen;
    }
    EXPECT_EQ(ipctl(a_, {"-j", "route", "show"}).find(R"("dst":"10.0.12.0/24")"), std::string::npos);
    EXPECT_EQ(ipctl(b_, {"-j", "route", "show"}).find(R"("dst":"10.0.12.0/24")"), std::string::npos);
    EXPECT_NE(ipctl(a_, {"-br", "link", "show"}).find("eth1  DOWN"), std::string::npos);

    ASSERT_EQ(lab({"link", file_, b_ + ":eth1", "up"}), 0);
    for (Child* m : {&at_a, &at_b}) {
        bool up = false, route = false;
        std::string line, seen;
        while (!(up && route) && m->line(&line, std::chrono::seconds(5))) {
            seen += line + "\n";
            up = up || line.find(R"("operstate":"UP")") != std::string::npos;
            route = route || (line.find(R"("event":"add")") != std::string::npos &&
                              line.find(R"("dst":"10.0.12.0/24")") != std::string::npos);
        }
        EXPECT_TRUE(up) << "link event\n" << seen;
        EXPECT_TRUE(route) << "route event\n" << seen;
    }
    EXPECT_NE(ipctl(a_, {"-j", "route", "show"}).find(R"("dst":"10.0.12.0/24")"), std::string::npos);
}

TEST_F(Lab, DownLeavesNoNamespaceLinkOrProcess) {
    up();
    const std::vector<pid_t> before = pids();
    ASSERT_EQ(before.size(), 5u);
    ASSERT_EQ(lab({"down", file_}), 0);
    up_ = false;
    expect_nothing_left(before);
}

TEST_F(Lab, DownAfterTheLabsProcessesWereKilledLeavesNothing) {
    up();
    const std::vector<pid_t> before = pids();
    for (const pid_t pid : before) ::kill(pid, SIGKILL);
    ASSERT_EQ(lab({"down", lab_}), 0);
    up_ = false;
    expect_nothing_left(before);
}

TEST_F(Lab, ALabIsUpOnceAndAnotherWithTheSameDevicesIsRefused) {
    up();
    std::string out, err;
    EXPECT_EQ(lab({"up", file_}, &out, &err), 1);
    EXPECT_NE(err.find("is up already"), std::string::npos) << err;
    // Another lab whose devices have the same names: refused before it makes anything.
    std::string other = topology();
    other.replace(other.find("lab: " + lab_), 5 + lab_.size(), "lab: M" + lab_.substr(1));
    const std::string path = temp_file("lab-other.yaml", other);
    EXPECT_EQ(lab({"up", path}, &out, &err), 1);
    EXPECT_NE(err.find("already answers for instance"), std::string::npos) << err;
    std::string list;
    (void)run({ip_, "netns", "list"}, &list);
    EXPECT_EQ(list.find("M" + lab_.substr(1) + "-"), std::string::npos) << list;
    EXPECT_TRUE(show()["devices"][0]["running"].get<bool>()) << "the first lab runs on";
}

TEST_F(Lab, ARunCommandInADevicesNamespaceTalksToItsDevice) {
    up();
    // c's second command, ipctl in c's namespace, read c's FIB through the library.
    const std::string log = dir_ + "/" + lab_ + "/" + c_ + "/run-2.log";
    std::string text;
    for (int i = 0; i < 100 && text.find("10.0.12.0/24") == std::string::npos; ++i) {
        std::ifstream in(log);
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_NE(text.find(R"("dst":"10.0.12.0/24","family":"inet","vrf":"public","gateway":"10.0.23.2","dev":"eth1")"),
              std::string::npos)
        << log << ": " << text;
}

TEST_F(Lab, AProgramInADevicesNamespaceReachesItsSimulatorThroughIpclientNetns) {
    up();
    const json s = show();
    const std::string sim_ns = "/proc/" + std::to_string(s["devices"][0].value("pid", 0)) + "/ns/net";
    const auto route_to = [&](const std::string& netns) {
        std::vector<std::string> argv{ip_, "netns", "exec", lab_ + "-" + a_, "env", "IPCLIENT_INSTANCE=" + a_};
        if (!netns.empty()) argv.push_back("IPCLIENT_NETNS=" + netns);
        argv.insert(argv.end(), {ROUTE_TO_PATH, "10.0.23.0/24"});
        std::string out, err;
        const int rc = run(argv, &out, &err);
        return std::pair{rc, out + err};
    };
    // In the device's namespace the simulator's socket names are not found.
    auto [rc, out] = route_to("");
    EXPECT_EQ(rc, 1) << out;
    EXPECT_NE(out.find("no route to 10.0.23.0/24"), std::string::npos) << out;
    // A namespace that cannot be opened: no socket, no answer, no crash.
    std::tie(rc, out) = route_to("/nonexistent/ns");
    EXPECT_EQ(rc, 1) << out;
    EXPECT_NE(out.find("no route to 10.0.23.0/24"), std::string::npos) << out;
    // The simulator's namespace: the route, and the neighbour resolved across the link.
    std::tie(rc, out) = route_to(sim_ns);
    EXPECT_EQ(rc, 0) << out;
    EXPECT_NE(out.find("route 10.0.23.0/24 via 10.0.12.2 dev "), std::string::npos) << out;
    EXPECT_NE(out.find("neighbour 10.0.12.2 dev "), std::string::npos) << out;
    EXPECT_NE(out.find("lladdr " + mac(b_, "eth1") + " reachable"), std::string::npos) << out;
}

TEST_F(Lab, ExecRunsACommandOnADeviceAndRefusesAnUnknownDevice) {
    up();
    std::string out, err;
    EXPECT_EQ(lab({"exec", lab_, a_, "--", ROUTE_TO_PATH, "10.0.23.0/24"}, &out, &err), 0) << out << err;
    EXPECT_NE(out.find("route 10.0.23.0/24 via 10.0.12.2 dev "), std::string::npos) << out;
    // Its exit status is the command's.
    EXPECT_EQ(lab({"exec", lab_, a_, "--", "sh", "-c", "exit 7"}, &out, &err), 7);
    EXPECT_EQ(lab({"exec", lab_, "z" + a_, "--", "true"}, &out, &err), 1);
    EXPECT_EQ(err, "ipsimd lab: lab " + lab_ + " has no device z" + a_ + "\n");
}

// examples/lab/run.sh on a line of the test's own: route_to on the first device, a ping to
// the third, and the middle device's events while its link to the third goes down and up.
TEST_F(Lab, TheLabExampleRunsEndToEnd) {
    std::string out, err;
    const int rc = run({"/usr/bin/env", "IPSIMD=" IPSIMD_PATH, "IPCTL=" IPCTL_PATH, "ROUTE_TO=" ROUTE_TO_PATH, "TOPOLOGY=" + file_,
                        "LAB=" + lab_, "R1=" + a_, "R2=" + b_, "R3=" + c_, LAB_EXAMPLE_PATH},
                       &out, &err, std::chrono::seconds(60));
    EXPECT_EQ(rc, 0) << out << err;
    EXPECT_NE(out.find("route 10.0.23.0/24 via 10.0.12.2 dev "), std::string::npos) << out;
    EXPECT_NE(out.find(" reachable\n"), std::string::npos) << out;
    EXPECT_NE(out.find("2 packets transmitted, 2 received"), std::string::npos) << out;
    const std::size_t down = out.find("link change dev eth2 state DOWN");
    ASSERT_NE(down, std::string::npos) << out;
    EXPECT_NE(out.find("link change dev eth2 state UP", down), std::string::npos) << out;
    // The script took its lab down.
    EXPECT_TRUE(namespaces().empty());
}

TEST_F(Lab, ABadTopologyIsRefusedWithFileLineAndKey) {
    const std::string path = temp_file("lab-bad.yaml", "lab: x\ndevices:\n  - name: r1\nlinks:\n  - {a: \"r1:e1\", b: \"r9:e1\"}\n");
    std::string out, err;
    EXPECT_EQ(lab({"up", path}, &out, &err), 2);
    EXPECT_EQ(err, "ipsimd lab: " + path + ":5: links[0].b: unknown device \"r9\"\n");
}

}  // namespace
}  // namespace e2e
