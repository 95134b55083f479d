// ipsimd: a simulated network device for the IP client library.
//
//   ipsimd [--scenario FILE] [--instance NAME] [--state DIR] [--capture FILE]
//          [--log-level LEVEL] [--check] [--print-default-scenario]
//   ipsimd --source linux [--netns NAME] [--writable] [--instance NAME] [--state DIR] ...
//   ipsimd [--instance NAME] --control JSON
//
// With --source linux the device mirrors a Linux network namespace instead of playing a
// scenario (source/linux_source.hpp). Runs in the foreground, prints "ready instance=NAME nodes=N" on standard output once
// every channel listens, logs to standard error, and exits 0 on SIGTERM or SIGINT.
// Exit status: 0 done, 1 the simulator could not start, 2 bad arguments or a refused
// scenario. With --control it runs nothing itself: it sends one request to the control
// channel of the instance's running simulator, prints the answer, and exits 0 when the
// answer says ok, 1 otherwise.
#include <malloc.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "common/endpoint_names.hpp"
#include "common/raii.hpp"
#include "core/log.hpp"
#include "daemon.hpp"
#include "source/linux_source.hpp"

namespace {

sim::Daemon* g_daemon = nullptr;

void on_signal(int) {
    if (g_daemon != nullptr) g_daemon->stop();
}

std::string default_instance() {
    const char* env = std::getenv("IPCLIENT_INSTANCE");
    return env != nullptr && *env != '\0' ? env : "default";
}

// One request on the control channel of a running simulator.
int send_control(const std::string& instance, const std::string& request) {
    const ipc::Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un sun{};
    const socklen_t n = ipc::names::control(instance, &sun);
    if (!fd.valid() || ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&sun), n) != 0) {
        std::fprintf(stderr, "ipsimd: no simulator runs for instance %s\n", instance.c_str());
        return 1;
    }
    if (::send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
        std::fprintf(stderr, "ipsimd: the request could not be sent\n");
        return 1;
    }
    std::string answer(sim::Loop::kMaxMessage, '\0');
    const ssize_t got = ::recv(fd.get(), answer.data(), answer.size(), 0);
    if (got <= 0) {
        std::fprintf(stderr, "ipsimd: no answer\n");
        return 1;
    }
    answer.resize(static_cast<std::size_t>(got));
    std::printf("%s\n", answer.c_str());
    const auto parsed = nlohmann::json::parse(answer, nullptr, false);
    return parsed.is_object() && parsed.value("ok", false) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"ipsimd: a simulated network device for the IP client library"};
    std::string scenario_file, level = "info";
    sim::Options opts;
    opts.instance = default_instance();
    bool check = false, print_default = false;
    std::string control_request;
    std::string source_kind = "scenario";
    sim::LinuxSourceOptions linux_opts;
    app.add_option("--scenario", scenario_file, "scenario file (YAML); default: the bundled scenario");
    app.add_option("--instance", opts.instance, "instance name (default: IPCLIENT_INSTANCE, else \"default\")");
    app.add_option("--state", opts.state_dir, "directory that keeps what clients changed");
    app.add_option("--capture", opts.capture, "file that receives one JSON line per request and answer");
    app.add_option("--log-level", level, "error, warn, info or debug")->check(CLI::IsMember({"error", "warn", "info", "debug"}));
    app.add_flag("--check", check, "validate the scenario and exit");
    app.add_flag("--print-default-scenario", print_default, "print the bundled scenario and exit");
    app.add_option("--source", source_kind, "where the device comes from: scenario (default) or linux")
        ->check(CLI::IsMember({"scenario", "linux"}));
    app.add_option("--netns", linux_opts.netns,
                   "with --source linux: the network namespace /run/netns/NAME (default: ipsimd's own)");
    app.add_flag("--writable", linux_opts.writable,
                 "with --source linux: carry address changes and neighbour resolution out in the namespace");
    app.add_option("--control", control_request,
                   "send one JSON request to the running simulator's control channel and print the answer");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    if (!control_request.empty()) return send_control(opts.instance, control_request);
    const bool from_linux = source_kind == "linux";
    if (!from_linux && (!linux_opts.netns.empty() || linux_opts.writable)) {
        std::fprintf(stderr, "ipsimd: --netns and --writable go with --source linux\n");
        return 2;
    }
    if (from_linux && !scenario_file.empty()) {
        std::fprintf(stderr, "ipsimd: --source linux makes its own device; --scenario does not go with it\n");
        return 2;
    }
    if (print_default) {
        std::fputs(sim::scenario::default_text(), stdout);
        return 0;
    }
    sim::log::Level lv{};
    sim::log::parse_level(level, &lv);
    sim::log::set_level(lv);

    std::unique_ptr<sim::Daemon> owner;
    // Declared after the daemon: it leaves the daemon's loop before the daemon goes.
    std::unique_ptr<sim::LinuxSource> mirrored;
    std::string source;
    {
        sim::scenario::Scenario scenario;
        if (from_linux) {
            std::string err;
            mirrored = sim::LinuxSource::open(linux_opts, &err);
            if (!mirrored) {
                std::fprintf(stderr, "ipsimd: %s\n", err.c_str());
                return 1;
            }
            scenario = mirrored->scenario();
        } else {
            try {
                scenario = scenario_file.empty() ? sim::scenario::load_default() : sim::scenario::load_file(scenario_file);
            } catch (const sim::scenario::Error& e) {
                std::fprintf(stderr, "ipsimd: scenario refused: %s\n", e.what());
                return 2;
            }
        }
        if (check) {
            std::printf("scenario %s: %zu nodes, %zu interfaces, %zu addresses\n", scenario.source.c_str(),
                        scenario.nodes.size(), scenario.interfaces.size(), scenario.addresses.size());
            return 0;
        }
        source = scenario.source;
        owner = std::make_unique<sim::Daemon>(scenario, opts);
    }
    if (mirrored) {
        if (const auto err = mirrored->attach(owner->context())) {
            std::fprintf(stderr, "ipsimd: %s\n", err->c_str());
            return 1;
        }
    }
    // Parsing a large scenario leaves much freed heap behind; hand it back to the system.
    ::malloc_trim(0);

    ::signal(SIGPIPE, SIG_IGN);
    sim::Daemon& daemon = *owner;
    if (const auto err = daemon.start()) {
        std::fprintf(stderr, "ipsimd: %s\n", err->c_str());
        return 1;
    }
    g_daemon = &daemon;
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGINT, &sa, nullptr);
    SIM_LOG(kInfo, "instance %s: %zu nodes, scenario %s", opts.instance.c_str(), daemon.node_count(),
            source.c_str());
    std::printf("ready instance=%s nodes=%zu\n", opts.instance.c_str(), daemon.node_count());
    std::fflush(stdout);
    daemon.run();
    g_daemon = nullptr;
    SIM_LOG(kInfo, "stopped");
    return 0;
}
