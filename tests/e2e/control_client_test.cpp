// `ipsimd --control` as a client: it never waits for ever, says what is wrong in words,
// and carries answers of any length the simulator can give; the simulator refuses a request
// longer than the channel takes instead of reading it cut.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "e2e/e2e_support.hpp"
#include "ipproto/control_channel.hpp"
#include "ipproto/endpoints.hpp"
#include "ipproto/raii.hpp"

namespace e2e {
namespace {

using namespace std::chrono_literals;
using ControlClientE2E = SimTest;

int control_cli(const std::vector<std::string>& extra, std::string* out, std::string* err,
                std::chrono::milliseconds limit = 10s) {
    std::vector<std::string> argv{IPSIMD_PATH, "--instance", instance()};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return run(argv, out, err, limit);
}

TEST_F(ControlClientE2E, StoppedSimulatorTimesOutWithAMessage) {
    ASSERT_EQ(::kill(sim.pid(), SIGSTOP), 0);
    std::string out, err;
    const auto began = std::chrono::steady_clock::now();
    const int rc = control_cli({"--timeout", "1", "--control", R"({"op": "neigh.list"})"}, &out, &err);
    const auto took = std::chrono::steady_clock::now() - began;
    ::kill(sim.pid(), SIGCONT);
    EXPECT_EQ(rc, 1) << out << err;
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "ipsimd: no answer from the simulator of instance \"" + instance() +
                       "\" within 1000 ms (is it stopped?)\n");
    EXPECT_LT(took, 3s);
}

TEST_F(ControlClientE2E, EmptyRequestIsAUsageError) {
    std::string out, err;
    const int rc = control_cli({"--control", ""}, &out, &err, 3s);
    EXPECT_EQ(rc, 2) << out << err;
    EXPECT_NE(err.find("--control needs a request"), std::string::npos) << err;
}

// (A command line cannot carry a request that long: the client's check is the exchange's.)
TEST_F(ControlClientE2E, RequestOverTheLimitIsRefusedBeforeItIsSent) {
    const std::string request = R"({"op": "neigh.list", "pad": ")" + std::string(100u << 10, 'x') + "\"}";
    const auto x = ipc::control::ask(instance(), request, 1000);
    EXPECT_EQ(x.outcome, ipc::control::Exchange::kTooLong);
    EXPECT_EQ(x.detail, "the request is too long (" + std::to_string(request.size()) + " bytes; at most 65536)");
    EXPECT_EQ(x.answer, "");
}

TEST_F(ControlClientE2E, SimulatorAnswersARequestOverTheLimitAsTooLong) {
    const ipc::Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un sun{};
    const socklen_t n = ipc::names::control(instance(), &sun);
    ASSERT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&sun), n), 0);
    const std::string request = R"({"op": "neigh.list", "pad": ")" + std::string(100u << 10, 'x') + "\"}";
    ASSERT_EQ(::send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
    std::string answer(4096, '\0');
    const ssize_t got = ::recv(fd.get(), answer.data(), answer.size(), 0);
    ASSERT_GT(got, 0);
    answer.resize(static_cast<std::size_t>(got));
    const auto j = nlohmann::json::parse(answer, nullptr, false);
    ASSERT_TRUE(j.is_object()) << answer;
    EXPECT_EQ(j.value("ok", true), false);
    EXPECT_EQ(j.value("error", ""), "request too long (" + std::to_string(request.size()) + " bytes; at most 65536)");
    // The channel goes on serving.
    EXPECT_EQ(control({{"op", "neigh.list"}, {"family", 2}}).value("ok", false), true);
}

TEST_F(ControlClientE2E, AnswerLongerThanOneMessageArrivesWhole) {
    const auto burst = control({{"op", "neigh.burst"},
                                {"interface", kGe1},
                                {"first", "10.66.0.1"},
                                {"mac", "02:00:00:00:00:01"},
                                {"count", 20000}});
    ASSERT_TRUE(burst.value("ok", false)) << burst.dump();
    std::string out, err;
    const int rc = control_cli({"--control", R"({"op": "neigh.list", "family": 2})"}, &out, &err, 30s);
    ASSERT_EQ(rc, 0) << err;
    EXPECT_GT(out.size(), 2u << 20) << "a listing of many pieces";
    const auto j = nlohmann::json::parse(out, nullptr, false);
    ASSERT_TRUE(j.is_object()) << out.substr(0, 200);
    EXPECT_TRUE(j.value("ok", false));
    ASSERT_TRUE(j.contains("entries"));
    EXPECT_GE(j["entries"].size(), 20000u);
}

// A simulator (or an impostor of this user) that ends the connection in the middle of a long
// answer gives a cut answer, not a whole one.
TEST(ControlClientCutE2E, AnswerCutBeforeItsLastPieceIsNotTakenAsWhole) {
    const std::string name = instance() + "-cut";
    sockaddr_un sun{};
    const socklen_t n = ipc::names::control(name, &sun);
    const ipc::Fd listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&sun), n), 0);
    ASSERT_EQ(::listen(listener.get(), 4), 0);
    std::thread server([&] {
        const ipc::Fd c(::accept(listener.get(), nullptr, nullptr));
        char buf[1024];
        (void)::recv(c.get(), buf, sizeof buf, 0);
        const std::string_view head = ipc::control::kContinued;
        (void)::send(c.get(), head.data(), head.size(), MSG_NOSIGNAL);
        const std::string piece = std::string(1, ipc::control::kMorePiece) + R"({"entries":[{"a":1},)";
        (void)::send(c.get(), piece.data(), piece.size(), MSG_NOSIGNAL);
    });
    const auto x = ipc::control::ask(name, R"({"op": "neigh.list"})", 2000);
    server.join();
    EXPECT_EQ(x.outcome, ipc::control::Exchange::kFailed);
    EXPECT_EQ(x.detail, "the answer was cut: the connection ended before its last piece");
    EXPECT_EQ(x.answer, "");
}

TEST_F(ControlClientE2E, NoSimulatorIsNamedAsSuch) {
    std::string out, err;
    const int rc = run({IPSIMD_PATH, "--instance", instance() + "-none", "--control", R"({"op": "neigh.list"})"}, &out,
                       &err);
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(err, "ipsimd: no simulator answers for instance \"" + instance() + "-none\"\n");
}

}  // namespace
}  // namespace e2e
