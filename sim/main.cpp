// ipsimd: a simulated network device for the IP client library.
//
//   ipsimd [--scenario FILE] [--instance NAME] [--state DIR] [--capture FILE]
//          [--log-level LEVEL] [--check] [--print-default-scenario]
//   ipsimd --source linux [--netns NAME] [--writable] [--netlink-buffer BYTES] [--instance NAME] [--state DIR] ...
//   ipsimd [--instance NAME] --control JSON [--timeout SECONDS]
//
// With --source linux the device mirrors a Linux network namespace instead of playing a
// scenario (source/linux_source.hpp). Runs in the foreground, prints "ready instance=NAME nodes=N" on standard output once
// every channel listens, logs to standard error, and exits 0 on SIGTERM or SIGINT, at any
// moment (a signal that comes while the device is still being loaded ends the process at
// once); SIGHUP is logged and otherwise ignored (the log is standard error: nothing to
// reopen). Files it creates (state, capture) are private to its user (umask 077).
// Exit status: 0 done, 1 the simulator could not start, 2 bad arguments or a refused
// scenario. With --control it runs nothing itself: it sends one request to the control
// channel of the instance's running simulator (a simulator of this user or root only),
// waits at most --timeout seconds (default 5) for the answer, prints it, and exits 0 when
// the answer says ok, 1 otherwise (with a line on standard error that says why when there
// is no answer).
#include <malloc.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sys/stat.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "core/log.hpp"
#include "daemon.hpp"
#include "lab/lab.hpp"
#include "ipproto/control_channel.hpp"
#include "ipproto/endpoints.hpp"
#include "source/linux_source.hpp"

namespace {

// Set once the daemon's loop runs; until then a stop signal ends the process at once.
std::atomic<sim::Daemon*> g_running{nullptr};
volatile sig_atomic_t g_early_hangup = 0;

void on_stop_signal(int) {
    sim::Daemon* d = g_running.load();
    if (d == nullptr) ::_exit(0);
    d->stop();
}

void on_hangup(int) {
    sim::Daemon* d = g_running.load();
    if (d == nullptr) {
        g_early_hangup = 1;
        return;
    }
    d->hangup();
}

// Installed before any long work (a scenario to load, a namespace to read).
void install_signals() {
    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGINT, &sa, nullptr);
    struct sigaction hup {};
    hup.sa_handler = on_hangup;
    ::sigaction(SIGHUP, &hup, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
}

std::string default_instance() {
    const char* env = std::getenv("IPCLIENT_INSTANCE");
    return env != nullptr && *env != '\0' ? env : "default";
}

// An excerpt of a text given on the command line, for a message.
std::string excerpt(const std::string& text) { return text.size() <= 64 ? text : text.substr(0, 64) + "..."; }

// One request on the control channel of a running simulator.
int send_control(const std::string& instance, const std::string& request, double timeout_s) {
    const int ms = static_cast<int>(std::lround(timeout_s * 1000));
    const auto x = ipc::control::ask(instance, request, ms);
    if (x.outcome != ipc::control::Exchange::kAnswered) {
        std::fprintf(stderr, "ipsimd: %s\n", x.detail.c_str());
        return 1;
    }
    std::fwrite(x.answer.data(), 1, x.answer.size(), stdout);
    std::fputc('\n', stdout);
    if (std::fflush(stdout) != 0) return 1;
    const auto parsed = nlohmann::json::parse(x.answer, nullptr, false);
    return parsed.is_object() && parsed.value("ok", false) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    // ipsimd lab ...: a lab of devices, each an ipsimd of this same program.
    if (argc > 1 && std::string_view(argv[1]) == "lab") {
        std::vector<std::string> args(argv + 2, argv + argc);
        char self[4096];
        const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
        return sim::lab::lab_main(args, n > 0 ? std::string(self, static_cast<std::size_t>(n)) : std::string(argv[0]));
    }
    CLI::App app{"ipsimd: a simulated network device for the IP client library"};
    std::string scenario_file, level = "info";
    sim::Options opts;
    opts.instance = default_instance();
    bool check = false, print_default = false;
    std::string control_request;
    double timeout_s = ipc::control::kDefaultTimeoutMs / 1000.0;
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
    CLI::Option* buffer_opt =
        app.add_option("--netlink-buffer", linux_opts.event_buffer,
                       "with --source linux: bytes of the namespace notification socket's receive buffer (default 32 MiB)")
            ->check(CLI::Range(4096, 1 << 30));
    CLI::Option* control_opt = app.add_option(
        "--control", control_request, "send one JSON request to the running simulator's control channel and print the answer");
    CLI::Option* timeout_opt =
        app.add_option("--timeout", timeout_s, "with --control: seconds to wait for the simulator (default 5)")
            ->check(CLI::Range(0.001, 3600.0));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    if (!ipc::names::valid_instance(opts.instance)) {
        std::fprintf(stderr, "ipsimd: bad instance name \"%s\" (%zu bytes): a name has 1 to %zu characters and no '/'\n",
                     excerpt(opts.instance).c_str(), opts.instance.size(), ipc::names::kMaxInstance);
        return 2;
    }
    if (control_opt->count() > 0) {
        if (control_request.empty()) {
            std::fprintf(stderr, "ipsimd: --control needs a request: a JSON object such as '{\"op\": \"neigh.list\"}'\n");
            return 2;
        }
        return send_control(opts.instance, control_request, timeout_s);
    }
    if (timeout_opt->count() > 0) {
        std::fprintf(stderr, "ipsimd: --timeout goes with --control\n");
        return 2;
    }
    const bool from_linux = source_kind == "linux";
    if (!from_linux && (!linux_opts.netns.empty() || linux_opts.writable || buffer_opt->count() > 0)) {
        std::fprintf(stderr, "ipsimd: --netns, --writable and --netlink-buffer go with --source linux\n");
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
    // A device from here on (or a check of one): a stop signal ends a device cleanly from
    // now, whatever it does; a check interrupted is no check, and ends as the signal would.
    if (!check) install_signals();
    sim::log::Level lv{};
    sim::log::parse_level(level, &lv);
    sim::log::set_level(lv);
    ::umask(077);

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

    sim::Daemon& daemon = *owner;
    if (const auto err = daemon.start()) {
        std::fprintf(stderr, "ipsimd: %s\n", err->c_str());
        return 1;
    }
    SIM_LOG(kInfo, "instance %s: %zu nodes, scenario %s", opts.instance.c_str(), daemon.node_count(),
            source.c_str());
    if (g_early_hangup != 0) daemon.hangup();
    g_running.store(&daemon);
    std::printf("ready instance=%s nodes=%zu\n", opts.instance.c_str(), daemon.node_count());
    std::fflush(stdout);
    daemon.run();
    g_running.store(nullptr);
    SIM_LOG(kInfo, "stopped");
    return 0;
}
